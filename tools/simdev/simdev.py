#!/usr/bin/env python3
"""The simulated device: the parts of tools/simdev/simdev.sh that need more
than a shell.

  simdev.py start [-r ROOT] [-p PREFIX] [-s STATE] [-t PID]
      builds a device and prints its state directory once it is up.

Everything else here runs in the processes that `start` makes:

  supervise  the device's keeper on the host side.  It moves itself into a
             network namespace of its own, the "peer" (the outside world as
             the device sees it), starts the device, joins the two with a veth
             pair, keeps a little traffic flowing towards the device and tears
             everything down again on SIGTERM, SIGINT or SIGHUP, when the tied
             process ends, or when the device dies.
  init       pid 1 of the device: fresh mount, pid, network, UTS and IPC
             namespaces.  It builds the device's file system out of overlays
             and tmpfs mounts, attaches the oops partition, configures eth0,
             starts the device's programs, reaps orphans, restarts programs
             that die, and on SIGTERM stops everything.

Nothing of the machine's own file system or network changes: every mount is
made in the device's private mount namespace, every interface lives in one of
the two namespaces made here, and the loop device under /dev/part/oops clears
itself when its last user closes it.
"""
import argparse
import ctypes
import errno
import fcntl
import os
import select
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SKELETON = os.path.join(HERE, "rootfs")

HOSTNAME = "simdev"
IFNAME = "eth0"
PEER_IFNAME = "peer0"
PREFIX_LEN4 = 24
PREFIX_LEN6 = 64
DEVICE_IP4, PEER_IP4 = "10.66.0.1", "10.66.0.2"
DEVICE_IP6, PEER_IP6 = "fd66::1", "fd66::2"
DEVICE_MAC, PEER_MAC = "02:00:0a:42:00:01", "02:00:0a:42:00:02"
MEDIA_PORT = 5004      # hearth's UDP input: the peer's steady datagrams
CONTROL_PORT = 7000    # hearth's TCP control port: one greeting line, then close
STREAM_PORT = 554      # mediad's listening socket (nobody answers on it)
PING_INTERVAL = "0.2"
DATAGRAM_INTERVAL = 0.5

# Directories the device may write to: overlays whose upper layer is a tmpfs,
# over the machine's own directories.  The rest of the root is read-only.
OVERLAID = ("etc", "usr", "var", "root")

# The oops partition: eight 4096-byte slots, a wrapped ring of three reports
# (slot, sequence count, text).  Erased flash is 0xff.
OOPS_SLOTS = 8
OOPS_MAGIC = 0x5d005d00
OOPS_ENTRIES = [
    (5, 2, "CPU 0 Unable to handle kernel paging request at virtual address 00000010, "
           "epc == 8021c4f0, ra == 8021c4d8\nOops[#1]:\nCPU: 0 PID: 412 Comm: hearth "
           "Not tainted\n$ 0   : 00000000 00000001 00000000 8f2a6c00\nepc   : 8021c4f0 "
           "skb_release_data+0x30/0x118\nra    : 8021c4d8 skb_release_data+0x18/0x118\n"
           "Call Trace:\n[<8021c4f0>] skb_release_data+0x30/0x118\n[<8021c608>] "
           "__kfree_skb+0x14/0x28\n---[ end trace 1f2e3d4c5b6a7988 ]---\n"),
    (6, 0, "Kernel bug detected[#2]:\nCPU: 0 PID: 77 Comm: kworker/0:1 Tainted: G      D\n"
           "epc   : 80187a2c mtd_erase+0x5c/0x94\nra    : 80187a10 mtd_erase+0x40/0x94\n"
           "Call Trace:\n[<80187a2c>] mtd_erase+0x5c/0x94\n---[ end trace 2a3b4c5d6e7f8091 ]---\n"),
    (7, 1, "CPU 0 Unable to handle kernel paging request at virtual address 0000002c, "
           "epc == 8024e1b4, ra == 8024e1a0\nOops[#3]:\nCPU: 0 PID: 518 Comm: mediad "
           "Tainted: G      D\nepc   : 8024e1b4 tcp_sendmsg+0x8c/0xa60\nCall Trace:\n"
           "[<8024e1b4>] tcp_sendmsg+0x8c/0xa60\n[<801f3c2c>] sock_sendmsg+0x30/0x4c\n"
           "Kernel panic - not syncing: Fatal exception in interrupt\n"),
]

