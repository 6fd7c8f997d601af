#!/bin/sh
# The simulated device: the toolbox installed as on the device, inside fresh
# mount, pid, network, UTS and IPC namespaces of this machine.  See usage()
# and docs/SIMDEV.md.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
repo=$(cd "$here/../.." && pwd)

usage() {
    cat <<EOF
usage: simdev.sh COMMAND [OPTIONS] [--] [ARGS...]

A device built from an installed toolnest tree, in namespaces of its own:
/usr/bin/toolnest and its applet links, /usr/sbin/oopslog, /usr/bin/memsnap
(when installed), /usr/sbin/gen_sysdigest.sh, /var/run/dbg-cgi (tmpfs, with a
dbg-monitor.txt), /etc/ws/onvif/media/media.conf, /etc/conf.d (tmpfs),
/var/spool/storage/SD_DISK/dumps, /tmp (tmpfs), /dev/part/oops (a loop block
device holding three oops reports), eth0 at 10.66.0.1/24 and fd66::1/64 whose
other end, 10.66.0.2 and fd66::2 on peer0, is the "peer" namespace (the
outside world: it pings the device and sends it UDP datagrams all the time),
and the programs hearth (threads), mediad and storaged under a small init.
The machine's own files, processes and network are left alone.

Commands:
  start [-r ROOT | -p PREFIX] [-s STATE] [-t PID]
        Build a device and print its state directory (the handle for the
        other commands) once it is up.  ROOT is an install made with
        DESTDIR=ROOT cmake --install BUILD --prefix /usr; PREFIX an install
        made with --prefix PREFIX (its bin/ and sbin/ become /usr/bin and
        /usr/sbin).  Default: -r $repo/build/device-root.
        STATE must not exist yet (default: a new directory under \$TMPDIR or
        /tmp).  With -t, the device stops by itself when process PID ends.
  exec [-s STATE] [--] CMD [ARGS...]
        Run CMD inside the device (root, cwd /, a clean environment with
        PATH=/usr/sbin:/usr/bin:/sbin:/bin and HOME=/root); standard input,
        output and error pass through; the exit status is CMD's.
  peer [-s STATE] [--] CMD [ARGS...]
        Run CMD in the peer's network namespace (the machine's files and
        environment): a client reaching the device at 10.66.0.1 over eth0.
  shell [-s STATE | -r ROOT | -p PREFIX]
        An interactive shell inside the device.  With -s, in a running
        device; otherwise a new device for the length of the shell.
  run [-r ROOT | -p PREFIX] [--] CMD [ARGS...]
        start, exec CMD, stop; the exit status is CMD's.
  info [-s STATE]
        The device's facts as shell assignments: SIMDEV_DEVICE_IP4,
        SIMDEV_DEVICE_IP6, SIMDEV_PEER_IP4, SIMDEV_PEER_IP6, SIMDEV_IFNAME,
        SIMDEV_DEVICE_MAC, SIMDEV_INIT_PID (host pid of the device's init),
        SIMDEV_PEER_PID (host pid holding the peer namespace), SIMDEV_LOOP, ...
  stop [-s STATE]
        Stop the device: every process of it ends, the loop device is
        released, the namespaces and STATE go away.
STATE defaults to \$SIMDEV.  Needs root.
EOF
}

die() {
    echo "simdev: $*" >&2
    exit 1
}

python=/usr/bin/python3
[ -x "$python" ] || python=python3

state=${SIMDEV:-}
root=""
prefix=""
tie=""

# Options of the commands; sets optind_shift to what the caller must shift.
parse() {
    optind_shift=0
    while [ $# -gt 0 ]; do
        case $1 in
        -s) [ $# -ge 2 ] || die "-s needs a directory"; state=$2; shift 2
            optind_shift=$((optind_shift + 2)) ;;
        -r) [ $# -ge 2 ] || die "-r needs a directory"; root=$2; shift 2
            optind_shift=$((optind_shift + 2)) ;;
        -p) [ $# -ge 2 ] || die "-p needs a directory"; prefix=$2; shift 2
            optind_shift=$((optind_shift + 2)) ;;
        -t) [ $# -ge 2 ] || die "-t needs a pid"; tie=$2; shift 2
            optind_shift=$((optind_shift + 2)) ;;
        --) optind_shift=$((optind_shift + 1)); return ;;
        -h|--help) usage; exit 0 ;;
        -*) die "unknown option $1 (simdev.sh --help)" ;;
        *) return ;;
        esac
    done
}

