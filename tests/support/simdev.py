"""The simulated device (tools/simdev/simdev.sh) for tests and benchmarks.

    with simdev.Device(prefix=stage) as dev:          # or root=DESTDIR tree
        r = dev.run(["oopslog", "-r", "/dev/part/oops"])   # CompletedProcess
        r = dev.sh("ls /var/run/dbg-cgi")                   # through /bin/sh -c
        p = dev.popen(["debugar.cgi", "-d"], stdout=subprocess.PIPE)
        c = dev.peer_run(["curl", "-s", f"http://{dev.ip4}:7000/"])
        dev.kill(p)                                         # the whole command

run/sh/peer_run/peer_sh return subprocess.CompletedProcess with bytes stdout
and stderr; with check=True a non-zero status raises CalledProcessError.  The
device is tied to the creating process: it stops by itself if that process
dies without calling stop().
"""
import os
import signal
import subprocess

SIMDEV_SH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..",
                         "tools", "simdev", "simdev.sh")
SIMDEV_SH = os.path.normpath(SIMDEV_SH)


def read_info(state):
    info = {}
    with open(os.path.join(state, "info")) as f:
        for line in f:
            key, _, value = line.rstrip("\n").partition("=")
            info[key] = value.strip("'").replace("'\\''", "'")
    return info


def process_alive(pid):
    """True while pid exists and has not ended (a zombie has ended)."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            state = f.read().rsplit(")", 1)[1].split()[0]
    except (OSError, IndexError):
        return False
    return state not in ("Z", "X")


class Device:
    """A running simulated device.  Attributes after start: state (its state
    directory), info (every SIMDEV_* fact), ip4, ip6, peer_ip4, peer_ip6,
    ifname, mac, init_pid and peer_pid (host pids), loop (/dev/loopN or "")."""

    def __init__(self, root=None, prefix=None, tie=True, timeout=60):
        cmd = [SIMDEV_SH, "start"]
        if root:
            cmd += ["-r", root]
        if prefix:
            cmd += ["-p", prefix]
        if tie:
            cmd += ["-t", str(os.getpid())]
        r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           timeout=timeout)
        if r.returncode != 0:
            raise RuntimeError("simdev start failed:\n" + r.stderr.decode(errors="replace"))
        self.state = r.stdout.decode().split()[-1]
        self.info = read_info(self.state)
        self.ip4 = self.info["SIMDEV_DEVICE_IP4"]
        self.ip6 = self.info["SIMDEV_DEVICE_IP6"]
        self.peer_ip4 = self.info["SIMDEV_PEER_IP4"]
        self.peer_ip6 = self.info["SIMDEV_PEER_IP6"]
        self.ifname = self.info["SIMDEV_IFNAME"]
        self.mac = self.info["SIMDEV_DEVICE_MAC"]
        self.init_pid = int(self.info["SIMDEV_INIT_PID"])
        self.peer_pid = int(self.info["SIMDEV_PEER_PID"])
        self.supervisor_pid = int(self.info["SIMDEV_SUPERVISOR_PID"])
        self.loop = self.info["SIMDEV_LOOP"]
        self.running = True

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()

    # Command lines, for callers that start processes themselves.
    def command(self, args):
        return [SIMDEV_SH, "exec", "-s", self.state, "--"] + list(args)

    def peer_command(self, args):
        return [SIMDEV_SH, "peer", "-s", self.state, "--"] + list(args)

    @staticmethod
    def _complete(cmd, input, timeout, check):
        p = subprocess.Popen(cmd, stdin=subprocess.PIPE if input is not None else subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             start_new_session=True)
        try:
            out, err = p.communicate(input, timeout=timeout)
        except subprocess.TimeoutExpired:
            Device.kill(p)
            p.communicate()
            raise
        r = subprocess.CompletedProcess(cmd, p.returncode, out, err)
        if check:
            r.check_returncode()
        return r

    def run(self, args, input=None, timeout=60, check=False, env=None):
        """Runs args inside the device (root, cwd /, the device's environment
        plus env) and waits for it."""
        if env:
            args = ["env"] + [f"{k}={v}" for k, v in env.items()] + list(args)
        return self._complete(self.command(args), input, timeout, check)

    def sh(self, script, **kw):
        return self.run(["/bin/sh", "-c", script], **kw)

    def popen(self, args, **kw):
        """A process inside the device; stop it with kill()."""
        kw.setdefault("start_new_session", True)
        return subprocess.Popen(self.command(args), **kw)

    def peer_run(self, args, input=None, timeout=60, check=False):
        """Runs args in the peer's network namespace (the machine's files)."""
        return self._complete(self.peer_command(args), input, timeout, check)

    def peer_sh(self, script, **kw):
        return self.peer_run(["/bin/sh", "-c", script], **kw)

    def peer_popen(self, args, **kw):
        kw.setdefault("start_new_session", True)
        return subprocess.Popen(self.peer_command(args), **kw)

    def host_path(self, path):
        """A path of the device as this machine reaches it (through
        /proc/INIT/root).  Symbolic links on the way (/var/run -> /run) are
        followed inside the device's root, not the machine's; the last
        component is taken as it is."""
        root = f"/proc/{self.init_pid}/root"
        parts = [x for x in path.split("/") if x]
        done = []
        hops = 0
        while parts:
            part = parts.pop(0)
            if part == "..":
                if done:
                    done.pop()
                continue
            here = root + "/" + "/".join(done + [part])
            if parts and os.path.islink(here):
                hops += 1
                if hops > 40:
                    raise OSError(f"too many links in {path}")
                target = os.readlink(here)
                if target.startswith("/"):
                    done = []
                parts = [x for x in target.split("/") if x] + parts
                continue
            done.append(part)
        return root + "/" + "/".join(done)

    @staticmethod
    def kill(p, sig=signal.SIGKILL):
        """Signals a process from popen/peer_popen, and what it started inside
        (they share its process group)."""
        try:
            os.killpg(p.pid, sig)
        except ProcessLookupError:
            pass

    def stop(self, timeout=60):
        if not self.running:
            return
        self.running = False
        subprocess.run([SIMDEV_SH, "stop", "-s", self.state], check=True, timeout=timeout)
