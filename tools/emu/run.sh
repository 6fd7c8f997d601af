#!/bin/sh
# Boots the emulated MIPS Malta board with a mipsel build of toolnest and runs
# the target suite there (or gives a shell on the board's console).
#
#   run.sh [--shell | --serve] [--timeout SECONDS] BUILD [SYSROOT]
#
# --serve boots the board as a device with the debug service and its web
# server and keeps it running until qemu is stopped; qemu's user network
# forwards TOOLNEST_EMU_HOSTFWD (default tcp:127.0.0.1:8080-:80) to it.  Its
# console (a shell) goes to BUILD/emu/console.log, or with
# TOOLNEST_EMU_CONSOLE=stdio to qemu's standard input and output.
#
# BUILD is a built mipsel tree (build/mipsel), SYSROOT the mipsel sysroot
# (default build/sysroot-mipsel).  Downloads are cached in TOOLNEST_EMU_CACHE
# (default build/emu-cache); the initramfs, the console log (BUILD/emu/console.log)
# and the parsed results (BUILD/emu/results.txt) go under BUILD/emu.
#
# Environment: TOOLNEST_EMU_INJECT_FAILURE=1 adds a check that must fail,
# TOOLNEST_EMU_FILTER=GLOB runs only matching groups (unit:test_common,
# check:applets, ...).
#
# Exit status: 0 when every target test passed, 1 when one failed or the
# board did not finish in time, 2 for a broken set-up, 77 (a skip for ctest)
# when qemu-system-mipsel is not installed.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
mode=suite
limit=420
while [ $# -gt 0 ]; do
    case $1 in
    --shell) mode=shell ;;
    --serve) mode=serve ;;
    --timeout) limit=$2; shift ;;
    -*) echo "usage: run.sh [--shell | --serve] [--timeout SECONDS] BUILD [SYSROOT]" >&2; exit 2 ;;
    *) break ;;
    esac
    shift
done
if ! command -v qemu-system-mipsel >/dev/null 2>&1; then
    echo "emu: SKIPPED: [qemu-system-mipsel] qemu-system-mipsel is not installed (tools/deps.sh installs it)"
    exit 77
fi
build=$(cd "${1:?usage: run.sh [--shell] [--timeout SECONDS] BUILD [SYSROOT]}" && pwd)
sysroot=${2:-$src/build/sysroot-mipsel}
cache=${TOOLNEST_EMU_CACHE:-$src/build/emu-cache}
out="$build/emu"
mkdir -p "$out"

"$here/fetch.sh" "$cache" || exit 2
"$here/mkinitramfs.sh" "$build" "$sysroot" "$cache" "$out/initramfs.cpio.gz" || exit 2

append="console=ttyS0 rdinit=/init panic=-1 quiet tn.mode=$mode"
[ "${TOOLNEST_EMU_INJECT_FAILURE:-0}" = 1 ] && append="$append tn.inject_failure=1"
[ -n "${TOOLNEST_EMU_FILTER:-}" ] && append="$append tn.filter=$TOOLNEST_EMU_FILTER"
# Each unit-test executable gets at most this long on the board.
append="$append tn.limit=$((limit * 2 / 3))"

# The export disk: what the target checks leave for the host (cores that
# the host's debugger opens), unpacked into BUILD/emu/export after the run.
img="$out/export.img"
rm -f "$img"
truncate -s 64M "$img"

# 256 MB is all the low memory the board has; no network device: the guest's
# only network is its own veth pair.  A serving board has a network card on
# qemu's user network, reachable only through the forwarded loopback port.
# (Its boot ROM is not needed: the kernel is loaded directly.)
net="-nic none"
[ $mode = serve ] && net="-netdev user,id=net0,restrict=on,hostfwd=${TOOLNEST_EMU_HOSTFWD:-tcp:127.0.0.1:8080-:80} -device pcnet,netdev=net0,romfile="
# shellcheck disable=SC2086 # $net is several words
set -- qemu-system-mipsel -M malta -m 256 -no-reboot $net -vga none \
    -drive "file=$img,format=raw,if=ide,index=0,media=disk" \
    -kernel "$cache/kernel/vmlinuz" -initrd "$out/initramfs.cpio.gz" -append "$append"

if [ $mode = shell ]; then
    echo "emu: booting a shell on the board (exit powers off; Ctrl-A X quits qemu)"
    exec "$@" -nographic
fi

log="$out/console.log"
if [ $mode = serve ]; then
    echo "emu: booting the board to serve the debug page, console log $log"
    # qemu's own messages (packets the restricted network drops) go to a file.
    echo "emu: qemu's messages in $out/qemu.err"
    if [ "${TOOLNEST_EMU_CONSOLE:-}" = stdio ]; then
        exec "$@" -serial stdio -monitor none -display none 2>"$out/qemu.err"
    fi
    exec "$@" -serial "file:$log" -monitor none -display none </dev/null 2>"$out/qemu.err"
fi
results="$out/results.txt"
rm -f "$log" "$results"
start=$(date +%s)
echo "emu: booting $(cat "$cache/kernel/version"), time limit ${limit}s, console log $log"
# The console goes to the log; the result lines are shown as they come.
timeout -s KILL "$limit" "$@" -serial "file:$log" -monitor none -display none \
    </dev/null >/dev/null 2>"$out/qemu.err" &