# A process that has not ended (a zombie has).
alive() {
    s=$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null) || return 1
    case $s in
    Z*|X*|"") return 1 ;;
    esac
}

load() {
    [ -n "$state" ] || die "no device given: -s STATE or SIMDEV=STATE"
    [ -r "$state/info" ] || die "no running device at $state"
    . "$state/info"
    alive "$SIMDEV_INIT_PID" || die "the device at $state is not running"
}

# nsenter into every namespace of the device, with the device's environment.
inside() {
    exec nsenter --target "$SIMDEV_INIT_PID" --mount --uts --ipc --net --pid -- \
        /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        TERM="${TERM:-dumb}" "$@"
}

start() {
    if [ -z "$root" ] && [ -z "$prefix" ]; then
        root=$repo/build/device-root
        [ -d "$root/usr" ] || die "no install at $root (make one, or give -r or -p)"
    fi
    set -- start
    [ -z "$root" ] || set -- "$@" --root "$root"
    [ -z "$prefix" ] || set -- "$@" --prefix "$prefix"
    [ -z "$state" ] || set -- "$@" --state "$state"
    [ -z "$tie" ] || set -- "$@" --tie "$tie"
    "$python" "$here/simdev.py" "$@"
}

stop() {
    [ -n "$state" ] || die "no device given: -s STATE or SIMDEV=STATE"
    [ -d "$state" ] || return 0
    if [ -r "$state/info" ]; then
        . "$state/info"
        pid=$SIMDEV_SUPERVISOR_PID
        if kill -TERM "$pid" 2>/dev/null; then
            # The supervisor removes STATE as its last act.
            tries=0
            while [ -d "$state" ] && alive "$pid"; do
                if [ $tries -ge 600 ]; then
                    # Its children die with it.
                    echo "simdev: the device did not stop in time: killing it" >&2
                    kill -KILL "$pid" 2>/dev/null || true
                    break
                fi
                sleep 0.05
                tries=$((tries + 1))
            done
        fi
    fi
    if [ -f "$state/log" ] || [ -f "$state/info" ]; then
        rm -rf "$state"
    fi
}

interactive_shell() {
    inside PS1='simdev:\w# ' /bin/sh -c \
        'if [ -x /bin/bash ]; then exec /bin/bash --norc --noprofile -i; fi; exec /bin/sh -i'
}

# A device for the length of one command (run) or one shell (shell).  It is
# tied to this script: should a signal end the script, the device stops by
# itself.
with_device() {
    tie=$$
    state=$(start) || exit 1
    trap 'stop' EXIT
    load
    set +e
    ("$@")
    rc=$?
    set -e
    return $rc
}

[ $# -ge 1 ] || { usage >&2; exit 2; }
cmd=$1
shift
case $cmd in
-h|--help|help) usage ;;
start)
    parse "$@"; shift $optind_shift
    [ $# -eq 0 ] || die "start takes no arguments"
    [ "$(id -u)" = 0 ] || die "needs root"
    start ;;
exec)
    parse "$@"; shift $optind_shift
    [ $# -ge 1 ] || die "exec needs a command"
    load
    inside "$@" ;;
peer)
    parse "$@"; shift $optind_shift
    [ $# -ge 1 ] || die "peer needs a command"
    load
    exec nsenter --target "$SIMDEV_PEER_PID" --net -- "$@" ;;
shell)
    parse "$@"; shift $optind_shift
    if [ -n "$state" ] && [ -z "$root$prefix" ]; then
        load
        interactive_shell
    fi
    state=""
    with_device interactive_shell ;;
run)
    parse "$@"; shift $optind_shift
    [ $# -ge 1 ] || die "run needs a command"
    state=""
    with_device inside "$@" ;;
info)
    parse "$@"; shift $optind_shift
    load
    cat "$state/info" ;;
stop)
    parse "$@"; shift $optind_shift
    stop ;;
*)
    die "unknown command $cmd (simdev.sh --help)" ;;
esac
