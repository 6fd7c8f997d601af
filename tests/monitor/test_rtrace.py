"""rtrace_run (through tests/monitor/monitor_probe) in a pid and mount
namespace of its own: the record sequence for a known process set, the
system files and the disk table, helper programs (real iostat and pidstat,
stand-ins for the device-only ones) and the end of the stream when the
reader goes away.  The stream is read by the test's own record parser."""
import os
import re
import subprocess
import tempfile
import unittest

import bb
from bb import wait_until
import montest
import standins
from montest import records

PROBE = None


def cmdline(pid):
    return montest.read_file(f"/proc/{pid}/cmdline", "rb")


def parent(pid):
    stat = montest.read_file(f"/proc/{pid}/stat") or ""
    return int(stat.rsplit(")", 1)[1].split()[1]) if ")" in stat else None


def helper_pids():
    """The helpers the sampler started, by name (not the children of the
    stand-in scripts, which look like their shell until they exec)."""
    names = (b"iostat", b"pidstat", b"hearth", b"signalpost")
    found = {}
    for pid in montest.ns_pids():
        c = cmdline(pid) or b""
        for name in names:
            if b"/usr/bin/" + name + b"\0" in c:
                up = cmdline(parent(pid)) or b""
                if not any(b"/usr/bin/" + n + b"\0" in up for n in names):
                    found[name.decode()] = pid
    return found


def count_rounds(data):
    return sum(1 for r in records(data, allow_cut=True) if r.type == 4 and r.flag == 0)


def hearth_between(recs, a, b):
    """hearth's records written strictly between the times a and b."""
    return [r for r in recs if r.type == 11 and a < r.ms < b]


def finish(p, timeout=60):
    err = ""
    if p.stderr:
        err = p.stderr.read().decode()
        p.stderr.close()
    p.wait(timeout=timeout)
    return p.returncode, err


