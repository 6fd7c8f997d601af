"""Packet capture against real kernel objects.  The script runs itself in a
network and mount namespace of its own; each test adds a veth pair whose local
end is eth0 and whose other end lives in a second namespace, makes traffic
between the two, and judges the pcap streams with tcpdump and tshark."""
import argparse
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import bb
from bb import wait_until

PROBE = None
LOCAL4, REMOTE4 = "10.77.0.1", "10.77.0.2"
LOCAL6, REMOTE6 = "fd77::1", "fd77::2"
IFF_PROMISC = 0x100
SLOW = 1  # time factor, larger under the emulator


def enter_namespace():
    """Re-runs this script in fresh network and mount namespaces, with a sysfs
    that shows this network namespace's interfaces."""
    if os.environ.get("TN_CAPTURE_NS") != "1":
        env = dict(os.environ, TN_CAPTURE_NS="1")
        argv = ["unshare", "--net", "--mount", "--propagation", "private",
                sys.executable, os.path.abspath(__file__)] + sys.argv[1:]
        os.execvpe("unshare", argv, env)
    subprocess.run(["mount", "-t", "sysfs", "sysfs", "/sys"], check=True)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def sh(cmd):
    subprocess.run(cmd, shell=True, check=True)


class Net:
    """eth0 here, peer0 in a second namespace held by a sleeping process."""

    def __init__(self, ipv4=True, ipv6=False):
        self.remote = subprocess.Popen(["unshare", "--net", "sleep", "3600"])
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{self.remote.pid}/ns/net") != own,
                   "the second namespace")
        self.pid = str(self.remote.pid)
        sh(f"ip link add eth0 type veth peer name peer0 netns {self.pid}")
        off = "0" if ipv6 else "1"
        with open("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", "w") as f:
            f.write(off)
        self.rsh(f"echo {off} > /proc/sys/net/ipv6/conf/peer0/disable_ipv6; ip link set lo up")
        if ipv4:
            sh(f"ip addr add {LOCAL4}/24 dev eth0")
            self.rsh(f"ip addr add {REMOTE4}/24 dev peer0")
        if ipv6:
            sh(f"ip -6 addr add {LOCAL6}/64 dev eth0 nodad")
            self.rsh(f"ip -6 addr add {REMOTE6}/64 dev peer0 nodad")
        sh("ip link set eth0 up")
        self.rsh("ip link set peer0 up")
        # The pair carries frames once both ends are up.
        wait_until(lambda: read_text("/sys/class/net/eth0/operstate") == "up", "eth0 up")

    def rsh(self, cmd):
        subprocess.run(["nsenter", "-t", self.pid, "-n", "sh", "-c", cmd], check=True)

    def rpopen(self, args, **kw):
        return subprocess.Popen(["nsenter", "-t", self.pid, "-n"] + args, **kw)

    def close(self):
        subprocess.run(["ip", "link", "del", "eth0"], stderr=subprocess.DEVNULL)
        self.remote.kill()
        self.remote.wait()


def read_text(path):
    try:
        with open(path) as f:
            return f.read().strip()
    except OSError:
        return None


def eth0_flags():
    with open("/sys/class/net/eth0/flags") as f:
        return int(f.read(), 16)


def parse_pcap(path):
    """(header fields, records [(sec, usec, incl, orig, data)], whole)."""
    with open(path, "rb") as f:
        b = f.read()
    hdr = struct.unpack("<IHHiIII", b[:24])
    recs = []
    at = 24
    whole = True
    while at < len(b):
        if len(b) - at < 16:
            whole = False
            break
        sec, usec, incl, orig = struct.unpack("<IIII", b[at:at + 16])
        at += 16
        if len(b) - at < incl:
            whole = False
            break
        recs.append((sec, usec, incl, orig, b[at:at + incl]))
        at += incl
    return hdr, recs, whole


def is_filler(rec):
    return rec[0] == 0 and rec[1] == 0 and rec[2] == rec[3] and not any(rec[4])


_tool_home = None


def tool_env():
    # tshark keeps its profile under HOME; give it a scratch one.
    global _tool_home
    if _tool_home is None:
        _tool_home = tempfile.TemporaryDirectory(prefix="tn-tshark-")
    return dict(os.environ, HOME=_tool_home.name)


