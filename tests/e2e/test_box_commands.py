"""Folder and file commands on Box through real clients (curl, lftp,
Python's ftplib), in the clear and over explicit TLS with Box over HTTPS:
after every step the emulator's tree must be what the client did, bad input
must get a clear reply and change nothing, and the replies (checksum
progress, multi-line errors) must read well in each client."""
import hashlib
import re
import subprocess
import time
import unittest

from box_harness import TOKEN, BoxServer, BoxTest, b64, credential, reply_of, wait_for

EMPTY_MD5 = "d41d8cd98f00b204e9800998ecf8427e"


def seed_tree(emu):
    """A small tree; returns the client's model of it (path -> "folder" or
    bytes)."""
    model = {"/docs": "folder", "/docs/a.txt": b"alpha\n", "/docs/old.txt": b"old\n",
             "/docs/sub": "folder", "/docs/sub/deep.txt": b"deep\n", "/empty": "folder"}
    emu.seed(*({"path": p, "type": "folder"} if v == "folder" else
               {"path": p, "content": v.decode()} for p, v in model.items()))
    return model


def moved(model, src, dst):
    """The model after renaming src (and everything below it) to dst."""
    out = {}
    for path, value in model.items():
        if path == src or path.startswith(src + "/"):
            path = dst + path[len(src):]
        out[path] = value
    return out


def removed(model, top):
    return {p: v for p, v in model.items() if p != top and not p.startswith(top + "/")}


