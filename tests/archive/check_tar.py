"""Archives made by tar_sample, read by independent readers: Python's tarfile
and GNU tar.  The sample runs natively or under the cross target's emulator
(--emulator, split like a shell would)."""
import argparse
import io
import os
import shlex
import subprocess
import sys
import tarfile
import tempfile
import time
import unittest

SAMPLE = None
EMULATOR = []
ENV = dict(os.environ, LC_ALL="C", TZ="UTC")


def pattern(n, seed):
    return bytes((i * 31 + seed) & 0xFF for i in range(n))


def expected(prefix):
    """(name, data) of every member tar_sample writes, in order."""
    p = prefix or ""
    blank = (b" " * 79 + b"\n") * 12 + b" " * 34  # pad_ascii(994)
    return [
        (p + "empty", b""),
        (p + "one", b"x"),
        (p + "b511", pattern(511, 1)),
        (p + "b512", pattern(512, 2)),
        (p + "b513", pattern(513, 3)),
        (p + "copied", pattern(3000, 4)),
        (p + "promised.txt", b"trace line one\ntrace line two\n" + blank),
        (p + "zeros", bytes(700)),
        (p + "dup", b"first\n"),
        (p + "dup", b"second\n"),
        (p + "n" * (99 - len(p)) + "E", b"long\n"),
        (p + "tail", pattern(1000, 5)),
    ]


def make_sample(*args):
    """Runs the sample; returns (archive bytes, start time, end time)."""
    # time(2), which stamps the members, reads a coarse clock that may lag the
    # precise one by a tick: across a second boundary that is one second.
    start = int(time.time()) - 1
    r = subprocess.run(EMULATOR + [SAMPLE] + list(args), stdout=subprocess.PIPE,
                       stderr=subprocess.PIPE, timeout=60)
    end = int(time.time())
    if r.returncode != 0 or r.stderr:
        raise AssertionError(f"tar_sample {args}: exit {r.returncode}, stderr {r.stderr!r}")
    return r.stdout, start, end


def gnu_tar(*args, stdin=None):
    return subprocess.run(["tar"] + list(args), input=stdin, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=ENV, timeout=60)


