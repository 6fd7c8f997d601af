# shellcheck shell=sh
# The crash path on the board's MIPS kernel: the board's core pattern pipes
# the core of a crashing process into the installed coredump-handler, which
# uploads it to vsftpd in the peer namespace (10.0.0.2, the board's own test
# network) or hands it to the debug service.  Syslog lines come from
# board_syslog on /dev/log.  The cores leave the board through the console
# (between TN-ARTIFACT lines) for gdb on the host (ctest target.crash_gdb).
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

PATTERN='|/usr/bin/coredump-handler %e.%p.core %c %E %e'
CONF=/etc/conf.d/debugar.cgi
SAVED_PATTERN=$(cat /proc/sys/kernel/core_pattern)

handler_gone() {
    for c in /proc/[0-9]*/comm; do
        [ "$(cat "$c" 2>/dev/null)" = coredump-handle ] && return 1
    done
    return 0
}

# set_up: the handler as the board's core-dump pipe program, the board's
# syslog in $TN_DIR/syslog.
set_up() {
    echo "$PATTERN" > /proc/sys/kernel/core_pattern
    board_syslog /dev/log > "$TN_DIR/syslog" 2> "$TN_DIR/syslog.err" &
    syslog_pid=$!
    wait_until 600 grep -q ready "$TN_DIR/syslog.err" || bad "board_syslog did not start"
}

# tear_down: the core pattern as it was, no syslog, no configuration, no
# FTP server.
tear_down() {
    echo "$SAVED_PATTERN" > /proc/sys/kernel/core_pattern
    kill "$syslog_pid" 2>/dev/null
    wait "$syslog_pid" 2>/dev/null
    rm -f "$CONF"
    if [ -n "${ftp_pid:-}" ]; then
        kill -CONT "$ftp_pid" 2>/dev/null
        kill "$ftp_pid" 2>/dev/null
        wait "$ftp_pid" 2>/dev/null
        ftp_pid=
    fi
}

# crash LIMIT: segfault with core size limit LIMIT in a pid namespace of its
# own; its shell reports the status.
crash() {
    prlimit --core="$1" -- unshare --pid --fork --kill-child --mount-proc -- \
        timeout -s KILL 120 sh -c '/usr/bin/segfault; echo "status $?"'
}

want_syslog() {
    printf "$@" > "$TN_DIR/syslog.want"
    if ! cmp -s "$TN_DIR/syslog.want" "$TN_DIR/syslog"; then
        bad "syslog differs; want, then got:"
        sed 's/^/    < /' "$TN_DIR/syslog.want"
        sed 's/^/    > /' "$TN_DIR/syslog"
    fi
}

# ftp_server: vsftpd in the peer namespace on 10.0.0.2:21, anonymous
# uploads into /upload (renames allowed, so the handler's RNFR is answered).
ftp_server() {
    ftp=$TN_DIR/ftp
    mkdir -p "$ftp/root/upload" "$ftp/empty"
    chmod 755 "$ftp/root"
    chown ftp:ftp "$ftp/root/upload"
    cat > "$ftp/vsftpd.conf" <<EOF
listen=YES
listen_address=10.0.0.2
listen_port=21
background=NO
anonymous_enable=YES
local_enable=NO
write_enable=YES
anon_upload_enable=YES
anon_other_write_enable=YES
anon_root=$ftp/root
ftp_username=ftp
no_anon_password=YES
secure_chroot_dir=$ftp/empty
seccomp_sandbox=NO
anon_umask=022
syslog_enable=NO
xferlog_enable=NO
EOF
    ip netns exec peer /usr/sbin/vsftpd "$ftp/vsftpd.conf" > "$TN_DIR/ftp.log" 2>&1 &
    ftp_pid=$!
    # 10.0.0.2:21 listening, as the peer's /proc/net/tcp shows it.
    wait_until 600 sh -c 'ip netns exec peer cat /proc/net/tcp | grep -q " 0200000A:0015 00000000:0000 0A "' ||
        bad "vsftpd did not start: $(cat "$TN_DIR/ftp.log")"
}

# is_mips_core FILE: a 32-bit little-endian ELF core file (type 4) of a MIPS
# (machine 8) process.
is_mips_core() {
    [ "$(od -An -tx1 -N20 "$1" | tr -d ' \n')" = 7f454c4601010100000000000000000004000800 ]
}

limit_zero_disables() {
    set_up
    run crash 0
    want_out 'status 139\n'
    wait_until 300 grep -q . "$TN_DIR/syslog" || bad "nothing logged"
    wait_until 300 handler_gone || bad "the handler is still running"
    tear_down
    # %E is the executable's path (the toolbox), %e the applet's name.
    want_syslog "<14>coredump-handler: core dumps disabled for '/usr/bin/toolnest/segfault'\n"
}

