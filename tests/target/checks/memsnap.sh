# shellcheck shell=sh
# The installed core dumper on the MIPS kernel: a core of snap_subject (a
# global with a known value, three threads parked in known functions) through
# a pipe, as the toolbox takes it.  The core goes back to the host through
# the export disk ($TN_EXPORT), where gdb-multiarch judges it with the
# mipsel sysroot (tests/target/host/memsnap.py).
# shellcheck source=../../../tools/emu/guest/checklib.sh
. "$TN_LIB"

subject=$(dirname "$(grep -m1 '/tests/memsnap/test_' /opt/toolnest/tests.list)")/snap_subject

# Status field of one thread.
field() {
    sed -n "s/^$3:[[:space:]]*//p" "/proc/$1/task/$2/status" 2>/dev/null
}

core_through_a_pipe() {
    [ -x "$subject" ] || { bad "no $subject"; return; }
    mkfifo hold
    "$subject" < hold > subject.out &
    spid=$!
    # Holds the subject's standard input open until the end.
    exec 8> hold
    i=0
    until grep -q '^ready' subject.out || [ $i -ge 300 ]; do sleep 0.1; i=$((i + 1)); done
    pid=$(cut -d' ' -f2 subject.out)
    [ "$pid" = "$spid" ] || { bad "subject not ready: $(cat subject.out)"; exec 8>&-; return; }
    ntasks=$(ls /proc/$pid/task | wc -l)
    [ "$ntasks" = 3 ] || bad "subject has $ntasks threads, want 3"
    # "ready" comes just before the main thread blocks: wait until every
    # thread sleeps in its parking read.
    i=0
    while [ $i -lt 300 ]; do
        asleep=0
        for task in /proc/$pid/task/*; do
            tid=${task##*/}
            case $(field $pid $tid State) in S*) asleep=$((asleep + 1)) ;; esac
        done
        [ $asleep = 3 ] && break
        sleep 0.1
        i=$((i + 1))
    done

    # Standard output is a pipe, as in the toolbox.
    { "$B/memsnap" -c /dev/stdout "$pid" 2> "$TN_DIR/err"; echo $? > status; } | cat > core
    rc=$(cat status)
    want_rc 0
    report=$(head -n 1 "$TN_DIR/err")
    rest=$(tail -n +2 "$TN_DIR/err")
    [ -z "$rest" ] || bad "more on stderr: $rest"
    case $report in
    "length: "*" bytes, other tasks: "*) ;;
    *) bad "report line: $report"; exec 8>&-; return ;;
    esac
    length=$(echo "$report" | cut -c9- | cut -d' ' -f1)
    size=$(stat -c %s core)
    [ "$length" = "$size" ] || bad "core of $size bytes, reported $length"
    others=$(echo "$report" | cut -c$((9 + ${#length} + 21))- | tr ' ' '\n' | sort | tr '\n' ' ')
    want=$(for task in /proc/$pid/task/*; do echo "${task##*/}"; done | grep -vx "$pid" | sort | tr '\n' ' ')
    [ "$others" = "$want" ] || bad "other tasks '$others', want '$want'"
    [ "$(od -A n -t x1 -N 4 core | tr -d ' ')" = 7f454c46 ] || bad "no ELF header"

    for task in /proc/$pid/task/*; do
        tid=${task##*/}
        [ "$(field $pid $tid TracerPid)" = 0 ] || bad "thread $tid still traced"
        case $(field $pid $tid State) in
        t* | T*) bad "thread $tid left stopped: $(field $pid $tid State)" ;;
        esac
    done

    mkdir -p "$TN_EXPORT/memsnap"
    cp core "$TN_EXPORT/memsnap/core"
    echo "$pid" > "$TN_EXPORT/memsnap/pid"
    echo "$subject" > "$TN_EXPORT/memsnap/program"

    exec 8>&-
    wait $spid
    src=$?
    [ $src = 0 ] || bad "subject exit status $src after the dump"
    [ "$(tail -n 1 subject.out)" = bye ] || bad "subject said: $(cat subject.out)"
}

check core-through-a-pipe core_through_a_pipe
