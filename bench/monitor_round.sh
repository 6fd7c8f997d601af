#!/bin/sh
# Monitoring rounds against a peer on the same processes, in the same run, in
# a fresh pid namespace each:
#  - one leak-monitor round over 1000 processes holding 20 descriptors each
#    against `ls /proc/[0-9]*/fd | wc -l` (goal: at most 1.0); the monitor
#    reads every descriptor's link to count sockets, which that listing does
#    not, so `ls -l` (which reads the links too) is measured beside it;
#  - one runtime-trace round with smaps and status of 200 processes into
#    /dev/null against `cat /proc/[0-9]*/smaps /proc/[0-9]*/status`
#    (goal: at most 1.2).
# usage: bench/monitor_round.sh BUILD_DIR [MONITOR_PROCESSES] [RTRACE_PROCESSES] [ROUNDS]
set -eu
build=${1:?usage: monitor_round.sh BUILD_DIR [MONITOR_PROCESSES] [RTRACE_PROCESSES] [ROUNDS]}
bin=$(cd "$build" && pwd)/bench/bench_monitor_round

# run_ns PROCESSES ROUNDS SCRIPT: SCRIPT in a pid namespace with PROCESSES
# holders of 20 descriptors; it sees $bin, $rounds, $count and timed().
run_ns() {
    unshare --pid --fork --mount-proc -- sh -c '
        bin=$1 nproc=$2 rounds=$3
        mount -t tmpfs tmpfs /tmp
        i=0
        while [ $i -lt $nproc ]; do
            "$bin" hold 20 &
            i=$((i + 1))
        done
        until [ "$(ls /proc/[0-9]*/fd 2>/dev/null | grep -c "^19$")" -ge "$nproc" ]; do sleep 0.2; done
        count=$(ls -d /proc/[0-9]* | wc -l)
        echo "processes in namespace: $count"
        # timed CMD: runs the shell text CMD $rounds times; microseconds per run.
        timed() {
            start=$(date +%s%N)
            r=0
            while [ $r -lt $rounds ]; do
                eval "$1"
                r=$((r + 1))
            done
            end=$(date +%s%N)
            echo "$start $end $rounds" | awk "{printf \"%.3f\", (\$2 - \$1) / 1000 / \$3}"
        }
        ratio() { echo "$1 $2" | awk "{printf \"%.3f\", \$1 / \$2}"; }
        # peer LABEL CMD DIVISOR OURS: the time of CMD divided by DIVISOR,
        # and OURS as a ratio of it.
        peer() {
            t=$(ratio "$(timed "$2")" "$3")
            echo "$1 $t"
            echo "ratio against it: $(ratio "$4" "$t")"
        }
        eval "$4"
        kill $(jobs -p) 2>/dev/null || true
    ' sh "$bin" "$1" "$2" "$3"
}

echo "== leak monitor"
run_ns "${2:-1000}" "${4:-10}" '
    out=$("$bin" monitor "$rounds")
    echo "$out"
    ours=$(echo "$out" | sed -n "s/^us_per_process //p")
    peer "ls /proc/[0-9]*/fd | wc -l: us_per_process" \
        "ls /proc/[0-9]*/fd 2>/dev/null | wc -l > /dev/null" "$count" "$ours"
    peer "ls -l /proc/[0-9]*/fd | wc -l: us_per_process" \
        "ls -l /proc/[0-9]*/fd 2>/dev/null | wc -l > /dev/null" "$count" "$ours"'

echo "== runtime trace"
run_ns "${3:-200}" "${4:-20}" '
    out=$("$bin" rtrace "$rounds")
    echo "$out"
    ours=$(echo "$out" | sed -n "s/.*ms_per_round //p")
    peer "cat /proc/[0-9]*/smaps /proc/[0-9]*/status: ms_per_round" \
        "cat /proc/[0-9]*/smaps /proc/[0-9]*/status > /dev/null 2>&1 || true" 1000 "$ours"'
