#!/bin/sh
# Installs the browser tests' node modules (playwright-core, exactly as the
# lock file says) into DIR, once per lock file.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
dir=$1
mkdir -p "$dir"
if ! command -v npm >/dev/null; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends npm
fi
if [ -f "$dir/node_modules/.toolnest-lock" ] && cmp -s "$here/package-lock.json" "$dir/node_modules/.toolnest-lock"; then
    exit 0
fi
cp "$here/package.json" "$here/package-lock.json" "$dir/"
(cd "$dir" && npm ci --no-audit --no-fund --loglevel=error)
cp "$here/package-lock.json" "$dir/node_modules/.toolnest-lock"
