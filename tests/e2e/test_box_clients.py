"""The FTP clients of a Debian system on Box, each run once as its users
drive it: classic ftp (tnftp) with wildcards and ASCII mode both ways,
lftp's recursive listing, its upload to a temporary name and its reading
of checksum progress, ftp-upload's temporary names (rename over the file,
and STOU) over active data connections, curl's resumed download, and
wget.  The server runs the shipped policy's "rename_replaces".  The
plug-in's rules behind each command (paths, refusals, upload paths,
retries, ranges) are pinned by the driver tests in tests/integration;
here is what the clients make of them.  Uploads in parts are
test_box_many_sessions' (lftp) and test_box_faults'; curl over TLS is
test_box_operator's."""
import hashlib
import os
import re
import shutil
import unittest

from harness import MIB, BoxTest, pattern, run, sha256, sha256_file

CLIENTS = ("tnftp", "ftp-upload", "wget")


def seed_tree(emu):
    emu.seed({"path": "/S/t/a.txt", "content": "alpha\n"},
             {"path": "/S/t/b.txt", "content": "beta\n"},
             {"path": "/S/t/c.bin", "content": "c"},
             {"path": "/S/t/-dash.txt", "content": "dash\n"},
             {"path": "/S/t/x1.tmp", "content": "1"},
             {"path": "/S/t/x2.tmp", "content": "2"},
             {"path": "/S/t/sub/d.txt", "content": "delta\n"},
             {"path": "/S/t/sub/deep/e.txt", "content": "echo\n"})


