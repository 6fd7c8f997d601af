"""coredump-handler as the kernel runs it, on the simulated device: the core
on standard input, the configuration in /etc/conf.d/debugar.cgi, syslog read
from the device's /dev/log (a socket this test binds), uploads to a real FTP
server (pyftpdlib) on the device's 127.0.0.1 and hand-overs to a stand-in for
the debug service at the crash socket."""
import hashlib
import os
import subprocess
import threading
import time
import unittest

import bb
import devpaths
import simdev

HANDLER = "/usr/bin/coredump-handler"
SOCKET = "/var/run/dbg-cgi/ctrl-segf-socket"
CONFIG = "/etc/conf.d/debugar.cgi"
IDENT = "coredump-handler: "
# LOG_USER (no openlog) with LOG_ERR, LOG_WARNING, LOG_INFO.
ERR, WARNING, INFO = 8 + 3, 8 + 4, 8 + 6
PAGE = os.sysconf("SC_PAGESIZE")
CONNECT_FAILED = f"connect to {SOCKET} failed\n".encode()


def core_bytes(size, seed=1):
    """Stand-in core: an ELF-like head and a pattern that shows any shift."""
    head = b"\x7fELF" + bytes([seed & 0xff]) * 12
    body = bytes((i * 131 + seed) & 0xff for i in range(min(size, 1 << 16)))
    reps = (size // len(body)) + 1 if body else 0
    return (head + body * reps)[:size]


def describe(x):
    if isinstance(x, (bytes, bytearray)):
        return f"{len(x)} bytes {hashlib.sha256(x).hexdigest()[:12]}"
    if isinstance(x, list):
        return "[" + ", ".join(describe(i) for i in x) + "]"
    return repr(x)


class Result:
    def __init__(self, rc, out, err, logs, unread, seconds):
        self.rc, self.out, self.err = rc, out, err
        self.logs, self.unread, self.seconds = logs, unread, seconds

    def __repr__(self):
        return (f"rc={self.rc} out={self.out!r} err={self.err!r} logs={self.logs} "
                f"unread={len(self.unread)}")


class HandlerTest(unittest.TestCase):
    dev = None

    @classmethod
    def setUpClass(cls):
        cls.dev = simdev.Device(prefix=bb.PREFIX)
        cls.syslog = devpaths.Syslog(cls.dev)
        cls.config_path = cls.dev.host_path(CONFIG)

    @classmethod
    def tearDownClass(cls):
        cls.syslog.close()
        cls.dev.stop()

    def setUp(self):
        self.set_config(None)
        sock = self.dev.host_path(SOCKET)
        if os.path.lexists(sock):
            os.unlink(sock)
        self.syslog.take()
        self.cleanups = []

    def tearDown(self):
        for fn in reversed(self.cleanups):
            fn()

    def set_config(self, text):
        if os.path.isdir(self.config_path):
            os.rmdir(self.config_path)
        elif os.path.lexists(self.config_path):
            os.unlink(self.config_path)
        if text is not None:
            with open(self.config_path, "w") as f:
                f.write(text)

    def ftp_server(self, **kw):
        server = devpaths.FtpServer(self.dev, **kw)
        self.cleanups.append(server.stop)
        return server

    def stand_in(self, **kw):
        s = devpaths.CrashSocketStandIn(self.dev, **kw)

        def done():
            s.close()
            self.assertEqual(s.errors, [])
        self.cleanups.append(done)
        return s

    def start(self, args, core):
        """Starts the handler with core on a pipe as standard input.  Returns
        (process, read end kept by the test, writer thread)."""
        r, w = os.pipe()

        def feed():
            try:
                os.write(w, core) if len(core) < 4096 else self._write_all(w, core)
            except BrokenPipeError:
                pass
            finally:
                os.close(w)

        writer = threading.Thread(target=feed, daemon=True)
        writer.start()
        p = self.dev.popen(bb.command(HANDLER, *args), stdin=r,
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return p, r, writer

    @staticmethod
    def _write_all(fd, data):
        view = memoryview(data)
        while view:
            n = os.write(fd, view)
            view = view[n:]

    def finish(self, p, r, writer, started, timeout=60):
        try:
            out, err = p.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.dev.kill(p)
            p.communicate()
            raise
        seconds = time.monotonic() - started
        # What the handler left in the pipe: the test's own read end drains it.
        unread = bytearray()
        os.set_blocking(r, False)
        while True:
            try:
                chunk = os.read(r, 1 << 16)
            except BlockingIOError:
                if not writer.is_alive():
                    break
                time.sleep(0.001)  # the writer thread may still fill the pipe
                continue
            if not chunk:
                break
            unread += chunk
        writer.join()
        os.close(r)
        return Result(p.returncode, out, err, self.syslog.take(), bytes(unread), seconds)

    def handler(self, *args, core=b"", timeout=60):
        started = time.monotonic()
        p, r, writer = self.start(args, core)
        return self.finish(p, r, writer, started, timeout)

    def assertBytes(self, got, want, what="data"):
        """Equality of byte strings (or lists of them) without printing megabytes."""
        if got == want:
            return
        self.fail(f"{what}: got {describe(got)}, want {describe(want)}")

    def assertLogs_(self, res, *lines):
        self.assertEqual(res.logs, [(pri, IDENT + text) for pri, text in lines], res)


class Arguments(HandlerTest):
    """Argument checks: each logs at LOG_ERR, exits 1 and leaves the core unread."""

    CORE = core_bytes(3000)

    def refused(self, args, message):
        res = self.handler(*args, core=self.CORE)
        self.assertEqual((res.rc, res.out, res.err), (1, b"", b""), res)
        self.assertLogs_(res, (ERR, message))
        self.assertBytes(res.unread, self.CORE, "left in the pipe")

    def test_three_or_four_arguments(self):
        self.refused(["prog.core", "4096"], "wrong number of arguments")
        self.refused(["prog.core", "4096", "!usr!bin!prog"], "wrong number of arguments")

    def test_empty_name_first(self):
        self.refused(["prog.core", "4096", "!usr!bin!prog", ""], "executable name argument missing")
        # Checked before the others.
        self.refused(["prog.core", "", "", ""], "executable name argument missing")

    def test_empty_path(self):
        self.refused(["prog.core", "4096", "", "prog"], "executable path argument missing")
        self.refused(["prog.core", "", "", "prog"], "executable path argument missing")

    def test_empty_size(self):
        self.refused(["prog.core", "", "!usr!bin!prog", "prog"], "core file size argument missing")

    def test_size_not_wholly_decimal(self):
        for size in ["4096x", "x", "0x1000", "4096 ", "1.5", "99999999999999999999"]:
            with self.subTest(size=size):
                self.refused(["prog.core", size, "!usr!bin!prog", "prog"],
                             "core file size limit parsing error")

    def test_size_zero_disables_without_reading(self):
        res = self.handler("prog.core", "0", "!usr!bin!prog", "prog", core=self.CORE)
        self.assertEqual((res.rc, res.out, res.err), (0, b"", b""), res)
        self.assertLogs_(res, (INFO, "core dumps disabled for '/usr/bin/prog/prog'"))
        self.assertBytes(res.unread, self.CORE, "left in the pipe")

    def test_below_one_page_disables(self):
        res = self.handler("x.core", str(PAGE - 1), "!opt!a!b!tool", "tool", core=self.CORE)
        self.assertEqual(res.rc, 0, res)
        self.assertLogs_(res, (INFO, "core dumps disabled for '/opt/a/b/tool/tool'"))
        self.assertBytes(res.unread, self.CORE, "left in the pipe")

    def test_path_without_bangs_is_logged_as_given(self):
        res = self.handler("x.core", "1", "relative", "tool", core=b"")
        self.assertLogs_(res, (INFO, "core dumps disabled for 'relative/tool'"))

    def test_one_page_and_more_go_on(self):
        # Accepted limits: the core goes on to the (absent) service.
        for size in [str(PAGE), "18446744073709551615", "-1", " 8192", "+8192"]:
            with self.subTest(size=size):
                res = self.handler("x.core", size, "!usr!bin!prog", "prog", core=self.CORE)
                self.assertEqual((res.rc, res.out, res.err), (1, b"", CONNECT_FAILED), res)
                self.assertEqual(res.logs, [])

    def test_more_than_four_arguments_are_accepted(self):
        stand_in = self.stand_in(expect=len(self.CORE))
        res = self.handler("x.core", "8192", "!usr!bin!prog", "prog", "extra", core=self.CORE)
        self.assertEqual(res.rc, 0, res)
        self.assertBytes(stand_in.wait(1), [self.CORE])
        self.assertEqual(res.logs, [])

    def test_fewer_than_three_arguments_skip_the_checks(self):
        stand_in = self.stand_in(expect=len(self.CORE))
        for args in ([], ["only-a-name"]):
            res = self.handler(*args, core=self.CORE)
            self.assertEqual((res.rc, res.out, res.err, res.logs), (0, b"", b"", []), res)
        self.assertBytes(stand_in.wait(2), [self.CORE, self.CORE])


class HandOver(HandlerTest):
    """Without an FTP configuration the core goes to the crash socket."""

    ARGS = ["prog.1.core", "4294967295", "!usr!bin!prog", "prog"]

    def test_core_arrives_and_the_answer_is_awaited(self):
        core = core_bytes(3 * 1024 * 1024 + 17)
        alive_at_core = []
        procs = []

        def on_core():
            # The whole core may be in before start() has returned the
            # handler's process; it cannot end before the answer it awaits.
            bb.wait_until(lambda: procs, "the handler's process")
            alive_at_core.append(procs[0].poll() is None)
        stand_in = self.stand_in(ack_bytes=b"ok", expect=len(core), on_core=on_core)
        started = time.monotonic()
        p, r, writer = self.start(self.ARGS, core)
        procs.append(p)
        res = self.finish(p, r, writer, started)
        self.assertEqual((res.rc, res.out, res.err, res.logs), (0, b"", b"", []), res)
        self.assertBytes(stand_in.wait(1), [core])
        self.assertBytes(res.unread, b"", "left in the pipe")
        # The handler was still there when the core was in, waiting for the answer.
        self.assertEqual(alive_at_core, [True])

    def test_longer_answer_is_fine(self):
        stand_in = self.stand_in(ack_bytes=b"0123456789abcdef" * 4, expect=5000)
        res = self.handler(*self.ARGS, core=core_bytes(5000))
        self.assertEqual((res.rc, res.err, res.logs), (0, b"", []), res)
        self.assertBytes(stand_in.wait(1), [core_bytes(5000)])
        # It took 8 bytes of the answer and closed on the rest.
        self.assertEqual(stand_in.resets, 1)

    def test_silent_service_is_given_five_seconds(self):
        stand_in = self.stand_in(mode="silent", expect=10000)
        res = self.handler(*self.ARGS, core=core_bytes(10000))
        self.assertEqual((res.rc, res.out, res.err, res.logs), (0, b"", b"", []), res)
        self.assertBytes(stand_in.wait(1), [core_bytes(10000)])
        # The handler ends its side only after its wait for the answer.
        waited = stand_in.eof_times[0] - stand_in.core_times[0]
        # select() with 5 s; the bound above only catches a handler that hangs.
        self.assertGreaterEqual(waited, 4.8)
        self.assertLess(waited, 30)

    def test_service_that_closes_unread(self):
        # The service closes the connection unread when nobody listens.
        stand_in = self.stand_in(mode="reject")
        core = core_bytes(4 << 20)
        res = self.handler(*self.ARGS, core=core)
        self.assertEqual((res.rc, res.out, res.err, res.logs), (0, b"", b"", []), res)
        self.assertEqual(stand_in.wait(1), [None])
        # The copy stops at the broken connection; the rest stays in the pipe.
        self.assertTrue(0 < len(res.unread) < len(core), res)
        self.assertBytes(res.unread, core[len(core) - len(res.unread):], "left in the pipe")

    def test_empty_core(self):
        stand_in = self.stand_in(expect=0)
        res = self.handler(*self.ARGS, core=b"")
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(stand_in.wait(1), [b""])

    def test_no_configuration_and_no_service(self):
        res = self.handler(*self.ARGS, core=core_bytes(100))
        self.assertEqual((res.rc, res.out, res.err, res.logs), (1, b"", CONNECT_FAILED, []), res)

    def test_stale_socket_file_without_service(self):
        stand_in = self.stand_in()
        stand_in.close()
        import socket as socketmod
        s = socketmod.socket(socketmod.AF_UNIX, socketmod.SOCK_STREAM)
        path = self.dev.host_path(SOCKET)
        s.bind(path)
        s.close()  # the file stays, nobody listens
        res = self.handler(*self.ARGS, core=core_bytes(100))
        self.assertEqual((res.rc, res.err, res.logs), (1, CONNECT_FAILED, []), res)
        os.unlink(path)

    def test_configurations_that_do_not_select_ftp(self):
        texts = {
            "no CoreHandler": "[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n",
            "socket": "CoreHandler = socket\n",
            "lower-case ftp": "CoreHandler = ftp\n",
            "FT only": "CoreHandler = FT\n",
            "key longer": "CoreHandlerX = FTP\n",
            "key in other case": "corehandler = FTP\n",
            "empty value": "CoreHandler =\n",
            "first one counts": "[a]\nCoreHandler = socket\n[b]\nCoreHandler = FTP\n"
                                "[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n",
            "empty file": "",
        }
        core = core_bytes(20000)
        stand_in = self.stand_in(expect=len(core))
        for n, (what, text) in enumerate(texts.items(), 1):
            with self.subTest(what=what):
                self.set_config(text)
                res = self.handler(*self.ARGS, core=core)
                self.assertEqual((res.rc, res.err, res.logs), (0, b"", []), res)
                self.assertBytes(stand_in.wait(n)[n - 1:], [core])
        self.assertEqual(len(stand_in.received), len(texts))

    def test_unreadable_configuration(self):
        os.mkdir(self.config_path)
        stand_in = self.stand_in(expect=100)
        res = self.handler(*self.ARGS, core=core_bytes(100))
        self.assertEqual((res.rc, res.logs), (0, []), res)
        self.assertBytes(stand_in.wait(1), [core_bytes(100)])


class Ftp(HandlerTest):
    """Uploads to the FTP server in the device."""

    ARGS = ["prog.1234.core", "4294967295", "!usr!bin!prog", "prog"]

    def ftp_config(self, server, path="/upload", extra="", before="", timeout=None):
        text = before + "[main]\nCoreHandler = FTP\n[CoreHandlerFtp]\n"
        text += f"TargetURL = {server.url}\n"
        if path is not None:
            text += f"TargetPath = {path}\n"
        if timeout is not None:
            text += f"Timeout = {timeout}\n"
        self.set_config(text + extra)

    def test_upload_arrives_complete(self):
        server = self.ftp_server()
        self.ftp_config(server)
        core = core_bytes(5 * 1024 * 1024 + 3)
        res = self.handler(*self.ARGS, core=core)
        self.assertEqual((res.rc, res.out, res.err, res.logs), (0, b"", b"", []), res)
        self.assertBytes(res.unread, b"", "left in the pipe")
        files = server.files()
        self.assertEqual(list(files), ["prog.1234.core"])
        self.assertBytes(files["prog.1234.core"], core)

    def test_default_file_name(self):
        server = self.ftp_server()
        self.ftp_config(server)
        res = self.handler(core=core_bytes(1000))
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(server.files(), {"core.core": core_bytes(1000)})
        res = self.handler("named", core=core_bytes(2000))
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(server.files()["named"], core_bytes(2000))

    def test_ftps_selects_ftp_too(self):
        server = self.ftp_server()
        self.set_config(f"CoreHandler = FTPS\n[CoreHandlerFtp]\nTargetURL = {server.url}\n"
                        "TargetPath = /upload\n")
        res = self.handler(*self.ARGS, core=core_bytes(777))
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(777)})

    def test_rename_refused_by_the_server_fails_the_upload(self):
        # The core arrives; the server refuses the rename, and that decides.
        server = self.ftp_server(rename=False)
        self.ftp_config(server)
        res = self.handler(*self.ARGS, core=core_bytes(4000))
        self.assertEqual((res.rc, res.logs), (1, []), res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(4000)})

    def test_relative_path_names_a_file_the_rename_cannot_find(self):
        # URL .../upload/NAME stores in the upload directory, then RNFR
        # upload/NAME is looked up from there: no such file.
        server = self.ftp_server()
        self.set_config(f"CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = {server.url}/\n"
                        "TargetPath = upload\n")
        res = self.handler(*self.ARGS, core=core_bytes(4000))
        self.assertEqual((res.rc, res.logs), (1, []), res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(4000)})

    def test_no_target_path(self):
        # The URL itself names the directory; RNFR /NAME finds nothing at the top.
        server = self.ftp_server()
        self.set_config(f"CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = {server.url}/upload\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual((res.rc, res.logs), (1, []), res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(600)})

    def test_no_target_url(self):
        stand_in = self.stand_in()
        self.set_config("CoreHandler = FTP\n[CoreHandlerFtp]\nTargetPath = /upload\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual((res.rc, res.out, res.err, res.logs), (1, b"", b"", []), res)
        self.assertEqual(stand_in.received, [])

    def test_settings_before_the_handler_entry_are_not_seen(self):
        server = self.ftp_server()
        stand_in = self.stand_in()
        self.set_config(f"[CoreHandlerFtp]\nTargetURL = {server.url}\nTargetPath = /upload\n"
                        "[main]\nCoreHandler = FTP\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual((res.rc, res.logs), (1, []), res)
        self.assertEqual(server.files(), {})
        self.assertEqual(stand_in.received, [])

    def test_first_handler_entry_counts(self):
        server = self.ftp_server()
        self.set_config(f"CoreHandler = FTP\nCoreHandler = socket\n[CoreHandlerFtp]\n"
                        f"TargetURL = {server.url}\nTargetPath = /upload\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(600)})

    def test_later_values_replace_earlier_ones(self):
        server = self.ftp_server()
        self.set_config(f"CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n"
                        f"TargetPath = /elsewhere\nTargetURL = {server.url}\n"
                        "TargetPath = /upload\nTimeout = 1\nTimeout = 0\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(600)})

    def test_prefix_matches(self):
        # Section and keys are matched by their first 14, 9, 10 and 7 characters.
        server = self.ftp_server()
        self.set_config(f"CoreHandler = FTP\n[CoreHandlerFtpOther]\nTargetURLs = {server.url}\n"
                        "TargetPathName = /upload\nTimeoutSeconds = 30\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(600)})

    def test_settings_in_other_sections_are_ignored(self):
        server = self.ftp_server()
        self.set_config(f"CoreHandler = FTP\n[CoreHandlerFt]\nTargetURL = {server.url}\n"
                        f"[other]\nTargetURL = {server.url}\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual((res.rc, res.logs), (1, []), res)
        self.assertEqual(server.files(), {})

    def test_timeout_that_is_not_a_number_means_none(self):
        server = self.ftp_server()
        self.ftp_config(server, timeout="soon")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual(res.rc, 0, res)

    def test_server_refuses_uploads(self):
        server = self.ftp_server(upload=False)
        self.ftp_config(server)
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual((res.rc, res.out, res.err, res.logs), (1, b"", b"", []), res)
        self.assertEqual(server.files(), {})

    def test_credentials_in_the_url(self):
        server = self.ftp_server()
        host = server.url[len("ftp://"):]
        self.set_config(f"CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://core:secret@{host}\n"
                        "TargetPath = /upload\n")
        res = self.handler(*self.ARGS, core=core_bytes(900))
        self.assertEqual(res.rc, 0, res)
        self.assertEqual(server.files(), {"prog.1234.core": core_bytes(900)})
        self.set_config(f"CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://core:wrong@{host}\n"
                        "TargetPath = /upload\n")
        res = self.handler("refused.core", "4294967295", "!usr!bin!prog", "prog", core=core_bytes(900))
        self.assertEqual((res.rc, res.logs), (1, []), res)
        self.assertNotIn("refused.core", server.files())

    def test_nobody_at_the_address(self):
        self.set_config("CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n"
                        "TargetPath = /upload\nTimeout = 5\n")
        res = self.handler(*self.ARGS, core=core_bytes(600))
        self.assertEqual((res.rc, res.out, res.err, res.logs), (1, b"", b"", []), res)

    def test_stalled_server_truncates(self):
        server = self.ftp_server()
        self.ftp_config(server, timeout=1)
        server.pause()
        res = self.handler(*self.ARGS, core=core_bytes(100000))
        self.assertEqual((res.rc, res.out, res.err), (1, b"", b""), res)
        self.assertLogs_(res, (WARNING, "coredump truncated."))

    def test_slow_server_truncates(self):
        # The server takes 64 KiB/s; the core would need six minutes.  Ten
        # seconds: the login and the start of the upload are in, on a busy
        # machine too, before the time-out cuts the upload.
        server = self.ftp_server(max_rate=65536)
        self.ftp_config(server, timeout=10)
        core = core_bytes(24 * 1024 * 1024)
        res = self.handler(*self.ARGS, core=core)
        self.assertEqual((res.rc, res.out, res.err), (1, b"", b""), res)
        self.assertLogs_(res, (WARNING, "coredump truncated."))
        server.stop()
        self.cleanups.remove(server.stop)
        got = server.files()["prog.1234.core"]
        self.assertLess(len(got), len(core))
        self.assertBytes(got, core[:len(got)], "what arrived")


if __name__ == "__main__":
    bb.main()
