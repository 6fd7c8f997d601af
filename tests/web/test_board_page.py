"""The debug page of the emulated MIPS board, in the host's browser: the board
boots with the mipsel build, its debug service and mini_httpd; qemu's user
network forwards a loopback port to it.  The page opens and a debug archive
downloads through the board's web server (GNU tar judges it); a program that
crashes on the board (typed on its console) reaches the page's listener
through the board kernel's core pattern."""
import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

from bb import wait_until
from browser import Browser, archive_members

HERE = os.path.dirname(os.path.abspath(__file__))

REPO = os.path.normpath(os.path.join(HERE, "..", ".."))
ARGS = None


def read(path):
    with open(path, "rb") as f:
        return f.read()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class BoardPage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="tn-board-web-")
        port = free_port()
        cls.base = f"http://127.0.0.1:{port}/"
        env = dict(os.environ, TOOLNEST_EMU_HOSTFWD=f"tcp:127.0.0.1:{port}-:80",
                   TOOLNEST_EMU_CONSOLE="stdio")
        cls.console = open(os.path.join(ARGS.artifacts, "board-console.log"), "wb")
        cls.qemu = subprocess.Popen([os.path.join(REPO, "tools", "emu", "run.sh"), "--serve", ARGS.build],
                                    env=env, start_new_session=True, stdin=subprocess.PIPE,
                                    stdout=cls.console)
        try:
            def up():
                if cls.qemu.poll() is not None:
                    raise AssertionError("the board ended; console: " +
                                         os.path.join(ARGS.build, "emu", "console.log"))
                return subprocess.run(["curl", "-sf", "-o", "/dev/null", "-m", "5",
                                       cls.base]).returncode == 0
            # The board boots its kernel under full emulation first: minutes.
            wait_until(up, "the board's web server; console: " +
                       os.path.join(ARGS.build, "emu", "console.log"), 300, step=1)
            cls.b = Browser(ARGS.node_dir)
        except BaseException:
            cls.stop_board()
            raise

    @classmethod
    def stop_board(cls):
        try:
            os.killpg(cls.qemu.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        cls.qemu.wait()
        cls.console.close()

    def type(self, line, wait=False):
        """A command line on the board's console shell; with wait, returns once
        it has run (a line the shell computes, not the echo of the input)."""
        n = getattr(self, "typed", 0) + 1
        self.typed = n
        if wait:
            line += f"; echo TN-TYPED-$((0+{n}))"
        self.qemu.stdin.write(line.encode() + b"\n")
        self.qemu.stdin.flush()
        if wait:
            wait_until(lambda: f"TN-TYPED-{n}".encode() in read(self.console.name),
                       "the board's console to run: " + line, 120, step=0.2)

    @classmethod
    def tearDownClass(cls):
        if hasattr(cls, "b"):
            cls.b.close()
        cls.stop_board()
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def test_1_page_and_archive(self):
        self.assertEqual(self.b.goto(url=self.base), 200)
        self.b.click(sel="#ps-show")
        self.b.wait_text(sel="#ps-status", text="Process list of", timeout=60000)
        self.assertIn("debugar.cgi", self.b.text(sel="#ps-out"))
        self.b.expect_download(name="archive", timeout=400000)
        self.b.click(sel="#archive-tgz")
        self.b.wait_text(sel="#archive-status", text="Making the debug archive")
        self.b.screenshot(path=os.path.join(ARGS.artifacts, "board-page.png"), full=True)
        path = os.path.join(self.tmp, "debug.tgz")
        self.assertEqual(self.b.save_download(name="archive", path=path), "debug.tgz")
        _, rel, cores = archive_members(path)
        at = rel.index("strace.log")
        self.assertEqual(rel[at:at + 2], ["strace.log", "netdump.cap"])
        self.assertIn("mini_httpd", cores)
        self.b.wait_text(sel="#archive-status", text="Saved debug.tgz")
        self.b.screenshot(path=os.path.join(ARGS.artifacts, "board-archive.png"), full=False)

    def test_2_listener_gets_a_crash_of_the_board(self):
        self.assertEqual(self.b.goto(url=self.base), 200)
        # The service's sockets now, and once the listener's connection is its.
        self.type('for p in /proc/[0-9]*; do [ "$(cat $p/comm)" = debugar.cgi ] && d=$p; done; '
                  'n0=$(ls -l $d/fd | grep -c socket)', wait=True)
        self.b.expect_download(name="crash", timeout=120000)
        self.b.click(sel="#listen-start")
        self.b.wait_text(sel="#listen-status", text="Waiting for a process to crash")
        self.type('until [ $(ls -l $d/fd | grep -c socket) -gt $n0 ]; do sleep 0.2; done; '
                  'segfault; echo "crashed with status $?"')
        path = os.path.join(self.tmp, "crash")
        self.assertEqual(self.b.save_download(name="crash", path=path), "core")
        with open(path, "rb") as f:
            core = f.read()
        # an ELF core file of a 32-bit little-endian MIPS process named segfault
        self.assertEqual(core[:6], b"\x7fELF\x01\x01")
        self.assertEqual(int.from_bytes(core[16:18], "little"), 4, "ET_CORE")
        self.assertEqual(int.from_bytes(core[18:20], "little"), 8, "EM_MIPS")
        self.assertIn(b"segfault", core)
        self.b.wait_text(sel="#listen-status", text="of the process that crashed")
        self.b.scroll(sel="#listen")
        self.b.screenshot(path=os.path.join(ARGS.artifacts, "board-crash.png"), full=False)


def main():
    global ARGS
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", required=True)
    ap.add_argument("--node-dir", required=True)
    ap.add_argument("--artifacts", required=True)
    ARGS, rest = ap.parse_known_args()
    ARGS.build = os.path.abspath(ARGS.build)
    ARGS.node_dir = os.path.abspath(ARGS.node_dir)
    os.makedirs(ARGS.artifacts, exist_ok=True)
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == "__main__":
    main()
