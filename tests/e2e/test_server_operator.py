"""What an operator sets and reads: the transfer log (--transfer-log: failed
transfers marked incomplete; the line's layout is
gridftp_server_xferlog_test's), logins from a password file, each session
as its local account, the TLS sessions a user's data connections may
resume, and --require-tls.  Rotation (rename, SIGHUP) is
test_box_operator's, on the audit log the listener reopens in the same
loop, and gridftp_server_xferlog_test's."""
import ftplib
import io
import os
import pwd
import shutil
import socket
import ssl
import tempfile

from harness import ResumingFTP_TLS, ServerTest, make_hash, wait_for


def read_lines(path):
    try:
        with open(path, "rb") as f:
            return f.read().decode().splitlines()
    except FileNotFoundError:
        return []


def fields(line):
    """An xferlog line as a dict of its fields."""
    w = line.split()
    assert len(w) == 18, line
    return {"bytes": int(w[7]), "path": w[8], "direction": w[11], "user": w[13],
            "status": w[17]}


class TransferLog(ServerTest):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="tarvex-e2e-xferlog-")
        cls.xferlog = os.path.join(cls.dir, "xferlog")
        cls.server_args = {"tls": True, "extra": ["--transfer-log", cls.xferlog]}
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        shutil.rmtree(cls.dir, ignore_errors=True)

    def line_for(self, path, direction):
        """The parsed line of the transfer of `path` in `direction`, once
        written (a session sends it after its reply)."""
        def find():
            for line in read_lines(self.xferlog):
                f = fields(line)
                if f["path"] == path and f["direction"] == direction:
                    return f
            return None
        return wait_for(find, "the transfer log line of %s %s" % (direction, path))

    def test_failed_transfers_are_incomplete(self):
        with open(os.path.join(self.server.root, "big.bin"), "wb") as fh:
            fh.truncate(512 << 20)
        f = self.server.ftp("dave", "x")
        self.assertRaisesRegex(ftplib.error_perm, "^550", f.retrbinary, "RETR /absent.bin",
                               lambda b: None)
        # A download the client aborts after its first bytes, the control
        # connection answering while it runs; the session goes on.
        conn = f.transfercmd("RETR /big.bin")
        self.assertTrue(conn.recv(65536))
        self.assertIn("Transfer in progress: /big.bin", f.sendcmd("STAT"))
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")
        resp = f.abort()
        conn.close()
        self.assertTrue(resp.startswith("426"), resp)
        self.assertTrue(f.getresp().startswith("226"))
        self.assertTrue(f.sendcmd("ABOR").startswith("225"))
        f.storbinary("STOR /small.bin", io.BytesIO(b"z" * 1000))
        f.quit()
        absent = self.line_for("/absent.bin", "o")
        self.assertEqual((absent["bytes"], absent["status"], absent["user"]), (0, "i", "dave"))
        aborted = self.line_for("/big.bin", "o")
        self.assertEqual(aborted["status"], "i")
        self.assertLess(aborted["bytes"], 512 << 20)
        small = self.line_for("/small.bin", "i")
        self.assertEqual((small["bytes"], small["status"]), (1000, "c"))

PASSWORDS = {"alice": "wonderland", "bob": "builder"}


