"""The installed CGI front end (nph-debug.cgi) against a service socket of the
test's own: what it sends (control message, the very connection it was given)
and what it answers itself.  Each case runs in a mount namespace whose /var/run is
a fresh tmpfs, so the service path exists only there."""
import subprocess
import sys
import unittest

import bb

FRONT = "share/toolnest/www/cgi-bin/nph-debug.cgi"
SOCK = "/var/run/dbg-cgi/ctrl-cgi-socket"

# Runs inside the namespace: plays the service (or not), starts the front end
# with one end of a socket pair as its standard output, reports what happened.
INNER = r"""
import array, json, os, socket, subprocess, sys
cmd, env, listen = json.loads(sys.argv[1])
os.makedirs("/var/run/dbg-cgi", exist_ok=True)
srv = None
if listen:
    srv = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    srv.bind(%r)
client, ours = socket.socketpair()
p = subprocess.run(cmd, stdout=ours.fileno(), stdin=subprocess.DEVNULL, env=env, timeout=30)
ours_ino = os.fstat(ours.fileno()).st_ino
ours.close()
out = {"rc": p.returncode}
if srv:
    srv.settimeout(0.5)
    try:
        msg, anc, flags, _ = srv.recvmsg(8192, socket.CMSG_SPACE(16))
        fds = array.array("i")
        for lvl, typ, data in anc:
            fds.frombytes(data[:len(data) - len(data) %% 4])
        out["msg"] = msg.hex()
        out["same"] = [os.fstat(fd).st_ino == ours_ino for fd in fds]
        for fd in fds:
            os.close(fd)
    except socket.timeout:
        out["msg"] = None
client.settimeout(5)
data = b""
while True:
    b = client.recv(65536)
    if not b:
        break
    data += b
out["reply"] = data.decode("latin-1")
print(json.dumps(out))
""" % SOCK


def run_front(env, listen=True, args=()):
    import json
    cmd = bb.command(bb.path(FRONT), *args)
    inner = json.dumps([cmd, env, listen])
    r = subprocess.run(["unshare", "--mount", "--propagation", "private", "--fork", "sh", "-c",
                        'mount -t tmpfs tn-run /var/run && exec "$0" -c "$1" "$2"',
                        sys.executable, INNER, inner],
                       capture_output=True, timeout=60)
    if r.returncode != 0:
        raise AssertionError(r.stderr.decode(errors="replace"))
    return json.loads(r.stdout)


class FrontEnd(unittest.TestCase):
    def test_hands_over_path_query_and_the_connection(self):
        out = run_front({"SCRIPT_NAME": "/cgi-bin/nph-debug.cgi", "PATH_INFO": "/debug.tgz",
                         "QUERY_STRING": "cmd=strace&pid=1%2Chearth"})
        self.assertEqual(out["rc"], 0)
        self.assertEqual(bytes.fromhex(out["msg"]),
                         b"/cgi-bin/nph-debug.cgi/debug.tgz\0cmd=strace&pid=1%2Chearth\0")
        self.assertEqual(out["same"], [True], "exactly one descriptor: the connection itself")
        self.assertEqual(out["reply"], "", "the front end itself writes nothing")

    def test_missing_variables_are_empty(self):
        out = run_front({})
        self.assertEqual(bytes.fromhex(out["msg"]), b"\0\0")
        self.assertEqual(out["same"], [True])

    def test_query_words_in_arguments_are_ignored(self):
        out = run_front({"SCRIPT_NAME": "/cgi-bin/nph-debug.cgi", "PATH_INFO": "/core",
                         "QUERY_STRING": "listen"}, args=("listen",))
        self.assertEqual(bytes.fromhex(out["msg"]), b"/cgi-bin/nph-debug.cgi/core\0listen\0")

    def test_no_service_gives_503_page(self):
        out = run_front({"SCRIPT_NAME": "/cgi-bin/nph-debug.cgi", "QUERY_STRING": "cmd=ps"},
                        listen=False)
        self.assertEqual(out["rc"], 0)
        self.assertEqual(out["reply"],
                         "HTTP/1.0 503 Service Unavailable\r\nCache-Control: no-cache\r\n"
                         "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: text/html\r\n\r\n"
                         "<HTML><HEAD></HEAD>\r\n<BODY>\r\n"
                         "The debug service is not running on this device. "
                         "Start debugar.cgi and try again.\r\n</BODY></HTML>\r\n\r\n")

    def test_request_too_long_gives_400_page(self):
        # 4095 bytes fit: path, NUL, query, NUL
        q = "x" * (4095 - len("/a") - 2)
        out = run_front({"SCRIPT_NAME": "/a", "QUERY_STRING": q})
        self.assertEqual(len(bytes.fromhex(out["msg"])), 4095)
        out = run_front({"SCRIPT_NAME": "/a", "QUERY_STRING": q + "y"})
        self.assertIsNone(out["msg"])
        self.assertTrue(out["reply"].startswith("HTTP/1.0 400 Bad Request\r\n"), out["reply"])
        self.assertIn("The request is too long for the debug service.", out["reply"])


if __name__ == "__main__":
    sys.argv = bb.setup()
    unittest.main(verbosity=2)
