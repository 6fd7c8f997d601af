#!/bin/sh
# Wall time of a core dump of one process holding MIB MiB of written
# anonymous memory (256 by default): `memsnap -c /dev/stdout PID > file`
# against gdb's `gcore` on the same process, in the same run; and memsnap's
# throughput next to `dd` of the same number of bytes from /dev/zero to a
# file (what this machine copies into a file at best).  Each figure is the
# best of ROUNDS runs (3 by default); files go to DIR (default /tmp).
# usage: bench/memsnap_vs_gcore.sh BUILD_DIR [MIB] [ROUNDS] [DIR]
set -eu
build=$(cd "${1:?usage: memsnap_vs_gcore.sh BUILD_DIR [MIB] [ROUNDS] [DIR]}" && pwd)
mib=${2:-256}
rounds=${3:-3}
dir=${4:-/tmp}
memsnap=$build/src/memsnap/memsnap
hog=$build/bench/bench_memsnap_hog
command -v gcore >/dev/null || { echo "gcore (package gdb) is needed" >&2; exit 2; }

work=$(mktemp -d "$dir/tn-memsnap-bench.XXXXXX")
fifo=$work/hold
mkfifo "$fifo"
"$hog" "$mib" < "$fifo" > "$work/ready" &
hogpid=$!
exec 7> "$fifo"
trap 'exec 7>&-; wait $hogpid 2>/dev/null || true; rm -rf "$work"' EXIT
while ! grep -q '^ready' "$work/ready" 2>/dev/null; do sleep 0.05; done
pid=$(cut -d' ' -f2 "$work/ready")

now() { date +%s%N; }
best=""
# time_best NAME COMMAND: best wall time in nanoseconds over the rounds; the
# output file is removed after each round.
time_best() {
    name=$1; shift
    b=0
    i=0
    while [ $i -lt "$rounds" ]; do
        sync
        t0=$(now)
        "$@"
        t1=$(now)
        t=$((t1 - t0))
        if [ $b -eq 0 ] || [ $t -lt $b ]; then b=$t; fi
        if [ "$name" = memsnap ]; then size=$(stat -c %s "$work/core.memsnap"); fi
        rm -f "$work"/core.* "$work/dd.out"
        i=$((i + 1))
    done
    best=$b
}

snap() { "$memsnap" -c /dev/stdout "$pid" > "$work/core.memsnap" 2> "$work/report"; }
gc() { gcore -o "$work/core.gcore" "$pid" > /dev/null 2>&1; }
size=0
time_best memsnap snap
t_memsnap=$best
time_best gcore gc
t_gcore=$best
blocks=$(( (size + 1048575) / 1048576 ))
ddrun() { dd if=/dev/zero of="$work/dd.out" bs=1M count=$blocks 2>/dev/null; }
time_best dd ddrun
t_dd=$best

awk -v s="$size" -v m="$t_memsnap" -v g="$t_gcore" -v d="$t_dd" -v blocks="$blocks" 'BEGIN {
    printf "core_bytes %d\n", s
    printf "memsnap_s %.3f\n", m / 1e9
    printf "gcore_s %.3f\n", g / 1e9
    printf "ratio_gcore_memsnap %.2f\n", g / m
    printf "memsnap_MBps %.0f\n", s / 1048576 / (m / 1e9)
    printf "dd_MBps %.0f\n", blocks / (d / 1e9)
    printf "ratio_dd_memsnap %.2f\n", (blocks / (d / 1e9)) / (s / 1048576 / (m / 1e9))
}'
