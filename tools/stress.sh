#!/bin/sh
# The flake hunt: runs the system tests N times while every core is kept busy
# (stress-ng, or busy shell loops without it), lists each run's failures by
# name (the ctest test and the failing cases inside it) and ends with a count.
# Exits non-zero when any run failed.
#
#   tools/stress.sh N [--preset P]... [--board] [-R REGEX | -L LABEL]
#
# --preset  the presets to run, each built first (default: host)
# --board   adds the mipsel preset, whose system tests include the emulated
#           board (target.*)
# -R / -L   which tests: a ctest name regex or label regex (default: the
#           labels system and board)
set -u
cd "$(dirname "$0")/.." || exit 1


usage() {
    echo "usage: tools/test.sh --stress N [--preset P]... [--board] [-R REGEX | -L LABEL]" >&2
    exit 2
}

runs=${1:-}
case "$runs" in
'' | *[!0-9]* | 0) usage ;;
esac
shift
presets=""
# The test scripts and the board, not the unit tests nor the fuzzers.
select="-L"
what='system|board'
while [ $# -gt 0 ]; do
    case "$1" in
    --preset) [ $# -ge 2 ] || usage; presets="${presets:+$presets }$2"; shift 2 ;;
    --board) presets="${presets:+$presets }mipsel"; shift ;;
    -R | -L) [ $# -ge 2 ] || usage; select=$1; what=$2; shift 2 ;;
    *) usage ;;
    esac
done
[ -n "$presets" ] || presets=host

tools/deps.sh || exit 1
case " $presets " in
*" mipsel "*) tools/mksysroot.sh build/sysroot-mipsel || exit 1 ;;
esac
for preset in $presets; do
    echo "==== $preset: configure and build"
    { cmake --preset "$preset" && cmake --build --preset "$preset"; } || exit 1
done

# The load: one CPU hog per core, at the tests' own priority, for as long as
# the hunt runs.
cores=$(nproc)
load_pids=""
stop_load() {
    # shellcheck disable=SC2086 # one word per pid
    [ -n "$load_pids" ] && kill $load_pids 2>/dev/null
    # shellcheck disable=SC2086
    [ -n "$load_pids" ] && wait $load_pids 2>/dev/null
    load_pids=""
}
trap 'stop_load; exit 130' INT TERM
trap stop_load EXIT
if command -v stress-ng >/dev/null; then
    stress-ng --cpu "$cores" --cpu-load 100 --quiet &
    load_pids=$!
    echo "==== load: stress-ng --cpu $cores"
else
    i=0
    while [ $i -lt "$cores" ]; do
        sh -c 'while :; do :; done' &
        load_pids="$load_pids $!"
        i=$((i + 1))
    done
    echo "==== load: $cores busy shell loops (no stress-ng)"
fi

# One folder per preset set: hunts of other presets may run meanwhile.
logdir=build/stress/$(echo "$presets" | tr ' ' '+')
mkdir -p "$logdir"
all="$logdir/failures"
: > "$all"
failed_runs=0
run=1
while [ "$run" -le "$runs" ]; do
    for preset in $presets; do
        log="$logdir/run$run-$preset.log"
        echo "==== run $run of $runs, $preset: ctest $select '$what'"
        ctest --preset "$preset" -j2 "$select" "$what" --output-on-failure > "$log" 2>&1
        line=$(grep -E 'tests passed, [0-9]+ tests failed out of' "$log" | tail -n 1)
        echo "     ${line:-no ctest summary (see $log)}"
        # "  12 - monitor.mon (Failed)" under "The following tests FAILED:".
        names=$(sed -n '/The following tests FAILED:/,$p' "$log" |
            sed -n 's/^[[:space:]]*[0-9]* - \([^ ]*\) (.*/\1/p')
        if [ -z "$line" ] && [ -z "$names" ]; then
            names="(no-summary)"
        fi
        if [ -n "$names" ]; then
            failed_runs=$((failed_runs + 1))
            for n in $names; do
                echo "     FAILED $preset/$n"
                echo "$preset/$n" >> "$all"
            done
            # The failing cases inside the test scripts (unittest's own lines).
            grep -E '^(FAIL|ERROR): ' "$log" | sort -u | sed 's/^/       /'
        fi
    done
    run=$((run + 1))
done
stop_load

echo
echo "==== stress: $runs runs of $presets under load"
if [ -s "$all" ]; then
    echo "failures by test:"
    sort "$all" | uniq -c | sort -rn
fi
npresets=$(echo "$presets" | wc -w)
echo "$(wc -l < "$all") failures in $failed_runs of $((runs * npresets)) preset runs (logs in $logdir)"
[ ! -s "$all" ]