class Base(unittest.TestCase):
    PREFIX_ARGS = ("debug/",)
    PREFIX = "debug/"

    @classmethod
    def setUpClass(cls):
        cls.data, cls.start, cls.end = make_sample(*cls.PREFIX_ARGS)
        cls.members = expected(cls.PREFIX)
        cls.tmp = tempfile.TemporaryDirectory()
        cls.path = os.path.join(cls.tmp.name, "sample.tar")
        with open(cls.path, "wb") as f:
            f.write(cls.data)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    # ---- the raw stream ----

    def test_layout_and_no_end_blocks(self):
        off = 0
        for name, data in self.members:
            hdr = self.data[off:off + 512]
            self.assertEqual(len(hdr), 512)
            raw = name.encode()
            self.assertEqual(hdr[:len(raw)], raw)
            if len(raw) < 100:
                self.assertEqual(hdr[len(raw)], 0)
            self.assertEqual(hdr[100:124], b"0000644\0" b"0000100\0" b"0000100\0")
            self.assertEqual(hdr[124:136], b"%011o\0" % len(data))
            self.assertEqual(hdr[156:157], b"0")
            self.assertEqual(hdr[257:265], b"ustar\0  ")
            self.assertEqual(hdr[265:297], b"admin" + bytes(27))
            self.assertEqual(hdr[297:329], b"admin" + bytes(27))
            self.assertEqual(hdr[329:512], bytes(183))
            ck = hdr[148:156]
            self.assertRegex(ck, rb"^[0-7]{6}\0 $")
            self.assertEqual(int(ck[:6], 8), sum(hdr[:148]) + 8 * 32 + sum(hdr[156:]))
            mtime = int(hdr[136:147], 8)
            self.assertTrue(self.start <= mtime <= self.end, mtime)
            off += 512
            self.assertEqual(self.data[off:off + len(data)], data, name)
            padded = (len(data) + 511) // 512 * 512
            self.assertEqual(self.data[off + len(data):off + padded], bytes(padded - len(data)))
            off += padded
        # The stream ends right after the last member's padding.
        self.assertEqual(len(self.data), off)

    # ---- Python's tarfile ----

    def check_tarfile(self, tf):
        got = []
        for m in tf:
            self.assertTrue(m.isreg(), m.name)
            self.assertEqual(m.mode, 0o644, m.name)
            self.assertEqual((m.uid, m.gid), (64, 64), m.name)
            self.assertEqual((m.uname, m.gname), ("admin", "admin"), m.name)
            self.assertTrue(self.start <= m.mtime <= self.end, m.name)
            got.append((m.name, tf.extractfile(m).read()))
        self.assertEqual(got, self.members)

    def test_python_tarfile_random_access(self):
        with tarfile.open(self.path, "r:") as tf:
            self.check_tarfile(tf)

    def test_python_tarfile_stream(self):
        with tarfile.open(fileobj=io.BytesIO(self.data), mode="r|") as tf:
            self.check_tarfile(tf)

    # ---- GNU tar ----

    def test_gnu_tar_lists_without_complaint(self):
        r = gnu_tar("-tvf", self.path)
        # No end-of-archive blocks: GNU tar takes end of file as the end, quietly.
        self.assertEqual((r.returncode, r.stderr), (0, b""))
        lines = r.stdout.decode().splitlines()
        self.assertEqual(len(lines), len(self.members))
        for line, (name, data) in zip(lines, self.members):
            perms, owner, size, _date, _time, lname = line.split(None, 5)
            self.assertEqual((perms, owner, int(size), lname),
                             ("-rw-r--r--", "admin/admin", len(data), name))

    def test_gnu_tar_numeric_owner(self):
        r = gnu_tar("--numeric-owner", "-tvf", self.path)
        self.assertEqual((r.returncode, r.stderr), (0, b""))
        owners = [line.split()[1] for line in r.stdout.decode().splitlines()]
        self.assertEqual(owners, ["64/64"] * len(self.members))

    def test_gnu_tar_reads_the_stream_from_a_pipe(self):
        r = gnu_tar("-tf", "-", stdin=self.data)
        self.assertEqual((r.returncode, r.stderr), (0, b""))
        self.assertEqual(r.stdout.decode().splitlines(), [n for n, _ in self.members])

    def test_gnu_tar_member_contents(self):
        seen = set()
        for name, data in self.members:
            if name in seen:
                continue
            seen.add(name)
            r = gnu_tar("-xOf", self.path, name)
            self.assertEqual(r.returncode, 0, r.stderr)
            # Both members of a duplicated name come out, one after the other.
            want = b"".join(d for n, d in self.members if n == name)
            self.assertEqual(r.stdout, want, name)

    def test_gnu_tar_duplicate_occurrences(self):
        dup = (self.PREFIX or "") + "dup"
        for occ, want in ((1, b"first\n"), (2, b"second\n")):
            r = gnu_tar("-xOf", self.path, f"--occurrence={occ}", dup)
            self.assertEqual((r.returncode, r.stdout), (0, want), r.stderr)

    def test_gnu_tar_extracts_files(self):
        with tempfile.TemporaryDirectory() as d:
            r = gnu_tar("-xpf", self.path, "-C", d)
            self.assertEqual((r.returncode, r.stderr), (0, b""))
            final = {}
            for name, data in self.members:
                final[name] = data  # the later duplicate wins
            for name, data in final.items():
                p = os.path.join(d, name)
                with open(p, "rb") as f:
                    self.assertEqual(f.read(), data, name)
                st = os.stat(p)
                self.assertEqual(st.st_mode & 0o7777, 0o644, name)
                if os.geteuid() == 0:
                    self.assertEqual((st.st_uid, st.st_gid), (64, 64), name)

    def test_gnu_tar_sees_a_stream_cut_inside_data(self):
        # What a broken connection leaves behind: readers must notice it.
        cut = self.data[:512 * 8 + 100]  # inside the data of "b513"
        r = gnu_tar("-tvf", "-", stdin=cut)
        self.assertEqual(r.returncode, 2)
        self.assertIn(b"Unexpected EOF in archive", r.stderr)
        with self.assertRaises(tarfile.ReadError):
            with tarfile.open(fileobj=io.BytesIO(cut), mode="r:") as tf:
                for m in tf:
                    tf.extractfile(m).read()


class WithPrefix(Base):
    pass


class WithoutPrefix(Base):
    PREFIX_ARGS = ()
    PREFIX = None

    def test_empty_prefix_is_no_prefix(self):
        data, _, _ = make_sample("")
        self.assertEqual(len(data), len(self.data))
        # Same archive apart from the mtimes, which the checksums include.
        for off in range(0, len(data), 512):
            a, b = data[off:off + 512], self.data[off:off + 512]
            if a[257:265] == b"ustar\0  ":
                a = a[:136] + a[156:]
                b = b[:136] + b[156:]
            self.assertEqual(a, b, off)


del Base  # only the concrete variants run


def main():
    global SAMPLE, EMULATOR
    ap = argparse.ArgumentParser()
    ap.add_argument("--sample", required=True)
    ap.add_argument("--emulator", default="")
    args, rest = ap.parse_known_args()
    SAMPLE = os.path.abspath(args.sample)
    EMULATOR = shlex.split(args.emulator)
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