# <sys/mount.h>, <linux/sched.h>, <sys/prctl.h>, <linux/loop.h>
MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC = 1, 2, 4, 8
MS_REMOUNT, MS_BIND, MS_REC = 32, 4096, 16384
MNT_DETACH = 2
CLONE_NEWNET = 0x40000000
PR_SET_NAME, PR_SET_PDEATHSIG = 15, 1
LOOP_SET_FD, LOOP_SET_STATUS64, LOOP_GET_STATUS64 = 0x4C00, 0x4C04, 0x4C05
LOOP_CTL_GET_FREE = 0x4C82
LO_FLAGS_AUTOCLEAR = 4
LOOP_INFO64_SIZE, LOOP_INFO64_FLAGS_AT = 232, 52

libc = ctypes.CDLL(None, use_errno=True)


def log(*words):
    print(f"simdev[{os.getpid()}]:", *words, file=sys.stderr, flush=True)


def oserror(what):
    e = ctypes.get_errno()
    return OSError(e, f"{what}: {os.strerror(e)}")


def mount(source, target, fstype, flags=0, data=None):
    if libc.mount(source.encode() if source else None, target.encode(),
                  fstype.encode() if fstype else None, ctypes.c_ulong(flags),
                  data.encode() if data else None) != 0:
        raise oserror(f"mount {fstype or 'bind'} on {target}")


def detach(target):
    if libc.umount2(target.encode(), MNT_DETACH) != 0:
        raise oserror(f"umount {target}")


def tmpfs(target, mode="755", size=None, flags=MS_NOSUID | MS_NODEV):
    data = f"mode={mode}" + (f",size={size}" if size else "")
    mount("tmpfs", target, "tmpfs", flags, data)


def loop_seq(name):
    """The disk sequence number of a loop device (new with every file
    attached), or None when there is none."""
    if name == "-":
        return None
    try:
        with open(f"/sys/block/{name}/diskseq") as f:
            return int(f.read())
    except OSError:
        return None


def die_with_parent():
    """For child processes: SIGKILL when the parent goes, whatever way it goes."""
    if libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0) != 0:
        os._exit(127)


def python_env():
    """Environment that lets this interpreter run under another argv[0]."""
    return {"PYTHONHOME": f"{sys.base_prefix}:{sys.base_exec_prefix}",
            "PYTHONDONTWRITEBYTECODE": "1"}


