# shellcheck shell=sh
# The crash-test applets on the board, each caged in a fresh pid namespace
# with limits and a hard time limit.
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

NOBODY="setpriv --reuid=65534 --regid=65534 --clear-groups --"

fdleak_runs_out() {
    run caged 60 prlimit --nofile=64 -- $B/fdleak
    want_rc 0
    want_out 'leaked 16\nleaked 32\nleaked 48\n'
    want_err 'open: Too many open files\n'
}

fdleak_alternates() {
    # What the first 16 leaked descriptors are: socket, /dev/null, in turn.
    run caged 60 sh -c '
        prlimit --nofile=64 -- /usr/bin/toolnest fdleak 100000 > leak &
        pid=$!
        i=0
        until grep -q "leaked 16" leak || [ $i -ge 300 ]; do sleep 0.1; i=$((i + 1)); done
        for fd in $(ls /proc/$pid/fd | sort -n); do readlink /proc/$pid/fd/$fd; done
        kill -9 $pid'
    kinds=$(sed -n -e 's/^socket:.*/s/p' -e 's|^/dev/null$|n|p' "$TN_DIR/out" | tr -d '\n')
    leaked=$(echo "${kinds#${kinds%%s*}}" | cut -c1-16)
    [ "$leaked" = snsnsnsnsnsnsnsn ] || bad "leaked descriptors '$leaked', want snsnsnsnsnsnsnsn"
}

segfault_dies() {
    run caged 30 sh -c "$B/segfault; echo status \$?"
    # 128 + SIGSEGV (11 on MIPS as well).
    want_out 'status 139\n'
    [ -z "$(ls -A)" ] || bad "left files behind: $(ls -A)"
}

forkbomb_counts() {
    run caged 8 sh -c "prlimit --nproc=24 -- $NOBODY $B/forkbomb 20000 | head -n 10"
    want_out 'forks %d\n' $(seq 1 10)
}

check fdleak-runs-out fdleak_runs_out
check fdleak-alternates fdleak_alternates
check segfault-dies segfault_dies
check forkbomb-counts forkbomb_counts
