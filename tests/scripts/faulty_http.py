#!/usr/bin/env python3
"""A web server that misbehaves on purpose, for the HTTP client's tests.

Serves the files of --root at /MODE/NAME, where MODE picks the fault:

  ok            honours HEAD and single byte ranges, like a good server
  drop          GET: announces the whole answer, sends half of it, hangs up
  drop-once     the first GET of a path as "drop", later ones as "ok"
  long-length   GET: announces 100 bytes more than it sends, then hangs up
  overlong      GET: a 206 for the range asked with 100 extra bytes in it
  short         GET: a 206 that claims the range asked but sends 100 fewer bytes
  wrong-start   GET: a 206 whose Content-Range starts one byte late
  ignore-range  GET: always 200 with the whole file
  no-length     HEAD without Content-Length; GET honours ranges
  no-size       HEAD without Content-Length; GET: 200 of unknown length, then hangs up
  stall         sends nothing for a minute
  stall-body    GET: announces the answer, sends a little of it, then nothing for a minute

and also /status/CODE (that status, small body), /loop (redirects to
itself), /redirect?to=URL (302 to URL). --tls CERT KEY serves HTTPS.
The server runs until killed, or until the process that started it is
gone, so a crashed test leaves no server behind.
"""

import argparse
import http.server
import os
import re
import socket
import ssl
import sys
import threading
import time
import urllib.parse

STALL_SECONDS = 60


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    seen = set()
    seen_lock = threading.Lock()

    def log_message(self, format, *args):
        pass

    def body_of(self, name):
        path = os.path.join(self.server.root, name)
        if "/" in name or not os.path.isfile(path):
            return None
        with open(path, "rb") as f:
            return f.read()

    def wanted_range(self, size):
        """(first, last) of a single "bytes=a-b" range, None for none, or
        "unsatisfiable"."""
        header = self.headers.get("Range")
        if header is None:
            return None
        match = re.fullmatch(r"bytes=(\d+)-(\d*)", header.strip())
        if match is None:
            return None
        first = int(match.group(1))
        last = int(match.group(2)) if match.group(2) else size - 1
        if first >= size:
            return "unsatisfiable"
        return first, min(last, size - 1)

    def send_simple(self, code, text=b"", headers=()):
        self.send_response(code)
        for key, value in headers:
            self.send_header(key, value)
        self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(text)

    def hang_up(self):
        self.wfile.flush()
        self.close_connection = True
        try:
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def special(self):
        """Paths that serve no file; True when handled."""
        parsed = urllib.parse.urlsplit(self.path)
        if parsed.path.startswith("/status/"):
            code = int(parsed.path[len("/status/"):])
            self.send_simple(code, b"status page\n")
            return True
        if parsed.path == "/loop":
            self.send_simple(302, headers=[("Location", "/loop")])
            return True
        if parsed.path == "/redirect":
            target = urllib.parse.parse_qs(parsed.query).get("to", ["/"])[0]
            self.send_simple(302, headers=[("Location", target)])
            return True
        return False

    def handle_request(self):
        if self.special():
            return
        parts = urllib.parse.urlsplit(self.path).path.split("/", 2)
        if len(parts) != 3:
            self.send_simple(404, b"no such path\n")
            return
        mode, name = parts[1], parts[2]
        body = self.body_of(name)
        if body is None:
            self.send_simple(404, b"no such file\n")
            return
        if mode == "stall":
            time.sleep(STALL_SECONDS)
            self.hang_up()
            return
        if mode == "drop-once" and self.command == "GET":
            with Handler.seen_lock:
                first = self.path not in Handler.seen
                Handler.seen.add(self.path)
            mode = "drop" if first else "ok"

        size = len(body)
        if self.command == "HEAD":
            self.send_response(200)
            if mode not in ("no-length", "no-size"):
                self.send_header("Content-Length", str(size))
            self.end_headers()
            return

        if mode == "no-size":
            self.send_response(200)
            self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.write(body)
            self.hang_up()
            return

        wanted = None if mode == "ignore-range" else self.wanted_range(size)
        if wanted == "unsatisfiable":
            self.send_simple(416, headers=[("Content-Range", "bytes */%d" % size)])
            return
        if wanted is None:
            code, first, last = 200, 0, size - 1
        else:
            code, (first, last) = 206, wanted
        data = body[first:last + 1]
        announced = len(data)
        content_range = "bytes %d-%d/%d" % (first, last, size)
        if mode == "long-length":
            announced += 100
        elif mode == "overlong":
            data += b"\xee" * 100
            announced = len(data)
        elif mode == "short":
            data = data[:max(0, len(data) - 100)]
            announced = len(data)
        elif mode == "wrong-start":
            content_range = "bytes %d-%d/%d" % (first + 1, last + 1, size)

        self.send_response(code)
        self.send_header("Content-Length", str(announced))
        if code == 206:
            self.send_header("Content-Range", content_range)
        self.end_headers()
        if mode == "drop":
            self.wfile.write(data[:len(data) // 2])
            self.hang_up()
        elif mode == "stall-body":
            self.wfile.write(data[:16])
            self.wfile.flush()
            time.sleep(STALL_SECONDS)
            self.hang_up()
        else:
            self.wfile.write(data)
            if mode == "long-length":
                self.hang_up()

    def do_GET(self):
        self.handle_request()

    def do_HEAD(self):
        self.handle_request()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--bind", default="127.0.0.1")
    parser.add_argument("--root", required=True)
    parser.add_argument("--tls", nargs=2, metavar=("CERT", "KEY"))
    args = parser.parse_args()

    server = http.server.ThreadingHTTPServer((args.bind, args.port), Handler)
    server.daemon_threads = True
    server.root = args.root
    if args.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.tls[0], args.tls[1])
        server.socket = context.wrap_socket(server.socket, server_side=True)
    parent = os.getppid()

    def watch_parent():
        while os.getppid() == parent:
            time.sleep(0.5)
        os._exit(0)

    threading.Thread(target=watch_parent, daemon=True).start()
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
