#!/usr/bin/env python3
"""A small HTTP/1.1 server whose answers are chosen by the request itself.

Tests of the REST client start it on a free loopback port and steer every
answer through the path and query string:

  /echo                  200, JSON describing the request: method, path,
                         raw query, headers (in order), body (latin-1 text),
                         body length, whether the body came chunked
  /status?code=N&h.K=V&body=T&ctype=C
                         status N with headers K: V, body T
  /bytes?n=N             N bytes where byte i is i % 251; honours "Range"
  /sink                  reads the body, answers {"length":..,"sha1":..}
  /drop                  reads the request, closes without an answer
  /stall?ms=M&after=P    sends the head and P body bytes of a longer body
                         (P absent: nothing at all), then waits M ms and
                         closes
  /_connections          {"connections": number of connections accepted}

Options: --port (0 picks one), --port-file PATH (written once listening),
--tls-cert PEM --tls-key PEM (serve HTTPS).  Only 127.0.0.1 is served.
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

PATTERN_PERIOD = 251
PATTERN = bytes(i % PATTERN_PERIOD for i in range(PATTERN_PERIOD * 4200))  # ~1 MiB + one period
CHUNK = len(PATTERN) - PATTERN_PERIOD

connections_lock = threading.Lock()
connections = 0


def parse_range(value, size):
    """(first, last) of a single "bytes=a-b" range, or None when absent/bad."""
    if not value or not value.startswith("bytes="):
        return None
    first_text, _, last_text = value[len("bytes="):].partition("-")
    try:
        if first_text == "":
            count = int(last_text)
            return max(size - count, 0), size - 1
        first = int(first_text)
        last = int(last_text) if last_text else size - 1
    except ValueError:
        return None
    if first >= size or last < first:
        return None
    return first, min(last, size - 1)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "script/1"
    # Head and body go out in separate writes; Nagle would hold the body
    # back until the client's delayed acknowledgement.
    disable_nagle_algorithm = True

    def setup(self):
        global connections
        super().setup()
        with connections_lock:
            connections += 1

    def log_message(self, format, *args):  # quiet
        pass

    # ---- request bodies ----

    def read_body(self):
        """The request body and whether it came chunked."""
        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            parts = []
            while True:
                size_line = self.rfile.readline()
                size = int(size_line.split(b";")[0].strip() or b"0", 16)
                if size == 0:
                    while self.rfile.readline() not in (b"\r\n", b"\n", b""):
                        pass  # trailers
                    return b"".join(parts), True
                parts.append(self.rfile.read(size))
                self.rfile.readline()
        length = int(self.headers.get("Content-Length", "0") or "0")
        return (self.rfile.read(length) if length > 0 else b""), False

    def drain_body(self):
        """Consumes the body without keeping it: (length, sha1 hex)."""
        digest = hashlib.sha1()
        total = 0
        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            body, _ = self.read_body()
            return len(body), hashlib.sha1(body).hexdigest()
        remaining = int(self.headers.get("Content-Length", "0") or "0")
        while remaining > 0:
            piece = self.rfile.read(min(remaining, 1 << 20))
            if not piece:
                break
            digest.update(piece)
            total += len(piece)
            remaining -= len(piece)
        return total, digest.hexdigest()

    # ---- answers ----

    def answer(self, code, body=b"", headers=(), content_type="application/json"):
        self.send_response(code)
        for key, value in headers:
            self.send_header(key, value)
        if content_type:
            self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if body and self.command != "HEAD":
            self.wfile.write(body)

    def answer_json(self, code, document):
        self.answer(code, json.dumps(document).encode())

    def route(self):
        url = urllib.parse.urlsplit(self.path)
        query = urllib.parse.parse_qs(url.query, keep_blank_values=True)
        name = url.path.rstrip("/") or "/"
        handler = getattr(self, "do_route_" + name.strip("/").replace("/", "_"), None)
        if handler is None:
            self.read_body()
            self.answer_json(404, {"error": "no such route", "path": url.path})
            return
        handler(url, query)

    do_GET = do_PUT = do_POST = do_DELETE = do_PATCH = do_HEAD = route

    def do_route_echo(self, url, query):
        body, chunked = self.read_body()
        self.answer_json(200, {
            "method": self.command,
            "path": url.path,
            "query": url.query,
            "headers": [[k, v] for k, v in self.headers.items()],
            "body": body.decode("latin-1"),
            "body_length": len(body),
            "chunked": chunked,
        })

    def do_route_status(self, url, query):
        self.read_body()
        code = int(query.get("code", ["200"])[0])
        headers = [(k[2:], v[0]) for k, v in query.items() if k.startswith("h.")]
        body = query.get("body", [""])[0].encode()
        ctype = query.get("ctype", ["application/json" if body else ""])[0]
        self.answer(code, body, headers, ctype)

    def do_route_bytes(self, url, query):
        self.read_body()
        size = int(query.get("n", ["0"])[0])
        wanted = parse_range(self.headers.get("Range"), size)
        first, last = wanted if wanted else (0, size - 1)
        self.send_response(206 if wanted else 200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(max(last - first + 1, 0)))
        if wanted:
            self.send_header("Content-Range", "bytes %d-%d/%d" % (first, last, size))
        self.end_headers()
        self.wfile.flush()
        view = memoryview(PATTERN)
        position = first
        while position <= last:
            start = position % PATTERN_PERIOD
            count = min(CHUNK, last - position + 1)
            self.connection.sendall(view[start:start + count])
            position += count

    def do_route_sink(self, url, query):
        length, sha1 = self.drain_body()
        self.answer_json(201, {"length": length, "sha1": sha1,
                               "chunked": "chunked" in self.headers.get("Transfer-Encoding", "")})

    def do_route_drop(self, url, query):
        self.read_body()
        self.close_connection = True
        self.connection.shutdown(2)

    def do_route_stall(self, url, query):
        self.read_body()
        delay = int(query.get("ms", ["1000"])[0]) / 1000.0
        after = query.get("after")
        if after is not None:
            sent = int(after[0])
            self.send_response(200)
            self.send_header("Content-Type", "application/octet-stream")
            self.send_header("Content-Length", str(sent + 1000))
            self.end_headers()
            self.wfile.write(b"x" * sent)
            self.wfile.flush()
        time.sleep(delay)
        self.close_connection = True

    def do_route__connections(self, url, query):
        self.read_body()
        with connections_lock:
            count = connections
        self.answer_json(200, {"connections": count})


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--port-file")
    parser.add_argument("--tls-cert")
    parser.add_argument("--tls-key")
    options = parser.parse_args()

    server = Server(("127.0.0.1", options.port), Handler)
    scheme = "http"
    if options.tls_cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(options.tls_cert, options.tls_key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
        scheme = "https"
    port = server.server_address[1]
    if options.port_file:
        temporary = options.port_file + ".tmp"
        with open(temporary, "w") as f:
            f.write("%d\n" % port)
        os.rename(temporary, options.port_file)
    print("http-script-server listening on %s://127.0.0.1:%d" % (scheme, port), flush=True)
    try:
        server.serve_forever(poll_interval=0.2)
    except KeyboardInterrupt:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
