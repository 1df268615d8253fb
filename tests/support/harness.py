"""The one way every Python test starts the Box emulator and
tarvex-gridftp-server (a build's or an installed one), on 127.0.0.1, and the
helpers around them: the emulator's API and control interface, the FTP
clients, the credential helpers, and the base classes of the end-to-end
suites (ServerTest: the posix plug-in; BoxTest: the Box plug-in against the
emulator)."""
import base64
import ftplib
import hashlib
import http.client
import io
import json
import os
import pwd
import re
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

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.normpath(os.path.join(HERE, "..", ".."))
SERVER = os.environ.get("TARVEX_SERVER_BIN", "")
LIBDIR = os.environ.get("TARVEX_LIB_DIR", "")
EMULATOR = os.environ.get("TARVEX_BOX_EMULATOR") or os.path.join(
    SOURCE, "tools", "box-emulator", "box_emulator.py")
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


def run(args, timeout=180, **kw):
    return subprocess.run(args, capture_output=True, text=True, timeout=timeout, **kw)


def wait_for(condition, what="a condition", timeout=60.0, step=0.05):
    """Polls `condition` until it returns a true value, which is returned;
    the deadline is far beyond what the condition needs, for a broken test."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)
        time.sleep(step)


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def sha256_file(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def pattern(length, offset=0):
    """The emulator's synthetic content of a seeded "size": byte i is i % 251."""
    block = bytes(i % 251 for i in range(251 * 4096))
    start = offset % 251
    return (block * ((start + length) // len(block) + 1))[start:start + length]


def write_random(path, size, seed=0):
    """Pseudo-random bytes (different per seed) without reading /dev/urandom
    for every test: a SHA-256 counter stream."""
    with open(path, "wb") as f:
        i = 0
        while size > 0:
            block = b"".join(hashlib.sha256(b"%d:%d" % (seed, i + k)).digest()
                             for k in range(2048))
            i += 2048
            f.write(block[:size])
            size -= min(size, len(block))


def make_hash(password):
    """A SHA-512 crypt(3) hash made with the openssl command."""
    return run(["openssl", "passwd", "-6", password], check=True).stdout.strip()


def make_tls_files(folder):
    """A test CA and a server certificate for 127.0.0.1, with the openssl CLI."""
    def openssl(*args):
        subprocess.run(("openssl",) + args, check=True, cwd=folder, capture_output=True)
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key",
            "-out", "ca.pem", "-days", "2", "-subj", "/CN=tarvex test CA")
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", "server.key",
            "-out", "server.csr", "-subj", "/CN=localhost")
    with open(os.path.join(folder, "ext"), "w") as f:
        f.write("subjectAltName=DNS:localhost,IP:127.0.0.1\n")
    openssl("x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
            "-CAcreateserial", "-out", "server.pem", "-days", "2", "-extfile", "ext")
    return tuple(os.path.join(folder, n) for n in ("ca.pem", "server.pem", "server.key"))


def reply_of(call, *args):
    """The reply text of an ftplib call, error replies included."""
    try:
        return call(*args)
    except ftplib.Error as e:
        return str(e)


def login_cut_at_deadline(test, port, user):
    """A login the server cuts at its login deadline: 421, then the end."""
    f = ftplib.FTP(timeout=60)
    f.connect("127.0.0.1", port)
    test.assertRaisesRegex(ftplib.error_temp, "^421 Login time exceeded", f.login, user, "x")
    test.assertRaises(EOFError, f.getresp)
    f.close()


