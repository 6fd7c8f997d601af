// Drives Debian's chromium for the browser tests: one JSON command per line on
// standard input, one JSON answer per line on standard output.  The node
// modules (playwright-core) live where TOOLNEST_NODE_DIR says.
'use strict';
const path = require('path');
const readline = require('readline');
const { chromium } = require(path.join(process.env.TOOLNEST_NODE_DIR, 'node_modules', 'playwright-core'));

async function main() {
  const browser = await chromium.launch({
    executablePath: process.env.TOOLNEST_CHROMIUM || '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
  });
  const context = await browser.newContext({ acceptDownloads: true, viewport: { width: 1280, height: 900 } });
  const pages = [await context.newPage()];
  const pending = new Map();   // name -> promise of a download
  const P = (c) => pages[c.page || 0];

  const ops = {
    async newpage() { pages.push(await context.newPage()); return pages.length - 1; },
    async goto(c) {
      const r = await P(c).goto(c.url, { timeout: c.timeout || 30000 });
      return r ? r.status() : null;
    },
    async fill(c) { await P(c).fill(c.sel, c.value); },
    async click(c) { await P(c).click(c.sel, { timeout: c.timeout || 10000 }); },
    async check(c) { await P(c).setChecked(c.sel, c.value); },
    async text(c) { return await P(c).textContent(c.sel); },
    async body(c) { return await P(c).innerText('body'); },
    async enabled(c) { return await P(c).isEnabled(c.sel); },
    // Waits until the element's text holds c.text (or matches c.re).
    async wait_text(c) {
      const h = await P(c).waitForFunction(([sel, text, re]) => {
        const el = document.querySelector(sel);
        if (!el) return false;
        const t = el.textContent;
        return (re ? new RegExp(re).test(t) : t.includes(text)) ? t : false;
      }, [c.sel, c.text || '', c.re || ''], { timeout: c.timeout || 30000, polling: 100 });
      return await h.jsonValue();
    },
    // Starts waiting for a download before the click that causes it.
    async expect_download(c) {
      const p = P(c).waitForEvent('download', { timeout: c.timeout || 120000 });
      p.catch(() => {});
      pending.set(c.name, p);
    },
    async save_download(c) {
      const d = await pending.get(c.name);
      pending.delete(c.name);
      await d.saveAs(c.path);
      return d.suggestedFilename();
    },
    async screenshot(c) { await P(c).screenshot({ path: c.path, fullPage: !!c.full }); },
    async scroll(c) { await P(c).locator(c.sel).scrollIntoViewIfNeeded(); },
  };

  const rl = readline.createInterface({ input: process.stdin });
  for await (const line of rl) {
    if (!line.trim()) continue;
    const c = JSON.parse(line);
    if (c.op === 'quit') break;
    let answer;
    try {
      answer = { ok: true, value: await ops[c.op](c) };
    } catch (e) {
      answer = { ok: false, error: String(e && e.message || e) };
    }
    process.stdout.write(JSON.stringify(answer) + '\n');
  }
  await browser.close();
}

main().catch((e) => { process.stderr.write(String(e && e.stack || e) + '\n'); process.exit(1); });
