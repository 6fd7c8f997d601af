"""debugar.cgi as a daemon in the simulated device: options and start-up, its
two control sockets, malformed control datagrams, core dumps pushed from the
crash socket and the dump directory to a listening browser.  Browsers are
curl and Python sockets in the peer, over the device's eth0; crash
connections and raw control datagrams come straight through the device's
socket files; syslog lines arrive at the device's /dev/log."""
import os
import socket
import subprocess
import threading
import time
import unittest

import dbgdev
from bb import wait_until
from dbgdev import BAD_REQUEST, INTERNAL_ERROR


USAGE = (b"dbg-cgi 0.1\ndbg-cgi [options] [pids...]\n\n"
         b"-d\tdump tar archive with core-files for pids to stdout.\n"
         b"-t\tonly tar the archive.\n-i\tignore pid\n"
         b"-p\tprogram to create coredumps [/usr/bin/memsnap]\n"
         b"-c\tcgi control socket name [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
         b"-s\tsegfault control socket name [/var/run/dbg-cgi/ctrl-segf-socket]\n"
         b"-h\thelp\n")
LOG_ERR_DAEMON = 3 * 8 + 3


class Service(unittest.TestCase):
    """One device for the whole class; each test starts its own daemon."""

    @classmethod
    def setUpClass(cls):
        cls.svc, cls.tmp = dbgdev.start_service("dmn", start=False)

    @classmethod
    def tearDownClass(cls):
        dbgdev.stop_service(cls.svc, cls.tmp)

    def setUp(self):
        self.svc.syslog.clear()

    def tearDown(self):
        self.svc.stop_daemon()
        for name in os.listdir(self.svc.path(dbgdev.DUMP_DIR)):
            path = self.svc.path(dbgdev.DUMP_DIR + "/" + name)
            (os.rmdir if os.path.isdir(path) else os.unlink)(path)

    def start(self, *args):
        return self.svc.start_daemon(args)

    def listen_curl(self, query="listen", out="listener.out", wait=True):
        """curl in the peer registering as listener; returns (Popen, output
        file, header file).  Waits until the daemon holds its connection
        (unless a stored dump will be sent to it at once)."""
        before = len(self.svc.tcp_connections())
        out = os.path.join(self.tmp, out)
        hdr = out + ".hdr"
        for f in (out, hdr):
            if os.path.exists(f):
                os.unlink(f)
        p = self.svc.dev.peer_popen(["curl", "-s", "-o", out, "-D", hdr,
                                     f"http://{self.svc.dev.ip4}:{dbgdev.PORT}/cgi/x?{query}"])
        if wait:
            self.svc.listener_count_wait(before)
        return p, out, hdr

    def push_crash(self, data, listener=True):
        c = self.svc.crash_connect()
        try:
            c.sendall(data)
        except (BrokenPipeError, ConnectionResetError):
            # Without a listener the daemon may close it before it is sent.
            if listener:
                raise
        c.close()


