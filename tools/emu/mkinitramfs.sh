#!/bin/sh
# Builds the emulated board's root file system as an initramfs: programs and
# the libraries they link from the mipsel sysroot (and the extra guest
# packages), the mipsel install of toolnest, every unit-test executable of the
# build, the target checks and the kernel modules the tests need.
#
#   mkinitramfs.sh BUILD SYSROOT CACHE OUT
#
# BUILD is a built mipsel tree, CACHE what tools/emu/fetch.sh filled, OUT the
# initramfs file to write (a gzip-compressed newc cpio).  The board unpacks it
# into its 256 MB of RAM, so only what runs there goes in.
set -eu

build=$(cd "${1:?usage: mkinitramfs.sh BUILD SYSROOT CACHE OUT}" && pwd)
sysroot=$(cd "${2:?}" && pwd)
cache=$(cd "${3:?}" && pwd)
out=${4:?}
here=$(cd "$(dirname "$0")" && pwd)
src=$(cd "$here/../.." && pwd)
extra="$cache/guest"
kver=$(cat "$cache/kernel/version")
kmods="$cache/kernel/lib/modules/$kver"
strip=mipsel-linux-gnu-strip

root="$(dirname "$out")/root"
rm -rf "$root"
mkdir -p "$root"
cd "$root"
mkdir -p bin sbin lib usr/bin usr/sbin usr/lib dev proc sys tmp run root etc \
    var/tmp opt/toolnest/tests opt/toolnest/checks opt/toolnest/bin "lib/modules/$kver"
chmod 1777 tmp var/tmp

# Programs of the board: /init and the runner, the tests' own needs (a shell,
# coreutils the unit tests start, the caging tools), iproute2 for the veth pair,
# the device's web server and the process list of the debug service.
programs="bin/dash bin/echo bin/true bin/false bin/cat bin/ls bin/mkdir bin/rm
bin/ln bin/cp bin/mv bin/mount bin/umount bin/sleep bin/grep bin/sed bin/dd bin/chown
bin/mknod bin/uname bin/dmesg bin/readlink bin/mktemp bin/chmod bin/touch
bin/hostname bin/sync usr/bin/env usr/bin/prlimit usr/bin/unshare
usr/bin/setpriv usr/bin/timeout usr/bin/setsid usr/bin/nsenter usr/bin/id
usr/bin/head usr/bin/tail usr/bin/wc usr/bin/cmp usr/bin/od usr/bin/tr
usr/bin/seq usr/bin/stat usr/bin/nproc usr/bin/printf usr/bin/test
usr/bin/expr usr/bin/find usr/bin/xargs usr/bin/sort usr/bin/uniq usr/bin/cut
usr/bin/basename usr/bin/dirname usr/bin/realpath usr/bin/truncate
usr/bin/tee usr/bin/mkfifo usr/bin/du usr/bin/diff sbin/losetup bin/ip
usr/bin/base64 bin/gzip usr/bin/iostat usr/bin/pidstat usr/sbin/vsftpd
usr/sbin/mini_httpd bin/tar bin/ps"
for p in $programs; do
    found=""
    for base in "$sysroot" "$extra"; do
        if [ -f "$base/$p" ]; then
            cp -L "$base/$p" "$p"
            found=1
            break
        fi
    done
    [ -n "$found" ] || echo "mkinitramfs: $p not found, left out" >&2
done
ln -s dash bin/sh
ln -s ../../bin/ip sbin/ip
# Tests start losetup by its merged-/usr path, as on the build host.
ln -s ../../sbin/losetup usr/sbin/losetup

# toolnest as a device carries it.
DESTDIR="$root" cmake --install "$build" --prefix /usr >/dev/null
# Of usr/share only the debug page and its web server configuration.
rm -rf usr/include usr/lib/*.a usr/lib/cmake
find usr/share -mindepth 1 -maxdepth 1 ! -name toolnest -exec rm -rf {} +
$strip --strip-debug usr/bin/toolnest

# Every program of the build's test tree, at the same absolute path as in
# the build (tests name their helpers by $<TARGET_FILE:...>).  The unit-test
# executables among them (tests/*/test_*, and tests/lib/*/test_* for the
# in-house libraries) are what the suite runs; found here, whatever modules
# exist.
find "$build/tests" -path '*/CMakeFiles' -prune -o -type f -perm -u+x -print | sort |
while IFS= read -r exe; do
    readelf -h "$exe" >/dev/null 2>&1 || continue
    mkdir -p ".$(dirname "$exe")"
    $strip --strip-debug -o ".$exe" "$exe"