ftp_upload() {
    set_up
    ftp_server
    mkdir -p /etc/conf.d
    printf '[main]\nCoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://10.0.0.2\nTargetPath = /upload\nTimeout = 120\n' > "$CONF"
    run crash unlimited
    want_out 'status 139\n'
    wait_until 1200 sh -c 'ls "$1"/segfault.*.core >/dev/null 2>&1' sh "$ftp/root/upload" ||
        bad "no core arrived"
    wait_until 1200 handler_gone || bad "the handler is still running"
    tear_down
    want_syslog ''
    set -- "$ftp"/root/upload/*
    [ $# = 1 ] || bad "files on the server: $*"
    core=$1
    case $(basename "$core") in
    segfault.[0-9]*.core) ;;
    *) bad "core named $(basename "$core")" ;;
    esac
    is_mips_core "$core" || bad "not a MIPS core: $(od -An -tx1 -N20 "$core")"
    echo "  core of $(wc -c < "$core") bytes by FTP"
    echo "TN-ARTIFACT-BEGIN crash-ftp.core.gz"
    gzip -c "$core" | base64
    echo "TN-ARTIFACT-END"
}

ftp_stalled_truncates() {
    set_up
    ftp_server
    kill -STOP "$ftp_pid"
    mkdir -p /etc/conf.d
    printf 'CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://10.0.0.2\nTargetPath = /upload\nTimeout = 2\n' > "$CONF"
    run crash unlimited
    want_out 'status 139\n'
    wait_until 600 grep -q . "$TN_DIR/syslog" || bad "nothing logged"
    wait_until 300 handler_gone || bad "the handler is still running"
    tear_down
    want_syslog '<12>coredump-handler: coredump truncated.\n'
}

# The debug service as on a device, its test front end on 10.0.0.1:8080, a
# browser in the peer namespace waiting for the next core (cmd=coredump).
daemon_pid() {
    for c in /proc/[0-9]*/comm; do
        if [ "$(cat "$c" 2>/dev/null)" = debugar.cgi ]; then
            p=${c#/proc/}
            echo "${p%/comm}"
            return 0
        fi
    done
    return 1
}

# ended PID: the process is gone or a zombie.
ended() {
    state=$(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null)
    [ -z "$state" ] || [ "$state" = Z ]
}

daemon_sockets() {
    n=0
    for fd in /proc/"$1"/fd/*; do
        case $(readlink "$fd" 2>/dev/null) in
        socket:*) n=$((n + 1)) ;;
        esac
    done
    echo $n
}

more_sockets() {
    [ "$(daemon_sockets "$1")" -gt "$2" ]
}

listener_gets_the_core() {
    set_up
    mkdir -p /var/run/dbg-cgi /var/spool/storage/SD_DISK/dumps
    /usr/bin/debugar.cgi || bad "debugar.cgi: status $?"
    wait_until 600 daemon_pid >/dev/null || bad "no daemon"
    dpid=$(daemon_pid)
    wait_until 600 test -S /var/run/dbg-cgi/ctrl-segf-socket || bad "no crash socket"
    board_front -a 10.0.0.1 -p 8080 > "$TN_DIR/front.out" 2>&1 &
    front=$!
    wait_until 600 grep -q '^listening' "$TN_DIR/front.out" || bad "front end: $(cat "$TN_DIR/front.out")"
    before=$(daemon_sockets "$dpid")
    ip netns exec peer board_http 10.0.0.1 8080 '/cgi-bin/debugar.cgi?cmd=coredump' \
        > "$TN_DIR/listener.out" 2> "$TN_DIR/listener.err" &
    browser=$!
    wait_until 600 more_sockets "$dpid" "$before" || bad "the daemon holds no listener"
    run crash unlimited
    want_out 'status 139\n'
    # The handler waits up to 5 s for an answer before it ends its side.
    wait_until 600 ended "$browser" || bad "the browser still waits"
    wait "$browser" || bad "board_http: status $? $(cat "$TN_DIR/listener.err")"
    wait_until 300 handler_gone || bad "the handler is still running"
    kill "$front" "$dpid"
    wait "$front"
    tear_down
    want_syslog ''
    head='HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\nExpires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: application/octet-stream\r\nContent-Disposition: attachment; filename="core"\r\n\r\n'
    printf "$head" > "$TN_DIR/head.want"
    n=$(wc -c < "$TN_DIR/head.want")
    head -c "$n" "$TN_DIR/listener.out" > "$TN_DIR/head.got"
    cmp -s "$TN_DIR/head.want" "$TN_DIR/head.got" || bad "response head: $(od -c "$TN_DIR/head.got" | head -n 12)"
    tail -c +$((n + 1)) "$TN_DIR/listener.out" > core
    is_mips_core core || bad "not a MIPS core: $(od -An -tx1 -N20 core)"
    echo "  core of $(wc -c < core) bytes to the listener"
    echo "TN-ARTIFACT-BEGIN crash-listener.core.gz"
    gzip -c core | base64
    echo "TN-ARTIFACT-END"
}

check limit-zero-disables limit_zero_disables
check listener-gets-the-core listener_gets_the_core
check ftp-upload ftp_upload
check ftp-stalled-truncates ftp_stalled_truncates
