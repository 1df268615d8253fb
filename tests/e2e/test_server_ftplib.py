"""Every command of the server through Python's ftplib, in the clear; the
data connections in every mode once more over explicit TLS (AUTH TLS,
PBSZ, PROT P), where curl resumes an upload (the clients' other runs are
test_box_clients' and test_box_many_sessions': the clients speak to the
server alike whatever its plug-in); every byte compared by SHA-256."""
import ftplib
import hashlib
import io
import os
import socket

from harness import ClientRuns, ServerTest, own_server, sha256_file, write_random


def use_eprt(f):
    """Active data connections announced with EPRT instead of PORT."""
    def makeport():
        sock = socket.create_server(("127.0.0.1", 0), backlog=1)
        f.voidcmd("EPRT |1|127.0.0.1|%d|" % sock.getsockname()[1])
        sock.settimeout(30)
        return sock
    f.makeport = makeport
    f.set_pasv(False)


def use_epsv(f):
    def makepasv():
        return "127.0.0.1", ftplib.parse229(f.sendcmd("EPSV"), f.sock.getpeername())[1]
    f.makepasv = makepasv


def fetch(f, path, rest=None):
    out = io.BytesIO()
    f.retrbinary("RETR " + path, out.write, rest=rest)
    return out.getvalue()


