"""The crash-test applets, each caged in a fresh pid namespace with limits and
a hard time limit so nothing they start can outlive the test."""
import os
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import bb

# In a sanitizer build the applets' own misbehaviour must stay visible: no SEGV
# handler of the sanitizer, no leak scan that needs descriptors at exit.
os.environ["ASAN_OPTIONS"] = "handle_segv=0:detect_leaks=0"
os.environ["TSAN_OPTIONS"] = "handle_segv=0"

# An unprivileged user of this run alone: the process limit counts every
# process of the user on the machine, and a forkbomb of another run (or
# anything else as nobody) would eat into it.
CAGE_UID = 1000000 + os.getpid()
NOBODY = ["setpriv", f"--reuid={CAGE_UID}", f"--regid={CAGE_UID}", "--clear-groups", "--"]


def caged(inner, limit=90):
    """Command running inner in a new pid namespace under a KILL timeout that is
    the namespace's init: when the time is up, or the init is killed, or the
    unshare process dies, the kernel kills everything in the namespace.  (The
    applet itself may drop privileges, which clears its parent-death signal, so
    it must not be the init.)"""
    return (["prlimit", "--core=0", "--", "unshare", "--pid", "--fork", "--kill-child",
             "--mount-proc", "--", "timeout", "-s", "KILL", str(limit)] + inner)


def cage_pids(outer_pid):
    """(namespace init, the applet) as seen from here."""
    def found():
        kids = bb.children(outer_pid)
        grandkids = bb.children(kids[0]) if kids else []
        return (kids[0], grandkids[0]) if grandkids else None
    return bb.wait_until(found, "the caged process", step=0.05)


def kill_cage(p):
    for init in bb.children(p.pid):
        try:
            os.kill(init, signal.SIGKILL)
        except OSError:
            pass
    p.kill()
    p.wait()


def read_lines(stream, count, deadline):
    data = b""
    while data.count(b"\n") < count and time.time() < deadline:
        r, _, _ = select.select([stream], [], [], 0.2)
        if r:
            chunk = os.read(stream.fileno(), 65536)
            if not chunk:
                break
            data += chunk
    return data.decode().splitlines()


class CrashTests(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        os.chmod(self.tmp.name, 0o777)

    def tearDown(self):
        self.tmp.cleanup()

    def test_forkbomb_counts_forks_and_dies_with_its_namespace(self):
        if os.geteuid() != 0:
            self.skipTest("[root] needs root for namespaces")
        inner = ["prlimit", "--nproc=24", "--"] + NOBODY + bb.command(
            bb.path("bin/forkbomb"), "20000")
        p = subprocess.Popen(caged(inner), stdout=subprocess.PIPE, cwd=self.tmp.name,
                             close_fds=True)
        try:
            lines = read_lines(p.stdout, 40, time.time() + 60)
            p.stdout.close()
            self.assertGreaterEqual(len(lines), 40)
            self.assertEqual(lines[:40], [f"forks {i}" for i in range(1, 41)])
            init, _ = cage_pids(p.pid)
            ns = bb.pid_ns(init)
            self.assertNotEqual(ns, bb.pid_ns(os.getpid()))
            members = bb.pids_in_ns(ns)
            # The parent plus spinning children, capped by the process limit.
            self.assertGreater(len(members), 5)
            self.assertLessEqual(len(members), 24 * 2)
            os.kill(init, signal.SIGKILL)
            bb.wait_until(lambda: not bb.pids_in_ns(ns), "the namespace to empty", step=0.1)
            self.assertEqual(bb.pids_in_ns(ns), [])
        finally:
            kill_cage(p)

    def test_forkbomb_children_fork_on_below_the_depth(self):
        if os.geteuid() != 0:
            self.skipTest("[root] needs root for namespaces")
        inner = ["prlimit", "--nproc=24", "--"] + NOBODY + bb.command(
            bb.path("bin/forkbomb"), "0x4e20", "3")
        p = subprocess.Popen(caged(inner), stdout=subprocess.PIPE, cwd=self.tmp.name,
                             close_fds=True)
        try:
            lines = read_lines(p.stdout, 30, time.time() + 60)
            # Children of generation 1 and 2 print their own counts, inherited
            # from the parent, so some count repeats.
            counts = [int(l.split()[1]) for l in lines if l.startswith("forks ")]
            self.assertEqual(len(counts), len(lines))
            self.assertGreater(len(counts), len(set(counts)))
        finally:
            kill_cage(p)

    def test_fdleak_runs_out_of_descriptors(self):
        inner = ["prlimit", "--nofile=64", "--"] + bb.command(bb.path("bin/fdleak"))
        r = subprocess.run(caged(inner), capture_output=True, cwd=self.tmp.name,
                           close_fds=True, timeout=60)
        self.assertEqual(r.returncode, 0)
        self.assertEqual(r.stdout, b"leaked 16\nleaked 32\nleaked 48\n")
        self.assertEqual(r.stderr, b"open: Too many open files\n")

    def test_fdleak_alternates_sockets_and_dev_null(self):
        inner = ["prlimit", "--nofile=64", "--"] + bb.command(
            bb.path("bin/toolnest"), "fdleak", "100000")
        p = subprocess.Popen(caged(inner), stdout=subprocess.PIPE, cwd=self.tmp.name,
                             close_fds=True)
        try:
            lines = read_lines(p.stdout, 1, time.time() + 60)
            self.assertEqual(lines, ["leaked 16"])
            _, leaker = cage_pids(p.pid)
            kinds = []
            fds = sorted(int(x) for x in os.listdir(f"/proc/{leaker}/fd"))
            for fd in fds:
                target = os.readlink(f"/proc/{leaker}/fd/{fd}")
                if target.startswith("socket:["):
                    kinds.append("s")
                elif target == "/dev/null" or target.endswith("/dev/null"):  # qemu -L prefix
                    kinds.append("n")
            start = kinds.index("s")
            leaked = "".join(kinds[start:start + 16])
            self.assertEqual(leaked, "sn" * 8)
        finally:
            kill_cage(p)

    def test_segfault_dies_of_sigsegv(self):
        # A reporter inside the cage tells how the applet ended.
        reporter = [sys.executable, "-c",
                    "import subprocess, sys\n"
                    "r = subprocess.run(sys.argv[1:], capture_output=True)\n"
                    "sys.stdout.write('status %d out %r' % (r.returncode, r.stdout))\n"]
        inner = reporter + bb.command(bb.path("bin/segfault"))
        r = subprocess.run(caged(inner), capture_output=True, cwd=self.tmp.name,
                           close_fds=True, timeout=60)
        self.assertEqual(r.stdout.decode(), f"status {-signal.SIGSEGV} out b''", r.stderr)
        self.assertEqual(os.listdir(self.tmp.name), [])


if __name__ == "__main__":
    bb.main()