class Commands:
    """The tests; run in the clear and over TLS below."""

    def curl_quote(self, *commands, ok=True):
        args = []
        for c in commands:
            args += ["-Q", c]
        return self.curl(*args, "-o", "/dev/null", self.server.url("/"), ok=ok)

    def changes(self):
        """The requests Box carried out that change its tree or metadata."""
        return [(e["method"], e["path"]) for e in self.emu.log()
                if e["method"] in ("POST", "PUT", "DELETE") and 200 <= e["status"] < 400]

    def test_curl_quote_commands(self):
        model = seed_tree(self.emu)
        self.curl_quote("MKD /docs/new")
        model["/docs/new"] = "folder"
        self.assertFiles(model, "MKD")
        self.curl_quote("DELE /docs/a.txt")
        del model["/docs/a.txt"]
        self.assertFiles(model, "DELE")
        self.curl_quote("RNFR /docs/old.txt", "RNTO /docs/new/renamed.txt")
        model = moved(model, "/docs/old.txt", "/docs/new/renamed.txt")
        self.assertFiles(model, "RNFR/RNTO")
        self.curl_quote("RMD /empty")
        del model["/empty"]
        self.assertFiles(model, "RMD")
        r = self.curl_quote("DELE /docs/none", ok=False)
        self.assertEqual(r.returncode, 21, r.stderr)
        self.assertIn("QUOT command failed with 550", r.stderr)
        self.assertFiles(model, "failed DELE")

    def test_lftp_commands(self):
        model = seed_tree(self.emu)
        steps = [("mkdir /l", {"/l": "folder"}),
                 ("mkdir -p /l/x/y/z", {"/l/x": "folder", "/l/x/y": "folder",
                                        "/l/x/y/z": "folder"})]
        for script, added in steps:
            self.lftp(script)
            model.update(added)
            self.assertFiles(model, script)
        self.lftp("mv /l/x /l/moved")
        model = moved(model, "/l/x", "/l/moved")
        self.assertFiles(model, "mv folder")
        self.lftp("mv /docs/a.txt /l/moved/y/a.txt")
        model = moved(model, "/docs/a.txt", "/l/moved/y/a.txt")
        self.assertFiles(model, "mv file to another folder")
        self.lftp("rm /docs/old.txt")
        del model["/docs/old.txt"]
        self.assertFiles(model, "rm")
        self.lftp("rmdir /empty")
        del model["/empty"]
        self.assertFiles(model, "rmdir")
        self.lftp("rm -r /l")
        model = removed(model, "/l")
        self.assertFiles(model, "rm -r")
        r = self.lftp("rmdir /docs", ok=False)   # not empty
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("550", r.stderr)
        self.assertFiles(model, "failed rmdir")

    def test_ftplib_every_command(self):
        model = seed_tree(self.emu)
        f = self.ftp()
        self.addCleanup(f.close)
        self.assertEqual(f.mkd("/docs/made"), "/docs/made")
        self.emu.clear_log()
        self.assertEqual(f.mkd("/docs/made"), "/docs/made")   # there already: success
        self.assertEqual(self.requests("POST"), [])
        model["/docs/made"] = "folder"
        self.assertFiles(model, "MKD")
        self.assertTrue(f.rmd("/docs/made").startswith("250"))
        del model["/docs/made"]
        self.assertFiles(model, "RMD")
        self.assertTrue(f.delete("/docs/old.txt").startswith("250"))
        del model["/docs/old.txt"]
        self.assertFiles(model, "DELE")
        self.assertTrue(f.rename("/docs/a.txt", "/docs/b.txt").startswith("250"))
        model = moved(model, "/docs/a.txt", "/docs/b.txt")
        self.assertTrue(f.rename("/docs/sub", "/empty/sub").startswith("250"))
        model = moved(model, "/docs/sub", "/empty/sub")
        self.assertFiles(model, "RNFR/RNTO")
        # The moved folder's content is reachable under its new path.
        self.assertEqual(f.nlst("/empty/sub"), ["deep.txt"])
        self.assertTrue(f.sendcmd("SITE RDEL /empty").startswith("250"))
        model = removed(model, "/empty")
        self.assertFiles(model, "SITE RDEL")

    def test_ftplib_checksums(self):
        data = bytes(range(256)) * 40
        self.emu.seed({"path": "/c/one.bin", "content_base64": b64(data)},
                      {"path": "/c/two.bin", "content_base64": b64(data[::-1])})
        f = self.ftp()
        self.addCleanup(f.close)
        self.emu.clear_log()
        # Box knows every file's SHA-1: no download.
        self.assertEqual(f.sendcmd("CKSM SHA1 0 -1 /c/one.bin"),
                         "213 " + hashlib.sha1(data).hexdigest())
        self.assertEqual(self.requests("GET", "/content"), [])
        # A range is downloaded from its offset and leaves nothing recorded.
        for alg in ("MD5", "SHA1"):
            self.assertEqual(f.sendcmd("CKSM %s 100 -1 /c/one.bin" % alg),
                             "213 " + hashlib.new(alg.lower(), data[100:]).hexdigest())
        self.assertEqual({e["headers"].get("range") for e in self.requests("GET", "/d/")},
                         {"bytes=100-"})
        self.assertIsNone(self.emu.item("/c/one.bin")["metadata"])
        self.assertEqual(f.sendcmd("CKSM MD5 0 0 /c/one.bin"), "213 " + EMPTY_MD5)
        # The whole-file MD5 is computed once, then kept in Box.
        md5 = hashlib.md5(data).hexdigest()
        self.emu.clear_log()
        self.assertEqual(f.sendcmd("CKSM MD5 0 -1 /c/one.bin"), "213 " + md5)
        downloads = self.requests("GET", "/d/")
        self.assertEqual([e["headers"].get("range") for e in downloads], [None])
        self.assertEqual(self.md5_property("/c/one.bin"), md5)
        self.emu.clear_log()
        self.assertEqual(f.sendcmd("CKSM MD5 0 -1 /c/one.bin"), "213 " + md5)
        self.assertEqual(self.requests(), [])
        # Another login finds it in Box's metadata, without a download.
        g = self.ftp()
        self.addCleanup(g.close)
        self.assertEqual(g.sendcmd("CKSM MD5 0 -1 /c/one.bin"), "213 " + md5)
        self.assertEqual(self.requests("GET", "/content"), [])
        self.assertEqual(g.sendcmd("cksm md5 0 -1 /c/two.bin"),
                         "213 " + hashlib.md5(data[::-1]).hexdigest())

    def test_checksum_of_a_length_ends_at_abor(self):
        # With an explicit length the plug-in downloads the range again and
        # again until a request fails; ABOR is how a client ends it.
        self.emu.seed({"path": "/c/loop.bin", "content_base64": b64(bytes(range(256)) * 40)})
        f = self.ftp()
        self.addCleanup(f.close)
        self.emu.clear_log()
        f.putcmd("CKSM MD5 0 100 /c/loop.bin")
        wait_for(lambda: len(self.requests("GET", "/d/")) >= 3, "the range downloaded again")
        f.putcmd("ABOR")
        self.assertEqual(reply_of(f.getresp), "426 Command aborted.")
        self.assertEqual(f.getresp(), "226 Abort successful.")
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")

    def test_checksum_progress_reads_well_in_each_client(self):
        sizes = {"ftplib": 60000, "lftp": 60001, "curl": 60002}
        self.emu.seed(*({"path": "/p/%s.bin" % c, "size": n} for c, n in sizes.items()))
        md5 = {c: hashlib.md5(bytes(i % 251 for i in range(n))).hexdigest()
               for c, n in sizes.items()}
        # About 2.4 s per download: long enough for progress every second.
        self.emu.fault({"path_regex": "^/d/", "throttle_bps": 25000, "count": -1})
        # The three clients at once.  curl cannot take a preliminary reply
        # to a quoted command, so it asks for no progress and must see none.
        lftp = self.start(self.lftp_args("quote OPTS CKSM INTERVAL=1; "
                                         "quote CKSM MD5 0 -1 /p/lftp.bin; quote NOOP"))
        curl = self.start(self.curl_args("-v", "-Q", "CKSM MD5 0 -1 /p/curl.bin", "-Q", "NOOP",
                                         "-o", "/dev/null", self.server.url("/p/")))
        f = self.ftp()
        self.addCleanup(f.close)
        f.sendcmd("OPTS CKSM INTERVAL=1")
        f.putcmd("CKSM MD5 0 -1 /p/ftplib.bin")
        replies = [f.getresp()]
        while replies[-1].startswith("1"):
            replies.append(f.getresp())
        self.assertEqual(replies[-1], "213 " + md5["ftplib"])
        self.assertProgress(replies[:-1], sizes["ftplib"])
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")   # still in step

        out, err = lftp.communicate(timeout=120)
        self.assertEqual(lftp.returncode, 0, out + err)
        lines = out.splitlines()
        self.assertEqual((lines[0], lines[-2:]), ("200 CKSM progress interval 1.",
                                                  ["213 " + md5["lftp"], "200 NOOP ok."]))
        self.assertProgress(lines[1:-2], sizes["lftp"])
        out, err = curl.communicate(timeout=120)
        self.assertEqual(curl.returncode, 0, err)
        answers = [l[2:] for l in err.splitlines() if l.startswith("< ")]
        i = answers.index("213 " + md5["curl"])
        self.assertEqual(answers[i + 1], "200 NOOP ok.")
        self.assertFalse([a for a in answers if a.startswith("113")], err)

    def assertProgress(self, replies, size):
        self.assertTrue(replies, "no progress reply")
        counts = []
        for r in replies:
            m = re.fullmatch(r"113 (\d+)", r)
            self.assertIsNotNone(m, r)
            counts.append(int(m.group(1)))
        self.assertEqual(counts, sorted(counts))
        self.assertLessEqual(counts[-1], size)

    def start(self, args):
        return subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                cwd=self.work)

    def test_error_replies_read_well_in_each_client(self):
        # A user whose uploads may not exceed 1000 bytes.
        server = BoxServer(self.emu, tls=self.tls,
                           creds=credential(TOKEN, time.time() + 86400, max_upload=1000))
        self.addCleanup(server.stop)
        src = self.local_file("quota.bin", 5000)

        def expected(path):
            return ["451-QUOTA_EXCEEDED", '451-Box-Path: "%s"' % path,
                    '451-Box-Upload-Size: "5000"', '451-Box-Max-Upload-Size: "1000"',
                    '451 Box-Error: "Upload size is too large."']

        f = server.ftp(tls=self.tls)
        self.addCleanup(f.close)
        f.sendcmd("ALLO 5000")
        with open(src, "rb") as fh:
            text = reply_of(f.storbinary, "STOR /q-ftplib.bin", fh)
        self.assertEqual(text.splitlines(), expected("/q-ftplib.bin"))
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")

        r = self.curl("-v", "-Q", "ALLO 5000", "-T", src, server.url("/q-curl.bin"), ok=False,
                      server=server)
        self.assertEqual(r.returncode, 25, r.stderr)   # "Failed FTP upload"
        answers = [l[2:] for l in r.stderr.splitlines() if l.startswith("< 451")]
        self.assertEqual(answers, expected("/q-curl.bin"))

        # lftp takes a 4xx reply for a passing trouble and retries; it gives
        # up saying "max-retries exceeded".  Its trace shows it read the
        # whole reply.
        r = self.lftp("debug 3; set ftp:use-allo yes; put quota.bin -o /q-lftp.bin", ok=False,
                      server=server)
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("\n".join("<--- " + l for l in expected("/q-lftp.bin")), r.stderr)
        self.assertFiles({})

    def test_refused_delete_leaves_the_folder_reachable(self):
        model = seed_tree(self.emu)
        f = self.ftp()
        self.addCleanup(f.close)
        self.assertEqual(f.size("/docs/a.txt"), 6)
        text = reply_of(f.rmd, "/docs")            # not empty: Box refuses
        self.assertTrue(text.startswith("550"), text)
        self.assertFiles(model)
        # Box still holds the folder; this login must still find it.
        self.assertEqual(reply_of(f.size, "/docs/a.txt"), 6)
        self.assertEqual(sorted(f.nlst("/docs")), ["a.txt", "old.txt", "sub"])

    def test_bad_input_gets_a_clear_reply_and_changes_nothing(self):
        model = seed_tree(self.emu)
        # (commands; the reply's first line: code and a word that says why)
        cases = [
            (["MKD /docs/a\x00b"], "500", "NUL"),
            (["MKD /docs/" + "n" * 1000], "553", "INVALID_PATH_NAME"),
            (["MKD /docs/bad\xc3(name"], "553", "INVALID_PATH_NAME"),  # not UTF-8
            # A "/" inside a name makes a path through a folder not there.
            (["MKD /docs/no/such"], "553", "NOT_A_DIRECTORY"),
            (["MKD /docs/a.txt/x"], "553", "NOT_A_DIRECTORY"),
            (["MKD /docs/a.txt"], "553", "NOT_A_DIRECTORY"),
            (["MKD /"], "550", "root"),
            (["RNFR /"], "550", "root"),
            (["RNFR /docs", "RNTO /docs/sub/inner"], "553", "INVALID_PATH_NAME"),  # below itself
            (["RNFR /docs/a.txt", "RNTO /docs/old.txt"], "553", "PATH_EXISTS"),
            (["RNFR /docs/a.txt", "RNTO /docs/a.txt"], "553", "PATH_EXISTS"),
            (["RNFR /docs/a.txt", "RNTO /nowhere/a.txt"], "553", "NOT_A_DIRECTORY"),
            (["RNTO /docs/x.txt"], "503", "RNFR"),
            (["RNFR /docs/none"], "550", "PATH_NOT_FOUND"),
            (["DELE /docs"], "550", "Path is a folder."),
            (["DELE /docs/none"], "550", "PATH_NOT_FOUND"),
            (["RMD /docs/a.txt"], "550", "Path is a file."),
            (["SITE RDEL /"], "550", "root"),
            (["SITE RDEL /docs/a.txt"], "550", "Path is a file."),
            (["SITE CHMOD 644 /docs/a.txt"], "500", "NOT_IMPLEMETED"),
            (["CKSM MD5 0 -1 /docs"], "550", "PATH_NOT_FOUND"),
            (["CKSM MD5 -1 -1 /docs/a.txt"], "501", "CKSM"),
            (["CKSM ADLER32 0 -1 /docs/a.txt"], "504", "ADLER32"),
        ]
        f = self.ftp()
        self.addCleanup(f.close)
        # One character, one byte: "\xc3(" goes out as bytes that are not UTF-8.
        f.encoding = "latin-1"
        self.emu.clear_log()
        for commands, code, word in cases:
            with self.subTest(ascii(commands[-1][:40])):
                for c in commands[:-1]:
                    self.assertTrue(f.sendcmd(c).startswith("350"))
                text = reply_of(f.sendcmd, commands[-1])
                self.assertEqual(text[:3], code, text)
                self.assertIn(word, text)
                self.assertFiles(model)
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")
        self.assertEqual(self.changes(), [], "bad input changed something on Box")


class CommandsPlain(Commands, BoxTest):
    pass


class CommandsTLS(Commands, BoxTest):
    tls = True
    https = True


if __name__ == "__main__":
    unittest.main()