class StartUp(Service):
    def test_usage_for_h_and_unknown_options(self):
        for args, err in ((["-h"], b""), (["-n", "-h", "-d"], b""),
                          (["-x"], b"debugar.cgi: invalid option -- 'x'\n")):
            r = self.svc.dev.run(["debugar.cgi", *args])
            self.assertEqual((r.returncode, r.stdout, r.stderr), (1, USAGE, err), args)
        # Nothing is left running.
        self.assertEqual(self.svc.pids_named("debugar.cgi"), [])

    def test_detaches_and_sets_up(self):
        r = self.start()
        self.assertEqual((r.stdout, r.stderr), (b"", b""))
        pid = self.svc.pid
        st = dbgdev.proc_status(pid)
        # daemon(0, 0): a session of its own, cwd /, standard descriptors on /dev/null.
        with open(f"/proc/{pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        self.assertEqual(int(fields[3]), pid, "session leader")
        self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
        fds = self.svc.fds()
        for n in (0, 1, 2):
            self.assertEqual(fds[n], "/dev/null")
        # SIGPIPE and SIGALRM ignored.
        ign = int(st["SigIgn"], 16)
        for sig in (13, 14):
            self.assertTrue(ign & (1 << (sig - 1)), sig)
        # The CGI socket: a datagram socket for everybody (0666); the crash
        # socket a stream socket with a backlog of 2.
        cgi = os.stat(self.svc.path(dbgdev.CGI_SOCKET))
        self.assertTrue(cgi.st_mode & 0o170000 == 0o140000)
        self.assertEqual(cgi.st_mode & 0o777, 0o666)
        ss = subprocess.run(["nsenter", "-t", str(self.svc.dev.init_pid), "-n", "ss", "-xlH"],
                            capture_output=True, text=True, check=True).stdout
        lines = {ln.split()[4]: ln.split() for ln in ss.splitlines() if "dbg-cgi" in ln}
        self.assertEqual(lines[dbgdev.CGI_SOCKET][:2], ["u_dgr", "UNCONN"])
        self.assertEqual(lines[dbgdev.SEGF_SOCKET][:2], ["u_str", "LISTEN"])
        self.assertEqual(lines[dbgdev.SEGF_SOCKET][3], "2")
        # The monitor thread: idle scheduling class, its report in the run directory.
        policies = []
        for tid in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{tid}/stat") as f:
                policies.append(int(f.read().rsplit(")", 1)[1].split()[38]))
        # SCHED_IDLE for the monitor, SCHED_OTHER for the main thread (and a
        # sanitizer's own thread).
        self.assertEqual(policies.count(5), 1, policies)
        self.assertEqual(set(policies), {0, 5})
        report = self.svc.path("/var/run/dbg-cgi/dbg-monitor.txt")
        def report_written():
            # (Not there before the thread's first round has renamed it in.)
            try:
                with open(report, "rb") as f:
                    return f.read().startswith(b"Debug monitor status round=1\n\n")
            except FileNotFoundError:
                return False
        wait_until(report_written, "the monitor's first report")

    def test_stale_socket_files_are_replaced(self):
        for p in (dbgdev.CGI_SOCKET, dbgdev.SEGF_SOCKET):
            if os.path.exists(self.svc.path(p)):
                os.unlink(self.svc.path(p))
            with open(self.svc.path(p), "w") as f:
                f.write("stale\n")
        self.start()
        for p in (dbgdev.CGI_SOCKET, dbgdev.SEGF_SOCKET):
            self.assertEqual(os.stat(self.svc.path(p)).st_mode & 0o170000, 0o140000, p)
        head, body = self.svc.get("/x?cmd=ps")
        self.assertEqual(head, dbgdev.header("text/plain", "psdump.txt"))
        self.push_crash(b"x", listener=False)  # the crash socket takes connections
        self.svc.sync()

    def test_socket_paths_from_options(self):
        self.start("-c", "/tmp/cgi.sock", "-s", "/tmp/segf.sock", "extra", "pids")
        self.assertTrue(os.path.exists(self.svc.path("/tmp/cgi.sock")))
        a, b = socket.socketpair()
        self.svc.handoff(b"/x\0cmd=nope\0", [b.fileno()], path="/tmp/cgi.sock")
        b.close()
        self.assertEqual(dbgdev.read_all(a), BAD_REQUEST)
        a.close()
        c = self.svc.crash_connect("/tmp/segf.sock")
        c.close()

    def test_ignored_pid_and_dump_directory_from_options(self):
        storaged = self.svc.pids_by_argv0("storaged")[0]
        os.makedirs(self.svc.path("/tmp/mydumps"), exist_ok=True)
        with open(self.svc.path("/tmp/mydumps/core.a.1"), "wb") as f:
            f.write(b"stored elsewhere")
        self.start("-i", hex(self.svc.device_pid(storaged)), "-k", "/tmp/mydumps")
        # -i: a trace of every process leaves that one out.
        s = self.svc.open_request("/x?cmd=strace")
        hearth = self.svc.pids_by_argv0("hearth")[0]

        def tracer(p):
            return int(dbgdev.proc_status(p)["TracerPid"])
        wait_until(lambda: tracer(hearth), "hearth traced")
        self.assertEqual(tracer(storaged), 0)
        s.close()
        wait_until(lambda: not self.svc.stopped_or_traced(), "everything detached")
        # -k: the stored dump is taken from there.
        p, out, hdr = self.listen_curl("listen", "k.out", wait=False)
        p.wait(timeout=60)
        with open(out, "rb") as f:
            self.assertEqual(f.read(), b"stored elsewhere")
        self.assertFalse(os.path.exists(self.svc.path("/tmp/mydumps/core.a.1")))

    def test_cgi_socket_that_cannot_be_made(self):
        r = self.svc.dev.run(["debugar.cgi", "-n", "-c", "/nonexistent/cgi"], timeout=30)
        self.assertEqual((r.returncode, r.stdout, r.stderr), (1, b"", b""))
        wait_until(lambda: self.svc.syslog.messages(), "the syslog line")
        self.assertIn((LOG_ERR_DAEMON, "Could not open /nonexistent/cgi: No such file or directory"),
                      [(p, t) for p, _, t in self.svc.syslog.messages()])

    def test_crash_socket_that_cannot_be_bound(self):
        r = self.svc.dev.run(["debugar.cgi", "-n", "-c", "/tmp/c2", "-s", "/nonexistent/segf"],
                             timeout=30)
        self.assertEqual((r.returncode, r.stdout, r.stderr), (1, b"", b""))
        wait_until(lambda: any("segf" in t for t in self.svc.syslog.texts()), "the syslog line")
        self.assertIn((LOG_ERR_DAEMON, "Could not open /nonexistent/segf: No such file or directory"),
                      [(p, t) for p, _, t in self.svc.syslog.messages()])

    def test_daemon_that_cannot_detach(self):
        # No process may be started: daemon() fails, perror says so.
        # (The leak checker of a sanitizer build cannot start threads either.)
        r = self.svc.dev.run(["prlimit", "--nproc=1", "setpriv", "--reuid=65534", "--regid=65534",
                              "--clear-groups", "debugar.cgi", "-c", "/tmp/c3", "-s", "/tmp/s3"],
                             env={"ASAN_OPTIONS": "detect_leaks=0"})
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stderr, b"daemon\n: Resource temporarily unavailable\n")
        self.assertFalse(os.path.exists(self.svc.path("/tmp/c3")))


