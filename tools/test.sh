#!/bin/sh
# The whole test suite: host, ASan+UBSan, TSan and mipsel (qemu-user and the
# emulated board) builds, each built and tested with its preset.  Exits
# non-zero when anything failed.
set -u
cd "$(dirname "$0")/.."

tools/deps.sh || exit 1
tools/mksysroot.sh build/sysroot-mipsel || exit 1

status=0
summary=""
for preset in host asan tsan mipsel; do
    echo "==== $preset: configure and build"
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset"; }; then
        status=1
        summary="$summary
$preset: BUILD FAILED"
        continue
    fi
    echo "==== $preset: test"
    if [ "$preset" = mipsel ]; then
        # Show that the target's test binaries really run under the emulator.
        ctest --preset mipsel -N -V -R '^Dispatch.BasenameRule$' 2>/dev/null | grep 'Test command'
    fi
    log="build/$preset/ctest.log"
    ctest --preset "$preset" -j2 2>&1 | tee "$log"
    line=$(grep -E 'tests passed, [0-9]+ tests failed out of' "$log" | tail -n 1)
    if [ -z "$line" ] || ! echo "$line" | grep -q ' 0 tests failed'; then
        status=1
    fi
    summary="$summary
$preset: ${line:-no ctest summary}"
done

echo
echo "==== summary$summary"
exit $status
