"""Logins from a password file, the switch to the login's local account,
and --require-tls.  Configuration data from a command run per login
($TARVEX_USER) is test_box_credential's, where tarvex-box-credential is
that command."""
import ftplib
import io
import os
import pwd
import ssl
import unittest

from harness import ResumingFTP_TLS, ServerTest, make_hash


class PasswordLogins(ServerTest):
    @classmethod
    def setUpClass(cls):
        cls.root_run = os.geteuid() == 0
        cls.nobody = pwd.getpwnam("nobody") if cls.root_run else None
        me = pwd.getpwuid(os.geteuid()).pw_name
        lines = ["# test logins", "alice:%s:%s" % (make_hash("wonderland"), me),
                 "locked:!%s" % make_hash("x")]
        lines.append("bob:%s:%s" % (make_hash("builder"),
                                    "nobody" if cls.root_run else me))
        lines.append("ghost:%s:no-such-account-here" % make_hash("boo"))
        cls.server_args = {"passwd": "\n".join(lines) + "\n"}
        super().setUpClass()
        os.chmod(cls.server.tmp, 0o755)
        if cls.root_run:
            os.chown(cls.server.root, cls.nobody.pw_uid, cls.nobody.pw_gid)

    def test_passwords(self):
        cases = [("alice", "wonderland", True), ("alice", "Wonderland", False),
                 ("alice", "", False), ("nobody-here", "x", False), ("locked", "x", False)]
        if self.root_run:
            cases.append(("ghost", "boo", False))  # no such local account
        for user, password, ok in cases:
            f = ftplib.FTP(timeout=30)
            f.connect("127.0.0.1", self.server.port)
            if ok:
                self.assertTrue(f.login(user, password).startswith("230"))
            else:
                self.assertRaisesRegex(ftplib.error_perm, "^530", f.login, user, password)
            f.close()

    def test_three_failures_end_the_session(self):
        f = ftplib.FTP(timeout=30)
        f.connect("127.0.0.1", self.server.port)
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


if __name__ == "__main__":
    unittest.main()
