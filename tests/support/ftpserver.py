"""A real FTP server for the tests (pyftpdlib, the system's python3):

    ftpserver.py --address A --port P --root DIR [--no-rename] [--no-upload]
                 [--max-rate BYTES_PER_S] [--user NAME:PASSWORD] [--log FILE]

Anonymous logins (and the optional user) see DIR as "/"; uploads go where the
client stores them.  --no-rename refuses RNFR ("550"), --no-upload refuses
STOR, --max-rate throttles uploads.  Runs until killed."""
import argparse
import logging

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler
from pyftpdlib.servers import FTPServer


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--address", required=True)
    ap.add_argument("--port", type=int, required=True)
    ap.add_argument("--root", required=True)
    ap.add_argument("--no-rename", action="store_true")
    ap.add_argument("--no-upload", action="store_true")
    ap.add_argument("--max-rate", type=int, default=0)
    ap.add_argument("--user")
    ap.add_argument("--log")
    args = ap.parse_args()

    logging.basicConfig(filename=args.log, level=logging.INFO if args.log else logging.WARNING)
    perm = "elr"
    if not args.no_upload:
        perm += "w"
    if not args.no_rename:
        perm += "f"
    auth = DummyAuthorizer()
    auth.add_anonymous(args.root, perm=perm)
    if args.user:
        name, _, password = args.user.partition(":")
        auth.add_user(name, password, args.root, perm=perm)

    handler = FTPHandler
    handler.authorizer = auth
    if args.max_rate:
        dtp = ThrottledDTPHandler
        dtp.read_limit = args.max_rate
        handler.dtp_handler = dtp
    server = FTPServer((args.address, args.port), handler)
    server.serve_forever()


if __name__ == "__main__":
    main()
