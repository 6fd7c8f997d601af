"""Idle resident memory of the debug-service daemon, and the latency of ps
requests with concurrent clients beside running /bin/ps directly, in the same
simulated device and the same run.

usage: dbgcgi_latency.py --prefix STAGE --frontend HANDOFF_FRONT
                         [--clients 8] [--rounds 40]

The request goes browser (peer) -> eth0 -> front end -> hand-off -> daemon ->
thread -> /bin/ps -> back; the peer measurement is /bin/ps started by a
small runner inside the device with the same number of concurrent runners.
Goals: idle RSS under 4 MiB (host build); p50 within 1.5x of /bin/ps alone.
"""
import argparse
import json
import sys
import time

import dbgdev
from bb import wait_until

PS_HEAD = dbgdev.header("text/plain", "psdump.txt")

# A browser-like client in the peer: connect, ask, read to the end.
CLIENT = r"""
import socket, sys, threading, time, json
ip, port, clients, rounds = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
head = sys.argv[5].encode()
lat, bad = [], []
lock = threading.Lock()
req = ("GET /cgi-bin/debugar.cgi?cmd=%s HTTP/1.0\r\n\r\n" % sys.argv[6]).encode()
def one():
    for _ in range(rounds):
        t0 = time.perf_counter()
        s = socket.create_connection((ip, port))
        s.sendall(req)
        data = b""
        while True:
            b = s.recv(65536)
            if not b:
                break
            data += b
        s.close()
        dt = time.perf_counter() - t0
        with lock:
            lat.append(dt)
            if not data.startswith(head):
                bad.append(data[:80].decode(errors="replace"))
ts = [threading.Thread(target=one) for _ in range(clients)]
[t.start() for t in ts]
[t.join() for t in ts]
print(json.dumps({"lat": lat, "bad": bad}))
"""

# Runs /bin/ps as a program would: fork, exec, read its output to the end.
RUNNER = r"""
import os, sys, threading, time, json
clients, rounds = int(sys.argv[1]), int(sys.argv[2])
lat = []
lock = threading.Lock()
def one():
    for _ in range(rounds):
        t0 = time.perf_counter()
        r, w = os.pipe()
        pid = os.posix_spawn("/bin/ps", ["/bin/ps"], {}, file_actions=[
            (os.POSIX_SPAWN_DUP2, w, 1), (os.POSIX_SPAWN_DUP2, w, 2), (os.POSIX_SPAWN_CLOSE, r)])
        os.close(w)
        while os.read(r, 65536):
            pass
        os.close(r)
        os.waitpid(pid, 0)
        with lock:
            lat.append(time.perf_counter() - t0)
ts = [threading.Thread(target=one) for _ in range(clients)]
[t.start() for t in ts]
[t.join() for t in ts]
print(json.dumps(lat))
"""


def pct(values, p):
    v = sorted(values)
    return v[min(len(v) - 1, int(round(p / 100 * (len(v) - 1))))]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--frontend", required=True)
    ap.add_argument("--clients", type=int, default=8)
    ap.add_argument("--rounds", type=int, default=40)
    ap.add_argument("--label", default="")
    a = ap.parse_args()

    with dbgdev.DebugService(a.prefix, a.frontend) as svc:
        # Idle: started, its monitor thread's first round done.
        report = svc.path("/var/run/dbg-cgi/dbg-monitor.txt")
        def report_written():
            with open(report, "rb") as f:
                return f.read().startswith(b"Debug monitor status")
        wait_until(report_written, "the monitor's first round")
        time.sleep(1)
        idle = svc.stats()

        lat = []
        errors = []

        def clients_run(cmd="ps", head=PS_HEAD, into=lat):
            r = svc.dev.peer_run(["python3", "-c", CLIENT, svc.dev.ip4, str(dbgdev.PORT),
                                  str(a.clients), str(a.rounds), head.decode(), cmd],
                                 timeout=600, check=True)
            out = json.loads(r.stdout)
            into.extend(out["lat"])
            errors.extend(out["bad"])

        def peer_run():
            r = svc.dev.run(["python3", "-c", RUNNER, str(a.clients), str(a.rounds)],
                            timeout=600, check=True)
            return json.loads(r.stdout)

        # Alternate, so both see the same machine load.
        peer = []
        for half in range(2):
            clients_run()
            peer += peer_run()
        # The path without the program: a request the daemon refuses at once.
        bare = []
        clients_run("none", dbgdev.BAD_REQUEST, bare)
        busy_rss = svc.stats()["rss_kib"]

    p50, p99 = pct(lat, 50), pct(lat, 99)
    q50, q99 = pct(peer, 50), pct(peer, 99)
    print(f"== debug service latency {a.label}".rstrip())
    print(f"idle daemon: rss {idle['rss_kib']} KiB, {idle['threads']} threads, {idle['fds']} fds"
          f"  (goal: under 4096 KiB on the host build)")
    print(f"after the runs: rss {busy_rss} KiB")
    print(f"ps requests ({a.clients} concurrent clients, {len(lat)} requests): "
          f"p50 {p50 * 1000:.2f} ms, p99 {p99 * 1000:.2f} ms")
    print(f"/bin/ps alone ({a.clients} concurrent runners, {len(peer)} runs): "
          f"p50 {q50 * 1000:.2f} ms, p99 {q99 * 1000:.2f} ms")
    print(f"ratio p50 {p50 / q50:.2f}, p99 {p99 / q99:.2f}  (goal: p50 within 1.5)")
    print(f"the path alone (400 answer, {len(bare)} requests): p50 {pct(bare, 50) * 1000:.2f} ms, "
          f"p99 {pct(bare, 99) * 1000:.2f} ms")
    if errors:
        print(f"unexpected answers: {len(errors)}: {errors[:3]}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