class Accounts(ServerTest):
    """Logins from a password file, each session as its login's local
    account, and what standard error says of each session process.
    With a password file, a data connection may also resume a TLS session
    given to another control connection of the same user (clients that
    pool connections share one session cache), even one still logging in;
    another user's, or that of a connection that never logs in, does not
    let it in.
    Configuration data from a command run per login ($TARVEX_USER) is
    test_box_credential's, where tarvex-box-credential is that command."""

    @classmethod
    def setUpClass(cls):
        cls.root_run = os.geteuid() == 0
        cls.nobody = pwd.getpwnam("nobody") if cls.root_run else None
        me = pwd.getpwuid(os.geteuid()).pw_name
        lines = ["# test logins", "alice:%s:%s" % (make_hash("wonderland"), me),
                 "locked:!%s" % make_hash("x"),
                 "bob:%s:%s" % (make_hash("builder"), "nobody" if cls.root_run else me),
                 "ghost:%s:no-such-account-here" % make_hash("boo")]
        cls.server_args = {"tls": True, "passwd": "\n".join(lines) + "\n"}
        super().setUpClass()
        os.chmod(cls.server.tmp, 0o755)
        if cls.root_run:
            os.chown(cls.server.root, cls.nobody.pw_uid, cls.nobody.pw_gid)

    def connect(self):
        f = ftplib.FTP(timeout=30)
        f.connect("127.0.0.1", self.server.port)
        return f

    def test_passwords(self):
        cases = [("alice", "wonderland", True), ("alice", "Wonderland", False),
                 ("nobody-here", "x", False), ("locked", "x", False)]
        if self.root_run:
            cases.append(("ghost", "boo", False))  # no such local account
        for user, password, ok in cases:
            f = self.connect()
            if ok:
                self.assertTrue(f.login(user, password).startswith("230"))
            else:
                self.assertRaisesRegex(ftplib.error_perm, "^530", f.login, user, password)
            f.close()
        # The third failure ends the session.
        f = self.connect()
        for _ in range(2):
            self.assertRaisesRegex(ftplib.error_perm, "^530", f.login, "alice", "bad")
        self.assertRaisesRegex(ftplib.error_temp, "^421", f.login, "alice", "bad")
        f.close()

    def test_session_runs_as_the_local_account(self):
        if not self.root_run:
            self.skipTest("needs root")
        f = self.server.ftp("bob", "builder")
        f.storbinary("STOR /owned.txt", io.BytesIO(b"mine"))
        f.quit()
        st = os.stat(os.path.join(self.server.root, "owned.txt"))
        self.assertEqual((st.st_uid, st.st_gid), (self.nobody.pw_uid, self.nobody.pw_gid))

    def control(self, ctx, user=None):
        f = ResumingFTP_TLS(context=ctx, timeout=30)
        f.connect("127.0.0.1", self.server.port)
        f.auth()
        f.sendcmd("PBSZ 0")
        if user is not None:
            f.login(user, PASSWORDS[user])
        return f

    def test_sessions_of_one_user(self):
        with open(self.local("secret.bin"), "wb") as f:
            f.write(b"alice's")
        os.chmod(self.local("secret.bin"), 0o644)
        # One context for every connection, as a client with one session
        # cache has.
        ctx = ssl.create_default_context(cafile=self.server.ca)
        owner = self.control(ctx, "alice")
        owner.prot_p()
        # The other control connection's user, whether it has logged in
        # before the data connection resumes its session (else it logs in
        # while the server checks), and whether the data go out.
        cases = (("alice", True, True), ("alice", False, True), ("bob", True, False),
                 (None, True, False))
        for who, first, admitted in cases:
            other = self.control(ctx, who if first else None)
            session = other.sock.session
            self.assertTrue(session.has_ticket, who)
            if who is None:
                other.close()  # never logs in
            host, port = owner.makepasv()
            conn = socket.create_connection((host, port), timeout=30)
            self.assertTrue(owner.sendcmd("RETR /secret.bin").startswith("150"))
            conn = owner.context.wrap_socket(conn, server_hostname="127.0.0.1", session=session)
            if not first:
                other.login(who, PASSWORDS[who])
            got = conn.recv(100)
            conn.close()
            if admitted:
                self.assertEqual(got, b"alice's", (who, first))
                self.assertTrue(owner.voidresp().startswith("226"))
            else:
                self.assertEqual(got, b"", who)
                self.assertRaisesRegex(ftplib.error_temp, "^425 .*not resumed", owner.voidresp)
            other.close()
        owner.quit()


class RequireTls(ServerTest):
    server_args = {"require_tls": True}

    def test_data_must_be_protected(self):
        ctx = ssl.create_default_context(cafile=self.server.ca)
        f = ResumingFTP_TLS(context=ctx, timeout=30)
        f.connect("127.0.0.1", self.server.port)
        f.login("anonymous", "x")  # does AUTH TLS first
        f.sendcmd("PBSZ 0")
        self.assertRaisesRegex(ftplib.error_perm, "^534", f.sendcmd, "PROT C")
        self.assertRaisesRegex(ftplib.error_perm, "^521", f.nlst, "/")
        f.prot_p()
        f.storbinary("STOR /secure.txt", io.BytesIO(b"secret"))
        self.assertEqual(f.nlst("/"), ["secure.txt"])
        f.quit()