def tear_down(sock):
    """Ends a connection with a TCP reset: the peer sees no end of data."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def port_in(path):
    """The port a program wrote to the file `path`; None until it has."""
    if not os.path.exists(path):
        return None
    with open(path) as f:
        text = f.read().strip()
    return int(text) if text.isdigit() else None


class Process:
    """A program started in a scratch folder of its own that writes its
    port to a file once it listens; its output goes to a log."""

    def start(self, args, what, env=None):
        self.log_path = os.path.join(self.tmp, what.replace(" ", "-") + ".log")
        port_file = os.path.join(self.tmp, "port")
        self._log = open(self.log_path, "wb")
        self.proc = subprocess.Popen(list(args) + ["--port-file", port_file], env=env,
                                     stdout=self._log, stderr=subprocess.STDOUT)

        def port():
            if self.proc.poll() is not None:
                raise RuntimeError(what + " exited:\n" + self.read_log())
            return port_in(port_file)
        try:
            self.port = wait_for(port, what + " to listen", timeout=120)
        except BaseException:
            self.stop()
            raise

    def read_log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def alive(self):
        return self.proc.poll() is None

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self._log.close()
        shutil.rmtree(self.tmp, ignore_errors=True)


class Emulator(Process):
    """One Box emulator process, its API and its control interface over one
    kept-alive connection."""

    def __init__(self, *extra, https=False):
        self.tmp = tempfile.mkdtemp(prefix="tarvex-box-emulator-")
        self.ca = None
        self.conn = None
        args = [sys.executable, EMULATOR, "--host", "127.0.0.1", "--port", "0", "--quiet",
                "--data-dir", os.path.join(self.tmp, "data")] + list(extra)
        if https:
            self.ca, cert, key = make_tls_files(self.tmp)
            args += ["--tls-cert", cert, "--tls-key", key]
        self.start(args, "the Box emulator")
        self.base = "%s://127.0.0.1:%d" % ("https" if https else "http", self.port)

    def stop(self):
        if self.conn is not None:
            self.conn.close()
        super().stop()

    def request(self, method, path, body=None, headers=None, token=TOKEN):
        """-> (status, headers dict with lower-case names, body bytes)."""
        hdrs = dict(headers or {})
        if token is not None:
            hdrs.setdefault("Authorization", "Bearer " + token)
        if isinstance(body, (dict, list)):
            body = json.dumps(body).encode()
            hdrs.setdefault("Content-Type", "application/json")
        if self.conn is None:
            self.conn = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60) \
                if self.ca is None else http.client.HTTPSConnection(
                    "127.0.0.1", self.port, timeout=60,
                    context=ssl.create_default_context(cafile=self.ca))
        try:
            self.conn.request(method, path, body=body, headers=hdrs,
                              encode_chunked=hdrs.get("Transfer-Encoding") == "chunked")
            resp = self.conn.getresponse()
            data = resp.read()
        except (http.client.HTTPException, OSError):
            self.conn.close()   # the next request opens a fresh connection
            self.conn = None
            raise
        return resp.status, {k.lower(): v for k, v in resp.getheaders()}, data

    def json(self, method, path, body=None, headers=None, token=TOKEN):
        status, hdrs, data = self.request(method, path, body, headers, token)
        return status, (json.loads(data) if data else None), hdrs

    # -- control interface ------------------------------------------------

    def control(self, method, name, doc=None, query=""):
        """A control request; its JSON answer (bytes for content)."""
        path = "/_emulator/" + name + ("?" + query if query else "")
        status, hdrs, data = self.request(method, path, doc, token=None)
        if status != 200:
            raise AssertionError("emulator %s %s: %d %r" % (method, name, status, data))
        return json.loads(data) if hdrs.get("content-type") == "application/json" else data

    def reset(self):
        self.control("POST", "reset")

    def seed(self, *entries):
        """Entries as the seed request takes them; returns path -> Box id."""
        return self.control("POST", "seed", {"entries": list(entries)})["ids"]

    def fault(self, *faults):
        self.control("POST", "faults", list(faults))

    def log(self):
        return self.control("GET", "log")

    def concurrency(self, method, path_regex):
        """{"peak","open","count"}: the requests with this method and a
        path the regex finds, the most open at once, open now, in all."""
        return self.control("GET", "concurrency",
                            query=urlencode({"method": method, "path_regex": path_regex}))

    def content(self, path):
        return self.control("GET", "content", query="path=" + quote(path, safe="/"))

    def config(self, **settings):
        return self.control("POST", "config", settings)

    def tree(self):
        """Every item: [{"path","type","size","sha1","tarvex-md5"}]."""
        return self.control("GET", "tree")

    def files(self):
        """path -> "folder" or the SHA-256 of the file's stored bytes: what
        a client's view is compared with."""
        return {e["path"]: "folder" if e["type"] == "folder" else sha256(self.content(e["path"]))
                for e in self.tree()}


class EmulatorCase(unittest.TestCase):
    """One emulator per test class (parts of `PART` bytes, upload sessions
    for any size), emptied before each test."""
    PART = 1000

    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator("--part-size", str(cls.PART), "--min-session-size", "0")

    @classmethod
    def tearDownClass(cls):
        cls.emu.stop()

    def setUp(self):
        self.emu.reset()