class Rtrace(unittest.TestCase):
    def tearDown(self):
        wait_until(lambda: montest.reap_orphans() or montest.ns_pids() == [], "an empty namespace")

    def test_per_process_records_of_a_known_process_set(self):
        sleepers = [subprocess.Popen(["sleep", "1000"]) for _ in range(3)]
        zombie = subprocess.Popen(["true"])
        wait_until(lambda: (montest.read_file(f"/proc/{zombie.pid}/stat") or "").split()[2] == "Z",
                 "a zombie")
        try:
            data, p = montest.run_rtrace(PROBE, 3, 1, lambda d: count_rounds(d) >= 2,
                                         stderr=subprocess.PIPE)
            rc, err = finish(p)
            everyone = set(montest.ns_pids()) | {p.pid}
        finally:
            for s in sleepers:
                s.kill()
                s.wait()
            zombie.wait()
        self.assertEqual((rc, err), (0, "rtrace_run returned 0, children: none\n"))
        recs = records(data, allow_cut=True)
        procs = sorted(everyone | {1})
        rounds = []
        i = 0
        for _ in range(2):
            start = recs[i]
            self.assertEqual((start.type, start.length, start.flag), (4, 0, 1))
            i += 1
            seen = {}
            for kind in (2, 3):
                seen[kind] = []
                while recs[i].type == kind:
                    first = recs[i]
                    self.assertEqual(first.flag, 1)
                    pid = int.from_bytes(first.data[:4], "little")
                    body = b""
                    while recs[i].length > 0:
                        self.assertEqual((recs[i].type, recs[i].flag), (kind, 1))
                        self.assertEqual(recs[i].data[:4], first.data[:4])
                        body += recs[i].data[4:]
                        i += 1
                    self.assertEqual((recs[i].type, recs[i].length, recs[i].flag), (kind, 0, 0))
                    i += 1
                    seen[kind].append((pid, body))
            end = recs[i]
            self.assertEqual((end.type, end.length, end.flag), (4, 0, 0))
            i += 1
            rounds.append((start, end, seen))
            # Every process has a status; the zombie's smaps is empty and
            # sends nothing.
            self.assertEqual([pid for pid, _ in seen[3]], procs)
            self.assertEqual([pid for pid, _ in seen[2]], [q for q in procs if q != zombie.pid])
            for pid, body in seen[3]:
                self.assertIn(f"\nPid:\t{pid}\n".encode(), body)
            for pid, body in seen[2]:
                self.assertRegex(body[:40], rb"^[0-9a-f]+-[0-9a-f]+ [r-][w-][x-][ps] ")
            for s in sleepers:
                status = dict(seen[3])[s.pid]
                self.assertTrue(status.startswith(b"Name:\tsleep\n"), status[:40])
        self.assertEqual(i, len(recs) if len(data) == recs[-1].offset + 20 + recs[-1].length
                         else len(recs))
        # Without helpers the rounds are sleep(interval) apart.
        self.assertGreaterEqual(rounds[1][0].ms - rounds[0][1].ms, 990)

    def test_system_files_and_disk_table(self):
        os.makedirs("/run/export", exist_ok=True)
        os.makedirs("/run/share", exist_ok=True)
        os.makedirs("/run/big", exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "host:/export", "/run/export"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "//server/share", "/run/share"], check=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=6g", "bigdisk", "/run/big"], check=True)
        try:
            with open("/run/big/data", "wb") as f:
                f.write(b"\1" * (1 << 20))
            items = 4 | 8 | 16 | 32 | 128
            data, p = montest.run_rtrace(PROBE, items, 1,
                                         lambda d: any(r.type == 10 and r.flag == 0
                                                       for r in records(d, allow_cut=True)))
            finish(p)
            st = os.statvfs("/run/big")
        finally:
            for d in ("/run/export", "/run/share", "/run/big"):
                subprocess.run(["umount", d], check=True)
        recs = records(data, allow_cut=True)
        kinds = [(r.type, r.flag, r.length > 0) for r in recs]
        # No /proc/smapstot on this kernel: nothing of type 6.
        want = [(7, 1, True), (7, 0, False), (8, 1, True), (8, 0, False), (9, 0, True)]
        self.assertEqual(kinds[:5], want)
        self.assertEqual(kinds[5][:2], (10, 1))
        self.assertEqual(kinds[-1], (10, 0, False))
        self.assertRegex(recs[0].data.decode(), r"\A\d+\t\d+\t\d+\n\Z")
        self.assertIn(b"\nMemTotal:", b"\n" + recs[2].data)

        table = recs[4].data.decode()
        lines = table.splitlines()
        self.assertEqual(lines[0], "Filesystem          \tUsed\tAvail\tMounted on")
        by_dir = {l.split("\t")[3]: l.split("\t") for l in lines[1:]}
        self.assertNotIn("/run/export", by_dir)
        self.assertNotIn("host:/export", table)
        self.assertEqual(by_dir["/run/share"][0], "//server/share      ")
        # 32-bit products before the shift: 6 GiB of free space wraps.
        used = (((st.f_blocks - st.f_bfree) * st.f_bsize) & 0xffffffff) >> 10
        avail = ((st.f_bsize * st.f_bavail) & 0xffffffff) >> 10
        self.assertNotEqual(avail, st.f_bsize * st.f_bavail >> 10)
        self.assertEqual(by_dir["/run/big"], [f"{'bigdisk':<20}", str(used), str(avail), "/run/big"])
        self.assertEqual(used, 1024)

    def test_helpers_are_relayed_and_reaped(self):
        items = 8 | 64 | 256 | 512 | 1024
        started = {}

        def enough(d):
            if len(started) < 4:
                started.update(helper_pids())
            recs = records(d, allow_cut=True)
            types = {r.type for r in recs}
            marks = [r.ms for r in recs if r.type == 7 and r.flag == 1]
            # Until hearth's lines have been relayed twice between two
            # rounds: how soon its shell gets there depends on the load.
            return ({1, 11, 12, 13} <= types and len(marks) >= 3
                    and any(len(hearth_between(recs, a, b)) >= 2 for a, b in zip(marks, marks[1:])))

        data, p = montest.run_rtrace(PROBE, items, 1, enough, stderr=subprocess.PIPE)
        rc, err = finish(p)
        # (The loader complains on stderr about the device's trace library.)
        self.assertEqual(rc, 0)
        # the sampler's last word; a stand-in's own child may still print
        # its loader warning after its shell was stopped
        self.assertIn("rtrace_run returned 0, children: none\n", err, repr(err[-300:]))
        # Stopped and reaped: neither running nor a zombie.
        self.assertEqual(sorted(started), ["hearth", "iostat", "pidstat", "signalpost"])
        for pid in started.values():
            self.assertFalse(os.path.exists(f"/proc/{pid}"))

        recs = records(data, allow_cut=True)
        text = {t: b"".join(r.data for r in recs if r.type == t).decode() for t in (1, 11, 12, 13)}
        for r in recs:
            if r.type in (1, 11, 12, 13):
                self.assertEqual(r.flag, 0)
                self.assertGreater(r.length, 0)
        self.assertIn("avg-cpu:", text[1])
        self.assertIn("Device", text[1])
        self.assertRegex(text[13], r"UID\s+PID\s+%usr")
        self.assertTrue(text[11].startswith("hearth -n\nhearth tick 1\n"), text[11][:80])
        self.assertTrue(text[12].startswith("signalpost -s -r\nevent 1 button\n"), text[12][:80])
        # Rounds (file-nr) are the interval apart; helper output arrives between.
        marks = [r.ms for r in recs if r.type == 7 and r.flag == 1]
        for a, b in zip(marks, marks[1:]):
            self.assertGreaterEqual(b - a, 990)
        self.assertTrue(any(len(hearth_between(recs, a, b)) >= 2 for a, b in zip(marks, marks[1:])))

    def test_helper_arguments_and_environments(self):
        items = 64 | 256 | 512 | 1024
        seen = {}

        def enough(d):
            for name, pid in helper_pids().items():
                if name not in seen:
                    env = montest.read_file(f"/proc/{pid}/environ", "rb")
                    seen[name] = (cmdline(pid), env)
            return len(seen) == 4

        data, p = montest.run_rtrace(PROBE, items, 7, enough)
        finish(p)
        # The interval replaces iostat's third and pidstat's second argument.
        self.assertEqual(seen["iostat"], (b"/usr/bin/iostat\0-xcdk\0" + b"7\0", b""))
        self.assertEqual(seen["pidstat"], (b"/usr/bin/pidstat\0" + b"7\0", b""))
        # Scripts: the kernel puts the interpreter first.
        self.assertEqual(seen["hearth"],
                         (b"/bin/sh\0/usr/bin/hearth\0-n\0",
                          b"PIPETAP_LOG_NAME=-\0PIPETAP_SHOW=gap\0LD_PRELOAD=/tmp/libpipetap.so\0"))
        self.assertEqual(seen["signalpost"], (b"/bin/sh\0/usr/bin/signalpost\0-s\0-r\0", b""))

    def test_helper_that_cannot_start_sends_nothing(self):
        os.chmod("/usr/bin/pidstat", 0o644)
        try:
            with tempfile.TemporaryFile(dir="/tmp") as errfile:
                # Until the failed child has said so: it must reach its
                # execve before the end of the trace stops the helpers.
                def enough(d):
                    errfile.seek(0)
                    return (b"execve: Permission denied\n" in errfile.read()
                            and any(r.type == 1 for r in records(d, allow_cut=True)))
                data, p = montest.run_rtrace(PROBE, 64 | 1024, 1, enough, stderr=errfile)
                rc, _ = finish(p)
                errfile.seek(0)
                err = errfile.read().decode()
        finally:
            os.chmod("/usr/bin/pidstat", 0o755)
        self.assertEqual(rc, 0)
        self.assertIn("execve: Permission denied\n", err, f"stream types {sorted({r.type for r in records(data, allow_cut=True)})}")
        self.assertIn("rtrace_run returned 0, children: none\n", err)
        types = {r.type for r in records(data, allow_cut=True)}
        self.assertEqual(types, {1})

    def test_a_silent_trace_ends_when_the_reader_leaves(self):
        # No item: no round writes anything, so no write could fail; the
        # wait between rounds watches the connection instead, so even an
        # interval of a day ends as soon as the reader has gone.
        p = subprocess.Popen(bb.command(PROBE, "rtrace", "0", "86400"),
                             stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        p.stdout.close()
        try:
            self.assertEqual(p.wait(timeout=60), 0)
        finally:
            if p.poll() is None:
                p.kill()
                p.wait()

    def test_an_interval_of_0_waits_a_second(self):
        # 0 would run rounds back to back: the wait is one second.
        if bb.EMULATOR:
            self.skipTest("[qemu-user] strace sees the emulator's calls, not the program's")
        with tempfile.NamedTemporaryFile("r", dir="/tmp") as log:
            p = subprocess.Popen(["strace", "-qq", "-e", "trace=poll,ppoll", "-o", log.name]
                                 + bb.command(PROBE, "rtrace", "0", "0"),
                                 stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
            try:
                wait_until(lambda: re.search(r"poll\(.*\], 1, (\d+)\)", log.read() or "")
                           or (log.seek(0) and False), "the wait between rounds")
                log.seek(0)
                waits = [int(t) for t in re.findall(r"poll\(.*\], 1, (\d+)\)", log.read())]
                self.assertTrue(waits and all(900 <= t <= 1000 for t in waits), waits)
            finally:
                p.kill()
                p.wait()
                p.stdout.close()

    def test_a_negative_interval_ends_after_one_round(self):
        # An unparsable interval (-1) is no time to wait: one round (the
        # meminfo record), then the end, with or without helpers.
        p = subprocess.Popen(bb.command(PROBE, "rtrace", "16", "-1"),
                             stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        out, _ = p.communicate(timeout=60)
        self.assertEqual(p.returncode, 0)
        self.assertEqual([(r.type, r.flag) for r in montest.records(out)], [(8, 1), (8, 0)])


def main():
    global PROBE
    PROBE, argv = montest.probe_args()
    standins.install()
    unittest.main(argv=argv, verbosity=2)


if __name__ == "__main__":
    montest.enter_namespace("rtrace")
    main()
