"""Shared pieces of the monitoring system tests: a pid and mount namespace of
their own, and an independent reader of rtrace streams (deliberately not the
shipped reader)."""
import argparse
import contextlib
import os
import signal
import struct
import subprocess
import sys
import time

import bb

HERE = os.path.dirname(os.path.abspath(__file__))
HEADER = struct.Struct("<IIqB3s")


def enter_namespace(tag):
    """Re-runs the calling script as pid 1 of a fresh pid namespace with its
    own mount namespace, /proc of that namespace and a tmpfs on /tmp and /run,
    so the process set is known and nothing reaches the machine's files."""
    if os.environ.get("TN_MONITOR_NS") != tag:
        env = dict(os.environ, TN_MONITOR_NS=tag)
        script = os.path.abspath(sys.modules["__main__"].__file__)
        argv = ["unshare", "--pid", "--fork", "--mount-proc", "--propagation", "private",
                sys.executable, script] + sys.argv[1:]
        os.execvpe("unshare", argv, env)
    for d in ("/tmp", "/run"):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", d], check=True)
    os.makedirs("/run/dbg-cgi", exist_ok=True)


def probe_args(*extra):
    """The --probe path (and the named extra options) from the command line;
    returns them and the argument vector left for unittest."""
    ap = argparse.ArgumentParser()
    ap.add_argument("--probe", required=True)
    for opt in extra:
        ap.add_argument(opt, default=None)
    args, rest = ap.parse_known_args()
    sys.argv = [sys.argv[0]] + rest
    argv = bb.setup()
    values = [os.path.abspath(args.probe)] + [getattr(args, o.lstrip("-")) for o in extra]
    return values + [argv]


def read_file(path, mode="r"):
    """The file's contents, or None when it is not there; under /proc also
    when the process ended between the open and the read (ESRCH)."""
    try:
        with open(path, mode) as f:
            return f.read()
    except (FileNotFoundError, ProcessLookupError):
        return None


def proc_state(pid):
    """The state letter of /proc/PID/stat ("T" when stopped), or ""."""
    stat = read_file(f"/proc/{pid}/stat") or ""
    return stat[stat.rfind(")") + 2:][:1]


@contextlib.contextmanager
def frozen(pid):
    """The process held stopped (SIGSTOP, seen in /proc) while the caller
    changes what it watches or reads what it wrote: its next look sees all
    of the change or none of it, and it writes nothing meanwhile."""
    os.kill(pid, signal.SIGSTOP)
    bb.wait_until(lambda: proc_state(pid) == "T", f"pid {pid} stopped")
    try:
        yield
    finally:
        os.kill(pid, signal.SIGCONT)


def reap_orphans():
    """Waits for every zombie that pid 1 (this script) inherited."""
    while True:
        try:
            pid, _ = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if pid == 0:
            return


def ns_pids():
    """The processes of this pid namespace except this script."""
    return sorted(int(n) for n in os.listdir("/proc") if n.isdigit() and int(n) != os.getpid())


class Holder:
    """A holder process started under argv[0] "/holders/NAME"."""

    def __init__(self, name):
        self.name = name
        self.p = subprocess.Popen(["/holders/" + name, os.path.join(HERE, "holder.py")], executable=sys.executable,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.pid = self.p.pid
        self._answer()

    def _answer(self):
        line = self.p.stdout.readline()
        assert line == f"ok {self.pid}\n", line

    def do(self, *commands):
        for c in commands:
            self.p.stdin.write(c + "\n")
            self.p.stdin.flush()
            self._answer()
        return self

    def stop(self):
        self.p.kill()
        self.p.wait()
        self.p.stdin.close()
        self.p.stdout.close()


class Record:
    __slots__ = ("offset", "type", "length", "ms", "flag", "data")

    def __repr__(self):
        return f"<rec {self.type} len {self.length} flag {self.flag} at {self.offset}>"


def records(stream, allow_cut=False):
    """Splits an rtrace stream into records; a cut tail is dropped only when
    allowed."""
    out = []
    off = 0
    while off < len(stream):
        if len(stream) - off < HEADER.size:
            assert allow_cut, f"cut header at {off}"
            break
        r = Record()
        r.offset = off
        r.type, r.length, r.ms, r.flag, pad = HEADER.unpack_from(stream, off)
        assert pad == b"\0\0\0", f"padding at {off}"
        if off + HEADER.size + r.length > len(stream):
            assert allow_cut, f"cut data at {off}"
            break
        r.data = stream[off + HEADER.size:off + HEADER.size + r.length]
        off += HEADER.size + r.length
        out.append(r)
    return out


def run_rtrace(probe, items, interval, until, stdin=None, stderr=None):
    """Starts the probe's rtrace_run on a pipe and reads the stream until
    until(data) is true; then closes the reading end.  Returns the data read
    and the running probe."""
    p = subprocess.Popen(bb.command(probe, "rtrace", str(items), str(interval)),
                         stdout=subprocess.PIPE, stdin=stdin or subprocess.DEVNULL,
                         stderr=stderr)
    data = bytearray()
    deadline = time.monotonic() + 90
    while not until(bytes(data)):
        chunk = os.read(p.stdout.fileno(), 65536)
        if not chunk:
            break
        data += chunk
        if time.monotonic() > deadline:
            break
    p.stdout.close()
    return bytes(data), p
