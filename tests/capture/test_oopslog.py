"""The installed oopslog applet on loop block devices made from partition
images: exact stdout and stderr, forward and with -r, and its error paths."""
import os
import struct
import subprocess
import tempfile
import unittest

import bb

MAGIC = 0x5d005d00
USAGE = b"USAGE: oopslog [options] mtdblock-device\n\n"


def image(nslots, slots, size=None):
    """slots: {index: (count, text)}; everything else erased flash."""
    b = bytearray(b"\xff" * (nslots * 4096))
    for i, (count, text) in slots.items():
        b[i * 4096:i * 4096 + 8] = struct.pack("<II", count, MAGIC)
        b[i * 4096 + 8:i * 4096 + 8 + len(text)] = text
    return bytes(b[:size] if size is not None else b)


def entry(count, pos, text):
    return b"Log Entry %d (at position %d)\n" % (count, pos) + text


class Loop:
    """A read-only loop device over an image; always detached."""

    def __init__(self, data):
        fd, self.file = tempfile.mkstemp(prefix="tn-oops-")
        os.write(fd, data)
        os.close(fd)
        self.dev = None
        r = subprocess.run(["losetup", "--find", "--show", "--read-only", self.file],
                           capture_output=True, check=True)
        self.dev = r.stdout.decode().strip()

    def __enter__(self):
        return self.dev

    def __exit__(self, *exc):
        if self.dev:
            subprocess.run(["losetup", "--detach", self.dev])
        os.unlink(self.file)


def oopslog(*args):
    return bb.run(bb.path("sbin/oopslog"), *args)


class Oopslog(unittest.TestCase):
    def check(self, data, err, out, out_reverse):
        with Loop(data) as dev:
            r = oopslog(dev)
            self.assertEqual((r.returncode, r.stderr, r.stdout), (0, err, out))
            r = oopslog("-r", dev)
            self.assertEqual((r.returncode, r.stderr, r.stdout), (0, err, out_reverse))

    def test_ring_wrapped(self):
        data = image(3, {0: (6, b"six\n"), 1: (7, b"seven\n"), 2: (5, b"five\n")})
        self.check(data, b"Last log is at position 1 with count 7\n",
                   entry(5, 2, b"five\n") + entry(6, 0, b"six\n") + entry(7, 1, b"seven\n"),
                   entry(6, 0, b"six\n") + entry(5, 2, b"five\n") + entry(7, 1, b"seven\n"))

    def test_count_wraps_to_zero(self):
        data = image(3, {0: (0xfffffffe, b"old\x01\n"), 1: (0, b"new\n")})
        self.check(data, b"Last log is at position 1 with count 0\n",
                   entry(-2, 0, b"old.\n") + entry(0, 1, b"new\n"),
                   entry(-2, 0, b"old.\n") + entry(0, 1, b"new\n"))

    def test_erased_partition(self):
        self.check(image(8, {}), b"No logs present\n", b"", b"")

    def test_smaller_than_a_slot(self):
        self.check(image(1, {0: (1, b"x\n")}, size=2048), b"No logs present\n", b"", b"")

    def test_usage(self):
        for args in ([], ["-r"]):
            r = oopslog(*args)
            self.assertEqual((r.returncode, r.stdout, r.stderr), (1, USAGE, b""))

    def test_open_error(self):
        r = oopslog("/nonexistent")
        self.assertEqual((r.returncode, r.stdout, r.stderr),
                         (1, b"", b"open: No such file or directory\n"))

    def test_regular_file_is_not_an_mtd_device(self):
        with tempfile.NamedTemporaryFile() as f:
            f.write(image(2, {0: (1, b"x\n")}))
            f.flush()
            r = oopslog(f.name)
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stdout, b"")
        if bb.EMULATOR and r.stderr != b"MEMGETINFO: Inappropriate ioctl for device\n":
            # qemu-user answers ioctls it does not know itself.
            self.assertEqual(r.stderr, b"MEMGETINFO: Function not implemented\n")
        else:
            self.assertEqual(r.stderr, b"MEMGETINFO: Inappropriate ioctl for device\n")


if __name__ == "__main__":
    bb.main()
