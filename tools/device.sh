#!/bin/sh
# The main job: builds toolnest, installs it the way a device image would carry
# it, and runs what the toolbox can do so far.
set -eu
cd "$(dirname "$0")/.."

tools/deps.sh
cmake --preset host >/dev/null
cmake --build --preset host

root="$PWD/build/device-root"
rm -rf "$root"
DESTDIR="$root" cmake --install build/host --prefix /usr >/dev/null
bin="$root/usr/bin"

show() {
    printf '\n$ %s\n' "$*"
    set +e
    "$@"
    rc=$?
    set -e
    printf '[exit status %d]\n' "$rc"
}

# Crash tests run caged: a fresh pid namespace, no core files, a hard time limit.
caged() {
    limit=$1
    shift
    prlimit --core=0 -- unshare --pid --fork --kill-child --mount-proc -- \
        timeout -s KILL "$limit" "$@"
}

echo "== installed into $root"
(cd "$root" && find . -path ./usr/include -prune -o \( -type f -o -type l \) -print | sort)

show "$bin/toolnest"
show "$bin/toolnest" ctest
show "$bin/ctest"
show "$bin/toolnest" monitor
show "$bin/tstrace" -p 1
show caged 20 prlimit --nofile=64 -- "$bin/fdleak"
show caged 20 sh -c "\"$bin/segfault\"; echo \"segfault ended with status \$?\""
show caged 2 sh -c "prlimit --nproc=16 -- setpriv --reuid=65534 --regid=65534 --clear-groups -- \"$bin/forkbomb\" 50000 | head -n 5"
