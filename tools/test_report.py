#!/usr/bin/env python3
"""Skip accounting of the test command.

Reads the JUnit files ctest wrote for each preset (and the emulated board's
console log), counts passed, failed and skipped tests per preset -- skipped
ctest tests and skipped cases inside the test scripts alike -- and judges
every skip by its reason.  A skip names its reason with a tag at the start of
its message:

  [qemu-user]           qemu-user lacks the kernel interface; the board runs it
  [board]               needs hardware only the emulated board provides (MTD)
  [root]                needs root
  [unshare]             needs namespaces (unshare)
  [ipv6]                needs IPv6 sockets
  [pid-namespace]       needs the machine's own pid namespace (kthreadd in it)
  [qemu-system-mipsel]  needs the system emulator (the board test itself)

A skip hides coverage, and fails the run, when this machine could have given
it: the machine is root, can unshare, has IPv6, sees kthreadd or has
qemu-system-mipsel; a [qemu-user] skip outside the emulated preset; a
[qemu-user] or [board] skip whose test the board did not pass in this run
(unless the machine has no system emulator); any skip on the board itself; and
a skip without a known tag.  An emulated (cross) preset without its board
test fails as well.

usage: test_report.py [--board-log LOG] PRESET=JUNIT[:emulated] ...
Exit status 1 when a skip hides coverage, else 0.
"""
import argparse
import os
import re
import shutil
import socket
import subprocess
import sys
import xml.etree.ElementTree as ET

TAGS = ("qemu-user", "board", "root", "unshare", "ipv6", "pid-namespace", "qemu-system-mipsel")
TAG_RE = re.compile(r"\[(" + "|".join(re.escape(t) for t in TAGS) + r")\]")


