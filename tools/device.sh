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

# A packet capture on eth0: one end of a veth pair in a private network
# namespace, with a few pings to an absent neighbour (ARP requests on the wire).
pcap="$root/tmp/eth0.pcap"
mkdir -p "$root/tmp"
show unshare --net sh -c "
    ip link add eth0 type veth peer name peer0 && ip link set eth0 up &&
    ip link set peer0 up && ip addr add 10.9.0.1/24 dev eth0 || exit 1
    \"$bin/pcapdump\" eth0 \"$pcap\" & pid=\$!
    sleep 0.5; ping -c 2 -i 0.3 -W 1 10.9.0.2 >/dev/null 2>&1; sleep 0.3
    kill -INT \$pid; wait \$pid; echo \"pcapdump ended with status \$?\"
    tcpdump -nr \"$pcap\" 2>/dev/null | cut -d' ' -f2- | head -n 4"

# The oops log of a partition image with three reports in a wrapped ring,
# read through a loop block device, newest last.
img="$root/tmp/oops.img"
python3 - "$img" <<'PY'
import struct, sys
slots = [b"\xff" * 4096 for _ in range(4)]
for index, count, text in [(2, 5, b"oops five\n"), (0, 6, b"oops six\n"), (1, 7, b"oops seven\n")]:
    slots[index] = (struct.pack("<II", count, 0x5d005d00) + text).ljust(4096, b"\xff")
open(sys.argv[1], "wb").write(b"".join(slots))
PY
if loop=$(losetup --find --show --read-only "$img" 2>/dev/null); then
    show "$root/usr/sbin/oopslog" "$loop"
    show "$root/usr/sbin/oopslog" -r "$loop"
    losetup --detach "$loop"
else
    echo "(no loop device here: oops-log demo left out)"
fi

show caged 20 prlimit --nofile=64 -- "$bin/fdleak"
show caged 20 sh -c "\"$bin/segfault\"; echo \"segfault ended with status \$?\""
show caged 2 sh -c "prlimit --nproc=16 -- setpriv --reuid=65534 --regid=65534 --clear-groups -- \"$bin/forkbomb\" 50000 | head -n 5"
