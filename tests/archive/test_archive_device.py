"""The debug archive made by the installed debugar.cgi inside the simulated
device, judged by GNU tar, Python's tarfile, gzip, tshark, gdb and strace."""
import os
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import unittest

import bb
import simdev

SEQ = None  # the archive_seq driver
PORT = 8765

PROC_DIRS = [
    "/proc/sys/", "/proc/sys/fs/", "/proc/sys/kernel/", "/proc/sys/kernel/random/",
    "/proc/sys/net/bridge/", "/proc/sys/net/core/", "/proc/sys/net/ipv4/",
    "/proc/sys/net/ipv4/conf/", "/proc/sys/net/ipv4/neigh/", "/proc/sys/net/ipv4/route/",
    "/proc/sys/net/ipv6/", "/proc/sys/net/ipv6/conf/", "/proc/sys/net/ipv6/icmp/",
    "/proc/sys/net/ipv6/neigh/", "/proc/sys/net/ipv6/route/", "/proc/sys/net/unix/",
    "/proc/sys/vm/", "/proc/driver/", "/proc/net/", "/proc/net/dev_snmp6/",
    "/proc/net/ip6t_hashlimit/", "/proc/net/ipt_hashlimit/", "/proc/net/netfilter/",
    "/proc/net/rpc/", "/proc/net/stat/", "/proc/net/vlan/"]
DIR_RANK = {d[1:]: i for i, d in enumerate(PROC_DIRS)}
PREFIX_RE = re.compile(r"^debug-\d{8}-\d{6}-c(\d+)/")
SNAP_RE = re.compile(r"^proc\.\d{8}-\d{6}/[^/]+$")

# Serves one connection from the peer with the plain archive written straight
# into it.
SERVER = f"""
import socket, subprocess
s = socket.socket()
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("0.0.0.0", {PORT}))
s.listen(1)
print("listening", flush=True)
c, _ = s.accept()
subprocess.run(["debugar.cgi", "-d", "-t"], stdout=c.fileno(), stderr=subprocess.DEVNULL)
c.close()
"""

CLIENT = """
import socket, sys
c = socket.create_connection((sys.argv[1], int(sys.argv[2])))
print(c.getsockname()[1], flush=True)
with open(sys.argv[3], "wb") as f:
    while True:
        b = c.recv(65536)
        if not b:
            break
        f.write(b)
"""

# Reads the archive until the trace member has begun, then goes away.
LEAVER = """
import sys
seen = b""
while b"strace.log" not in seen:
    b = sys.stdin.buffer.read1(65536)
    if not b:
        break
    seen += b
sys.stdout.buffer.write(seen)
"""

DUMPER_MARK = """#!/bin/sh
echo "$@" >> /tmp/dumper-called
exit 1
"""


def names_of(data):
    """Member names of a tar stream, in order, by Python's tarfile."""
    with tarfile.open(fileobj=__import__("io").BytesIO(data), mode="r:") as t:
        return [m.name for m in t.getmembers()], t


def strip(names):
    m = PREFIX_RE.match(names[0])
    prefix = m.group(0)
    assert all(n.startswith(prefix) for n in names), "one archive directory"
    return prefix, [n[len(prefix):] for n in names]


