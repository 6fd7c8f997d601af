"""The debugger's verdict on a core of snap_subject: gdb in batch mode opens
the core with the program and must show three threads parked in the known
functions, the global's value and the heap string.  Shared by the host tests
and the board's host-side check (gdb-multiarch with the mipsel sysroot)."""
import re
import subprocess

MARKER = "0x5eed1234"
TEXT = '"held on the heap"'
# Function that each thread's backtrace must show, by role.
PARKED = {"main": ["park_main", "main"],
          "alpha": ["park_alpha", "alpha_main"],
          "beta": ["park_beta", "beta_main"]}


def run_gdb(gdb, program, core, sysroot=None, timeout=180):
    cmd = [gdb, "-nx", "-batch",
           "-iex", "set debuginfod enabled off",
           "-iex", "set pagination off",
           "-iex", "set width 0"]
    if sysroot:
        # Libraries of the target come from its sysroot; the host's
        # libthread_db cannot read a foreign thread library.
        cmd += ["-iex", "set sysroot " + sysroot,
                "-iex", "set auto-load off"]
    cmd += ["-ex", "info threads",
            "-ex", "thread apply all bt",
            "-ex", "print/x snap_marker",
            "-ex", "print snap_text",
            program, core]
    r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       timeout=timeout, stdin=subprocess.DEVNULL)
    return r.stdout.decode(errors="replace")


def backtraces(out):
    """{lwp: [function names]} from `thread apply all bt`."""
    traces = {}
    cur = None
    for line in out.splitlines():
        m = re.match(r"^Thread \d+ \(.*?LWP (\d+)\)", line)
        if m:
            cur = int(m.group(1))
            traces[cur] = []
            continue
        m = re.match(r"^#\d+\s+(?:0x[0-9a-f]+ in )?([A-Za-z_][A-Za-z_0-9.]*)", line)
        if m and cur is not None:
            traces[cur].append(m.group(1))
    return traces


def judge(gdb, program, core, pid, sysroot=None):
    """Problems found (empty when the core is right) and gdb's output."""
    out = run_gdb(gdb, program, core, sysroot)
    problems = []
    threads = re.findall(r"^\*?\s+\d+\s+(?:Thread 0x[0-9a-f]+ \()?LWP \d+", out, re.M)
    if len(threads) != 3:
        problems.append("info threads shows %d threads, want 3" % len(threads))
    traces = backtraces(out)
    if pid not in traces:
        problems.append("no backtrace of the main thread (LWP %d)" % pid)
    else:
        for fn in PARKED["main"]:
            if fn not in traces[pid]:
                problems.append("main thread: %s not in %s" % (fn, traces[pid]))
    others = [t for lwp, t in traces.items() if lwp != pid]
    for role in ("alpha", "beta"):
        if not any(all(fn in t for fn in PARKED[role]) for t in others):
            problems.append("no thread parked in %s: %s" % (PARKED[role][0], others))
    if not re.search(r"^\$\d+ = %s$" % MARKER, out, re.M):
        problems.append("snap_marker is not %s" % MARKER)
    if not re.search(r"^\$\d+ = 0x[0-9a-f]+ %s$" % re.escape(TEXT), out, re.M):
        problems.append("snap_text is not %s" % TEXT)
    return problems, out