def tshark(path, *fields, display_filter=None):
    args = ["tshark", "-r", path, "-T", "fields"]
    for f in fields:
        args += ["-e", f]
    if display_filter:
        args += ["-Y", display_filter]
    r = subprocess.run(args, capture_output=True, env=tool_env(), timeout=120)
    err = [l for l in r.stderr.decode().splitlines() if l and "Running as user" not in l]
    assert r.returncode == 0 and not err, (r.returncode, err)
    return [line.split("\t") for line in r.stdout.decode().splitlines()]


def tcpdump_count(path):
    r = subprocess.run(["tcpdump", "-r", path, "--count"], capture_output=True, timeout=120)
    err = [l for l in r.stderr.decode().splitlines() if not l.startswith("reading from file")]
    assert r.returncode == 0 and not err, (r.returncode, err)
    words = r.stdout.decode().split()
    assert words[1] == "packets", words
    return int(words[0])


def probe(*args, timeout=120):
    r = subprocess.run(bb.command(PROBE, *args), capture_output=True, timeout=timeout)
    return r.returncode, r.stderr.decode()


def result_of(text):
    for line in text.splitlines():
        if line.startswith("result "):
            return int(line.split()[1])
    raise AssertionError("no result in: " + text)


class Traffic:
    """Background ping and UDP datagrams from here to the other namespace."""

    def __init__(self, seconds, ipv6=False):
        self.stop = False
        dst = REMOTE6 if ipv6 else REMOTE4
        self.ping = subprocess.Popen(["ping", "-q", "-i", "0.05", "-w", str(seconds), dst],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.th = threading.Thread(target=self.udp, args=(dst, ipv6), daemon=True)
        self.th.start()

    def udp(self, dst, ipv6):
        s = socket.socket(socket.AF_INET6 if ipv6 else socket.AF_INET, socket.SOCK_DGRAM)
        while not self.stop:
            s.sendto(b"d" * 100, (dst, 9))
            time.sleep(0.02)  # steady background traffic, not a flood
        s.close()

    def close(self):
        self.stop = True
        self.th.join()
        self.ping.kill()
        self.ping.wait()


SINK = r"""
import socket, sys
port, out, ready = int(sys.argv[1]), sys.argv[2], sys.argv[3]
l = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)
l.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)
l.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
l.bind(("::", port))
l.listen(4)
open(ready, "w").close()
c, _ = l.accept()
limit = int(sys.argv[4]) if len(sys.argv) > 4 else -1
with open(out, "wb") as f:
    while True:
        b = c.recv(65536)
        if not b:
            break
        f.write(b)
        if limit >= 0 and f.tell() >= limit:
            break
c.close()
"""

DIALER = r"""
import socket, sys
host, port, out = sys.argv[1], int(sys.argv[2]), sys.argv[3]
s = socket.create_connection((host, port), timeout=60)
with open(out, "wb") as f:
    while True:
        b = s.recv(65536)
        if not b:
            break
        f.write(b)
"""


def listening_on(port):
    with open("/proc/net/tcp6") as f:
        return f":{port:04X} " in f.read()


def wait_file(path):
    wait_until(lambda: os.path.exists(path), path)


def expected_filter(count, local, peer):
    lp = (local << 16) | peer
    pl = (peer << 16) | local
    if count == 8:
        table = [(0x28, 0, 0, 12), (0x15, 0, 5, 0x0800), (0xb1, 0, 0, 14), (0x40, 0, 0, 14),
                 (0x15, 1, 0, lp), (0x15, 0, 1, pl), (0x06, 0, 0, 0), (0x06, 0, 0, 0xffffffff)]
    else:
        table = [(0x28, 0, 0, 12), (0x15, 0, 6, 0x86dd), (0x30, 0, 0, 20), (0x15, 0, 4, 6),
                 (0x20, 0, 0, 54), (0x15, 1, 0, lp), (0x15, 0, 1, pl), (0x06, 0, 0, 0),
                 (0x06, 0, 0, 0xffffffff)]
    # Little-endian: the device's byte order, and the host's.
    return b"".join(struct.pack("<HBBI", *i) for i in table).hex()


def enough_recorded(path):
    """Whether the capture file holds more than 20 records, 10 of them ICMP
    echo requests (records are written whole, one write each)."""
    if not os.path.exists(path) or os.path.getsize(path) < 24:
        return False
    _, recs, _ = parse_pcap(path)
    echo = [r for r in recs if len(r[4]) > 34 and r[4][12:14] == b"\x08\x00" and
            r[4][23] == 1 and r[4][34] == 8]
    return len(recs) > 20 and len(echo) >= 10


class Base(unittest.TestCase):
    def setUp(self):
        self.net = None
        self.tmp = tempfile.TemporaryDirectory(prefix="tn-capture-")
        self.dir = self.tmp.name

    def tearDown(self):
        if self.net:
            self.net.close()
        self.tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def check_readers(self, path, records):
        """tcpdump and tshark read the stream without complaint and see every record."""
        self.assertEqual(tcpdump_count(path), len(records))
        self.assertEqual(len(tshark(path, "frame.number")), len(records))


class PcapDump(Base):
    def test_idle_interface_gives_header_and_filler_only(self):
        self.net = Net(ipv4=False, ipv6=False)
        out = self.path("idle.pcap")
        rc, err = probe("dump", "eth0", out, "5120000", "1536", "2", "1")
        self.assertEqual(result_of(err), 5120000)
        self.assertEqual(os.path.getsize(out), 5120000)
        hdr, recs, whole = parse_pcap(out)
        self.assertEqual(hdr, (0xa1b2c3d4, 2, 4, 0, 0, 65535, 1))
        self.assertTrue(whole)
        self.assertTrue(all(is_filler(r) for r in recs))
        self.assertEqual(len(recs), 157)
        self.check_readers(out, recs)
        caps = tshark(out, "frame.cap_len", "frame.len")
        self.assertEqual(24 + sum(16 + int(c) for c, _ in caps), 5120000)
        self.assertTrue(all(c == l for c, l in caps))

    def test_remainder_of_32767_plus_10(self):
        self.net = Net(ipv4=False, ipv6=False)
        out = self.path("rest.pcap")
        rc, err = probe("dump", "eth0", out, str(24 + 32767 + 10), "1536", "1", "0")
        self.assertEqual(result_of(err), 24 + 32777)
        self.assertEqual(os.path.getsize(out), 24 + 32777)
        caps = tshark(out, "frame.cap_len")
        self.assertEqual([c[0] for c in caps], [str(16383 - 16), str(32777 - 16383 - 16)])
        self.assertEqual(tcpdump_count(out), 2)

    def test_fixed_records_with_traffic(self):
        self.net = Net()
        out = self.path("fixed.pcap")
        # Traffic for as long as the capture runs, however late that starts.
        t = Traffic(120)
        try:
            rc, err = probe("dump", "eth0", out, "400000", "1536", str(3 * SLOW), "1")
        finally:
            t.close()
        self.assertEqual(result_of(err), 400000)
        self.assertEqual(os.path.getsize(out), 400000)
        _, recs, whole = parse_pcap(out)
        self.assertTrue(whole)
        frames = [r for r in recs if not is_filler(r)]
        self.assertGreater(len(frames), 20)
        self.assertTrue(all(r[2] == 1536 and r[3] < 1536 for r in frames))
        times = [r[0] * 1000000 + r[1] for r in frames]
        self.assertEqual(times, sorted(times))
        # No frame after the first filler record.
        first_filler = next(i for i, r in enumerate(recs) if is_filler(r))
        self.assertTrue(all(is_filler(r) for r in recs[first_filler:]))
        self.check_readers(out, recs)
        rows = tshark(out, "frame.cap_len", "frame.len", "frame.time_epoch",
                      display_filter="frame.time_epoch > 0")
        self.assertEqual(len(rows), len(frames))
        self.assertTrue(all(r[0] == "1536" for r in rows))
        epochs = [float(r[2]) for r in rows]
        self.assertEqual(epochs, sorted(epochs))
        self.assertGreaterEqual(len(tshark(out, "frame.number", display_filter="icmp.type == 8")), 5)
        self.assertGreaterEqual(len(tshark(out, "frame.number", display_filter="udp.dstport == 9")), 10)

    def test_natural_record_lengths(self):
        self.net = Net()
        out = self.path("natural.pcap")
        # A limit of N seconds of uptime lasts between N - 1 and N seconds.
        t = Traffic(120)   # stopped once the capture is over
        try:
            rc, err = probe("dump", "eth0", out, "0", "0", str(3 * SLOW), "0")
        finally:
            t.close()
        n = result_of(err)
        self.assertEqual(os.path.getsize(out), n)
        _, recs, whole = parse_pcap(out)
        self.assertTrue(whole)
        self.assertGreater(len(recs), 5)
        self.assertTrue(all(r[2] == r[3] and not is_filler(r) for r in recs))
        self.check_readers(out, recs)
        rows = tshark(out, "frame.cap_len", "frame.len", display_filter="udp.dstport == 9 && !icmp")
        self.assertTrue(rows)
        self.assertTrue(all(r == ["142", "142"] for r in rows))

    def test_promiscuous_during_capture_only(self):
        self.net = Net()
        self.assertFalse(eth0_flags() & IFF_PROMISC)
        out = self.path("p.pcap")
        p = subprocess.Popen(bb.command(PROBE, "dump", "eth0", out, "0", "0", str(3 * SLOW), "1"),
                             stderr=subprocess.PIPE)
        seen = []
        wait_until(lambda: seen.append(eth0_flags()) or seen[-1] & IFF_PROMISC or
                   p.poll() is not None, "promiscuous mode or the end of the capture")
        _, err = p.communicate(timeout=60)
        self.assertTrue(seen[-1] & IFF_PROMISC, hex(seen[-1]))
        self.assertFalse(eth0_flags() & IFF_PROMISC)
        self.assertEqual(result_of(err.decode()), os.path.getsize(out))

    def test_promiscuous_off_after_write_errors(self):
        self.net = Net()
        # On before the capture: off after it all the same.
        sh("ip link set eth0 promisc on")
        self.assertTrue(eth0_flags() & IFF_PROMISC)
        rc, err = probe("dump", "eth0", "closed-pipe", "100000", "1536", "2", "1")
        self.assertEqual(result_of(err), -1)
        self.assertFalse(eth0_flags() & IFF_PROMISC)

        # A connection whose reader goes away in the middle of the capture.
        ready, got = self.path("ready"), self.path("got")
        sink = self.net.rpopen([sys.executable, "-c", SINK, "5000", got, ready, "24"])
        wait_file(ready)
        t = Traffic(120)   # stopped once the capture is over
        try:
            p = subprocess.Popen(bb.command(PROBE, "connect", "eth0", REMOTE4, "5000", "0", "0",
                                            str(20 * SLOW)), stderr=subprocess.PIPE)
            sink.wait(timeout=60)
            _, err = p.communicate(timeout=60 * SLOW)
        finally:
            t.close()
        self.assertEqual(result_of(err.decode()), -1)
        self.assertFalse(eth0_flags() & IFF_PROMISC)


class FilterMe(Base):
    def run_case(self, mode):
        ipv6 = mode == "ipv6"
        self.net = Net(ipv4=True, ipv6=True)
        got, ready, ready2 = self.path("got.pcap"), self.path("ready"), self.path("ready2")
        other_sink = self.net.rpopen([sys.executable, "-c", SINK, "5001", os.devnull, ready2])
        wait_file(ready2)
        size = 1000000
        sink = self.net.rpopen([sys.executable, "-c", SINK, "5000", got, ready])
        wait_file(ready)
        other = socket.create_connection((REMOTE6 if ipv6 else REMOTE4, 5001))
        p = subprocess.Popen(bb.command(PROBE, "connect", "eth0", REMOTE6 if ipv6 else REMOTE4,
                                        "5000", str(size), "1536", str(3 * SLOW)),
                             stderr=subprocess.PIPE)
        return self.finish(p, sink, other, other_sink, got, size, 9 if ipv6 else 8)

    def finish(self, p, sink, other, other_sink, got, size, count):
        # The other flow runs as long as the capture does.
        while p.poll() is None:
            other.sendall(b"o" * 200)
            time.sleep(0.05)  # a steady flow while the capture runs, not a flood
        _, err = p.communicate(timeout=120)
        err = err.decode()
        other.close()
        sink.wait(timeout=60)
        other_sink.wait(timeout=60)
        self.assertEqual(result_of(err), size, err)
        line = next(l for l in err.splitlines() if l.startswith("filter "))
        _, n, local, peer, hexed = line.split()
        n, local, peer = int(n), int(local), int(peer)
        self.assertEqual(n, count)
        self.assertEqual(hexed, expected_filter(n, local, peer))

        self.assertEqual(os.path.getsize(got), size)
        _, recs, whole = parse_pcap(got)
        self.assertTrue(whole)
        self.check_readers(got, recs)
        pairs = [(int(a), int(b)) for a, b in
                 (r for r in tshark(got, "tcp.srcport", "tcp.dstport", display_filter="tcp"))]
        own = {(local, peer), (peer, local)}
        self.assertFalse([x for x in pairs if x in own], "own connection captured")
        others = [x for x in pairs if 5001 in x]
        self.assertGreater(len(others), 10, "the other flow is missing")

    def test_ipv4_connection_hidden(self):
        self.run_case("ipv4")

    def test_ipv6_connection_hidden(self):
        self.run_case("ipv6")

    def test_ipv4_mapped_peer_hidden(self):
        self.net = Net(ipv4=True, ipv6=True)
        got, ready2 = self.path("got.pcap"), self.path("ready2")
        other_sink = self.net.rpopen([sys.executable, "-c", SINK, "5001", os.devnull, ready2])
        wait_file(ready2)
        size = 1000000
        p = subprocess.Popen(bb.command(PROBE, "accept6", "eth0", "5002", str(size), "1536",
                                        str(3 * SLOW)), stderr=subprocess.PIPE)
        # The dual-stack listener is up once the port answers in /proc/net/tcp6.
        wait_until(lambda: listening_on(5002), "the listener on 5002")
        dialer = self.net.rpopen([sys.executable, "-c", DIALER, LOCAL4, "5002", got])
        other = socket.create_connection((REMOTE4, 5001))
        self.finish(p, dialer, other, other_sink, got, size, 8)


class Pcapdump(Base):
    def test_usage(self):
        for args in ([], ["eth0"]):
            r = bb.run(bb.path("bin/pcapdump"), *args)
            self.assertEqual(r.returncode, 1)
            self.assertEqual(r.stdout, b"USAGE: pcapdump netif dumpname\n")
            self.assertEqual(r.stderr, b"")

    def test_open_error(self):
        r = bb.run(bb.path("bin/pcapdump"), "eth0", "/nonexistent/dir/x.pcap")
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stderr, b"/nonexistent/dir/x.pcap: No such file or directory\n")

    def test_capture_until_sigint(self):
        self.net = Net()
        out = self.path("dump.pcap")
        old = os.umask(0)
        try:
            p = subprocess.Popen(bb.command(bb.path("bin/pcapdump"), "eth0", out),
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        finally:
            os.umask(old)
        t = Traffic(120)
        try:
            # Interrupted once the file holds enough of the traffic.
            wait_until(lambda: enough_recorded(out), "20 records with 10 echo requests")
            self.assertTrue(eth0_flags() & IFF_PROMISC)
            p.send_signal(signal.SIGINT)
            out_text, err_text = p.communicate(timeout=30)
        finally:
            t.close()
        self.assertEqual(p.returncode, 0, err_text)
        self.assertEqual((out_text, err_text), (b"", b""))
        self.assertFalse(eth0_flags() & IFF_PROMISC)
        self.assertEqual(os.stat(out).st_mode & 0o777, 0o600)
        hdr, recs, whole = parse_pcap(out)
        self.assertEqual(hdr, (0xa1b2c3d4, 2, 4, 0, 0, 65535, 1))
        self.assertTrue(whole, "partial record at the end")
        self.assertGreater(len(recs), 20)
        self.assertTrue(all(r[2] == r[3] and not is_filler(r) for r in recs))
        self.check_readers(out, recs)
        self.assertGreaterEqual(len(tshark(out, "frame.number", display_filter="icmp.type == 8")), 10)


if __name__ == "__main__":
    enter_namespace()
    ap = argparse.ArgumentParser()
    ap.add_argument("--probe", required=True)
    args, rest = ap.parse_known_args()
    PROBE = os.path.abspath(args.probe)
    sys.argv = [sys.argv[0]] + rest
    argv = bb.setup()
    if bb.EMULATOR:
        SLOW = 3
    unittest.main(argv=argv, verbosity=2)
