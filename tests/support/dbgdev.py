"""The debug service running in a simulated device, for the black-box tests
and the benchmarks.

    with DebugService(prefix=stage, frontend=path_of_handoff_front) as svc:
        head, body = svc.get("/cgi-bin/debugar.cgi?cmd=ps")   # HTTP over eth0
        svc.handoff(b"/x\\0cmd=ps\\0", [fd])                  # raw control datagram
        svc.stats()                                          # the daemon's fds, threads, RSS

The daemon runs inside the device as installed (debugar.cgi, detached); the
test front end (handoff-front) inside the device takes TCP on port 8080 of
every address.  Clients connect from the peer's network namespace: this
process makes its sockets there (setns in a thread of its own), so the bytes
travel over the device's eth0.  Unix sockets and files of the device are
reached through /proc/INIT/root.  The device's /dev/log is a datagram socket
of this process: every syslog line of the daemon arrives here.
"""
import argparse
import array
import ctypes
import os
import queue
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

import bb
import simdev
import standins
from bb import wait_until

CLONE_NEWNET = 0x40000000
PORT = 8080
CGI_SOCKET = "/var/run/dbg-cgi/ctrl-cgi-socket"
SEGF_SOCKET = "/var/run/dbg-cgi/ctrl-segf-socket"
DUMP_DIR = "/var/spool/storage/SD_DISK/dumps"
SANITIZER_LOG = "/tmp/dbgcgi-sanitizer"

HEADER = ("HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\n"
          "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
          "Content-Type: {}\r\nContent-Disposition: attachment; filename=\"{}\"\r\n\r\n")
BAD_REQUEST = (b"HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
               b"The request has bad syntax or was inherently impossible to satisfy\n")
INTERNAL_ERROR = (b"HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
                  b"The server encountered an internal error and could not complete the "
                  b"request\n")
BUSY = (b"HTTP/1.0 503 Service Unavailable\r\nCache-Control: no-cache\r\n"
        b"Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: text/html\r\n\r\n"
        b"<HTML><HEAD></HEAD>\r\n<BODY>\r\n"
        b"Another Crash Report generation is in progress. Please try again later ... "
        b"\r\n</BODY></HTML>\r\n\r\n")


def header(content_type, filename):
    return HEADER.format(content_type, filename).encode()


# Stand-ins for the helper programs of rtrace: each says how it was started,
# then prints a line now and then until it is stopped.
STANDINS = ("iostat", "pidstat", "signalpost")


class NetNS:
    """Makes sockets in another process's network namespace: a thread of this
    process enters it once and creates sockets on request."""

    def __init__(self, pid):
        self._fd = os.open(f"/proc/{pid}/ns/net", os.O_RDONLY)
        self._q = queue.Queue()
        self._ready = queue.Queue()
        threading.Thread(target=self._run, daemon=True).start()
        ok, err = self._ready.get()
        if not ok:
            raise OSError(err, "setns")

    def _run(self):
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.setns(self._fd, CLONE_NEWNET) != 0:
            self._ready.put((False, ctypes.get_errno()))
            return
        self._ready.put((True, 0))
        while True:
            args, box = self._q.get()
            try:
                box.put((True, socket.socket(*args)))
            except OSError as e:
                box.put((False, e))

    def socket(self, family=socket.AF_INET, type=socket.SOCK_STREAM):
        box = queue.Queue()
        self._q.put(((family, type), box))
        ok, v = box.get()
        if not ok:
            raise v
        return v


