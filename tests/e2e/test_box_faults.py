"""Faults during transfers: Box or the network failing under a download or
an upload, a token running out in the middle of a long upload, clients that
tear down their data connection.  Each must end with a clear reply, the
session alive (or ended cleanly when the client left), and never a partial
file on Box presented as complete."""
import hashlib
import io
import os
import re
import time
import unittest

from box_harness import (MIB, BoxTest, CredentialHelper, pattern, reply_of, sha256, tear_down,
                         wait_for, write_random)

PART = 2 * MIB
SIZE = 26 * PART + 1     # above the chunked minimum; the last part is one byte


class Faults(BoxTest):
    part_size = PART

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        path = os.path.join(cls.work, "big.bin")
        write_random(path, SIZE, seed=7)
        with open(path, "rb") as f:
            cls.data = f.read()

    def assertStoredWhole(self, path, data):
        self.assertEqual(sha256(self.emu.content(path)), sha256(data))
        self.assertEqual(self.md5_property(path), hashlib.md5(data).hexdigest())

    # -- downloads --------------------------------------------------------

    def test_reset_mid_download(self):
        size = 3 * MIB
        self.emu.seed({"path": "/d/file.bin", "size": size})
        f = self.ftp()
        self.addCleanup(f.close)
        # Once: the download is asked again and goes on where the client's
        # bytes end; nothing twice, nothing missing.
        self.emu.fault({"path_regex": "^/d/", "truncate_after": MIB, "reset": True})
        got = bytearray()
        self.assertEqual(f.retrbinary("RETR /d/file.bin", got.extend),
                         "226 Transfer complete.")
        self.assertEqual(sha256(bytes(got)), sha256(pattern(size)))
        # Every attempt: a clear failure, never "complete".
        self.emu.fault({"path_regex": "^/d/", "truncate_after": MIB, "reset": True,
                        "count": -1})
        got = bytearray()
        text = reply_of(f.retrbinary, "RETR /d/file.bin", got.extend)
        self.assertRegex(text, r"^4\d\d[ -]")
        self.assertIn("reset", text)
        self.assertLess(len(got), size)
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")
        r = self.curl("-o", self.local("curl.out"), self.server.url("/d/file.bin"), ok=False)
        self.assertNotEqual(r.returncode, 0, "curl took a broken download for complete")

    def test_slow_download_outlasts_the_idle_time_out(self):
        # A data connection that moves slowly is not idle.
        server = self.start_server(extra=["--idle-timeout", "2"])
        self.addCleanup(server.stop)
        self.emu.seed({"path": "/slow.bin", "size": 240000})
        self.emu.fault({"path_regex": "^/d/", "throttle_bps": 80000})
        f = server.ftp()
        self.addCleanup(f.close)
        got = bytearray()
        start = time.monotonic()
        self.assertEqual(f.retrbinary("RETR /slow.bin", got.extend), "226 Transfer complete.")
        self.assertGreater(time.monotonic() - start, 2.0)
        self.assertEqual(sha256(bytes(got)), sha256(pattern(240000)))
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")

    def test_signed_links_stay_out_of_replies_and_logs(self):
        # Everything traced, the download cut off at every attempt: the
        # reply and every log line name the file and the host, never Box's
        # signed link, and the link never gets the token.
        logs = os.path.join(self.work, "signed-logs")
        os.makedirs(logs, exist_ok=True)
        box_log, rest_log = os.path.join(logs, "box.log"), os.path.join(logs, "rest.log")
        server = self.start_server(env={"TARVEX_BOX_DEBUG": "ALL," + box_log,
                                        "TARVEX_DSI_REST_DEBUG": "ALL," + rest_log})
        self.addCleanup(server.stop)
        self.emu.seed({"path": "/d/file.bin", "size": 3 * MIB})
        self.emu.fault({"path_regex": "^/d/", "truncate_after": MIB, "reset": True,
                        "count": -1})
        f = server.ftp()
        self.addCleanup(f.close)
        text = reply_of(f.retrbinary, "RETR /d/file.bin", lambda data: None)
        self.assertRegex(text, r"^4\d\d")
        self.assertIn('Box-Path: "/d/file.bin"', text)
        f.quit()
        wait_for(lambda: "logged out" in server.read_log(), "the session to end")
        downloads = self.requests("GET", "/d/1/")
        self.assertEqual(len(downloads), 2)
        self.assertEqual([e["headers"].get("authorization") for e in downloads], [None, None])
        with open(box_log) as b, open(rest_log) as r:
            logs = {"reply": text, "server": server.read_log(), "box": b.read(), "rest": r.read()}
        self.assertRegex(logs["rest"], r"GET http://127\.0\.0\.1:%d -> 20[06]" % self.emu.port)
        for name, log in logs.items():
            self.assertNotIn("/d/1/", log, name)

    def test_replace_by_new_version(self):
        # "replace": "new-version": a store over a file makes a new version
        # of it; one that fails leaves the content as it was.
        server = self.start_server(policy={"user_api_rate_limit": 100,
                                           "replace": "new-version"})
        self.addCleanup(server.stop)
        self.emu.seed({"path": "/v.bin", "content": "old", "md5_property": "0" * 32})
        f = server.ftp()
        self.addCleanup(f.close)
        one = pattern(300000)
        self.assertEqual(self.store(f, "/v.bin", one, allo=False), "226 Transfer complete.")
        self.assertStoredWhole("/v.bin", one)
        # Failing: fewer bytes than announced, a torn data connection in
        # parts, and a commit Box refuses.
        f.sendcmd("ALLO 10")
        self.assertRegex(reply_of(f.storbinary, "STOR /v.bin", io.BytesIO(b"short")), r"^451 ")
        f.sendcmd("ALLO %d" % SIZE)
        conn = f.transfercmd("STOR /v.bin")
        conn.sendall(self.data[:5 * PART])
        wait_for(lambda: len(self.part_puts()) >= 2, "two parts on Box")
        tear_down(conn)
        self.assertRegex(reply_of(f.voidresp), r"^4\d\d ")
        g = server.ftp()      # another log-in: the broken session is not continued
        self.addCleanup(g.close)
        self.emu.fault({"method": "POST", "path_regex": "/commit$", "status": 409,
                        "body": None, "count": -1})
        self.assertRegex(self.store(g, "/v.bin", self.data), r"^5\d\d")
        self.assertStoredWhole("/v.bin", one)
        # Whole, in parts (a log-in of its own: the failed commit's session
        # stays open in that one): the newest version, with its MD5.
        self.emu.clear_faults()
        h = server.ftp()
        self.addCleanup(h.close)
        self.assertEqual(self.store(h, "/v.bin", self.data), "226 Transfer complete.")
        self.assertStoredWhole("/v.bin", self.data)
        item = self.emu.item("/v.bin")
        self.assertEqual([v["size"] for v in item["versions"]], [len(one), 3])
        self.assertEqual(self.requests("DELETE"), [])

    # -- Box failing under an upload ----------------------------------------

    def test_rate_limited_part_and_session(self):
        busy = {"status": 429, "headers": {"Retry-After": "1"},
                "body": {"type": "error", "status": 429, "code": "rate_limit_exceeded",
                         "message": "Request rate limit exceeded", "request_id": "e2e"}}
        self.emu.fault(dict(busy, method="POST", path_regex="/upload_sessions$"),
                       dict(busy, method="PUT", path_regex="/upload_sessions/[^/]+$"))
        f = self.ftp()
        self.addCleanup(f.close)
        self.assertEqual(self.store(f, "/limited.bin", self.data), "226 Transfer complete.")
        self.assertStoredWhole("/limited.bin", self.data)
        creates = self.requests("POST", "/upload_sessions")[:2]
        self.assertEqual([e["status"] for e in creates], [429, 201])
        # The session request waits as Box asked before it tries again.
        self.assertGreaterEqual(creates[1]["time"] - creates[0]["time"], 1.0)
        statuses = [e["status"] for e in self.part_puts(None)]
        self.assertEqual((statuses[0], statuses[1:]), (429, [200] * (SIZE // PART + 1)))

    def test_failed_commit(self):
        self.emu.fault({"method": "POST", "path_regex": "/commit$", "status": 500, "count": -1,
                        "body": {"type": "error", "status": 500, "code": "internal_server_error",
                                 "message": "Internal Server Error", "request_id": "e2e"}})
        f = self.ftp()
        self.addCleanup(f.close)
        text = self.store(f, "/commit.bin", self.data)
        self.assertRegex(text, r"^[45]\d\d")
        self.assertIn('code: "internal_server_error"', text)
        self.assertNotIn("/commit.bin", self.paths())
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")
        # Box answering "not ready yet" is waited for: 1 s, then 3 s.
        self.emu.clear_faults()
        self.emu.commit_pending(2)
        self.emu.clear_log()
        g = self.ftp()
        self.addCleanup(g.close)
        self.assertEqual(self.store(g, "/later.bin", self.data), "226 Transfer complete.")
        commits = self.requests("POST", "/commit")
        self.assertEqual([e["status"] for e in commits], [202, 202, 201])
        self.assertGreaterEqual(commits[2]["time"] - commits[0]["time"], 4.0)
        self.assertStoredWhole("/later.bin", self.data)

    def test_token_renewed_during_a_long_upload(self):
        # The first token has 5 s left before the plug-in wants a new one
        # and runs out on Box 1.5 s later; the parts take about 8 s.
        helper = CredentialHelper(self.emu, self.work, lifetime=104, emulator_lifetime=6.5)
        server = self.start_server(creds=helper)
        self.addCleanup(server.stop)
        self.emu.fault({"method": "PUT", "path_regex": "/upload_sessions/", "delay_ms": 300,
                        "count": -1})
        f = server.ftp()
        self.addCleanup(f.close)
        self.assertEqual(self.store(f, "/long.bin", self.data), "226 Transfer complete.",
                         server.read_log())
        self.assertStoredWhole("/long.bin", self.data)
        calls = helper.call_log()
        self.assertEqual([key for key, _ in calls], ["creds", "renew-creds"])
        first, second = calls[0][1], calls[1][1]
        upload = [e for e in self.emu.log() if "/upload_sessions" in e["path"]]
        tokens = [e["headers"]["authorization"].split()[-1] for e in upload]
        self.assertEqual(tokens[0], first)          # the upload began with the first token
        self.assertEqual(tokens[-1], second)        # and ended with the second
        self.assertEqual(tokens, sorted(tokens, key=[first, second].index))
        self.assertEqual([e for e in upload if e["status"] == 401], [])

    # -- clients that go away ---------------------------------------------

    def test_client_tears_down_the_data_connection(self):
        f = self.ftp()
        self.addCleanup(f.close)
        # (path, announced size, bytes sent before the reset)
        for path, allo, sent in (("/small.bin", 0, MIB), ("/parts.bin", SIZE, 5 * PART)):
            with self.subTest(path):
                self.emu.clear_log()
                if allo:
                    f.sendcmd("ALLO %d" % allo)
                conn = f.transfercmd("STOR " + path)
                conn.sendall(self.data[:sent])
                # Reset only once the server has taken the bytes: mid-upload.
                wait_for(lambda: self.taken(f) >= sent, "the server to take the bytes")
                tear_down(conn)
                text = reply_of(f.voidresp)
                self.assertRegex(text, r"^4\d\d ")
                self.assertNotIn(path, self.paths())
                self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")

    def taken(self, f):
        """Bytes of the running transfer so far, as STAT tells them."""
        m = re.search(r"(\d+) bytes so far", f.sendcmd("STAT"))
        return int(m.group(1)) if m else 0

    def test_client_sends_less_or_more_than_announced(self):
        f = self.ftp()
        self.addCleanup(f.close)
        # Fewer bytes than announced: a part upload cannot make a file of
        # the announced size, so nothing is stored.
        f.sendcmd("ALLO %d" % SIZE)
        self.assertRegex(reply_of(f.storbinary, "STOR /short.bin",
                                  io.BytesIO(self.data[:SIZE - PART])), r"^[45]\d\d")
        # More than announced: the store fails instead of cutting the file.
        f.sendcmd("ALLO %d" % (SIZE - 1))
        self.assertEqual(reply_of(f.storbinary, "STOR /long.bin", io.BytesIO(self.data)),
                         "426 More data than announced; transfer aborted.")
        self.assertEqual(self.paths() & {"/short.bin", "/long.bin"}, set())
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")

    def test_client_vanishes_mid_upload(self):
        f = self.ftp()
        f.sendcmd("ALLO %d" % SIZE)
        conn = f.transfercmd("STOR /gone.bin")
        conn.sendall(self.data[:4 * PART])
        wait_for(lambda: len(self.part_puts()) >= 1, "a part on Box")
        session = self.session_pids()[-1]
        tear_down(conn)
        f.file.close()      # else the socket outlives its close below
        tear_down(f.sock)
        wait_for(lambda: not _running(session), "the session process to end", timeout=60)
        self.assertNotIn("/gone.bin", self.paths())
        g = self.ftp()     # the server goes on
        self.addCleanup(g.close)
        self.assertEqual(g.sendcmd("NOOP"), "200 NOOP ok.")

    def session_pids(self):
        return [int(p) for p in re.findall(r"\[(\d+)\]: connection from", self.server.read_log())]


def _running(pid):
    """True while the process exists and is not a zombie."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


if __name__ == "__main__":
    unittest.main()
