# shellcheck shell=sh
# Packet capture on the board's eth0 (one end of the guest-only veth pair; its
# peer 10.0.0.2 lives in the network namespace "peer").
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

H=/opt/toolnest/bin/board_pcap

promisc_off() {
    flags=$(cat /sys/class/net/eth0/flags)
    [ $((flags & 0x100)) = 0 ] || bad "eth0 still promiscuous (flags $flags)"
}

promisc_on() {
    flags=$(cat /sys/class/net/eth0/flags)
    [ $((flags & 0x100)) != 0 ]
}

pcapdump_on_eth0() {
    $B/pcapdump eth0 cap.pcap > "$TN_DIR/out" 2> "$TN_DIR/err" &
    pid=$!
    # The capture runs once the interface is promiscuous (set after the bind).
    i=0
    until promisc_on || [ $i -ge 600 ]; do sleep 0.1; i=$((i + 1)); done
    promisc_on || bad "eth0 not promiscuous during the capture (flags $(cat /sys/class/net/eth0/flags))"
    $H send 10.0.0.2 9999 40
    # Interrupted once all 40 datagrams are in the file.
    i=0
    until $H read cap.pcap 9999 | grep -q ' udp-to-port 40 ' || [ $i -ge 600 ]; do
        sleep 0.1
        i=$((i + 1))
    done
    kill -INT $pid
    wait $pid
    rc=$?
    want_rc 0
    want_err ''
    [ "$(stat -c %a cap.pcap)" = 600 ] || bad "file mode $(stat -c %a cap.pcap), want 600"
    summary=$($H read cap.pcap 9999)
    case $summary in
    "linktype 1 records "*" udp-to-port 40 ordered 1 whole 1") ;;
    *) bad "capture: $summary" ;;
    esac
    promisc_off
}

check pcapdump-on-eth0 pcapdump_on_eth0
