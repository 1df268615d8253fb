"""Faults that cross the server's processes: a login whose Box answer
trickles in (answered at the login deadline), a slow download against the
idle time-out, clients that tear down their data connection or vanish.
Each must end with a clear reply, the session alive (or ended cleanly when
the client left, or the login refused with the cause logged), and never a
partial file on Box presented as complete.  How the plug-in meets Box
failing (resets, 429, 202, refused commits) is pinned by the driver tests
in tests/integration."""
import os
import re
import time

from harness import (MIB, BoxTest, login_cut_at_deadline, pattern,
                     process_gone, reply_of, session_pids, sha256, tear_down, wait_for,
                     write_random)

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
        # At once: the idle clock runs again from the 226, and the checks
        # below can take seconds on a loaded machine.
        self.assertEqual(f.sendcmd("NOOP"), "200 NOOP ok.")
        self.assertGreater(time.monotonic() - start, 2.0)
        self.assertEqual(sha256(bytes(got)), sha256(pattern(240000)))

    # -- logins that Box does not answer ------------------------------------

    def test_trickling_box_answer_meets_the_login_deadline(self):
        server = self.start_server(extra=["--login-timeout", "2"])
        self.addCleanup(server.stop)
        # The root listing a login reads, at 2 bytes a second: 20 minutes.
        self.emu.seed(*({"path": "/name-%03d.bin" % i, "size": 1} for i in range(20)))
        self.emu.fault({"method": "GET", "path_regex": "^/2.0/folders/0/items$",
                        "throttle_bps": 2, "count": -1})
        login_cut_at_deadline(self, server.port, "anonymous")
        wait_for(lambda: "session start for anonymous timed out after 2 s (--login-timeout): "
                 "The operation was cancelled: GET %s/2.0/folders/0/items" % self.emu.base
                 in server.read_log(), "the cause in the log")
        self.emu.control("DELETE", "faults")
        server.ftp().quit()  # the next login is served

    # -- clients that go away ---------------------------------------------

    def test_client_tears_down_the_data_connection(self):
        f = self.ftp()
        self.addCleanup(f.close)
        # (path, announced size, bytes sent before the reset)
        for path, allo, sent in (("/small.bin", 0, MIB), ("/parts.bin", SIZE, 5 * PART)):
            with self.subTest(path):
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

    def test_client_vanishes_mid_upload(self):
        f = self.ftp()
        f.sendcmd("ALLO %d" % SIZE)
        conn = f.transfercmd("STOR /gone.bin")
        conn.sendall(self.data[:4 * PART])
        wait_for(lambda: self.requests("PUT", "/upload_sessions/"), "a part on Box")
        session = session_pids(self.server, "connection from")[-1]
        tear_down(conn)
        f.file.close()      # else the socket outlives its close below
        tear_down(f.sock)
        wait_for(lambda: process_gone(session), "the session process to end", timeout=60)
        self.assertNotIn("/gone.bin", self.paths())
        g = self.ftp()     # the server goes on
        self.addCleanup(g.close)
        self.assertEqual(g.sendcmd("NOOP"), "200 NOOP ok.")
