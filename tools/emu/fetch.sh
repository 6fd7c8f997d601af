#!/bin/sh
# Fetches what the emulated Malta board needs from the machine's configured
# Debian sources, for the mipsel architecture, without touching the host's own
# apt state: the Malta kernel package (kernel image and modules) and the extra
# guest packages of tools/emu/guest-packages.list.  Everything lands in CACHE;
# a finished cache is reused.
#
#   fetch.sh CACHE
#
# Afterwards: CACHE/kernel/vmlinuz, CACHE/kernel/lib/modules/KVER (with
# modules.dep), CACHE/kernel/version, CACHE/guest/ (unpacked extra packages).
set -eu

cache=${1:?usage: fetch.sh CACHE}
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)

# Build trees sharing the cache fetch one at a time.
exec 9> "$cache/.lock"
flock 9

list="$here/guest-packages.list"
want="linux-image-4kc-malta $(sed 's/#.*//' "$list" | tr -s ' \n' ' ')"
stamp="$cache/.fetched"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
    exit 0
fi

# A private apt: own lists, cache and an empty status, mipsel only.  Sources
# come from the host's configuration.
apt="$cache/apt"
mkdir -p "$apt/lists/partial" "$apt/archives/partial" "$cache/debs"
: > "$apt/status"
set -- -o Dir::State="$apt" -o Dir::State::Lists="$apt/lists" \
    -o Dir::State::status="$apt/status" -o Dir::Cache="$apt" \
    -o Dir::Cache::archives="$apt/archives" \
    -o APT::Architecture=mipsel -o APT::Architectures::=mipsel \
    -o Debug::NoLocking=1 -o APT::Sandbox::User=root -q
echo "emu: updating the mipsel package lists"
apt-get "$@" update >/dev/null

# The meta package names the versioned image package.
image=$(apt-cache "$@" depends linux-image-4kc-malta |
    sed -n 's/^ *Depends: \(linux-image-[0-9].*-4kc-malta\)$/\1/p' | head -n 1)
[ -n "$image" ] || { echo "emu: no Malta kernel package found" >&2; exit 1; }

echo "emu: downloading $image and the guest packages"
rm -f "$cache"/debs/*.deb
# The package list is split into words on purpose.
# shellcheck disable=SC2046
(cd "$cache/debs" && apt-get "$@" download "$image" \
    $(sed 's/#.*//' "$list" | tr -s ' \n' ' ') >/dev/null)

rm -rf "$cache/kernel" "$cache/guest"
mkdir -p "$cache/kernel" "$cache/guest"
for deb in "$cache"/debs/*.deb; do
    case $(basename "$deb") in
    linux-image-*) dpkg-deb -x "$deb" "$cache/kernel" ;;
    *) dpkg-deb -x "$deb" "$cache/guest" ;;
    esac
done
kver=$(ls "$cache/kernel/lib/modules")
# The package leaves modules.dep to its install script.
depmod -b "$cache/kernel" "$kver"
ln -sf "boot/vmlinuz-$kver" "$cache/kernel/vmlinuz"
echo "$kver" > "$cache/kernel/version"
rm -f "$cache"/debs/*.deb
echo "$want" > "$stamp"
echo "emu: kernel $kver ready in $cache/kernel"
