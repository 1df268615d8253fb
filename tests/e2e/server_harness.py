"""Starts tarvex-gridftp-server with the posix plug-in on a temporary root
on 127.0.0.1, for end-to-end tests with real FTP clients."""
import ftplib
import hashlib
import os
import shutil
import socket
import ssl
import subprocess
import tempfile
import time
import unittest

SERVER = os.environ.get("TARVEX_SERVER_BIN", "")
LIBDIR = os.environ.get("TARVEX_LIB_DIR", "")


def sha256_file(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def write_random(path, size, seed=0):
    """Pseudo-random bytes (different per seed) without reading /dev/urandom
    for every test: a SHA-256 counter stream."""
    with open(path, "wb") as f:
        block = b""
        i = 0
        while size > 0:
            if not block:
                block = b"".join(hashlib.sha256(b"%d:%d" % (seed, i + k)).digest()
                                 for k in range(2048))
                i += 2048
            n = min(size, len(block))
            f.write(block[:n])
            block = block[n:]
            size -= n


def make_hash(password):
    """A SHA-512 crypt(3) hash made with the openssl command."""
    out = subprocess.run(["openssl", "passwd", "-6", password], check=True,
                         capture_output=True, text=True)
    return out.stdout.strip()


def make_tls_files(folder):
    """A test CA and a server certificate for 127.0.0.1, with the openssl CLI."""
    def run(*args):
        subprocess.run(args, check=True, cwd=folder, capture_output=True)
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key",
        "-out", "ca.pem", "-days", "2", "-subj", "/CN=tarvex test CA")
    run("openssl", "req", "-newkey", "rsa:2048", "-nodes", "-keyout", "server.key",
        "-out", "server.csr", "-subj", "/CN=localhost")
    with open(os.path.join(folder, "ext"), "w") as f:
        f.write("subjectAltName=DNS:localhost,IP:127.0.0.1\n")
    run("openssl", "x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
        "-CAcreateserial", "-out", "server.pem", "-days", "2", "-extfile", "ext")
    return (os.path.join(folder, "ca.pem"), os.path.join(folder, "server.pem"),
            os.path.join(folder, "server.key"))


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


class Server:
    """One server process.  `extra` adds command-line options."""

    def __init__(self, tls=False, require_tls=False, passwd=None, extra=(), root=None,
                 config_file=True, dsi="posix"):
        self.tmp = tempfile.mkdtemp(prefix="tarvex-e2e-")
        self.root = root or os.path.join(self.tmp, "root")
        os.makedirs(self.root, exist_ok=True)
        self.ca = None
        args = [SERVER, "--port", "0", "--bind", "127.0.0.1", "--dsi", dsi,
                "--port-file", os.path.join(self.tmp, "port"), "--foreground"]
        if config_file:
            args += ["--config-file", "config=" + self._config()]
        if LIBDIR:
            args += ["--dsi-path", LIBDIR]
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
        args += list(extra)
        self.log_path = os.path.join(self.tmp, "server.log")
        self.log = open(self.log_path, "wb")
        self.proc = subprocess.Popen(args, stdout=self.log, stderr=subprocess.STDOUT)
        self.port = self._wait_port()

    def _config(self):
        path = os.path.join(self.tmp, "config.json")
        with open(path, "w") as f:
            f.write('{"root": "%s"}' % self.root)
        return path

    def _wait_port(self):
        port_file = os.path.join(self.tmp, "port")
        for _ in range(200):
            if self.proc.poll() is not None:
                raise RuntimeError("server exited: " + self.read_log())
            if os.path.exists(port_file):
                with open(port_file) as f:
                    return int(f.read())
            time.sleep(0.05)
        raise RuntimeError("server did not start: " + self.read_log())

    def read_log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def alive(self):
        return self.proc.poll() is None

    def url(self, path="/", user=None):
        auth = (user + "@") if user else ""
        return "ftp://%s127.0.0.1:%d%s" % (auth, self.port, path)

    def ftp(self, user="anonymous", password="x", tls=False):
        if tls:
            ctx = ssl.create_default_context(cafile=self.ca)
            f = ResumingFTP_TLS(context=ctx, timeout=30)
            f.connect("127.0.0.1", self.port)
            f.auth()
            f.login(user, password)
            f.prot_p()
        else:
            f = ftplib.FTP(timeout=30)
            f.connect("127.0.0.1", self.port)
            f.login(user, password)
        return f

    def raw(self):
        """A plain socket on the control port, greeting read."""
        s = socket.create_connection(("127.0.0.1", self.port), timeout=10)
        f = s.makefile("rb")
        line = f.readline()
        assert line.startswith(b"220"), line
        return s, f

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()
        shutil.rmtree(self.tmp, ignore_errors=True)


def read_reply(f):
    """One FTP reply (all its lines) from a control-connection file."""
    first = f.readline().decode(errors="replace")
    lines = [first]
    if len(first) >= 4 and first[3] == "-":
        code = first[:3]
        while True:
            line = f.readline().decode(errors="replace")
            if not line:
                break
            lines.append(line)
            if line.startswith(code + " "):
                break
    return "".join(lines)


class ServerTest(unittest.TestCase):
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
