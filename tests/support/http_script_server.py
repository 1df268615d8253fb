#!/usr/bin/env python3
"""A small HTTP/1.1 server whose answers are chosen by the request itself.

  /echo                 200, JSON: method, raw query, headers,
                        body (latin-1 text), whether the body came chunked
  /status?code=N&body=T
                        status N with body T
  /bytes?n=N            N bytes where byte i is i % 251; honours "bytes=a-"
  /sink                 201, JSON: length and sha1 of the body
  /stall?ms=M&after=P   sends the head and P bytes of a longer body (P
                        absent: nothing at all), waits M ms and closes
                        (ms=0 and no P: a dropped request)
  /json?shape=S&n=N&chunked=1
                        200 with a JSON body: S "string" ({"s":"xx..."}, N
                        bytes in all), "arrays" ([[],[],...], N bytes) or
                        "nest" (N arrays inside each other); chunked without
                        a Content-Length when asked
Options: --port-file PATH (written once listening), --tls-cert PEM
--tls-key PEM (serve HTTPS), --log-file PATH (one JSON line per request,
written once its body has been read and before it is answered: method,
path, body_length, body_sha1).  Only 127.0.0.1 is served.  The server exits when
its standard input closes.
"""
import argparse
import hashlib
import http.server
import json
import os
import ssl
import sys
import threading
import time
import urllib.parse

PERIOD = 251
PATTERN = bytes(i % PERIOD for i in range(PERIOD * 4200))  # ~1 MiB + one period


class Log:
    """The --log-file, shared by the connection threads."""
    path = None
    lock = threading.Lock()

    @classmethod
    def write(cls, record):
        if cls.path is None:
            return
        with cls.lock, open(cls.path, "a") as f:
            f.write(json.dumps(record) + "\n")


def json_pieces(shape, n):
    """The body of /json in pieces of about 1 MiB, and its exact length."""
    if shape == "nest":
        return [b"[" * n, b"]" * n], 2 * n
    if shape == "arrays":
        count = max(n // 3, 1)
        piece = b"[]," * 349525
        full, rest = divmod(count - 1, 349525)
        return [b"["] + [piece] * full + [b"[]," * rest, b"[]]"], 3 * count + 1
    head, tail = b'{"s":"', b'"}'
    filler = max(n - len(head) - len(tail), 0)
    full, rest = divmod(filler, 1 << 20)
    return [head] + [b"x" * (1 << 20)] * full + [b"x" * rest, tail], filler + 8


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    # Head and body go out in separate writes; Nagle would hold the body
    # back until the client's delayed acknowledgement.
    disable_nagle_algorithm = True

    def log_message(self, format, *args):
        pass

    def read_body(self):
        """The request body and whether it came chunked."""
        if "chunked" not in self.headers.get("Transfer-Encoding", "").lower():
            return self.rfile.read(int(self.headers.get("Content-Length") or 0)), False
        parts = []
        while True:
            size = int(self.rfile.readline().split(b";")[0].strip() or b"0", 16)
            if size == 0:
                while self.rfile.readline() not in (b"\r\n", b"\n", b""):
                    pass  # trailers
                return b"".join(parts), True
            parts.append(self.rfile.read(size))
            self.rfile.readline()

    def answer(self, code, body=b""):
        self.send_response(code)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def route(self):
        url = urllib.parse.urlsplit(self.path)
        query = urllib.parse.parse_qs(url.query, keep_blank_values=True)
        body, chunked = self.read_body()
        Log.write({"method": self.command, "path": url.path, "body_length": len(body),
                   "body_sha1": hashlib.sha1(body).hexdigest()})
        try:
            getattr(self, "route_" + url.path.strip("/"))(url, query, body, chunked)
        except (BrokenPipeError, ConnectionResetError):
            self.close_connection = True  # the client gave up on a long answer

    do_GET = do_PUT = do_POST = do_DELETE = route

    def route_echo(self, url, query, body, chunked):
        self.answer(200, json.dumps({
            "method": self.command, "query": url.query,
            "headers": dict(self.headers.items()),
            "body": body.decode("latin-1"), "chunked": chunked}).encode())

    def route_status(self, url, query, body, chunked):
        self.answer(int(query["code"][0]), query.get("body", [""])[0].encode())

    def route_bytes(self, url, query, body, chunked):
        size = int(query["n"][0])
        first = int(self.headers.get("Range", "bytes=0-")[6:].rstrip("-"))
        self.send_response(206 if first else 200)
        self.send_header("Content-Length", str(size - first))
        self.end_headers()
        self.wfile.flush()
        while first < size:
            count = min(len(PATTERN) - PERIOD, size - first)
            start = first % PERIOD
            self.connection.sendall(PATTERN[start:start + count])
            first += count

    def route_sink(self, url, query, body, chunked):
        self.answer(201, json.dumps({"length": len(body),
                                     "sha1": hashlib.sha1(body).hexdigest()}).encode())

    def route_json(self, url, query, body, chunked):
        pieces, length = json_pieces(query["shape"][0], int(query["n"][0]))
        self.send_response(200)
        self.send_header("Content-Type", "application/json")
        if "chunked" in query:
            self.send_header("Transfer-Encoding", "chunked")
        else:
            self.send_header("Content-Length", str(length))
        self.end_headers()
        self.wfile.flush()
        for piece in pieces:
            if "chunked" in query:
                piece = b"%x\r\n%s\r\n" % (len(piece), piece) if piece else b""
            self.connection.sendall(piece)
        if "chunked" in query:
            self.connection.sendall(b"0\r\n\r\n")

    def route_stall(self, url, query, body, chunked):
        if "after" in query:
            sent = int(query["after"][0])
            self.send_response(200)
            self.send_header("Content-Length", str(sent + 1000))
            self.end_headers()
            self.wfile.write(b"x" * sent)
            self.wfile.flush()
        time.sleep(int(query["ms"][0]) / 1000.0)
        self.close_connection = True


class Server(http.server.ThreadingHTTPServer):
    def handle_error(self, request, client_address):
        # A client that gives up on an answer (a refused body, a failed
        # write) resets its connection: nothing to report.
        if not isinstance(sys.exc_info()[1], (ConnectionResetError, BrokenPipeError)):
            super().handle_error(request, client_address)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--tls-cert")
    parser.add_argument("--tls-key")
    parser.add_argument("--log-file")
    options = parser.parse_args()
    Log.path = options.log_file
    server = Server(("127.0.0.1", 0), Handler)
    if options.tls_cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(options.tls_cert, options.tls_key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    with open(options.port_file + ".tmp", "w") as f:
        f.write("%d\n" % server.server_address[1])
    os.rename(options.port_file + ".tmp", options.port_file)
    threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
    server.serve_forever(poll_interval=0.2)


if __name__ == "__main__":
    main()
