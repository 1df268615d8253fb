"""Box end-to-end runs: the Box emulator and tarvex-gridftp-server serving it
through the Box plug-in, both on 127.0.0.1, with helpers for the emulator's
control interface, its view of the whole tree, and the FTP clients.

Run as a program, this file is the credential helper of the token tests:
    box_harness.py creds|renew-creds
prints a credential for the server's --config-command, registering its
token with the emulator first (see CredentialHelper)."""
import base64
import contextlib
import ftplib
import hashlib
import http.client
import io
import json
import os
import pwd
import shlex
import shutil
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from urllib.parse import quote, urlencode

from server_harness import LIBDIR, SERVER, Server, make_tls_files, sha256_file, write_random

HERE = os.path.dirname(os.path.abspath(__file__))
EMULATOR = os.environ.get("TARVEX_BOX_EMULATOR") or os.path.join(
    HERE, "..", "..", "tools", "box-emulator", "box_emulator.py")
HOME_PRELOAD = os.environ.get("TARVEX_E2E_HOME_PRELOAD", "")
BOX_CREDENTIAL = os.environ.get("TARVEX_BOX_CREDENTIAL", "")
TOKEN = "test-token"
MIB = 1 << 20
# Announced sizes above this take the plug-in's chunked upload.
CHUNKED_MINIMUM = 52428800

# What the server's log shows when a session process did not end on its own
# terms: killed by a signal, or stopped by a sanitizer.
CRASH_SIGNS = ("ended by signal", "ERROR: AddressSanitizer", "runtime error:",
               "ERROR: LeakSanitizer")


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def b64(data):
    return base64.b64encode(data).decode()