class ControlDatagrams(Service):
    def setUp(self):
        super().setUp()
        self.start()
        self.base = self.settled()

    def stats(self):
        st = self.svc.stats()
        del st["rss_kib"]
        return st

    def settled(self):
        """The daemon's counts once its main thread has handled everything
        and it has only its own threads and no child."""
        self.svc.sync()
        wait_until(self.svc.idle, "the daemon idle")
        # The monitor thread's first round opens files of its own: the base
        # is taken once that round is over (its report in place and no
        # descriptor on it left), not in the middle of it.
        report = self.svc.path("/var/run/dbg-cgi/dbg-monitor.txt")
        wait_until(lambda: os.path.exists(report)
                   and not any("dbg-monitor" in t for t in self.svc.fds().values()),
                   "the monitor's first round over")
        return self.stats()

    def assert_back_to_base(self):
        wait_until(lambda: self.stats() == self.base, f"counts back to {self.base}")

    def pair(self):
        a, b = socket.socketpair()
        a.settimeout(30)
        return a, b

    def assert_closed_silently(self, a):
        self.assertEqual(dbgdev.read_all(a), b"")
        a.close()

    def test_datagram_without_descriptor_is_ignored(self):
        self.svc.handoff(b"/x\0cmd=ps\0")
        self.svc.sync()
        self.assertTrue(self.svc.alive())
        self.assert_back_to_base()

    def test_datagram_with_two_descriptors_closes_both(self):
        a1, b1 = self.pair()
        a2, b2 = self.pair()
        self.svc.handoff(b"/x\0cmd=ps\0", [b1.fileno(), b2.fileno()])
        b1.close()
        b2.close()
        self.assert_closed_silently(a1)
        self.assert_closed_silently(a2)
        self.svc.sync()
        self.assert_back_to_base()

    def test_truncated_datagram_closes_its_descriptor(self):
        a, b = self.pair()
        self.svc.handoff(b"/x\0cmd=ps&pad=" + b"y" * 5000 + b"\0", [b.fileno()])
        b.close()
        self.assert_closed_silently(a)
        # 4095 bytes still fit.
        msg = b"/x\0cmd=ps&pad="
        msg += b"y" * (4094 - len(msg)) + b"\0"
        self.assertEqual(len(msg), 4095)
        a, b = self.pair()
        self.svc.handoff(msg, [b.fileno()])
        b.close()
        head, body = dbgdev.split_response(dbgdev.read_all(a))
        a.close()
        self.assertEqual(head, dbgdev.header("text/plain", "psdump.txt"))
        self.assertIn(b"PID", body)

    def test_empty_datagram_closes_its_descriptor(self):
        a, b = self.pair()
        self.svc.handoff(b"", [b.fileno()])
        b.close()
        self.assert_closed_silently(a)
        self.svc.sync()
        self.assert_back_to_base()

    def test_message_without_end_of_path_gets_500(self):
        for msg in (b"/x/debug.tgz", b"/x?cmd=ps"):
            a, b = self.pair()
            self.svc.handoff(msg, [b.fileno()])
            b.close()
            self.assertEqual(dbgdev.read_all(a), INTERNAL_ERROR, msg)
            a.close()

    def test_path_without_slash_gets_500(self):
        a, b = self.pair()
        self.svc.handoff(b"debug.tgz\0\0", [b.fileno()])
        b.close()
        self.assertEqual(dbgdev.read_all(a), INTERNAL_ERROR)
        a.close()

    def test_query_without_terminator(self):
        a, b = self.pair()
        self.svc.handoff(b"/x\0cmd=nope", [b.fileno()])
        b.close()
        self.assertEqual(dbgdev.read_all(a), BAD_REQUEST)
        a.close()

    def test_no_descriptor_left_behind(self):
        self.svc.sync()
        self.assert_back_to_base()
        self.assertEqual(self.svc.syslog.texts(), [])


