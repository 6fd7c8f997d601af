#!/usr/bin/env python3
"""Shell scripts pass `shellcheck -S warning` and Python passes pyflakes.

Shell scripts are the *.sh files and the files with a sh or bash first line
under tools/ and tests/; Python is every *.py file and python script of the
tree outside the build directories.  A missing checker fails the test:
tools/deps.sh installs both.
"""
import argparse
import os
import shutil
import subprocess
import sys

PRUNE = {"build", "node_modules", ".git", "__pycache__"}


def files(root, tops):
    for top in tops:
        for dirpath, dirnames, names in os.walk(os.path.join(root, top)):
            dirnames[:] = sorted(d for d in dirnames if d not in PRUNE)
            for name in sorted(names):
                yield os.path.join(dirpath, name)


def first_line(path):
    try:
        with open(path, "rb") as f:
            return f.readline(200).decode("latin-1")
    except OSError:
        return ""


def is_shell(path):
    if path.endswith(".sh"):
        return True
    line = first_line(path)
    if not line.startswith("#!"):
        return False
    return any(os.path.basename(word) in ("sh", "bash") for word in line[2:].split())


def is_python(path):
    if path.endswith(".py"):
        return True
    line = first_line(path)
    return line.startswith("#!") and "python" in line


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    args = parser.parse_args()

    shellcheck = shutil.which("shellcheck")
    pyflakes = shutil.which("pyflakes3") or shutil.which("pyflakes")
    if not shellcheck or not pyflakes:
        print("shellcheck or pyflakes is not installed (tools/deps.sh installs them)")
        return 1

    shell = [p for p in files(args.source, ("tools", "tests")) if is_shell(p)]
    python = [p for p in files(args.source, ("tools", "tests", "bench", "reader", "src"))
              if is_python(p)]
    failed = False
    # From the tree's root, so the scripts' source directives resolve.
    for cmd in ([shellcheck, "-S", "warning"] + shell, [pyflakes] + python):
        run = subprocess.run(cmd, cwd=args.source, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True, check=False)
        if run.returncode != 0:
            sys.stdout.write(run.stdout)
            failed = True
    print(f"{len(shell)} shell scripts, {len(python)} Python files")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
