"""tools/test_report.py on made-up JUnit files and board logs: counts, and
which skips fail the run on this machine."""
import os
import subprocess
import sys
import tempfile
import unittest
from xml.sax.saxutils import escape

REPORT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools",
                      "test_report.py")


def gtest_skip_output(name, reason):
    return (f"[ RUN      ] {name}\n/src/x.cpp:1: Skipped\n{reason}\n"
            f"[  SKIPPED ] {name} (0 ms)\n")


def junit(cases):
    """cases: (name, status, output) with status run, fail or skip."""
    body = ""
    for name, status, out in cases:
        attr = {"run": "run", "fail": "fail", "skip": "notrun"}[status]
        inner = '<skipped message="SKIP_REGULAR_EXPRESSION_MATCHED"/>' if status == "skip" else ""
        body += (f'<testcase name="{name}" classname="{name}" time="0" status="{attr}">{inner}'
                 f"<system-out>{escape(out)}</system-out></testcase>\n")
    return f'<?xml version="1.0"?>\n<testsuite name="x">\n{body}</testsuite>\n'


class Report(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.tmp.cleanup()

    def file(self, name, text):
        path = os.path.join(self.tmp.name, name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def run_report(self, *args):
        r = subprocess.run([sys.executable, REPORT] + list(args), capture_output=True, text=True)
        return r.returncode, r.stdout

    def test_counts_per_preset_and_script_cases(self):
        script_out = ("test_a (__main__.T.test_a) ... ok\n"
                      "test_b (__main__.T.test_b) ... skipped '[qemu-user] no ptrace'\n")
        j = self.file("m.xml", junit([
            ("A.one", "run", ""), ("A.two", "fail", ""),
            ("A.three", "skip", gtest_skip_output("A.three", "[qemu-user] no ptrace")),
            ("blackbox.x", "run", script_out), ("target.board", "run", "")]))
        rc, out = self.run_report("mipsel=" + j + ":emulated")
        self.assertIn("mipsel: 5 tests, 3 passed, 1 failed, 1 skipped (qemu-user 1); "
                      "script cases skipped: 1 (qemu-user 1)", out)

    def test_untagged_skip_fails(self):
        j = self.file("h.xml", junit([("A.one", "skip", gtest_skip_output("A.one", "no reason"))]))
        rc, out = self.run_report("host=" + j)
        self.assertEqual(rc, 1, out)
        self.assertIn("skip without a known reason tag: no reason", out)

    def test_qemu_user_skip_outside_the_emulated_build_fails(self):
        j = self.file("h.xml", junit([("A.one", "skip", gtest_skip_output("A.one", "[qemu-user] x"))]))
        rc, out = self.run_report("host=" + j)
        self.assertEqual(rc, 1, out)
        self.assertIn("outside the emulated build", out)

    def test_root_skip_fails_only_where_root(self):
        j = self.file("h.xml", junit([("A.one", "skip", gtest_skip_output("A.one", "[root] needs root"))]))
        rc, out = self.run_report("host=" + j)
        self.assertEqual(rc, 1 if os.geteuid() == 0 else 0, out)

    def test_script_case_skip_is_judged_too(self):
        out_text = "test_b (__main__.T.test_b) ... skipped '[root] needs root'\n"
        j = self.file("h.xml", junit([("blackbox.x", "run", out_text)]))
        rc, out = self.run_report("host=" + j)
        self.assertEqual(rc, 1 if os.geteuid() == 0 else 0, out)
        if os.geteuid() == 0:
            self.assertIn("host: blackbox.x: __main__.T.test_b: skipped for [root]", out)

    def test_emulated_preset_without_board_test_fails(self):
        j = self.file("m.xml", junit([("A.one", "run", "")]))
        rc, out = self.run_report("mipsel=" + j + ":emulated")
        self.assertEqual(rc, 1, out)
        self.assertIn("the board test target.board is missing", out)

    def test_board_covers_what_qemu_user_skips(self):
        j = self.file("m.xml", junit([
            ("A.one", "skip", gtest_skip_output("A.one", "[qemu-user] no ptrace")),
            ("target.board", "run", "")]))
        passed = self.file("pass.log", "TN-BEGIN\nTN-RESULT PASS unit:test_a:A.one\nTN-DONE\n")
        failed = self.file("fail.log", "TN-BEGIN\nTN-RESULT FAIL unit:test_a:A.one\nTN-DONE\n")
        rc, out = self.run_report("--board-log", passed, "mipsel=" + j + ":emulated")
        self.assertEqual(rc, 0, out)
        self.assertIn("board: 1 tests, 1 passed, 0 failed, 0 skipped", out)
        rc, out = self.run_report("--board-log", failed, "mipsel=" + j + ":emulated")
        if "qemu-system-mipsel" in out.split("this machine gives:")[1].splitlines()[0]:
            self.assertEqual(rc, 1, out)
            self.assertIn("the board did not pass it in this run", out)

    def test_skip_on_the_board_fails(self):
        j = self.file("m.xml", junit([("target.board", "run", "")]))
        log = self.file("b.log", "TN-BEGIN\n" + gtest_skip_output("A.one", "[ipv6] none") +
                        "TN-RESULT SKIP unit:test_a:A.one\nTN-DONE\n")
        rc, out = self.run_report("--board-log", log, "mipsel=" + j + ":emulated")
        self.assertEqual(rc, 1, out)
        self.assertIn("board: unit:test_a:A.one: skipped on the board: [ipv6] none", out)

    def test_missing_emulator_skip_of_the_board_test(self):
        j = self.file("m.xml", junit([("target.board", "skip",
                                       "emu: SKIPPED: [qemu-system-mipsel] not installed\n")]))
        rc, out = self.run_report("mipsel=" + j + ":emulated")
        self.assertIn("1 skipped (qemu-system-mipsel 1)", out)
        self.assertIn("board: not run", out)
        has_emulator = "qemu-system-mipsel" in out.split("this machine gives:")[1].splitlines()[0]
        self.assertEqual(rc, 1 if has_emulator else 0, out)


if __name__ == "__main__":
    unittest.main(verbosity=2)
