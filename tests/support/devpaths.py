"""Reaching into a running simulated device from outside: the device's
syslog, its listening sockets, a real FTP server inside it and a stand-in
for the receiver of the crash socket."""
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import threading
import time

from bb import wait_until


SYSLOG_LINE = re.compile(r"^<(\d+)>([A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d) (.*)$", re.S)


class Syslog:
    """The device's /dev/log: a datagram socket the test binds and reads.
    take() gives [(priority, text after the time stamp)] of everything logged
    since the last call."""

    def __init__(self, dev):
        self.path = dev.host_path("/dev/log")
        if os.path.lexists(self.path):
            os.unlink(self.path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        os.chmod(self.path, 0o666)
        self.sock.setblocking(False)

    def take(self):
        out = []
        while True:
            try:
                data = self.sock.recv(65536)
            except BlockingIOError:
                return out
            m = SYSLOG_LINE.match(data.decode("latin-1"))
            if not m:
                raise AssertionError(f"not a syslog datagram: {data!r}")
            out.append((int(m.group(1)), m.group(3)))

    def close(self):
        self.sock.close()
        try:
            os.unlink(self.path)
        except FileNotFoundError:
            pass


def listening(dev, port):
    """True when something in the device listens on TCP port (IPv4)."""
    with open(f"/proc/{dev.init_pid}/net/tcp") as f:
        for line in f.readlines()[1:]:
            cols = line.split()
            if cols[1].endswith(f":{port:04X}") and cols[3] == "0A":
                return True
    return False


class FtpServer:
    """A real FTP server (tests/support/ftpserver.py, pyftpdlib) inside the
    device on 127.0.0.1:port: anonymous logins and the user "core" (password
    "secret") see its root, uploads land in /upload.  rename: RNFR allowed
    (answered 350 for an existing file); max_rate: bytes per second, 0 for
    no limit; upload: STOR allowed at all."""

    SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "ftpserver.py")
    _next_port = 2121

    def __init__(self, dev, rename=True, max_rate=0, upload=True):
        self.dev = dev
        FtpServer._next_port += 1
        self.port = FtpServer._next_port
        self.base = f"/tmp/ftp-{self.port}"
        host_base = dev.host_path(self.base)
        shutil.rmtree(host_base, ignore_errors=True)
        os.makedirs(host_base + "/root/upload")
        self.upload_dir = host_base + "/root/upload"
        args = ["python3", self.SCRIPT, "--address", "127.0.0.1", "--port", str(self.port),
                "--root", self.base + "/root", "--user", "core:secret",
                "--log", self.base + "/log"]
        if not rename:
            args.append("--no-rename")
        if not upload:
            args.append("--no-upload")
        if max_rate:
            args += ["--max-rate", str(max_rate)]
        self.log_path = host_base + "/log"
        self.proc = dev.popen(args, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
        try:
            wait_until(lambda: listening(dev, self.port) or self.proc.poll() is not None,
                       "the FTP server to listen")
        except AssertionError:
            self.stop()
            raise
        if self.proc.poll() is not None:
            raise RuntimeError("the FTP server ended: " + self.log())

    def log(self):
        try:
            with open(self.log_path, errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    @property
    def url(self):
        return f"ftp://127.0.0.1:{self.port}"

    def files(self):
        out = {}
        for name in os.listdir(self.upload_dir):
            with open(os.path.join(self.upload_dir, name), "rb") as f:
                out[name] = f.read()
        return out

    def pause(self):
        """The server stops answering."""
        self.dev.kill(self.proc, signal.SIGSTOP)

    def stop(self):
        self.dev.kill(self.proc, signal.SIGKILL)
        self.dev.kill(self.proc, signal.SIGCONT)
        self.proc.wait()


class CrashSocketStandIn:
    """Accepts at the device's crash socket path in place of the debug
    service.  The handler never ends its side before the answer, so the
    stand-in is told how long the core is (expect).  Modes: "ack" reads the
    core, answers ack_bytes, then reads to the end; "silent" reads to the end
    without answering (the handler's own time limit ends it); "reject" closes
    every connection unread.  received: one bytes object per connection
    (None when rejected); core_times and eof_times: monotonic times at which
    expect bytes had arrived and at which the connection ended; on_core, if
    given, runs when expect bytes arrived, before the answer."""

    def __init__(self, dev, mode="ack", ack_bytes=b"ok", expect=None, on_core=None):
        self.path = dev.host_path("/var/run/dbg-cgi/ctrl-segf-socket")
        if os.path.lexists(self.path):
            os.unlink(self.path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.bind(self.path)
        self.sock.listen(2)
        self.mode = mode
        self.ack_bytes = ack_bytes
        self.expect = expect
        self.on_core = on_core
        self.received = []
        self.core_times = []
        self.eof_times = []
        self.errors = []
        self.resets = 0
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while not self.stopping.is_set():
            r, _, _ = select.select([self.sock], [], [], 0.05)
            if not r:
                continue
            conn, _ = self.sock.accept()
            try:
                self._one(conn)
            except OSError as e:
                self.errors.append(e)
            finally:
                conn.close()

    def _one(self, conn):
        if self.mode == "reject":
            self.received.append(None)
            return
        data = bytearray()
        answered = False
        while True:
            if not answered and self.expect is not None and len(data) >= self.expect:
                self.core_times.append(time.monotonic())
                if self.on_core:
                    self.on_core()
                if self.mode == "ack":
                    try:
                        conn.sendall(self.ack_bytes)
                    except (BrokenPipeError, ConnectionResetError):
                        pass
                answered = True
            try:
                chunk = conn.recv(1 << 16)
            except ConnectionResetError:
                # The handler closed with part of the answer unread.
                self.resets += 1
                break
            if not chunk:
                break
            data += chunk
        self.eof_times.append(time.monotonic())
        self.received.append(bytes(data))

    def wait(self, count, seconds=30):
        """received, once count connections have ended."""
        wait_until(lambda: len(self.received) >= count, f"{count} crash connections", seconds)
        return self.received

    def close(self):
        self.stopping.set()
        self.thread.join()
        self.sock.close()
        try:
            os.unlink(self.path)
        except FileNotFoundError:
            pass
