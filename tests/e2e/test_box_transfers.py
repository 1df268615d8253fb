"""Box through real clients, each one's dialect once, every byte compared
by SHA-256 with what the emulated Box holds: curl (uploads, a resumed
download; its quoted commands are in test_server_clients), wget, lftp
(mirror both ways, mkdir -p, mv, rm -r) and the replies only a client shows
reading well: checksum progress and a multi-line error.  The plug-in's
rules behind each command (paths, refusals, upload paths, retries) are
pinned by the driver tests in tests/integration; here is what the clients
make of them.
One download (curl, wget) goes over explicit TLS with Box over HTTPS; the
uploads in parts are test_box_many_sessions' (lftp) and test_box_faults'.

curl and wget never send ALLO, lftp only with "set ftp:use-allo yes": without
it every upload, however large, is one request."""
import hashlib
import os
import re
import subprocess
import time
import unittest

from harness import (MIB, TOKEN, BoxServer, BoxTest, credential, pattern, run, sha256,
                     sha256_file, write_random)

PART = 2 * MIB   # the emulator's upload part size here


class Transfers(BoxTest):
    part_size = PART

    def test_curl_uploads_and_downloads(self):
        src = self.local_file("small.bin", 300001, seed=1)
        self.curl("-T", src, self.server.url("/in/small.bin"), "--ftp-create-dirs")
        # Storing again replaces the file.
        other = self.local_file("other.bin", 1000, seed=2)
        self.curl("-T", other, self.server.url("/in/small.bin"))
        self.assertFiles({"/in": "folder", "/in/small.bin": sha256_file(other)})
        out = self.local("small.out")
        self.curl("-o", out, self.server.url("/in/small.bin"))
        self.assertEqual(sha256_file(out), sha256_file(other))

    def test_curl_resumes_a_download_and_wget_gets(self):
        size = 3 * MIB + 5
        self.emu.seed({"path": "/r/file.bin", "size": size})
        part = self.local("resume.part")
        with open(part, "wb") as f:
            f.write(pattern(1000000))
        self.curl("-C", "-", "-o", part, self.server.url("/r/file.bin"))
        self.assertEqual(sha256_file(part), sha256(pattern(size)))
        self.assertEqual([e["headers"].get("range") for e in self.requests("GET", "/d/")],
                         ["bytes=1000000-"])
        out = self.local("wget.out")
        if self.tls:
            args = ["wget", "-q", "--ca-certificate=" + self.server.ca, "-O", out,
                    "ftps://anonymous:x@127.0.0.1:%d/r/file.bin" % self.server.port]
        else:
            args = ["wget", "-q", "-O", out, self.server.url("/r/file.bin", "anonymous:x")]
        r = run(args)
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        self.assertEqual(sha256_file(out), sha256(pattern(size)))

    def test_lftp_mirror_and_commands(self):
        tree = self.local("tree")
        sizes = {"zero.bin": 0, "one.bin": 1, "part1.bin": PART + 1, "sub/inner.bin": 70000}
        for i, (name, size) in enumerate(sizes.items()):
            os.makedirs(os.path.dirname(os.path.join(tree, name)), exist_ok=True)
            write_random(os.path.join(tree, name), size, seed=100 + i)
        os.makedirs(os.path.join(tree, "void"))
        self.lftp("set ftp:use-allo yes; mirror -R tree /m")
        want = {"/m": "folder", "/m/sub": "folder", "/m/void": "folder"}
        want.update({"/m/" + n: sha256_file(os.path.join(tree, n)) for n in sizes})
        self.assertFiles(want, "mirror -R")
        self.lftp("mirror /m back")
        self.assertEqual({n: sha256_file(self.local("back", n)) for n in sizes},
                         {n: want["/m/" + n] for n in sizes})
        self.assertTrue(os.path.isdir(self.local("back", "void")))
        self.lftp("mkdir -p /m/x/y; mv /m/sub /m/x/y/sub; rm /m/zero.bin; rmdir /m/void")
        self.assertEqual(self.paths(), {"/m", "/m/one.bin", "/m/part1.bin", "/m/x", "/m/x/y",
                                        "/m/x/y/sub", "/m/x/y/sub/inner.bin"})
        r = self.lftp("rmdir /m/x", ok=False)   # not empty
        self.assertIn("550", r.stderr)
        self.lftp("rm -r /m")
        self.assertFiles({})

    def test_checksum_progress_reads_well_in_each_client(self):
        sizes = {"lftp": 60001, "curl": 60002}
        self.emu.seed(*({"path": "/p/%s.bin" % c, "size": n} for c, n in sizes.items()))
        md5 = {c: hashlib.md5(pattern(n)).hexdigest() for c, n in sizes.items()}
        # About 2.4 s per download: long enough for progress every second.
        self.emu.fault({"path_regex": "^/d/", "throttle_bps": 25000, "count": -1})
        # Both at once.  curl cannot take a preliminary reply to a quoted
        # command, so it asks for no progress and must see none.
        lftp = self.start(self.lftp_args("quote OPTS CKSM INTERVAL=1; "
                                         "quote CKSM MD5 0 -1 /p/lftp.bin; quote NOOP"))
        curl = self.start(self.curl_args("-v", "-Q", "CKSM MD5 0 -1 /p/curl.bin", "-Q", "NOOP",
                                         "-o", "/dev/null", self.server.url("/p/")))
        out, err = lftp.communicate(timeout=120)
        self.assertEqual(lftp.returncode, 0, out + err)
        lines = out.splitlines()
        self.assertEqual((lines[0], lines[-2:]), ("200 CKSM progress interval 1.",
                                                  ["213 " + md5["lftp"], "200 NOOP ok."]))
        counts = [int(re.fullmatch(r"113 (\d+)", line).group(1)) for line in lines[1:-2]]
        self.assertTrue(counts, "no progress reply")
        self.assertEqual(counts, sorted(counts))
        self.assertLessEqual(counts[-1], sizes["lftp"])
        out, err = curl.communicate(timeout=120)
        self.assertEqual(curl.returncode, 0, err)
        answers = [l[2:] for l in err.splitlines() if l.startswith("< ")]
        i = answers.index("213 " + md5["curl"])
        self.assertEqual(answers[i + 1], "200 NOOP ok.")
        self.assertFalse([a for a in answers if a.startswith("113")], err)

    def start(self, args):
        return subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                cwd=self.work)

    def test_a_multi_line_error_reads_well_in_each_client(self):
        # A user whose uploads may not exceed 1000 bytes.
        server = BoxServer(self.emu, tls=self.tls,
                           creds=credential(TOKEN, time.time() + 86400, max_upload=1000))
        self.addCleanup(server.stop)
        src = self.local_file("quota.bin", 5000)

        def expected(path):
            return ["451-QUOTA_EXCEEDED", '451-Box-Path: "%s"' % path,
                    '451-Box-Upload-Size: "5000"', '451-Box-Max-Upload-Size: "1000"',
                    '451 Box-Error: "Upload size is too large."']

        r = self.curl("-v", "-Q", "ALLO 5000", "-T", src, server.url("/q-curl.bin"), ok=False,
                      server=server)
        self.assertEqual(r.returncode, 25, r.stderr)   # "Failed FTP upload"
        self.assertEqual([l[2:] for l in r.stderr.splitlines() if l.startswith("< 451")],
                         expected("/q-curl.bin"))
        # lftp takes a 4xx reply for a passing trouble and retries; it gives
        # up saying "max-retries exceeded".  Its trace shows it read the
        # whole reply.
        r = self.lftp("debug 3; set ftp:use-allo yes; put quota.bin -o /q-lftp.bin", ok=False,
                      server=server)
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("\n".join("<--- " + l for l in expected("/q-lftp.bin")), r.stderr)
        self.assertFiles({})


class TransfersTLS(BoxTest):
    part_size = PART
    tls = True
    https = True
    test_curl_resumes_a_download_and_wget_gets = \
        Transfers.test_curl_resumes_a_download_and_wget_gets


if __name__ == "__main__":
    unittest.main()
