"""curl and lftp against the server over explicit TLS (their runs in the
clear are test_box_transfers', as are wget's download and curl's resumed
one: the clients speak to the server alike whatever its plug-in); every
byte compared by SHA-256."""
import os
import shutil
import tempfile
import unittest

from harness import ClientRuns, ServerTest, run, sha256_file, write_random


class Clients(ClientRuns, ServerTest):
    tls = True
    server_args = {"tls": True}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.work = tempfile.mkdtemp(prefix="tarvex-e2e-client-")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)
        super().tearDownClass()

    def test_curl_resumes_an_upload(self):
        # (curl's resumed download is test_box_transfers'.)
        src = os.path.join(self.work, "resume.bin")
        write_random(src, 1000000, seed=2)
        # The server holds the first 400000 bytes; curl sends the rest (APPE).
        with open(src, "rb") as f, open(self.local("up-resume.bin"), "wb") as g:
            g.write(f.read(400000))
        self.curl("-C", "-", "-T", src, self.server.url("/up-resume.bin"))
        self.assertEqual(sha256_file(self.local("up-resume.bin")), sha256_file(src))

    def test_curl_chains_an_upload_and_more_transfers_in_one_login(self):
        # Over TLS as the README says: curl offers a session after an upload
        # that TLS 1.3 cannot resume (it never read the new ticket).
        src = os.path.join(self.work, "chain-src.bin")
        write_random(src, 300000, seed=3)
        out = os.path.join(self.work, "chain-out.bin")
        login = ["--user", "anonymous:x", "--ssl-reqd", "--cacert", self.server.ca,
                 "--tls-max", "1.2"]
        r = run(["curl", "-sS", "--max-time", "120"] + login
                + ["-T", src, self.server.url("/chain.bin"), "--next"] + login
                + ["--list-only", self.server.url("/"), "--next"] + login
                + ["-o", out, self.server.url("/chain.bin")])
        self.assertEqual(r.returncode, 0, r.stderr + self.server.read_log())
        self.assertIn("chain.bin", r.stdout.split())
        self.assertEqual(sha256_file(out), sha256_file(src))

    def test_curl_quote_commands(self):
        with open(self.local("q-old.txt"), "w") as f:
            f.write("rename me")
        with open(self.local("q-gone.txt"), "w") as f:
            f.write("delete me")
        self.curl("-Q", "MKD /q-dir", "-Q", "RNFR /q-old.txt", "-Q", "RNTO /q-dir/q-new.txt",
                  "-Q", "DELE /q-gone.txt", self.server.url("/"))
        self.assertTrue(os.path.isdir(self.local("q-dir")))
        with open(self.local("q-dir", "q-new.txt")) as f:
            self.assertEqual(f.read(), "rename me")
        self.assertFalse(os.path.exists(self.local("q-old.txt")))
        self.assertFalse(os.path.exists(self.local("q-gone.txt")))
        # A failing quote command fails the whole run with the server's reply.
        r = self.curl("-Q", "DELE /no-such-file", self.server.url("/"), ok=False)
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("550", r.stderr)

    def test_lftp_mirror_round_trip(self):
        tree = os.path.join(self.work, "tree")
        files = {"a.bin": 1, "d1/b.bin": 2 * 1024 * 1024 + 3, "d1/d2/c.bin": 70000,
                 "d1/d2/empty.bin": 0, "d3/e.txt": 12}
        for i, (rel, size) in enumerate(files.items()):
            os.makedirs(os.path.dirname(os.path.join(tree, rel)) or tree, exist_ok=True)
            write_random(os.path.join(tree, rel), size, seed=10 + i)
        os.chmod(os.path.join(tree, "d3/e.txt"), 0o604)
        self.lftp("set ftp:use-allo yes; mirror -R %s /mirrored" % tree)
        # lftp carries permissions over with SITE CHMOD.
        self.assertEqual(os.stat(self.local("mirrored", "d3/e.txt")).st_mode & 0o777, 0o604)
        for rel in files:
            self.assertEqual(sha256_file(self.local("mirrored", rel)),
                             sha256_file(os.path.join(tree, rel)), rel)
        back = os.path.join(self.work, "back")
        self.lftp("mirror /mirrored %s" % back)
        for rel in files:
            self.assertEqual(sha256_file(os.path.join(back, rel)),
                             sha256_file(os.path.join(tree, rel)), rel)
        # lftp announced each upload's size with ALLO; the server notes it.
        self.assertRegex(self.server.read_log(), r"STOR /mirrored/d1/b\.bin .*\(ALLO %d\)"
                         % files["d1/b.bin"])
        self.lftp("rm -r /mirrored")
        self.assertFalse(os.path.exists(self.local("mirrored")))


if __name__ == "__main__":
    unittest.main()
