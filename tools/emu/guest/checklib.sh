# shellcheck shell=sh
# Helpers of the target checks (tests/target/checks/*.sh), sourced by each
# script.  A check is a shell function run in a subshell inside a fresh
# directory; its assertions report what differs and mark it failed.
# The checks that source this file use B.
# shellcheck disable=SC2034
B=/usr/bin
TN_GROUP=${TN_GROUP:-checks}
TN_WORK=${TN_WORK:-/tmp/check-$TN_GROUP}
mkdir -p "$TN_WORK"

# run CMD...: stdout, stderr and exit status of CMD into out, err and $rc.
run() {
    "$@" > "$TN_DIR/out" 2> "$TN_DIR/err"
    rc=$?
}

bad() {
    echo "  $TN_NAME: $*"
    : > "$TN_DIR/bad"
}

want_rc() {
    [ "$rc" = "$1" ] || bad "exit status $rc, want $1"
}

# want_out FORMAT [ARG...]: stdout equals printf FORMAT ARG....
want_out() { _want out "$@"; }
want_err() { _want err "$@"; }
_want() {
    which=$1
    shift
    printf "$@" > "$TN_DIR/want"
    if ! cmp -s "$TN_DIR/want" "$TN_DIR/$which"; then
        bad "std$which differs; want, then got:"
        sed 's/^/    < /' "$TN_DIR/want"
        sed 's/^/    > /' "$TN_DIR/$which"
    fi
}

# caged LIMIT CMD...: CMD in a new pid namespace whose init is a KILL timeout,
# without core files, so nothing it starts outlives the check.
caged() {
    limit=$1
    shift
    prlimit --core=0 -- unshare --pid --fork --kill-child --mount-proc -- \
        timeout -s KILL "$limit" "$@"
}

# wait_until TENTHS CMD...: polls CMD until it succeeds, at most TENTHS/10 s.
wait_until() {
    n=$1
    shift
    until "$@"; do
        n=$((n - 1))
        [ $n -gt 0 ] || return 1
        sleep 0.1
    done
}

# check NAME FUNCTION: runs FUNCTION, prints its result line.
check() {
    TN_NAME=$1
    TN_DIR="$TN_WORK/$1"
    rm -rf "$TN_DIR"
    mkdir -p "$TN_DIR/cwd"
    (cd "$TN_DIR/cwd" && "$2")
    if [ -e "$TN_DIR/bad" ]; then
        verdict=FAIL
    else
        verdict=PASS
    fi
    echo "TN-RESULT $verdict check:$TN_GROUP:$1"
    echo "$verdict" >> "${TN_COUNTS:-/dev/null}"
}
