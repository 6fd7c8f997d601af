#!/bin/sh
# One leak-monitor round over 1000 processes holding 20 descriptors each, in
# a fresh pid namespace, against `ls /proc/[0-9]*/fd | wc -l` over the same
# processes in the same run; prints microseconds per process and the ratio
# (goal: at most 1.0).  The monitor reads every descriptor's link to count
# sockets, which that listing does not; `ls -l` (which reads the links too)
# is measured beside it for scale.
# usage: bench/monitor_round.sh BUILD_DIR [PROCESSES] [ROUNDS]
set -eu
build=${1:?usage: monitor_round.sh BUILD_DIR [PROCESSES] [ROUNDS]}
nproc=${2:-1000}
rounds=${3:-10}
bin=$(cd "$build" && pwd)/bench/bench_monitor_round

exec unshare --pid --fork --mount-proc -- sh -c '
    bin=$1 nproc=$2 rounds=$3
    mount -t tmpfs tmpfs /tmp
    i=0
    while [ $i -lt $nproc ]; do
        "$bin" hold 20 &
        i=$((i + 1))
    done
    until [ "$(ls /proc/[0-9]*/fd 2>/dev/null | grep -c "^19$")" -ge "$nproc" ]; do sleep 0.2; done
    echo "processes in namespace: $(ls -d /proc/[0-9]* | wc -l)"

    out=$("$bin" monitor "$rounds")
    echo "$out"
    ours=$(echo "$out" | sed -n "s/^us_per_process //p")

    count=$(ls -d /proc/[0-9]* | wc -l)
    start=$(date +%s%N)
    r=0
    while [ $r -lt $rounds ]; do
        lines=$(ls /proc/[0-9]*/fd 2>/dev/null | wc -l)
        r=$((r + 1))
    done
    end=$(date +%s%N)
    peer=$(echo "$start $end $rounds $count" | awk "{printf \"%.3f\", (\$2 - \$1) / 1000 / \$3 / \$4}")
    echo "ls /proc/[0-9]*/fd | wc -l: $lines lines, us_per_process $peer"
    echo "ratio monitor/ls: $(echo "$ours $peer" | awk "{printf \"%.3f\", \$1 / \$2}")"
    start=$(date +%s%N)
    r=0
    while [ $r -lt $rounds ]; do
        lines=$(ls -l /proc/[0-9]*/fd 2>/dev/null | wc -l)
        r=$((r + 1))
    done
    end=$(date +%s%N)
    peer=$(echo "$start $end $rounds $count" | awk "{printf \"%.3f\", (\$2 - \$1) / 1000 / \$3 / \$4}")
    echo "ls -l /proc/[0-9]*/fd | wc -l: $lines lines, us_per_process $peer"
    echo "ratio monitor/ls -l: $(echo "$ours $peer" | awk "{printf \"%.3f\", \$1 / \$2}")"
    kill $(jobs -p) 2>/dev/null || true
' sh "$bin" "$nproc" "$rounds"
