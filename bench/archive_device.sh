#!/bin/sh
# Wall time of a whole compressed debug archive (`debugar.cgi -d`) in the
# simulated device, split into the fixed waits (5 s trace, 5 s capture) and
# the rest, against the budget the gzip filter's own throughput gives for the
# archive's bytes (measured in the same run by bench/gzip_filter.sh).
# usage: bench/archive_device.sh BUILD_DIR [RUNS]
set -eu
build=$(cd "${1:?usage: archive_device.sh BUILD_DIR [RUNS]}" && pwd)
runs=${2:-3}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/tn-archive-bench.XXXXXX)
stage="$build/stage"
cmake --install "$build" --prefix "$stage" > /dev/null
SIMDEV=$("$here/../tools/simdev/simdev.sh" start -p "$stage")
export SIMDEV
trap '"$here/../tools/simdev/simdev.sh" stop; rm -rf "$work"' EXIT

GZIP_BENCH_RESULT="$work/gzip" "$here/gzip_filter.sh" "$build" 256 > "$work/gzip.txt"
read -r gbytes gsecs < "$work/gzip"
thr=$(echo "$gbytes / $gsecs" | bc -l)
printf 'gzip filter: %.1f MB/s of input (same run)\n' "$(echo "$thr / 1048576" | bc -l)"

i=0
while [ $i -lt "$runs" ]; do
    i=$((i + 1))
    "$here/../tools/simdev/simdev.sh" exec sh -c '
        s=$(date +%s.%N); debugar.cgi -d > /tmp/a.tgz 2>/dev/null; e=$(date +%s.%N)
        echo "$s $e"; cat /tmp/a.tgz > /dev/null' > "$work/t"
    read -r s e < "$work/t"
    "$here/../tools/simdev/simdev.sh" exec cat /tmp/a.tgz > "$work/a.tgz"
    raw=$(gzip -dc "$work/a.tgz" | wc -c)
    gz=$(stat -c %s "$work/a.tgz")
    total=$(echo "$e - $s" | bc -l)
    rest=$(echo "$total - 10" | bc -l)
    budget=$(echo "$raw / $thr + 0.5" | bc -l)
    printf 'run %d: %.2f s in all = 10 s fixed waits + %.2f s rest; %d bytes of tar (%d compressed); budget %.2f s; rest/budget %.2f\n' \
        $i "$total" "$rest" "$raw" "$gz" "$budget" "$(echo "$rest / $budget" | bc -l)"
done
