#!/bin/sh
# The target suite on the board: every unit-test executable, natively with a
# real kernel (ptrace included), then the black-box checks of the installed
# toolbox.  Each result is one console line "TN-RESULT PASS|FAIL|SKIP NAME";
# the last line is "TN-DONE ..." with the counts.  The host parses these.
TN_FILTER=${TN_FILTER:-*}
TN_LIMIT=${TN_LIMIT:-240}
base=/opt/toolnest
work=$(mktemp -d /tmp/suite.XXXXXX)
TN_COUNTS="$work/counts"
TN_LIB="$base/checklib.sh"
# Files the checks leave for the host (cores for its debugger), written to
# the export disk at the end.
TN_EXPORT="$work/export"
mkdir -p "$TN_EXPORT"
export TN_COUNTS TN_LIB TN_EXPORT
: > "$TN_COUNTS"

uptime() { cut -d' ' -f1 /proc/uptime; }
result() {
    echo "TN-RESULT $1 $2"
    echo "$1" >> "$TN_COUNTS"
}
wanted() {
    # TN_FILTER is a pattern.
    # shellcheck disable=SC2254
    case $1 in
    $TN_FILTER) return 0 ;;
    esac
    return 1
}

echo "TN-BEGIN uptime=$(uptime) kernel=$(uname -r) machine=$(uname -m)"

# A RAM-backed MTD partition (64 KiB, 4 KiB erase blocks) that the oops-log
# unit tests may overwrite: they then read it through /dev/mtd0 (MEMGETINFO,
# MEMGETBADBLOCK) and /dev/mtdblock0 (BLKGETSIZE).
if modprobe mtdram total_size=64 erase_size=4 && [ -c /dev/mtd0 ]; then
    TOOLNEST_TEST_MTD=/dev/mtd0
    export TOOLNEST_TEST_MTD
else
    echo "run-suite: no mtdram device" >&2
fi

while read -r exe; do
    name=unit:$(basename "$exe")
    wanted "$name" || continue
    dir="$work/$(basename "$exe")"
    mkdir -p "$dir"
    echo "== $name (uptime $(uptime))"
    (cd "$dir" && timeout -s KILL "$TN_LIMIT" "$exe" --gtest_color=no </dev/null) > "$dir/log" 2>&1
    rc=$?
    cat "$dir/log"
    sed -n -e 's/^\[       OK \] \([^ ,]*\)[ ,].*([0-9]* ms)$/PASS \1/p' \
        -e 's/^\[  FAILED  \] \([^ ,]*\)[ ,].*([0-9]* ms)$/FAIL \1/p' \
        -e 's/^\[  SKIPPED \] \([^ ,]*\)[ ,].*([0-9]* ms)$/SKIP \1/p' \
        "$dir/log" > "$dir/parsed"
    while read -r status test; do
        result "$status" "$name:$test"
    done < "$dir/parsed"
    # A crash or the time limit ends the executable without a verdict line.
    if [ $rc -ne 0 ] && ! grep -q '^FAIL' "$dir/parsed"; then
        result FAIL "$name (exit status $rc)"
    fi
done < "$base/tests.list"

if [ -n "${TOOLNEST_TEST_MTD:-}" ]; then
    unset TOOLNEST_TEST_MTD
    modprobe -r mtdram
fi

for script in "$base"/checks/*.sh; do
    group=$(basename "$script" .sh)
    wanted "check:$group" || continue
    echo "== check:$group (uptime $(uptime))"
    TN_GROUP=$group TN_WORK="$work/check-$group" sh "$script"
    rc=$?
    [ $rc -eq 0 ] || result FAIL "check:$group (script exit status $rc)"
done

if [ "$TN_INJECT_FAILURE" = 1 ]; then
    # Proves the failure path of the rig: a check that cannot pass.
    (
        TN_GROUP=rig
        TN_WORK="$work/check-rig"
        # shellcheck source=checklib.sh
        . "$TN_LIB"
        deliberate() {
            run /usr/bin/ctest
            want_out 'call exit (deliberately wrong)\n'
        }
        check injected-failure deliberate
    )
fi

# The export disk (the board's IDE disk, sda): per file a 512-byte block
# "TN-FILE SIZE PATH\n", then the data padded to 512 bytes; a "TN-END" block
# ends the stream.  The host unpacks it after the run.
if [ -n "$(ls -A "$TN_EXPORT")" ]; then
    modprobe ata_piix || echo "run-suite: no IDE driver" >&2
    i=0
    until [ -b /dev/sda ] || [ $i -ge 100 ]; do sleep 0.1; i=$((i + 1)); done
    if [ -b /dev/sda ]; then
        (
            cd "$TN_EXPORT" || exit 1
            find . -type f | sort | while IFS= read -r f; do
                printf 'TN-FILE %s %s\n' "$(stat -c %s "$f")" "${f#./}" | dd bs=512 conv=sync 2>/dev/null
                dd if="$f" bs=512 conv=sync 2>/dev/null
            done
            printf 'TN-END\n' | dd bs=512 conv=sync 2>/dev/null
        ) > /dev/sda
        sync
        echo "TN-EXPORT $(find "$TN_EXPORT" -type f | wc -l) files"
    else
        echo "run-suite: no export disk" >&2
    fi
fi

pass=$(grep -c '^PASS' "$TN_COUNTS")
fail=$(grep -c '^FAIL' "$TN_COUNTS")
skip=$(grep -c '^SKIP' "$TN_COUNTS")
echo "TN-DONE pass=$pass fail=$fail skip=$skip uptime=$(uptime)"
