#!/bin/sh
# The main job: builds toolnest, installs it the way a device image carries it,
# starts the simulated device (or, with --board, the emulated MIPS board) with
# the debug service, the web server and traffic on eth0, and serves the
# device's debug page at http://127.0.0.1:8080/ until Ctrl-C.
set -eu
cd "$(dirname "$0")/.."
repo=$PWD

usage() {
    cat <<EOF
usage: tools/device.sh [--board] [--check] [--port PORT] [--no-build]

Starts a device with the debug service (debugar.cgi) and its web server
(mini_httpd with the debug page and its CGI front end), forwards
127.0.0.1:PORT (default 8080) of this machine to the device's web server and
serves until Ctrl-C; then everything it started is stopped.

  --board     the emulated MIPS board (mipsel build, qemu-system-mipsel)
              instead of the simulated device (host build in namespaces)
  --check     do not serve: fetch the page, a process list and a short
              capture through the forwarded port, check them, stop
              (a free port is taken unless --port is given)
  --port P    the loopback port to forward
  --no-build  use the build tree as it is
EOF
}

board=0 check=0 port="" build=1
while [ $# -gt 0 ]; do
    case $1 in
    --board) board=1 ;;
    --check) check=1 ;;
    --port) [ $# -ge 2 ] || { usage >&2; exit 2; }; port=$2; shift ;;
    --no-build) build=0 ;;
    -h|--help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
    shift
done

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
if [ -z "$port" ]; then
    if [ "$check" = 1 ]; then port=$(free_port); else port=8080; fi
fi

# Waits up to $1 seconds for the command after it to succeed.
wait_for() {
    limit=$1
    shift
    end=$(($(date +%s) + limit))
    until "$@" >/dev/null 2>&1; do
        [ "$(date +%s)" -lt "$end" ] || return 1
        sleep 0.1
    done
}

url="http://127.0.0.1:$port/"
pids=""
cleanup() {
    trap - EXIT INT TERM
    for p in $pids; do
        kill "$p" 2>/dev/null || true
    done
    for p in $pids; do
        wait "$p" 2>/dev/null || true
    done
    if [ -n "${SIMDEV:-}" ]; then
        tools/simdev/simdev.sh stop || true
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

[ "$build" = 0 ] || tools/deps.sh

if [ "$board" = 1 ]; then
    if [ "$build" = 1 ]; then
        [ -e build/sysroot-mipsel/.toolnest-sysroot ] || tools/mksysroot.sh build/sysroot-mipsel
        cmake --preset mipsel >/dev/null
        cmake --build --preset mipsel
    fi
    # The board boots with its own web server, daemon and toolnest; qemu's
    # user-mode network forwards the loopback port to its port 80.
    TOOLNEST_EMU_HOSTFWD="tcp:127.0.0.1:$port-:80" tools/emu/run.sh --serve build/mipsel &
    pids="$pids $!"
    echo "== starting the emulated MIPS board (about half a minute)"
    wait_for 240 curl -sf -o /dev/null -m 5 "$url" || { echo "the board's web server did not come up" >&2; exit 1; }
else
    if [ "$build" = 1 ]; then
        cmake --preset host >/dev/null
        cmake --build --preset host
    fi
    root="$repo/build/device-root"
    rm -rf "$root"
    DESTDIR="$root" cmake --install build/host --prefix /usr >/dev/null

    # The simulated device (tools/simdev): this install in namespaces of its
    # own, with eth0 and a peer that pings it and sends it datagrams.
    SIMDEV=$(tools/simdev/simdev.sh start -r "$root" -t $$)
    export SIMDEV
    eval "$(tools/simdev/simdev.sh info)"
    dev() {
        tools/simdev/simdev.sh exec "$@"
    }
    # The debug service detaches by itself; so does the web server.
    dev debugar.cgi
    wait_for 20 dev test -S /var/run/dbg-cgi/ctrl-cgi-socket || { echo "debugar.cgi did not start" >&2; exit 1; }
    # (its warnings about the second listening socket and chroot go to its log)
    dev sh -c "mini_httpd -C /usr/share/toolnest/mini_httpd.conf </dev/null >/dev/null 2>>/var/log/mini_httpd.err"
    wait_for 20 tools/simdev/simdev.sh peer curl -sf -o /dev/null -m 2 "http://$SIMDEV_DEVICE_IP4/" ||
        { echo "the device's web server did not start" >&2; exit 1; }

    # This machine's loopback port to the device's web server: each connection
    # is relayed from the peer's network namespace, so nothing is added to the
    # machine's own network and the device sees a client on eth0.
    socat "TCP-LISTEN:$port,bind=127.0.0.1,reuseaddr,fork" \
        "EXEC:nsenter --target $SIMDEV_PEER_PID --net socat STDIO TCP\\:$SIMDEV_DEVICE_IP4\\:80" &
    pids="$pids $!"
    wait_for 20 curl -sf -o /dev/null -m 2 "$url" || { echo "cannot forward $url" >&2; exit 1; }
fi

echo
echo "== the device's debug page: $url"

if [ "$check" = 1 ]; then
    tmp=$(mktemp -d)
    trap 'rm -rf "$tmp"; cleanup' EXIT
    curl -sf -m 20 "$url" -o "$tmp/index.html"
    grep -q 'Device debugging' "$tmp/index.html"
    echo "page: $(wc -c < "$tmp/index.html") bytes"
    curl -sf -m 30 -D "$tmp/ps.head" "${url}cgi-bin/nph-debug.cgi?cmd=ps" -o "$tmp/ps.txt"
    grep -q 'psdump.txt' "$tmp/ps.head"
    echo "process list: $(wc -l < "$tmp/ps.txt") lines"
    curl -sf -m 30 "${url}cgi-bin/nph-debug.cgi?cmd=pcapdump&duration=1" -o "$tmp/cap.pcap"
    packets=$(tcpdump -nr "$tmp/cap.pcap" 2>/dev/null | wc -l)
    echo "capture of 1 s: $(wc -c < "$tmp/cap.pcap") bytes, $packets packets"
    [ "$packets" -gt 0 ]
    echo "check passed"
    exit 0
fi

echo "   serving until Ctrl-C"
while :; do
    sleep 3600 &
    wait $! || true
done
