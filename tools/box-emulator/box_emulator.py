#!/usr/bin/env python3
"""Box emulator: Box's content API and upload API on one loopback port,
plus an unauthenticated control interface under /_emulator/ that tests use
to seed the account, inject faults and read the request log.

Python 3 standard library only."""

import argparse
import collections
import ipaddress
import json
import os
import re
import shutil
import signal
import socket
import ssl
import struct
import sys
import tempfile
import threading
import time
import traceback
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, urlsplit

sys.dont_write_bytecode = True   # keep the source tree clean
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from boxemu_api import Api, Response  # noqa: E402
from boxemu_body import Body, BodyError  # noqa: E402
from boxemu_control import Control, ControlError  # noqa: E402
from boxemu_flight import InFlight  # noqa: E402
from boxemu_oauth import OAuth, bearer  # noqa: E402
from boxemu_store import BoxError, Clock, Store  # noqa: E402
from boxemu_upload import Uploads  # noqa: E402
import boxemu_wan as wan  # noqa: E402

LOG_LIMIT = 100000


class State:
    """Everything the handlers share.  Small fields are guarded by self.lock,
    the tree by store.lock."""

    def __init__(self, args):
        self.args = args
        self.lock = threading.Lock()
        self.store = Store(Clock(args.timezone))
        self.data_dir = args.data_dir
        self.quiet = args.quiet
        self.scheme = "https" if args.tls_cert else "http"
        self.host = "[%s]" % args.host if ":" in args.host else args.host
        self.port = 0
        self.oauth = OAuth(self)
        self.flight = InFlight()
        self.reset()
        self.api = Api(self)
        self.uploads = Uploads(self)
        self.control = Control(self)
        self.routes = build_routes(self)

    def reset(self):
        self.store.reset()
        with self.lock:
            self.log = collections.deque(maxlen=LOG_LIMIT)
            self.faults = []
            self.rate = {"per_second": 0, "retry_after": 1, "recent": collections.deque()}
            self.tokens = {t: None for t in (self.args.token or ["test-token"])}
            self.oauth.reset_locked()
            self.commit_pending = {"count": 0, "retry_after": 1}
            self.config = {"part_size": self.args.part_size,
                           "min_session_size": self.args.min_session_size,
                           "download_base": None,
                           **wan.start_config(self.args)}
        if hasattr(self, "api"):
            self.api.downloads = {}

    def take_fault(self, method, path, query, headers):
        with self.lock:
            for fault in self.faults:
                if fault.get("method") and fault["method"].upper() != method:
                    continue
                if fault.get("path_regex") and not re.search(fault["path_regex"], path):
                    continue
                if fault.get("query_regex") and not re.search(fault["query_regex"], query):
                    continue
                if not headers_match(fault.get("header_regex"), headers):
                    continue
                if fault["count"] > 0:
                    fault["count"] -= 1
                    if fault["count"] == 0:
                        self.faults.remove(fault)
                return fault
        return None

    def profile(self):
        """The WAN settings a request arriving now is served under."""
        with self.lock:
            return wan.Profile(self.config)

    def rate_limited(self):
        """Retry-After seconds when this request is over the limit, else None."""
        with self.lock:
            limit = self.rate["per_second"]
            if limit <= 0:
                return None
            now = time.monotonic()
            recent = self.rate["recent"]
            while recent and recent[0] <= now - 1.0:
                recent.popleft()
            if len(recent) >= limit:
                return self.rate["retry_after"]
            recent.append(now)
            return None

    def check_token(self, header):
        """None when the Authorization header carries a valid token, else the
        WWW-Authenticate value of the 401 answer."""
        token = bearer(header)
        if not token:
            return ('Bearer realm="Service", error="invalid_request", '
                    'error_description="The access token was not found."')
        with self.lock:
            known = token in self.tokens
            expiry = self.tokens.get(token)
        if not known or (expiry is not None and expiry <= time.time()):
            return ('Bearer realm="Service", error="invalid_token", '
                    'error_description="The access token provided is invalid."')
        return None


def headers_match(wanted, headers):
    """Every header the fault names (any case) is present and its value
    matches the regex (re.search); no names: a match."""
    for name, regex in (wanted or {}).items():
        value = headers.get(name)
        if value is None or not re.search(regex, value):
            return False
    return True