def digest(data):
    """The digest header of a part or a commit: the SHA-1 in base64."""
    return "sha=" + base64.b64encode(hashlib.sha1(data).digest()).decode()


def upload_body(name, parent, data, boundary="tarvex_b"):
    """A multipart upload (attributes, then the file) and its headers; no
    parent (None) for a new version of a file."""
    attrs = {"name": name}
    if parent is not None:
        attrs["parent"] = {"id": parent}
    parts = [(b'name="attributes"', json.dumps(attrs).encode()),
             (b'name="file"; filename="%s"\r\nContent-Type: application/octet-stream'
              % name.encode(), data)]
    b = boundary.encode()
    body = b"".join(b"--%s\r\nContent-Disposition: form-data; %s\r\n\r\n%s\r\n" % (b, d, v)
                    for d, v in parts)
    return body + b"--%s--\r\n" % b, {"Content-Type": "multipart/form-data; boundary=" + boundary}


class ResumingFTP_TLS(ftplib.FTP_TLS):
    """ftplib over TLS whose data connections resume the control
    connection's TLS session, as the server requires (and curl, lftp and
    wget do by themselves); plain FTP_TLS starts a new session on each."""

    def ntransfercmd(self, cmd, rest=None):
        conn, size = ftplib.FTP.ntransfercmd(self, cmd, rest)
        if self._prot_p:
            conn = self.context.wrap_socket(conn, server_hostname=self.host,
                                            session=self.sock.session)
        return conn, size


class Server(Process):
    """One tarvex-gridftp-server (`program`) on 127.0.0.1.  `extra` adds
    command-line options; `env` is the whole environment (None: ours)."""

    def __init__(self, tls=False, require_tls=False, passwd=None, extra=(), root=None,
                 config_file=True, dsi="posix", program=None, dsi_path=None, env=None):
        self.tmp = tempfile.mkdtemp(prefix="tarvex-server-")
        self.root = root or os.path.join(self.tmp, "root")
        os.makedirs(self.root, exist_ok=True)
        self.ca = None
        args = [program or SERVER, "--port", "0", "--bind", "127.0.0.1", "--foreground"]
        if dsi:
            args += ["--dsi", dsi]
        if config_file:
            config = os.path.join(self.tmp, "config.json")
            with open(config, "w") as f:
                json.dump({"root": self.root}, f)
            args += ["--config-file", "config=" + config]
        if dsi_path or (program is None and LIBDIR):
            args += ["--dsi-path", dsi_path or LIBDIR]
        if passwd is not None:
            path = os.path.join(self.tmp, "passwd")
            with open(path, "w") as f:
                f.write(passwd)
            args += ["--passwd", path]
        else:
            args += ["--anonymous-map"]
        if tls or require_tls:
            self.ca, cert, key = make_tls_files(self.tmp)
            args += ["--tls-cert", cert, "--tls-key", key]
        if require_tls:
            args += ["--require-tls"]
        self.start(args + list(extra), "server", env)

    def url(self, path="/", user=None):
        auth = (user + "@") if user else ""
        return "ftp://%s127.0.0.1:%d%s" % (auth, self.port, path)

    def ftp(self, user="anonymous", password="x", tls=False, context=None):
        """A login; over TLS (PROT P) when `tls` or a TLS `context` is given."""
        if tls or context is not None:
            context = context or ssl.create_default_context(cafile=self.ca)
            f = ResumingFTP_TLS(context=context, timeout=30)
            f.connect("127.0.0.1", self.port)
            f.auth()
            f.login(user, password)
            f.prot_p()
        else:
            f = ftplib.FTP(timeout=30)
            f.connect("127.0.0.1", self.port)
            f.login(user, password)
        return f


def session_pids(server, text):
    """The pids of the session processes that logged `text` (say "alice
    logged in"), oldest first."""
    return [int(p) for p in re.findall(r"\[(\d+)\]: " + re.escape(text), server.read_log())]


