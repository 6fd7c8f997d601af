# The installed toolbox on the board: layout, dispatch by name, texts and
# exit codes.
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
    { sleep 0.3; $B/ctest; echo $? > status; } | true
    [ "$(cat status)" = 0 ] || bad "ctest into a closed pipe: status $(cat status)"
}

unbuilt_applets() {
    # Applets whose module is not written yet; a name leaves this list when its
    # module arrives (and its own checks take over).
    for n in coredump-handler; do
        run caged 3 $B/$n -p 999999
        want_rc 1
        want_err '%s: applet not built into this toolnest\n' $n
    done
}

check layout layout
check toolnest-alone alone
check unknown-applet unknown
check one-toolnest-word one_toolnest_word
check prefixes-are-unknown prefixes_unknown
check ctest-spellings ctest_spellings
check sigpipe-ignored sigpipe_ignored
check unbuilt-applets unbuilt_applets
