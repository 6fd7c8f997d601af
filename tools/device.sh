#!/bin/sh
# The main job: builds toolnest, installs it the way a device image would carry
# it, and runs what the toolbox can do so far.
set -eu
cd "$(dirname "$0")/.."

tools/deps.sh
cmake --preset host >/dev/null
cmake --build --preset host

root="$PWD/build/device-root"
rm -rf "$root"
DESTDIR="$root" cmake --install build/host --prefix /usr >/dev/null
bin="$root/usr/bin"

show() {
    printf '\n$ %s\n' "$*"
    set +e
    "$@"
    rc=$?
    set -e
    printf '[exit status %d]\n' "$rc"
}

# Crash tests run caged: a fresh pid namespace, no core files, a hard time limit.
caged() {
    limit=$1
    shift
    prlimit --core=0 -- unshare --pid --fork --kill-child --mount-proc -- \
        timeout -s KILL "$limit" "$@"
}

mkdir -p "$root/tmp"
echo "== installed into $root"
(cd "$root" && find . -path ./usr/include -prune -o \( -type f -o -type l \) -print | sort)

show "$bin/toolnest"
show "$bin/toolnest" ctest
show "$bin/ctest"
show "$bin/toolnest" monitor
show "$bin/coredump-handler"

# A core of a running process by memsnap (the report line first), opened by
# gdb; the process runs on.
sleep 60 &
sleeper=$!
show sh -c "\"$bin/memsnap\" -c \"$root/tmp/sleep.core\" $sleeper &&
    gdb -nx -batch -iex 'set debuginfod enabled off' -ex bt /bin/sleep \"$root/tmp/sleep.core\" 2>&1 |
    grep -E '^#|^Core was' && grep State: /proc/$sleeper/status"
kill $sleeper
rm -f "$root/tmp/sleep.core"

# The system-call tracer on a started command (the interesting lines only).
show sh -c "\"$bin/tstrace\" /bin/echo hello | grep -E '(write|exit_group)\\(|open fds'"

# The simulated device (tools/simdev): this install in namespaces of its own,
# with eth0, the oops partition, a system report and the device's programs.
SIMDEV=$(tools/simdev/simdev.sh start -r "$root")
export SIMDEV
trap 'tools/simdev/simdev.sh stop' EXIT
dev() {
    tools/simdev/simdev.sh exec "$@"
}
echo
echo "== simulated device $SIMDEV"
grep -E 'SIMDEV_(DEVICE|PEER)_IP' "$SIMDEV/info"
show dev ps -eo pid,nlwp,args

# A packet capture on the device's eth0, where the peer's pings and datagrams
# arrive all the time.
show dev sh -c '
    pcapdump eth0 /tmp/eth0.pcap & pid=$!
    sleep 1; kill -INT $pid; wait $pid; echo "pcapdump ended with status $?"
    tcpdump -nr /tmp/eth0.pcap 2>/dev/null | cut -d" " -f2- | head -n 4'

# The oops log of the device's partition, three reports in a wrapped ring,
# newest last.
show dev oopslog /dev/part/oops
show dev oopslog -r /dev/part/oops

# The first lines of the device's system report.
show dev sh -c '/usr/sbin/gen_sysdigest.sh | head -n 12'

# The debug service: the daemon, the test front end standing in for the web
# server, and a browser (curl) in the peer's network asking over eth0.
front="$PWD/build/host/tools/frontend/handoff-front"
show dev debugar.cgi
dev "$front" -a 0.0.0.0 -p 8080 > /dev/null &
url="http://$(. "$SIMDEV/info"; echo "$SIMDEV_DEVICE_IP4"):8080/cgi-bin"
peer() {
    tools/simdev/simdev.sh peer "$@"
}
until peer curl -s -o /dev/null "$url/x?cmd=none"; do sleep 0.1; done
show peer sh -c "curl -s -i '$url/debugar.cgi?cmd=ps' | head -n 9"
show peer sh -c "curl -s -i '$url/debugar.cgi?cmd=nonsense'"
show peer sh -c "curl -s -m 2 '$url/debugar.cgi?cmd=strace&pid=hearth' | head -n 4"
show peer sh -c "curl -s '$url/debug.tgz' | tar -tzvf - | sed -n '1,3p;/strace.log/p;/netdump.cap/p;/core$/p'"

show caged 20 prlimit --nofile=64 -- "$bin/fdleak"
show caged 20 sh -c "\"$bin/segfault\"; echo \"segfault ended with status \$?\""
show caged 2 sh -c "prlimit --nproc=16 -- setpriv --reuid=65534 --regid=65534 --clear-groups -- \"$bin/forkbomb\" 50000 | head -n 5"
