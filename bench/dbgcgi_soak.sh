#!/bin/sh
# Soak run of the debug service in the simulated device (bench/dbgcgi_soak.py):
# REQUESTS mixed requests from CLIENTS concurrent clients (ps, short captures,
# traces and runtime traces left early, archive attempts, core dumps,
# malformed control datagrams, datagrams without descriptors, clients that
# vanish), then the daemon's descriptors, threads and resident memory against
# the baseline after a warm-up, zombies and stopped processes.  Sanitizer
# builds (their allocators keep freed memory) are judged without memory.
# usage: bench/dbgcgi_soak.sh BUILD_DIR [REQUESTS] [CLIENTS]
set -eu
build=$(cd "${1:?usage: dbgcgi_soak.sh BUILD_DIR [REQUESTS] [CLIENTS]}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
cmake --install "$build" --prefix "$build/stage" >/dev/null
slack=256
if grep -qE '^TOOLNEST_(SANITIZE|TSAN):BOOL=ON' "$build/CMakeCache.txt"; then
    slack=0
fi
exec env PYTHONPATH="$here/../tests/support" python3 "$here/dbgcgi_soak.py" --prefix "$build/stage" \
    --frontend "$build/tools/frontend/handoff-front" \
    --requests "${2:-10000}" --clients "${3:-16}" --rss-slack "$slack" \
    --label "($(basename "$build"))"
