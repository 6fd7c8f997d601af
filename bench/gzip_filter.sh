#!/bin/sh
# The archive's gzip filter against `gzip -1` and `pigz -1 -p 1` on the same
# tar-like stream (the archive's own kinds of data: /proc text, a process
# core, a packet capture with filler), all reading the same file into
# /dev/null, in one run.  Prints MB/s of input for each and our ratios.
# usage: bench/gzip_filter.sh BUILD_DIR [MIB]
set -eu
build=$(cd "${1:?usage: gzip_filter.sh BUILD_DIR [MIB]}" && pwd)
mib=${2:-1024}
work=$(mktemp -d /tmp/tn-gzip-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT

# One 64 MiB sample of the three kinds, repeated to the size asked for.
python3 - "$work/sample" <<'PY'
import glob, os, random, struct, sys
out = bytearray()
text = bytearray()
for p in sorted(glob.glob("/proc/[0-9]*/status") + glob.glob("/proc/[0-9]*/smaps"))[:400]:
    try:
        text += open(p, "rb").read()
    except OSError:
        pass
for p in ("/proc/meminfo", "/proc/vmstat", "/proc/zoneinfo", "/proc/slabinfo"):
    try:
        text += open(p, "rb").read()
    except OSError:
        pass
# a core: program text and data of real binaries, a heap of small records
# and zero pages, as a process image looks
core = bytearray()
for p in ("/usr/bin/python3", "/usr/lib/x86_64-linux-gnu/libc.so.6", "/usr/bin/gdb"):
    try:
        core += open(os.path.realpath(p), "rb").read()[:8 << 20]
    except OSError:
        pass
rnd = random.Random(7)
heap = bytearray()
while len(heap) < (8 << 20):
    heap += struct.pack("<IIQ", rnd.randrange(1 << 16), len(heap), rnd.getrandbits(20)) + bytes(16)
core += heap + bytes(8 << 20)
# a capture: 1536-byte records of small frames, then zero filler
cap = bytearray()
while len(cap) < (6 << 20):
    frame = bytes(rnd.getrandbits(8) for _ in range(60)) + bytes(1536 - 60)
    cap += struct.pack("<IIII", 1700000000, len(cap) & 0xfffff, 1536, 60) + frame
cap += bytes(2 << 20)
unit = bytes(text) * max(1, (16 << 20) // max(1, len(text))) + bytes(core) + bytes(cap)
with open(sys.argv[1], "wb") as f:
    while f.tell() < (64 << 20):
        f.write(unit)
    f.truncate(64 << 20)
PY
reps=$(( (mib + 63) / 64 ))
i=0
: > "$work/stream"
while [ $i -lt $reps ]; do cat "$work/sample" >> "$work/stream"; i=$((i + 1)); done
bytes=$(stat -c %s "$work/stream")
cat "$work/stream" > /dev/null   # into the page cache

secs() {   # wall seconds of one command, input from the stream
    start=$(date +%s.%N)
    "$@" < "$work/stream" > "$work/out"
    end=$(date +%s.%N)
    echo "$end - $start" | bc -l
}
ours=$(secs "$build/bench/bench_gzip_filter")
gzip -dc "$work/out" | cmp -s - "$work/stream" || { echo "gzip_filter output differs"; exit 1; }
ours_out=$(stat -c %s "$work/out")
gz=$(secs gzip -1 -c)
gz_out=$(stat -c %s "$work/out")
pz=$(secs pigz -1 -p 1 -c)
pz_out=$(stat -c %s "$work/out")

mbs() { echo "scale=1; $bytes / 1048576 / $1" | bc -l; }
printf 'input: %d MiB of tar-like data\n' $((bytes / 1048576))
printf '%-22s %8s MB/s  %12d bytes out\n' "gzip_filter" "$(mbs "$ours")" "$ours_out"
printf '%-22s %8s MB/s  %12d bytes out\n' "gzip -1" "$(mbs "$gz")" "$gz_out"
printf '%-22s %8s MB/s  %12d bytes out\n' "pigz -1 -p 1" "$(mbs "$pz")" "$pz_out"
printf 'ratio against gzip -1:      %.2fx\n' "$(echo "$gz / $ours" | bc -l)"
printf 'ratio against pigz -1 -p 1: %.2fx (goal: at least 1.0x)\n' "$(echo "$pz / $ours" | bc -l)"
echo "$bytes $ours" > "${GZIP_BENCH_RESULT:-/dev/null}"