def shorten_range(resp, by):
    """Makes a 206 answer `by` bytes shorter (never empty), its
    Content-Range saying so: a server may send less of a range than asked."""
    m = re.match(r"bytes (\d+)-(\d+)/(\d+)$", resp.headers.get("Content-Range", ""))
    if not m:
        return
    start, end, size = (int(g) for g in m.groups())
    end = max(start, end - by)
    resp.headers["Content-Range"] = "bytes %d-%d/%d" % (start, end, size)
    resp.length = end - start + 1


def build_routes(state):
    api, up = state.api, state.uploads
    item = r"([^/]+)"
    table = [
        ("GET", r"/2\.0/folders/%s/items" % item, api.list_items),
        ("GET", r"/2\.0/folders/%s" % item, api.folder_info),
        ("POST", r"/2\.0/folders", api.create_folder),
        ("PUT", r"/2\.0/folders/%s" % item, lambda r, i: api.update(r, "folder", i)),
        ("DELETE", r"/2\.0/folders/%s" % item, lambda r, i: api.delete(r, "folder", i)),
        ("GET", r"/2\.0/files/%s" % item, api.file_info),
        ("PUT", r"/2\.0/files/%s" % item, lambda r, i: api.update(r, "file", i)),
        ("DELETE", r"/2\.0/files/%s" % item, lambda r, i: api.delete(r, "file", i)),
        ("GET", r"/2\.0/files/%s/content" % item, api.content_redirect),
        ("GET", r"/2\.0/files/%s/versions" % item, api.versions),
        ("OPTIONS", r"/2\.0/files/content", up.preflight),
        ("GET", r"/2\.0/users/me", state.oauth.users_me),
    ] + [
        (method, r"/2\.0/(files|folders)/%s/metadata/%s/%s" % (item, item, item), api.metadata)
        for method in ("GET", "POST", "PUT", "DELETE")
    ] + [
        ("POST", r"/api/2\.0/files/content", up.upload),
        ("POST", r"/api/2\.0/files/%s/content" % item, up.upload_version),
        ("POST", r"/api/2\.0/files/upload_sessions", up.create_session),
        ("POST", r"/api/2\.0/files/%s/upload_sessions" % item, up.create_version_session),
        ("PUT", r"/api/2\.0/files/upload_sessions/%s" % item, up.upload_part),
        ("GET", r"/api/2\.0/files/upload_sessions/%s" % item, up.session_status),
        ("DELETE", r"/api/2\.0/files/upload_sessions/%s" % item, up.abort),
        ("GET", r"/api/2\.0/files/upload_sessions/%s/parts" % item, up.list_parts),
        ("POST", r"/api/2\.0/files/upload_sessions/%s/commit" % item, up.commit),
    ]
    return [(m, re.compile(p), f) for m, p, f in table]


DOWNLOAD_PATH = re.compile(r"/d/1/([^/]+)/download")
# The token endpoints take no bearer token and are not rate limited with
# the API.
OAUTH_PATHS = {"/oauth2/token": "token", "/oauth2/revoke": "revoke_request"}


