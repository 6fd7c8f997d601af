#!/bin/sh
# Installs (as root, with apt-get) what building and testing toolnest needs;
# packages already present are left alone.
set -eu

# One package name per line in tools/packages/*.list, grouped by purpose.
pkgs=$(cat "$(dirname "$0")"/packages/*.list | sed 's/#.*//' | tr -s ' \n' ' ')

missing=""
for p in $pkgs; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
        missing="$missing $p"
    fi
done
if [ -n "$missing" ]; then
    echo "installing:$missing"
    apt-get update
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing
fi
