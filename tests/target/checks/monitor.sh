# shellcheck shell=sh
# The leak monitor and the runtime trace sampler on the board's MIPS kernel.
# The trace recorded here leaves the board through the console (between
# TN-ARTIFACT lines) for the host's reader (ctest target.rtrace_report).
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

# caged_mon HOLDER_ARGS REPORT_LINE: in a pid namespace of its own (timeout,
# sh, the holder and mon), mon runs until the report has a line starting
# with REPORT_LINE; prints the holder's "ready PID", mon's stderr and the
# report lines from REPORT_LINE on (at most two).
caged_mon() {
    run caged 120 sh -c '
        mount -t tmpfs tmpfs /tmp
        board_holder $1 > /tmp/ready &
        until [ -s /tmp/ready ]; do sleep 0.05; done
        cat /tmp/ready
        mon 200000 2> /tmp/err &
        m=$!
        until grep -q "^$2" /tmp/dbg-report.txt 2>/dev/null && [ -s /tmp/err ]; do sleep 0.05; done
        kill -INT $m
        wait $m
        echo "mon exit $?"
        cat /tmp/err
        grep -A1 "^$2" /tmp/dbg-report.txt | head -n 2' sh "$1" "$2"
    want_rc 0
    pid=$(sed -n 's/^ready //p' "$TN_DIR/out")
}

mon_fd_score() {
    caged_mon "files 2100" fdstats
    want_out 'ready %s\nmon exit 0\npid %s name board_holder fd_score 65 [+65] sk=0\n\nCleanup and exit.\nfdstats for pid=%s score=65:\n0h nr_fd=2103 nr_sock=0 nr_pipe=0\n' \
        "$pid" "$pid" "$pid"
}

mon_fork_score() {
    caged_mon "children 16" forkstats
    want_out 'ready %s\nmon exit 0\npid %s name board_holder fork_score 16 [+16]\n\nCleanup and exit.\nforkstats for pid=%s: score=16 nr_childs=16\n' \
        "$pid" "$pid" "$pid"
}

kthreadd_needs_32() {
    # The whole system: kthreadd (pid 2) is a real kernel thread; its
    # children count against 32, not 16.
    kids=0
    for s in /proc/[0-9]*/stat; do
        # The fields of the stat line, split on purpose.
        # shellcheck disable=SC2046
        set -- $(cat "$s" 2>/dev/null)
        [ "${4:-}" = 2 ] && kids=$((kids + 1))
    done
    run unshare --mount sh -c '
        mount -t tmpfs tmpfs /tmp
        mon 100000 2> /tmp/err &
        m=$!
        until grep -q "round=2$" /tmp/dbg-report.txt 2>/dev/null; do sleep 0.05; done
        kill -INT $m
        wait $m
        cat /tmp/err'
    want_rc 0
    line=$(grep '^pid 2 name kthreadd ' "$TN_DIR/out")
    echo "  kthreadd has $kids children; mon: ${line:-no line}"
    if [ "$kids" -ge 40 ]; then
        n=$(echo "$line" | sed -n 's/^pid 2 name kthreadd fork_score \([0-9]*\) \[+\1\]$/\1/p')
        [ -n "$n" ] && [ "$n" -ge 32 ] || bad "no fork_score line for kthreadd: '$line'"
    elif [ "$kids" -lt 28 ]; then
        [ -z "$line" ] || bad "kthreadd reported with $kids children: $line"
        [ "$kids" -ge 16 ] || echo "  (fewer than 16 kernel threads: the rule is not exercised)"
    fi
}

STANDIN='#!/bin/sh
echo "$0 $*"
trap '"'"'kill $t 2>/dev/null; exit 0'"'"' TERM
i=0
while :; do
    i=$((i + 1))
    echo "tick $i"
    sleep 0.3 & t=$!
    wait $t
done
'

rtrace_stream() {
    # The device-only helpers as small stand-ins; iostat and pidstat are real.
    for p in hearth signalpost; do
        printf '%s' "$STANDIN" > /usr/bin/$p
        chmod 755 /usr/bin/$p
    done
    # Everything but smapstot (no such file here): three rounds, then the
    # reader goes away in the middle of a record.
    board_rtrace rtrace 2043 1 2> err | board_rtrace cut 3 100 > trace.bin
    rm -f /usr/bin/hearth /usr/bin/signalpost
    tail -n 1 err > last
    printf 'rtrace_run returned 0, children: none\n' > want
    cmp -s want last || bad "sampler: $(cat err)"
    for p in /proc/[0-9]*; do
        case $(tr '\0' ' ' < $p/cmdline 2>/dev/null) in
        *iostat*|*pidstat*|*hearth*|*signalpost*) bad "helper left running: $p" ;;
        esac
    done
    size=$(wc -c < trace.bin)
    [ "$size" -gt 10000 ] || bad "stream of $size bytes"
    echo "  stream of $size bytes"
    echo "TN-ARTIFACT-BEGIN rtrace-board.bin.gz"
    gzip -c trace.bin | base64
    echo "TN-ARTIFACT-END"
}

check mon-fd-score mon_fd_score
check mon-fork-score mon_fork_score
check kthreadd-needs-32 kthreadd_needs_32
check rtrace-stream rtrace_stream