def pattern(size):
    """The emulator's synthetic content of a seeded "size": byte i is i % 251."""
    block = bytes(i % 251 for i in range(251 * 4096))
    return (block * (size // len(block) + 1))[:size]


def reply_of(call, *args):
    """The reply text of an ftplib call, error replies included."""
    try:
        return call(*args)
    except ftplib.Error as e:
        return str(e)


def tear_down(sock):
    """Ends a connection with a TCP reset: the peer sees no end of data."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def run(args, timeout=180, **kw):
    return subprocess.run(args, capture_output=True, text=True, timeout=timeout, **kw)


def wait_for(condition, what, timeout=30.0, step=0.05):
    """Polls `condition` until it returns a true value, which is returned."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(step)


@contextlib.contextmanager
def environment(changes):
    """os.environ with `changes` (None removes a variable) for the block:
    the server process takes its environment from here when it starts."""
    saved = {k: os.environ.get(k) for k in changes}
    try:
        for k, v in changes.items():
            if v is None:
                os.environ.pop(k, None)
            else:
                os.environ[k] = v
        yield
    finally:
        for k, v in saved.items():
            if v is None:
                os.environ.pop(k, None)
            else:
                os.environ[k] = v


class Emulator:
    """One Box emulator process and its control interface."""

    def __init__(self, part_size=None, https=False, extra=()):
        self.tmp = tempfile.mkdtemp(prefix="tarvex-e2e-box-")
        self.ca = None
        port_file = os.path.join(self.tmp, "port")
        args = [sys.executable, EMULATOR, "--host", "127.0.0.1", "--port", "0",
                "--port-file", port_file, "--quiet", "--data-dir", os.path.join(self.tmp, "data")]
        if part_size:
            args += ["--part-size", str(part_size)]
        if https:
            self.ca, cert, key = make_tls_files(self.tmp)
            args += ["--tls-cert", cert, "--tls-key", key]
        self.log_path = os.path.join(self.tmp, "emulator.log")
        self._log = open(self.log_path, "wb")
        self.proc = subprocess.Popen(args + list(extra), stdout=self._log,
                                     stderr=subprocess.STDOUT)
        try:
            wait_for(lambda: self.proc.poll() is not None or os.path.exists(port_file),
                     "the Box emulator to listen")
            if self.proc.poll() is not None:
                raise RuntimeError("the Box emulator exited: " + self.read_log())
        except BaseException:
            self.stop()
            raise
        with open(port_file) as f:
            self.port = int(f.read())
        self.base = "%s://127.0.0.1:%d" % ("https" if https else "http", self.port)
        self._conn = None

    def read_log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def stop(self):
        if self._conn is not None:
            self._conn.close()
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self._log.close()
        shutil.rmtree(self.tmp, ignore_errors=True)

    # -- control interface ------------------------------------------------

    def _connection(self):
        if self._conn is None:
            if self.ca:
                ctx = ssl.create_default_context(cafile=self.ca)
                self._conn = http.client.HTTPSConnection("127.0.0.1", self.port, timeout=60,
                                                         context=ctx)
            else:
                self._conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        return self._conn

    def control(self, method, name, doc=None, query=""):
        """A control request; its JSON answer (bytes for content)."""
        body = None if doc is None else json.dumps(doc).encode()
        path = "/_emulator/" + name + ("?" + query if query else "")
        conn = self._connection()
        try:
            conn.request(method, path, body=body, headers={"Content-Type": "application/json"})
            resp = conn.getresponse()
            data = resp.read()
        except (http.client.HTTPException, OSError):
            conn.close()
            self._conn = None
            raise
        if resp.status != 200:
            raise AssertionError("emulator %s %s: %d %r" % (method, name, resp.status, data))
        if resp.getheader("Content-Type") == "application/json":
            return json.loads(data)
        return data

    def reset(self):
        self.control("POST", "reset")

    def seed(self, *entries):
        """Entries as the seed request takes them; returns path -> Box id."""
        return self.control("POST", "seed", {"entries": list(entries)})["ids"]

    def fault(self, *faults):
        self.control("POST", "faults", list(faults))

    def clear_faults(self):
        self.control("DELETE", "faults")

    def log(self):
        return self.control("GET", "log")

    def clear_log(self):
        self.control("DELETE", "log")

    def concurrency(self, method, path_regex):
        """{"peak","open","count"}: the requests with this method and a
        path the regex finds, the most open at once, open now, in all."""
        return self.control("GET", "concurrency",
                            query=urlencode({"method": method, "path_regex": path_regex}))

    def item(self, path):
        return self.control("GET", "item", query="path=" + quote(path, safe="/"))

    def content(self, path):
        return self.control("GET", "content", query="path=" + quote(path, safe="/"))

    def tokens(self, doc):
        return self.control("POST", "tokens", doc)

    def commit_pending(self, count, retry_after=1):
        self.control("POST", "commit_pending", {"count": count, "retry_after": retry_after})

    def config(self, **settings):
        return self.control("POST", "config", settings)

    def tree(self):
        """Every item: [{"path","type","size","sha1","tarvex-md5"}]."""
        return self.control("GET", "tree")

    def files(self):
        """path -> "folder" or the SHA-256 of the file's stored bytes: what
        a client's view is compared with."""
        out = {}
        for e in self.tree():
            out[e["path"]] = "folder" if e["type"] == "folder" else \
                sha256(self.content(e["path"]))
        return out


class CredentialHelper:
    """The credential helper's side in the tests: the server runs
    `box_harness.py creds` and `box_harness.py renew-creds` with these
    settings in its environment.  Each call registers a new token with the
    emulator (valid for `emulator_lifetime` seconds, None: forever), prints
    a credential that expires `lifetime` seconds from now, and appends a
    line to the calls file."""

    def __init__(self, emulator, folder, lifetime, emulator_lifetime=None,
                 renew_lifetime=24 * 3600):
        self.calls = os.path.join(folder, "credential-calls")
        self.env = {
            "TARVEX_E2E_EMULATOR_PORT": str(emulator.port),
            "TARVEX_E2E_EMULATOR_CA": emulator.ca or "",
            "TARVEX_E2E_CREDS_CALLS": self.calls,
            "TARVEX_E2E_CREDS_LIFETIME": str(lifetime),
            "TARVEX_E2E_CREDS_RENEW_LIFETIME": str(renew_lifetime),
            "TARVEX_E2E_CREDS_EMULATOR_LIFETIME":
                "" if emulator_lifetime is None else str(emulator_lifetime),
        }
        # The server's preloads (the sanitizer runtime among them) are for
        # the server: the helper runs without them.
        command = "env -u LD_PRELOAD %s %s" % (sys.executable, os.path.abspath(__file__))
        self.args = ["--config-command", "creds=%s creds" % command,
                     "--config-command", "renew-creds=%s renew-creds" % command]

    def call_log(self):
        """[(key, token)] in the order the server asked."""
        if not os.path.exists(self.calls):
            return []
        with open(self.calls) as f:
            return [tuple(line.split()) for line in f if line.strip()]


class BoxCredentialTool(CredentialHelper):
    """tarvex-box-credential as the server's creds and renew-creds commands
    (`tool.args` and `tool.env` go to BoxServer as `creds`), keeping its
    state under `folder` and asking the emulator's token endpoint and API,
    TLS verified with the emulator's CA.  Every call the server makes is
    noted in the calls file first: call_log() gives [("creds",), ...].
    A CredentialHelper, so that BoxServer hands the server its commands."""

    def __init__(self, emulator, folder):
        self.emulator = emulator
        self.state_dir = os.path.join(folder, "credential-state")
        self.calls = os.path.join(folder, "credential-calls")
        self.settings = ["--state-dir", self.state_dir,
                         "--token-url", emulator.base + "/oauth2/token",
                         "--api-base", emulator.base]
        self.env = {}
        # The server's preloads (the sanitizer runtime among them) are for
        # the server: the helper runs without them.
        helper = " ".join(shlex.quote(a) for a in [BOX_CREDENTIAL] + self.settings)
        self.args = []
        for key, flags in (("creds", ""), ("renew-creds", "--renew ")):
            command = 'echo %s >> %s; env -u LD_PRELOAD %s %s"$TARVEX_USER"' % (
                key, shlex.quote(self.calls), helper, flags)
            self.args += ["--config-command", key + "=" + command]

    def run(self, *args):
        env = dict(os.environ, TARVEX_DSI_REST_CA_FILE=self.emulator.ca or "")
        env.pop("LD_PRELOAD", None)
        return run([BOX_CREDENTIAL] + self.settings + list(args), timeout=60, env=env)

    def enrol(self, user, client_file, refresh_token):
        env = dict(os.environ, TARVEX_DSI_REST_CA_FILE=self.emulator.ca or "")
        env.pop("LD_PRELOAD", None)
        account = pwd.getpwuid(os.geteuid()).pw_name   # the server's, in the tests
        r = run([BOX_CREDENTIAL] + self.settings + ["--enrol", user, "--account", account,
                                                    "--client", client_file,
                                                    "--refresh-token-file", "-"],
                timeout=60, env=env, input=refresh_token + "\n")
        if r.returncode != 0:
            raise AssertionError("enrolment failed: " + r.stderr)
        return r

    def stored(self, user):
        with open(os.path.join(self.state_dir, user, "credential.json")) as f:
            return json.load(f)


def expiry_text(epoch):
    """The credential's date form: 2030-01-01T00:00:00.000000+00:00."""
    return time.strftime("%Y-%m-%dT%H:%M:%S.000000+00:00", time.gmtime(epoch))


def credential(token, expires_at, max_upload=1 << 40):
    return json.dumps({"access_token": token, "token_expiry": expiry_text(expires_at),
                       "sub": "e2e-user", "max_upload": max_upload})


def credential_helper_main(key):
    env = os.environ
    lifetime = float(env["TARVEX_E2E_CREDS_LIFETIME" if key == "creds"
                         else "TARVEX_E2E_CREDS_RENEW_LIFETIME"])
    calls = env["TARVEX_E2E_CREDS_CALLS"]
    made = 0
    if os.path.exists(calls):
        with open(calls) as f:
            made = sum(1 for line in f if line.strip())
    token = "e2e-token-%d" % (made + 1)
    with open(calls, "a") as f:
        f.write("%s %s\n" % (key, token))
    emu_lifetime = env.get("TARVEX_E2E_CREDS_EMULATOR_LIFETIME") or None
    ca = env.get("TARVEX_E2E_EMULATOR_CA")
    port = int(env["TARVEX_E2E_EMULATOR_PORT"])
    if ca:
        conn = http.client.HTTPSConnection("127.0.0.1", port, timeout=30,
                                           context=ssl.create_default_context(cafile=ca))
    else:
        conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    doc = {"token": token,
           "expires_in": None if emu_lifetime is None or key != "creds" else float(emu_lifetime)}
    conn.request("POST", "/_emulator/tokens", body=json.dumps(doc).encode(),
                 headers={"Content-Type": "application/json"})
    if conn.getresponse().status != 200:
        sys.exit("the emulator refused the token")
    sys.stdout.write(credential(token, time.time() + lifetime))


class BoxServer(Server):
    """tarvex-gridftp-server --dsi box against `emulator`, with a home
    folder of its own (the plug-in's pacing files live there)."""

    def __init__(self, emulator, tls=False, policy=None, creds=None, extra=(), env=None,
                 passwd=None):
        self.work = tempfile.mkdtemp(prefix="tarvex-e2e-boxserver-")
        self.home = os.path.join(self.work, "home")
        os.mkdir(self.home)
        policy_file = os.path.join(self.work, "policy.json")
        with open(policy_file, "w") as f:
            json.dump(policy if policy is not None else {"user_api_rate_limit": 100}, f)
        args = ["--config-file", "config=" + policy_file]
        if isinstance(creds, CredentialHelper):
            args += creds.args
        else:
            creds_file = os.path.join(self.work, "creds.json")
            with open(creds_file, "w") as f:
                f.write(creds if creds is not None
                        else credential(TOKEN, time.time() + 86400 * 365))
            args += ["--config-file", "creds=" + creds_file]
        changes = {"TARVEX_BOX_API_BASE": emulator.base, "TARVEX_BOX_UPLOAD_BASE": emulator.base,
                   "TARVEX_DSI_REST_CA_FILE": emulator.ca, "HOME": self.home,
                   "TARVEX_TEST_HOME": self.home, "LD_PRELOAD": _preload(SERVER)}
        if isinstance(creds, CredentialHelper):
            changes.update(creds.env)
        changes.update(env or {})
        try:
            with environment(changes):
                super().__init__(tls=tls, config_file=False, dsi="box", extra=args + list(extra),
                                 passwd=passwd)
        except BaseException:
            shutil.rmtree(self.work, ignore_errors=True)
            raise

    def stop(self):
        super().stop()
        shutil.rmtree(self.work, ignore_errors=True)


def _preload(program):
    """LD_PRELOAD for the server: the home shim, after the sanitizer
    runtime when the program has one (it must come first)."""
    if not HOME_PRELOAD or not os.path.exists(HOME_PRELOAD):
        return None
    libs = [HOME_PRELOAD]
    r = run(["ldd", program], timeout=30)
    for line in r.stdout.splitlines():
        parts = line.split()
        if parts and parts[0].startswith("libasan.so") and len(parts) >= 3:
            libs.insert(0, parts[2])
    return " ".join(libs)


class BoxTest(unittest.TestCase):
    """One emulator and one server per class; the emulator's account is
    emptied before each test, and every test logs in afresh."""
    part_size = None        # the emulator's upload part size
    https = False           # the emulator over HTTPS
    tls = False             # FTP explicit TLS (FTPS)
    server_extra = ()

    @classmethod
    def setUpClass(cls):
        if not SERVER or not os.path.exists(SERVER):
            raise unittest.SkipTest("TARVEX_SERVER_BIN not set")
        plugin = os.path.join(LIBDIR, "libtarvex_gridftp_server_box.so")
        if not LIBDIR or not os.path.exists(plugin):
            raise unittest.SkipTest("the Box plug-in is not built")
        cls.work = tempfile.mkdtemp(prefix="tarvex-e2e-boxclient-")
        cls.emu = Emulator(part_size=cls.part_size, https=cls.https)
        try:
            cls.server = cls.start_server()
        except BaseException:
            cls.emu.stop()
            raise

    @classmethod
    def start_server(cls, extra=(), **kw):
        return BoxServer(cls.emu, tls=cls.tls, extra=list(cls.server_extra) + list(extra), **kw)

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()
        cls.emu.stop()
        shutil.rmtree(cls.work, ignore_errors=True)

    def setUp(self):
        self.emu.reset()

    def tearDown(self):
        self.assertTrue(self.server.alive(), "the server died:\n" + self.server.read_log())
        log = self.server.read_log()
        for sign in CRASH_SIGNS:
            self.assertNotIn(sign, log, "a session did not end cleanly" + self.diagnostics())

    def diagnostics(self):
        return "\n--- server log:\n" + self.server.read_log()[-6000:]

    # -- clients ----------------------------------------------------------

    def ftp(self):
        return self.server.ftp(tls=self.tls)

    def curl_args(self, *args, server=None):
        server = server or self.server
        base = ["curl", "-sS", "--user", "anonymous:x", "--max-time", "120"]
        if self.tls:
            base += ["--ssl-reqd", "--cacert", server.ca]
        return base + list(args)

    def curl(self, *args, ok=True, server=None):
        r = run(self.curl_args(*args, server=server))
        if ok:
            self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        return r

    def lftp_args(self, script, server=None):
        server = server or self.server
        pre = ("set net:max-retries 1; set net:timeout 30; set net:reconnect-interval-base 1; "
               "set cmd:fail-exit true; set xfer:clobber on; ")
        if self.tls:
            pre += ("set ftp:ssl-force true; set ftp:ssl-protect-data true; "
                    "set ssl:ca-file %s; set ssl:check-hostname no; " % server.ca)
        else:
            pre += "set ftp:ssl-allow false; "
        return ["lftp", "-u", "anonymous,x", "-p", str(server.port), "-e",
                pre + script + "; quit", "127.0.0.1"]

    def lftp(self, script, ok=True, server=None):
        r = run(self.lftp_args(script, server), cwd=self.work)
        if ok:
            self.assertEqual(r.returncode, 0, r.stdout + r.stderr + self.diagnostics())
        return r

    def local(self, *parts):
        return os.path.join(self.work, *parts)

    def local_file(self, name, size, seed=0):
        path = self.local(name)
        write_random(path, size, seed=seed)
        return path

    # -- the emulator's view ------------------------------------------------

    def assertFiles(self, expected, where=""):
        """The emulator holds exactly `expected`: path -> "folder", or the
        file's bytes, or the SHA-256 of its bytes."""
        want = {p: v if v == "folder" or isinstance(v, str) else sha256(v)
                for p, v in expected.items()}
        self.assertEqual(self.emu.files(), want, where)

    def requests(self, method=None, path_part=""):
        return [e for e in self.emu.log()
                if (method is None or e["method"] == method) and path_part in e["path"]]

    def part_puts(self, status=200):
        """The upload parts Box answered with `status` (None: all)."""
        return [e for e in self.requests("PUT", "/upload_sessions/")
                if status is None or e["status"] == status]

    def paths(self):
        return {e["path"] for e in self.emu.tree()}

    def md5_property(self, path):
        return {e["path"]: e["tarvex-md5"] for e in self.emu.tree()}[path]

    def store(self, f, path, data, allo=True):
        """STOR through ftplib, announced with ALLO; the reply text."""
        if allo:
            f.sendcmd("ALLO %d" % len(data))
        return reply_of(f.storbinary, "STOR " + path, io.BytesIO(data), 256 * 1024)


if __name__ == "__main__":
    credential_helper_main(sys.argv[1])