class Request:
    def __init__(self, method, path, query, headers, body, base_url):
        self.method = method
        self.path = path
        self.query = query
        self.headers = headers
        self.body = body
        self.base_url = base_url


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "box-emulator"
    sys_version = ""
    disable_nagle_algorithm = True
    timeout = 600   # idle keep-alive connections end after this

    state = None    # set by main()

    # -- plumbing -------------------------------------------------------

    def setup(self):
        if isinstance(self.request, ssl.SSLSocket):
            self.request.settimeout(30)
            self.request.do_handshake()
        super().setup()

    def version_string(self):
        return self.server_version

    def log_message(self, fmt, *args):
        if not self.state.quiet:
            sys.stderr.write("box-emulator: %s %s\n" % (self.address_string(), fmt % args))

    def do_GET(self):
        self.dispatch()

    do_POST = do_PUT = do_DELETE = do_PATCH = do_OPTIONS = do_HEAD = do_GET

    def answer(self, resp, shape=None):
        """Write a Response; Content-Length on every answer but 204/304.

        shape: the fault that matched, or None.  Its "truncate_after" cuts
        the body after that many bytes and ends the connection (with a TCP
        reset when "reset" is set); its "throttle_bps" sends the body at
        about that many bytes a second; its "range_short_by" answers a
        range with that many bytes fewer than asked, well formed."""
        shape = shape or {}
        truncate = shape.get("truncate_after")
        if shape.get("range_short_by") and resp.status == 206:
            shorten_range(resp, shape["range_short_by"])
        body = b""
        headers = dict(resp.headers)
        if resp.doc is not None:
            body = json.dumps(resp.doc, separators=(",", ":")).encode()
            headers.setdefault("Content-Type", "application/json")
        length = resp.length if resp.content is not None else len(body)
        silent = self.command == "HEAD" or resp.status in (204, 304)
        planned = 0 if silent else length if truncate is None else min(length, truncate)
        self.record(resp.status, planned)
        self.send_response(resp.status)
        for k, v in headers.items():
            self.send_header(k, v)
        if resp.status not in (204, 304):
            self.send_header("Content-Length", str(length))
        if truncate is not None:
            self.send_header("Connection", "close")
        if planned == 0:
            self.stamp_end()
        self.end_headers()
        if planned:
            sink = self.profile.writer(self.connection)
            if shape.get("throttle_bps"):
                sink = wan.PacedWriter(sink, shape["throttle_bps"])
            self.send_body(sink, resp, body, planned)
        if truncate is not None:
            self.drop(shape.get("reset"))

    def send_body(self, sink, resp, body, planned):
        """Sends the answer's first `planned` body bytes: all but the last,
        then the end stamp (see boxemu_flight), then the last byte."""
        sent = 0
        try:
            if resp.content is not None:
                sent = resp.content.send(sink, resp.offset, planned - 1)
                if sent == planned - 1:
                    self.stamp_end()
                    sent += resp.content.send(sink, resp.offset + sent, 1)
            else:
                self.wfile.flush()
                sink.sendall(body[:planned - 1])
                self.stamp_end()
                sink.sendall(body[planned - 1:planned])
                sent = planned
        finally:
            if sent != planned and self.entry is not None:
                with self.state.lock:
                    self.entry["response_length"] = sent

    def stamp_end(self):
        if self.entry is not None and self.entry["ended"] is None:
            self.entry["ended"] = time.monotonic()

    def drop(self, reset=False):
        """End the connection: an orderly close, or with reset a TCP RST
        (SO_LINGER 0), which the peer reads as "connection reset"."""
        self.record(0, 0)
        self.stamp_end()
        self.close_connection = True
        try:
            self.wfile.flush()
            if reset:
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                           struct.pack("ii", 1, 0))
                self.connection.close()   # the fd goes when the handler's files close
            else:
                self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def record(self, status, response_length):
        """Log the request once, before its answer goes out: whoever got the
        answer finds the request in the log.  The request body is read to
        its end first, for its length and digest."""
        entry = self.entry
        if entry is None or self.logged:
            return
        self.logged = True
        try:
            if not self.close_connection:
                self.body.drain()
        except (BodyError, OSError):
            self.close_connection = True
        entry.update(body_length=self.body.length, body_sha1=self.body.hexdigest(),
                     status=status, response_length=response_length)
        with self.state.lock:
            self.state.log.append(entry)

    # -- one request ----------------------------------------------------

    def dispatch(self):
        self.entry = None
        self.logged = False
        url = urlsplit(self.path)
        path = url.path
        # The control interface is never delayed nor paced.
        control = path.startswith("/_emulator/")
        self.profile = wan.NO_WAN if control else self.state.profile()
        try:
            body = Body(self.profile.reader(self.rfile), self.headers)
        except BodyError as e:
            self.close_connection = True
            self.answer(Response(400, {"error": str(e)}, {"Connection": "close"}))
            return
        if control:
            self.control(path, url.query, body)
            return
        self.body = body
        self.entry = entry = {"method": self.command, "path": path,
                              "query": parse_qs(url.query, keep_blank_values=True),
                              "headers": {}, "body_length": 0, "body_sha1": None, "status": 0,
                              "response_length": 0, "time": time.time(),
                              "started": None, "ended": None}
        for k, v in self.headers.items():
            k = k.lower()
            entry["headers"][k] = entry["headers"][k] + ", " + v if k in entry["headers"] else v
        self.state.flight.begin(entry)
        try:
            self.profile.wait_latency()
            self.serve(path, url.query, entry["query"], body)
        except BodyError:
            self.close_connection = True
        finally:
            self.record(0, 0)   # no answer went out
            self.state.flight.end(entry)

    def serve(self, path, raw_query, query, body):
        state = self.state
        fault = state.take_fault(self.command, path, raw_query, self.headers)
        if fault is not None:
            # A fault that answers by itself reads the whole request first;
            # one that only shapes the answer leaves the body to the handler;
            # one that cuts the request reads only so much of it.
            if fault.get("cut_body_after") is not None:
                self.read_some(body, fault["cut_body_after"])
            elif fault.get("drop") or fault.get("status"):
                body.drain()
            if fault.get("delay_ms"):
                time.sleep(fault["delay_ms"] / 1000.0)
            if fault.get("drop") or fault.get("cut_body_after") is not None:
                self.close_connection = True   # the rest of the body stays unread
                self.drop(fault.get("reset"))
                return
            if fault.get("status"):
                self.answer_fault(fault)
                return
        host = self.headers.get("Host") or "%s:%d" % (state.host, state.port)
        req = Request(self.command, path, query, self.headers, body,
                      "%s://%s" % (state.scheme, host))
        m = DOWNLOAD_PATH.fullmatch(path)
        try:
            if m:
                resp = state.api.download(req, m.group(1))
            else:
                resp = self.route(req, body)
        except BoxError as err:
            body.drain()
            resp = Response(err.status, err.body(), err.headers)
        except FileNotFoundError:
            body.drain()
            resp = Response(404, BoxError(404, "not_found", "Content is gone").body())
        except (BodyError, ConnectionError):
            raise
        except Exception:
            # A fault of the emulator itself: say so loudly, answer like Box.
            traceback.print_exc()
            self.close_connection = True
            resp = Response(500, BoxError(500, "internal_server_error",
                                          "Internal Server Error").body(),
                            {"Connection": "close"})
        self.profile.wait_processing(self.command, path)
        self.answer(resp, fault)

    @staticmethod
    def read_some(body, limit):
        while limit > 0:
            data = body.read(min(limit, 1 << 20))
            if not data:
                return
            limit -= len(data)

    def route(self, req, body):
        path = req.path
        if len(path) > 1 and path.endswith("/"):
            path = path[:-1]   # Box accepts "/2.0/files/ID/" too
        if path in OAUTH_PATHS:
            if req.method != "POST":
                body.drain()
                raise BoxError(405, "method_not_allowed", "Method Not Allowed")
            return getattr(self.state.oauth, OAUTH_PATHS[path])(req)
        if not path.startswith(("/2.0/", "/api/2.0/")):
            body.drain()
            raise BoxError(404, "not_found", "Not Found")
        wait = self.state.rate_limited()
        if wait is not None:
            body.drain()
            raise BoxError(429, "rate_limit_exceeded",
                           "Request rate limit exceeded, please try again later",
                           headers={"Retry-After": str(wait)})
        challenge = self.state.check_token(self.headers.get("Authorization"))
        if challenge is not None:
            body.drain()
            return Response(401, headers={"WWW-Authenticate": challenge})
        allowed = False
        for method, pattern, func in self.state.routes:
            m = pattern.fullmatch(path)
            if not m:
                continue
            allowed = True
            if method == req.method:
                return func(req, *m.groups())
        body.drain()
        if allowed:
            raise BoxError(405, "method_not_allowed", "Method Not Allowed")
        raise BoxError(404, "not_found", "Not Found")

    def answer_fault(self, fault):
        headers = dict(fault.get("headers") or {})
        doc = fault.get("body")
        if isinstance(doc, str):
            headers.setdefault("Content-Type", "text/plain")
            resp = Response(fault["status"], None, headers)
            self.answer_raw(resp, doc.encode())
            return
        self.answer(Response(fault["status"], doc, headers))

    def answer_raw(self, resp, data):
        self.record(resp.status, len(data))
        self.stamp_end()
        self.send_response(resp.status)
        for k, v in resp.headers.items():
            self.send_header(k, v)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def control(self, path, raw_query, body):
        try:
            status, doc, stream = self.state.control.handle(self.command, path, raw_query, body)
        except BodyError:
            self.close_connection = True
            return
        except Exception as e:
            traceback.print_exc()
            self.close_connection = True
            status, doc, stream = 500, {"error": "emulator fault: %s" % e}, None
        body.drain()
        if stream is not None:
            self.answer(Response(status, None, {"Content-Type": "application/octet-stream"},
                                 content=stream, offset=0, length=stream.size))
        else:
            self.answer(Response(status, doc))


