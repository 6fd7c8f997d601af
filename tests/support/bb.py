"""Shared helpers of the system tests: run the installed toolbox, natively
or under the cross target's emulator; wait for a state; look at processes
through /proc."""
import argparse
import os
import shlex
import subprocess
import sys
import time
import unittest

PREFIX = None
EMULATOR = []


def setup():
    global PREFIX, EMULATOR
    ap = argparse.ArgumentParser()
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--emulator", default="")
    args, rest = ap.parse_known_args()
    PREFIX = os.path.abspath(args.prefix)
    EMULATOR = shlex.split(args.emulator)
    return [sys.argv[0]] + rest


def path(rel):
    return os.path.join(PREFIX, rel)


def command(program, *args):
    """Command line that starts program (a path of the install) with args."""
    return EMULATOR + [program] + list(args)


def run(program, *args, timeout=60, **kw):
    kw.setdefault("stdout", subprocess.PIPE)
    kw.setdefault("stderr", subprocess.PIPE)
    return subprocess.run(command(program, *args), timeout=timeout, close_fds=True, **kw)


def wait_until(cond, what, timeout=60, step=0.01):
    """Polls cond() until it gives a true value, which is returned; fails
    naming what after timeout seconds.  The deadline only ends a wait for a
    state that never comes: it is generous, since a loaded machine running
    sanitizers must never make a correct program miss it."""
    deadline = time.monotonic() + timeout
    while True:
        v = cond()
        if v:
            return v
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(step)


def status_field(pid, name, tid=None):
    """A field of /proc/PID/status (of thread TID when given), or None."""
    path = f"/proc/{pid}/task/{tid}/status" if tid else f"/proc/{pid}/status"
    try:
        with open(path) as f:
            for line in f:
                if line.startswith(name + ":"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        return None
    return None


def children(pid):
    """The children of every thread of pid (none once it has gone)."""
    out = []
    for tid in tasks(pid):
        try:
            with open(f"/proc/{pid}/task/{tid}/children") as f:
                out += [int(x) for x in f.read().split()]
        except OSError:
            pass  # a thread that ended meanwhile
    return out


def tasks(pid):
    """The thread ids of pid, sorted (none once it has gone)."""
    try:
        return sorted(int(t) for t in os.listdir(f"/proc/{pid}/task"))
    except OSError:
        return []


def threads_parked(pid):
    """Whether pid exists and every thread of it sleeps (blocked in a call)."""
    ts = tasks(pid)
    return bool(ts) and all((status_field(pid, "State", t) or "")[:1] == "S" for t in ts)


def pid_ns(pid):
    try:
        return os.readlink(f"/proc/{pid}/ns/pid")
    except OSError:
        return None


def pids_in_ns(ns):
    found = []
    for name in os.listdir("/proc"):
        if name.isdigit() and pid_ns(int(name)) == ns:
            found.append(int(name))
    return found


def main():
    argv = setup()
    unittest.main(argv=argv, verbosity=2)
