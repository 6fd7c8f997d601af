"""The debug archive written on the emulated MIPS board (check:archive),
judged on the host by GNU tar and Python's tarfile."""
import argparse
import gzip
import io
import re
import subprocess
import sys
import tarfile
import tempfile
import unittest

ARGS = None


class BoardArchive(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with gzip.open(ARGS.archive) as f:
            cls.data = f.read()
        with open(ARGS.kcore) as f:
            cls.kcore = f.read().strip()
        cls.tmp = tempfile.NamedTemporaryFile(suffix=".tar")
        cls.tmp.write(cls.data)
        cls.tmp.flush()

    def listing(self):
        r = subprocess.run(["tar", "-tvf", self.tmp.name], capture_output=True)
        self.assertEqual(r.returncode, 0, r.stderr)
        out = []
        for line in r.stdout.decode().splitlines():
            f = line.split()
            out.append((f[5], int(f[2])))
        return out

    def test_gnu_tar_lists_what_tarfile_lists(self):
        with tarfile.open(fileobj=io.BytesIO(self.data)) as t:
            py = [(m.name, m.size) for m in t.getmembers()]
        self.assertEqual(self.listing(), py)

    def test_members(self):
        members = self.listing()
        prefix = re.match(r"^debug-\d{8}-\d{6}-c0/", members[0][0]).group(0)
        rel = [(n[len(prefix):], s) for n, s in members]
        self.assertTrue(all(n.startswith(prefix) for n, _ in members))
        names = [n for n, _ in rel]
        sizes = dict(rel)
        at = names.index("strace.log")
        self.assertEqual(names[at:at + 4], ["strace.log", "netdump.cap", "sysdigest.txt",
                                            "oopslog"][:len(names[at:at + 4])])
        self.assertEqual(sizes["strace.log"], 204800)
        self.assertEqual(sizes["netdump.cap"], 512000)
        self.assertTrue(any(re.match(r"^proc\.\d{8}-\d{6}/meminfo$", n) for n in names))
        self.assertIn("proc/sys/kernel/hostname", names)
        # the board kernel's own /proc/kcore rule
        k = int(self.kcore) if self.kcore.isdigit() else 0
        self.assertEqual("kcore" in names, 1 <= k <= 10485760, f"/proc/kcore of {self.kcore}")
        cores = [n for n in names if re.match(r"^sleep\.\d+/core$", n)]
        fdmaps = [n for n in names if re.match(r"^sleep\.\d+/fdmap$", n)]
        self.assertEqual(len(cores), 2, names[-8:])
        self.assertEqual(len(fdmaps), 2)

    def test_cores_are_mips_elf(self):
        with tarfile.open(fileobj=io.BytesIO(self.data)) as t:
            for m in t.getmembers():
                if m.name.endswith("/core"):
                    head = t.extractfile(m).read(20)
                    self.assertEqual(head[:4], b"\x7fELF")
                    self.assertEqual(head[4], 1, "ELFCLASS32")
                    self.assertEqual(head[5], 1, "little-endian")
                    self.assertEqual(int.from_bytes(head[16:18], "little"), 4, "ET_CORE")
                    self.assertEqual(int.from_bytes(head[18:20], "little"), 8, "EM_MIPS")


if __name__ == "__main__":
    ap = argparse.ArgumentParser()
    ap.add_argument("--archive", required=True)
    ap.add_argument("--kcore", required=True)
    ARGS, rest = ap.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)
