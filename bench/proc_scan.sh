#!/bin/sh
# Scans 1000 sleeping processes in a fresh pid namespace with toolnest's /proc
# queries and with `ls -l /proc/[0-9]*/fd | wc -l`, in the same run, and prints
# the cost per process of each and their ratio.
# usage: bench/proc_scan.sh BUILD_DIR [PROCESSES] [ROUNDS]
set -eu
build=${1:?usage: proc_scan.sh BUILD_DIR [PROCESSES] [ROUNDS]}
nproc=${2:-1000}
rounds=${3:-10}
bin=$(cd "$build" && pwd)/bench/bench_proc_scan

exec unshare --pid --fork --mount-proc -- sh -c '
    bin=$1 nproc=$2 rounds=$3
    i=0
    while [ $i -lt $nproc ]; do
        sleep 100000 &
        i=$((i + 1))
    done
    sleep 1
    echo "processes in namespace: $(ls -d /proc/[0-9]* | wc -l)"

    out=$("$bin" "$rounds")
    echo "$out"
    ours=$(echo "$out" | sed -n "s/^us_per_process //p")

    start=$(date +%s%N)
    r=0
    while [ $r -lt $rounds ]; do
        lines=$(ls -l /proc/[0-9]*/fd 2>/dev/null | wc -l)
        r=$((r + 1))
    done
    end=$(date +%s%N)
    count=$(ls -d /proc/[0-9]* | wc -l)
    peer=$(echo "$start $end $rounds $count" | awk "{printf \"%.3f\", (\$2 - \$1) / 1000 / \$3 / \$4}")
    echo "ls -l /proc/[0-9]*/fd | wc -l: $lines lines, us_per_process $peer"
    echo "ratio toolnest/ls: $(echo "$ours $peer" | awk "{printf \"%.3f\", \$1 / \$2}")"
    kill $(jobs -p) 2>/dev/null || true
' sh "$bin" "$nproc" "$rounds"
