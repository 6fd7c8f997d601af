"""Requests to the debug service in the simulated device, from clients in the
peer over the device's eth0 through the test front end: the fixed answers
byte for byte, ps, the runtime trace and its options read back from the
stream, the packet capture (judged by tshark), the live system-call trace and
what it leaves behind, core dumps of live processes (judged by gdb)."""
import os
import socket
import struct
import subprocess
import tempfile
import time
import unittest

import dbgdev
from bb import wait_until
from dbgdev import BAD_REQUEST, header

SVC = None
TMP = None


def setUpModule():
    global SVC, TMP
    SVC, TMP = dbgdev.start_service("req")


def tearDownModule():
    dbgdev.stop_service(SVC, TMP)


def device_pid(name):
    """Device pid of the (first) process of the device called name, by the
    base name of its argv[0]."""
    hp = SVC.pids_by_argv0(name)
    assert hp, name
    return SVC.device_pid(sorted(hp)[0])


def read_until(sock, cond, seconds=30):
    """Reads until cond(data) holds or the stream ends; (data, ended)."""
    sock.settimeout(1)
    data = b""
    end = time.monotonic() + seconds
    while not cond(data):
        if time.monotonic() > end:
            raise AssertionError(f"timed out; got {data[:300]!r}...")
        try:
            b = sock.recv(65536)
        except socket.timeout:
            continue
        if not b:
            return data, True
        data += b
    return data, False


def quiet_daemon():
    """Waits until the daemon is back to its main and monitor threads."""
    wait_until(lambda: SVC.threads() == SVC.base_threads, "the daemon's request threads to end", 60)


class FixedAnswers(unittest.TestCase):
    def test_unknown_commands_get_400(self):
        for q in ("cmd=nope", "cmd=", "cmd", "cmd=PS", "cmd=p", "cmd=trace", "x=1&cmd=core"):
            self.assertEqual(SVC.request("/cgi-bin/debugar.cgi?" + q), BAD_REQUEST, q)

    def test_ps(self):
        head, body = SVC.get("/cgi-bin/debugar.cgi?cmd=ps")
        self.assertEqual(head, header("text/plain", "psdump.txt"))
        lines = body.decode().splitlines()
        self.assertEqual(lines[0].split(), ["PID", "TTY", "TIME", "CMD"])
        self.assertIn("hearth", body.decode())
        self.assertIn("debugar.cgi", body.decode())

    def test_ps_by_prefix_and_percent_coding(self):
        for q in ("cmd=psx", "cmd=%70%73", "x=%26&cmd=ps&cmd=strace"):
            head, body = SVC.get("/x?" + q)
            self.assertEqual(head, header("text/plain", "psdump.txt"), q)

    def test_curl_saves_under_the_offered_name(self):
        d = tempfile.mkdtemp(dir=TMP)
        r = SVC.dev.peer_run(["sh", "-c", f"cd {d} && curl -s -O -J -w '%{{http_code}} %{{content_type}}' "
                              f"'http://{SVC.dev.ip4}:{dbgdev.PORT}/cgi-bin/debugar.cgi?cmd=ps'"])
        self.assertEqual(r.stdout, b"200 text/plain")
        self.assertEqual(os.listdir(d), ["psdump.txt"])


def rtrace_records(data):
    """(type, flag, payload) of every whole record."""
    out = []
    i = 0
    while i + 20 <= len(data):
        typ, length, ms, flag = struct.unpack_from("<IIqB", data, i)
        assert data[i + 17:i + 20] == b"\0\0\0"
        assert abs(ms / 1000 - time.time()) < 600, ms
        if i + 20 + length > len(data):
            break
        out.append((typ, flag, data[i + 20:i + 20 + length]))
        i += 20 + length
    return out


def helper_text(data, typ):
    return b"".join(p for t, _, p in rtrace_records(data) if t == typ).decode(errors="replace")


