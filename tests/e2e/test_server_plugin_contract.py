"""The server against a test plug-in whose answers the posix plug-in never
gives: error replies with cause chains, listings streamed in pauses and
failing half-way, a transfer finished from another thread, a failure after
data went out, refused session starts.  (Progress replies are
test_box_transfers', from the Box plug-in.)"""
import ftplib
import io
import os
import time
import unittest

from harness import LIBDIR, SERVER, ServerTest, own_server


class PluginContract(ServerTest):
    server_args = {"dsi": "e2etest", "config_file": False, "extra": ["--cancel-grace", "1"]}

    @classmethod
    def setUpClass(cls):
        if not LIBDIR or not os.path.exists(os.path.join(LIBDIR, "libtarvex_gridftp_server_e2etest.so")):
            raise unittest.SkipTest("test plug-in not built")
        super().setUpClass()

    def setUp(self):
        self.f = self.server.ftp()

    def tearDown(self):
        self.f.close()
        super().tearDown()

    def test_home_folder_from_the_plugin(self):
        self.assertEqual(self.f.pwd(), "/home")
        self.assertIn("CKSM CAFE", self.f.sendcmd("FEAT"))

    def test_cwd_through_the_plugins_realpath(self):
        self.f.cwd("/link")
        self.assertEqual(self.f.pwd(), "/home")
        self.assertRaisesRegex(ftplib.error_perm, "dangling link", self.f.cwd, "/broken")
        self.assertEqual(self.f.pwd(), "/home")

    def test_error_reply_carries_the_cause_chain(self):
        with self.assertRaises(ftplib.error_perm) as cm:
            self.f.sendcmd("SIZE /missing")
        text = str(cm.exception)
        self.assertRegex(text, r"^550-PATH_NOT_FOUND")
        self.assertIn("GridFTP-Path: not found.", text)
        self.assertRegex(text, r"550 Backend-Detail: no item at /missing$")

    def test_streamed_listing(self):
        names = self.f.nlst("/many")
        self.assertEqual(names, ["file%d" % i for i in range(1000)])
        facts = dict(self.f.mlsd("/many"))
        self.assertEqual(facts["file999"]["size"], "999")

    def test_listing_failing_after_a_batch(self):
        lines = []
        with self.assertRaises(ftplib.error_temp) as cm:
            self.f.retrlines("NLST /fail-late", lines.append)
        self.assertIn("the listing broke off", str(cm.exception))
        self.assertEqual(len(lines), 100)  # the first batch went out before the failure
        self.assertEqual(self.f.pwd(), "/home")

    def test_abor_cancels_the_operation(self):
        # The plug-in sees the cancel from its own thread, without its
        # operation handle, and stops.
        self.f.putcmd("CKSM CAFE 0 -1 /until-cancel")
        self.f.putcmd("ABOR")
        self.assertRaisesRegex(ftplib.error_temp, "^426 Command aborted.$", self.f.getresp)
        self.assertEqual(self.f.getresp(), "226 Abort successful.")
        self.assertEqual(self.f.pwd(), "/home")

    def test_a_plugin_that_does_not_stop_ends_its_session(self):
        self.f.putcmd("CKSM CAFE 0 -1 /stubborn")
        self.f.putcmd("ABOR")
        start = time.monotonic()
        self.assertRaisesRegex(ftplib.error_temp, "^421 The storage did not stop", self.f.getresp)
        self.assertGreaterEqual(time.monotonic() - start, 0.9)  # the grace period, 1 s
        self.assertRaises(EOFError, self.f.getresp)
        self.assertIn("did not stop within 1 s", self.server.read_log())

    def test_transfer_finished_from_another_thread(self):
        out = io.BytesIO()
        self.f.retrbinary("RETR /async", out.write)
        self.assertEqual(out.getvalue(), b"a" * 16384)

    def test_failure_after_data_went_out(self):
        out = io.BytesIO()
        with self.assertRaises(ftplib.error_temp) as cm:
            self.f.retrbinary("RETR /fail-mid", out.write)
        self.assertIn("BACKEND_ERROR", str(cm.exception))
        self.assertEqual(len(out.getvalue()), 16 * 65536)
        self.assertEqual(self.f.pwd(), "/home")

    def test_store_reaches_the_plugin_whole(self):
        data = os.urandom(1234567)
        self.f.storbinary("STOR /anything", io.BytesIO(data))
        out = io.BytesIO()
        self.f.retrbinary("RETR /count", out.write)
        self.assertEqual(int(out.getvalue()), len(data))

    def test_unserved_commands_refused_with_the_plugin_reply(self):
        self.assertRaisesRegex(ftplib.error_perm, "^500 NOT_IMPLEMETED$", self.f.mkd, "/x")
        self.assertRaisesRegex(ftplib.error_perm, "^504", self.f.sendcmd, "SITE RDEL /x")

    def test_refused_session_start(self):
        f = ftplib.FTP(timeout=30)
        f.connect("127.0.0.1", self.server.port)
        with self.assertRaises(ftplib.error_perm) as cm:
            f.login("refuse", "x")
        self.assertTrue(str(cm.exception).startswith("530"), str(cm.exception))
        self.assertIn("this account is disabled", str(cm.exception))
        f.close()


    def test_a_session_start_past_the_login_deadline(self):
        # The plug-in would answer in 60 s: the client has its answer at the
        # login deadline, and the session ends after the grace period.
        srv = own_server(self, dsi="e2etest", config_file=False,
                         extra=["--login-timeout", "1", "--cancel-grace", "1"])
        f = ftplib.FTP(timeout=30)
        f.connect("127.0.0.1", srv.port)
        self.assertRaisesRegex(ftplib.error_temp, "^421 Login time exceeded", f.login,
                               "stubborn", "x")
        self.assertRaises(EOFError, f.getresp)
        f.close()
        self.assertIn("did not stop within 1 s", srv.read_log())


class StartUp(unittest.TestCase):
    def test_bad_command_lines_exit_with_a_message(self):
        import subprocess
        if not SERVER:
            self.skipTest("TARVEX_SERVER_BIN not set")
        # (Unknown options, bad ports and passive ranges are
        # gridftp_server_options_test's.)
        cases = [[], ["--port", "21"], ["--port", "0", "--dsi", "posix"],
                 ["--port", "0", "--dsi", "posix", "--anonymous-map", "--passwd", "/dev/null"],
                 ["--port", "0", "--dsi", "posix", "--anonymous-map", "--tls-cert", "x.pem"],
                 ["--port", "0", "--dsi", "no_such_plugin", "--anonymous-map", "--foreground"],
                 ["--port", "0", "--dsi", "posix", "--passwd", "/no/such/file"],
                 ["--port", "0", "--dsi", "posix", "--anonymous-map", "--login-timeout", "0"],
                 ["--port", "0", "--dsi", "posix", "--anonymous-map",
                  "--max-sessions-per-address", "x"],
                 ["--port", "0", "--dsi", "posix", "--anonymous-map", "--cancel-grace", "-1"]]
        for args in cases:
            r = subprocess.run([SERVER] + args + (["--dsi-path", LIBDIR] if LIBDIR else []),
                               capture_output=True, text=True, timeout=30)
            self.assertEqual(r.returncode, 2, args)
            self.assertTrue(r.stderr.startswith("tarvex-gridftp-server: "), (args, r.stderr))


if __name__ == "__main__":
    unittest.main()
