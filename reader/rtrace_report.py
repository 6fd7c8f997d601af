#!/usr/bin/python3
"""rtrace-report: turns a runtime-trace stream downloaded from the device into
an HTML report with plots, tables of the helper programs' output and CSV files
of every numeric series.

usage: rtrace-report TRACE -o DIR [--top N] [--title TEXT]

The stream is a sequence of records, each a 20-byte little-endian header
(type u32, length u32, milliseconds since the epoch s64, flag u8, three zero
bytes) and its data.  A stream normally ends in the middle of a record (the
download was stopped); the report covers every whole record before that and
says where the stream stopped.

Exit status: 0 report written; 1 bad input (the report, when one was
written, covers the records before the damage); 2 wrong usage; 3 an error of
the reader itself.
"""
import argparse
import csv
import datetime
import html
import io
import os
import re
import struct
import sys

HEADER = struct.Struct("<IIqB3s")
PIECE_MAX = 204800
PID_LEN = 4

NAMES = {
    1: "iostat", 2: "smaps", 3: "status", 4: "per-process block", 5: "followed file",
    6: "smapstot", 7: "file-nr", 8: "meminfo", 9: "disk usage", 10: "pagetypeinfo",
    11: "hearth", 12: "signalpost", 13: "pidstat",
}
HELPERS = (1, 11, 12, 13)
# Types sent as pieces (flag 1) closed by an empty header (flag 0).
PIECED = (2, 3, 5, 6, 7, 8, 10)
PER_PID = (2, 3)
# Earliest and latest plausible time stamps: 2000 and 2200.
MS_MIN, MS_MAX = 946684800000, 7258118400000

MEMINFO_PLOTTED = ("MemFree", "MemAvailable", "Buffers", "Cached", "AnonPages",
                   "Shmem", "Slab", "SUnreclaim", "KernelStack", "PageTables", "SwapFree",
                   "CmaFree")


class TraceError(Exception):
    """Input that cannot be read as an rtrace stream: the message says why."""


class Record:
    __slots__ = ("index", "offset", "type", "length", "ms", "flag", "data")


class Ending:
    """How the stream ended: whole, cut inside a record, or damaged."""

    def __init__(self, kind, message=""):
        self.kind = kind          # "whole", "cut" or "damaged"
        self.message = message


def describe(rec_type):
    return f"type {rec_type} ({NAMES.get(rec_type, 'unknown')})"


def check_header(index, offset, rtype, length, ms, flag, pad):
    """The reason a header cannot be from the sampler, or None."""
    where = f"record {index} at byte {offset}"
    if pad != b"\0\0\0":
        return f"{where}: header bytes 17 to 19 are not zero"
    if rtype not in NAMES:
        return f"{where}: unknown record type {rtype}"
    if flag not in (0, 1):
        return f"{where}: {describe(rtype)} with flag {flag}"
    if not MS_MIN <= ms <= MS_MAX:
        return f"{where}: {describe(rtype)} with an impossible time stamp {ms}"
    limit = PIECE_MAX + (PID_LEN if rtype in PER_PID else 0)
    if length > limit:
        return f"{where}: {describe(rtype)} claims {length} data bytes (at most {limit})"
    if rtype == 4 and length != 0:
        return f"{where}: per-process marker with {length} data bytes"
    if rtype in PIECED:
        if flag == 0 and length != 0:
            return f"{where}: closing {describe(rtype)} header with {length} data bytes"
        if flag == 1 and length <= (PID_LEN if rtype in PER_PID else 0):
            return f"{where}: {describe(rtype)} piece without data"
    if rtype in HELPERS and (flag != 0 or length == 0):
        return f"{where}: {describe(rtype)} output record with flag {flag} and {length} bytes"
    if rtype == 9 and flag != 0:
        return f"{where}: disk table with flag {flag}"
    return None


