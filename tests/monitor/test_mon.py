"""The installed mon applet in a pid namespace of its own: the holders that
the tests start (tests/monitor/holder.py) are the only processes it sees, so
its alert lines and reports are known exactly."""
import os
import re
import signal
import subprocess
import unittest

import bb
from bb import wait_until
import montest
from montest import Holder, read_file

REPORT = "/tmp/dbg-report.txt"
PROBE = None


class Mon:
    """mon with an interval in microseconds; stderr into a file."""

    def __init__(self, interval_us):
        self.errpath = f"/tmp/mon-{os.getpid()}-{id(self)}.err"
        self.err = open(self.errpath, "wb")
        self.p = subprocess.Popen(bb.command(bb.path("bin/mon"), str(interval_us)),
                                  stdout=subprocess.PIPE, stderr=self.err)

    def stderr(self):
        return read_file(self.errpath) or ""

    def report(self):
        return read_file(REPORT)

    def round_done(self, n):
        """Waits until the report of round n or a later one is in place and
        returns its round."""
        def done():
            r = self.report()
            m = r and re.match(r"Debug monitor status round=([0-9a-f]+)\n\n", r)
            return m and int(m.group(1), 16) >= n and int(m.group(1), 16)
        return wait_until(done, f"report of round {n}")

    def more_rounds(self, n):
        """Waits until n more rounds than the one in place are done."""
        self.round_done(self.round_done(0) + n)

    def frozen(self):
        """mon held stopped while the caller changes what it watches: its
        next look at /proc sees all of the change or none of it, never a
        part."""
        return montest.frozen(self.p.pid)

    def stop(self):
        self.p.send_signal(signal.SIGINT)
        out, _ = self.p.communicate(timeout=60)
        self.err.close()
        return self.p.returncode, out, self.stderr()


def fdstats(pid, score, slots):
    """The report lines of a process: slots are (fds, sockets) per slot."""
    labels = [0, 1, 2, 3, 4, 37, 70, 103]
    text = f"fdstats for pid={pid} score={score}:\n"
    for label, (fd, sk) in zip(labels, slots):
        text += f"{label}h nr_fd={fd} nr_sock={sk} nr_pipe=0\n"
    return text