class Syslog:
    """A datagram socket bound where syslog() looks; collects the lines."""
    LINE = re.compile(rb"^<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?([^\[:]+)\[(\d+)\]: (.*)$", re.S)

    def __init__(self, path):
        try:
            os.unlink(path)
        except FileNotFoundError:
            pass
        self.path = path
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(path)
        os.chmod(path, 0o666)
        self._lines = []
        self._lock = threading.Lock()
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            try:
                data = self.sock.recv(65536)
            except OSError:
                return
            with self._lock:
                self._lines.append(data)

    def clear(self):
        with self._lock:
            self._lines = []

    def raw(self):
        with self._lock:
            return list(self._lines)

    def messages(self, ident="dbg-cgi"):
        """(priority, pid, text) of every line of ident."""
        out = []
        for line in self.raw():
            m = self.LINE.match(line)
            if m and m.group(2).decode() == ident:
                out.append((int(m.group(1)), int(m.group(3)), m.group(4).decode(errors="replace")))
        return out

    def texts(self, ident="dbg-cgi"):
        return [t for _, _, t in self.messages(ident)]

    def close(self):
        self.sock.close()


def read_all(sock, timeout=60):
    sock.settimeout(timeout)
    chunks = []
    while True:
        b = sock.recv(65536)
        if not b:
            return b"".join(chunks)
        chunks.append(b)


def split_response(data):
    i = data.find(b"\r\n\r\n")
    if i < 0:
        return data, b""
    return data[:i + 4], data[i + 4:]


def proc_status(pid):
    out = {}
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            k, _, v = line.partition(":")
            out[k] = v.strip()
    return out


