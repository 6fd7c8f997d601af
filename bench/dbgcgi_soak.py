"""Soak run of the debug service in the simulated device: many mixed requests
from concurrent clients, then the daemon must be alive, answering, and back
to its resource baseline (descriptors, threads, resident memory), with no
zombie and no process left stopped or traced.

usage: dbgcgi_soak.py --prefix STAGE --frontend HANDOFF_FRONT
                      [--requests N] [--clients C] [--warmup W] [--seed S]
                      [--rss-slack KIB]   (0: do not judge memory, e.g. sanitizers)
"""
import argparse
import collections
import os
import random
import socket
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "dbgcgi"))
import dbgdev  # noqa: E402
from dbgdev import BAD_REQUEST, BUSY, INTERNAL_ERROR, header, wait_for  # noqa: E402

PS_HEAD = header("text/plain", "psdump.txt")
PCAP_HEAD = header("application/octet-stream", "pcapdump.cap")
CORE_HEAD = header("application/octet-stream", "core")
STRACE_HEAD = header("text/plain", "stracedump.txt")
RTRACE_HEAD = header("application/octet-stream", "rtrace")
TGZ_HEAD = header("application/x-tar", "debug.tgz")

# Kind of request: weight.
MIX = {
    "ps": 26, "pcap": 8, "strace_early": 10, "rtrace_early": 8, "archive": 10,
    "coredump": 5, "malformed": 12, "no_descriptor": 6, "vanish": 15,
}
MALFORMED = [
    (b"/x/debug.tgz", INTERNAL_ERROR),                     # no end of the path
    (b"debug.tgz\0\0", INTERNAL_ERROR),                    # no '/'
    (b"/x\0cmd=nonsense\0", BAD_REQUEST),
    (b"/x\0cmd=coredump&pid=-7\0", BAD_REQUEST),
    (b"/x\0cmd=coredump&pid=nosuchprocess\0", BAD_REQUEST),
    (b"/x\0cmd=strace&pid=999999\0", BAD_REQUEST),
    (b"/x\0cmd=strace&pid=" + b"q" * 40 + b"\0", BAD_REQUEST),
    (b"/x\0cmd=ps&pad=" + b"z" * 5000 + b"\0", b""),       # truncated: closed
    (b"", b""),                                            # empty: closed
]


