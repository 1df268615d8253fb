"""Downloads and uploads through real clients (curl, wget, lftp, Python's
ftplib), every byte compared by SHA-256 with what the emulated Box holds.

What the clients announce decides the upload path: the plug-in uploads
through a Box upload session, part by part, only when the client announced
a size above 52428800 bytes with ALLO.  curl and wget never send ALLO (curl
can be made to, with -Q "ALLO <size>"), lftp sends it with
"set ftp:use-allo yes" (off by default), and ftplib sends what it is told.
Without ALLO every upload, however large, is one request."""
import hashlib
import io
import os
import unittest

from box_harness import (CHUNKED_MINIMUM, MIB, BoxTest, b64, pattern, reply_of, run, sha256,
                         sha256_file, tear_down, wait_for, write_random)

PART = 2 * MIB   # the emulator's upload part size here


class Transfers:
    """The tests; run in the clear and over TLS below."""
    part_size = PART

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # 26 whole parts: above the chunked minimum, an exact multiple.
        cls.big = os.path.join(cls.work, "big.bin")
        write_random(cls.big, 26 * PART, seed=26)
        with open(cls.big, "rb") as f:
            cls.big_data = f.read()

    def stored(self, path):
        return sha256(self.emu.content(path))

    def sessions_made(self):
        return [e for e in self.requests("POST", "/upload_sessions")
                if e["path"].endswith("/upload_sessions") and e["status"] == 201]

    def assertChunked(self, path, data):
        """`data` went up through one upload session, part by part, and Box
        keeps its MD5."""
        self.assertEqual(len(self.sessions_made()), 1)
        self.assertEqual(len(self.part_puts()), -(-len(data) // PART))
        self.assertEqual(self.requests("POST", "/files/content"), [])
        self.assertEqual(self.stored(path), sha256(data))
        self.assertEqual(self.md5_property(path), hashlib.md5(data).hexdigest())

    # -- curl and wget ----------------------------------------------------

    def test_curl_put_and_get(self):
        src = self.local_file("small.bin", 300001, seed=1)
        self.curl("-T", src, self.server.url("/in/small.bin"), "--ftp-create-dirs")
        self.assertEqual(self.stored("/in/small.bin"), sha256_file(src))
        # Storing again replaces the file.
        other = self.local_file("other.bin", 1000, seed=2)
        self.curl("-T", other, self.server.url("/in/small.bin"))
        self.assertFiles({"/in": "folder", "/in/small.bin": sha256_file(other)})
        out = self.local("small.out")
        self.curl("-o", out, self.server.url("/in/small.bin"))
        self.assertEqual(sha256_file(out), sha256_file(other))

    def test_curl_large_upload_one_request_or_parts_after_allo(self):
        self.curl("-T", self.big, self.server.url("/plain.bin"))
        self.assertEqual((len(self.requests("POST", "/files/content")), self.sessions_made()),
                         (1, []))
        self.assertEqual(self.stored("/plain.bin"), sha256(self.big_data))
        self.emu.clear_log()
        self.curl("-Q", "ALLO %d" % len(self.big_data), "-T", self.big,
                  self.server.url("/parts.bin"))
        self.assertChunked("/parts.bin", self.big_data)
        out = self.local("parts.out")
        self.curl("-o", out, self.server.url("/parts.bin"))
        self.assertEqual(sha256_file(out), sha256(self.big_data))

    def test_curl_resumes_a_download(self):
        size = 3 * MIB + 5
        self.emu.seed({"path": "/r/file.bin", "size": size})
        part = self.local("resume.part")
        with open(part, "wb") as f:
            f.write(pattern(1000000))
        self.curl("-C", "-", "-o", part, self.server.url("/r/file.bin"))
        self.assertEqual(sha256_file(part), sha256(pattern(size)))
        self.assertEqual([e["headers"].get("range") for e in self.requests("GET", "/d/")],
                         ["bytes=1000000-"])

    def test_curl_resumed_upload_keeps_the_file_whole(self):
        # curl -C - -T asks SIZE and sends the rest with APPE.  Box cannot
        # append: the file must end up whole, or stay as it was with an
        # error; never hold only the rest.
        whole = self.local_file("whole.bin", 3000, seed=3)
        with open(whole, "rb") as f:
            data = f.read()
        self.emu.seed({"path": "/up.bin", "content_base64": b64(data[:1000])})
        r = self.curl("-C", "-", "-T", whole, self.server.url("/up.bin"), ok=False)
        stored = self.emu.content("/up.bin") if "/up.bin" in self.paths() else b""
        # Compared by length and digest: the bytes themselves say little.
        got = (len(stored), sha256(stored))
        if r.returncode == 0:
            self.assertEqual(got, (3000, sha256(data)), "curl reported success")
        else:
            self.assertEqual(got, (1000, sha256(data[:1000])), r.stderr)

    def test_wget_get(self):
        self.emu.seed({"path": "/w/file.bin", "size": 1500000})
        out = self.local("wget.out")
        if self.tls:
            args = ["wget", "-q", "--ca-certificate=" + self.server.ca, "-O", out,
                    "ftps://anonymous:x@127.0.0.1:%d/w/file.bin" % self.server.port]
        else:
            args = ["wget", "-q", "-O", out, self.server.url("/w/file.bin", "anonymous:x")]
        r = run(args)
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        self.assertEqual(sha256_file(out), sha256(pattern(1500000)))

    # -- lftp -------------------------------------------------------------

    def test_lftp_put_get_and_mirror(self):
        tree = self.local("tree")
        sizes = {"zero.bin": 0, "one.bin": 1, "part.bin": PART, "part1.bin": PART + 1,
                 "sub/inner.bin": 70000}
        for i, (name, size) in enumerate(sizes.items()):
            os.makedirs(os.path.dirname(os.path.join(tree, name)), exist_ok=True)
            write_random(os.path.join(tree, name), size, seed=100 + i)
        os.makedirs(os.path.join(tree, "void"))
        self.lftp("set ftp:use-allo yes; mirror -R tree /m")
        want = {"/m": "folder", "/m/sub": "folder", "/m/void": "folder"}
        want.update({"/m/" + n: sha256_file(os.path.join(tree, n)) for n in sizes})
        self.assertFiles(want, "mirror -R")
        self.lftp("mirror /m back")
        for name in sizes:
            self.assertEqual(sha256_file(self.local("back", name)),
                             sha256_file(os.path.join(tree, name)), name)
        self.assertTrue(os.path.isdir(self.local("back", "void")))
        self.lftp("put tree/part1.bin -o /single.bin; get /m/sub/inner.bin -o got.bin")
        self.assertEqual(self.stored("/single.bin"), sha256_file(os.path.join(tree, "part1.bin")))
        self.assertEqual(sha256_file(self.local("got.bin")),
                         sha256_file(os.path.join(tree, "sub/inner.bin")))

    def test_lftp_large_put_with_allo_goes_in_parts(self):
        self.lftp("set ftp:use-allo yes; put big.bin -o /lftp-big.bin")
        self.assertChunked("/lftp-big.bin", self.big_data)

    # -- ftplib -----------------------------------------------------------

    def test_ftplib_store_path_follows_the_announced_size(self):
        f = self.ftp()
        self.addCleanup(f.close)
        # (size, through an upload session)
        for size, chunked in ((CHUNKED_MINIMUM, False), (CHUNKED_MINIMUM + 1, True),
                              (26 * PART, True)):
            with self.subTest(size=size):
                self.emu.clear_log()
                data = self.big_data[:size]
                path = "/s%d.bin" % size
                self.assertEqual(self.store(f, path, data), "226 Transfer complete.")
                if chunked:
                    self.assertChunked(path, data)
                    # Box keeps the MD5: a checksum needs no download.
                    self.emu.clear_log()
                    self.assertEqual(f.sendcmd("CKSM MD5 0 -1 " + path),
                                     "213 " + hashlib.md5(data).hexdigest())
                    self.assertEqual(self.requests("GET", "/content"), [])
                else:
                    self.assertEqual((len(self.requests("POST", "/files/content")),
                                      self.sessions_made()), (1, []))
                    self.assertEqual(self.stored(path), sha256(data))

    def test_interrupted_chunked_store_continues_with_rest(self):
        data = self.big_data
        f = self.ftp()
        self.addCleanup(f.close)
        f.sendcmd("ALLO %d" % len(data))
        conn = f.transfercmd("STOR /resumed.bin")
        sent = 6 * PART + PART // 2
        conn.sendall(data[:sent])
        wait_for(lambda: len(self.part_puts()) >= 3, "three parts on Box")
        tear_down(conn)   # not closed: a close would say the file ends here
        text = reply_of(f.voidresp)
        self.assertRegex(text, r"^4\d\d ")
        self.assertNotIn("/resumed.bin", self.paths())
        done = len(self.part_puts()) * PART
        self.assertLessEqual(done, sent)
        # The same login goes on from the last part Box has.
        # REST goes right before STOR (ftplib sends it after TYPE and PASV):
        # any other command in between clears the offset.
        f.sendcmd("ALLO %d" % len(data))
        self.assertEqual(f.storbinary("STOR /resumed.bin", io.BytesIO(data[done:]), rest=done),
                         "226 Transfer complete.")
        self.assertEqual(len(self.sessions_made()), 1)
        self.assertEqual(self.stored("/resumed.bin"), sha256(data))
        self.assertEqual(self.md5_property("/resumed.bin"), hashlib.md5(data).hexdigest())


class TransfersPlain(Transfers, BoxTest):
    # In the clear only: under TLS a data connection the server ends for a
    # failed store closes without close_notify, which ftplib's storbinary
    # raises as an SSL error before it reads the reply.
    def test_ftplib_allo_is_the_size(self):
        # A client that announced a size and sends fewer bytes (a normal
        # close) has stored nothing; so has a store on the root folder.
        self.emu.seed({"path": "/dir", "type": "folder"})
        f = self.ftp()
        self.addCleanup(f.close)
        f.sendcmd("ALLO 200000")
        self.assertEqual(reply_of(f.storbinary, "STOR /allo.bin", io.BytesIO(pattern(100000))),
                         "451 The client sent 100000 bytes where it announced 200000 (ALLO); "
                         "nothing was stored.")
        for path in ("/", "/dir/.."):
            self.assertRegex(reply_of(f.storbinary, "STOR " + path, io.BytesIO(b"x")),
                             r"^553[ -]")
        self.assertEqual(self.paths(), {"/dir"})
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")


class TransfersTLS(Transfers, BoxTest):
    tls = True
    https = True


if __name__ == "__main__":
    unittest.main()
