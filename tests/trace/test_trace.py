"""tstrace and stopper as installed: argument scan, usage, command search,
tracing a started command and an attached pid, Ctrl-C, holding at exit."""
import functools
import os
import re
import signal
import subprocess
import sys
import unittest

import bb
from bb import wait_until

HELPER = None

TSTRACE_USAGE = (b"USAGE: tstrace [ -ppid ] [ command [ arg ... ] ]\n\n"
                 b"-p<pid>\tAdd a pid to trace, can be given multiple times.\n")
STOPPER_USAGE = (b"USAGE: stopper [ -ppid ] [ command [ arg ... ] ]\n\n"
                 b"-p<pid>\tAdd a pid to stop at exit\n")


def live(test):
    """ptrace is not available under qemu-user (known only once the
    arguments are parsed)."""
    @functools.wraps(test)
    def run(self):
        if bb.EMULATOR:
            self.skipTest("[qemu-user] qemu-user has no ptrace")
        return test(self)
    return run


status_field = bb.status_field


def waiting_for_events(pid):
    """tstrace blocked in its wait for its tracees: a SIGINT now interrupts
    that wait (sent earlier, between its look at the stop flag and the wait,
    it would only be seen at the tracee's next event)."""
    try:
        with open(f"/proc/{pid}/wchan") as f:
            return f.read() == "do_wait"
    except OSError:
        return False


def unaddress(text):
    return re.sub(rb"\] \[[0-9a-f]+ [0-9a-f]+\] ", b"] [A A] ", text)


def helper_env():
    return {"PATH": os.path.dirname(HELPER)}


class Usage(unittest.TestCase):
    def check(self, applet, args, usage):
        r = bb.run(bb.path("bin/" + applet), *args)
        self.assertEqual((r.returncode, r.stdout, r.stderr), (0, usage, b""), args)

    def test_usage_texts(self):
        for args in ([], ["-x"], ["-p"], ["-x", "-p", "5"]):
            self.check("tstrace", args, TSTRACE_USAGE)
            self.check("stopper", args, STOPPER_USAGE)

    def test_command_not_found(self):
        r = bb.run(bb.path("bin/tstrace"), "no-such-command-here")
        self.assertEqual((r.returncode, r.stdout, r.stderr), (1, b"", b""))
        r = bb.run(bb.path("bin/stopper"), "/no/such/file")
        self.assertEqual((r.returncode, r.stdout, r.stderr), (1, b"", b""))