class Soak:
    def __init__(self, svc, seed):
        self.svc = svc
        self.rng = random.Random(seed)
        self.lock = threading.Lock()
        self.counts = collections.Counter()
        self.outcomes = collections.Counter()
        self.errors = []
        # Processes to trace, and others to dump (a traced process cannot be
        # dumped): sleeping, small.
        self.sleepers = self.start_sleepers(2)
        self.dumpees = self.start_sleepers(2)

    def start_sleepers(self, n):
        out = []
        for _ in range(n):
            p = self.svc.dev.popen(["sh", "-c", "echo $$; exec sleep 100000"],
                                   stdout=subprocess.PIPE)
            out.append(int(p.stdout.readline()))
        return out

    def error(self, kind, what):
        with self.lock:
            self.errors.append(f"{kind}: {what}")

    def note(self, kind, outcome):
        with self.lock:
            self.counts[kind] += 1
            self.outcomes[f"{kind}:{outcome}"] += 1

    def read_head(self, s, limit=65536):
        data = b""
        while b"\r\n\r\n" not in data and len(data) < limit:
            b = s.recv(4096)
            if not b:
                break
            data += b
        return data

    def whole(self, target, timeout=120):
        return self.svc.request(target, timeout)

    # ---- kinds ----

    def ps(self, rng):
        data = self.whole("/cgi-bin/debugar.cgi?cmd=ps")
        if not data.startswith(PS_HEAD) or b"PID" not in data:
            self.error("ps", data[:200])
        return "ok"

    def pcap(self, rng):
        size = rng.choice([2000, 20000, 60000])
        data = self.whole(f"/x?cmd=pcapdump&duration=1&totalsize={size}")
        if not data.startswith(PCAP_HEAD) or len(data) - len(PCAP_HEAD) != size:
            self.error("pcap", f"{len(data)} bytes {data[:120]!r}")
        return "ok"

    def strace_early(self, rng):
        pid = rng.choice(self.sleepers)
        s = self.svc.open_request(f"/x?cmd=strace&pid={pid}", timeout=120)
        try:
            head = self.read_head(s)
            if not head.startswith(STRACE_HEAD):
                self.error("strace", head[:200])
            time.sleep(rng.uniform(0, 0.05))
        finally:
            s.close()
        return "ok"

    def rtrace_early(self, rng):
        s = self.svc.open_request("/x?cmd=rtrace&trace=meminfo,filenr&interval=1", timeout=60)
        try:
            head = self.read_head(s, len(RTRACE_HEAD) + 20)
            if not head.startswith(RTRACE_HEAD):
                self.error("rtrace", head[:200])
        finally:
            s.close()
        return "ok"

    def archive(self, rng):
        s = self.svc.open_request("/x/debug.tgz", timeout=120)
        try:
            data = self.read_head(s, 2000)
            if data.startswith(b"HTTP/1.0 503"):
                rest = dbgdev.read_all(s, 60)
                if data + rest != BUSY:
                    self.error("archive", (data + rest)[:200])
                return "busy"
            if not data.startswith(TGZ_HEAD):
                self.error("archive", data[:200])
            # Some bytes of the archive, then the browser leaves.
            want = rng.choice([100, 5000, 50000])
            got = len(data)
            while got < want:
                b = s.recv(65536)
                if not b:
                    break
                got += len(b)
            return "accepted"
        finally:
            s.close()

    def coredump(self, rng):
        pid = rng.choice(self.dumpees)
        data = self.whole(f"/x?cmd=coredump&pid={pid}", timeout=120)
        if data == CORE_HEAD:
            # The process was held by an archive's trace: nothing to dump.
            return "empty"
        if not data.startswith(CORE_HEAD + b"\x7fELF"):
            self.error("coredump", data[:200])
        return "ok"

    def malformed(self, rng):
        msg, want = rng.choice(MALFORMED)
        a, b = socket.socketpair()
        try:
            self.svc.handoff(msg, [b.fileno()])
            b.close()
            got = dbgdev.read_all(a, 60)
            if got != want:
                self.error("malformed", f"{msg[:40]!r} -> {got[:100]!r}")
        finally:
            a.close()
        return "ok"

    def no_descriptor(self, rng):
        self.svc.handoff(rng.choice([b"/x\0cmd=ps\0", b"/x/debug.tgz\0\0", b"junk"]))
        return "ok"

    def vanish(self, rng):
        target = rng.choice(["/x?cmd=ps", "/x?cmd=pcapdump&duration=2",
                             f"/x?cmd=strace&pid={rng.choice(self.sleepers)}",
                             "/x?cmd=rtrace&interval=1", "/x/debug.tar",
                             f"/x?cmd=coredump&pid={rng.choice(self.dumpees)}"])
        point = rng.choice(["connected", "half_request", "sent", "some_bytes"])
        s = self.svc.connect(timeout=60)
        try:
            req = f"GET {target} HTTP/1.0\r\n\r\n".encode()
            if point == "connected":
                return point
            if point == "half_request":
                s.sendall(req[:rng.randrange(1, len(req) - 1)])
                return point
            s.sendall(req)
            if point == "some_bytes":
                s.settimeout(60)
                s.recv(rng.choice([1, 100, 4096]))
            return point
        finally:
            s.close()

    # ---- driver ----

    def client(self, n, seed):
        rng = random.Random(seed)
        kinds = list(MIX)
        weights = [MIX[k] for k in kinds]
        for _ in range(n):
            kind = rng.choices(kinds, weights)[0]
            try:
                outcome = getattr(self, kind)(rng)
            except Exception as e:  # noqa: BLE001 - every failure is a finding
                self.error(kind, repr(e))
                outcome = "exception"
            self.note(kind, outcome)

    def run(self, requests, clients):
        per = [requests // clients + (1 if i < requests % clients else 0) for i in range(clients)]
        threads = [threading.Thread(target=self.client, args=(per[i], self.rng.random()))
                   for i in range(clients)]
        t0 = time.monotonic()
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        return time.monotonic() - t0


def settle(svc, base_threads):
    """Waits until the daemon has only its own threads and no children left."""
    wait_for(lambda: svc.threads() == base_threads and not svc.children(),
             "the daemon to become idle", 120, 0.1)
    svc.sync()
    time.sleep(0.5)
    return svc.stats()


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--prefix", required=True)
    ap.add_argument("--frontend", required=True)
    ap.add_argument("--requests", type=int, default=10000)
    ap.add_argument("--clients", type=int, default=16)
    ap.add_argument("--warmup", type=int, default=2000)
    ap.add_argument("--seed", type=int, default=12)
    ap.add_argument("--rss-slack", type=int, default=256)
    ap.add_argument("--label", default="")
    ap.add_argument("--smaps", action="store_true", help="show the daemon's smaps afterwards")
    ap.add_argument("--phases", type=int, default=1, help="settle and measure between phases")
    ap.add_argument("--mix", default="", help="kind=weight,... instead of the usual mix")
    a = ap.parse_args()
    if a.mix:
        MIX.clear()
        for item in a.mix.split(","):
            k, w = item.split("=")
            MIX[k] = int(w)

    with dbgdev.DebugService(a.prefix, a.frontend) as svc:
        soak = Soak(svc, a.seed)
        start = svc.stats()
        # Warm-up with the same mix: thread stacks, allocator arenas and the
        # log connection come into being; the baseline is taken after it.
        soak.run(a.warmup, a.clients)
        base = settle(svc, svc.base_threads)
        soak.counts.clear()
        soak.outcomes.clear()
        elapsed = 0
        series = []
        for i in range(a.phases):
            n = a.requests // a.phases + (1 if i < a.requests % a.phases else 0)
            elapsed += soak.run(n, a.clients)
            after = settle(svc, svc.base_threads)
            series.append(after["rss_kib"])
        if a.smaps:
            with open(f"/proc/{svc.pid}/smaps") as f:
                print(f.read())
        alive = svc.alive()
        ps = svc.request("/x?cmd=ps")
        answers = ps.startswith(PS_HEAD)
        zombies = svc.zombies()
        stuck = svc.stopped_or_traced()
        logged = svc.syslog.texts()

    reports = svc.final_reports
    total = sum(soak.counts.values())
    print(f"== debug service soak {a.label}".rstrip())
    print(f"requests {total} from {a.clients} clients in {elapsed:.1f} s "
          f"({total / elapsed:.0f}/s), warm-up {a.warmup}, seed {a.seed}")
    for k in MIX:
        outs = ", ".join(f"{o.split(':', 1)[1]} {n}" for o, n in sorted(soak.outcomes.items())
                         if o.startswith(k + ":"))
        print(f"  {k:14} {soak.counts[k]:6}   {outs}")
    print(f"unexpected answers: {len(soak.errors)}")
    for e in soak.errors[:20]:
        print("   ", e)
    print(f"daemon at start:  fds {start['fds']}, threads {start['threads']}, rss {start['rss_kib']} KiB")
    print(f"baseline:         fds {base['fds']}, threads {base['threads']}, rss {base['rss_kib']} KiB")
    print(f"after the run:    fds {after['fds']}, threads {after['threads']}, rss {after['rss_kib']} KiB")
    if len(series) > 1:
        print("rss after each phase (KiB):", " ".join(str(x) for x in series))
    dfd = after["fds"] - base["fds"]
    dth = after["threads"] - base["threads"]
    drss = after["rss_kib"] - base["rss_kib"]
    print(f"change:           fds {dfd:+d}, threads {dth:+d}, rss {drss:+d} KiB")
    print(f"daemon alive {alive}, answers ps {answers}, zombies {len(zombies)}, "
          f"stopped or traced {len(stuck)} {stuck if stuck else ''}".rstrip())
    print(f"syslog lines {len(logged)}")
    if reports:
        print("sanitizer reports of the daemon:")
        print(reports[:4000])
    ok = (not soak.errors and not reports and alive and answers and not zombies and not stuck
          and abs(dfd) <= 2 and dth == 0 and after["children"] == 0
          and (a.rss_slack == 0 or abs(drss) <= a.rss_slack))
    print("verdict:", "PASS" if ok else "FAIL",
          "(goals: nothing unexpected, fds ±2, threads 0"
          + (f", rss ±{a.rss_slack} KiB)" if a.rss_slack else ", rss not judged)"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