class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 128

    def handle_error(self, request, client_address):
        exc = sys.exc_info()[1]
        if isinstance(exc, (ConnectionError, ssl.SSLError, socket.timeout, BodyError)):
            return  # clients that go away are part of the tests
        super().handle_error(request, client_address)


class Server6(Server):
    address_family = socket.AF_INET6


def parse_args(argv):
    p = argparse.ArgumentParser(description="Box API emulator for tests")
    p.add_argument("--host", default="127.0.0.1")
    p.add_argument("--port", type=int, default=0)
    p.add_argument("--port-file")
    p.add_argument("--token", action="append",
                   help="accepted bearer token (repeatable; default test-token)")
    p.add_argument("--seed", help="JSON seed file")
    p.add_argument("--tls-cert")
    p.add_argument("--tls-key")
    p.add_argument("--data-dir")
    p.add_argument("--part-size", type=int, default=8 << 20,
                   help="part_size of upload sessions (default 8 MiB)")
    p.add_argument("--min-session-size", type=int, default=20000000,
                   help="smallest file_size accepted for upload sessions")
    p.add_argument("--timezone", default="America/Los_Angeles",
                   help="zone in which times are rendered")
    p.add_argument("--quiet", action="store_true")
    wan.add_arguments(p)
    args = p.parse_args(argv)
    wan.check_arguments(p, args)
    if bool(args.tls_cert) != bool(args.tls_key):
        p.error("--tls-cert and --tls-key go together")
    try:
        loopback = ipaddress.ip_address(args.host).is_loopback
    except ValueError:
        loopback = False
    if not loopback:
        p.error("--host must be a loopback address (127.0.0.1, ::1)")
    if args.part_size < 1:
        p.error("--part-size must be positive")
    return args


