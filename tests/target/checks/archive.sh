# shellcheck shell=sh
# The debug archive on the board: debugar.cgi -d -t over the board's own
# /proc, eth0 and MIPS processes.  The archive leaves the board through the
# console (between TN-ARTIFACT lines) for the host's GNU tar
# (ctest target.archive_board), with the size of the board's /proc/kcore.
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

archive_tar() {
    # a cage of its own: two sleeping processes are all there is to trace
    # and dump besides the shell that starts the archive (once both forks
    # are sleep itself, not the shell before its exec)
    run caged 300 sh -c '
        sleep 600 & a=$!
        sleep 600 & b=$!
        until [ "$(cat /proc/$a/comm)" = sleep ] && [ "$(cat /proc/$b/comm)" = sleep ]; do :; done
        debugar.cgi -d -t > archive.tar
        echo "archive exit $?"'
    want_rc 0
    grep -q '^archive exit 0$' "$TN_DIR/out" || bad "debugar.cgi: $(cat "$TN_DIR/out")"
    size=$(wc -c < archive.tar)
    [ "$size" -gt 716800 ] || bad "archive of $size bytes"
    echo "  archive of $size bytes"
    kcore=$(stat -c %s /proc/kcore 2>/dev/null || echo none)
    echo "  /proc/kcore: $kcore"
    echo "TN-ARTIFACT-BEGIN archive-board.tar.gz"
    gzip -c archive.tar | base64
    echo "TN-ARTIFACT-END"
    echo "TN-ARTIFACT-BEGIN archive-board-kcore.txt"
    echo "$kcore" | base64
    echo "TN-ARTIFACT-END"
}

check archive-tar archive_tar