def device_env():
    return {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root"}


def ip_batch(commands):
    subprocess.run(["ip", "-batch", "-"], input="\n".join(commands) + "\n",
                   text=True, check=True)


def oops_image():
    b = bytearray(b"\xff" * (OOPS_SLOTS * 4096))
    for count, slot, text in OOPS_ENTRIES:
        raw = struct.pack("<II", count, OOPS_MAGIC) + text.encode()
        b[slot * 4096:slot * 4096 + len(raw)] = raw
    return bytes(b)


class Lines:
    """Line messages over a pipe, read with a deadline."""

    def __init__(self, fd):
        self.fd = fd
        self.buf = b""

    def get(self, timeout):
        deadline = time.monotonic() + timeout
        while b"\n" not in self.buf:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError("no message within %.0f s" % timeout)
            if select.select([self.fd], [], [], left)[0]:
                chunk = os.read(self.fd, 4096)
                if not chunk:
                    raise EOFError("the other side went away")
                self.buf += chunk
        line, self.buf = self.buf.split(b"\n", 1)
        return line.decode()


def send(fd, text):
    os.write(fd, (text + "\n").encode())


# ---------------------------------------------------------------- device init

class Init:
    def __init__(self, args):
        self.args = args
        self.to_sup = args.out_fd
        self.from_sup = Lines(args.in_fd)
        self.loop_fd = None
        self.loop_name = "-"
        self.services = {}   # name -> spec
        self.running = {}    # pid -> name
        self.respawn = {}    # name -> monotonic time
        self.stopping = False

    # -- file system

    def layer_fds(self, top):
        """O_PATH descriptors of the layers of one overlaid directory, top first:
        the install, the device skeleton, the machine's own directory."""
        dirs = []
        if self.args.root:
            dirs.append(os.path.join(self.args.root, top))
        if self.args.prefix and top == "usr":
            dirs.append(self.args.prefix)
        dirs.append(os.path.join(SKELETON, top))
        dirs.append("/" + top)
        fds = []
        for d in dirs:
            if os.path.isdir(d):
                fds.append(os.open(d, os.O_PATH | os.O_DIRECTORY))
        return fds

    def build_fs(self):
        # Layer directories may live anywhere, /tmp and /run included, so they
        # are held open before anything is mounted over them.
        layers = {top: self.layer_fds(top) for top in OVERLAID
                  if os.path.isdir("/" + top) and not os.path.islink("/" + top)}

        # Upper and work directories of the overlays on a staging tmpfs; the
        # overlays keep their own references, so it is detached right after.
        stage = "/run"
        tmpfs(stage, mode="700", size="1g", flags=MS_NOSUID)
        for top, fds in layers.items():
            up, work = f"{stage}/{top}.up", f"{stage}/{top}.work"
            os.mkdir(up)
            os.mkdir(work)
            lower = ":".join(f"/proc/self/fd/{fd}" for fd in fds)
            mount("simdev", "/" + top, "overlay", 0,
                  f"lowerdir={lower},upperdir={up},workdir={work}")
            for fd in fds:
                os.close(fd)
        self.attach_oops(stage)
        detach(stage)

        tmpfs("/run", size="64m")
        os.makedirs("/run/lock", exist_ok=True)
        os.chmod("/run/lock", 0o1777)
        if not os.path.islink("/var/run"):
            tmpfs("/var/run", size="64m")
        os.makedirs("/var/run/dbg-cgi")
        tmpfs(os.path.realpath("/var/run/dbg-cgi"), size="64m")
        tmpfs("/tmp", mode="1777", size="1g")
        os.makedirs("/etc/conf.d", exist_ok=True)
        tmpfs("/etc/conf.d", size="4m")
        sd = "/var/spool/storage/SD_DISK"
        os.makedirs(sd, exist_ok=True)
        tmpfs(sd, size="512m")
        os.mkdir(sd + "/dumps")
        with open("/etc/hostname", "w") as f:
            f.write(HOSTNAME + "\n")
        with open("/etc/hosts", "w") as f:
            f.write(f"127.0.0.1\tlocalhost\n::1\tlocalhost\n{DEVICE_IP4}\t{HOSTNAME}\n"
                    f"{DEVICE_IP6}\t{HOSTNAME}\n{PEER_IP4}\tpeer\n{PEER_IP6}\tpeer\n")
        self.build_dev()

        # The machine's /proc and /sys (with what is mounted below them) make
        # way for the device's own.
        detach("/proc")
        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
        # Kernel-wide settings stay out of reach; the network ones are the
        # device's own.
        mount("/proc/sys", "/proc/sys", None, MS_BIND | MS_REC)
        hardened = MS_NOSUID | MS_NODEV | MS_NOEXEC
        mount(None, "/proc/sys", None, MS_REMOUNT | MS_BIND | MS_RDONLY | hardened)
        mount("/proc/sys/net", "/proc/sys/net", None, MS_BIND)
        mount(None, "/proc/sys/net", None, MS_REMOUNT | MS_BIND | hardened)
        detach("/sys")
        mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY)
        # The rest of the machine's tree is visible, not writable.
        mount(None, "/", None, MS_REMOUNT | MS_BIND | MS_RDONLY)
        socket.sethostname(HOSTNAME)

    def build_dev(self):
        detach("/dev")
        tmpfs("/dev", size="4m", flags=MS_NOSUID)
        for name, major, minor, mode in (("null", 1, 3, 0o666), ("zero", 1, 5, 0o666),
                                         ("full", 1, 7, 0o666), ("random", 1, 8, 0o666),
                                         ("urandom", 1, 9, 0o666), ("tty", 5, 0, 0o666),
                                         ("kmsg", 1, 11, 0o644)):
            os.mknod("/dev/" + name, stat.S_IFCHR | mode, os.makedev(major, minor))
            os.chmod("/dev/" + name, mode)
        for name, target in (("fd", "/proc/self/fd"), ("stdin", "/proc/self/fd/0"),
                             ("stdout", "/proc/self/fd/1"), ("stderr", "/proc/self/fd/2"),
                             ("ptmx", "pts/ptmx"), ("core", "/proc/kcore")):
            os.symlink(target, "/dev/" + name)
        os.mkdir("/dev/pts")
        mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
              "newinstance,ptmxmode=0666,mode=620")
        os.mkdir("/dev/shm")
        tmpfs("/dev/shm", mode="1777", size="64m")
        os.mkdir("/dev/part")
        if self.loop_fd is not None:
            os.mknod("/dev/part/oops", stat.S_IFBLK | 0o640, os.fstat(self.loop_fd).st_rdev)
        else:
            with open("/dev/part/oops", "wb") as f:
                f.write(oops_image())

    def attach_oops(self, stage):
        """A loop device over an in-memory image.  Autoclear, and this process
        holding it open for its lifetime, means the loop device is released
        when the device ends, however it ends."""
        try:
            ctl = os.open("/dev/loop-control", os.O_RDWR)
        except OSError as e:
            log(f"no loop devices ({e.strerror}): /dev/part/oops is a plain image")
            return
        image = os.memfd_create("simdev-oops")
        os.write(image, oops_image())
        try:
            for _ in range(20):
                n = fcntl.ioctl(ctl, LOOP_CTL_GET_FREE)
                with open(f"/sys/block/loop{n}/dev") as f:
                    major, minor = map(int, f.read().split(":"))
                node = f"{stage}/loop{n}"
                os.mknod(node, stat.S_IFBLK | 0o600, os.makedev(major, minor))
                fd = os.open(node, os.O_RDONLY)
                os.unlink(node)
                try:
                    fcntl.ioctl(fd, LOOP_SET_FD, image)
                except OSError as e:
                    os.close(fd)
                    if e.errno == errno.EBUSY:  # taken by someone else meanwhile
                        continue
                    raise
                info = bytearray(LOOP_INFO64_SIZE)
                fcntl.ioctl(fd, LOOP_GET_STATUS64, info)
                flags = struct.unpack_from("<I", info, LOOP_INFO64_FLAGS_AT)[0]
                struct.pack_into("<I", info, LOOP_INFO64_FLAGS_AT, flags | LO_FLAGS_AUTOCLEAR)
                fcntl.ioctl(fd, LOOP_SET_STATUS64, info)
                self.loop_fd, self.loop_name = fd, f"loop{n}"
                return
            raise OSError(errno.EBUSY, "no free loop device")
        finally:
            os.close(image)
            os.close(ctl)

    # -- network

    def configure_net(self):
        ip_batch([
            "link set lo up",
            f"addr add {DEVICE_IP4}/{PREFIX_LEN4} dev {IFNAME}",
            f"addr add {DEVICE_IP6}/{PREFIX_LEN6} dev {IFNAME} nodad",
            f"link set {IFNAME} up",
            f"route add default via {PEER_IP4}",
        ])

    # -- programs

    def define_services(self):
        py = self.args.python
        env = dict(device_env(), **python_env())
        self.services = {
            # The main application, with worker threads and sockets.
            "hearth": dict(path=py, argv=["/usr/bin/hearth", "/usr/bin/hearth"], env=env),
            # Two small daemons: argv[0] names them; each holds one descriptor.
            "mediad": dict(path="/bin/sleep", argv=["/usr/bin/mediad", "infinity"],
                           env=device_env(), hold=("tcp", STREAM_PORT)),
            "storaged": dict(path="/bin/sleep", argv=["/usr/bin/storaged", "infinity"],
                             env=device_env(),
                             hold=("file", "/var/spool/storage/SD_DISK/storage.idx")),
        }

    def spawn(self, name):
        spec = self.services[name]
        hold = spec.get("hold")
        pid = os.fork()
        if pid == 0:
            try:
                os.setsid()
                signal.pthread_sigmask(signal.SIG_SETMASK, set())
                for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGCHLD):
                    signal.signal(s, signal.SIG_DFL)
                os.chdir("/")
                null = os.open("/dev/null", os.O_RDWR)
                for fd in (0, 1, 2):
                    os.dup2(null, fd)
                if hold and hold[0] == "tcp":
                    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
                    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                    s.bind(("0.0.0.0", hold[1]))
                    s.listen(8)
                    os.dup2(s.fileno(), 3)
                    os.set_inheritable(3, True)
                elif hold and hold[0] == "file":
                    fd = os.open(hold[1], os.O_RDWR | os.O_CREAT, 0o644)
                    os.dup2(fd, 3)
                    os.set_inheritable(3, True)
                os.execve(spec["path"], spec["argv"], spec["env"])
            except BaseException as e:  # noqa: B902 - the child must never return
                try:
                    os.write(2, f"simdev: {name}: {e}\n".encode())
                finally:
                    os._exit(127)
        self.running[pid] = name
        return pid

    def write_monitor_report(self, hearth_pid):
        # What the debug service's leak monitor leaves after a few rounds.
        rows = [(96, 90, 2), (95, 89, 2), (95, 89, 2), (94, 88, 2), (95, 89, 2),
                (90, 84, 2), (88, 82, 2), (88, 82, 2)]
        text = "Debug monitor status round=3\n\n"
        text += f"fdstats for pid={hearth_pid} score={90 // 8}:\n"
        for label, (fds, socks, pipes) in zip((0, 1, 2, 3, 4, 37, 70, 103), rows):
            text += f"{label}h nr_fd={fds} nr_sock={socks} nr_pipe={pipes}\n"
        with open("/var/run/dbg-cgi/dbg-monitor.txt", "w") as f:
            f.write(text)

    def wait_file(self, path, pid, timeout):
        deadline = time.monotonic() + timeout
        while not os.path.exists(path):
            done, _ = os.waitpid(pid, os.WNOHANG)
            if done:
                raise RuntimeError(f"{path}: its program ended at start")
            if time.monotonic() > deadline:
                raise TimeoutError(f"{path} did not appear")
            time.sleep(0.01)

    # -- life

    def reap(self):
        while True:
            try:
                pid, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return
            name = self.running.pop(pid, None)
            if name and not self.stopping:
                log(f"{name} (pid {pid}) ended with status {status:#x}; restarting")
                self.respawn[name] = time.monotonic() + 0.5

    def others_alive(self):
        return any(p.isdigit() and p != "1" for p in os.listdir("/proc"))

    def shutdown(self):
        self.stopping = True
        os.kill(-1, signal.SIGTERM)   # every process of the device but this one
        deadline = time.monotonic() + 2.0
        while time.monotonic() < deadline:
            self.reap()
            if not self.others_alive():
                break
            time.sleep(0.02)
        else:
            os.kill(-1, signal.SIGKILL)
            self.reap()
        if self.loop_fd is not None:
            os.close(self.loop_fd)

    def run(self):
        sigs = {signal.SIGCHLD, signal.SIGTERM, signal.SIGINT, signal.SIGHUP}
        signal.pthread_sigmask(signal.SIG_BLOCK, sigs)
        os.umask(0o022)
        os.set_inheritable(self.to_sup, False)
        os.set_inheritable(self.from_sup.fd, False)
        with open("/proc/self/status") as f:
            nspid = next(l for l in f if l.startswith("NSpid:")).split()
        send(self.to_sup, f"pid {nspid[1]}")
        try:
            self.build_fs()
            if self.from_sup.get(30) != "net":
                raise RuntimeError("unexpected message from the supervisor")
            self.configure_net()
            self.define_services()
            for name in self.services:
                self.spawn(name)
            hearth = next(p for p, n in self.running.items() if n == "hearth")
            self.wait_file("/run/hearth.pid", hearth, 30)
            self.write_monitor_report(hearth)
        except Exception as e:
            send(self.to_sup, f"error {e}")
            raise
        send(self.to_sup, f"ready {self.loop_name}")
        while True:
            now = time.monotonic()
            due = [n for n, t in self.respawn.items() if t <= now]
            for name in due:
                del self.respawn[name]
                self.spawn(name)
            wait = min([t - now for t in self.respawn.values()] + [5.0])
            info = signal.sigtimedwait(sigs, max(wait, 0.01))
            if info is None:
                continue
            if info.si_signo == signal.SIGCHLD:
                self.reap()
            else:
                self.shutdown()
                return 0


