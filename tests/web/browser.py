"""Debian's chromium for the browser tests, through driver.cjs (playwright-core).

    with Browser(command_prefix) as b:       # e.g. dev.peer_command([]) to browse from the peer
        b.goto(url); b.click("#ps-show"); b.wait_text("#ps-status", "Process list")
"""
import json
import os
import re
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))


class BrowserError(AssertionError):
    pass


class Browser:
    def __init__(self, node_dir, prefix=(), env=None):
        e = dict(os.environ)
        e["TOOLNEST_NODE_DIR"] = node_dir
        e.update(env or {})
        self.p = subprocess.Popen(list(prefix) + ["node", os.path.join(HERE, "driver.cjs")],
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=e,
                                  start_new_session=True, text=True, bufsize=1)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        if self.p.poll() is None:
            try:
                self.p.stdin.write(json.dumps({"op": "quit"}) + "\n")
                self.p.stdin.close()
                self.p.wait(timeout=20)
            except (OSError, subprocess.TimeoutExpired):
                os.killpg(self.p.pid, 9)
                self.p.wait()
        self.p.stdout.close()

    def call(self, op, **kw):
        kw["op"] = op
        self.p.stdin.write(json.dumps(kw) + "\n")
        line = self.p.stdout.readline()
        if not line:
            raise BrowserError(f"the browser driver ended during {op}")
        a = json.loads(line)
        if not a["ok"]:
            raise BrowserError(f"{op} {kw}: {a['error']}")
        return a.get("value")

    def __getattr__(self, op):
        return lambda **kw: self.call(op, **kw)


ARCHIVE_RE = re.compile(r"^debug-\d{8}-\d{6}-c(\d+)/")


def archive_members(path):
    """GNU tar's list of a downloaded debug.tgz: (the archive's directory,
    member names below it, the set of programs with a core)."""
    r = subprocess.run(["tar", "-tzf", path], capture_output=True, timeout=120)
    if r.returncode != 0:
        raise AssertionError("GNU tar cannot list " + path + ": " + r.stderr.decode(errors="replace"))
    names = r.stdout.decode().splitlines()
    m = ARCHIVE_RE.match(names[0])
    if not m:
        raise AssertionError("not a debug archive directory: " + names[0])
    rel = [n[len(m.group(0)):] for n in names]
    cores = {n.split(".")[0] for n in rel if n.endswith("/core")}
    return m.group(0), rel, cores