def read_records(f):
    """Yields the whole records of a stream read from a binary file; returns
    (through StopIteration's value) how the stream ended."""
    index = 0
    offset = 0
    while True:
        head = f.read(HEADER.size)
        if not head:
            return Ending("whole")
        if len(head) < HEADER.size:
            return Ending("cut", f"the stream ends inside the header of record {index} at byte "
                                 f"{offset} ({len(head)} of {HEADER.size} header bytes)")
        rtype, length, ms, flag, pad = HEADER.unpack(head)
        why = check_header(index, offset, rtype, length, ms, flag, pad)
        if why:
            if index == 0:
                raise TraceError(f"not an rtrace stream: {why}")
            return Ending("damaged", why)
        data = f.read(length)
        if len(data) < length:
            return Ending("cut", f"the stream ends inside record {index} ({describe(rtype)}) at "
                                 f"byte {offset}: {len(data)} of {length} data bytes")
        r = Record()
        r.index, r.offset, r.type, r.length, r.ms, r.flag, r.data = (
            index, offset, rtype, length, ms, flag, data)
        yield r
        index += 1
        offset += HEADER.size + length


def kib_fields(text):
    """"Key: number [kB]" lines as a dict of numbers."""
    out = {}
    for line in text.splitlines():
        m = re.match(r"\s*([^:\s][^:]*):\s+(-?\d+)(?:\s+kB)?\s*$", line)
        if m:
            out[m.group(1).strip()] = int(m.group(2))
    return out


def status_fields(text):
    name = re.search(r"^Name:\s*(.*)$", text, re.M)
    rss = re.search(r"^VmRSS:\s+(\d+)\s+kB", text, re.M)
    size = re.search(r"^VmSize:\s+(\d+)\s+kB", text, re.M)
    threads = re.search(r"^Threads:\s+(\d+)", text, re.M)
    return {
        "name": name.group(1).strip() if name else "",
        "rss": int(rss.group(1)) if rss else None,
        "vmsize": int(size.group(1)) if size else None,
        "threads": int(threads.group(1)) if threads else None,
    }


def smaps_fields(text):
    sums = {"Rss": 0, "Pss": 0, "Swap": 0, "Private_Dirty": 0}
    for m in re.finditer(r"^(Rss|Pss|Swap|Private_Dirty):\s+(\d+) kB", text, re.M):
        sums[m.group(1)] += int(m.group(2))
    return sums


class Trace:
    """Everything a stream holds, reassembled and parsed."""

    def __init__(self, path):
        self.path = path
        self.size = 0
        self.counts = {t: [0, 0] for t in NAMES}     # records, data bytes
        self.pieces = {t: 0 for t in PIECED}          # reassembled files
        self.first_ms = None
        self.last_ms = None
        self.rounds = []                              # [start ms, end ms or None]
        self.meminfo = []                             # (ms, {key: kB})
        self.filenr = []                              # (ms, allocated, unused, max)
        self.smapstot = []                            # (ms, {key: number})
        self.disks = []                               # (ms, [(fs, used, avail, mount)])
        self.status = []                              # (ms, pid, fields)
        self.smaps = []                               # (ms, pid, sums)
        self.names = {}                               # pid -> name from status
        self.helpers = {t: [] for t in HELPERS}       # (ms, text)
        self.pagetypeinfo = []                        # (ms, text)
        self.followed = []                            # (ms, text)
        self.ending = Ending("whole")
        self.unfinished = []                          # (type, pid) without a closing header
        self.open = {}                                # type -> [ms, pid, [chunks]]

    def damaged(self, rec, why):
        return Ending("damaged", f"record {rec.index} at byte {rec.offset}: {why}")

    def add(self, rec):
        """Takes one record; returns an Ending when the stream is damaged."""
        t = rec.type
        if t in PIECED:
            if rec.flag == 1:
                pid = None
                data = rec.data
                if t in PER_PID:
                    pid = int.from_bytes(data[:PID_LEN], "little", signed=True)
                    data = data[PID_LEN:]
                cur = self.open.get(t)
                if cur and cur[1] != pid:
                    return self.damaged(rec, f"{describe(t)} piece of pid {pid} while the one "
                                             f"of pid {cur[1]} is not closed")
                if not cur:
                    cur = self.open[t] = [rec.ms, pid, []]
                cur[2].append(data)
            else:
                cur = self.open.pop(t, None)
                if not cur:
                    return self.damaged(rec, f"closing {describe(t)} header without a piece")
                self.pieces[t] += 1
                self.finish(t, cur[0], cur[1], b"".join(cur[2]).decode("latin-1"))
        elif t == 4:
            if rec.flag == 1:
                self.rounds.append([rec.ms, None])
            elif self.rounds and self.rounds[-1][1] is None:
                self.rounds[-1][1] = rec.ms
            else:
                return self.damaged(rec, "per-process block closed without being opened")
        elif t == 9:
            self.disks.append((rec.ms, self.disk_table(rec.data.decode("latin-1"))))
        elif t in HELPERS:
            self.helpers[t].append((rec.ms, rec.data.decode("latin-1")))
        c = self.counts[t]
        c[0] += 1
        c[1] += rec.length
        self.first_ms = rec.ms if self.first_ms is None else min(self.first_ms, rec.ms)
        self.last_ms = rec.ms if self.last_ms is None else max(self.last_ms, rec.ms)
        return None

    @staticmethod
    def disk_table(text):
        rows = []
        for line in text.splitlines()[1:]:
            parts = line.split("\t")
            if len(parts) >= 4:
                try:
                    rows.append((parts[0].strip(), int(parts[1]), int(parts[2]),
                                 "\t".join(parts[3:])))
                except ValueError:
                    pass
        return rows

    def finish(self, t, ms, pid, text):
        if t == 3:
            fields = status_fields(text)
            self.status.append((ms, pid, fields))
            if fields["name"]:
                self.names[pid] = fields["name"]
        elif t == 2:
            self.smaps.append((ms, pid, smaps_fields(text)))
        elif t == 8:
            self.meminfo.append((ms, kib_fields(text)))
        elif t == 7:
            nums = text.split()
            if len(nums) >= 3 and all(n.isdigit() for n in nums[:3]):
                self.filenr.append((ms, int(nums[0]), int(nums[1]), int(nums[2])))
        elif t == 6:
            self.smapstot.append((ms, kib_fields(text)))
        elif t == 10:
            self.pagetypeinfo.append((ms, text))
        elif t == 5:
            self.followed.append((ms, text))

    def records(self):
        return sum(c[0] for c in self.counts.values())