# ------------------------------------------------------------------ supervisor

class Supervisor:
    def __init__(self, args):
        self.args = args
        self.state = args.state
        self.stop = False
        self.device = None
        self.init_pid = None
        self.loop = "-"
        self.loop_seq = None
        self.ping = None

    def on_signal(self, signo, frame):
        self.stop = True

    def start_ping(self):
        self.ping = subprocess.Popen(["ping", "-q", "-n", "-i", PING_INTERVAL, DEVICE_IP4],
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     preexec_fn=die_with_parent)

    def write_info(self):
        info = {
            "SIMDEV_STATE": self.state,
            "SIMDEV_INIT_PID": self.init_pid,
            "SIMDEV_PEER_PID": os.getpid(),
            "SIMDEV_SUPERVISOR_PID": os.getpid(),
            "SIMDEV_HOSTNAME": HOSTNAME,
            "SIMDEV_IFNAME": IFNAME,
            "SIMDEV_DEVICE_IP4": DEVICE_IP4,
            "SIMDEV_DEVICE_IP6": DEVICE_IP6,
            "SIMDEV_DEVICE_MAC": DEVICE_MAC,
            "SIMDEV_PEER_IFNAME": PEER_IFNAME,
            "SIMDEV_PEER_IP4": PEER_IP4,
            "SIMDEV_PEER_IP6": PEER_IP6,
            "SIMDEV_PEER_MAC": PEER_MAC,
            "SIMDEV_PREFIX_LEN4": PREFIX_LEN4,
            "SIMDEV_PREFIX_LEN6": PREFIX_LEN6,
            "SIMDEV_MEDIA_PORT": MEDIA_PORT,
            "SIMDEV_CONTROL_PORT": CONTROL_PORT,
            "SIMDEV_LOOP": "" if self.loop == "-" else "/dev/" + self.loop,
            "SIMDEV_ROOT": self.args.root or "",
            "SIMDEV_PREFIX": self.args.prefix or "",
        }
        tmp = os.path.join(self.state, "info.tmp")
        with open(tmp, "w") as f:
            for k, v in info.items():
                quoted = str(v).replace("'", "'\\''")
                f.write(f"{k}='{quoted}'\n")
        os.rename(tmp, os.path.join(self.state, "info"))

    def bring_up(self):
        to_init_r, to_init_w = os.pipe()
        from_init_r, from_init_w = os.pipe()
        cmd = ["unshare", "--mount", "--pid", "--net", "--uts", "--ipc", "--fork",
               "--kill-child", "--propagation", "private", "--",
               sys.executable, os.path.abspath(__file__), "init",
               "--in-fd", str(to_init_r), "--out-fd", str(from_init_w)]
        if self.args.root:
            cmd += ["--root", self.args.root]
        if self.args.prefix:
            cmd += ["--prefix", self.args.prefix]
        self.device = subprocess.Popen(cmd, pass_fds=(to_init_r, from_init_w),
                                       stdin=subprocess.DEVNULL, preexec_fn=die_with_parent)
        os.close(to_init_r)
        os.close(from_init_w)
        self.to_init = to_init_w
        self.from_init = Lines(from_init_r)

        def expect(word):
            line = self.from_init.get(60)
            if line.startswith("error "):
                raise RuntimeError("device: " + line[6:])
            kind, _, value = line.partition(" ")
            if kind != word:
                raise RuntimeError("device said: " + line)
            return value

        self.init_pid = int(expect("pid"))
        ip_batch([
            f"link add {PEER_IFNAME} address {PEER_MAC} type veth peer name {IFNAME} "
            f"address {DEVICE_MAC} netns {self.init_pid}",
            f"addr add {PEER_IP4}/{PREFIX_LEN4} dev {PEER_IFNAME}",
            f"addr add {PEER_IP6}/{PREFIX_LEN6} dev {PEER_IFNAME} nodad",
            f"link set {PEER_IFNAME} up",
        ])
        send(self.to_init, "net")
        self.loop = expect("ready")
        self.loop_seq = loop_seq(self.loop)
        self.start_ping()
        self.write_info()

    def tear_down(self):
        if self.device and self.device.poll() is None:
            if self.init_pid:
                try:
                    os.kill(self.init_pid, signal.SIGTERM)
                except ProcessLookupError:
                    pass
            try:
                self.device.wait(timeout=10)
            except subprocess.TimeoutExpired:
                log("device did not stop in time: killing it")
                self.device.kill()   # unshare's child, the device's pid 1, follows
                self.device.wait()
        if self.ping:
            self.ping.kill()
            self.ping.wait()
        if self.loop != "-":
            # Autoclear releases the loop device once its last user has gone.
            # Freed, it may be taken by someone else at once: their file has
            # another sequence number.
            backing = f"/sys/block/{self.loop}/loop/backing_file"

            def ours():
                return os.path.exists(backing) and loop_seq(self.loop) == self.loop_seq
            deadline = time.monotonic() + 10
            while ours() and time.monotonic() < deadline:
                time.sleep(0.02)
            if ours():
                log(f"/dev/{self.loop} still attached")

    def run(self):
        if libc.unshare(CLONE_NEWNET) != 0:
            raise oserror("unshare(CLONE_NEWNET)")
        ip_batch(["link set lo up"])
        wake_r, wake_w = os.pipe()
        os.set_blocking(wake_w, False)
        signal.set_wakeup_fd(wake_w)
        for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            signal.signal(s, self.on_signal)
        tie = None
        if self.args.tie:
            tie = os.pidfd_open(self.args.tie)
        ok = False
        try:
            self.bring_up()
            ok = True
            send(self.args.ready_fd, "ok")
            os.close(self.args.ready_fd)
            udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            seq = 0
            next_send = time.monotonic()
            watch = [wake_r, self.from_init.fd] + ([tie] if tie is not None else [])
            while not self.stop:
                now = time.monotonic()
                if now >= next_send:
                    seq += 1
                    udp.sendto(b"peer media keepalive %08d\n" % seq + b"." * 96,
                               (DEVICE_IP4, MEDIA_PORT))
                    next_send = now + DATAGRAM_INTERVAL
                    if self.ping.poll() is not None:
                        self.start_ping()
                ready = select.select(watch, [], [], max(next_send - now, 0))[0]
                if wake_r in ready:
                    os.read(wake_r, 64)
                if self.from_init.fd in ready and not os.read(self.from_init.fd, 4096):
                    log("the device ended by itself")
                    self.stop = True
                if tie is not None and tie in ready:
                    log(f"process {self.args.tie} ended: stopping")
                    self.stop = True
        except Exception as e:
            log(f"error: {e}")
        finally:
            self.tear_down()
            if ok:
                shutil.rmtree(self.state, ignore_errors=True)
        return 0 if ok else 1


