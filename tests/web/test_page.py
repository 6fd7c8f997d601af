"""The debug page in a real browser: Debian's chromium (playwright-core) in the
peer's network, the installed debug service and mini_httpd in the simulated
device.  Downloads are judged by GNU tar, tshark, gdb and the rtrace reader;
screenshots go to --artifacts."""
import argparse
import os
import re
import shutil
import subprocess
import tarfile
import tempfile
import unittest

import bb
from bb import wait_until
import simdev
from browser import Browser, archive_members

NODE_DIR = None
ARTIFACTS = None
CGI = "cgi-bin/nph-debug.cgi"
BAD_REQUEST = "The request has bad syntax or was inherently impossible to satisfy"

# Who holds the device's established connections on port 80: for each, the
# names of the processes with the socket among their descriptors.
HOLDERS = r"""
import os
inodes = set()
for table in ("/proc/net/tcp", "/proc/net/tcp6"):
    for line in open(table).read().splitlines()[1:]:
        f = line.split()
        if f[1].endswith(":0050") and f[3] == "01":
            inodes.add(f[9])
out = {}
for pid in filter(str.isdigit, os.listdir("/proc")):
    try:
        for fd in os.listdir(f"/proc/{pid}/fd"):
            l = os.readlink(f"/proc/{pid}/fd/{fd}")
            if l.startswith("socket:[") and l[8:-1] in inodes:
                name = open(f"/proc/{pid}/comm").read().strip()
                out.setdefault(l[8:-1], set()).add(name)
    except OSError:
        pass
for k, v in out.items():
    print(k, " ".join(sorted(v)))
"""


