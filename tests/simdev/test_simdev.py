"""The simulated device (tools/simdev), built from the staged install and
judged from outside: its paths and their contents, the oops partition read
by the installed oopslog, the system report, eth0 and its traffic seen by
tcpdump, a peer reaching the device, the device's own processes, the shell a
person enters, and that the machine's own files, network and process table
are the same afterwards, with nothing left behind."""
import hashlib
import os
import pty
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import bb
import simdev
from bb import wait_until

APPLETS = ["toolnest", "debugar.cgi", "coredump-handler", "mon", "tstrace", "pcapdump",
           "stopper", "ctest"]
SECTIONS = ["kernel", "uptime", "memory", "mounts", "disk usage", "interfaces", "routes",
            "sockets", "processes", "kernel messages", "end"]
MAGIC = 0x5d005d00

# What the device must never leave on the machine.
HOST_PATHS = ["/run/dbg-cgi", "/var/run/dbg-cgi", "/etc/conf.d", "/etc/ws",
              "/var/spool/storage", "/usr/bin/memsnap", "/usr/bin/hearth",
              "/usr/sbin/gen_sysdigest.sh", "/usr/bin/toolnest", "/usr/sbin/oopslog",
              "/dev/part", "/run/hearth.pid"]
HOST_FILES = ["/etc/hostname", "/etc/hosts"]


def host_snapshot():
    snap = {}
    for p in HOST_PATHS:
        try:
            st = os.lstat(p)
            snap[p] = (st.st_mode, st.st_mtime_ns)
        except FileNotFoundError:
            snap[p] = None
    for p in HOST_FILES:
        with open(p, "rb") as f:
            snap[p] = (f.read(), os.stat(p).st_mtime_ns)
    snap["links"] = sorted(os.listdir("/sys/class/net"))
    snap["addrs"] = subprocess.run(["ip", "-br", "addr"], capture_output=True,
                                   check=True).stdout
    snap["hostname"] = socket.gethostname()
    return snap


def ns_of(pid, kind):
    try:
        return os.readlink(f"/proc/{pid}/ns/{kind}")
    except OSError:
        return None


def pids_in(kind, ns):
    """Live host processes in the given namespace (zombies have ended)."""
    return [int(p) for p in os.listdir("/proc")
            if p.isdigit() and ns_of(p, kind) == ns and simdev.process_alive(p)]


def loop_seq(loop):
    """The loop device's disk sequence number, new with every file attached."""
    with open(f"/sys/block/{os.path.basename(loop)}/diskseq") as f:
        return int(f.read())


def loop_attached(loop, seq):
    """Whether the loop device still holds the file it held under sequence
    number seq.  A freed loop device is soon taken by someone else (another
    test, another device): the sequence number tells theirs from ours."""
    try:
        now = loop_seq(loop)
    except FileNotFoundError:
        return False
    return now == seq and os.path.exists(f"/sys/block/{os.path.basename(loop)}/loop/backing_file")


def sections(report):
    """{title: text} of a report made of "==== title ====" sections."""
    out, title = {}, None
    for line in report.splitlines():
        if line.startswith("==== ") and line.endswith(" ===="):
            title = line[5:-5]
            out[title] = ""
        elif title is not None:
            out[title] += line + "\n"
    return out


def stage_has(rel):
    return os.path.lexists(bb.path(rel))


BEFORE = None


def setUpModule():
    global BEFORE
    BEFORE = host_snapshot()


def tearDownModule():
    after = host_snapshot()
    for key in BEFORE:
        assert BEFORE[key] == after[key], f"the machine's {key} changed"
    for p in HOST_PATHS:
        assert BEFORE[p] is not None or after[p] is None, p


class Shared(unittest.TestCase):
    """One device for many checks: it stays up across commands."""

    @classmethod
    def setUpClass(cls):
        cls.dev = simdev.Device(prefix=bb.PREFIX)

    @classmethod
    def tearDownClass(cls):
        cls.dev.stop()

    def run_ok(self, args, **kw):
        r = self.dev.run(args, **kw)
        self.assertEqual(r.returncode, 0, (args, r.stdout, r.stderr))
        return r.stdout.decode()

    def sh_ok(self, script, **kw):
        return self.run_ok(["/bin/sh", "-c", script], **kw)