# ------------------------------------------------------------------ start

def start(args):
    base = os.environ.get("TMPDIR", "/tmp")
    if args.state:
        state = os.path.abspath(args.state)
        os.mkdir(state)
    else:
        state = tempfile.mkdtemp(prefix="simdev.", dir=base)
    for opt in ("root", "prefix"):
        value = getattr(args, opt)
        if value:
            value = os.path.abspath(value)
            if not os.path.isdir(value):
                sys.exit(f"simdev: {opt} {value}: not a directory")
            setattr(args, opt, value)
    ready_r, ready_w = os.pipe()
    cmd = [sys.executable, os.path.abspath(__file__), "supervise", "--state", state,
           "--ready-fd", str(ready_w)]
    for opt in ("root", "prefix", "tie"):
        value = getattr(args, opt)
        if value:
            cmd += ["--" + opt, str(value)]
    logf = open(os.path.join(state, "log"), "wb")
    sup = subprocess.Popen(cmd, pass_fds=(ready_w,), stdin=subprocess.DEVNULL, stdout=logf,
                           stderr=subprocess.STDOUT, start_new_session=True)
    os.close(ready_w)
    logf.close()
    try:
        answer = Lines(ready_r).get(args.timeout)
    except (TimeoutError, EOFError) as e:
        answer = str(e)
    except KeyboardInterrupt:
        # Nobody would know the state directory: the device goes too.
        sup.terminate()
        answer = "interrupted"
    if answer == "ok":
        print(state)
        return 0
    try:
        sup.wait(timeout=20)
    except subprocess.TimeoutExpired:
        sup.kill()
        sup.wait()
    with open(os.path.join(state, "log")) as f:
        sys.stderr.write(f.read())
    sys.stderr.write(f"simdev: the device did not come up ({answer})\n")
    shutil.rmtree(state, ignore_errors=True)
    return 1