class DebugPage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="tn-web-")
        cls.dev = dev = simdev.Device(prefix=bb.PREFIX)
        try:
            dev.run(["debugar.cgi"], check=True)
            wait_until(lambda: dev.run(
                ["test", "-S", "/var/run/dbg-cgi/ctrl-cgi-socket"]).returncode == 0,
                "the service's socket", step=0.1)
            # mini_httpd keeps its standard error when it detaches
            dev.sh("mini_httpd -C /usr/share/toolnest/mini_httpd.conf </dev/null >/dev/null "
                   "2>>/var/log/mini_httpd.err", check=True)
            cls.base = f"http://{dev.ip4}/"
            wait_until(lambda: dev.peer_run(
                ["curl", "-sf", "-o", "/dev/null", "-m", "2", cls.base]).returncode == 0,
                "the web server", step=0.1)
            cls.b = Browser(NODE_DIR, prefix=dev.peer_command([]))
        except BaseException:
            dev.stop()
            raise

    @classmethod
    def tearDownClass(cls):
        if hasattr(cls, "b"):
            cls.b.close()
        cls.dev.stop()
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def shot(self, name, page=0, full=True):
        self.b.screenshot(path=os.path.join(ARTIFACTS, name), page=page, full=full)

    def open_page(self, page=0):
        self.assertEqual(self.b.goto(url=self.base, page=page), 200)

    def pid_of(self, name):
        r = self.dev.run(["pidof", name])
        return int(r.stdout.split()[0])

    def download(self, button, name, timeout=60000, before=None):
        """Clicks button, waits for the download it causes, returns (path, suggested name)."""
        self.b.expect_download(name=name, timeout=timeout)
        if before:
            before()
        self.b.click(sel=button)
        path = os.path.join(self.tmp, name)
        return path, self.b.save_download(name=name, path=path)

    def test_01_page_opens(self):
        self.open_page()
        body = self.b.body()
        for title in ("Debug archive", "Packet capture", "Process list", "System-call trace",
                      "Runtime trace", "Core dump", "Next crash"):
            self.assertIn(title, body)
        # the checkboxes carry the names of the "trace" parameter
        for item in ("smaps", "status", "smapstot", "filenr", "meminfo", "diskinfo", "iostat",
                     "pagetypeinfo", "hearth", "event", "pidstat"):
            self.b.enabled(sel=f"#rtrace-{item}")
        self.shot("page.png")

    def test_02_process_list(self):
        self.open_page()
        self.b.click(sel="#ps-show")
        self.b.wait_text(sel="#ps-status", text="Process list of")
        out = self.b.text(sel="#ps-out")
        # the service's ps: the processes of its user
        for prog in ("init", "hearth", "debugar.cgi"):
            self.assertIn(prog, out)
        self.shot("process-list.png")

    def test_03_live_trace_and_stop(self):
        self.open_page()
        pid = self.pid_of("hearth")
        self.b.fill(sel="#strace-pid", value="hearth")
        self.b.click(sel="#strace-start")
        # lines of the running hearth appear within seconds
        self.b.wait_text(sel="#strace-out", re=r"\w+\(.*\)\s*=\s*-?\d", timeout=60000)
        self.assertEqual(self.tgid(self.tracer_of(pid)), self.pid_of("debugar.cgi"))
        self.shot("live-trace.png")
        self.b.click(sel="#strace-stop")
        self.b.wait_text(sel="#strace-status", text="Trace stopped")
        # the traced process is let go and keeps running
        wait_until(lambda: self.tracer_of(pid) == 0, "hearth untraced", step=0.1)
        ticks = self.ctxt(pid)
        wait_until(lambda: self.ctxt(pid) > ticks + 5, "hearth working", step=0.1)
        self.assertNotIn(self.state(pid), ("t", "T", "Z", "X"))

    def tracer_of(self, pid):
        r = self.dev.run(["grep", "TracerPid", f"/proc/{pid}/status"])
        return int(r.stdout.split()[1])

    def tgid(self, tid):
        r = self.dev.run(["grep", "Tgid", f"/proc/{tid}/status"])
        return int(r.stdout.split()[1])

    def state(self, pid):
        r = self.dev.run(["cat", f"/proc/{pid}/stat"])
        return r.stdout.decode().rsplit(")", 1)[1].split()[0]

    def ctxt(self, pid):
        r = self.dev.sh(f"cat /proc/{pid}/task/*/status | grep ^voluntary_ctxt")
        return sum(int(l.split()[1]) for l in r.stdout.decode().splitlines())

    def test_04_runtime_trace(self):
        self.open_page()
        self.b.fill(sel="#rtrace-interval", value="1")
        for item in ("smapstot", "filenr", "diskinfo", "iostat", "event", "pidstat"):
            self.b.check(sel=f"#rtrace-{item}", value=False)
        self.b.check(sel="#rtrace-meminfo", value=True)
        self.b.click(sel="#rtrace-start")
        # Until the page has received two rounds' worth of meminfo: the
        # download, cut wherever the stop falls, then holds a whole one.
        with open("/proc/meminfo", "rb") as f:
            enough = 2 * (len(f.read()) + 40)
        wait_until(lambda: self.received("rtrace") >= enough, "two rounds of samples", timeout=120)
        self.shot("runtime-trace.png")
        path, name = self.download("#rtrace-stop", "rtrace")
        self.assertEqual(name, "rtrace")
        report = os.path.join(self.tmp, "report")
        r = subprocess.run([bb.path("bin/rtrace-report"), path, "-o", report],
                           capture_output=True, timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(os.path.join(report, "index.html"), errors="replace") as f:
            html = f.read()
        self.assertIn("MemFree", html)

    def received(self, part):
        """The bytes a running download says it has received, or 0."""
        m = re.search(r"([\d.]+) (bytes|KiB|MiB) received", self.b.text(sel=f"#{part}-status"))
        return float(m.group(1)) * {"bytes": 1, "KiB": 1024, "MiB": 1 << 20}[m.group(2)] if m else 0

    def test_05_packet_capture(self):
        self.open_page()
        self.b.fill(sel="#pcap-duration", value="2")
        self.b.fill(sel="#pcap-size", value="0")
        path, name = self.download("#pcap-start", "pcap")
        self.assertEqual(name, "pcapdump.cap")
        r = subprocess.run(["tshark", "-r", path, "-T", "fields", "-e", "ip.src", "-e", "udp.dstport"],
                           capture_output=True, timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        lines = r.stdout.decode().splitlines()
        self.assertTrue(any(l.startswith(self.dev.peer_ip4) for l in lines), lines[:10])
        self.assertTrue(any(l.endswith("5004") for l in lines), "the peer's datagrams")
        self.b.wait_text(sel="#pcap-status", text="Saved pcapdump.cap")
        self.shot("capture.png", full=False)

    def test_06_core_dump_by_name(self):
        self.open_page()
        self.b.fill(sel="#core-pid", value="mediad")
        path, name = self.download("#core-start", "core")
        self.assertEqual(name, "core")
        r = subprocess.run(["gdb", "-batch", "-nx", "-ex", "bt", shutil.which("sleep"), path],
                           capture_output=True, timeout=120)
        out = r.stdout.decode(errors="replace")
        self.assertIn("Core was generated by `/usr/bin/mediad", out)
        self.assertIn("__libc_start_main", out)

    def test_07_errors_in_words(self):
        self.open_page()
        self.b.fill(sel="#core-pid", value="nosuchprocess")
        self.b.click(sel="#core-start")
        t = self.b.wait_text(sel="#core-status", text="No running process")
        self.assertIn('No running process has the id or name "nosuchprocess"', t)
        self.b.fill(sel="#strace-pid", value="99999")
        self.b.click(sel="#strace-start")
        t = self.b.wait_text(sel="#strace-status", text="No running process matches")
        self.assertIn(BAD_REQUEST, t)
        self.b.fill(sel="#core-pid", value="")
        self.b.click(sel="#core-start")
        self.b.wait_text(sel="#core-status", text="Enter the id or the name")
        self.shot("errors.png")

    def test_08_address_bar_bad_requests(self):
        for query in ("cmd=bogus", "cmd=strace&pid=", "cmd=coredump&pid="):
            status = self.b.goto(url=self.base + CGI + "?" + query)
            self.assertEqual(status, 400, query)
            self.assertEqual(self.b.body().strip(), BAD_REQUEST, query)
        self.shot("bad-request.png", full=False)

    def test_09_archive_never_stalls_and_busy(self):
        self.open_page()
        self.b.newpage()
        self.assertEqual(self.b.goto(url=self.base, page=1), 200)
        self.b.expect_download(name="archive", timeout=180000)
        self.b.click(sel="#archive-tgz")
        self.b.wait_text(sel="#archive-status", text="Making the debug archive")
        # The connection is the service's own socket: no process of the web
        # server holds it, so a web server stopped by the tracer cannot stall it.
        holders = wait_until(lambda: self.holders("debugar.cgi"), "the download's connection", step=0.1)
        for names in holders.values():
            self.assertEqual(names, {"debugar.cgi"})
        # a second archive meanwhile is refused in words
        self.b.click(sel="#archive-tar", page=1)
        t = self.b.wait_text(sel="#archive-status", page=1, text="busy")
        self.assertIn("another debug archive", t)
        self.shot("archive-busy.png", page=1, full=False)
        self.shot("archive-running.png", full=False)
        path = os.path.join(self.tmp, "debug.tgz")
        self.assertEqual(self.b.save_download(name="archive", path=path), "debug.tgz")
        top, rel, cores = archive_members(path)
        self.assertEqual(rel[:2], ["dbg-monitor.txt", "media.conf"])
        at = rel.index("strace.log")
        self.assertEqual(rel[at:at + 4], ["strace.log", "netdump.cap", "sysdigest.txt", "oopslog"])
        for prog in ("hearth", "mediad", "storaged", "mini_httpd"):
            self.assertIn(prog, cores)
        # the web server was traced like every process, and the download went on
        with tarfile.open(path) as t:
            trace = t.extractfile(top + "strace.log").read().decode(errors="replace")
        self.assertIn(str(self.pid_of("mini_httpd")), trace)
        self.b.wait_text(sel="#archive-status", text="Saved debug.tgz")

    def holders(self, want):
        r = self.dev.run(["python3", "-c", HOLDERS])
        out = {}
        for line in r.stdout.decode().splitlines():
            inode, *names = line.split()
            out[inode] = set(names)
        return out if any(want in v for v in out.values()) else None

    def test_10_listener_gets_the_next_crash(self):
        self.open_page()
        self.b.expect_download(name="crash", timeout=60000)
        self.b.click(sel="#listen-start")
        self.b.wait_text(sel="#listen-status", text="Waiting for a process to crash")
        wait_until(lambda: self.holders("debugar.cgi"), "the listener", step=0.1)
        self.b.scroll(sel="#listen")
        self.shot("listen.png", full=False)
        # The kernel's part: a core piped into the handler.  The core pattern
        # is the machine's, not the device's, so the test plays the kernel
        # with a real core of a sleeping program.
        r = self.dev.sh(
            # dump the sleep itself, not the shell's fork before its exec
            "sleep 30 & p=$!; until [ \"$(cat /proc/$p/comm)\" = sleep ]; do :; done; "
            "memsnap -c /dev/stdout $p > /tmp/crash.core; kill $p; "
            "coredump-handler crash.core 1000000000 '!usr!bin!sleep' sleep < /tmp/crash.core",
            timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        path = os.path.join(self.tmp, "crash")
        self.assertEqual(self.b.save_download(name="crash", path=path), "core")
        r = subprocess.run(["gdb", "-batch", "-nx", "-ex", "bt", shutil.which("sleep"), path],
                           capture_output=True, timeout=120)
        self.assertIn("Core was generated by `sleep 30'", r.stdout.decode(errors="replace"))
        self.b.wait_text(sel="#listen-status", text="of the process that crashed")


def main():
    global NODE_DIR, ARTIFACTS
    argv = bb.setup()
    ap = argparse.ArgumentParser()
    ap.add_argument("--node-dir", required=True)
    ap.add_argument("--artifacts", required=True)
    args, rest = ap.parse_known_args(argv[1:])
    NODE_DIR = os.path.abspath(args.node_dir)
    ARTIFACTS = os.path.abspath(args.artifacts)
    os.makedirs(ARTIFACTS, exist_ok=True)
    unittest.main(argv=[argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
