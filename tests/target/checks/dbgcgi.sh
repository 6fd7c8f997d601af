# shellcheck shell=sh
# The debug service on the board's MIPS kernel: the installed daemon and the
# test front end in a pid namespace of their own (with one sleeping process
# to trace and dump), browsers in the peer network namespace over the veth
# pair (board_http), a crashing process's core through the crash socket.
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

H=/opt/toolnest/bin/board_http
F=/opt/toolnest/bin/handoff-front
RUN=/var/run/dbg-cgi
IP=10.0.0.1

peer() {
    ip netns exec peer "$@"
}

header() {
    printf 'HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\nExpires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: %s\r\nContent-Disposition: attachment; filename="%s"\r\n\r\n' "$1" "$2"
}

# get TARGET: the response's head into head, its body into body.
get() {
    peer $H -H head $IP 8080 "$1" > body || bad "board_http $1 failed"
}

want_head() {
    header "$1" "$2" > want.head
    cmp -s want.head head || bad "response head differs: $(od -An -c head | head -n 4)"
}

# Host pid of the first process of the service's namespace whose name is $1.
ns_pid_of() {
    for s in /proc/[0-9]*/status; do
        if grep -q "^Name:[[:space:]]*$1\$" "$s" 2>/dev/null &&
            [ "$(readlink "${s%/status}/ns/pid")" = "$ns" ]; then
            basename "${s%/status}"
            return 0
        fi
    done
    return 1
}

# The namespace's own pid of host pid $1.
inner_pid() {
    sed -n 's/^NSpid:[[:space:]]*[0-9]*[[:space:]]*\([0-9]*\).*/\1/p' /proc/$1/status
}

untraced() {
    grep -q '^TracerPid:[[:space:]]*0$' /proc/$1/status &&
        grep -q '^State:[[:space:]]*S' /proc/$1/status
}

sockets_of() {
    # ls -l shows where each descriptor points.
    # shellcheck disable=SC2010
    ls -l /proc/$1/fd 2>/dev/null | grep -c 'socket:'
}

# The daemon holds more sockets than $before (a listener).
more_sockets() {
    [ "$(sockets_of $daemon)" -gt "$before" ]
}

# The daemon is back to its main and monitor threads.
only_own_threads() {
    [ "$(ls /proc/$daemon/task | wc -l)" = 2 ]
}

mkdir -p $RUN /var/spool/storage/SD_DISK/dumps
rm -f $RUN/ctrl-cgi-socket $RUN/ctrl-segf-socket
unshare --pid --fork --kill-child --mount-proc sh -c \
    "sleep 100000 & $B/debugar.cgi -n & exec $F -a 0.0.0.0 -p 8080" \
    > "$TN_WORK/front.log" 2> "$TN_WORK/service.err" &
service=$!
wait_until 300 test -S $RUN/ctrl-segf-socket || echo "  dbgcgi: the daemon did not start" >&2
wait_until 300 grep -q '^listening' "$TN_WORK/front.log" || echo "  dbgcgi: no front end" >&2
daemon=$(for s in /proc/[0-9]*/comm; do
    [ "$(cat "$s" 2>/dev/null)" = debugar.cgi ] && basename "${s%/comm}"; done | head -n 1)
ns=$(readlink /proc/$daemon/ns/pid)
# The sleeper is itself once its fork has run sleep (the daemon may have
# started first).
wait_until 600 ns_pid_of sleep > /dev/null || echo "  dbgcgi: no sleeper" >&2
sleeper=$(ns_pid_of sleep)

ps_request() {
    get '/cgi-bin/debugar.cgi?cmd=ps'
    want_head text/plain psdump.txt
    head -n 1 body | grep -q '^ *PID' || bad "no ps listing: $(head -n 2 body)"
    grep -q ' debugar.cgi$' body || bad "the daemon is not listed"
    grep -q ' sleep$' body || bad "the sleeper is not listed"
}

bad_request() {
    peer $H $IP 8080 '/x?cmd=nope' > out
    printf 'HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\nThe request has bad syntax or was inherently impossible to satisfy\n' > want
    cmp -s want out || bad "400 differs: $(od -An -c out | head -n 3)"
}

tar_archive() {
    get '/cgi-bin/debug.tar'
    want_head application/x-tar debug.tar
    tar -tvf body > list 2> err || bad "tar cannot read the archive: $(cat err)"
    head -n 1 list | grep -q ' debug-[0-9]\{8\}-[0-9]\{6\}-c[0-9]*/dbg-monitor.txt$' ||
        bad "first member: $(head -n 1 list)"
    grep -q ' 204800 .*/strace.log$' list || bad "no strace.log of 204800 bytes"
    grep -q ' 512000 .*/netdump.cap$' list || bad "no netdump.cap of 512000 bytes"
    grep -q "/sleep\.$(inner_pid $sleeper)/core\$" list || bad "no core of the sleeper: $(grep core list)"
    grep -q "/sleep\.$(inner_pid $sleeper)/fdmap\$" list || bad "no fdmap of the sleeper"
    untraced $sleeper || bad "the sleeper is left traced or stopped"
}

strace_left_early() {
    # The head, then the browser leaves (a sleeping process says nothing).
    peer $H -n 100 $IP 8080 "/x?cmd=strace&pid=$(inner_pid $sleeper)" > out
    head -c 40 out | grep -q 'HTTP/1.0 200 OK' || bad "no trace response: $(head -c 200 out)"
    wait_until 600 untraced $sleeper || bad "the sleeper is left traced or stopped"
    wait_until 600 only_own_threads || bad "request threads left"
}

coredump_by_pid() {
    get "/x?cmd=coredump&pid=$(inner_pid $sleeper)"
    want_head application/octet-stream core
    [ "$(od -An -c -N 4 body | tr -d ' ')" = '177ELF' ] || bad "no ELF core: $(od -An -c -N 16 body)"
    untraced $sleeper || bad "the sleeper is left traced or stopped"
}

crash_to_listener() {
    before=$(sockets_of $daemon)
    peer $H -H head $IP 8080 '/x?listen' > body &
    l=$!
    wait_until 600 more_sockets || bad "the listener is not held"
    head -c 70000 /dev/urandom > core.in
    $H -u $RUN/ctrl-segf-socket < core.in || bad "crash socket refused"
    wait $l
    want_head application/octet-stream core
    cmp -s core.in body || bad "the pushed core differs"
}

check ps ps_request
check bad-request bad_request
check strace-left-early strace_left_early
check coredump coredump_by_pid
check crash-to-listener crash_to_listener
check tar-archive tar_archive

# The namespace's init takes no signal but SIGKILL; unshare's death kills it.
kill -KILL $service
wait $service 2>/dev/null || true