def main():
    ap = argparse.ArgumentParser(prog="simdev.py")
    sub = ap.add_subparsers(dest="cmd", required=True)
    st = sub.add_parser("start")
    st.add_argument("-r", "--root")
    st.add_argument("-p", "--prefix")
    st.add_argument("-s", "--state")
    st.add_argument("-t", "--tie", type=int)
    st.add_argument("--timeout", type=float, default=60)
    sv = sub.add_parser("supervise")
    sv.add_argument("--state", required=True)
    sv.add_argument("--ready-fd", type=int, required=True)
    sv.add_argument("--root")
    sv.add_argument("--prefix")
    sv.add_argument("--tie", type=int)
    it = sub.add_parser("init")
    it.add_argument("--in-fd", type=int, required=True)
    it.add_argument("--out-fd", type=int, required=True)
    it.add_argument("--root")
    it.add_argument("--prefix")
    it.add_argument("--python")
    args = ap.parse_args()
    if args.cmd == "start":
        return start(args)
    if args.cmd == "supervise":
        return Supervisor(args).run()
    if not args.python:
        # Once more under the name "init", as the device's ps shows it.
        os.execve(sys.executable, ["init", os.path.abspath(__file__)] + sys.argv[1:] +
                  ["--python", sys.executable], dict(os.environ, **python_env()))
    libc.prctl(PR_SET_NAME, b"init", 0, 0, 0)
    return Init(args).run()


if __name__ == "__main__":
    sys.exit(main())
