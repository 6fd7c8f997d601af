#!/bin/sh
# One runtime-trace round with smaps and status of 200 processes, in a fresh
# pid namespace, into /dev/null, against
# `cat /proc/[0-9]*/smaps /proc/[0-9]*/status > /dev/null` in the same run;
# prints milliseconds per round and the ratio (goal: at most 1.2).
# usage: bench/rtrace_round.sh BUILD_DIR [PROCESSES] [ROUNDS]
set -eu
build=${1:?usage: rtrace_round.sh BUILD_DIR [PROCESSES] [ROUNDS]}
nproc=${2:-200}
rounds=${3:-20}
bin=$(cd "$build" && pwd)/bench/bench_monitor_round

exec unshare --pid --fork --mount-proc -- sh -c '
    bin=$1 nproc=$2 rounds=$3
    i=0
    while [ $i -lt $nproc ]; do
        "$bin" hold 20 &
        i=$((i + 1))
    done
    until [ "$(ls /proc/[0-9]*/fd 2>/dev/null | grep -c "^19$")" -ge "$nproc" ]; do sleep 0.2; done
    echo "processes in namespace: $(ls -d /proc/[0-9]* | wc -l)"

    out=$("$bin" rtrace "$rounds")
    echo "$out"
    ours=$(echo "$out" | sed -n "s/.*ms_per_round //p")

    start=$(date +%s%N)
    r=0
    while [ $r -lt $rounds ]; do
        cat /proc/[0-9]*/smaps /proc/[0-9]*/status > /dev/null 2>&1 || true
        r=$((r + 1))
    done
    end=$(date +%s%N)
    peer=$(echo "$start $end $rounds" | awk "{printf \"%.3f\", (\$2 - \$1) / 1e6 / \$3}")
    echo "cat /proc/[0-9]*/smaps /proc/[0-9]*/status: ms_per_round $peer"
    echo "ratio rtrace/cat: $(echo "$ours $peer" | awk "{printf \"%.3f\", \$1 / \$2}")"
    kill $(jobs -p) 2>/dev/null || true
' sh "$bin" "$nproc" "$rounds"
