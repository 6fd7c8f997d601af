"""The runtime trace recorded on the emulated MIPS board (check:monitor of the
target suite, brought back through the console) read on the host: the
stream parses as little-endian records of a MIPS device, and the reader's
report accounts for every record and plots what the stream holds."""
import argparse
import csv
import gzip
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

from montest import records

TRACE = None
READER = None


class BoardTrace(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not os.path.exists(TRACE):
            raise AssertionError(f"{TRACE} missing: the board did not send its trace "
                                 "(see check:monitor:rtrace-stream in the board's results)")
        with gzip.open(TRACE) as f:
            cls.stream = f.read()
        cls.work = tempfile.mkdtemp()
        cls.path = os.path.join(cls.work, "rtrace")
        with open(cls.path, "wb") as f:
            f.write(cls.stream)
        cls.out = os.path.join(cls.work, "report")
        r = subprocess.run([READER, cls.path, "-o", cls.out], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, timeout=240)
        cls.rc, cls.stderr = r.returncode, r.stderr.decode()
        with open(os.path.join(cls.out, "index.html")) as f:
            cls.page = f.read()
        cls.recs = records(cls.stream, allow_cut=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work)

    def test_stream_of_the_device(self):
        types = {r.type for r in self.recs}
        self.assertEqual(types, {1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 13})
        self.assertEqual(sum(r.type == 4 and r.flag == 0 for r in self.recs), 3)
        status = b"".join(r.data for r in self.recs if r.type == 3)
        self.assertIn(b"Name:\tkthreadd\n", status)
        pidstat = b"".join(r.data for r in self.recs if r.type == 13)
        self.assertIn(b"_mips_", pidstat)

    def test_reader_accounts_for_every_record(self):
        self.assertEqual(self.rc, 0, self.stderr)
        n = len(self.recs)
        self.assertRegex(self.stderr, r"the stream ends inside record %d .*the report covers the %d whole "
                                      r"records before it\n\Z" % (n, n))
        with open(os.path.join(self.out, "records.csv"), newline="") as f:
            got = {int(r["type"]): int(r["records"]) for r in csv.DictReader(f)}
        want = {}
        for r in self.recs:
            want[r.type] = want.get(r.type, 0) + 1
        self.assertEqual(got, want)

    def test_plots_hold_the_series(self):
        meminfo = sum(1 for r in self.recs if r.type == 8 and r.flag == 0)
        m = re.search(r'<g id="series-meminfo-MemFree">\s*<path d="([^"]*)"', self.page)
        self.assertEqual(len(re.findall(r"[ML] ", m.group(1))), meminfo)
        self.assertIn('id="series-filenr-allocated"', self.page)
        self.assertIn('<g id="series-processes-', self.page)
        self.assertIn('<details id="helper-iostat"', self.page)


def main():
    global TRACE, READER
    ap = argparse.ArgumentParser()
    ap.add_argument("--trace", required=True)
    ap.add_argument("--reader", required=True)
    args, rest = ap.parse_known_args()
    TRACE, READER = args.trace, args.reader
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
