"""The installed memsnap judged by gdb: cores of snap_subject (a global with a
known value, three threads parked in known functions) streamed through
pipes as the toolbox reads them, or written to a file, must open in gdb with
the three threads, their backtraces and the global's value; the process runs
on untraced."""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import bb
import gdbcheck

SUBJECT = None


def parse_report(line):
    """Length from offset 8, ids from 21 characters after the number."""
    rest = line[8:]
    digits = len(rest) - len(rest.lstrip(b"0123456789"))
    length = int(rest[:digits])
    ids = [int(x) for x in rest[digits + 21:].split()]
    return length, sorted(ids)


class Subject:
    def __init__(self):
        self.p = subprocess.Popen([SUBJECT], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        ready = self.p.stdout.readline().split()
        assert ready[0] == b"ready", ready
        self.pid = int(ready[1])
        assert self.pid == self.p.pid
        # "ready" comes just before the main thread blocks: wait until every
        # thread sleeps in its parking read.
        bb.wait_until(lambda: bb.threads_parked(self.pid), "the subject's threads to block", 30)

    def tasks(self):
        return bb.tasks(self.pid)

    def finish(self):
        out, _ = self.p.communicate(b"go\n", timeout=60)
        return self.p.returncode, out

    def kill(self):
        if self.p.poll() is None:
            self.p.kill()
            self.p.wait()


class GdbOpensTheCore(unittest.TestCase):
    def setUp(self):
        self.gdb = shutil.which("gdb")
        self.assertIsNotNone(self.gdb, "gdb is needed (tools/packages)")
        self.memsnap = bb.path("bin/memsnap")
        self.tmp = tempfile.mkdtemp(prefix="tn-memsnap-")
        self.subject = Subject()
        self.addCleanup(self.subject.kill)
        self.addCleanup(shutil.rmtree, self.tmp)

    def judge(self, core):
        problems, out = gdbcheck.judge(self.gdb, SUBJECT, core, self.subject.pid)
        self.assertEqual(problems, [], out)

    def released(self):
        for tid in self.subject.tasks():
            self.assertEqual(bb.status_field(self.subject.pid, "TracerPid", tid), "0")
            self.assertNotIn(bb.status_field(self.subject.pid, "State", tid)[0], "tT")
        rc, out = self.subject.finish()
        self.assertEqual((rc, out), (0, b"bye\n"))

    def test_a_core_streamed_through_pipes(self):
        tasks = self.subject.tasks()
        self.assertEqual(len(tasks), 3)
        core = os.path.join(self.tmp, "core")
        p = subprocess.Popen(bb.command(self.memsnap, "-c", "/dev/stdout", str(self.subject.pid)),
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        # The report line comes before any byte of the core.
        line = p.stderr.readline()
        length, ids = parse_report(line)
        with open(core, "wb") as f:
            got = 0
            while True:
                chunk = p.stdout.read(1 << 20)
                if not chunk:
                    break
                f.write(chunk)
                got += len(chunk)
        rest = p.stderr.read()
        p.wait(timeout=60)
        self.assertEqual(p.returncode, 0, rest)
        self.assertEqual(rest, b"")
        self.assertTrue(line.startswith(b"length: ") and line.endswith(b"\n"), line)
        self.assertLess(len(line), 256)
        self.assertEqual(got, length)
        self.assertEqual(ids, [t for t in tasks if t != self.subject.pid])
        self.judge(core)
        self.released()

    def test_a_core_written_to_a_file(self):
        core = os.path.join(self.tmp, "core")
        r = bb.run(self.memsnap, "-c", core, str(self.subject.pid))
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, b"")
        self.assertEqual(parse_report(r.stderr)[0], os.path.getsize(core))
        self.judge(core)
        self.released()

    def test_standard_output_redirected_to_a_file(self):
        core = os.path.join(self.tmp, "core")
        with open(core, "wb") as f:
            r = bb.run(self.memsnap, "-c", "/dev/stdout", str(self.subject.pid), stdout=f)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(parse_report(r.stderr)[0], os.path.getsize(core))
        self.judge(core)
        self.released()


if __name__ == "__main__":
    argv = list(sys.argv)
    if "--subject" in argv:
        i = argv.index("--subject")
        SUBJECT = os.path.abspath(argv[i + 1])
        del argv[i:i + 2]
    sys.argv = argv
    bb.main()
