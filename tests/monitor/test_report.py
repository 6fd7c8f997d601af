"""The trace reader (rtrace-report) on a real stream: rtrace_run records one
in a pid namespace of its own (with helper programs and a process whose
memory grows every round), the download stops in the middle of a record, and
the reader's report must account for every record, plot the series the
stream holds and write them as CSV.  Cut, damaged and foreign input gets a
clear message and never a traceback."""
import csv
import html
import os
import re
import shutil
import struct
import subprocess
import tempfile
import unittest

import bb
import montest
import standins
from montest import Holder, records

PROBE = None
READER = None
STREAM = None          # the recorded stream, cut inside a record
GROWER = None          # pid of the process that grew
ITEMS = 1 | 2 | 8 | 16 | 32 | 64 | 128 | 256 | 512 | 1024
ROUNDS = 4


def drain(fd, data):
    """Appends what the pipe holds now, without waiting for more."""
    os.set_blocking(fd, False)
    try:
        while True:
            try:
                chunk = os.read(fd, 65536)
            except BlockingIOError:
                return
            if not chunk:
                return
            data += chunk
    finally:
        os.set_blocking(fd, True)


def record_stream():
    """Records per-process rounds and stops inside the next record that
    carries data.  Between rounds the grower takes 4 MiB more, ROUNDS times:
    with the sampler stopped and everything it wrote read, so the growth
    falls between two per-process sections by design (when the next section
    has begun already, that growth waits for its end)."""
    global GROWER
    grower = Holder("grower")
    GROWER = grower.pid
    p = subprocess.Popen(bb.command(PROBE, "rtrace", str(ITEMS), "1"), stdout=subprocess.PIPE,
                         stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    fd = p.stdout.fileno()
    data = bytearray()
    grown = 0     # per-process sections ended so far that were followed by a growth
    seen = 0      # per-process sections ended so far
    cut = None
    try:
        while cut is None:
            chunk = os.read(fd, 65536)
            if not chunk:
                raise RuntimeError("the stream ended early")
            data += chunk
            recs = records(bytes(data), allow_cut=True)
            ends = sum(1 for r in recs if r.type == 4 and r.flag == 0)
            if ends > seen and grown < ROUNDS:
                seen = ends
                with montest.frozen(p.pid):
                    drain(fd, data)
                    recs = records(bytes(data), allow_cut=True)
                    last = [r for r in recs if r.type == 4][-1]
                    if last.flag == 0:
                        grower.do("memory 4")
                        grown += 1
            if grown >= ROUNDS:
                end = recs[-1].offset + 20 + recs[-1].length if recs else 0
                # The first record after the last whole one that has data
                # (its header may be read already).
                if len(data) >= end + 20:
                    length = struct.unpack_from("<I", data, end + 4)[0]
                    if length >= 64 and len(data) >= end + 20 + length // 2:
                        cut = end + 20 + length // 2
    finally:
        p.stdout.close()
        p.wait(timeout=60)
        grower.stop()
    return bytes(data[:cut])


def reader(*args, check_traceback=True):
    r = subprocess.run([READER] + list(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       timeout=120)
    if check_traceback:
        assert b"Traceback" not in r.stderr, r.stderr.decode()
    return r.returncode, r.stdout.decode(), r.stderr.decode()


def series_points(page, gid):
    """Vertices of the line with that id in the report's inline SVG."""
    m = re.search(r'<g id="%s">\s*<path d="([^"]*)"' % re.escape(gid), page)
    if not m:
        return None
    return len(re.findall(r"[ML] ", m.group(1)))


def read_csv(path):
    with open(path, newline="") as f:
        return list(csv.DictReader(f))


class ReportOfARealStream(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(dir="/tmp")
        cls.trace = os.path.join(cls.work, "rtrace")
        with open(cls.trace, "wb") as f:
            f.write(STREAM)
        cls.out = os.path.join(cls.work, "report")
        cls.rc, cls.stdout, cls.stderr = reader(cls.trace, "-o", cls.out)
        with open(os.path.join(cls.out, "index.html")) as f:
            cls.page = f.read()
        cls.recs = records(STREAM, allow_cut=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work)

    def whole_files(self, rtype):
        return [r for r in self.recs if r.type == rtype and r.flag == 0]

    def test_says_where_the_stream_stopped(self):
        self.assertEqual(self.rc, 0, self.stderr)
        last = self.recs[-1]
        offset = last.offset + 20 + last.length
        n = len(self.recs)
        length = struct.unpack_from("<I", STREAM, offset + 4)[0]
        got = len(STREAM) - offset - 20
        rtype = struct.unpack_from("<I", STREAM, offset)[0]
        self.assertRegex(self.stderr, r"the stream ends inside record %d \(type %d \(\w[\w -]*\)\) at byte %d: "
                         r"%d of %d data bytes; the report covers the %d whole records before it\n\Z"
                         % (n, rtype, offset, got, length, n))
        self.assertIn(f"{n} records of {self.trace}", self.stdout)
        self.assertIn("The download stopped here", self.page)

    def test_every_record_is_accounted_for(self):
        counts = {}
        for r in self.recs:
            c = counts.setdefault(r.type, [0, 0])
            c[0] += 1
            c[1] += r.length
        rows = read_csv(os.path.join(self.out, "records.csv"))
        got = {int(row["type"]): [int(row["records"]), int(row["data_bytes"])] for row in rows}
        self.assertEqual(got, counts)
        self.assertEqual(set(counts), {1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 13})

    def test_meminfo_series(self):
        files = self.whole_files(8)
        rows = read_csv(os.path.join(self.out, "meminfo.csv"))
        self.assertEqual(len(rows), len(files))
        first = b"".join(r.data for r in self.recs if r.type == 8 and r.flag == 1
                         and r.offset < files[0].offset)
        total = int(re.search(rb"MemTotal:\s+(\d+) kB", first).group(1))
        self.assertEqual(int(rows[0]["MemTotal_kB"]), total)
        self.assertEqual([int(r["time_ms"]) for r in rows],
                         [self.first_piece_ms(8, f) for f in files])
        self.assertEqual(series_points(self.page, "series-meminfo-MemFree"), len(files))
        self.assertEqual(series_points(self.page, "series-meminfo-MemAvailable"), len(files))

    def first_piece_ms(self, rtype, closing):
        pieces = [r for r in self.recs if r.type == rtype and r.offset < closing.offset]
        opening = [r for r in pieces if r.flag == 1]
        # The file's first piece is the one after the previous closing header.
        prev = [r for r in pieces if r.flag == 0]
        after = [r for r in opening if not prev or r.offset > prev[-1].offset]
        return after[0].ms

    def test_file_handle_series(self):
        files = self.whole_files(7)
        rows = read_csv(os.path.join(self.out, "filenr.csv"))
        want = []
        for r in self.recs:
            if r.type == 7 and r.flag == 1:
                want.append([int(x) for x in r.data.split()])
        self.assertEqual([[int(r["allocated"]), int(r["unused"]), int(r["max"])] for r in rows],
                         want[:len(files)])
        self.assertEqual(series_points(self.page, "series-filenr-allocated"), len(files))
        # The kernel reports no unused handles: one line, no "in use".
        self.assertTrue(all(r["unused"] == "0" for r in rows))
        self.assertIsNone(series_points(self.page, "series-filenr-in_use"))

    def test_disk_series(self):
        tables = [r for r in self.recs if r.type == 9]
        rows = read_csv(os.path.join(self.out, "diskinfo.csv"))
        want = []
        for t in tables:
            for line in t.data.decode().splitlines()[1:]:
                fs, used, avail, mnt = line.split("\t")
                want.append((t.ms, fs.strip(), int(used), int(avail), mnt))
        self.assertEqual([(int(r["time_ms"]), r["filesystem"], int(r["used_kB"]), int(r["avail_kB"]),
                           r["mount"]) for r in rows], want)
        sized = {(fs, mnt) for _, fs, u, a, mnt in want if u or a}
        self.assertTrue(sized)
        for fs, mnt in sized:
            gid = "series-disk-" + re.sub(r"[^A-Za-z0-9_.-]", "_", f"{mnt} ({fs})")
            self.assertEqual(series_points(self.page, gid), len(tables), gid)

    def test_growing_process_leads_the_process_plot(self):
        smaps = [r for r in self.recs if r.type == 2 and r.flag == 1
                 and struct.unpack_from("<i", r.data)[0] == GROWER]
        rows = [r for r in read_csv(os.path.join(self.out, "smaps.csv")) if int(r["pid"]) == GROWER]
        self.assertGreaterEqual(len(rows), ROUNDS)
        self.assertLessEqual(len(rows), len(smaps))
        self.assertEqual(rows[0]["name"], "grower")
        rss = [int(r["Rss_kB"]) for r in rows]
        self.assertGreaterEqual(rss[-1] - rss[0], (ROUNDS - 1) * 4 * 1024 - 1024)
        # The report's first (largest growth) line is the grower's.
        m = re.search(r'<g id="series-processes-([^"]*)">', self.page)
        self.assertEqual(m.group(1), f"{GROWER}_grower")
        self.assertEqual(series_points(self.page, f"series-processes-{GROWER}_grower"), len(rows))
        status = [r for r in read_csv(os.path.join(self.out, "status.csv")) if int(r["pid"]) == GROWER]
        self.assertGreater(int(status[-1]["VmRSS_kB"]), int(status[0]["VmRSS_kB"]))

    def test_helper_tables(self):
        for rtype, name, text in ((1, "iostat", "avg-cpu"), (11, "hearth", "hearth tick 1"),
                                  (12, "signalpost", "event 1 button"), (13, "pidstat", "UID")):
            recs = [r for r in self.recs if r.type == rtype]
            whole = b"".join(r.data for r in recs).decode()
            m = re.search(r'<details id="helper-%s"[^>]*><summary><b>\w+</b>: (\d+) records(.*?)</details>'
                          % name, self.page, re.S)
            self.assertIsNotNone(m, name)
            self.assertEqual(int(m.group(1)), len(recs))
            # Every byte of the output, in order, in the table's cells.
            cells = re.findall(r"<td><pre>(.*?)</pre></td>", m.group(2), re.S)
            self.assertEqual("".join(html.unescape(c) for c in cells), whole, name)
            self.assertIn(text, whole)
            with open(os.path.join(self.out, f"{name}.txt")) as f:
                body = f.read()
            self.assertEqual(re.sub(r"(?m)^--- .* UTC\n", "", body).replace("\n", ""),
                             whole.replace("\n", ""))

    def test_report_is_self_contained(self):
        self.assertNotRegex(self.page, r'(src|href)="(?!#)')
        self.assertNotIn("http", re.sub(r'xmlns(:\w+)?="[^"]*"', "", self.page))
        self.assertGreaterEqual(self.page.count("<svg"), 4)


class BadInput(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(dir="/tmp")

    def tearDown(self):
        shutil.rmtree(self.work)

    def run_on(self, data, *extra):
        path = os.path.join(self.work, "t")
        with open(path, "wb") as f:
            f.write(data)
        return reader(path, "-o", os.path.join(self.work, "out"), *extra)

    def test_cut_inside_a_header(self):
        recs = records(STREAM, allow_cut=True)
        r = recs[5]
        rc, out, err = self.run_on(STREAM[:r.offset + 11])
        self.assertEqual(rc, 0)
        self.assertIn(f"the stream ends inside the header of record 5 at byte {r.offset} "
                      f"(11 of 20 header bytes); the report covers the 5 whole records before it", err)

    def test_damaged_type(self):
        recs = records(STREAM, allow_cut=True)
        r = recs[7]
        data = bytearray(STREAM)
        struct.pack_into("<I", data, r.offset, 99)
        rc, out, err = self.run_on(bytes(data))
        self.assertEqual(rc, 1)
        self.assertEqual(err, f"rtrace-report: {self.work}/t: damaged stream: record 7 at byte {r.offset}: "
                              f"unknown record type 99; the report covers the 7 records before it\n")
        rows = read_csv(os.path.join(self.work, "out", "records.csv"))
        self.assertEqual(sum(int(x["records"]) for x in rows), 7)

    def test_damaged_length(self):
        recs = records(STREAM, allow_cut=True)
        r = recs[3]
        data = bytearray(STREAM)
        struct.pack_into("<I", data, r.offset + 4, 0x7fffffff)
        rc, out, err = self.run_on(bytes(data))
        self.assertEqual(rc, 1)
        self.assertIn(f"record 3 at byte {r.offset}: type {r.type} ", err)
        self.assertIn("claims 2147483647 data bytes", err)

    def test_foreign_files(self):
        cases = [
            (b"%PDF-1.4\n" + b"x" * 100, "not an rtrace stream: record 0 at byte 0: "),
            (b"\x08\x00\x00\x00\x00", "not an rtrace stream: the stream ends inside the header of record 0"),
            (STREAM[:20][:16] + b"\x01\x01\x00\x00", "not an rtrace stream: record 0 at byte 0: header bytes 17 to 19"),
        ]
        for data, msg in cases:
            rc, out, err = self.run_on(data)
            self.assertEqual(rc, 1, err)
            self.assertIn(msg, err)
            self.assertTrue(err.startswith("rtrace-report: "), err)

    def test_empty_missing_and_unwritable(self):
        rc, _, err = self.run_on(b"")
        self.assertEqual((rc, err), (1, f"rtrace-report: {self.work}/t is empty: no records\n"))
        rc, _, err = reader(os.path.join(self.work, "missing"), "-o", self.work)
        self.assertEqual((rc, err), (1, f"rtrace-report: cannot open {self.work}/missing: "
                                        "No such file or directory\n"))
        blocker = os.path.join(self.work, "file")
        open(blocker, "w").close()
        path = os.path.join(self.work, "t")
        with open(path, "wb") as f:
            f.write(STREAM)
        rc, _, err = reader(path, "-o", blocker)
        self.assertEqual(rc, 1)
        self.assertIn(f"rtrace-report: {blocker} is not a directory", err)

    def test_usage(self):
        rc, out, err = reader()
        self.assertEqual(rc, 2)
        self.assertIn("usage: rtrace-report", err)
        rc, out, err = reader("--help")
        self.assertEqual(rc, 0)
        self.assertIn("-o DIR", out)

    def test_mutated_streams_never_end_in_a_traceback(self):
        # Parsing only, in one interpreter: 120 random cuts and byte changes.
        path = os.path.join(self.work, "t")
        with open(path, "wb") as f:
            f.write(STREAM)
        with open(READER) as f:
            interpreter = f.readline()[2:].strip()
        script = r"""
import importlib.machinery, importlib.util, random, sys
loader = importlib.machinery.SourceFileLoader("rtrace_report", sys.argv[1])
spec = importlib.util.spec_from_loader("rtrace_report", loader)
rr = importlib.util.module_from_spec(spec)
loader.exec_module(rr)
data = open(sys.argv[2], "rb").read()
rnd = random.Random(11)
kinds = {}
for i in range(120):
    d = bytearray(data[:rnd.randrange(1, len(data))])
    for _ in range(rnd.randrange(0, 4)):
        d[rnd.randrange(len(d))] = rnd.randrange(256)
    open(sys.argv[2] + ".m", "wb").write(d)
    try:
        t = rr.load(sys.argv[2] + ".m")
        kinds[t.ending.kind] = kinds.get(t.ending.kind, 0) + 1
    except rr.TraceError:
        kinds["error"] = kinds.get("error", 0) + 1
print(sorted(kinds.items()))
"""
        r = subprocess.run([interpreter, "-c", script, READER, path], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, timeout=240)
        self.assertEqual(r.returncode, 0, r.stderr.decode())
        self.assertIn("cut", r.stdout.decode())


def main():
    global PROBE, READER, STREAM
    PROBE, READER, argv = montest.probe_args("--reader")
    READER = READER or bb.path("bin/rtrace-report")
    standins.install()
    STREAM = record_stream()
    unittest.main(argv=argv, verbosity=2)


if __name__ == "__main__":
    montest.enter_namespace("report")
    main()