qemu=$!
touch "$log"
tail -n +1 -f --pid=$qemu "$log" 2>/dev/null | tr -d '\r' | grep --line-buffered -E '^TN-(RESULT FAIL|BEGIN|DONE)' || true
set +e
wait $qemu
qrc=$?
set -e
took=$(($(date +%s) - start))

tr -d '\r' < "$log" | sed -n 's/^TN-RESULT //p' > "$results"
# Files that checks sent through the console, base64 between TN-ARTIFACT
# lines, for host-side tests (BUILD/emu/artifacts/NAME).
rm -rf "$out/artifacts"
mkdir -p "$out/artifacts"
tr -d '\r' < "$log" | awk -v dir="$out/artifacts" '
    /^TN-ARTIFACT-BEGIN / { name = $2; file = dir "/" name ".b64"; printf "" > file; next }
    /^TN-ARTIFACT-END/ { if (name != "") close(file); name = ""; next }
    name != "" { print >> file }'
for f in "$out"/artifacts/*.b64; do
    [ -e "$f" ] || continue
    base64 -d "$f" > "${f%.b64}" || echo "emu: artifact $(basename "${f%.b64}") is damaged" >&2
    rm -f "$f"
done
done_line=$(tr -d '\r' < "$log" | grep '^TN-DONE' | tail -n 1 || true)
begin_line=$(tr -d '\r' < "$log" | grep '^TN-BEGIN' | tail -n 1 || true)

# The export disk into BUILD/emu/export, then the host-side checks of what
# the board left there (tests/target/host/*: each prints TN-RESULT lines).
export_dir="$out/export"
rm -rf "$export_dir"
mkdir -p "$export_dir"
blk=0
while :; do
    head=$(dd if="$img" bs=512 skip=$blk count=1 2>/dev/null | tr -d '\000' | head -n 1)
    case $head in
    "TN-FILE "*) ;;
    *) break ;;
    esac
    rest=${head#TN-FILE }
    size=${rest%% *}
    path=${rest#* }
    case $path in
    /* | *..*) echo "emu: bad export entry: $head" >&2; break ;;
    esac
    mkdir -p "$export_dir/$(dirname "$path")"
    dd if="$img" of="$export_dir/$path" bs=65536 iflag=skip_bytes,count_bytes \
        skip=$(((blk + 1) * 512)) count="$size" 2>/dev/null
    blk=$((blk + 1 + (size + 511) / 512))
done
hostlog="$out/host.log"
: > "$hostlog"
if [ -n "$done_line" ]; then
    for h in "$src"/tests/target/host/*; do
        [ -x "$h" ] || continue
        PYTHONPATH="$src/tests/support" "$h" "$export_dir" "$build" "$sysroot" >> "$hostlog" 2>&1 ||
            echo "TN-RESULT FAIL host:$(basename "$h") (exit status $?)" >> "$hostlog"
    done
    sed -n 's/^TN-RESULT //p' "$hostlog" >> "$results"
fi
pass=$(grep -c '^PASS' "$results" || true)
fail=$(grep -c '^FAIL' "$results" || true)
skip=$(grep -c '^SKIP' "$results" || true)

if [ -z "$done_line" ]; then
    echo "emu: FAILED: the board did not finish within ${limit}s (qemu status $qrc); last console lines:"
    tr -d '\r' < "$log" | tail -n 30
    cat "$out/qemu.err" >&2
    exit 1
fi
boot=$(echo "$begin_line" | sed -n 's/.*uptime=\([0-9.]*\).*/\1/p')
end=$(echo "$done_line" | sed -n 's/.*uptime=\([0-9.]*\).*/\1/p')
echo "emu: boot ${boot}s, suite $(awk "BEGIN { printf \"%.1f\", $end - $boot }")s, whole run ${took}s"
echo "emu: $pass passed, $fail failed, $skip skipped (results $results)"
if [ "$fail" -gt 0 ]; then
    echo "emu: FAILED target tests:"
    grep '^FAIL' "$results" | sed 's/^FAIL /  /'
    # What each failure printed: a unit test's lines from its RUN line, a
    # check's lines since the previous result.
    echo "emu: their output:"
    tr -d '\r' < "$log" | awk '
        /^\[ RUN      \]/ { buf = ""; inunit = 1 }
        /^(TN-RESULT|== )/ { if ($2 == "FAIL" && ($3 ~ /^check:/ || $0 ~ /exit status/)) printf "%s%s\n", buf, $0; buf = ""; inunit = 0; next }
        { buf = buf $0 "\n" }
        inunit && /^\[  FAILED  \].*\([0-9]+ ms\)$/ { printf "%s", buf; buf = ""; inunit = 0 }
    ' | sed 's/^/  | /' | tail -n 200
    if grep -q '^FAIL host:' "$results"; then
        echo "emu: the host-side checks said:"
        sed 's/^/  | /' "$hostlog" | tail -n 200
    fi
    echo "emu: details in $log"
    exit 1
fi
if [ "$pass" -eq 0 ]; then
    echo "emu: FAILED: no target test ran"
    exit 1
fi
exit 0