class Push(Service):
    def dump_file(self, name, size):
        data = os.urandom(size)
        with open(self.svc.path(dbgdev.DUMP_DIR + "/" + name), "wb") as f:
            f.write(data)
        return data

    def finish(self, p, out, hdr, timeout=60):
        p.wait(timeout=timeout)
        with open(hdr, "rb") as f:
            h = f.read()
        body = b""
        if os.path.exists(out):
            with open(out, "rb") as f:
                body = f.read()
        return p.returncode, h, body

    def test_crash_connection_goes_to_the_listener_as_core(self):
        self.start()
        p, out, hdr = self.listen_curl("listen")
        data = os.urandom(300000)
        self.push_crash(data)
        rc, h, body = self.finish(p, out, hdr)
        self.assertEqual(rc, 0)
        self.assertEqual(h, dbgdev.header("application/octet-stream", "core"))
        self.assertEqual(body, data)
        self.svc.sync()
        self.assertEqual(self.svc.syslog.texts(), [])

    def test_crash_connection_without_listener_is_closed_unread(self):
        self.start()
        base = self.svc.stats()
        del base["rss_kib"]
        c = self.svc.crash_connect()
        c.settimeout(30)
        # Closed with the bytes still unread on its side: a reset, not an end
        # (or, closed before they were sent, a broken pipe).
        with self.assertRaises((ConnectionResetError, BrokenPipeError)):
            c.sendall(b"core bytes" * 100)
            c.recv(10)
        c.close()
        self.svc.sync()
        self.assertTrue(self.svc.alive())
        self.assertEqual(self.svc.syslog.texts(), [])
        wait_until(lambda: {k: v for k, v in self.svc.stats().items() if k != "rss_kib"} == base,
                 "the daemon's counts back to before")

    def test_coredump_without_pid_waits_until_replaced(self):
        self.start()
        p1, out1, hdr1 = self.listen_curl("cmd=coredump", "l1.out")
        # That nothing comes cannot be waited for: an answer would come at
        # once, so 0.3 s of silence shows the listener waiting.
        time.sleep(0.3)
        self.assertIsNone(p1.poll(), "the listener waits silently")
        # Another listener replaces it; the first is closed without a byte
        # (curl's empty reply).
        out2 = os.path.join(self.tmp, "l2.out")
        hdr2 = out2 + ".hdr"
        p2 = self.svc.dev.peer_popen(["curl", "-s", "-o", out2, "-D", hdr2,
                                      f"http://{self.svc.dev.ip4}:{dbgdev.PORT}/cgi/x?listenXYZ"])
        p1.wait(timeout=30)
        self.assertEqual(p1.returncode, 52)
        with open(hdr1, "rb") as f:
            self.assertEqual(f.read(), b"")
        data = os.urandom(5000)
        self.push_crash(data)
        rc, h, body = self.finish(p2, out2, hdr2)
        self.assertEqual((rc, h, body), (0, dbgdev.header("application/octet-stream", "core"), data))

    def test_two_stored_dumps_one_per_listener(self):
        dumps = {"core.hearth.17": self.dump_file("core.hearth.17", 70000),
                 "core.mediad.4": self.dump_file("core.mediad.4", 140000)}
        self.start()
        # A pass without listener: the first dump stays and is logged.
        self.svc.sync()
        wait_until(lambda: self.svc.syslog.texts(), "the syslog line")
        first = self.svc.syslog.messages()[0]
        self.assertEqual(first[0], LOG_ERR_DAEMON)
        self.assertIn(first[2], ["Failed to send dump: " + n for n in dumps])
        got = {}
        for i in range(2):
            p, out, hdr = self.listen_curl("listen", f"d{i}.out", wait=False)
            rc, h, body = self.finish(p, out, hdr)
            self.assertEqual(rc, 0)
            name = h.split(b'filename="')[1].split(b'"')[0].decode()
            self.assertEqual(h, dbgdev.header("application/octet-stream", name))
            got[name] = body
            self.assertFalse(os.path.exists(self.svc.path(dbgdev.DUMP_DIR + "/" + name)))
        self.assertEqual(got, dumps)
        # Nothing more to send: a third listener waits for a crash.
        p, out, hdr = self.listen_curl("listen", "d3.out")
        self.svc.sync()
        self.assertIsNone(p.poll())
        self.push_crash(b"late core")
        self.assertEqual(self.finish(p, out, hdr)[2], b"late core")

    def test_a_fifo_and_a_directory_among_the_dumps_are_passed_over(self):
        d = self.svc.path(dbgdev.DUMP_DIR)
        # The FIFO and the directory must be listed before the dump: made
        # first or last, as this file system lists new entries.
        for probe in ("p1", "p2"):
            open(d + "/" + probe, "w").close()
        newest_first = os.listdir(d).index("p2") < os.listdir(d).index("p1")
        os.unlink(d + "/p1")
        os.unlink(d + "/p2")
        if newest_first:
            data = self.dump_file("core.z.3", 3000)
        os.mkfifo(d + "/a.fifo")
        os.mkdir(d + "/b.dir")
        if not newest_first:
            data = self.dump_file("core.z.3", 3000)
        names = os.listdir(d)
        self.assertLess(min(names.index("a.fifo"), names.index("b.dir")), names.index("core.z.3"),
                        "the directory lists something else before the dump")
        self.start()
        # Neither the FIFO (which would hold the daemon in open) nor the
        # directory (an empty download) is offered: the dump behind them is.
        p, out, hdr = self.listen_curl("listen", wait=False)
        rc, h, body = self.finish(p, out, hdr)
        self.assertEqual((rc, h, body), (0, dbgdev.header("application/octet-stream", "core.z.3"), data))
        head, _ = self.svc.get("/x?cmd=ps")
        self.assertEqual(head, dbgdev.header("text/plain", "psdump.txt"))
        self.assertEqual(sorted(os.listdir(d)), ["a.fifo", "b.dir"])
        os.unlink(d + "/a.fifo")
        os.rmdir(d + "/b.dir")

    def test_dump_directory_empty_at_first_look_is_never_scanned_again(self):
        self.start()
        self.svc.sync()  # the first look: empty
        data = self.dump_file("core.late.9", 1000)
        p, out, hdr = self.listen_curl("listen")
        self.svc.sync()
        self.svc.sync()
        self.assertIsNone(p.poll(), "the stored dump must not be forwarded")
        self.assertTrue(os.path.exists(self.svc.path(dbgdev.DUMP_DIR + "/core.late.9")))
        self.assertEqual(self.svc.syslog.texts(), [])
        self.push_crash(b"crash")
        self.assertEqual(self.finish(p, out, hdr)[2], b"crash")
        self.assertEqual(len(data), 1000)

    def test_a_listener_that_takes_nothing_is_given_up_after_the_stall_limit(self):
        self.start()
        # The listener's browser holds its connection open and reads nothing;
        # it hands the daemon a non-blocking descriptor, which must not make
        # the daemon spin.
        a, b = socket.socketpair()
        a.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        b.setblocking(False)
        listener = f"socket:[{os.fstat(b.fileno()).st_ino}]"
        self.svc.handoff(b"/x\0listen\0", [b.fileno()])
        b.close()
        self.svc.sync()
        self.assertIn(listener, self.svc.fds().values())
        # 8 MiB of crash core: far more than the connection holds.
        pusher = threading.Thread(target=self.push_crash, args=(b"c" * (8 << 20),), daemon=True)
        pusher.start()
        try:
            # The daemon gives up on the listener after the stall limit (30 s)
            # and answers again; the wait's bound is only a hang guard.
            head, _ = self.svc.get("/x?cmd=ps", timeout=120)
            self.assertEqual(head, dbgdev.header("text/plain", "psdump.txt"))
            wait_until(lambda: listener not in self.svc.fds().values(), "the listener closed", 120)
            # It had something: the header and what its buffers hold.
            got = a.recv(1 << 20, socket.MSG_DONTWAIT)
            self.assertTrue(got.startswith(b"HTTP/1.0 200 OK\r\n"), got[:100])
        finally:
            a.close()
            pusher.join(120)
        self.assertFalse(pusher.is_alive())

    def test_push_to_a_closed_listener_fails_and_frees_the_slot(self):
        self.dump_file("core.x.1", 100000)
        self.start()
        # The listener's browser has gone before the dump goes out.
        a, b = socket.socketpair()
        listener = f"socket:[{os.fstat(b.fileno()).st_ino}]"
        a.close()
        self.svc.handoff(b"/x\0listen\0", [b.fileno()])
        b.close()
        self.svc.sync()
        wait_until(lambda: self.svc.syslog.texts(), "the syslog line")
        self.assertEqual(self.svc.syslog.texts()[0], "Failed to send dump: core.x.1")
        self.assertNotIn(listener, self.svc.fds().values(), "the listener connection is closed")
        self.assertTrue(os.path.exists(self.svc.path(dbgdev.DUMP_DIR + "/core.x.1")))
        # Still offered: the next listener gets it.
        p, out, hdr = self.listen_curl("listen", wait=False)
        rc, h, body = self.finish(p, out, hdr)
        self.assertEqual(h, dbgdev.header("application/octet-stream", "core.x.1"))
        self.assertEqual(len(body), 100000)


if __name__ == "__main__":
    dbgdev.main()