class RuntimeTrace(unittest.TestCase):
    def trace(self, query, cond, seconds=30):
        s = SVC.open_request("/x?cmd=rtrace&" + query)
        try:
            data, ended = read_until(s, lambda d: d.startswith(b"HTTP") and b"\r\n\r\n" in d
                                     and cond(dbgdev.split_response(d)[1]), seconds)
        finally:
            s.close()
        head, body = dbgdev.split_response(data)
        self.assertEqual(head, header("application/octet-stream", "rtrace"))
        return body, ended

    def test_two_options_give_their_records_only(self):
        # "meminfo, iostat": 0x50.
        body, ended = self.trace("trace=meminfo,%20iostat",
                                 lambda b: "iostat -xcdk 10" in helper_text(b, 1))
        types = {t for t, _, _ in rtrace_records(body)}
        self.assertEqual(types, {1, 8})
        meminfo = helper_text(body, 8)
        self.assertTrue(meminfo.startswith("MemTotal:"), meminfo[:40])
        self.assertFalse(ended)

    def test_unknown_option_gives_the_fast_set(self):
        # 0x67C: file-nr, meminfo, disk table, iostat, signalpost, pidstat, and
        # smapstot (absent on this kernel: skipped); no per-process blocks.
        want = {7, 8, 9, 1, 12, 13}
        body, _ = self.trace("trace=bogus",
                             lambda b: want <= {t for t, _, _ in rtrace_records(b)}
                             and "pidstat 10" in helper_text(b, 13))
        types = {t for t, _, _ in rtrace_records(body)}
        self.assertEqual(types - {6}, want)
        self.assertIn("signalpost -s -r", helper_text(body, 12))
        self.assertTrue(helper_text(body, 9).startswith("Filesystem          \tUsed\tAvail\tMounted on\n"))

    def test_default_interval_is_10(self):
        body, _ = self.trace("trace=iostat", lambda b: "\n" in helper_text(b, 1))
        self.assertTrue(helper_text(body, 1).startswith("iostat -xcdk 10\n"))

    def test_interval_as_given(self):
        body, _ = self.trace("trace=iostat,pidstat&interval=%203xyz",
                             lambda b: "\n" in helper_text(b, 1) and "\n" in helper_text(b, 13))
        self.assertTrue(helper_text(body, 1).startswith("iostat -xcdk 3\n"))
        self.assertTrue(helper_text(body, 13).startswith("pidstat 3\n"))

    def test_unparsed_interval_is_minus_1(self):
        # A negative interval makes the wait for the helpers fail at once: one
        # round, then the end (0 would go round after round, a positive
        # interval wait for the helpers).
        body, ended = self.trace("trace=meminfo,iostat&interval=abc", lambda b: False, 20)
        self.assertTrue(ended)
        self.assertEqual([(t, f) for t, f, _ in rtrace_records(body)], [(8, 1), (8, 0)])
        quiet_daemon()

    def test_client_leaving_ends_the_trace(self):
        self.trace("trace=meminfo&interval=1", lambda b: len(rtrace_records(b)) >= 2)
        quiet_daemon()
        wait_until(lambda: not [p for p in SVC.children()], "the helpers to be reaped")