class Tstrace(unittest.TestCase):
    def expect_calls(self, out, pid):
        t = unaddress(out)
        p = b"[%d trace_helper] [A A] " % pid
        self.assertIn(p + b'write(1 pipe:[', t)
        self.assertRegex(t, re.escape(p) + rb'write\(1 pipe:\[\d+\], "hi\\n", 3\) = 3\n')
        self.assertRegex(t, re.escape(p) + rb'write\(1 pipe:\[\d+\], "' + b"x" * 32 +
                         rb'", 100\) = 100\n')
        self.assertIn(p + b'open("/nonexistent/directory/with/a/lo", 0, 0) = -2\n', t)
        self.assertIn(p + b"nanosleep({ 0, 1000000 }, ", t)
        self.assertRegex(t, rb"connect\(\d+ socket:\[\d+\]\[127\.0\.0\.1:\d+ -> "
                            rb"127\.0\.0\.1:\d+\]\[TCP_ESTABLISHED\], 0x[0-9a-f]+, 16\) = 0\n")
        self.assertIn(b"\n[%d trace_helper] ---  SIGNAL %d SIGUSR1 ---\n\n" % (pid, signal.SIGUSR1), t)
        self.assertIn(p + b"exit_group(2)\n", t)
        self.assertEqual(len(re.findall(rb"\n\[%d trace_helper\] \d+ open fds:\n0\t" % pid, t)), 2, t)

    @live
    def test_started_command(self):
        r = bb.run(bb.path("bin/tstrace"), "trace_helper", "calls", env=helper_env())
        self.assertEqual(r.returncode, 0, r.stderr)
        m = re.search(rb"\[(\d+) trace_helper\]", r.stdout)
        self.assertTrue(m, r.stdout)
        self.expect_calls(r.stdout, int(m.group(1)))
        self.assertIn(b"hi\n", r.stdout)

    @live
    def test_attached_pid(self):
        h = subprocess.Popen(["trace_helper", "wait-calls"], executable=HELPER,
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        t = subprocess.Popen(bb.command(bb.path("bin/tstrace"), "-p", str(h.pid), "ls"),
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        wait_until(lambda: status_field(h.pid, "TracerPid") == str(t.pid), "tstrace attached")
        h.stdin.write(b"g")
        h.stdin.close()
        out, err = t.communicate(timeout=30)
        self.assertEqual(h.wait(timeout=10), 2)
        h.stdout.close()
        self.assertEqual(t.returncode, 0, err)
        self.expect_calls(out, h.pid)
        # The command after the pid is ignored: every traced line and listing
        # belongs to the attached process, and nothing else wrote here.
        prefixes = set(re.findall(rb"^\[(\d+) ([^\]]*)\]", out, re.M))
        self.assertEqual(prefixes, {(b"%d" % h.pid, b"trace_helper")}, out)
        lines = [l for l in out.split(b"\n") if l and not l.startswith(b"[")]
        fd_lines = [l for l in lines if re.match(rb"^\d+\t", l)]
        self.assertEqual(lines, fd_lines, out)

    @live
    def test_pid_in_other_bases(self):
        h = subprocess.Popen(["trace_helper", "idle"], executable=HELPER)
        try:
            # A trailing -p without a pid ends the scan.
            t = subprocess.Popen(bb.command(bb.path("bin/tstrace"), "-p", hex(h.pid), "-p"),
                                 stdout=subprocess.PIPE)
            wait_until(lambda: status_field(h.pid, "TracerPid") == str(t.pid), "tstrace attached")
            t.send_signal(signal.SIGINT)
            t.communicate(timeout=30)
            self.assertEqual(t.returncode, 0)
        finally:
            h.kill()
            h.wait()

    @live
    def test_fallback_path_list(self):
        r = bb.run(bb.path("bin/tstrace"), "true", env={})
        self.assertEqual(r.returncode, 0)
        self.assertIn(b"exit_group(0)\n", unaddress(r.stdout))

    @live
    def test_relative_command(self):
        r = bb.run(bb.path("bin/tstrace"), "./trace_helper", "calls",
                   cwd=os.path.dirname(HELPER), env={})
        self.assertEqual(r.returncode, 0)
        self.assertIn(b"exit_group(2)\n", unaddress(r.stdout))

    @live
    def test_ctrl_c_detaches_attached_process(self):
        h = subprocess.Popen(["trace_helper", "idle"], executable=HELPER)
        try:
            t = subprocess.Popen(bb.command(bb.path("bin/tstrace"), "-p", str(h.pid)),
                                 stdout=subprocess.PIPE)
            wait_until(lambda: status_field(h.pid, "TracerPid") == str(t.pid), "tstrace attached")
            # Attached and resumed: back in its pause.
            wait_until(lambda: (status_field(h.pid, "State") or "?")[0] == "S", "the helper back in its pause")
            wait_until(lambda: waiting_for_events(t.pid), "tstrace waiting for events")
            t.send_signal(signal.SIGINT)
            t.communicate(timeout=30)
            self.assertEqual(t.returncode, 0)
            self.assertEqual(status_field(h.pid, "TracerPid"), "0")
            wait_until(lambda: status_field(h.pid, "State")[0] == "S", "the helper back in its pause")
            self.assertIsNone(h.poll())
        finally:
            h.kill()
            h.wait()

    @live
    def test_ctrl_c_interrupts_started_command(self):
        t = subprocess.Popen(bb.command(bb.path("bin/tstrace"), "trace_helper", "idle"),
                             env=helper_env(), stdout=subprocess.PIPE)
        wait_until(lambda: bb.children(t.pid), "the started command")
        child = bb.children(t.pid)[0]
        # Traced and run up to its pause: the program itself, not the fork
        # before the exec (which may sleep too).
        wait_until(lambda: status_field(child, "Name") == "trace_helper"
                   and (status_field(child, "State") or "?")[0] == "S", "the command in its pause")
        wait_until(lambda: waiting_for_events(t.pid), "tstrace waiting for events")
        t.send_signal(signal.SIGINT)
        out, _ = t.communicate(timeout=30)
        self.assertEqual(t.returncode, 0)
        self.assertIsNone(status_field(child, "State"))  # got SIGINT and was reaped
        self.assertIn(b"[%d trace_helper]" % child, out)


class Stopper(unittest.TestCase):
    @live
    def test_holds_process_at_exit(self):
        s = subprocess.Popen(bb.command(bb.path("bin/stopper"), "trace_helper", "exit1"),
                             env=helper_env(), stdout=subprocess.PIPE)
        wait_until(lambda: bb.children(s.pid), "the started command")
        child = bb.children(s.pid)[0]
        lines = [s.stdout.readline(), s.stdout.readline()]
        self.assertEqual(lines, [b"stopper: Trapped pid=%d exit code 1\n" % child,
                                 b"stopper: Trapped pid=%d exit code 256\n" % child])
        # Both lines came while it is held in its exit.
        self.assertEqual(status_field(child, "State")[0], "t")
        self.assertIsNone(s.poll())
        s.send_signal(signal.SIGINT)
        rest, _ = s.communicate(timeout=30)
        self.assertEqual(s.returncode, 0)
        self.assertEqual(rest, b"")
        self.assertIsNone(status_field(child, "State"))


if __name__ == "__main__":
    argv = list(sys.argv)
    if "--helper" in argv:
        i = argv.index("--helper")
        HELPER = os.path.abspath(argv[i + 1])
        del argv[i:i + 2]
    sys.argv = argv
    bb.main()
