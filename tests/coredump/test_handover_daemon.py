"""The crash path end to end on the simulated device: the installed
coredump-handler, fed a core as the kernel would, hands it to the running
debug service (debugar.cgi), which sends it to the browser that registered
as listener (curl in the peer, through the test front end, with cmd=coredump
and no pid).  Stored dumps of the dump directory go to listeners first."""
import hashlib
import os
import shutil
import tempfile
import unittest

import dbgdev
from bb import wait_until

HANDLER_ARGS = ["prog.1234.core", "4294967295", "!usr!bin!prog", "prog"]
CONFIG = "/etc/conf.d/debugar.cgi"


def core_bytes(size, seed=7):
    block = hashlib.sha256(bytes([seed])).digest() * 2048
    return (b"\x7fELF" + block * (size // len(block) + 1))[:size]


def describe(b):
    return f"{len(b)} bytes {hashlib.sha256(b).hexdigest()[:12]}"


class HandOver(unittest.TestCase):
    """One device and one daemon for the class; stored dumps are in the dump
    directory before the daemon starts (it looks there until it finds it
    empty once)."""

    STORED = {"hearth.core.1": core_bytes(90000, 1), "mediad.core.2": core_bytes(50000, 2)}

    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="handover.")
        cls.svc = dbgdev.DebugService(dbgdev.ARGS.prefix, dbgdev.ARGS.frontend, start=False)
        try:
            for name in sorted(cls.STORED):
                with open(cls.svc.path(dbgdev.DUMP_DIR + "/" + name), "wb") as f:
                    f.write(cls.STORED[name])
            cls.svc.start_daemon()
            cls.svc.sync()
        except BaseException:
            cls.svc.close()
            raise
        cls.n = 0

    @classmethod
    def tearDownClass(cls):
        cls.svc.stop_daemon()
        cls.svc.close()
        shutil.rmtree(cls.tmp)

    def setUp(self):
        path = self.svc.path(CONFIG)
        if os.path.exists(path):
            os.unlink(path)

    def listen(self, wait=True):
        """A browser waiting for the next core dump: curl in the peer.  With
        wait, returns once the daemon holds its connection (a listener that
        is sent a stored dump at once is never seen waiting)."""
        HandOver.n += 1
        out = os.path.join(self.tmp, f"listener-{self.n}.out")
        hdr = os.path.join(self.tmp, f"listener-{self.n}.hdr")
        before = len(self.svc.tcp_connections())
        p = self.svc.dev.peer_popen(
            ["curl", "-s", "-o", out, "-D", hdr,
             f"http://{self.svc.dev.ip4}:{dbgdev.PORT}/cgi-bin/debugar.cgi?cmd=coredump"])
        if wait:
            self.svc.listener_count_wait(before)
            self.svc.sync()
        return p, out, hdr

    def received(self, listener, timeout=120):
        p, out, hdr = listener
        rc = p.wait(timeout=timeout)
        with open(out, "rb") as f:
            body = f.read()
        with open(hdr, "rb") as f:
            head = f.read()
        os.unlink(out)
        os.unlink(hdr)
        return rc, head, body

    def handler(self, core, timeout=120):
        return self.svc.dev.run(["coredump-handler", *HANDLER_ARGS], input=core, timeout=timeout)

    def test_1_stored_dumps_then_a_crash(self):
        # The daemon's first look found both dumps without a listener.
        wait_until(lambda: self.svc.syslog.texts(), "the daemon's first pass")
        self.assertIn(self.svc.syslog.texts()[0],
                      [f"Failed to send dump: {n}" for n in self.STORED])
        got = {}
        for _ in self.STORED:
            rc, head, body = self.received(self.listen(wait=False))
            self.assertEqual(rc, 0)
            name = head.decode().split('filename="')[1].split('"')[0]
            self.assertEqual(head, dbgdev.header("application/octet-stream", name))
            got[name] = body
        self.assertEqual(sorted(got), sorted(self.STORED))
        for name in self.STORED:
            self.assertEqual(describe(got[name]), describe(self.STORED[name]), name)
        self.assertEqual(os.listdir(self.svc.path(dbgdev.DUMP_DIR)), [])

        # Nothing stored any more: the next listener waits for a crash.
        listener = self.listen()
        self.assertIsNone(listener[0].poll(), "the listener waits")
        core = core_bytes(6 * 1024 * 1024 + 5, 3)
        self.svc.syslog.clear()
        r = self.handler(core)
        self.assertEqual((r.returncode, r.stdout, r.stderr), (0, b"", b""))
        rc, head, body = self.received(listener)
        self.assertEqual(rc, 0)
        self.assertEqual(head, dbgdev.header("application/octet-stream", "core"))
        self.assertEqual(describe(body), describe(core))
        self.assertEqual(self.svc.syslog.raw(), [])

    def test_2_crash_without_listener_is_lost(self):
        self.svc.syslog.clear()
        r = self.handler(core_bytes(2 * 1024 * 1024, 4))
        # The service closes the connection unread; the handler is done.
        self.assertEqual((r.returncode, r.stdout, r.stderr), (0, b"", b""))
        self.assertEqual(self.svc.syslog.raw(), [])
        # A listener that comes later gets the next crash, not this one.
        listener = self.listen()
        self.assertIsNone(listener[0].poll())
        core = core_bytes(300000, 5)
        r = self.handler(core)
        self.assertEqual(r.returncode, 0)
        rc, head, body = self.received(listener)
        self.assertEqual(head, dbgdev.header("application/octet-stream", "core"))
        self.assertEqual(describe(body), describe(core))

    def test_3_ftp_configuration_leaves_the_service_alone(self):
        listener = self.listen()
        with open(self.svc.path(CONFIG), "w") as f:
            f.write("CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n"
                    "TargetPath = /upload\n")
        r = self.handler(core_bytes(1000, 6))
        self.assertEqual(r.returncode, 1)
        self.svc.sync()
        self.assertIsNone(listener[0].poll(), "the listener still waits")
        # Back to the hand-over: the waiting listener gets this crash.
        os.unlink(self.svc.path(CONFIG))
        core = core_bytes(1000, 7)
        self.assertEqual(self.handler(core).returncode, 0)
        rc, head, body = self.received(listener)
        self.assertEqual(head, dbgdev.header("application/octet-stream", "core"))
        self.assertEqual(body, core)


if __name__ == "__main__":
    dbgdev.main()
