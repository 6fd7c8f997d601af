#!/bin/sh
# Installs (as root, with apt-get) what building and testing toolnest needs;
# packages already present are left alone.
set -eu

pkgs="cmake ninja-build g++ clang libclang-rt-14-dev googletest libgtest-dev
zlib1g-dev libcurl4-openssl-dev libinih-dev liburiparser-dev
g++-mipsel-linux-gnu qemu-user-static debootstrap
python3 util-linux coreutils procps tar iproute2 strace"

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