def main(argv=None):
    args = parse_args(argv)
    own_data_dir = args.data_dir is None
    if own_data_dir:
        args.data_dir = tempfile.mkdtemp(prefix="box-emulator-")
    else:
        os.makedirs(args.data_dir, exist_ok=True)
    try:
        serve(args)
    finally:
        if own_data_dir:
            shutil.rmtree(args.data_dir, ignore_errors=True)


def serve(args):
    state = State(args)
    Handler.state = state
    if args.seed:
        try:
            with open(args.seed, "rb") as f:
                state.control.seed(json.load(f))
        except (OSError, ValueError, ControlError, BoxError) as e:
            sys.exit("box-emulator: bad seed file %s: %s" % (args.seed, e))
    ctx = None
    if args.tls_cert:
        try:
            ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            ctx.load_cert_chain(args.tls_cert, args.tls_key)
        except (OSError, ssl.SSLError) as e:
            sys.exit("box-emulator: cannot use %s / %s: %s" % (args.tls_cert, args.tls_key, e))
    server_class = Server6 if ":" in args.host else Server
    try:
        server = server_class((args.host, args.port), Handler)
    except OSError as e:
        sys.exit("box-emulator: cannot listen on %s port %d: %s" % (args.host, args.port, e))
    if ctx is not None:
        server.socket = ctx.wrap_socket(server.socket, server_side=True,
                                        do_handshake_on_connect=False)
    state.port = server.server_address[1]
    if args.port_file:
        tmp = args.port_file + ".tmp"
        with open(tmp, "w") as f:
            f.write("%d\n" % state.port)
        os.replace(tmp, args.port_file)
    print("box-emulator listening on %s://%s:%d" % (state.scheme, state.host, state.port),
          flush=True)

    def stop(signum, frame):
        threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    try:
        server.serve_forever(poll_interval=0.2)
    finally:
        server.server_close()
        state.store.reset()


if __name__ == "__main__":
    main()
