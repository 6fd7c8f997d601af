#!/bin/sh
# System digest: the state of the device a support engineer looks at first,
# as plain text on standard output.  Every section starts with a title line
# "==== name ====".  Works with a full userland or a busybox one: a missing
# tool only makes its section shorter, and no command may run longer than two
# seconds, so the whole report never hangs.
PATH=/usr/sbin:/usr/bin:/sbin:/bin
LC_ALL=C
export PATH LC_ALL

have() {
    command -v "$1" >/dev/null 2>&1
}

if have timeout; then
    bounded() { timeout 2 "$@"; }
else
    bounded() { "$@"; }
fi

section() {
    printf '\n==== %s ====\n' "$1"
}

show_file() {
    [ -r "$1" ] && cat "$1"
}

# The first of the given commands that works (each is one quoted string).
first_of() {
    for c in "$@"; do
        set -- $c
        have "$1" || continue
        out=$(bounded "$@" 2>/dev/null) || continue
        [ -n "$out" ] || continue
        printf '%s\n' "$out"
        return 0
    done
    return 1
}

printf 'system digest of %s, %s\n' "$(hostname 2>/dev/null || show_file /proc/sys/kernel/hostname)" \
    "$(date '+%Y-%m-%d %H:%M:%S %Z' 2>/dev/null)"

section kernel
uname -a 2>/dev/null
show_file /proc/version
show_file /proc/cmdline

section uptime
first_of uptime
printf 'uptime/idle seconds: %s\n' "$(show_file /proc/uptime)"
printf 'load average: %s\n' "$(show_file /proc/loadavg)"

section memory
first_of "free -k" "free"
show_file /proc/meminfo

section mounts
show_file /proc/mounts

section "disk usage"
first_of "df -kP" "df -k" "df"

section interfaces
first_of "ip addr show" "ifconfig -a" || {
    for d in /sys/class/net/*; do
        printf '%s %s\n' "${d##*/}" "$(show_file "$d/address")"
    done
}
show_file /proc/net/dev

section routes
first_of "ip route show" "route -n" || show_file /proc/net/route
first_of "ip -6 route show" || show_file /proc/net/ipv6_route

section sockets
first_of "ss -tuanp" "ss -tuan" "netstat -tuanp" "netstat -tuan" || {
    show_file /proc/net/tcp
    show_file /proc/net/udp
    show_file /proc/net/tcp6
    show_file /proc/net/udp6
}
show_file /proc/net/sockstat

section processes
# Busiest first where ps can sort, else what top or a plain ps gives.
if out=$(first_of "ps -eo pid,ppid,user,stat,nlwp,vsz,rss,pcpu,etime,args --sort=-pcpu" \
    "top -b -n 1" ps); then
    printf '%s\n' "$out" | head -n 30
fi

section "kernel messages"
first_of dmesg | tail -n 40

section end