def load(path):
    """Reads a stream file into a Trace; TraceError for input that is not one."""
    try:
        f = open(path, "rb")
    except OSError as e:
        raise TraceError(f"cannot open {path}: {e.strerror}") from None
    trace = Trace(path)
    with f:
        trace.size = os.fstat(f.fileno()).st_size
        if trace.size == 0:
            raise TraceError(f"{path} is empty: no records")
        gen = read_records(f)
        while True:
            try:
                rec = next(gen)
            except StopIteration as stop:
                trace.ending = stop.value
                break
            except OSError as e:
                raise TraceError(f"cannot read {path}: {e.strerror}") from None
            bad = trace.add(rec)
            if bad:
                trace.ending = bad
                break
    trace.unfinished = [(t, cur[1]) for t, cur in trace.open.items()]
    if trace.records() == 0:
        raise TraceError(f"{path}: not an rtrace stream: {trace.ending.message or 'no whole record'}")
    return trace


# ---- output ----

def utc(ms):
    return datetime.datetime.fromtimestamp(ms / 1000, datetime.timezone.utc)


def stamp(ms):
    return utc(ms).strftime("%Y-%m-%d %H:%M:%S.") + f"{ms % 1000:03d}"


def process_series(trace):
    """Resident memory per process: {(pid, name): (source, [(ms, kB)])}, from
    smaps when the stream has it, else from status."""
    series = {}
    if trace.smaps:
        for ms, pid, sums in trace.smaps:
            key = (pid, trace.names.get(pid, ""))
            series.setdefault(key, ("smaps Rss", []))[1].append((ms, sums["Rss"]))
    else:
        for ms, pid, fields in trace.status:
            if fields["rss"] is not None:
                key = (pid, fields["name"])
                series.setdefault(key, ("status VmRSS", []))[1].append((ms, fields["rss"]))
    return series


def top_growth(series, n):
    ranked = []
    for key, (source, points) in series.items():
        values = [v for _, v in points]
        ranked.append((values[-1] - values[0], max(values), key))
    ranked.sort(key=lambda r: (-r[0], -r[1], r[2]))
    return ranked[:n], ranked


def write_csv(path, header, rows):
    with open(path, "w", newline="") as f:
        w = csv.writer(f)
        w.writerow(header)
        w.writerows(rows)


