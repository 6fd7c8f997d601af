# shellcheck shell=sh
# The installed tracer applets on the MIPS kernel: o32 decoding through the
# real ptrace, MIPS signal numbers, processes held at their exit.
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

helper_dir=$(dirname "$(grep -m1 '/tests/trace/test_' /opt/toolnest/tests.list)")

# want_line TEXT: stdout (addresses masked) holds a line ending in TEXT (the
# traced program's own output shares the file and may stand before it).
want_line() {
    while IFS= read -r line; do
        case $line in
        *"$1") return ;;
        esac
    done < "$TN_DIR/masked"
    call=$(echo "$1" | sed -n 's/^\[[^]]*\] \[A A\] \([a-z_0-9]*\)(.*/\1/p')
    bad "no line: $1"
    [ -n "$call" ] && grep -F "] $call(" "$TN_DIR/masked" | sed 's/^/    seen: /'
}

tstrace_o32_lines() {
    [ -x "$helper_dir/trace_helper" ] || { bad "no trace_helper in $helper_dir"; return; }
    # A short argv[0]: the tracer names processes from the first 31 bytes of
    # their command line.
    (cd "$helper_dir" && timeout -s KILL 60 $B/tstrace ./trace_helper calls) \
        > "$TN_DIR/out" 2> "$TN_DIR/err"
    rc=$?
    want_rc 0
    sed -e 's/\(\[[0-9]* [^]]*\]\) \[[0-9a-f]* [0-9a-f]*\] /\1 [A A] /' "$TN_DIR/out" > "$TN_DIR/masked"
    pid=$(sed -n 's/^\[\([0-9]*\) trace_helper\] \[A A\] .*/\1/p' "$TN_DIR/masked" | head -n 1)
    [ -n "$pid" ] || { bad "no trace lines: $(head -c 300 "$TN_DIR/out")"; return; }
    p="[$pid trace_helper] [A A] "
    out="$TN_DIR/out"
    want_line "${p}write(1 $out, \"hi\\n\", 3) = 3"
    want_line "${p}write(1 $out, \"$(printf '%032d' 0 | tr 0 x)\", 100) = 100"
    # o32 reports errors as a positive number with the a3 flag set.
    want_line "${p}open(\"/nonexistent/directory/with/a/lo\", 0, 0) = 2"
    # No remainder pointer: its read fails and prints as -1s.
    want_line "${p}nanosleep({ 0, 1000000 }, { -1, -1 }) = 0"
    want_line "${p}exit_group(2)"
    # SIGUSR1 is 16 on MIPS.
    want_line "[$pid trace_helper] ---  SIGNAL 16 SIGUSR1 ---"
    grep -F "${p}connect(" "$TN_DIR/masked" |
        grep -q ' socket:\[[0-9]*\]\[127\.0\.0\.1:[0-9]* -> 127\.0\.0\.1:[0-9]*\]\[TCP_ESTABLISHED\], 0x[0-9a-f]*, 16) = 0$' || { bad "no connect line with both endpoints"; grep -F "connect(" "$TN_DIR/masked" | sed 's/^/    seen: /'; }
    n=$(grep -c "^\[$pid trace_helper\] [0-9]* open fds:\$" "$TN_DIR/masked")
    [ "$n" = 2 ] || bad "$n descriptor listings, want 2 (exit call and exit event)"
}

stopper_holds_at_exit() {
    [ -x "$helper_dir/trace_helper" ] || { bad "no trace_helper in $helper_dir"; return; }
    (cd "$helper_dir" && exec $B/stopper ./trace_helper exit1) > "$TN_DIR/out" 2> "$TN_DIR/err" &
    stopper=$!
    i=0
    until [ "$(grep -c Trapped "$TN_DIR/out")" -ge 2 ] || [ $i -ge 600 ]; do
        sleep 0.1
        i=$((i + 1))
    done
    child=$(sed -n 's/^stopper: Trapped pid=\([0-9]*\) .*/\1/p' "$TN_DIR/out" | head -n 1)
    printf 'stopper: Trapped pid=%s exit code 1\nstopper: Trapped pid=%s exit code 256\n' \
        "$child" "$child" > "$TN_DIR/want"
    cmp -s "$TN_DIR/want" "$TN_DIR/out" || bad "stdout: $(cat "$TN_DIR/out")"
    # The second line comes while it is held in its exit.
    state=$(sed -n 's/^State:\t\(.\).*/\1/p' "/proc/$child/status" 2>/dev/null)
    [ "$state" = t ] || bad "held process in state '$state', want t"
    kill -INT $stopper
    wait $stopper
    rc=$?
    want_rc 0
    # stopper has reaped it before it ended.
    [ ! -e "/proc/$child/status" ] || bad "process $child still there after SIGINT"
}

check tstrace-o32-lines tstrace_o32_lines
check stopper-holds-at-exit stopper_holds_at_exit
