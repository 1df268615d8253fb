"""What an administrator expects of the server beside FTP, through --dsi box
against the Box emulator: TLS as clients meet it (implicit FTPS with curl's
ftps:// URLs; explicit TLS 1.3 uploads by a client that ends its data
connections without close_notify, and --tls-strict-eof; rclone's pooled
TLS connections are test_box_many_sessions'), the audit log of the changes
clients make (rotated with SIGHUP), and the Prometheus metrics page, scraped after
clients worked and checked with promtool (a stalled scraper is
gridftp_server_watch_test's)."""
import ftplib
import http.client
import io
import os
import pwd
import shutil
import signal
import ssl
import subprocess

from harness import BoxServer, BoxTest, make_hash, port_in, reply_of, run, sha256, wait_for


def tls13_login(server):
    ctx = ssl.create_default_context(cafile=server.ca)
    ctx.minimum_version = ssl.TLSVersion.TLSv1_3
    return server.ftp(context=ctx)


def store_and_drop(f, path, data, allo=False):
    """STOR whose data connection ends with a bare TCP FIN (close() without
    unwrap()): no TLS close_notify.  The final reply's text."""
    if allo:
        f.sendcmd("ALLO %d" % len(data))
    conn = f.transfercmd("STOR " + path)
    conn.sendall(data)
    conn.close()
    return reply_of(f.voidresp)


class Tls(BoxTest):
    tls = True
    servers = 0

    @classmethod
    def start_server(cls, extra=(), **kw):
        cls.servers += 1
        port_file = os.path.join(cls.work, "implicit-port-%d" % cls.servers)
        server = super().start_server(
            extra=["--implicit-tls-port", "0", "--implicit-tls-port-file", port_file]
            + list(extra), **kw)
        server.implicit_port = wait_for(lambda: port_in(port_file), "the implicit TLS port")
        return server

    def url(self, path):
        return "ftps://anonymous:x@127.0.0.1:%d%s" % (self.server.implicit_port, path)

    def test_curl_ftps_urls(self):
        src = self.local_file("c.bin", 3 << 20, seed=1)
        curl = ["curl", "-sS", "--max-time", "120", "--cacert", self.server.ca]
        r = run(curl + ["-T", src, "--ftp-create-dirs", self.url("/in/c.bin")])
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        back = self.local("c.back")
        r = run(curl + ["-o", back, self.url("/in/c.bin")])
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        r = run(curl + ["--list-only", self.url("/in/")])
        self.assertEqual((r.returncode, r.stdout), (0, "c.bin\n"), r.stderr)
        with open(src, "rb") as a, open(back, "rb") as b:
            data = a.read()
            self.assertEqual(sha256(b.read()), sha256(data))
        self.assertFiles({"/in": "folder", "/in/c.bin": data})

    def test_python_closing_without_unwrap(self):
        f = tls13_login(self.server)
        data = os.urandom(1 << 20)
        for i in range(24):
            self.assertTrue(store_and_drop(f, "/p%d.bin" % i, data).startswith("226"), i)
        # An end with close_notify (storbinary unwraps) is not marked.
        self.assertTrue(f.storbinary("STOR /clean.bin", io.BytesIO(data)).startswith("226"))
        f.quit()
        expected = {"/p%d.bin" % i: data for i in range(24)}
        expected["/clean.bin"] = data
        self.assertFiles(expected)
        log = self.server.read_log()
        self.assertRegex(log, r"STOR /p23\.bin .*\(end unconfirmed: no TLS close_notify\)")
        self.assertRegex(log, r"STOR /clean\.bin from 0: \d+ bytes in \d+ ms\n")

    def test_strict_eof(self):
        server = self.start_server(extra=["--tls-strict-eof"])
        self.addCleanup(server.stop)
        f = tls13_login(server)
        data = os.urandom(300000)
        self.assertRegex(store_and_drop(f, "/cut.bin", data), "^426 .*without TLS close_notify")
        # An announced size makes the count the check.
        self.assertTrue(store_and_drop(f, "/sized.bin", data, allo=True).startswith("226"))
        self.assertTrue(f.storbinary("STOR /clean.bin", io.BytesIO(data)).startswith("226"))
        f.quit()
        self.assertFiles({"/sized.bin": data, "/clean.bin": data})


def samples(page):
    """The page's samples: "name{labels}" -> value."""
    out = {}
    for line in page.splitlines():
        if line and not line.startswith("#"):
            name, value = line.rsplit(" ", 1)
            out[name] = float(value)
    return out