class MonTest(unittest.TestCase):
    def setUp(self):
        self.holders = []
        self.mon = None
        try:
            os.unlink(REPORT)
        except FileNotFoundError:
            pass

    def tearDown(self):
        if self.mon and self.mon.p.poll() is None:
            self.mon.p.kill()
            self.mon.p.wait()
        for h in self.holders:
            h.stop()
        wait_until(lambda: montest.reap_orphans() or montest.ns_pids() == [], "an empty namespace")

    def holder(self, name):
        h = Holder(name)
        self.holders.append(h)
        return h

    def start(self, interval_us):
        self.mon = Mon(interval_us)
        return self.mon

    def test_idle_system_report_holds_only_the_header(self):
        mon = self.start(50000)
        mon.round_done(3)
        r = wait_until(lambda: (lambda t: t if t and t.endswith("\n\n") else None)(mon.report()),
                     "a complete report")
        self.assertRegex(r, r"\ADebug monitor status round=[0-9a-f]+\n\n\Z")
        rc, out, err = mon.stop()
        self.assertEqual((rc, out, err), (0, b"", "\nCleanup and exit.\n"))

    def test_first_round_of_2100_descriptors(self):
        h = self.holder("fd2100").do("files 2100")
        mon = self.start(30_000_000)
        line = f"pid {h.pid} name fd2100 fd_score 65 [+65] sk=0\n"
        wait_until(lambda: line in mon.stderr(), "the fd_score line")
        # 2103 descriptors with 0, 1 and 2; slot 4 averages it with three
        # empty slots, unsigned.
        want = "Debug monitor status round=1\n\n" + fdstats(
            h.pid, 65, [(2103, 0), (0, 0), (0, 0), (0, 0), (525, 0), (0, 0), (0, 0), (0, 0)])
        wait_until(lambda: mon.report() == want, "the first round's report")
        rc, _, err = mon.stop()
        self.assertEqual(rc, 0)
        self.assertEqual(err, line + "\nCleanup and exit.\n")

    def test_fd_score_is_reported_again_only_above_peak_plus_32(self):
        h = self.holder("fdgrow").do("files 2100")
        mon = self.start(100_000)
        first = f"pid {h.pid} name fdgrow fd_score 65 [+65] sk=0\n"
        wait_until(lambda: first in mon.stderr(), "the first fd_score line")
        # 97 * 32 descriptors: score 97, not above 65 + 32.
        h.do(f"files {97 * 32 - 3}")
        wait_until(lambda: f"fdstats for pid={h.pid} score=97:\n" in (mon.report() or ""),
                 "score 97 in the report")
        mon.more_rounds(1)
        self.assertEqual(mon.stderr(), first)
        h.do(f"files {98 * 32 - 3}")
        second = f"pid {h.pid} name fdgrow fd_score 98 [+1] sk=0\n"
        wait_until(lambda: second in mon.stderr(), "the second fd_score line")
        rc, _, err = mon.stop()
        self.assertEqual(err, first + second + "\nCleanup and exit.\n")

    def test_sockets_weigh_an_eighth(self):
        h = self.holder("sock").do("sockets 40")
        mon = self.start(50_000)
        # Score 5: neither a line nor a report entry.
        mon.round_done(3)
        mon.more_rounds(1)
        self.assertEqual(mon.stderr(), "")
        self.assertNotIn(f"pid={h.pid}", mon.report())
        # 256 sockets: score 32 is listed but not above 0 + 32.
        h.do("sockets 256")
        wait_until(lambda: f"fdstats for pid={h.pid} score=32:\n0h nr_fd=259 nr_sock=256 nr_pipe=0\n"
                 in (mon.report() or ""), "score 32 in the report")
        self.assertEqual(mon.stderr(), "")
        h.do("sockets 264")
        line = f"pid {h.pid} name sock fd_score 33 [+1] sk=264\n"
        wait_until(lambda: line in mon.stderr(), "the fd_score line at 33")
        rc, _, err = mon.stop()
        self.assertEqual(err, line + "\nCleanup and exit.\n")

    def assert_no_fork_alert(self, mon):
        """A few whole rounds without a line or a forkstats entry."""
        mon.round_done(3)
        mon.more_rounds(1)
        self.assertEqual(mon.stderr(), "")
        self.assertNotIn("forkstats", mon.report())

    def fork_alert(self, mon, h, children, diff):
        """The holder gets that many children: its fork_score line (returned)
        and its forkstats entry follow.  The children appear all at once
        for mon: a round that saw only some of them would report another
        difference."""
        with mon.frozen():
            h.do(f"children {children}")
        line = f"pid {h.pid} name {h.name} fork_score {children} [+{diff}]\n"
        wait_until(lambda: line in mon.stderr(), f"the fork_score line at {children}")
        entry = f"forkstats for pid={h.pid}: score={children} nr_childs={children}\n"
        wait_until(lambda: entry in (mon.report() or ""), "the forkstats line")
        return line

    def test_sixteen_children(self):
        h = self.holder("kids").do("children 15")
        mon = self.start(50_000)
        self.assert_no_fork_alert(mon)
        line = self.fork_alert(mon, h, 16, 1)
        # The peak is now 16: 31 children say nothing, 32 do.
        h.do("children 31")
        wait_until(lambda: "score=31 nr_childs=31\n" in (mon.report() or ""), "31 children")
        self.assertEqual(mon.stderr(), line)
        line2 = self.fork_alert(mon, h, 32, 1)
        rc, _, err = mon.stop()
        self.assertEqual(err, line + line2 + "\nCleanup and exit.\n")

    def test_process_without_executable_needs_32_children(self):
        # With the main thread gone, the exe link cannot be read: the
        # monitor takes the process for a kernel thread.
        h = self.holder("kthr").do("comm kthr", "leader-exit", "children 16")
        wait_until(lambda: not os.path.exists(f"/proc/{h.pid}/exe"), "the main thread's end")
        mon = self.start(50_000)
        self.assert_no_fork_alert(mon)
        line = self.fork_alert(mon, h, 32, 16)
        rc, _, err = mon.stop()
        self.assertEqual(err, line + "\nCleanup and exit.\n")

    def test_reused_pid_starts_empty(self):
        h = self.holder("fdA").do("files 2100")
        mon = self.start(100_000)
        first = f"pid {h.pid} name fdA fd_score 65 [+65] sk=0\n"
        wait_until(lambda: first in mon.stderr(), "the first program's line")
        # Same pid, same descriptors, another program: zero peaks again.
        # mon is held while the new program starts: its start opens and
        # closes files, and a descriptor that vanishes under mon's count of
        # the directory makes it count again from the start, some twice.
        with mon.frozen():
            h.do("exec /holders/fdB")
        second = f"pid {h.pid} name fdB fd_score 65 [+65] sk=0\n"
        wait_until(lambda: second in mon.stderr(), "the second program's line")
        want_tail = "1h nr_fd=2103 nr_sock=0 nr_pipe=0\n"
        wait_until(lambda: want_tail in (mon.report() or ""), "a second sample of fdB")
        rc, _, err = mon.stop()
        self.assertEqual(err, first + second + "\nCleanup and exit.\n")

    def test_daemon_thread_runs_idle_into_the_daemon_report(self):
        # monitor_thread_run, as the daemon starts it, in monitor_probe.
        p = subprocess.Popen(bb.command(PROBE, "thread"), stderr=subprocess.PIPE)
        try:
            self.assertEqual(p.stderr.readline(), b"monitor thread started\n")
            path = "/var/run/dbg-cgi/dbg-monitor.txt"
            # Nothing else in this namespace: the header and an empty line.
            wait_until(lambda: read_file(path) == "Debug monitor status round=1\n\n", "the daemon's report")
            idle = []
            for tid in os.listdir(f"/proc/{p.pid}/task"):
                out = subprocess.run(["chrt", "-p", tid], stdout=subprocess.PIPE, text=True).stdout
                if "SCHED_IDLE" in out:
                    idle.append(tid)
            self.assertEqual(len(idle), 1)
            self.assertNotEqual(int(idle[0]), p.pid)
            # An hour to the next round; the thread sleeps.
            self.assertIsNone(p.poll())
            self.assertEqual(os.listdir("/var/run/dbg-cgi"), ["dbg-monitor.txt"])
        finally:
            p.kill()
            p.wait()
            p.stderr.close()

    def test_default_interval_and_report_rename(self):
        mon = Mon.__new__(Mon)
        mon.errpath = "/tmp/mon-default.err"
        mon.err = open(mon.errpath, "wb")
        mon.p = subprocess.Popen(bb.command(bb.path("bin/mon")), stdout=subprocess.PIPE, stderr=mon.err)
        self.mon = mon
        # 1000 microseconds apart: many rounds in a moment.
        mon.round_done(0x20)
        self.assertEqual(os.stat(REPORT).st_mode & 0o777, 0o600)
        rc, out, err = mon.stop()
        self.assertEqual((rc, out, err), (0, b"", "\nCleanup and exit.\n"))
        # Read once mon has ended: while it runs, the next round's temporary
        # file may already be there.  Every round renamed its own.
        self.assertEqual([n for n in os.listdir("/tmp") if n.startswith("dbg-report")],
                         ["dbg-report.txt"])


if __name__ == "__main__":
    montest.enter_namespace("mon")
    PROBE, argv = montest.probe_args()
    unittest.main(argv=argv, verbosity=2)
