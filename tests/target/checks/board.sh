# shellcheck shell=sh
# What the board offers the target tests: the guest-only network and
# loadable MTD devices.
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

veth_pair() {
    run ip -o link show eth0
    want_rc 0
    grep -q 'state UP' "$TN_DIR/out" || bad "eth0 is not up: $(cat "$TN_DIR/out")"
    run ip netns exec peer ip -o -4 addr show eth1
    grep -q 'inet 10.0.0.2/24' "$TN_DIR/out" || bad "no 10.0.0.2 on the peer's eth1"
}

mtdram_loads() {
    # 64 KiB in 4 KiB erase blocks; unloaded again for the tests that size it.
    run modprobe mtdram total_size=64 erase_size=4
    want_rc 0
    [ -c /dev/mtd0 ] || bad "no /dev/mtd0"
    [ -b /dev/mtdblock0 ] || bad "no /dev/mtdblock0"
    grep -q '^mtd0: 00010000 00001000 "mtdram test device"' /proc/mtd || bad "/proc/mtd: $(cat /proc/mtd)"
    run modprobe -r mtdram
    want_rc 0
}

check veth-pair veth_pair
check mtdram-loads mtdram_loads