def process_gone(pid):
    """True once `pid` has exited (a zombie waiting for its parent counts)."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] in ("Z", "X")
    except OSError:
        return True


def own_server(test, **kw):
    """A server of `test`'s own (Server's arguments), stopped when the test
    ends; the test is skipped when no server was built."""
    if not SERVER:
        raise unittest.SkipTest("TARVEX_SERVER_BIN not set")
    server = Server(**kw)
    test.addCleanup(server.stop)
    return server


class ServerTest(unittest.TestCase):
    """One server with the posix plug-in per class."""
    server_args = {}

    @classmethod
    def setUpClass(cls):
        if not SERVER or not os.path.exists(SERVER):
            raise unittest.SkipTest("TARVEX_SERVER_BIN not set")
        cls.server = Server(**cls.server_args)

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def tearDown(self):
        self.assertTrue(self.server.alive(), "the server died:\n" + self.server.read_log())

    def local(self, *parts):
        return os.path.join(self.server.root, *parts)

    def walk(self, steps):
        """Sends each (command, reply pattern) of `steps` on the test's
        login `self.f`; the reply, or the refusal, must match."""
        for cmd, want in steps:
            try:
                reply = self.f.sendcmd(cmd)
            except ftplib.Error as e:
                reply = str(e)
            self.assertRegex(reply, "^" + want, cmd)


# -- credentials -------------------------------------------------------------

class BoxCredentialTool:
    """tarvex-box-credential (`program`) as the server's creds and
    renew-creds commands (`args` for it), keeping its state under `folder`
    and asking the emulator's token endpoint and API, TLS verified with the
    emulator's CA.  Every call the server makes is noted in a calls file
    before it runs."""
    client = {"client_id": "e2e-app", "client_secret": "e2e-app-secret-5f1c"}
    first_refresh_token = "r-e2e-first"

    def __init__(self, emulator, folder, program=None):
        self.emulator = emulator
        self.program = program or BOX_CREDENTIAL
        self.state_dir = os.path.join(folder, "credential-state")
        self.settings = ["--state-dir", self.state_dir,
                         "--token-url", emulator.base + "/oauth2/token",
                         "--api-base", emulator.base]
        helper = " ".join(shlex.quote(a) for a in [self.program] + self.settings)
        self.calls = os.path.join(folder, "credential-calls")
        self.args = []
        command = '%s=echo %s >> %s; env -u LD_PRELOAD %s %s"$TARVEX_USER"'
        for key, renew in (("creds", ""), ("renew-creds", "--renew ")):
            self.args += ["--config-command",
                          command % (key, key, shlex.quote(self.calls), helper, renew)]

    def call_log(self):
        """The keys the server asked for, in order."""
        if not os.path.exists(self.calls):
            return []
        with open(self.calls) as f:
            return f.read().split()

    def enrol_new_user(self, user, first_lifetime=None, env=None):
        """Makes the application and a Box user on the emulator, then
        enrols `user` with a refresh token of theirs; the first access
        token lasts `first_lifetime` seconds (None: the emulator's hour)."""
        self.emulator.control("POST", "oauth", {
            "clients": [self.client], "users": [{"id": "4242", "max_upload_size": 1 << 30}],
            "refresh_tokens": [{"refresh_token": self.first_refresh_token,
                                "client_id": self.client["client_id"], "user_id": "4242"}],
            "next_lifetimes": [first_lifetime] if first_lifetime else []})
        client_file = os.path.join(os.path.dirname(self.state_dir), "client.json")
        with open(client_file, "w") as f:
            json.dump(self.client, f)
        os.chmod(client_file, 0o600)
        env = dict(env or os.environ, TARVEX_DSI_REST_CA_FILE=self.emulator.ca or "")
        env.pop("LD_PRELOAD", None)
        account = pwd.getpwuid(os.geteuid()).pw_name   # the server's, in the tests
        r = run([self.program] + self.settings + ["--enrol", user, "--account", account,
                                                  "--client", client_file,
                                                  "--refresh-token-file", "-"],
                timeout=60, env=env, input=self.first_refresh_token + "\n")
        if r.returncode != 0:
            raise AssertionError("enrolment failed: " + r.stderr)

    def stored(self, user):
        with open(os.path.join(self.state_dir, user, "credential.json")) as f:
            return json.load(f)


def credential(token, expires_at, max_upload=1 << 40):
    expiry = time.strftime("%Y-%m-%dT%H:%M:%S.000000+00:00", time.gmtime(expires_at))
    return json.dumps({"access_token": token, "token_expiry": expiry,
                       "sub": "e2e-user", "max_upload": max_upload})


# -- the Box plug-in ---------------------------------------------------------

def preload(program):
    """LD_PRELOAD for the server: the home shim, after the sanitizer
    runtime when the program has one (it must come first)."""
    if not HOME_PRELOAD or not os.path.exists(HOME_PRELOAD):
        return None
    libs = [HOME_PRELOAD]
    for line in run(["ldd", program], timeout=30).stdout.splitlines():
        parts = line.split()
        if parts and parts[0].startswith("libasan.so") and len(parts) >= 3:
            libs.insert(0, parts[2])
    return " ".join(libs)


class BoxServer(Server):
    """tarvex-gridftp-server --dsi box against `emulator`, with a home
    folder of its own (the plug-in's pacing files live there).  `creds`:
    the credential's text, or a BoxCredentialTool; `env`: changes to ours
    (None removes a variable); `base_env`: the environment they change."""

    def __init__(self, emulator, tls=False, policy=None, creds=None, extra=(), env=None,
                 passwd=None, program=None, base_env=None):
        self.work = tempfile.mkdtemp(prefix="tarvex-boxserver-")
        self.home = os.path.join(self.work, "home")
        os.mkdir(self.home)
        policy_file = os.path.join(self.work, "policy.json")
        with open(policy_file, "w") as f:
            json.dump(policy if policy is not None else {"user_api_rate_limit": 100}, f)
        args = ["--config-file", "config=" + policy_file]
        changes = {"TARVEX_BOX_API_BASE": emulator.base, "TARVEX_BOX_UPLOAD_BASE": emulator.base,
                   "TARVEX_DSI_REST_CA_FILE": emulator.ca, "HOME": self.home,
                   "TARVEX_TEST_HOME": self.home, "LD_PRELOAD": preload(program or SERVER)}
        if isinstance(creds, BoxCredentialTool):
            args += creds.args
        else:
            creds_file = os.path.join(self.work, "creds.json")
            with open(creds_file, "w") as f:
                f.write(creds if creds is not None
                        else credential(TOKEN, time.time() + 86400 * 365))
            args += ["--config-file", "creds=" + creds_file]
        changes.update(env or {})
        full = dict(os.environ if base_env is None else base_env)
        for k, v in changes.items():
            if v is None:
                full.pop(k, None)
            else:
                full[k] = v
        try:
            super().__init__(tls=tls, config_file=False, dsi="box", extra=args + list(extra),
                             passwd=passwd, program=program, env=full)
        except BaseException:
            shutil.rmtree(self.work, ignore_errors=True)
            raise

    def stop(self):
        super().stop()
        shutil.rmtree(self.work, ignore_errors=True)


class ClientRuns:
    """curl (over explicit TLS when `self.tls`) and lftp (in the clear, in
    the folder `self.work`) against the class's server, `self.server`."""

    def diagnostics(self):
        return "\n--- server log:\n" + self.server.read_log()[-6000:]

    def curl(self, *args):
        base = ["curl", "-sS", "--user", "anonymous:x", "--max-time", "120"]
        if self.tls:
            base += ["--ssl-reqd", "--cacert", self.server.ca]
        r = run(base + list(args))
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        return r

    def lftp(self, script, ok=True):
        pre = ("set net:max-retries 1; set net:timeout 30; set net:reconnect-interval-base 1; "
               "set cmd:fail-exit true; set xfer:clobber on; set ftp:ssl-allow false; ")
        r = run(["lftp", "-u", "anonymous,x", "-p", str(self.server.port), "-e",
                 pre + script + "; quit", "127.0.0.1"], cwd=self.work)
        if ok:
            self.assertEqual(r.returncode, 0, r.stdout + r.stderr + self.diagnostics())
        return r


class BoxTest(ClientRuns, unittest.TestCase):
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
        if not LIBDIR or not os.path.exists(os.path.join(LIBDIR, "libtarvex_gridftp_server_box.so")):
            raise unittest.SkipTest("the Box plug-in is not built")
        cls.work = tempfile.mkdtemp(prefix="tarvex-e2e-boxclient-")
        cls.emu = Emulator(*(["--part-size", str(cls.part_size)] if cls.part_size else []),
                           https=cls.https)
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

    def ftp(self):
        return self.server.ftp(tls=self.tls)

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

    def paths(self):
        return {e["path"] for e in self.emu.tree()}

    def store(self, f, path, data, allo=True):
        """STOR through ftplib, announced with ALLO; the reply text."""
        if allo:
            f.sendcmd("ALLO %d" % len(data))
        return reply_of(f.storbinary, "STOR " + path, io.BytesIO(data), 256 * 1024)