done
: > opt/toolnest/tests.list
for exe in "$build"/tests/*/test_* "$build"/tests/lib/*/test_*; do
    [ -f ".$exe" ] || continue
    echo "$exe" >> opt/toolnest/tests.list
    ln -s "$exe" "opt/toolnest/tests/$(basename "$exe")"
done
# Target helper programs (tests/target) and the checks.
for exe in "$build"/tests/target/board_*; do
    [ -f ".$exe" ] || continue
    ln -s "$exe" "opt/toolnest/bin/$(basename "$exe")"
done
# The test front end of the debug service (check:dbgcgi).
if [ -f "$build/tools/frontend/handoff-front" ]; then
    $strip --strip-debug -o opt/toolnest/bin/handoff-front "$build/tools/frontend/handoff-front"
fi
[ -e opt/toolnest/bin/board_modprobe ] ||
    { echo "mkinitramfs: $build/tests/target/board_modprobe missing (build the tree first)" >&2; exit 1; }
ln -s ../opt/toolnest/bin/board_modprobe sbin/modprobe
cp "$src"/tests/target/checks/*.sh opt/toolnest/checks/
cp "$here/guest/init" init
cp "$here/guest/run-suite.sh" "$here/guest/checklib.sh" opt/toolnest/
chmod 755 init opt/toolnest/run-suite.sh

# Kernel modules the tests load, with their dependencies.
modules=$(sed 's/#.*//' "$here/modules.list" | tr -s ' \n' ' ')
cp "$kmods/modules.dep" "$kmods/modules.builtin" "$kmods/modules.order" "lib/modules/$kver/"
for m in $modules; do
    line=$(grep -E "(^|/)$m\.ko:" "$kmods/modules.dep") ||
        { echo "mkinitramfs: module $m not in $kver" >&2; exit 1; }
    for f in $(echo "$line" | tr -d ':'); do
        mkdir -p "lib/modules/$kver/$(dirname "$f")"
        cp "$kmods/$f" "lib/modules/$kver/$f"
    done
done

# Shared libraries: the closure of what every ELF file here links.
find_lib() {
    for base in "$extra" "$sysroot"; do
        for d in lib/mipsel-linux-gnu usr/lib/mipsel-linux-gnu lib usr/lib; do
            if [ -e "$base/$d/$1" ]; then
                echo "$base/$d/$1 $d/$1"
                return 0
            fi
        done
    done
    return 1
}
have_lib() {
    for d in lib/mipsel-linux-gnu usr/lib/mipsel-linux-gnu lib usr/lib; do
        [ -e "$d/$1" ] && return 0
    done
    return 1
}
mkdir -p lib/mipsel-linux-gnu usr/lib/mipsel-linux-gnu
cp -L "$sysroot/lib/mipsel-linux-gnu/ld.so.1" lib/mipsel-linux-gnu/ld.so.1
ln -s mipsel-linux-gnu/ld.so.1 lib/ld.so.1
scanned=$(mktemp)
trap 'rm -f "$scanned"' EXIT
while :; do
    added=0
    for f in $(find . -type f ! -path './lib/modules/*' | sort); do
        grep -qxF "$f" "$scanned" && continue
        echo "$f" >> "$scanned"
        readelf -h "$f" >/dev/null 2>&1 || continue
        for lib in $(readelf -d "$f" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            have_lib "$lib" && continue
            # Two words: the library's path here and in the image.
            # shellcheck disable=SC2046
            set -- $(find_lib "$lib") ||
                { echo "mkinitramfs: $lib (needed by $f) not found" >&2; exit 1; }
            mkdir -p "$(dirname "$2")"
            cp -L "$1" "$2"
            added=1
        done
    done
    [ $added = 1 ] || break
done

# ftp: the user vsftpd maps anonymous logins to (check:coredump).
printf 'root:x:0:0:root:/root:/bin/sh\nftp:x:100:101:ftp:/srv/ftp:/bin/false\nnobody:x:65534:65534:nobody:/nonexistent:/bin/false\n' > etc/passwd
printf 'root:x:0:\nftp:x:101:\nnogroup:x:65534:\n' > etc/group
mkdir -p srv/ftp
echo toolnest-board > etc/hostname
printf 'passwd: files\ngroup: files\nhosts: files\n' > etc/nsswitch.conf
printf '127.0.0.1 localhost\n' > etc/hosts

find . -print0 | LC_ALL=C sort -z | cpio --null -o -H newc -R 0:0 --quiet | gzip -1 > "$out.tmp"
mv "$out.tmp" "$out"
echo "emu: initramfs $(du -sh "$root" | cut -f1) unpacked, $(du -h "$out" | cut -f1) packed: $out"