class Operator(BoxTest):
    """The class's server writes an audit log; the metrics test starts a
    server of its own, whose counts start from 0."""

    @classmethod
    def start_server(cls, extra=(), **kw):
        path = os.path.join(cls.work, "audit")
        server = super().start_server(extra=["--audit-log", path] + list(extra), **kw)
        server.audit_log = path
        return server

    def audit_lines(self, count, path=None):
        """The audit log's lines as (command, path, second, code, text),
        once there are `count`."""
        path = path or self.server.audit_log

        def read():
            if not os.path.exists(path):
                return None
            with open(path, encoding="utf-8") as f:
                lines = f.read().splitlines()
            return lines if len(lines) >= count else None
        lines = wait_for(read, "%d audit lines" % count)
        out = []
        for line in lines:
            _, host, user, command, p, second, code, text = line.split(" ", 7)
            self.assertEqual((host, user), ("127.0.0.1", "anonymous"))
            out.append((command, p, second, code, text))
        return out

    def test_changes_and_their_results(self):
        f = self.ftp()
        self.addCleanup(f.close)
        f.mkd("/a")
        reply_of(f.mkd, "/no/a")
        f.rename("/a", "/my docs")
        reply_of(f.delete, "/missing")
        f.mkd("/t")
        f.sendcmd("SITE RDEL /t")
        f.rmd("/my docs")
        lines = self.audit_lines(7)
        self.assertEqual([l[:4] for l in lines], [
            ("MKD", "/a", "-", "257"),
            ("MKD", "/no/a", "-", "553"),
            ("RNTO", "/a", "/my\\x20docs", "250"),
            ("DELE", "/missing", "-", "550"),
            ("MKD", "/t", "-", "257"),
            ("SITE_RDEL", "/t", "-", "250"),
            ("RMD", "/my\\x20docs", "-", "250"),
        ])
        self.assertIn("PATH_NOT_FOUND", lines[3][4])
        self.assertFiles({})

        # Rotation: renamed, SIGHUP, and the next change is in the new file.
        rotated = self.server.audit_log + ".1"
        os.rename(self.server.audit_log, rotated)
        os.kill(self.server.proc.pid, signal.SIGHUP)
        wait_for(lambda: "audit log reopened" in self.server.read_log(),
                 "the server to reopen its audit log")
        f.mkd("/after")
        self.assertEqual([l[:2] for l in self.audit_lines(1)], [("MKD", "/after")])
        self.assertEqual(len(self.audit_lines(7, rotated)), 7)

    def scrape(self, port):
        conn = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
        try:
            conn.request("GET", "/metrics")
            resp = conn.getresponse()
            self.assertEqual(resp.status, 200)
            self.assertEqual(resp.getheader("Content-Type"),
                             "text/plain; version=0.0.4; charset=utf-8")
            return resp.read().decode()
        finally:
            conn.close()

    def test_counts_of_sessions_and_transfers(self):
        port_file = os.path.join(self.work, "metrics-port")
        me = pwd.getpwuid(os.geteuid()).pw_name
        server = BoxServer(self.emu, passwd="alice:%s:%s\n" % (make_hash("secret"), me),
                           extra=["--metrics-listen", "127.0.0.1:0",
                                  "--metrics-port-file", port_file])
        self.addCleanup(server.stop)
        metrics_port = wait_for(lambda: port_in(port_file), "the metrics port")
        bad = ftplib.FTP(timeout=60)
        bad.connect("127.0.0.1", server.port)
        self.assertTrue(reply_of(bad.login, "alice", "wrong").startswith("530"))
        bad.close()
        f = server.ftp("alice", "secret")
        data = os.urandom(300000)
        f.mkd("/m")
        self.assertEqual(self.store(f, "/m/up.bin", data), "226 Transfer complete.")
        got = bytearray()
        f.retrbinary("RETR /m/up.bin", got.extend)
        self.assertEqual(bytes(got), data)
        f.quit()

        page = wait_for(lambda: (lambda p: p if samples(p)["tarvex_sessions_open"] == 0 else None)(
            self.scrape(metrics_port)), "the sessions to end")
        s = samples(page)
        self.assertEqual(s['tarvex_logins_total{result="failed"}'], 1)
        self.assertEqual(s['tarvex_logins_total{result="ok"}'], 1)
        self.assertEqual(s["tarvex_sessions_total"], 2)
        for direction in ("upload", "download"):
            self.assertEqual(s['tarvex_transfers_total{direction="%s",result="complete"}'
                               % direction], 1)
            self.assertEqual(s['tarvex_transfer_bytes_total{direction="%s"}' % direction],
                             len(data))

        if shutil.which("promtool") is None:
            self.skipTest("promtool is not installed (scripts/install-deps installs it)")
        r = subprocess.run(["promtool", "check", "metrics"], input=page, capture_output=True,
                           text=True, timeout=60)
        self.assertEqual((r.returncode, r.stdout + r.stderr), (0, ""))