def machine():
    """What this machine can give, by tag."""
    can = {"root": os.geteuid() == 0}
    try:
        r = subprocess.run(["unshare", "--mount", "--net", "--pid", "--fork", "--", "true"],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
        can["unshare"] = r.returncode == 0
    except (OSError, subprocess.TimeoutExpired):
        can["unshare"] = False
    try:
        with socket.socket(socket.AF_INET6, socket.SOCK_STREAM) as s:
            s.bind(("::1", 0))
        can["ipv6"] = True
    except OSError:
        can["ipv6"] = False
    try:
        with open("/proc/2/stat") as f:
            can["pid-namespace"] = f.read().startswith("2 (kthreadd)")
    except OSError:
        can["pid-namespace"] = False
    can["qemu-system-mipsel"] = shutil.which("qemu-system-mipsel") is not None
    return can


def tag_of(reason):
    m = TAG_RE.search(reason or "")
    return m.group(1) if m else None


def gtest_reason(text):
    """The message of a GoogleTest skip: the lines after "...: Skipped"."""
    lines = text.splitlines()
    for i, line in enumerate(lines):
        if line.endswith(": Skipped") and i + 1 < len(lines):
            out = []
            for l in lines[i + 1:]:
                if l.startswith("[  SKIPPED ]"):
                    break
                out.append(l)
            return " ".join(out).strip()
    return None


def ctest_skip_reason(text):
    r = gtest_reason(text)
    if r:
        return r
    for line in text.splitlines():
        if TAG_RE.search(line):
            return line.strip()
    return (text.strip().splitlines() or [""])[-1]


SCRIPT_SKIP = re.compile(r"skipped '(.*)'$", re.M)
SCRIPT_NAME = re.compile(r"^(test\w*) \(([\w.]+)\)", re.M)


def script_skips(text):
    """(case name, reason) of every skipped case in a unittest script's output."""
    out = []
    for m in SCRIPT_SKIP.finditer(text):
        names = list(SCRIPT_NAME.finditer(text, 0, m.start()))
        name = names[-1].group(2) if names else "?"
        out.append((name, m.group(1)))
    return out


class Preset:
    def __init__(self, name, path, emulated):
        self.name, self.emulated = name, emulated
        self.passed = self.failed = 0
        self.skips = []          # (test, reason) of skipped ctest tests
        self.script_skips = []   # (test: case, reason) inside test scripts
        self.tests = set()
        self.board_ran = False
        root = ET.parse(path).getroot()
        for case in root.iter("testcase"):
            name = case.get("name")
            self.tests.add(name)
            out = case.findtext("system-out") or ""
            status = case.get("status")
            if status == "run":
                self.passed += 1
            elif status == "notrun" and case.find("skipped") is not None:
                self.skips.append((name, ctest_skip_reason(out)))
            else:
                self.failed += 1
            if status in ("run", "fail") and name == "target.board":
                self.board_ran = True
            if status == "run":
                for case_name, reason in script_skips(out):
                    self.script_skips.append((name + ": " + case_name, reason))


def board_results(log):
    """Board results from its console log: {name: verdict} and the skip
    reasons {name: reason} (names as the board reports them)."""
    verdicts, reasons = {}, {}
    with open(log, errors="replace") as f:
        text = f.read().replace("\r", "")
    for m in re.finditer(r"^TN-RESULT (PASS|FAIL|SKIP) (\S+)", text, re.M):
        verdicts[m.group(2)] = m.group(1)
    # A unit's skip message sits between its RUN and SKIPPED lines.
    for m in re.finditer(r"^\[ RUN      \] (\S+)\n(.*?)^\[  SKIPPED \] \1 ", text, re.M | re.S):
        reasons[m.group(1)] = gtest_reason(m.group(2) + "[  SKIPPED ]") or m.group(2).strip()
    return verdicts, reasons


def count_tags(items):
    counts = {}
    for _, reason in items:
        t = tag_of(reason) or "untagged"
        counts[t] = counts.get(t, 0) + 1
    return ", ".join(f"{t} {n}" for t, n in sorted(counts.items()))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--board-log")
    ap.add_argument("presets", nargs="+")
    args = ap.parse_args()
    can = machine()
    presets = []
    for spec in args.presets:
        name, _, rest = spec.partition("=")
        path, _, flag = rest.partition(":")
        presets.append(Preset(name, path, flag == "emulated"))

    board = None
    if args.board_log and any(p.board_ran for p in presets) and os.path.exists(args.board_log):
        board = board_results(args.board_log)
    board_passed = {n.split(":", 2)[-1] for n, v in (board[0] if board else {}).items()
                    if v == "PASS"}

    hidden = []

    def judge(where, test, reason, emulated, gtest_name=None):
        tag = tag_of(reason)
        if tag is None:
            hidden.append(f"{where}: {test}: skip without a known reason tag: {reason}")
        elif tag in ("qemu-user", "board"):
            if tag == "qemu-user" and not emulated:
                hidden.append(f"{where}: {test}: [qemu-user] skip outside the emulated build")
            elif can["qemu-system-mipsel"]:
                covered = board is not None and (gtest_name is None or gtest_name in board_passed)
                if not covered:
                    hidden.append(f"{where}: {test}: [{tag}] skip, but the board did not "
                                  "pass it in this run")
        elif can.get(tag):
            hidden.append(f"{where}: {test}: skipped for [{tag}], which this machine has: {reason}")

    lines = []
    for p in presets:
        for test, reason in p.skips:
            judge(p.name, test, reason, p.emulated, test)
        for test, reason in p.script_skips:
            judge(p.name, test, reason, p.emulated)
        if p.emulated and "target.board" not in p.tests:
            hidden.append(f"{p.name}: the board test target.board is missing")
        total = p.passed + p.failed + len(p.skips)
        line = (f"{p.name}: {total} tests, {p.passed} passed, {p.failed} failed, "
                f"{len(p.skips)} skipped")
        if p.skips:
            line += f" ({count_tags(p.skips)})"
        line += f"; script cases skipped: {len(p.script_skips)}"
        if p.script_skips:
            line += f" ({count_tags(p.script_skips)})"
        lines.append(line)

    if board is not None:
        verdicts, reasons = board
        n = {v: sum(1 for x in verdicts.values() if x == v) for v in ("PASS", "FAIL", "SKIP")}
        skipped = [(name, reasons.get(name.split(":", 2)[-1], "")) for name, v in verdicts.items()
                   if v == "SKIP"]
        line = f"board: {len(verdicts)} tests, {n['PASS']} passed, {n['FAIL']} failed, {n['SKIP']} skipped"
        if skipped:
            line += f" ({count_tags(skipped)})"
        lines.append(line)
        # The board is root, has namespaces, MTD and ptrace: no skip is expected there.
        for name, reason in skipped:
            hidden.append(f"board: {name}: skipped on the board: {reason}")
    elif any(p.emulated for p in presets):
        lines.append("board: not run")

    print("\n".join(lines))
    have = ", ".join(t for t in TAGS if can.get(t))
    print(f"this machine gives: {have or 'none of the tagged capabilities'}")
    if hidden:
        print("skips that hide coverage this machine can give (each fails the run):")
        for h in hidden:
            print("  " + h)
        return 1
    print("skips that hide coverage: none")
    return 0


if __name__ == "__main__":
    sys.exit(main())