class Plotter:
    """Line plots over time as inline SVG; every line carries the id
    "series-<plot>-<label>" so that a plot can be checked by machine."""

    def __init__(self):
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
        import matplotlib.dates as mdates
        self.plt = plt
        self.mdates = mdates
        matplotlib.rcParams["svg.fonttype"] = "none"
        matplotlib.rcParams["svg.hashsalt"] = "rtrace-report"
        matplotlib.rcParams["font.size"] = 9

    def plot(self, plot_id, title, ylabel, lines):
        """lines: [(label, [(ms, value)])]; returns SVG text."""
        plt = self.plt
        fig, ax = plt.subplots(figsize=(9, 3.6), dpi=100)
        for label, points in lines:
            xs = [utc(ms) for ms, _ in points]
            ys = [v for _, v in points]
            marker = "o" if len(points) < 40 else None
            (line,) = ax.plot(xs, ys, label=label, marker=marker, markersize=3, linewidth=1.4)
            line.set_gid(f"series-{plot_id}-{re.sub(r'[^A-Za-z0-9_.-]', '_', label)}")
        ax.set_title(title)
        ax.set_ylabel(ylabel)
        ax.set_xlabel("time (UTC)")
        ax.grid(True, alpha=0.3)
        loc = self.mdates.AutoDateLocator(tz=datetime.timezone.utc)
        ax.xaxis.set_major_locator(loc)
        ax.xaxis.set_major_formatter(self.mdates.ConciseDateFormatter(loc, tz=datetime.timezone.utc))
        ax.ticklabel_format(axis="y", style="plain", useOffset=False)
        if len(lines) > 1:
            ax.legend(loc="center left", bbox_to_anchor=(1.01, 0.5), fontsize=8, frameon=False)
        fig.tight_layout()
        buf = io.StringIO()
        fig.savefig(buf, format="svg", metadata={"Creator": None, "Date": None, "Format": None,
                                                 "Type": None})
        plt.close(fig)
        svg = buf.getvalue()
        return svg[svg.index("<svg"):]


CSS = """
body { font-family: sans-serif; margin: 1.5em auto; padding: 0 1em; max-width: 70em; color: #222; }
h1 { font-size: 1.5em; margin-bottom: 0.2em; }
h2 { font-size: 1.2em; border-bottom: 1px solid #ccc; padding-bottom: 0.2em; margin-top: 1.6em; }
table { border-collapse: collapse; margin: 0.5em 0; font-size: 0.9em; }
th, td { border: 1px solid #ddd; padding: 0.25em 0.6em; text-align: left; vertical-align: top; }
th { background: #f3f3f3; }
td.n { text-align: right; font-variant-numeric: tabular-nums; }
pre { margin: 0; font-size: 0.85em; white-space: pre-wrap; }
.note { background: #fff6d6; border: 1px solid #e6d38a; padding: 0.5em 0.8em; }
.bad { background: #fde2e1; border: 1px solid #e3a09c; padding: 0.5em 0.8em; }
.plot svg { max-width: 100%; height: auto; }
details { margin: 0.4em 0; }
summary { cursor: pointer; }
"""


