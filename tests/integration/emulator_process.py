"""Starts the Box emulator for Python tests and talks to it over one
keep-alive connection; builds request bodies as the plug-in sends them."""

import base64
import hashlib
import http.client
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPT = os.environ.get("TARVEX_BOX_EMULATOR") or os.path.join(
    HERE, "..", "..", "tools", "box-emulator", "box_emulator.py")
TOKEN = "test-token"
PART = 1000
with open(os.path.join(HERE, "box_requests.json")) as f:
    REQUESTS = json.load(f)["requests"]


class Emulator:
    def __init__(self, *extra_args):
        self.dir = tempfile.mkdtemp(prefix="box-emulator-test-")
        port_file = os.path.join(self.dir, "port")
        self.proc = subprocess.Popen(
            [sys.executable, SCRIPT, "--port", "0", "--port-file", port_file, "--quiet",
             "--data-dir", os.path.join(self.dir, "data"), *extra_args],
            stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + 120   # a guard against a hang only
        while not os.path.exists(port_file):
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.close()
                raise RuntimeError("box emulator did not start")
            time.sleep(0.02)
        with open(port_file) as f:
            self.port = int(f.read())
        self.base = "http://127.0.0.1:%d" % self.port
        self.conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)

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

    def request(self, method, path, body=None, headers=None, token=TOKEN):
        """-> (status, headers dict with lower-case names, body bytes)."""
        hdrs = dict(headers or {})
        if token is not None:
            hdrs.setdefault("Authorization", "Bearer " + token)
        if isinstance(body, (dict, list)):
            body = json.dumps(body).encode()
            hdrs.setdefault("Content-Type", "application/json")
        try:
            self.conn.request(method, path, body=body, headers=hdrs,
                              encode_chunked=hdrs.get("Transfer-Encoding") == "chunked")
            resp = self.conn.getresponse()
            data = resp.read()
        except (http.client.HTTPException, OSError):
            self.conn.close()   # the next request opens a fresh connection
            raise
        return resp.status, {k.lower(): v for k, v in resp.getheaders()}, data

    def json(self, method, path, body=None, headers=None, token=TOKEN):
        status, hdrs, data = self.request(method, path, body, headers, token)
        return status, (json.loads(data) if data else None), hdrs

    def control(self, method, name, doc=None):
        status, hdrs, data = self.request(method, "/_emulator/" + name, doc, token=None)
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


class EmulatorCase(unittest.TestCase):
    """One emulator per test class, emptied before each test."""

    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator("--part-size", str(PART), "--min-session-size", "0")

    @classmethod
    def tearDownClass(cls):
        cls.emu.close()

    def setUp(self):
        self.emu.control("POST", "reset")


def wait_for(condition, timeout=60.0, interval=0.02):
    """Polls condition() until it gives a true value, which is returned;
    AssertionError after `timeout` seconds (a deadline far beyond what the
    condition needs, so that only a broken test meets it)."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("condition not met within %g s" % timeout)
        time.sleep(interval)


def pattern(offset, length):
    """The emulator's synthetic content: byte i is i % 251."""
    return bytes((offset + i) % 251 for i in range(length))


def digest(data):
    return "sha=" + base64.b64encode(hashlib.sha1(data).digest()).decode()


def upload_body(name, parent, data, boundary="tarvex_b", modified=None, file_first=False,
                field="file"):
    """A multipart upload (attributes, then the file in a part named
    `field`) and its headers; no parent (None) for a new version of a
    file."""
    attrs = {"name": name}
    if parent is not None:
        attrs["parent"] = {"id": parent}
    if modified:
        attrs["content_modified_at"] = modified
    parts = [(b'name="attributes"', json.dumps(attrs).encode()),
             (b'name="%s"; filename="%s"\r\nContent-Type: application/octet-stream'
              % (field.encode(), name.encode()), data)]
    if file_first:
        parts.reverse()
    b = boundary.encode()
    body = b"".join(b"--%s\r\nContent-Disposition: form-data; %s\r\n\r\n%s\r\n" % (b, d, v)
                    for d, v in parts)
    return body + b"--%s--\r\n" % b, {"Content-Type": "multipart/form-data; boundary=" + boundary}