class DebugService:
    def __init__(self, prefix, frontend, args=(), start=True, standins=True):
        frontend = os.path.abspath(frontend)
        self.dev = simdev.Device(prefix=os.path.abspath(prefix))
        try:
            self.root = f"/proc/{self.dev.init_pid}/root"
            self.ns = os.readlink(f"/proc/{self.dev.init_pid}/ns/pid")
            self.peer = NetNS(self.dev.peer_pid)
            self.syslog = Syslog(self.path("/dev/log"))
            if standins:
                self.install_standins()
            self.frontend = self.dev.popen([frontend, "-a", "0.0.0.0", "-p", str(PORT)],
                                           stdout=subprocess.PIPE)
            line = self.frontend.stdout.readline()
            if not line.startswith(b"listening"):
                raise RuntimeError(f"handoff-front did not start: {line!r}")
            self.pid = None
            if start:
                self.start_daemon(args)
        except BaseException:
            self.dev.stop()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        self.final_reports = ""
        try:
            self.final_reports = self.sanitizer_reports()
        except OSError:
            pass
        if self.frontend:
            simdev.Device.kill(self.frontend)
            self.frontend.wait()
            self.frontend.stdout.close()
            self.frontend = None
        self.syslog.close()
        self.dev.stop()

    # ---- the device ----

    def path(self, p):
        """A path of the device, seen from here (simdev.Device.host_path)."""
        return self.dev.host_path(p)

    def install_standins(self):
        for name in STANDINS:
            p = self.path("/usr/bin/" + name)
            try:
                os.unlink(p)
            except FileNotFoundError:
                pass
            with open(p, "w") as f:
                f.write(standins.TEMPLATE.format(what=name, name=name, line=f"{name} line $i",
                                                 period="0.3"))
            os.chmod(p, 0o755)

    def host_pids(self):
        """Host pids of every process of the device."""
        out = []
        for name in os.listdir("/proc"):
            if name.isdigit():
                try:
                    if os.readlink(f"/proc/{name}/ns/pid") == self.ns:
                        out.append(int(name))
                except OSError:
                    pass
        return out

    def device_pid(self, host_pid):
        return int(proc_status(host_pid)["NSpid"].split()[-1])

    def host_pid(self, device_pid):
        for p in self.host_pids():
            try:
                if self.device_pid(p) == device_pid:
                    return p
            except (OSError, KeyError):
                pass
        return None

    def pids_named(self, comm):
        out = []
        for p in self.host_pids():
            try:
                with open(f"/proc/{p}/comm") as f:
                    if f.read().strip() == comm:
                        out.append(p)
            except OSError:
                pass
        return out

    @staticmethod
    def argv0_name(host_pid):
        """Base name of a process's argv[0] ("" for none)."""
        try:
            with open(f"/proc/{host_pid}/cmdline", "rb") as f:
                argv0 = f.read().split(b"\0")[0].decode(errors="replace")
        except OSError:
            return ""
        return os.path.basename(argv0)

    def pids_by_argv0(self, name):
        """Host pids of the device's processes whose argv[0] has base name
        name (programs started with another argv[0] count by that)."""
        return [p for p in self.host_pids() if self.argv0_name(p) == name]

    # ---- the daemon ----

    def start_daemon(self, args=(), check=True):
        """debugar.cgi ARGS inside the device; waits for the detached daemon
        (its host pid in self.pid) and its sockets."""
        before = set(self.pids_named("debugar.cgi"))
        # A sanitizer build's reports would go to /dev/null with the daemon's
        # standard error: into files of the device instead.
        env = {f"{s}_OPTIONS": f"log_path={SANITIZER_LOG}" for s in ("ASAN", "UBSAN", "TSAN")}
        r = self.dev.run(["debugar.cgi", *args], timeout=30, env=env)
        if check and r.returncode != 0:
            raise AssertionError(f"debugar.cgi {args}: status {r.returncode} {r.stderr!r}")

        def found():
            for p in self.pids_named("debugar.cgi"):
                try:
                    if p not in before and int(proc_status(p)["PPid"]) == self.dev.init_pid:
                        return p
                except (OSError, KeyError):
                    pass
            return None
        self.pid = wait_until(found, "the daemon")
        self.device_daemon_pid = self.device_pid(self.pid)
        wait_until(lambda: len(self.sockets()) >= 2, "the daemon's control sockets")
        # Its own threads (main, monitor, and a sanitizer's): the monitor
        # thread comes last, after the sockets, and puts itself in the idle
        # class first thing.
        wait_until(self.monitor_thread, "the daemon's monitor thread")
        self.base_threads = self.threads()
        return r

    def monitor_thread(self):
        """The daemon's thread in the idle scheduling class (SCHED_IDLE),
        or None."""
        for tid in os.listdir(f"/proc/{self.pid}/task"):
            try:
                with open(f"/proc/{self.pid}/task/{tid}/stat") as f:
                    stat = f.read()
            except OSError:
                continue
            # Field 41, policy; counted after the ")" that ends the name.
            if stat.rsplit(")", 1)[1].split()[38] == "5":
                return int(tid)
        return None

    def sanitizer_reports(self):
        """What a sanitizer build of the daemon reported (text)."""
        d = os.path.dirname(self.path(SANITIZER_LOG))
        out = ""
        for name in sorted(os.listdir(d)):
            if name.startswith(os.path.basename(SANITIZER_LOG)):
                with open(os.path.join(d, name), errors="replace") as f:
                    out += f.read()
        return out

    def idle(self):
        """The daemon has only its own threads and no child."""
        return self.threads() == self.base_threads and not self.children()

    def stop_daemon(self):
        if self.pid:
            pid = self.pid
            self.pid = None
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                return
            wait_until(lambda: not simdev.process_alive(pid), "the daemon to end")

    def fds(self):
        """The daemon's descriptors: {number: link text}."""
        out = {}
        d = f"/proc/{self.pid}/fd"
        for name in os.listdir(d):
            try:
                out[int(name)] = os.readlink(f"{d}/{name}")
            except OSError:
                pass
        return out

    def sockets(self):
        return [n for n, l in self.fds().items() if l.startswith("socket:")]

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def rss_kib(self):
        return int(proc_status(self.pid)["VmRSS"].split()[0])

    def children(self):
        return bb.children(self.pid)

    def stats(self):
        return {"fds": len(self.fds()), "threads": self.threads(), "rss_kib": self.rss_kib(),
                "children": len(self.children())}

    def alive(self):
        return self.pid is not None and simdev.process_alive(self.pid)

    def stopped_or_traced(self):
        """Processes of the device that are stopped or traced (host pids)."""
        bad = []
        for p in self.host_pids():
            try:
                st = proc_status(p)
            except OSError:
                continue
            if st.get("TracerPid", "0") != "0" or st.get("State", "")[:1] in ("t", "T"):
                bad.append((p, st.get("Name"), st.get("State"), st.get("TracerPid")))
        return bad

    def zombies(self):
        out = []
        for p in self.host_pids():
            try:
                if proc_status(p).get("State", "").startswith("Z"):
                    out.append(p)
            except OSError:
                pass
        return out

    # ---- clients ----

    def connect(self, port=PORT, timeout=60):
        s = self.peer.socket()
        s.settimeout(timeout)
        s.connect((self.dev.ip4, port))
        return s

    def open_request(self, target, timeout=60):
        """A connection that has sent GET target; read the answer yourself."""
        s = self.connect(timeout=timeout)
        s.sendall(f"GET {target} HTTP/1.0\r\nHost: {self.dev.ip4}\r\n\r\n".encode())
        return s

    def request(self, target, timeout=60):
        """The whole response (until the daemon closes) as bytes."""
        s = self.open_request(target, timeout)
        try:
            return read_all(s, timeout)
        finally:
            s.close()

    def get(self, target, timeout=60):
        return split_response(self.request(target, timeout))

    def curl(self, args, timeout=120):
        """curl ARGS in the peer, URLs relative to the front end."""
        base = f"http://{self.dev.ip4}:{PORT}"
        args = [a.replace("URL:", base) for a in args]
        return self.dev.peer_run(["curl", "-s", *args], timeout=timeout)

    def handoff(self, msg, fds=(), path=CGI_SOCKET):
        """One control datagram, with descriptors, sent to the daemon."""
        s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        try:
            anc = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", fds))] if fds else []
            s.sendmsg([msg], anc, 0, self.path(path))
        finally:
            s.close()

    def crash_connect(self, path=SEGF_SOCKET):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect(self.path(path))
        return s

    def sync(self):
        """Returns once the daemon's main thread has handled everything sent
        to it before, the dump check of that pass included: two requests it
        answers itself at once (the answer to the second one comes after the
        first one's whole pass)."""
        for _ in range(2):
            a, b = socket.socketpair()
            try:
                self.handoff(b"/sync\0cmd=sync\0", [b.fileno()])
                b.close()
                data = read_all(a, 60)
                assert data == BAD_REQUEST, data
            finally:
                a.close()

    def tcp_connections(self):
        """The TCP connections (socket inodes) the daemon holds."""
        inodes = set()
        for name in ("tcp", "tcp6"):
            try:
                with open(f"/proc/{self.pid}/net/{name}") as f:
                    next(f)
                    for line in f:
                        inodes.add(line.split()[9])
            except OSError:
                pass
        return [l for l in self.fds().values()
                if l.startswith("socket:[") and l[8:-1] in inodes]

    def listener_count_wait(self, before):
        """Waits until the daemon holds one more TCP connection than before
        (a registered listener)."""
        wait_until(lambda: len(self.tcp_connections()) > before, "the daemon to hold the listener")


# ---- test programs ----

ARGS = None


def main():
    """Options of a test program (--prefix STAGE --frontend HANDOFF_FRONT),
    then unittest's."""
    global ARGS
    ap = argparse.ArgumentParser()
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--frontend", required=True)
    ap.add_argument("--emulator", default="")
    ARGS, rest = ap.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


def start_service(tag, **kw):
    """A device with the service for a test module or class, and a scratch
    directory: (service, directory)."""
    tmp = tempfile.mkdtemp(prefix=f"dbgcgi-{tag}.")
    return DebugService(ARGS.prefix, ARGS.frontend, **kw), tmp


def stop_service(svc, tmp):
    """Ends what start_service made; the daemon's sanitizer reports fail."""
    svc.close()
    shutil.rmtree(tmp, ignore_errors=True)
    if svc.final_reports:
        raise AssertionError("sanitizer reports of the daemon:\n" + svc.final_reports)