class Report:
    def __init__(self, trace, outdir, top, title):
        self.t = trace
        self.dir = outdir
        self.top = top
        self.title = title
        self.parts = []
        self.files = []

    def h(self, text):
        self.parts.append(text)

    def table(self, header, rows, numeric=()):
        out = ["<table><tr>" + "".join(f"<th>{html.escape(str(c))}</th>" for c in header) + "</tr>"]
        for row in rows:
            cells = []
            for i, c in enumerate(row):
                cls = ' class="n"' if i in numeric else ""
                cells.append(f"<td{cls}>{c if isinstance(c, Raw) else html.escape(str(c))}</td>")
            out.append("<tr>" + "".join(cells) + "</tr>")
        out.append("</table>")
        self.h("\n".join(out))

    def csv(self, name, header, rows):
        write_csv(os.path.join(self.dir, name), header, rows)
        self.files.append(name)

    def build(self, plotter):
        t = self.t
        esc = html.escape
        self.h(f"<h1>{esc(self.title)}</h1>")
        span = (t.last_ms - t.first_ms) / 1000
        self.h(f"<p>Stream <code>{esc(os.path.basename(t.path))}</code>, {t.size} bytes, "
               f"{t.records()} records, from {stamp(t.first_ms)} to {stamp(t.last_ms)} UTC "
               f"({span:.1f} s), {len(t.rounds)} per-process rounds.</p>")
        if t.ending.kind == "cut":
            self.h(f'<p class="note">The download stopped here: {esc(t.ending.message)}. '
                   f"Everything before it is shown.</p>")
        if t.unfinished:
            self.h('<p class="note">Files whose closing header is missing (left out): '
                   + ", ".join(esc(f"{NAMES[ty]}" + (f" of pid {pid}" if pid is not None else ""))
                               for ty, pid in t.unfinished) + ".</p>")
        if t.ending.kind == "damaged":
            self.h(f'<p class="bad">The stream is damaged: {esc(t.ending.message)}. '
                   f"Only the records before it are shown.</p>")
        self.h("<h2>Records</h2>")
        rows = []
        for rt in sorted(NAMES):
            n, nbytes = t.counts[rt]
            if n:
                rows.append((rt, NAMES[rt], n, nbytes, t.pieces.get(rt, "")))
        self.table(("type", "content", "records", "data bytes", "files reassembled"), rows, (0, 2, 3, 4))
        self.csv("records.csv", ("type", "content", "records", "data_bytes", "files"),
                 [(r[0], r[1], r[2], r[3], r[4]) for r in rows])

        self.memory(plotter)
        self.processes(plotter)
        self.smapstot(plotter)
        self.file_handles(plotter)
        self.disk_usage(plotter)
        self.helper_output()
        self.snapshots()
        self.h("<h2>Files</h2><p>CSV files beside this report: "
               + ", ".join(f"<code>{esc(f)}</code>" for f in self.files) + ".</p>")

    def plot(self, plotter, plot_id, title, ylabel, lines):
        self.h(f'<div class="plot" id="plot-{plot_id}">'
               + plotter.plot(plot_id, title, ylabel, lines) + "</div>")

    def memory(self, plotter):
        t = self.t
        if not t.meminfo:
            return
        self.h("<h2>Memory (/proc/meminfo)</h2>")
        keys = []
        for _, d in t.meminfo:
            for k in d:
                if k not in keys:
                    keys.append(k)
        lines = [(k, [(ms, d[k] / 1024) for ms, d in t.meminfo if k in d])
                 for k in MEMINFO_PLOTTED if k in keys]
        self.plot(plotter, "meminfo", "System memory", "MiB", lines)
        total = t.meminfo[-1][1].get("MemTotal")
        if total is not None:
            self.h(f"<p>MemTotal {total} kB ({total / 1024:.1f} MiB).</p>")
        self.csv("meminfo.csv", ["time_ms", "time_utc"] + [f"{k}_kB" for k in keys],
                 [[ms, stamp(ms)] + [d.get(k, "") for k in keys] for ms, d in t.meminfo])

    def file_handles(self, plotter):
        t = self.t
        if not t.filenr:
            return
        self.h("<h2>File handles (/proc/sys/fs/file-nr)</h2>")
        lines = [("allocated", [(ms, a) for ms, a, _, _ in t.filenr])]
        # Kernels since 2.6 always report 0 unused: then "in use" is "allocated".
        if any(u for _, _, u, _ in t.filenr):
            lines.append(("in use", [(ms, a - u) for ms, a, u, _ in t.filenr]))
        self.plot(plotter, "filenr", "Open file handles", "handles", lines)
        first, last = t.filenr[0], t.filenr[-1]
        self.h(f"<p>Allocated {first[1]} at the start, {last[1]} at the end "
               f"(highest {max(a for _, a, _, _ in t.filenr)}) of at most {last[3]}.</p>")
        self.csv("filenr.csv", ("time_ms", "time_utc", "allocated", "unused", "max"),
                 [(ms, stamp(ms), a, u, m) for ms, a, u, m in t.filenr])

    def disk_usage(self, plotter):
        t = self.t
        if not t.disks:
            return
        self.h("<h2>Disk usage</h2>")
        # A file system mounted twice on one place is two lines of the table.
        mounts = []
        sized = set()
        points = {}
        for ms, rows in t.disks:
            seen = {}
            for fs, used, avail, mnt in rows:
                n = seen[(fs, mnt)] = seen.get((fs, mnt), 0) + 1
                key = (fs, mnt, n)
                if key not in points:
                    mounts.append(key)
                    points[key] = []
                points[key].append((ms, used / 1024))
                if used or avail:
                    sized.add(key)
        # File systems without blocks (proc, sysfs, cgroups) have nothing to plot.
        lines = [(f"{mnt} ({fs})" + (f" #{n}" if n > 1 else ""), points[(fs, mnt, n)])
                 for fs, mnt, n in mounts if (fs, mnt, n) in sized]
        if lines:
            self.plot(plotter, "disk", "Used space per mount", "MiB", lines)
        ms, rows = t.disks[-1]
        self.h(f"<p>Last table, {stamp(ms)} UTC, file systems with blocks (KiB as the device "
               f"computes them: products above 4 GiB wrap on the device):</p>")
        header = ("file system", "used KiB", "available KiB", "mounted on")
        self.table(header, [r for r in rows if r[1] or r[2]], (1, 2))
        self.h("<details><summary>The whole table</summary>")
        self.table(header, rows, (1, 2))
        self.h("</details>")
        self.csv("diskinfo.csv", ("time_ms", "time_utc", "filesystem", "used_kB", "avail_kB", "mount"),
                 [(ms, stamp(ms), fs, u, a, m) for ms, rows in t.disks for fs, u, a, m in rows])

    def processes(self, plotter):
        t = self.t
        series = process_series(t)
        if not series:
            return
        source = next(iter(series.values()))[0]
        self.h(f"<h2>Processes: resident memory ({esc_src(source)})</h2>")
        top, ranked = top_growth(series, self.top)
        lines = []
        for growth, _, key in top:
            pid, name = key
            lines.append((f"{pid} {name}", [(ms, v / 1024) for ms, v in series[key][1]]))
        self.plot(plotter, "processes", f"Resident memory of the {len(top)} processes that grew most",
                  "MiB", lines)
        rows = []
        for growth, peak, key in ranked:
            pts = series[key][1]
            rows.append((key[0], key[1], len(pts), pts[0][1], pts[-1][1], growth, peak))
        self.h("<details><summary>All processes, by growth</summary>")
        self.table(("pid", "name", "samples", "first KiB", "last KiB", "growth KiB", "highest KiB"),
                   rows, (0, 2, 3, 4, 5, 6))
        self.h("</details>")
        if t.status:
            self.csv("status.csv", ("time_ms", "time_utc", "pid", "name", "VmRSS_kB", "VmSize_kB", "threads"),
                     [(ms, stamp(ms), pid, f["name"], f["rss"] if f["rss"] is not None else "",
                       f["vmsize"] if f["vmsize"] is not None else "",
                       f["threads"] if f["threads"] is not None else "")
                      for ms, pid, f in t.status])
        if t.smaps:
            self.csv("smaps.csv", ("time_ms", "time_utc", "pid", "name", "Rss_kB", "Pss_kB", "Swap_kB",
                                   "Private_Dirty_kB"),
                     [(ms, stamp(ms), pid, t.names.get(pid, ""), s["Rss"], s["Pss"], s["Swap"],
                       s["Private_Dirty"]) for ms, pid, s in t.smaps])

    def smapstot(self, plotter):
        t = self.t
        if not t.smapstot:
            return
        self.h("<h2>Memory of all processes (/proc/smapstot)</h2>")
        keys = []
        for _, d in t.smapstot:
            for k in d:
                if k not in keys:
                    keys.append(k)
        if keys:
            self.plot(plotter, "smapstot", "Totals over all processes", "kB",
                      [(k, [(ms, d[k]) for ms, d in t.smapstot if k in d]) for k in keys[:8]])
        self.csv("smapstot.csv", ["time_ms", "time_utc"] + keys,
                 [[ms, stamp(ms)] + [d.get(k, "") for k in keys] for ms, d in t.smapstot])

    def helper_output(self):
        t = self.t
        present = [h for h in HELPERS if t.helpers[h]]
        if not present:
            return
        self.h("<h2>Helper programs</h2>")
        for h in present:
            chunks = merge_bursts(t.helpers[h])
            name = NAMES[h]
            with open(os.path.join(self.dir, f"{name}.txt"), "w", encoding="utf-8") as f:
                for ms, text in chunks:
                    f.write(f"--- {stamp(ms)} UTC\n{text}")
                    if not text.endswith("\n"):
                        f.write("\n")
            self.files.append(f"{name}.txt")
            nbytes = sum(len(x) for _, x in chunks)
            is_open = " open" if len(chunks) <= 200 else ""
            self.h(f'<details id="helper-{name}"{is_open}><summary><b>{name}</b>: {len(t.helpers[h])} '
                   f"records, {nbytes} bytes</summary>")
            shown = chunks[-2000:]
            if len(shown) < len(chunks):
                self.h(f"<p>The last {len(shown)} pieces; all of them are in {name}.txt.</p>")
            self.table(("time (UTC)", "output"),
                       [(stamp(ms), Raw(f"<pre>{html.escape(text)}</pre>")) for ms, text in shown])
            self.h("</details>")

    def snapshots(self):
        t = self.t
        for label, items in (("pagetypeinfo", t.pagetypeinfo), ("followed file", t.followed)):
            if items:
                ms, text = items[-1]
                self.h(f"<h2>{label}</h2><p>{len(items)} snapshots; the last, {stamp(ms)} UTC:</p>"
                       f"<pre>{html.escape(text)}</pre>")

    def write(self):
        page = ("<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\">"
                f"<title>{html.escape(self.title)}</title><style>{CSS}</style></head><body>\n"
                + "\n".join(self.parts) + "\n</body></html>\n")
        path = os.path.join(self.dir, "index.html")
        with open(path, "w", encoding="utf-8") as f:
            f.write(page)
        return path


