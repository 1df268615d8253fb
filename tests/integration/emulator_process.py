"""Starts the Box emulator for Python tests and talks to it over one
keep-alive connection."""

import http.client
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.environ.get("TARVEX_BOX_EMULATOR") or os.path.join(
    HERE, "..", "..", "tools", "box-emulator", "box_emulator.py")
TOKEN = "test-token"


class Emulator:
    def __init__(self, *extra_args):
        self.dir = tempfile.mkdtemp(prefix="box-emulator-test-")
        port_file = os.path.join(self.dir, "port")
        self.proc = subprocess.Popen(
            [sys.executable, SCRIPT, "--port", "0", "--port-file", port_file, "--quiet",
             "--data-dir", os.path.join(self.dir, "data"), *extra_args],
            stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + 20
        while not os.path.exists(port_file):
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.close()
                raise RuntimeError("box emulator did not start")
            time.sleep(0.02)
        with open(port_file) as f:
            self.port = int(f.read())
        self.base = "http://127.0.0.1:%d" % self.port
        self.conn = self.connect()

    def connect(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)

    def close(self):
        if getattr(self, "conn", None) is not None:
            self.conn.close()
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        shutil.rmtree(self.dir, ignore_errors=True)

    def request(self, method, path, body=None, headers=None, token=TOKEN, conn=None):
        """-> (status, headers dict with lower-case names, body bytes)."""
        conn = conn or self.conn
        hdrs = dict(headers or {})
        if token is not None:
            hdrs.setdefault("Authorization", "Bearer " + token)
        if isinstance(body, (dict, list)):
            body = json.dumps(body).encode()
            hdrs.setdefault("Content-Type", "application/json")
        try:
            conn.request(method, path, body=body, headers=hdrs,
                         encode_chunked=hdrs.get("Transfer-Encoding") == "chunked")
            resp = conn.getresponse()
            data = resp.read()
        except (http.client.HTTPException, OSError):
            conn.close()
            raise
        return resp.status, {k.lower(): v for k, v in resp.getheaders()}, data

    def json(self, method, path, body=None, headers=None, token=TOKEN):
        status, hdrs, data = self.request(method, path, body, headers, token)
        return status, (json.loads(data) if data else None), hdrs

    def control(self, method, name, doc=None):
        status, hdrs, data = self.request(method, "/_emulator/" + name,
                                          doc if doc is not None else None, token=None)
        if status != 200:
            raise AssertionError("control %s %s: %d %r" % (method, name, status, data))
        return json.loads(data) if hdrs.get("content-type") == "application/json" else data

    def seed(self, *entries):
        return self.control("POST", "seed", {"entries": list(entries)})["ids"]

    def download(self, file_id, headers=None):
        status, hdrs, _ = self.request("GET", "/2.0/files/%s/content" % file_id)
        assert status == 302, status
        location = hdrs["location"]
        assert location.startswith(self.base), location
        return self.request("GET", location[len(self.base):], headers=headers)


def pattern(offset, length):
    """The emulator's synthetic content: byte i is i % 251."""
    return bytes((offset + i) % 251 for i in range(length))
