"""A process whose descriptors and children the monitor tests set by command.

Reads one command per line on standard input and answers "ok PID" on
standard output when it holds what was asked:

  files N       exactly N descriptors on /dev/null besides 0, 1 and 2
  sockets N     exactly N UDP sockets besides 0, 1 and 2
  children N    exactly N child processes (they die with the holder)
  comm NAME     the kernel's short name of the main thread
  leader-exit   the main thread ends; another thread serves the commands, so
                the process goes on without an executable link
  memory MIB    holds MIB mebibytes more of touched memory
  exec NAME     runs itself again under the name NAME (argv[0]), keeping
                every descriptor it holds
"""
import ctypes
import os
import signal
import socket
import sys
import threading

LIBC = ctypes.CDLL(None, use_errno=True)
PR_SET_PDEATHSIG = 1

held = []
kids = []
held_memory = []


def raise_nofile(n):
    import resource
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < n + 64:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, n + 64) if hard > 0 else n + 64, hard))


def hold(n, make):
    raise_nofile(n)
    while len(held) > n:
        h = held.pop()
        h.close() if hasattr(h, "close") else os.close(h)
    while len(held) < n:
        held.append(make())


def set_children(n):
    while len(kids) > n:
        pid = kids.pop()
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
    while len(kids) < n:
        pid = os.fork()
        if pid == 0:
            LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
            if os.getppid() == 1:
                os._exit(0)
            while True:
                signal.pause()
        kids.append(pid)


def serve(main_tid):
    for line in sys.stdin:
        words = line.split()
        if not words:
            continue
        cmd, arg = words[0], words[1] if len(words) > 1 else ""
        if cmd == "files":
            hold(int(arg), lambda: os.open("/dev/null", os.O_RDONLY))
        elif cmd == "sockets":
            hold(int(arg), lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        elif cmd == "children":
            set_children(int(arg))
        elif cmd == "memory":
            held_memory.append(bytearray(b"\1" * (int(arg) << 20)))
        elif cmd == "comm":
            with open(f"/proc/self/task/{main_tid}/comm", "w") as f:
                f.write(arg)
        elif cmd == "leader-exit":
            return "leader-exit"
        elif cmd == "exec":
            for h in held:
                os.set_inheritable(h if isinstance(h, int) else h.fileno(), True)
            sys.stdout.flush()
            os.execv(os.readlink("/proc/self/exe"), [arg, os.path.abspath(__file__)])
        print("ok", os.getpid(), flush=True)
    os._exit(0)


def main():
    main_tid = threading.get_native_id()
    # The kernel's name of the process (status, stat) as well.
    with open("/proc/self/cmdline", "rb") as f:
        argv0 = f.read().split(b"\0")[0]
    with open("/proc/self/comm", "wb") as f:
        f.write(os.path.basename(argv0)[:15])
    print("ok", os.getpid(), flush=True)
    if serve(main_tid) == "leader-exit":
        t = threading.Thread(target=serve, args=(main_tid,))
        t.start()
        print("ok", os.getpid(), flush=True)
        # The main thread leaves; the process lives on in t.
        LIBC.pthread_exit(None)


if __name__ == "__main__":
    main()
