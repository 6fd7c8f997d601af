"""dump_one and coredump with the real dumper (the installed memsnap) on a
program of known state: GNU tar extracts the members, gdb reads the cores,
and the program runs on untraced afterwards."""
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import bb

DRIVER = SUBJECT = None


class RealDumper(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="tn-realdump-")
        self.p = subprocess.Popen([SUBJECT], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        line = self.p.stdout.readline().decode().split()
        self.assertEqual(line[0], "ready")
        self.pid = int(line[1])
        # "ready" comes just before the threads block: wait until all three
        # sit in their read, so the backtraces are the parked ones
        bb.wait_until(self.all_parked, "the threads to block in read")

    def all_parked(self):
        nr_read = "0"  # x86_64; this test runs on the host only
        tasks = os.listdir(f"/proc/{self.pid}/task")
        if len(tasks) != 3:
            return False
        for t in tasks:
            with open(f"/proc/{self.pid}/task/{t}/syscall") as f:
                if f.read().split()[0] != nr_read:
                    return False
        return True

    def tearDown(self):
        if self.p.poll() is None:
            self.p.kill()
        self.p.wait()
        shutil.rmtree(self.tmp, ignore_errors=True)

    def still_running_untraced(self):
        with open(f"/proc/{self.pid}/status") as f:
            status = f.read()
        self.assertRegex(status, r"TracerPid:\s+0\n")
        state = re.search(r"State:\s+(\S)", status).group(1)
        self.assertNotIn(state, "tTZ")
        # the parked reads were not disturbed: the program ends cleanly
        out, _ = self.p.communicate(b"g\n", timeout=30)
        self.assertEqual(out.strip(), b"bye")
        self.assertEqual(self.p.returncode, 0)

    def gdb(self, core):
        r = subprocess.run(["gdb", "-batch", "-nx", "-ex", "print/x snap_marker",
                            "-ex", "info threads", "-ex", "thread apply all bt", SUBJECT, core],
                           capture_output=True, timeout=120)
        out = r.stdout.decode(errors="replace")
        self.assertIn("= 0x5eed1234", out, out + r.stderr.decode(errors="replace"))
        self.assertEqual(len(re.findall(r"^[* ] +\d+ +(Thread|LWP)", out, re.M)), 3, out)
        for fn in ("park_main", "park_alpha", "park_beta"):
            self.assertIn(fn, out)

    def test_dump_one_into_a_tar_stream(self):
        out = os.path.join(self.tmp, "dump.tar")
        with open(out, "wb") as f:
            r = subprocess.run([DRIVER, "tar", bb.path("bin/memsnap"), str(self.pid)],
                               stdout=f, stderr=subprocess.PIPE, timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr, b"")
        name = os.path.basename(SUBJECT)
        listing = subprocess.run(["tar", "-tvf", out], capture_output=True, check=True)
        rows = [l.split() for l in listing.stdout.decode().splitlines()]
        self.assertEqual([row[5] for row in rows],
                         [f"{name}.{self.pid}/core", f"{name}.{self.pid}/fdmap"])
        subprocess.run(["tar", "-xf", out, "-C", self.tmp], check=True)
        core = os.path.join(self.tmp, f"{name}.{self.pid}", "core")
        self.assertEqual(os.path.getsize(core), int(rows[0][2]))
        with open(os.path.join(self.tmp, f"{name}.{self.pid}", "fdmap")) as f:
            self.assertIn(" 0 -> ", f.read())
        self.gdb(core)
        self.still_running_untraced()

    def test_coredump_streams_a_core_gdb_opens(self):
        core = os.path.join(self.tmp, "core")
        with open(core, "wb") as f:
            r = subprocess.run([DRIVER, "raw", bb.path("bin/memsnap"), str(self.pid)],
                               stdout=f, stderr=subprocess.PIPE, timeout=120)
        self.assertEqual(r.returncode, 0)
        self.assertEqual(r.stderr, b"")
        self.gdb(core)
        self.still_running_untraced()


def main():
    global DRIVER, SUBJECT
    argv = bb.setup()
    rest = []
    for a in argv:
        if a.startswith("--driver="):
            DRIVER = a.split("=", 1)[1]
        elif a.startswith("--subject="):
            SUBJECT = a.split("=", 1)[1]
        else:
            rest.append(a)
    unittest.main(argv=rest, verbosity=2)


if __name__ == "__main__":
    main()
