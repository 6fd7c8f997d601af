# shellcheck shell=sh
# The installed toolbox on the board: layout, dispatch by name, texts and
# exit codes.
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

APPLETS="tstrace stopper pcapdump coredump-handler debugar.cgi mon ctest forkbomb fdleak segfault"

layout() {
    [ -f $B/toolnest ] && [ ! -L $B/toolnest ] && [ -x $B/toolnest ] || bad "no $B/toolnest"
    for a in $APPLETS; do
        [ -L $B/$a ] && [ "$(readlink -f $B/$a)" = $B/toolnest ] || bad "$B/$a is no link to toolnest"
    done
    [ -L /usr/sbin/oopslog ] && [ "$(readlink -f /usr/sbin/oopslog)" = $B/toolnest ] ||
        bad "/usr/sbin/oopslog is no link to toolnest"
}

alone() {
    run $B/toolnest
    want_rc 1
    want_out ''
    want_err ''
}

unknown() {
    run $B/toolnest nosuch -x
    want_rc 1
    want_out 'nosuch: unknown toolnest applet\n'
}

one_toolnest_word() {
    run $B/toolnest toolnest ctest
    want_rc 1
    want_out 'toolnest: unknown toolnest applet\n'
}

prefixes_unknown() {
    for n in monitor ctests CTEST; do
        ln -s $B/toolnest ./$n
        run ./$n
        want_rc 1
        want_out '%s: unknown toolnest applet\n' $n
    done
}

ctest_spellings() {
    run $B/ctest
    want_rc 0
    want_out 'call exit\n'
    want_err ''
    run $B/toolnest ctest
    want_rc 0
    want_out 'call exit\n'
    run $B/toolnest /some/dir/ctest extra
    want_rc 0
    want_out 'call exit\n'
    want_err ''
}

sigpipe_ignored() {
    # The reader is gone before ctest writes: the write fails, exit status 0.
    # The subshell learns that the reader is gone from its own failing
    # writes (SIGPIPE ignored there only; ctest starts with the default).
    {
        (
            trap '' PIPE
            i=0
            while printf x 2>/dev/null && [ $i -lt 1000000 ]; do i=$((i + 1)); done
        )
        $B/ctest
        echo $? > status
    } | true
    [ "$(cat status)" = 0 ] || bad "ctest into a closed pipe: status $(cat status)"
}

check layout layout
check toolnest-alone alone
check unknown-applet unknown
check one-toolnest-word one_toolnest_word
check prefixes-are-unknown prefixes_unknown
check ctest-spellings ctest_spellings
check sigpipe-ignored sigpipe_ignored
