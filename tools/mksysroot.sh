#!/bin/sh
# Builds a Debian bookworm mipsel sysroot for cross-compiling and for running
# target binaries under qemu-user.  Only unpacks packages (no second stage),
# so no binfmt registration is needed.  A finished sysroot is reused as long
# as it was made from the same package list: its stamp file holds what it was
# made from, and a sysroot made from anything else is built afresh.
set -eu

root=${1:?usage: mksysroot.sh DIR}
pkgs="libc6-dev,libstdc++6,zlib1g-dev,libcurl4-openssl-dev,libinih-dev,liburiparser-dev,libgtest-dev"
key="bookworm mipsel minbase $pkgs"
stamp="$root/.toolnest-sysroot"

# qemu-user looks every path up in the sysroot first: without these directories
# the emulated programs see the host's live /dev, /proc and /sys.
prune() {
    rm -rf "${1:?}/dev" "${1:?}/proc" "${1:?}/sys"
}

# Build trees sharing a sysroot make it one at a time.
mkdir -p "$(dirname "$root")"
exec 9> "$root.lock"
flock 9

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$key" ]; then
    prune "$root"
    exit 0
fi
if [ -e "$root" ]; then
    echo "mksysroot: $root was made from another package list; building it afresh"
fi

need=""
command -v debootstrap >/dev/null 2>&1 || need="$need debootstrap"
command -v mipsel-linux-gnu-g++ >/dev/null 2>&1 || need="$need g++-mipsel-linux-gnu"
command -v qemu-mipsel-static >/dev/null 2>&1 || need="$need qemu-user-static"
if [ -n "$need" ]; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y $need
fi

tmp="$root.partial"
rm -rf "$tmp"
mkdir -p "$tmp"
# No mirror argument: debootstrap uses its default source.
debootstrap --foreign --arch=mipsel --variant=minbase --include="$pkgs" bookworm "$tmp"

# The first stage unpacks only the essential set; unpack everything it fetched.
for deb in "$tmp"/var/cache/apt/archives/*.deb; do
    dpkg-deb -x "$deb" "$tmp"
done
rm -rf "$tmp"/var/cache/apt/archives/*.deb "$tmp"/debootstrap

# Absolute links would point into the build host; make them relative to the sysroot.
find "$tmp" -type l -lname '/*' | while IFS= read -r link; do
    target=$(readlink "$link")
    rel=$(realpath -s -m --relative-to="$(dirname "$link")" "$tmp$target")
    ln -sfn "$rel" "$link"
done

prune "$tmp"
echo "$key" > "$tmp/.toolnest-sysroot"
# A link (to another tree's sysroot) is replaced, never followed: the sysroot
# it points to stays as it is.
if [ -L "$root" ]; then
    rm -f "$root"
else
    rm -rf "$root"
fi
mv "$tmp" "$root"