def tshark_count(path, filt=""):
    r = subprocess.run(["tshark", "-n", "-r", path] + (["-Y", filt] if filt else []),
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    return len(r.stdout.splitlines())


class Capture(unittest.TestCase):
    def save(self, data):
        path = os.path.join(TMP, "cap.pcap")
        with open(path, "wb") as f:
            f.write(data)
        return path

    def test_sized_capture_leaves_out_its_own_connection(self):
        s = SVC.open_request("/x?cmd=pcapdump&duration=2&totalsize=120000")
        port = s.getsockname()[1]
        data = dbgdev.read_all(s, 60)
        s.close()
        head, body = dbgdev.split_response(data)
        self.assertEqual(head, header("application/octet-stream", "pcapdump.cap"))
        self.assertEqual(len(body), 120000)
        path = self.save(body)
        self.assertGreater(tshark_count(path, "icmp || udp.port == 5004"), 0)
        self.assertEqual(tshark_count(path, f"tcp.port == {port}"), 0)

    def test_negative_duration_means_no_time_limit(self):
        # duration -5 and no totalsize: 0 and 0, the capture runs until the
        # browser leaves (a 5-second default would have ended it).
        s = SVC.open_request("/x?cmd=pcapdump&duration=-5")
        data = b""
        t0 = time.monotonic()
        s.settimeout(1)
        while time.monotonic() - t0 < 6.5:
            try:
                b = s.recv(65536)
            except socket.timeout:
                continue
            self.assertNotEqual(b, b"", "the capture ended by itself")
            data += b
        s.close()
        head, body = dbgdev.split_response(data)
        self.assertEqual(head, header("application/octet-stream", "pcapdump.cap"))
        self.assertGreater(len(body), 24)
        self.assertEqual(struct.unpack_from("<I", body, 0)[0], 0xa1b2c3d4)
        quiet_daemon()
        flags = SVC.dev.run(["cat", "/sys/class/net/eth0/flags"]).stdout
        self.assertEqual(int(flags, 16) & 0x100, 0, "eth0 still promiscuous")


class SystemCallTrace(unittest.TestCase):
    def tracer_of(self, host_pid):
        """"daemon" when a thread of the daemon traces host_pid, else the
        tracer's id (0: none)."""
        try:
            tracer = int(dbgdev.proc_status(host_pid)["TracerPid"])
        except OSError:
            return 0   # ended since the list of processes was read
        if tracer and os.path.exists(f"/proc/{SVC.pid}/task/{tracer}"):
            return "daemon"
        return tracer

    def assert_nothing_traced(self):
        wait_until(lambda: not SVC.stopped_or_traced(), "every process detached and running")

    def test_pid_and_name(self):
        hearth = device_pid("hearth")
        s = SVC.open_request("/x?cmd=strace&pid=1,%20hearth%20")
        data, _ = read_until(s, lambda d: f"[{hearth} hearth]".encode() in d)
        head, body = dbgdev.split_response(data)
        self.assertEqual(head, header("text/plain", "stracedump.txt"))
        # init and hearth (all its threads' leader) are traced by the daemon.
        self.assertEqual(self.tracer_of(SVC.dev.init_pid), "daemon")
        self.assertEqual(self.tracer_of(SVC.host_pid(hearth)), "daemon")
        s.close()
        # The browser left: the watcher stops the trace, everything runs on.
        self.assert_nothing_traced()
        quiet_daemon()
        self.assertTrue(dbgdev.simdev.process_alive(SVC.host_pid(hearth)))

    def test_every_process_without_pid(self):
        s = SVC.open_request("/x?cmd=strace")
        read_until(s, lambda d: b"hearth]" in d)

        def traced():
            return {SVC.argv0_name(p) for p in SVC.host_pids() if self.tracer_of(p) == "daemon"}
        wait_until(lambda: {"hearth", "mediad", "storaged", "handoff-front"} <= traced(),
                 "the device's processes traced")
        self.assertNotIn("debugar.cgi", traced())
        self.assertEqual(self.tracer_of(SVC.dev.init_pid), 0, "init is left out")
        s.close()
        self.assert_nothing_traced()
        quiet_daemon()

    def test_processes_that_exit_end_the_response(self):
        p = SVC.dev.popen(["sh", "-c", "echo $$; read x; exit 3"], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE)
        pid = int(p.stdout.readline())
        s = SVC.open_request(f"/x?cmd=strace&pid={pid}")
        data, _ = read_until(s, lambda d: b"\r\n\r\n" in d)
        wait_until(lambda: self.tracer_of(SVC.host_pid(pid)) == "daemon", "the attach")
        p.stdin.write(b"go\n")
        p.stdin.close()
        data2, ended = read_until(s, lambda d: False, 30)
        s.close()
        self.assertTrue(ended, "the response ends with the traced process")
        text = (data + data2).decode(errors="replace")
        self.assertIn(f"[{pid} sh]", text)
        self.assertIn("exit_group(3", text)
        self.assertIn("open fds:", text)
        self.assertEqual(p.wait(timeout=30), 3)
        p.stdout.close()
        quiet_daemon()

    def test_unknown_targets_get_400(self):
        long_name = "x" * 40
        for q in ("pid=99999", "pid=nosuchprocess", "pid=", "pid=%20%20", "pid=-1",
                  "pid=" + long_name, "pid=,,,", "pid=1" + "0" * 30):
            self.assertEqual(SVC.request("/x?cmd=strace&" + q), BAD_REQUEST, q)

    def test_long_pieces_are_skipped(self):
        hearth = device_pid("hearth")
        s = SVC.open_request(f"/x?cmd=strace&pid={'y' * 32},{hearth},")
        read_until(s, lambda d: f"[{hearth} hearth]".encode() in d)
        s.close()
        self.assert_nothing_traced()
        quiet_daemon()

    def test_a_client_that_stops_reading_is_given_up(self):
        # A busy process traced for a browser that reads nothing: once the
        # connection is full, the tracer waits on it with every traced process
        # stopped; after the stall limit (30 s) it gives up and lets them go.
        p = SVC.dev.popen(["sh", "-c", "echo $$; while :; do :> /dev/null; done"],
                          stdout=subprocess.PIPE)
        pid = int(p.stdout.readline())
        try:
            s = SVC.connect()
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            s.sendall(f"GET /x?cmd=strace&pid={pid} HTTP/1.0\r\n\r\n".encode())
            wait_until(lambda: self.tracer_of(SVC.host_pid(pid)) == "daemon", "the attach")
            # The hang guard is well above the limit; the trace ends by itself.
            wait_until(lambda: self.tracer_of(SVC.host_pid(pid)) == 0, "the trace given up", 120)
            self.assert_nothing_traced()
            s.close()
            quiet_daemon()
        finally:
            # The busy loop itself, not only the command that entered the
            # device for it.
            SVC.dev.run(["kill", "-9", str(pid)])
            p.kill()
            p.wait()
            p.stdout.close()

    def test_second_trace_waits_for_the_first(self):
        hearth = device_pid("hearth")
        s1 = SVC.open_request(f"/x?cmd=strace&pid={hearth}")
        read_until(s1, lambda d: f"[{hearth} hearth]".encode() in d)
        s2 = SVC.open_request(f"/x?cmd=strace&pid={hearth}")
        data, _ = read_until(s2, lambda d: b"\r\n\r\n" in d)
        # Silence cannot be waited for: a trace line would come at once, so
        # 0.7 s without one shows the second trace waiting.
        time.sleep(0.5)
        s2.settimeout(0.2)
        with self.assertRaises(socket.timeout):
            more = s2.recv(100)
            self.assertEqual(more, b"")  # never reached: it stays silent
        # The waiting browser leaves first, then the first: both end.
        s2.close()
        s1.close()
        self.assert_nothing_traced()
        quiet_daemon()


class LiveCoreDump(unittest.TestCase):
    def gdb_says(self, core):
        r = subprocess.run(["gdb", "-nx", "-batch", "-c", core], capture_output=True, text=True,
                           timeout=120)
        return r.stdout + r.stderr

    def dump(self, query):
        head, body = SVC.get("/x?cmd=coredump&" + query, timeout=120)
        self.assertEqual(head, header("application/octet-stream", "core"), query)
        path = os.path.join(TMP, "core")
        with open(path, "wb") as f:
            f.write(body)
        return body, path

    def test_by_pid_and_by_name(self):
        storaged = device_pid("storaged")
        for q in (f"pid={storaged}", "pid=%20storaged%0A"):
            body, path = self.dump(q)
            self.assertEqual(body[:4], b"\x7fELF")
            self.assertEqual(struct.unpack_from("<H", body, 16)[0], 4)  # ET_CORE
            self.assertIn("Core was generated by `/usr/bin/storaged", self.gdb_says(path))

    def test_pid_0_passes_the_check(self):
        body, _ = self.dump("pid=0")
        self.assertEqual(body, b"")

    def test_refused(self):
        for q in ("pid=-5", "pid=99999", "pid=nosuch", "pid=-1", "pid=", "pid=%20",
                  f"pid={SVC.device_daemon_pid}", "pid=debugar.cgi"):
            self.assertEqual(SVC.request("/x?cmd=coredump&" + q), BAD_REQUEST, q)


if __name__ == "__main__":
    dbgdev.main()
