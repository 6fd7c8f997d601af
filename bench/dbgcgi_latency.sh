#!/bin/sh
# Idle resident memory of the debug-service daemon and ps-request latency
# (p50/p99) with CLIENTS concurrent clients, against /bin/ps run directly in
# the same simulated device in the same run (bench/dbgcgi_latency.py).
# usage: bench/dbgcgi_latency.sh BUILD_DIR [CLIENTS] [ROUNDS]
set -eu
build=$(cd "${1:?usage: dbgcgi_latency.sh BUILD_DIR [CLIENTS] [ROUNDS]}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
cmake --install "$build" --prefix "$build/stage" >/dev/null
exec env PYTHONPATH="$here/../tests/support" python3 "$here/dbgcgi_latency.py" --prefix "$build/stage" \
    --frontend "$build/tools/frontend/handoff-front" \
    --clients "${2:-8}" --rounds "${3:-40}" --label "($(basename "$build"))"