def merge_bursts(chunks, gap_ms=100):
    """Output that arrived in pieces close together, as one piece: a helper's
    report reaches the pipe in as many writes as the helper makes."""
    out = []
    last = None
    for ms, text in chunks:
        if out and ms - last <= gap_ms:
            out[-1][1] += text
        else:
            out.append([ms, text])
        last = ms
    return [(ms, text) for ms, text in out]


class Raw(str):
    """Table cell text that is already HTML."""


def esc_src(s):
    return html.escape(s)


def main(argv=None):
    ap = argparse.ArgumentParser(
        prog="rtrace-report",
        description="Turns a runtime-trace stream from the device into an HTML report with plots "
                    "and CSV files.")
    ap.add_argument("trace", help="the downloaded stream")
    ap.add_argument("-o", "--output", required=True, metavar="DIR",
                    help="directory for index.html and the CSV files (created when missing)")
    ap.add_argument("--top", type=int, default=10, metavar="N",
                    help="processes shown in the growth plot (default 10)")
    ap.add_argument("--title", default=None, help="report title")
    args = ap.parse_args(argv)
    try:
        trace = load(args.trace)
        if os.path.exists(args.output) and not os.path.isdir(args.output):
            raise TraceError(f"{args.output} is not a directory")
        try:
            os.makedirs(args.output, exist_ok=True)
        except OSError as e:
            raise TraceError(f"cannot create {args.output}: {e.strerror}") from None
        if not os.path.isdir(args.output):
            raise TraceError(f"{args.output} is not a directory")
        title = args.title or f"Runtime trace {os.path.basename(args.trace)}"
        report = Report(trace, args.output, max(args.top, 1), title)
        report.build(Plotter())
        path = report.write()
    except TraceError as e:
        print(f"rtrace-report: {e}", file=sys.stderr)
        return 1
    except OSError as e:
        print(f"rtrace-report: {e.filename or ''}: {e.strerror}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("rtrace-report: interrupted", file=sys.stderr)
        return 1
    except Exception as e:  # noqa: BLE001 - a reader of field data must not end in a traceback
        print(f"rtrace-report: internal error on {args.trace}: {type(e).__name__}: {e}", file=sys.stderr)
        return 3
    print(f"{trace.records()} records of {args.trace} -> {path}")
    if trace.ending.kind == "cut":
        print(f"rtrace-report: {args.trace}: {trace.ending.message}; the report covers the "
              f"{trace.records()} whole records before it", file=sys.stderr)
    elif trace.ending.kind == "damaged":
        print(f"rtrace-report: {args.trace}: damaged stream: {trace.ending.message}; the report "
              f"covers the {trace.records()} records before it", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