class BoxClients(BoxTest):

    @classmethod
    def setUpClass(cls):
        missing = [c for c in CLIENTS if shutil.which(c) is None]
        if missing:
            raise unittest.SkipTest("not installed: " + " ".join(missing))
        super().setUpClass()

    @classmethod
    def start_server(cls, extra=(), **kw):
        return super().start_server(extra, policy={"user_api_rate_limit": 100,
                                                   "rename_replaces": True}, **kw)

    def setUp(self):
        super().setUp()
        seed_tree(self.emu)
        name = self.id().rsplit(".", 1)[1]
        self.dir = self.local(name)
        # The clients' own files (their histories and settings) go elsewhere.
        self.home = self.local(name + "-home")
        os.makedirs(self.dir)
        os.makedirs(self.home)

    def client(self, args, script=None):
        r = run(args, input=script, cwd=self.dir, timeout=120,
                env=dict(os.environ, HOME=self.home))
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr + self.diagnostics())
        return r.stdout

    def tnftp(self, *commands):
        script = "user anonymous x\nprompt\n" + "\n".join(commands) + "\nquit\n"
        return self.client(["tnftp", "-n", "-v", "127.0.0.1", str(self.server.port)], script)

    def ftp_upload(self, *args):
        return self.client(["ftp-upload", "-h", "127.0.0.1:%d" % self.server.port,
                            "-u", "anonymous", "--password", "x", "-d", "/S/t"] + list(args))

    def names(self, folder):
        return sorted(p[len(folder):] for p in self.paths()
                      if p.startswith(folder) and "/" not in p[len(folder):])

    def local_bytes(self, name):
        with open(os.path.join(self.dir, name), "rb") as f:
            return f.read()

    def write_local(self, name, data):
        with open(os.path.join(self.dir, name), "wb") as f:
            f.write(data)

    # -- wildcards and ASCII mode ------------------------------------------

    def test_tnftp_wildcards_and_ascii_mode(self):
        self.write_local("lines.txt", b"one\ntwo\n")
        # tnftp sends the local LF file with CR LF ends; Box stores LF.
        self.tnftp("cd /S/t", "mget *.txt", "mdelete *.tmp", "ascii", "put lines.txt",
                   "binary", "get lines.txt bin.txt", "ascii", "get lines.txt text.txt")
        self.assertEqual(sorted(os.listdir(self.dir)), ["-dash.txt", "a.txt", "b.txt",
                                                        "bin.txt", "lines.txt", "text.txt"])
        self.assertEqual(self.local_bytes("a.txt"), b"alpha\n")
        self.assertEqual(self.names("/S/t/"), ["-dash.txt", "a.txt", "b.txt", "c.bin",
                                               "lines.txt", "sub"])
        self.assertEqual(self.emu.content("/S/t/lines.txt"), b"one\ntwo\n")
        self.assertEqual(self.local_bytes("bin.txt"), b"one\ntwo\n")
        self.assertEqual(self.local_bytes("text.txt"), b"one\ntwo\n")
        # A name that starts with '-' is that file, not ls options.
        os.remove(os.path.join(self.dir, "-dash.txt"))
        self.tnftp("cd /S/t", "mget -dash.txt")
        self.assertEqual(self.local_bytes("-dash.txt"), b"dash\n")

    # -- recursive listings ---------------------------------------------------

    def test_recursive_listing_in_lftp(self):
        out = self.lftp("ls -R /S/t").stdout
        self.assertRegex(out, r"(?s)/S/t/sub:.* d\.txt\n.*/S/t/sub/deep:\n.* e\.txt\n")

    # -- uploads under a temporary name ----------------------------------------

    def test_temporary_names_in_lftp_and_ftp_upload(self):
        self.write_local("a.txt", b"new alpha\n")
        self.lftp("set xfer:use-temp-file yes; lcd %s; cd /S/t; put a.txt" % self.dir)
        self.assertEqual(self.emu.content("/S/t/a.txt"), b"new alpha\n")

        self.write_local("b.txt", b"new beta\n")
        self.ftp_upload("--tmp-format", "tmp.%s", "b.txt")
        self.assertEqual(self.emu.content("/S/t/b.txt"), b"new beta\n")

        # STOU: a unique name beside the file, then the rename over it.
        self.write_local("c.bin", b"new c")
        self.ftp_upload("--tmp-samedir", "c.bin")
        self.assertEqual(self.emu.content("/S/t/c.bin"), b"new c")
        self.assertEqual(self.names("/S/t/"), ["-dash.txt", "a.txt", "b.txt", "c.bin", "sub",
                                               "x1.tmp", "x2.tmp"])

    # -- downloads, checksums and errors -----------------------------------------

    def test_curl_resumes_a_download_and_wget_gets(self):
        size = 3 * MIB + 5
        self.emu.seed({"path": "/r/file.bin", "size": size})
        part = self.local("resume.part")
        with open(part, "wb") as f:
            f.write(pattern(1000000))
        self.curl("-C", "-", "-o", part, self.server.url("/r/file.bin"))
        self.assertEqual(sha256_file(part), sha256(pattern(size)))
        out = self.local("wget.out")
        r = run(["wget", "-q", "-O", out, self.server.url("/r/file.bin", "anonymous:x")])
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        self.assertEqual(sha256_file(out), sha256(pattern(size)))

    def test_lftp_reads_checksum_progress(self):
        self.emu.seed({"path": "/p/lftp.bin", "size": 60001})
        # About 2.4 s for the download: long enough for progress every second.
        self.emu.fault({"path_regex": "^/d/", "throttle_bps": 25000, "count": -1})
        out = self.lftp("quote OPTS CKSM INTERVAL=1; quote CKSM MD5 0 -1 /p/lftp.bin; "
                        "quote NOOP").stdout
        lines = out.splitlines()
        self.assertEqual((lines[0], lines[-2:]),
                         ("200 CKSM progress interval 1.",
                          ["213 " + hashlib.md5(pattern(60001)).hexdigest(), "200 NOOP ok."]))
        counts = [int(re.fullmatch(r"113 (\d+)", line).group(1)) for line in lines[1:-2]]
        self.assertTrue(counts, "no progress reply")
        self.assertEqual(counts, sorted(counts))
        self.assertLessEqual(counts[-1], 60001)
