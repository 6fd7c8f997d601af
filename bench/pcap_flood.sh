#!/bin/sh
# Floods eth0 (one end of a veth pair in a fresh network namespace) with a
# fixed count of small UDP frames, captures the same load once with toolnest's
# pcapdump and once with `tcpdump -w`, and prints the frames each recorded,
# whether each file reads back whole, and the ratio.
# usage: bench/pcap_flood.sh BUILD_DIR [FRAMES] [SECONDS]
set -eu
build=${1:?usage: pcap_flood.sh BUILD_DIR [FRAMES] [SECONDS]}
frames=${2:-200000}
seconds=${3:-5}
build=$(cd "$build" && pwd)

exec unshare --net --mount --propagation private -- sh -c '
    set -eu
    build=$1 frames=$2 seconds=$3
    work=$(mktemp -d /tmp/tn-pcap-bench.XXXXXX)
    unshare --net sleep 3600 &
    remote=$!
    trap "kill $remote 2>/dev/null || true; rm -rf $work" EXIT
    while [ "$(readlink /proc/$remote/ns/net)" = "$(readlink /proc/self/ns/net)" ]; do sleep 0.01; done
    ip link set lo up
    ip link add eth0 type veth peer name peer0 netns $remote
    echo 1 > /proc/sys/net/ipv6/conf/eth0/disable_ipv6
    ip addr add 10.77.0.1/24 dev eth0
    ip link set eth0 up
    nsenter -t $remote -n sh -c "echo 1 > /proc/sys/net/ipv6/conf/peer0/disable_ipv6;
        ip addr add 10.77.0.2/24 dev peer0; ip link set peer0 up"
    ping -c 1 -W 2 10.77.0.2 > /dev/null    # resolve the neighbour first

    round() {   # name, capture command...; the capture stops on SIGINT
        name=$1; shift
        "$@" > "$work/$name.out" 2>&1 &
        cap=$!
        sleep 1
        "$build/bench/bench_pcap_flood" 10.77.0.2 9 "$frames" "$seconds" > /dev/null
        sleep 1
        kill -INT $cap
        wait $cap || true
    }
    count() {   # the flood frames in a file; tcpdump and tshark must read it whole
        f=$1
        n=$(tcpdump -r "$f" --count "udp dst port 9 and not icmp" 2> "$work/tcpdump.err" | cut -d" " -f1)
        if grep -qv "^reading from file" "$work/tcpdump.err"; then echo "corrupt(tcpdump)"; return; fi
        if HOME=$work tshark -r "$f" -q 2>&1 | grep -v "Running as user" | grep -q .; then
            echo "corrupt(tshark)"; return
        fi
        echo "$n"
    }

    round toolnest "$build/toolnest" pcapdump eth0 "$work/toolnest.pcap"
    round tcpdump tcpdump -n -i eth0 -w "$work/tcpdump.pcap"
    ours=$(count "$work/toolnest.pcap")
    theirs=$(count "$work/tcpdump.pcap")
    echo "frames sent: $frames in ${seconds} s"
    echo "pcapdump: $ours frames ($(stat -c %s "$work/toolnest.pcap") bytes)"
    echo "tcpdump -w: $theirs frames ($(stat -c %s "$work/tcpdump.pcap") bytes; $(grep "dropped by kernel" "$work/tcpdump.out" || true))"
    echo "ratio pcapdump/tcpdump: $(echo "$ours $theirs" | awk "{ if (\$2 > 0) printf \"%.3f\", \$1 / \$2; else print \"n/a\" }")"
' sh "$build" "$frames" "$seconds"
