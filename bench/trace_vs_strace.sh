#!/bin/sh
# Wall time of N x (getppid + 48-byte write to /dev/null): untraced, under
# `strace -o /dev/null` and under tstrace with its output to /dev/null, in the
# same run; prints the seconds of each and the ratio tstrace/strace.
# usage: bench/trace_vs_strace.sh BUILD_DIR [N]
set -eu
build=$(cd "${1:?usage: trace_vs_strace.sh BUILD_DIR [N]}" && pwd)
n=${2:-100000}
load=$build/bench/bench_trace_load
tstrace=$build/bin-tstrace/tstrace
mkdir -p "$build/bin-tstrace"
ln -sf "$build/toolnest" "$tstrace"

# Tracer and tracee share one CPU: every system-call stop hands control from
# one to the other, and across CPUs the hand-off cost of an idle virtual
# machine's CPU waking up dwarfs everything else (seen: 24 s instead of 1.5 s).
secs() {
    start=$(date +%s%N)
    taskset -c 0 "$@" >/dev/null 2>&1
    end=$(date +%s%N)
    echo "$start $end" | awk '{ printf "%.3f", ($2 - $1) / 1e9 }'
}

plain=$(secs "$load" "$n")
st=$(secs strace -o /dev/null "$load" "$n")
ts=$(secs "$tstrace" "$load" "$n")
echo "untraced_s $plain"
echo "strace_s $st"
echo "tstrace_s $ts"
echo "$ts $st" | awk '{ printf "ratio_tstrace_strace %.3f\n", $1 / $2 }'
