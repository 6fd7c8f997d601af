#!/bin/sh
# Wall time of N x (getppid + 48-byte write to /dev/null): untraced, under
# `strace -o /dev/null`, under `strace -yy -o /dev/null` (which shows
# descriptor paths as tstrace does: the fair peer) and under tstrace with its
# output to /dev/null.  Every round runs the four in turn, so drift of a
# shared machine hits all alike; printed are the medians over the rounds,
# first with tracer and tracee pinned to one CPU, then unpinned, and the
# ratios tstrace/strace-yy and tstrace/strace of each.  Two more runs show
# where the floor lies: bench_trace_floor making at each stop only the system
# calls a tracer must make (wait, one register read, resume: "stops"), and
# those plus what tstrace's lines need (the descriptor's link and the written
# data, at entry and at return, and one output write per stop: "calls").
# usage: bench/trace_vs_strace.sh BUILD_DIR [N] [ROUNDS]
set -eu
build=$(cd "${1:?usage: trace_vs_strace.sh BUILD_DIR [N] [ROUNDS]}" && pwd)
n=${2:-20000}
rounds=${3:-7}
load=$build/bench/bench_trace_load
floor=$build/bench/bench_trace_floor
tstrace=$build/bin-tstrace/tstrace
mkdir -p "$build/bin-tstrace"
ln -sf "$build/toolnest" "$tstrace"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# secs PIN CMD...: seconds CMD takes, under taskset -c 0 when PIN is "pinned".
secs() {
    pin=$1
    shift
    if [ "$pin" = pinned ]; then
        set -- taskset -c 0 "$@"
    fi
    start=$(date +%s%N)
    "$@" >/dev/null 2>&1
    end=$(date +%s%N)
    echo "$start $end" | awk '{ printf "%.4f\n", ($2 - $1) / 1e9 }'
}

median() {
    sort -n "$1" | awk '{ v[NR] = $1 } END { printf "%.3f", (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

echo "workload: $n x (getppid + 48-byte write to /dev/null); median of $rounds rounds, seconds"
# Tracer and tracee on one CPU: every system-call stop hands control from one
# to the other without waking another CPU.  Unpinned, the scheduler decides;
# on an idle virtual machine the wake-ups of idle CPUs then dominate.
for pin in pinned unpinned; do
    for tool in plain strace strace_yy tstrace stops calls; do : > "$tmp/$tool"; done
    r=0
    while [ $r -lt "$rounds" ]; do
        secs $pin "$load" "$n" >> "$tmp/plain"
        secs $pin strace -o /dev/null "$load" "$n" >> "$tmp/strace"
        secs $pin strace -yy -o /dev/null "$load" "$n" >> "$tmp/strace_yy"
        secs $pin "$tstrace" "$load" "$n" >> "$tmp/tstrace"
        secs $pin "$floor" stops "$load" "$n" >> "$tmp/stops"
        secs $pin "$floor" calls "$load" "$n" >> "$tmp/calls"
        r=$((r + 1))
    done
    plain=$(median "$tmp/plain")
    st=$(median "$tmp/strace")
    yy=$(median "$tmp/strace_yy")
    ts=$(median "$tmp/tstrace")
    stops=$(median "$tmp/stops")
    calls=$(median "$tmp/calls")
    echo "${pin}_untraced_s $plain"
    echo "${pin}_strace_s $st"
    echo "${pin}_strace_yy_s $yy"
    echo "${pin}_tstrace_s $ts"
    echo "${pin}_floor_stops_s $stops"
    echo "${pin}_floor_calls_s $calls"
    echo "$ts $yy $st" | awk -v p="$pin" '{ printf "%s_ratio_tstrace_strace_yy %.3f\n%s_ratio_tstrace_strace %.3f\n", p, $1 / $2, p, $1 / $3 }'
    echo "$stops $calls $yy" | awk -v p="$pin" '{ printf "%s_ratio_floor_stops_strace_yy %.3f\n%s_ratio_floor_calls_strace_yy %.3f\n", p, $1 / $3, p, $2 / $3 }'
done
