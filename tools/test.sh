#!/bin/sh
# The whole test suite: host, ASan+UBSan, TSan and mipsel (qemu-user and the
# emulated board) builds, each built and tested with its preset.  The summary
# shows per preset how many tests passed, failed and were skipped (skipped
# cases inside the test scripts and on the board included) and judges every
# skip by its reason (tools/test_report.py): a skip of something this machine
# could have run fails the run like a failed test.  Exits non-zero when
# anything failed.
set -u
cd "$(dirname "$0")/.." || exit 1

# The system tests give their namespaces a /tmp of their own, which would
# hide a checkout kept under /tmp: such a checkout is tested from a copy.
case "$(pwd -P)/" in
/tmp/*)
    copy=/var/tmp/toolnest-test-checkout
    echo "==== checkout under /tmp: testing a copy in $copy"
    rm -rf "$copy" && mkdir -p "$copy" && cp -a . "$copy/" || exit 1
    exec "$copy/tools/test.sh" "$@"
    ;;
esac

# tools/test.sh --stress N: the flake hunt (tools/stress.sh).
if [ "${1:-}" = --stress ]; then
    shift
    exec tools/stress.sh "$@"
fi

tools/deps.sh || exit 1
tools/mksysroot.sh build/sysroot-mipsel || exit 1

status=0
summary=""
reports=""
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
        # The board's console log is judged only when the board ran this time.
        rm -f build/mipsel/emu/console.log
    fi
    log="build/$preset/ctest.log"
    junit="$PWD/build/$preset/ctest-junit.xml"
    rm -f "$junit"
    # The whole output of every test goes into the JUnit file: the skip
    # reasons of the test scripts are read from it.
    ctest --preset "$preset" -j2 --output-junit "$junit" \
        --test-output-size-passed 4194304 --test-output-size-failed 4194304 2>&1 | tee "$log"
    line=$(grep -E 'tests passed, [0-9]+ tests failed out of' "$log" | tail -n 1)
    if [ -z "$line" ] || ! echo "$line" | grep -q ' 0 tests failed'; then
        status=1
        summary="$summary
$preset: ${line:-no ctest summary}"
    fi
    if [ -f "$junit" ]; then
        spec="$preset=$junit"
        # Its unit tests run under qemu-user; the board covers what they skip.
        [ "$preset" = mipsel ] && spec="$spec:emulated"
        reports="$reports $spec"
    else
        status=1
        summary="$summary
$preset: no test results"
    fi
done

echo
echo "==== summary"
[ -n "$summary" ] && echo "${summary#?}"
if [ -n "$reports" ]; then
    # shellcheck disable=SC2086 # one word per preset
    python3 tools/test_report.py --board-log build/mipsel/emu/console.log $reports || status=1
fi
exit $status
