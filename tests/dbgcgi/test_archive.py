"""Debug archives from the service in the simulated device, downloaded over
eth0 by curl and Python and judged by GNU tar, Python's tarfile, gzip and
tshark: plain and compressed archives by path, one archive at a time (503)
while other requests are served, a browser leaving early, and the one-shot
archive on standard output."""
import gzip
import io
import os
import subprocess
import tarfile
import unittest
import zlib

import dbgdev
from bb import wait_until
from dbgdev import BUSY, header

SVC = None
TMP = None
TAR_HEADER = header("application/x-tar", "debug.tar")
TGZ_HEADER = header("application/x-tar", "debug.tgz")
GZIP_START = bytes.fromhex("1f8b0800000000000003")


def setUpModule():
    global SVC, TMP
    SVC, TMP = dbgdev.start_service("arc")


def tearDownModule():
    dbgdev.stop_service(SVC, TMP)


def members(tar_bytes):
    with tarfile.open(fileobj=io.BytesIO(tar_bytes), mode="r:") as t:
        return {m.name.split("/", 1)[1]: m for m in t.getmembers()}, t.getmembers()[0].name.split("/")[0]


def gnu_tar_list(path, z=False):
    r = subprocess.run(["tar", "-tvzf" if z else "-tvf", path], capture_output=True, text=True,
                       timeout=120)
    return r.returncode, r.stdout, r.stderr


def wait_idle():
    wait_until(lambda: SVC.threads() == SVC.base_threads, "the archive thread to end", 120)
    wait_until(lambda: not SVC.children(), "the filter process to be reaped", 60)
    wait_until(lambda: not SVC.stopped_or_traced(), "every process detached", 60)
    assert SVC.zombies() == []


class Archives(unittest.TestCase):
    def test_plain_archive_and_503_while_ps_is_served(self):
        s = SVC.open_request("/cgi-bin/x/debug.tar", timeout=180)
        port = s.getsockname()[1]
        wait_until(lambda: SVC.threads() > SVC.base_threads, "the archive thread")
        # A second archive is refused while this one is made; ps is served.
        # Nothing of the first is read meanwhile: it is far larger than the
        # connection's buffers, so it cannot be over before these are asked.
        for path in ("/x/debug.tgz", "/x/coredumps.tgz", "/x/other"):
            self.assertEqual(SVC.request(path), BUSY, path)
        head, body = SVC.get("/x?cmd=ps")
        self.assertEqual(head, header("text/plain", "psdump.txt"))
        self.assertIn(b"PID", body)
        data = dbgdev.read_all(s, 180)
        s.close()
        head, body = dbgdev.split_response(data)
        self.assertEqual(head, TAR_HEADER)
        path = os.path.join(TMP, "debug.tar")
        with open(path, "wb") as f:
            f.write(body)
        rc, out, err = gnu_tar_list(path)
        self.assertEqual(rc, 0, err)
        m, top = members(body)
        self.assertRegex(top, r"^debug-\d{8}-\d{6}-c\d+$")
        names = list(m)
        self.assertEqual(names[0], "dbg-monitor.txt")
        self.assertEqual(m["strace.log"].size, 204800)
        self.assertEqual(m["netdump.cap"].size, 512000)
        self.assertTrue(any(n.startswith("hearth.") and n.endswith("/core") for n in names), names)
        self.assertTrue(any(n.endswith("/fdmap") for n in names))
        # The capture leaves out the download's own connection.
        with tarfile.open(path) as t:
            cap = t.extractfile([x for x in t.getmembers() if x.name.endswith("/netdump.cap")][0]).read()
        cap_path = os.path.join(TMP, "netdump.cap")
        with open(cap_path, "wb") as f:
            f.write(cap)
        r = subprocess.run(["tshark", "-n", "-r", cap_path, "-Y", f"tcp.port == {port}"],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(r.stdout, "")
        wait_idle()

    def test_compressed_archive_by_path(self):
        out = os.path.join(TMP, "debug.tgz")
        hdr = out + ".hdr"
        r = SVC.curl(["-o", out, "-D", hdr, "URL:/cgi/debug.tgz"], timeout=240)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(hdr, "rb") as f:
            self.assertEqual(f.read(), TGZ_HEADER)
        with open(out, "rb") as f:
            data = f.read()
        self.assertEqual(data[:10], GZIP_START)
        self.assertEqual(subprocess.run(["gzip", "-t", out]).returncode, 0)
        rc, listing, err = gnu_tar_list(out, z=True)
        self.assertEqual(rc, 0, err)
        m, _ = members(gzip.decompress(data))
        self.assertEqual(list(m)[0], "dbg-monitor.txt")
        self.assertEqual(m["strace.log"].size, 204800)
        wait_idle()

    def first_bytes(self, path, n=20000):
        """The start of an archive download; the browser then leaves."""
        s = SVC.open_request(path, timeout=120)
        data = b""
        s.settimeout(120)
        while len(data) < n:
            b = s.recv(65536)
            if not b:
                break
            data += b
        s.close()
        return dbgdev.split_response(data)

    def accepted_again(self, path):
        """Asks for an archive until it is no longer refused."""
        def attempt():
            head, body = self.first_bytes(path, 600)
            return None if head.startswith(b"HTTP/1.0 503") else (head, body)
        return wait_until(attempt, "the next archive to be accepted", 120, 0.2)

    def test_prefixes_select_gzip_and_a_browser_leaving_ends_the_archive(self):
        # (Every prefix case, with the archive stood in for: test_dbgcgi_request.)
        for path, gz in (("/x/coredumps.tgz", True), ("/x/?a=1&listen", False)):
            head, body = self.accepted_again(path)
            if gz:
                self.assertEqual(head, TGZ_HEADER, path)
                self.assertEqual(body[:10], GZIP_START, path)
                tar_start = zlib.decompressobj(31).decompress(body)
            else:
                self.assertEqual(head, TAR_HEADER, path)
                tar_start = body
            self.assertRegex(tar_start[:100].split(b"\0")[0].decode(),
                             r"^debug-\d{8}-\d{6}-c\d+/dbg-monitor.txt$")
        wait_idle()


class DumpMode(unittest.TestCase):
    def test_plain_archive_on_stdout(self):
        # Its own run directory: no sockets appear there, nothing detaches.
        r = SVC.dev.sh("mkdir -p /tmp/dm && cd /tmp/dm && debugar.cgi -d -t "
                       "-c /tmp/dm/cgi -s /tmp/dm/segf > /tmp/dm-out.tar; echo status $?",
                       timeout=180)
        self.assertEqual(r.stdout, b"status 0\n")
        self.assertEqual(os.listdir(SVC.path("/tmp/dm")), [])
        path = SVC.path("/tmp/dm-out.tar")
        rc, listing, err = gnu_tar_list(path)
        self.assertEqual(rc, 0, err)
        with open(path, "rb") as f:
            m, _ = members(f.read())
        self.assertEqual(m["strace.log"].size, 204800)
        self.assertEqual(m["netdump.cap"].size, 512000)


if __name__ == "__main__":
    dbgdev.main()