class ArchiveInDevice(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dev = simdev.Device(prefix=bb.PREFIX)
        cls.tmp = tempfile.mkdtemp(prefix="tn-archive-")
        r = cls.dev.run(["ps", "-eo", "pid=,args="], check=True)
        cls.procs = {}
        for line in r.stdout.decode().splitlines():
            pid, args = line.strip().split(None, 1)
            cls.procs[int(pid)] = args
        r = cls.dev.sh("debugar.cgi -d -t 2>/tmp/err; echo $? > /tmp/rc; cat /tmp/err >&2",
                       timeout=300)
        cls.tar_bytes = r.stdout
        cls.tar_err = r.stderr.decode(errors="replace")
        cls.tar_rc = cls.dev.run(["cat", "/tmp/rc"]).stdout.strip()
        cls.tar_path = os.path.join(cls.tmp, "x.tar")
        with open(cls.tar_path, "wb") as f:
            f.write(cls.tar_bytes)

    @classmethod
    def tearDownClass(cls):
        cls.dev.stop()
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def member(self, name):
        with tarfile.open(self.tar_path) as t:
            for m in t.getmembers():
                if m.name.endswith("/" + name):
                    return t.extractfile(m).read()
        self.fail("no member " + name)

    def test_exit_status_zero(self):
        self.assertEqual(self.tar_rc, b"0", self.tar_err[-2000:])

    def test_gnu_tar_and_tarfile_agree_on_the_members(self):
        r = subprocess.run(["tar", "-tf", self.tar_path], capture_output=True)
        self.assertEqual(r.returncode, 0, r.stderr)
        gnu = r.stdout.decode().splitlines()
        py, _ = names_of(self.tar_bytes)
        self.assertEqual(gnu, py)
        self.assertGreater(len(py), 50)

    def test_members_in_order(self):
        py, _ = names_of(self.tar_bytes)
        prefix, names = strip(py)
        self.assertEqual(PREFIX_RE.match(prefix).group(1), "0")
        self.assertEqual(names[:2], ["dbg-monitor.txt", "media.conf"])
        fixed = ["strace.log", "netdump.cap", "sysdigest.txt", "oopslog"]
        at = names.index("strace.log")
        self.assertEqual(names[at:at + 4], fixed)
        # the device's /proc/kcore is the machine's: far above the limit
        self.assertNotIn("kcore", names)
        snap1, snap2 = names[2:at], []
        rest = names[at + 4:]
        i = 0
        while i < len(rest) and (SNAP_RE.match(rest[i]) or rest[i].startswith("proc/")):
            snap2.append(rest[i])
            i += 1
        cores = rest[i:]
        for snap in (snap1, snap2):
            top = [n for n in snap if SNAP_RE.match(n)]
            deep = [n for n in snap if not SNAP_RE.match(n)]
            # top-level files first, one snapshot directory each
            self.assertEqual(snap[:len(top)], top)
            self.assertEqual(len({n.split("/")[0] for n in top}), 1)
            for n in ("meminfo", "uptime", "kallsyms"):
                self.assertIn(n, [t.split("/", 1)[1] for t in top])
            for n in ("kcore", "kmsg", "kmem", "vmcore"):
                self.assertNotIn(n, [t.split("/", 1)[1] for t in top])
            ranks = [DIR_RANK[n.rsplit("/", 1)[0] + "/"] for n in deep]
            self.assertEqual(ranks, sorted(ranks), "the 26 directories in their order")
            self.assertIn("proc/sys/kernel/hostname", deep)
            self.assertIn("proc/net/dev", deep)
        self.assertNotEqual(snap1[0].split("/")[0], "")
        # the /proc/sys and /proc/net names repeat in the second snapshot
        self.assertIn("proc/sys/kernel/hostname", snap2)
        self.assertTrue(cores, "core dumps at the end")
        for n in cores:
            self.assertRegex(n, r"^[^/]*\.\d+/(core|fdmap)$")

    def test_every_process_has_core_and_fdmap(self):
        py, _ = names_of(self.tar_bytes)
        _, names = strip(py)
        dirs = {}
        for n in names:
            m = re.match(r"^([^/]*)\.(\d+)/(core|fdmap)$", n)
            if m:
                dirs.setdefault((m.group(1), int(m.group(2))), []).append(m.group(3))
        for (name, pid), kinds in dirs.items():
            self.assertEqual(kinds, ["core", "fdmap"], name)
        dumped = {pid for (_, pid) in dirs}
        for pid, args in self.procs.items():
            base = os.path.basename(args.split()[0])
            if base in ("hearth", "mediad", "storaged"):
                self.assertIn((base, pid), dirs)
        self.assertNotIn(1, dumped, "init is left out")

    def test_gdb_opens_a_core(self):
        py, t = names_of(self.tar_bytes)
        name = next(n for n in py if re.search(r"/mediad\.\d+/core$", n))
        core = os.path.join(self.tmp, "mediad.core")
        with tarfile.open(self.tar_path) as t:
            with open(core, "wb") as f:
                f.write(t.extractfile(name).read())
        r = subprocess.run(["gdb", "-batch", "-nx", "-ex", "bt", shutil.which("sleep"), core],
                           capture_output=True, timeout=120)
        out = r.stdout.decode(errors="replace")
        self.assertIn("Core was generated by `/usr/bin/mediad infinity'", out)
        self.assertRegex(out, r"#0 .* in __libc_pause", out)
        self.assertIn("__libc_start_main", out)

    def test_trace_member_is_exact_and_padded(self):
        s = self.member("strace.log")
        self.assertEqual(len(s), 204800)
        self.assertIn(b"hearth", s[:4096])
        self.assertTrue(s.endswith(b" " * 79 + b"\n") or s.rstrip(b" ").endswith(b"\n"))
        tail = s[s.index(b" " * 79 + b"\n"):]
        self.assertEqual(tail.strip(b" \n"), b"", "only lines of spaces after the trace")

    def test_capture_member_is_exact_and_readable(self):
        cap = self.member("netdump.cap")
        self.assertEqual(len(cap), 512000)
        path = os.path.join(self.tmp, "netdump.cap")
        with open(path, "wb") as f:
            f.write(cap)
        r = subprocess.run(["tshark", "-r", path, "-T", "fields", "-e", "frame.protocols"],
                           capture_output=True, timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn(b"icmp", r.stdout)

    def test_report_and_oops_members(self):
        digest = self.member("sysdigest.txt").decode()
        for title in ("kernel", "memory", "interfaces", "processes"):
            self.assertIn(title, digest)
        # standard output and error, as the member stores them
        want = self.dev.sh("/usr/sbin/oopslog -r /dev/part/oops 2>&1").stdout
        self.assertEqual(self.member("oopslog"), want)
        self.assertTrue(want)
        self.assertEqual(self.member("media.conf"),
                         self.dev.run(["cat", "/etc/ws/onvif/media/media.conf"]).stdout)

    def test_gzip_archive(self):
        r = self.dev.sh("debugar.cgi -d 2>/dev/null", timeout=300)
        gz = os.path.join(self.tmp, "x.tgz")
        with open(gz, "wb") as f:
            f.write(r.stdout)
        self.assertEqual(r.stdout[:3], b"\x1f\x8b\x08")
        self.assertEqual(subprocess.run(["gzip", "-t", gz]).returncode, 0)
        r = subprocess.run(["tar", "-tzf", gz], capture_output=True)
        self.assertEqual(r.returncode, 0, r.stderr)
        names = r.stdout.decode().splitlines()
        _, rel = strip(names)
        self.assertEqual(rel[:2], ["dbg-monitor.txt", "media.conf"])
        self.assertIn("netdump.cap", rel)
        self.assertTrue(any(n.endswith("/core") for n in rel))
        # the filter process itself is neither traced nor dumped: only the
        # device's own programs and the shell's children
        self.assertFalse(any(n.startswith("debugar.cgi.") for n in rel))

    def test_capture_leaves_out_the_downloads_own_connection(self):
        srv = self.dev.popen(["python3", "-c", SERVER], stdout=subprocess.PIPE)
        try:
            self.assertEqual(srv.stdout.readline().strip(), b"listening")
            out = os.path.join(self.tmp, "tcp.tar")
            c = self.dev.peer_popen([sys.executable, "-c", CLIENT, self.dev.ip4, str(PORT), out],
                                    stdout=subprocess.PIPE)
            local = int(c.stdout.readline())
            c.wait(timeout=300)
        finally:
            srv.wait(timeout=60)
        with tarfile.open(out) as t:
            m = next(m for m in t.getmembers() if m.name.endswith("/netdump.cap"))
            cap = t.extractfile(m).read()
        path = os.path.join(self.tmp, "tcp.cap")
        with open(path, "wb") as f:
            f.write(cap)
        r = subprocess.run(["tshark", "-r", path, "-T", "fields", "-e", "tcp.srcport",
                            "-e", "tcp.dstport", "-e", "frame.protocols"],
                           capture_output=True, timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        lines = r.stdout.decode().splitlines()
        own = [l for l in lines if str(PORT) in l.split("\t")[:2] or str(local) in l.split("\t")[:2]]
        self.assertEqual(own, [], "frames of the download's own connection")
        self.assertTrue(any("icmp" in l or "udp" in l for l in lines), "other traffic kept")

    def test_two_archives_of_one_process_differ_in_the_sequence(self):
        r = self.dev.run([SEQ], timeout=120)
        self.assertEqual(r.returncode, 0, r.stderr)
        a, b = r.stdout.decode().split()
        self.assertEqual(PREFIX_RE.match(a).group(1), "0")
        self.assertEqual(PREFIX_RE.match(b).group(1), "1")

    def test_a_client_leaving_during_the_trace_gets_no_further_members(self):
        self.dev.run(["sh", "-c", f"printf '{DUMPER_MARK}' > /tmp/mark.sh; chmod 755 /tmp/mark.sh;"
                      " rm -f /tmp/dumper-called"], check=True)
        # The reader cannot see what is written after it left; strace(1)
        # sees every write the composer still tries.
        r = self.dev.sh("strace -f -qq -e signal=none -e trace=write,socket,execve -s 64 "
                        "-o /tmp/composer.calls debugar.cgi -d -t -p /tmp/mark.sh 2>/dev/null | "
                        f"python3 -c '{LEAVER}'", timeout=120)
        self.assertIn(b"strace.log", r.stdout)
        calls = self.dev.run(["cat", "/tmp/composer.calls"], check=True).stdout.decode(
            errors="replace").splitlines()
        # The archive's descriptor: the one its trace member's header went to.
        header = next(i for i, c in enumerate(calls) if "write(" in c and "strace.log" in c)
        fd = re.search(r"write\((\d+), ", calls[header]).group(1)
        w = f"write({fd}, "
        failed = next((i for i, c in enumerate(calls) if "EPIPE" in c), None)
        self.assertIsNotNone(failed, "a write onto the vanished reader failed")
        self.assertGreater(failed, header)
        first = calls[failed] if w in calls[failed] else calls[failed - 1]
        self.assertNotIn(w + '"' + " " * 64, first, "the failed write is trace text, not filler")
        # The tracer may still hand over text until it ends; nothing of
        # the archive comes after it: no filler, no later member's header,
        # no capture, no command.
        after = calls[failed + 1:]
        self.assertEqual([c for c in after if w + '"' + " " * 64 in c], [], "filler")
        self.assertEqual([c for c in after if re.search(re.escape(w) + r'"debug-\d{8}-\d{6}-c\d+/', c)],
                         [], "member headers")
        self.assertEqual([c for c in after if "AF_PACKET" in c or "execve(" in c], [],
                         "no capture and no command after the failed trace write")
        self.assertEqual(self.dev.run(["test", "-e", "/tmp/dumper-called"]).returncode, 1,
                         "no core was dumped after the client left")

    def test_descriptor_1_of_a_dump_is_standard_error(self):
        # Whatever is printed on the way (the tracer's warnings) goes to
        # standard error; the archive keeps standard output's file on a
        # descriptor of its own.  The loop polls the dump's descriptor
        # table for the state after its set-up, with a bound of a minute.
        r = self.dev.sh(
            "debugar.cgi -d -t > /tmp/d1.tar 2> /tmp/d1.err & pid=$!; i=0; "
            "while [ \"$(readlink /proc/$pid/fd/1)\" != /tmp/d1.err ] && [ $i -lt 6000 ]; do "
            "sleep 0.01; i=$((i + 1)); done; "
            "echo fd1=$(readlink /proc/$pid/fd/1); "
            "for f in /proc/$pid/fd/*; do readlink $f; done | grep -c '^/tmp/d1.tar$'; "
            "wait $pid; echo rc=$?; tar -tf /tmp/d1.tar > /dev/null && echo tar-ok",
            timeout=300)
        self.assertEqual(r.stdout.decode().split(), ["fd1=/tmp/d1.err", "1", "rc=0", "tar-ok"],
                         r.stderr)

    def test_help(self):
        r = self.dev.run(["debugar.cgi", "-h"])
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stdout, (
            b"dbg-cgi 0.1\ndbg-cgi [options] [pids...]\n\n"
            b"-d\tdump tar archive with core-files for pids to stdout.\n"
            b"-t\tonly tar the archive.\n-i\tignore pid\n"
            b"-p\tprogram to create coredumps [/usr/bin/memsnap]\n"
            b"-c\tcgi control socket name [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
            b"-s\tsegfault control socket name [/var/run/dbg-cgi/ctrl-segf-socket]\n"
            b"-h\thelp\n"))


def main():
    global SEQ
    argv = bb.setup()
    seq = [a for a in argv if a.startswith("--seq=")]
    SEQ = seq[0].split("=", 1)[1]
    argv = [a for a in argv if not a.startswith("--seq=")]
    unittest.main(argv=argv, verbosity=2)


if __name__ == "__main__":
    main()
