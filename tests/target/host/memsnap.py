#!/usr/bin/env python3
"""Host side of the board's memsnap check: gdb-multiarch opens the core the
board exported, with the cross-built program and the mipsel sysroot, and
must show the three parked threads, their backtraces and the global's
value.

usage: memsnap.py EXPORT_DIR BUILD SYSROOT
Prints "TN-RESULT PASS|FAIL|SKIP NAME" lines, diagnostics before them."""
import os
import shutil
import sys

import gdbcheck

NAME = "host:memsnap:gdb-multiarch-opens-the-board-core"


def main():
    export, build, sysroot = sys.argv[1:4]
    d = os.path.join(export, "memsnap")
    if not os.path.isdir(d):
        print("TN-RESULT SKIP %s (the board exported no core)" % NAME)
        return
    gdb = shutil.which("gdb-multiarch")
    if not gdb:
        print("  gdb-multiarch is not installed (tools/packages)")
        print("TN-RESULT FAIL " + NAME)
        return
    with open(os.path.join(d, "pid")) as f:
        pid = int(f.read())
    with open(os.path.join(d, "program")) as f:
        program = f.read().strip()
    # The board ran a copy of the build's program at the same path.
    if not program.startswith(build + "/") or not os.path.exists(program):
        print("  program %s is not in %s" % (program, build))
        print("TN-RESULT FAIL " + NAME)
        return
    problems, out = gdbcheck.judge(gdb, program, os.path.join(d, "core"), pid, sysroot)
    if problems:
        for p in problems:
            print("  " + p)
        for line in out.splitlines():
            print("    | " + line)
        print("TN-RESULT FAIL " + NAME)
    else:
        print("TN-RESULT PASS " + NAME)


if __name__ == "__main__":
    main()