class Files(Shared):
    def test_installed_programs_at_device_paths(self):
        for name in APPLETS:
            self.assertEqual(self.sh_ok(f"readlink -f /usr/bin/{name}"), "/usr/bin/toolnest\n")
            self.sh_ok(f"test -x /usr/bin/{name}")
        self.assertEqual(self.sh_ok("readlink -f /usr/sbin/oopslog"), "/usr/bin/toolnest\n")
        with open(bb.path("bin/toolnest"), "rb") as f:
            want = hashlib.sha256(f.read()).hexdigest()
        self.assertEqual(self.run_ok(["sha256sum", "/usr/bin/toolnest"]).split()[0], want)
        # The installed binary runs there under its applet names.
        self.assertEqual(self.dev.run(["/usr/bin/ctest"]).returncode, 0)
        r = self.dev.run(["/usr/bin/toolnest", "no-such-applet"])
        self.assertEqual((r.returncode, r.stdout), (1, b"no-such-applet: unknown toolnest applet\n"))
        # The core dumper is there exactly when the install has it.
        has = self.dev.run(["test", "-e", "/usr/bin/memsnap"]).returncode == 0
        self.assertEqual(has, stage_has("bin/memsnap"))
        for prog in ("/bin/ps", "/bin/ls", "/bin/sleep", "/usr/sbin/gen_sysdigest.sh",
                     "/usr/bin/hearth"):
            self.sh_ok(f"test -x {prog}")
        self.assertIn("PID", self.run_ok(["/bin/ps"]))

    def fstype(self, path):
        return self.run_ok(["stat", "-f", "-c", "%T", path]).strip()

    def test_run_directory_and_monitor_report(self):
        self.assertEqual(self.fstype("/var/run/dbg-cgi"), "tmpfs")
        text = self.run_ok(["cat", "/var/run/dbg-cgi/dbg-monitor.txt"])
        lines = text.splitlines()
        self.assertRegex(lines[0], r"^Debug monitor status round=[0-9a-f]+$")
        self.assertEqual(lines[1], "")
        hearth = self.sh_ok("cat /run/hearth.pid").strip()
        self.assertRegex(lines[2], rf"^fdstats for pid={hearth} score=\d+:$")
        self.assertEqual(len(lines), 11)
        # The service will write its own report there.
        self.sh_ok("echo x > /var/run/dbg-cgi/probe && rm /var/run/dbg-cgi/probe")

    def test_configuration_files(self):
        conf = self.run_ok(["cat", "/etc/ws/onvif/media/media.conf"])
        self.assertIn("[Profile_1]", conf)
        self.assertGreater(len(conf), 100)
        self.assertEqual(self.fstype("/etc/conf.d"), "tmpfs")
        cfg = "[Core]\nCoreHandler=socket\n"
        self.sh_ok(f"printf '{cfg}' > /etc/conf.d/debugar.cgi")
        self.assertEqual(self.run_ok(["cat", "/etc/conf.d/debugar.cgi"]), cfg)
        self.assertFalse(os.path.exists("/etc/conf.d"))
        self.assertEqual(self.run_ok(["cat", "/etc/hostname"]), "simdev\n")

    def test_storage_and_tmp(self):
        self.assertEqual(self.fstype("/var/spool/storage/SD_DISK"), "tmpfs")
        self.assertEqual(self.fstype("/tmp"), "tmpfs")
        marker = "simdev-test-%d" % os.getpid()
        self.sh_ok(f"echo core > /var/spool/storage/SD_DISK/dumps/{marker} && "
                   f"echo t > /tmp/{marker} && ls /var/spool/storage/SD_DISK/dumps")
        self.assertFalse(os.path.exists(f"/tmp/{marker}"))
        # The machine's own tree is visible but read-only; /etc, /usr, /var
        # and /root take writes into the device's memory.
        r = self.dev.run(["touch", "/srv/x"])
        self.assertNotEqual(r.returncode, 0)
        self.assertIn(b"Read-only file system", r.stderr)
        self.sh_ok(f"touch /usr/bin/{marker} /var/{marker} /root/{marker}")
        for p in (f"/usr/bin/{marker}", f"/var/{marker}", f"/root/{marker}"):
            self.assertFalse(os.path.exists(p), p)

    def test_oops_partition(self):
        self.assertEqual(self.run_ok(["stat", "-c", "%F", "/dev/part/oops"]),
                         "block special file\n")
        raw = self.dev.run(["cat", "/dev/part/oops"], check=True).stdout
        self.assertEqual(len(raw) % 4096, 0)
        slots = {}
        for i in range(len(raw) // 4096):
            count, magic = struct.unpack_from("<II", raw, i * 4096)
            if count != 0xffffffff and magic == MAGIC:
                slots[i] = (count, raw[i * 4096 + 8:(i + 1) * 4096].split(b"\xff")[0])
        self.assertGreaterEqual(len(slots), 3)
        # A wrapped ring: newest (7) in slot 1, then 6 in slot 0, 5 in slot 2.
        self.assertEqual({i: c for i, (c, _) in slots.items()}, {0: 6, 1: 7, 2: 5})

        def entries(order):
            return b"".join(b"Log Entry %d (at position %d)\n" % (slots[i][0], i) + slots[i][1]
                            for i in order)

        r = self.dev.run(["/usr/sbin/oopslog", "-r", "/dev/part/oops"])
        self.assertEqual((r.returncode, r.stderr, r.stdout),
                         (0, b"Last log is at position 1 with count 7\n", entries([0, 2, 1])))
        r = self.dev.run(["/usr/sbin/oopslog", "/dev/part/oops"])
        self.assertEqual((r.returncode, r.stdout), (0, entries([2, 0, 1])))

    def test_system_report(self):
        t0 = time.monotonic()
        r = self.dev.run(["/usr/sbin/gen_sysdigest.sh"], timeout=30)
        elapsed = time.monotonic() - t0
        print(f"\ngen_sysdigest.sh: {elapsed:.2f} s with the device's exec, "
              f"{len(r.stdout)} bytes", file=sys.stderr)
        self.assertEqual(r.returncode, 0, r.stderr)
        text = r.stdout.decode()
        self.assertTrue(text.startswith("system digest of simdev, "), text[:80])
        titles = [l[5:-5] for l in text.splitlines() if l.startswith("==== ")]
        self.assertEqual(titles, SECTIONS)
        s = sections(text)
        self.assertIn(os.uname().release, s["kernel"])
        self.assertIn("load average", s["uptime"])
        self.assertIn("MemTotal:", s["memory"])
        self.assertIn("/var/spool/storage/SD_DISK", s["mounts"])
        self.assertIn("/var/spool/storage/SD_DISK", s["disk usage"])
        self.assertIn("10.66.0.1/24", s["interfaces"])
        self.assertIn("eth0", s["interfaces"])
        self.assertIn("default via 10.66.0.2", s["routes"])
        self.assertIn(":7000", s["sockets"])
        self.assertIn("hearth", s["processes"])
        self.assertIn("mediad", s["processes"])
        self.assertEqual(s["end"], "")


class Network(Shared):
    def test_eth0_addresses(self):
        out = self.run_ok(["ip", "-o", "addr", "show", "dev", "eth0"])
        self.assertIn("inet 10.66.0.1/24", out)
        self.assertIn("inet6 fd66::1/64", out)
        self.assertIn("02:00:0a:42:00:01", self.run_ok(["cat", "/sys/class/net/eth0/address"]))
        self.assertEqual(sorted(self.run_ok(["ls", "/sys/class/net"]).split()), ["eth0", "lo"])
        self.assertIn("LOOPBACK,UP", self.run_ok(["ip", "-o", "link", "show", "lo"]))
        self.assertEqual((self.dev.ip4, self.dev.ip6, self.dev.peer_ip4, self.dev.peer_ip6),
                         ("10.66.0.1", "fd66::1", "10.66.0.2", "fd66::2"))
        out = self.dev.peer_run(["ip", "-o", "addr", "show", "dev", "peer0"], check=True).stdout
        self.assertIn(b"inet 10.66.0.2/24", out)
        self.assertIn("LOOPBACK,UP", self.dev.peer_run(["ip", "-o", "link", "show", "lo"],
                                                       check=True).stdout.decode())

    def test_background_traffic_on_eth0(self):
        with tempfile.TemporaryDirectory(prefix="tn-simdev-") as d:
            pcap = os.path.join(d, "bg.pcap")
            r = self.dev.run(["timeout", "30", "tcpdump", "-i", "eth0", "-n", "-c", "12", "-U",
                              "-w", "-", "icmp or udp port 5004"], timeout=60)
            self.assertEqual(r.returncode, 0, r.stderr)
            with open(pcap, "wb") as f:
                f.write(r.stdout)
            out = subprocess.run(["tcpdump", "-n", "-r", pcap], capture_output=True,
                                 check=True).stdout.decode()
        lines = out.splitlines()
        self.assertEqual(len(lines), 12)
        self.assertTrue(any("10.66.0.2 > 10.66.0.1: ICMP echo request" in l for l in lines))
        self.assertTrue(any("10.66.0.1 > 10.66.0.2: ICMP echo reply" in l for l in lines))
        self.assertTrue(any("10.66.0.1.5004: UDP" in l for l in lines), out)

    def test_peer_reaches_device(self):
        server = ("import socket\n"
                  "l = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)\n"
                  "l.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)\n"
                  "l.bind(('::', 9000)); l.listen(4)\n"
                  "for _ in range(2):\n"
                  "    c, a = l.accept(); c.sendall(c.recv(100).upper() + b' ' + a[0].encode())\n"
                  "    c.close()\n")
        p = self.dev.popen(["python3", "-c", server], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE)
        try:
            wait_until(lambda: ":9000 " in self.run_ok(["ss", "-Htln"]), "the listener")
            client = ("import socket, sys\n"
                      "s = socket.create_connection((sys.argv[1], 9000), timeout=20)\n"
                      "s.sendall(b'hello'); print(s.recv(200).decode())\n")
            for addr, seen in ((self.dev.ip4, "::ffff:10.66.0.2"), (self.dev.ip6, "fd66::2")):
                r = self.dev.peer_run(["python3", "-c", client, addr], check=True)
                self.assertEqual(r.stdout.decode(), f"HELLO {seen}\n")
            self.assertEqual(p.wait(timeout=30), 0)
        finally:
            self.dev.kill(p)
            p.communicate()
        # The main application's control port answers the peer as well.
        r = self.dev.peer_run(["python3", "-c",
                               "import socket; s = socket.create_connection(('10.66.0.1', 7000)); "
                               "print(s.recv(100).decode(), end='')"], check=True)
        self.assertRegex(r.stdout.decode(), r"^hearth 1\.0 frames=\d+\n$")

    def test_device_reaches_the_peer(self):
        r = self.dev.run(["ping", "-c", "1", "-W", "5", self.dev.peer_ip4])
        self.assertEqual(r.returncode, 0, r.stdout)


class Processes(Shared):
    def device_processes(self):
        """{pid: (argv0 name, number of threads)} from the device's /proc."""
        script = ("import os\n"
                  "for p in os.listdir('/proc'):\n"
                  "    if p.isdigit():\n"
                  "        try:\n"
                  "            a = open(f'/proc/{p}/cmdline', 'rb').read().split(b'\\0')[0]\n"
                  "            n = len(os.listdir(f'/proc/{p}/task'))\n"
                  "        except OSError:\n"
                  "            continue\n"
                  "        print(p, os.path.basename(a.decode()), n)\n")
        out = self.run_ok(["python3", "-c", script])
        procs = {}
        for line in out.splitlines():
            pid, name, n = line.split()
            procs[int(pid)] = (name, int(n))
        return procs

    def test_named_processes_only(self):
        procs = self.device_processes()
        names = sorted(name for name, _ in procs.values())
        self.assertIn(1, procs)
        # The device's init, its programs and the python that made this list.
        self.assertEqual(procs[1][0], "init")
        self.assertEqual(names, ["hearth", "init", "mediad", "python3", "storaged"])
        hearth = [n for name, n in procs.values() if name == "hearth"]
        self.assertEqual(len(hearth), 1)
        self.assertGreaterEqual(hearth[0], 4)
        # Seen from the machine, they live in the device's pid namespace.
        ns = ns_of(self.dev.init_pid, "pid")
        mine = pids_in("pid", ns)
        self.assertGreaterEqual(len(mine), 4)
        self.assertNotEqual(ns, ns_of(os.getpid(), "pid"))
        self.assertNotEqual(ns_of(self.dev.init_pid, "net"), ns_of(os.getpid(), "net"))
        self.assertNotEqual(ns_of(self.dev.peer_pid, "net"), ns_of(os.getpid(), "net"))

    def test_init_restarts_and_reaps(self):
        pid = self.sh_ok("pgrep -f '^/usr/bin/mediad'").split()
        self.assertEqual(len(pid), 1)
        self.run_ok(["kill", pid[0]])

        def restarted():
            now = self.dev.sh("pgrep -f '^/usr/bin/mediad'").stdout.split()
            return len(now) == 1 and now != [pid[0].encode()]

        wait_until(restarted, "mediad to be started again")
        # An orphan that ends is reaped by the device's init: no zombie stays.
        self.sh_ok("sleep 0.2 > /dev/null 2>&1 &")
        wait_until(lambda: not self.dev.sh("ps -eo stat,args | grep -E '^Z|sleep 0.2' "
                                           "| grep -v grep").stdout,
                   "the orphan to be reaped")

    def test_thread_names(self):
        out = self.sh_ok("cat /proc/$(cat /run/hearth.pid)/task/*/comm")
        self.assertEqual(sorted(out.split()), ["hearth", "hearth-ctl", "hearth-rx", "hearth-work"])

    def test_exit_status_and_streams(self):
        r = self.dev.run(["/bin/sh", "-c", "read x; echo out $x; echo err >&2; exit 5"],
                         input=b"in\n")
        self.assertEqual((r.returncode, r.stdout, r.stderr), (5, b"out in\n", b"err\n"))
        r = self.dev.run(["env"])
        self.assertEqual(sorted(l.split("=")[0] for l in r.stdout.decode().splitlines()),
                         ["HOME", "PATH", "TERM"])
        r = self.dev.run(["printenv", "X"], env={"X": "y"})
        self.assertEqual(r.stdout, b"y\n")


class Lifecycle(unittest.TestCase):
    def facts(self, dev):
        return dict(pid=ns_of(dev.init_pid, "pid"), net=ns_of(dev.init_pid, "net"),
                    mnt=ns_of(dev.init_pid, "mnt"), peer=ns_of(dev.peer_pid, "net"),
                    loop=dev.loop, loop_seq=loop_seq(dev.loop) if dev.loop else None,
                    supervisor=dev.supervisor_pid, state=dev.state)

    def assert_gone(self, f):
        self.assertEqual(pids_in("pid", f["pid"]), [])
        self.assertEqual(pids_in("net", f["net"]), [])
        self.assertEqual(pids_in("mnt", f["mnt"]), [])
        self.assertEqual(pids_in("net", f["peer"]), [])
        self.assertFalse(simdev.process_alive(f["supervisor"]))
        self.assertFalse(loop_attached(f["loop"], f["loop_seq"]), f["loop"])

    def test_stop_leaves_nothing(self):
        dev = simdev.Device(prefix=bb.PREFIX)
        f = self.facts(dev)
        self.assertTrue(f["loop"].startswith("/dev/loop"))
        self.assertTrue(loop_attached(f["loop"], f["loop_seq"]))
        # A command still running and an orphan adopted by the device's init.
        p = dev.popen(["sleep", "1000"])
        dev.run(["/bin/sh", "-c", "sleep 1000 > /dev/null 2>&1 &"], check=True)
        wait_until(lambda: len(pids_in("pid", f["pid"])) >= 6, "both sleeps")
        dev.stop()
        self.assertEqual(p.wait(timeout=30), -signal.SIGTERM)
        self.assertFalse(os.path.exists(f["state"]))
        wait_until(lambda: not simdev.process_alive(f["supervisor"]), "the supervisor")
        self.assert_gone(f)

    def test_killed_supervisor_takes_the_device_along(self):
        dev = simdev.Device(prefix=bb.PREFIX)
        f = self.facts(dev)
        os.kill(dev.supervisor_pid, signal.SIGKILL)
        wait_until(lambda: not pids_in("pid", f["pid"]), "the device's processes")
        wait_until(lambda: not loop_attached(f["loop"], f["loop_seq"]), "the loop device")
        wait_until(lambda: not simdev.process_alive(f["supervisor"]), "the supervisor")
        self.assert_gone(f)
        self.assertTrue(os.path.isdir(f["state"]))
        dev.stop()   # clears the stale state directory
        self.assertFalse(os.path.exists(f["state"]))

    def test_tied_process_ending_stops_the_device(self):
        holder = subprocess.Popen(["sleep", "1000"])
        try:
            r = subprocess.run([simdev.SIMDEV_SH, "start", "-p", bb.PREFIX, "-t", str(holder.pid)],
                               capture_output=True, check=True, timeout=60)
            state = r.stdout.decode().strip()
            info = simdev.read_info(state)
            seq = loop_seq(info["SIMDEV_LOOP"])
            ns = ns_of(info["SIMDEV_INIT_PID"], "pid")
            self.assertTrue(pids_in("pid", ns))
        finally:
            holder.kill()
            holder.wait()
        wait_until(lambda: not os.path.exists(state), "the state directory to go")
        wait_until(lambda: not pids_in("pid", ns), "the device's processes")
        self.assertFalse(loop_attached(info["SIMDEV_LOOP"], seq))

    def device_loop(self, dev_no):
        """The loop device and its sequence number from "major minor [seq]"
        (hex numbers as stat prints them)."""
        words = dev_no.split()
        major, minor = (int(x, 16) for x in words[:2])
        with open(f"/sys/dev/block/{major}:{minor}/uevent") as f:
            name = next(l for l in f if l.startswith("DEVNAME=")).split("=")[1].strip()
        return "/dev/" + name, int(words[2]) if len(words) > 2 else loop_seq(name)

    def test_run_one_command(self):
        r = subprocess.run([simdev.SIMDEV_SH, "run", "-p", bb.PREFIX, "--", "/bin/sh", "-c",
                            "cat /etc/hostname; readlink /proc/1/ns/pid; "
                            "set -- $(stat -c '%t %T' /dev/part/oops); "
                            "echo $1 $2 $(cat /sys/dev/block/$((0x$1)):$((0x$2))/diskseq); exit 7"],
                           capture_output=True, timeout=60)
        self.assertEqual(r.returncode, 7, r.stderr)
        host, ns, dev_no = r.stdout.decode().splitlines()
        self.assertEqual(host, "simdev")
        # The namespace's last processes may still be on their way out when
        # the command's status is back.
        wait_until(lambda: not pids_in("pid", ns), "the device's processes")
        self.assertNotEqual(ns, ns_of(os.getpid(), "pid"))
        self.assertFalse(loop_attached(*self.device_loop(dev_no)))

    def test_interrupted_run_cleans_up(self):
        p = subprocess.Popen([simdev.SIMDEV_SH, "run", "-p", bb.PREFIX, "--", "/bin/sh", "-c",
                              "readlink /proc/1/ns/pid; stat -c '%t %T' /dev/part/oops; "
                              "exec sleep 1000"], stdout=subprocess.PIPE)
        ns = p.stdout.readline().decode().strip()
        # Read while the device runs: the loop device is still ours.
        loop, seq = self.device_loop(p.stdout.readline().decode())
        self.assertTrue(pids_in("pid", ns))
        p.send_signal(signal.SIGTERM)
        self.assertEqual(p.wait(timeout=30), -signal.SIGTERM)
        p.stdout.close()
        wait_until(lambda: not pids_in("pid", ns), "the device's processes")
        wait_until(lambda: not loop_attached(loop, seq), "the loop device")

    def test_root_layout(self):
        """-r takes a DESTDIR tree: its usr and etc lie over the device's."""
        with tempfile.TemporaryDirectory(prefix="tn-simdev-root-") as root:
            os.symlink(bb.PREFIX, os.path.join(root, "usr"))
            os.mkdir(os.path.join(root, "etc"))
            with open(os.path.join(root, "etc", "extra.conf"), "w") as f:
                f.write("from the root\n")
            with simdev.Device(root=root) as dev:
                r = dev.sh("readlink -f /usr/sbin/oopslog; cat /etc/extra.conf; "
                           "test -f /etc/ws/onvif/media/media.conf && echo media", check=True)
        self.assertEqual(r.stdout, b"/usr/bin/toolnest\nfrom the root\nmedia\n")

    def test_two_devices_side_by_side(self):
        with simdev.Device(prefix=bb.PREFIX) as a, simdev.Device(prefix=bb.PREFIX) as b:
            a.run(["/bin/sh", "-c", "echo a > /etc/conf.d/which"], check=True)
            r = b.run(["cat", "/etc/conf.d/which"])
            self.assertNotEqual(r.returncode, 0)
            self.assertNotEqual(a.loop, b.loop)
            for d in (a, b):
                r = d.peer_run(["ping", "-c", "1", "-W", "5", d.ip4])
                self.assertEqual(r.returncode, 0)

    def test_interactive_shell(self):
        """What a person types: one command, a shell inside, the device gone
        after it."""
        pid, fd = pty.fork()
        if pid == 0:
            os.execv(simdev.SIMDEV_SH, [simdev.SIMDEV_SH, "shell", "-p", bb.PREFIX])
        os.write(fd, b"echo inside-$((6*7)) $(hostname) $(readlink /proc/1/ns/pid); exit 3\n")
        out = b""
        end = time.monotonic() + 60
        while time.monotonic() < end:
            if select.select([fd], [], [], 1)[0]:
                try:
                    chunk = os.read(fd, 4096)
                except OSError:
                    break
                if not chunk:
                    break
                out += chunk
        _, status = os.waitpid(pid, 0)
        os.close(fd)
        self.assertEqual(os.waitstatus_to_exitcode(status), 3, out)
        line = next(l for l in out.decode(errors="replace").splitlines()
                    if l.startswith("inside-42"))
        _, host, ns = line.split()
        self.assertEqual(host, "simdev")
        self.assertEqual(pids_in("pid", ns), [])


class Busybox(unittest.TestCase):
    def test_report_with_busybox_tools(self):
        """gen_sysdigest.sh under busybox sh with busybox's tools (and no ss,
        no timeout) in place of the full ones: every section, no hang."""
        bbx = "/bin/busybox"
        if not os.path.exists(bbx):
            self.fail("busybox is not installed (tools/packages)")
        tools = ["uname", "cat", "uptime", "free", "df", "ip", "ps", "top", "dmesg", "tail",
                 "head", "date", "hostname", "netstat", "route", "ifconfig"]
        with simdev.Device(prefix=bb.PREFIX) as dev:
            links = " ".join(f"ln -sf {bbx} /usr/bin/{t}; ln -sf {bbx} /usr/sbin/{t} 2>/dev/null;"
                             for t in tools)
            dev.sh("rm -f /usr/bin/ss /usr/sbin/ss /usr/bin/timeout; " + links, check=True)
            self.assertNotEqual(dev.run(["sh", "-c", "command -v ss"]).returncode, 0)
            r = dev.run([bbx, "sh", "/usr/sbin/gen_sysdigest.sh"], timeout=30)
        self.assertEqual(r.returncode, 0, r.stderr)
        text = r.stdout.decode()
        titles = [l[5:-5] for l in text.splitlines() if l.startswith("==== ")]
        self.assertEqual(titles, SECTIONS)
        s = sections(text)
        self.assertIn("10.66.0.1", s["interfaces"])
        self.assertIn(":7000", s["sockets"])
        self.assertIn("hearth", s["processes"])
        self.assertIn("MemTotal:", s["memory"])


if __name__ == "__main__":
    bb.main()