class Session(ServerTest):
    """A login per test, in the clear or over TLS."""
    tls = False

    def setUp(self):
        self.f = self.server.ftp(tls=self.tls)

    def tearDown(self):
        try:
            self.f.quit()
        except (ftplib.Error, OSError):
            self.f.close()
        super().tearDown()

    def put(self, rel, data):
        path = self.local(rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as f:
            f.write(data)


# Replies walked in one login: (command, what the reply starts with, as a
# regular expression).  How arguments are read is
# gridftp_server_parse_test's.
INFORMATION = [
    ("SYST", "215 UNIX"), ("OPTS UTF8 ON", "200"), ("HELP", "214"), ("NOOP", "200"),
    ("TYPE A", "200"), ("REST 3", "504"), ("TYPE I", "200"), ("TYPE L 8", "200"), ("MODE S", "200"),
    ("STRU F", "200"), ("TYPE E", "504"), ("TYPE L 7", "504"), ("MODE B", "504"),
    ("STRU R", "504"), ("STAT", "211-(?s:.*)Logged in as anonymous"),
]
FOLDERS = [
    ("MKD n1", '257 "/n1"'), ("MKD /n1/n2", "257"), ("CWD n1/n2", "250"),
    ("PWD", '257 "/n1/n2"'), ("CDUP", "2"), ("PWD", '257 "/n1"'), ("CWD /no-such", "550"),
]
FILES = [
    ("CWD /n1/file.txt", "550"), ("SIZE /n1//file.txt", "213 10$"),
    ("SITE CHMOD 640 /n1/file.txt", "200"), ("SITE CHMOD 9x /n1/file.txt", "501"),
    ("MDTM /n1/file.txt", r"213 \d{14}$"), ("CKSM ADLER32 0 -1 /n1/file.txt", "504"),
    ("CKSM MD5 0 -1 /n1/none", "550"), ("RNFR /n1/file.txt", "350"),
    ("RNTO /n1/n2/moved.txt", "250"), ("RNFR /n1/none", "550"), ("RNTO /n1/x", "503"),
    ("RMD /n1", "550"),  # not empty
]
EMPTYING = [
    ("SITE CHMOD 0 /n1/n2/moved.txt", "200"), ("DELE /n1/n2/moved.txt", "250"),
    ("RMD /n1/n2", "250"), ("RMD /n1", "250"), ("DELE /n1", "550"),
]


class Ftplib(Session):
    def test_commands_in_one_login(self):
        feat = self.f.sendcmd("FEAT")
        for word in ("EPSV", "MLST type*;size*;", "REST STREAM", "SIZE", "MDTM", "UTF8",
                     "CKSM MD5,SHA1", "SITE RDEL"):
            self.assertIn(word, feat)
        self.assertEqual(self.tls, "AUTH TLS" in feat)
        self.walk(INFORMATION + FOLDERS)
        self.put("n1/file.txt", b"0123456789")
        self.walk(FILES)
        self.assertEqual(os.stat(self.local("n1/n2/moved.txt")).st_mode & 0o777, 0o640)
        self.walk(EMPTYING)
        self.assertFalse(os.path.exists(self.local("n1")))

    def test_listings(self):
        for i in range(250):  # more than two of the plug-in's batches
            self.put("many/f%03d.txt" % i, b"x" * i)
        self.put("many/sub/inner.txt", b"")
        names = self.f.nlst("/many")
        self.assertEqual(sorted(names), sorted(["f%03d.txt" % i for i in range(250)] + ["sub"]))
        facts = dict(self.f.mlsd("/many"))
        # (How facts are written is gridftp_server_parse_test's.)
        self.assertEqual((facts["."]["type"], facts["sub"]["type"]), ("cdir", "dir"))
        self.assertEqual(facts["f123.txt"]["size"], "123")
        self.assertEqual(len({f["unique"] for f in facts.values()}), 252)
        lines = []
        self.f.retrlines("LIST -la /many", lines.append)
        self.assertEqual(len(lines), 251)
        one = []
        self.f.retrlines("LIST /many/f007.txt", one.append)
        self.assertEqual(len(one), 1)
        self.assertRegex(one[0], r"^-\S+ +\d+ +\d+ +\d+ +7 ")
        mlst = self.f.sendcmd("MLST /many/f042.txt")
        self.assertRegex(mlst, r"(?m)^ type=file;size=42;modify=\d{14};.* /many/f042\.txt$")
        stat = self.f.sendcmd("STAT /many/sub")
        self.assertRegex(stat, r"(?s)^213-.* inner\.txt.*\n213 ")
        self.assertRaisesRegex(ftplib.error_perm, "^550", self.f.nlst, "/no-such-folder")
        # A name that exists as written is not taken as a pattern; a pattern
        # that matches nothing is 550, as for a missing name.
        self.put("w/x[1].txt", b"")
        self.assertEqual(self.f.nlst("/w/x[1].txt"), ["/w/x[1].txt"])
        self.assertRaisesRegex(ftplib.error_perm, "^550", self.f.nlst, "/w/*.none")

    def test_transfers_in_every_data_mode(self):
        data = os.urandom(5 * 1024 * 1024 + 123)
        modes = [("pasv", lambda f: f.set_pasv(True)), ("epsv", use_epsv),
                 ("port", lambda f: f.set_pasv(False)), ("eprt", use_eprt)]
        for name, setup in modes:
            f = self.server.ftp(tls=self.tls)
            setup(f)
            f.storbinary("STOR /t-%s.bin" % name, io.BytesIO(data))
            self.assertEqual(fetch(f, "/t-%s.bin" % name), data, name)
            lines = []
            f.retrlines("NLST /", lines.append)
            self.assertIn("t-%s.bin" % name, lines)
            f.quit()

    def test_restart_and_allo(self):
        data = os.urandom(300000)
        self.f.sendcmd("TYPE I")
        self.assertTrue(self.f.sendcmd("ALLO %d" % len(data)).startswith("200"))
        self.f.storbinary("STOR /r.bin", io.BytesIO(data))
        self.assertEqual(fetch(self.f, "/r.bin", rest=123456), data[123456:])
        # A restarted store keeps the bytes before the offset.
        self.f.storbinary("STOR /r.bin", io.BytesIO(b"Z" * 1000), rest=1000)
        with open(self.local("r.bin"), "rb") as f:
            self.assertEqual(f.read(), data[:1000] + b"Z" * 1000 + data[2000:])

    def test_checksums(self):
        data = os.urandom(2 * 1024 * 1024 + 5)
        self.put("c.bin", data)
        cases = [("MD5", 0, -1, hashlib.md5(data)),
                 ("md5", 100, 5000, hashlib.md5(data[100:5100])),
                 ("SHA1", 1000, -1, hashlib.sha1(data[1000:]))]
        for alg, off, length, want in cases:
            resp = self.f.sendcmd("CKSM %s %d %d /c.bin" % (alg, off, length))
            self.assertEqual(resp, "213 " + want.hexdigest(), (alg, off, length))

    def test_recursive_delete(self):
        for rel in ("rd/a.txt", "rd/b/c.txt", "rd/b/d/e.txt"):
            self.put(rel, b"x")
        os.symlink("/etc", self.local("rd/b/link"))
        self.assertTrue(self.f.sendcmd("SITE RDEL /rd").startswith("250"))
        self.assertFalse(os.path.exists(self.local("rd")))
        self.assertRaisesRegex(ftplib.error_perm, "^550", self.f.sendcmd, "SITE RDEL /rd")
        self.assertRaisesRegex(ftplib.error_perm, "^550", self.f.sendcmd, "SITE RDEL /")

    def test_paths_stay_inside_the_root(self):
        outside = os.path.join(self.server.tmp, "outside.txt")
        with open(outside, "w") as f:
            f.write("secret")
        os.symlink(outside, self.local("escape"))
        os.symlink("/", self.local("escape-dir"))
        # (How ".." is resolved is gridftp_server_parse_test's.)
        for path in ("/a/../../outside.txt", "/escape"):
            self.assertRaisesRegex(ftplib.error_perm, "^550", fetch, self.f, path)
        # A link out of the root shows as the link itself, never its contents.
        self.assertNotIn("etc", self.f.nlst("/escape-dir"))
        self.assertRaisesRegex(ftplib.error_perm, "^550", self.f.cwd, "/escape-dir")
        self.assertRaises(ftplib.error_perm, self.f.storbinary, "STOR /escape", io.BytesIO(b"x"))
        with open(outside) as f:
            self.assertEqual(f.read(), "secret")

    def test_recursive_listing_stops_at_its_limit(self):
        # In the clear: over TLS a cut listing's data connection ends
        # without TLS's orderly close, as every failed transfer's does.
        server = own_server(self, extra=["--recursive-list-limit", "4"])
        for rel in ("four/1", "four/s/2", "four/s/3", "five/1", "five/s/2", "five/s/3/4"):
            path = os.path.join(server.root, rel)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            open(path, "wb").close()
        f = server.ftp()
        lines = []
        f.retrlines("LIST -R /four", lines.append)
        self.assertEqual(len(lines), 6)  # 4 items, a blank line, a header
        lines = []
        self.assertRaisesRegex(ftplib.error_temp, "^451 .*more than 4 items.*incomplete",
                               f.retrlines, "LIST -R /five", lines.append)
        self.assertEqual(sum(1 for l in lines if l[:1] in ("-", "d")), 4)
        f.quit()


class Tls(ClientRuns, Session):
    tls = True
    server_args = {"tls": True}
    test_transfers_in_every_data_mode = Ftplib.test_transfers_in_every_data_mode

    def test_protection_commands(self):
        self.assertIn("AUTH TLS", self.f.sendcmd("FEAT"))
        self.assertTrue(self.f.sendcmd("PBSZ 0").startswith("200"))
        self.assertTrue(self.f.sendcmd("PROT C").startswith("200"))
        self.assertRaisesRegex(ftplib.error_perm, "^536", self.f.sendcmd, "PROT S")
        self.assertRaisesRegex(ftplib.error_perm, "^503", self.f.sendcmd, "AUTH TLS")
        plain = self.server.ftp()
        self.assertRaisesRegex(ftplib.error_perm, "^504", plain.sendcmd, "AUTH KERBEROS")
        plain.quit()
        self.f.sendcmd("PROT P")

    def test_curl_resumes_an_upload(self):
        # (curl's resumed download is test_box_clients'.)
        src = os.path.join(self.server.tmp, "resume.bin")
        write_random(src, 1000000, seed=2)
        # The server holds the first 400000 bytes; curl sends the rest (APPE).
        with open(src, "rb") as f, open(self.local("up-resume.bin"), "wb") as g:
            g.write(f.read(400000))
        self.curl("-C", "-", "-T", src, self.server.url("/up-resume.bin"))
        self.assertEqual(sha256_file(self.local("up-resume.bin")), sha256_file(src))
