"""The server against a test plug-in whose answers the posix plug-in never
gives: error replies with cause chains, listings streamed in pauses and
failing half-way, a transfer finished from another thread, a failure after
data went out, refused session starts.  (Progress replies are
test_box_clients', from the Box plug-in; a store reaching its plug-in
whole is every posix and Box upload.)"""
import ftplib
import io
import os
import time
import unittest

from harness import LIBDIR, SERVER, ServerTest, login_cut_at_deadline, own_server


class PluginContract(ServerTest):
    server_args = {"dsi": "e2etest", "config_file": False, "extra": ["--cancel-grace", "1"]}

    @classmethod
    def setUpClass(cls):
        plugin = os.path.join(LIBDIR or "", "libtarvex_gridftp_server_e2etest.so")
        if not os.path.exists(plugin):
            raise unittest.SkipTest("test plug-in not built")
        super().setUpClass()

    def setUp(self):
        self.f = self.server.ftp()

    def tearDown(self):
        self.f.close()
        super().tearDown()

    def test_replies_from_the_plugin(self):
        """Its home folder, its realpath, its error's cause chain as reply
        lines, its refusals of commands it does not serve."""
        self.assertEqual(self.f.pwd(), "/home")
        self.assertIn("CKSM CAFE", self.f.sendcmd("FEAT"))
        steps = [("CWD /link", "250"), ("PWD", '257 "/home"'),
                 ("CWD /broken", "550(?s:.*)dangling link"), ("PWD", '257 "/home"'),
                 ("SIZE /missing", "550-PATH_NOT_FOUND\n(?s:.*)GridFTP-Path: not found\."
                                   "(?s:.*)\n550 Backend-Detail: no item at /missing$"),
                 ("MKD /x", "500 NOT_IMPLEMETED$"), ("SITE RDEL /x", "504")]
        self.walk(steps)

    def test_streamed_listings(self):
        names = self.f.nlst("/many")
        self.assertEqual(names, ["file%d" % i for i in range(1000)])
        facts = dict(self.f.mlsd("/many"))
        self.assertEqual(facts["file999"]["size"], "999")
        # One failing after a batch: the batch went out, then the error.
        lines = []
        with self.assertRaises(ftplib.error_temp) as cm:
            self.f.retrlines("NLST /fail-late", lines.append)
        self.assertIn("the listing broke off", str(cm.exception))
        self.assertEqual(len(lines), 100)
        self.assertEqual(self.f.pwd(), "/home")

    def test_a_plugin_that_does_not_stop_ends_its_session(self):
        self.f.putcmd("CKSM CAFE 0 -1 /stubborn")
        self.f.putcmd("ABOR")
        start = time.monotonic()
        self.assertRaisesRegex(ftplib.error_temp, "^421 The storage did not stop", self.f.getresp)
        self.assertGreaterEqual(time.monotonic() - start, 0.9)  # the grace period, 1 s
        self.assertRaises(EOFError, self.f.getresp)
        self.assertIn("did not stop within 1 s", self.server.read_log())

    def test_transfers_finished_from_other_threads(self):
        out = io.BytesIO()
        self.f.retrbinary("RETR /async", out.write)
        self.assertEqual(out.getvalue(), b"a" * 16384)
        # A failure after data went out.
        out = io.BytesIO()
        with self.assertRaises(ftplib.error_temp) as cm:
            self.f.retrbinary("RETR /fail-mid", out.write)
        self.assertIn("BACKEND_ERROR", str(cm.exception))
        self.assertEqual(len(out.getvalue()), 16 * 65536)
        self.assertEqual(self.f.pwd(), "/home")

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
        login_cut_at_deadline(self, srv.port, "stubborn")
        self.assertIn("did not stop within 1 s", srv.read_log())


class StartUp(unittest.TestCase):
    def test_bad_command_lines_exit_with_a_message(self):
        import subprocess
        if not SERVER:
            self.skipTest("TARVEX_SERVER_BIN not set")
        # (Unknown options, bad ports and passive ranges are
        # gridftp_server_options_test's.)
        cases = [[], ["--port", "21"], ["--port", "0", "--dsi", "posix"],
                 ["--port", "0", "--dsi", "no_such_plugin", "--anonymous-map", "--foreground"],
                 ["--port", "0", "--dsi", "posix", "--passwd", "/no/such/file"]]
        for args in cases:
            r = subprocess.run([SERVER] + args + (["--dsi-path", LIBDIR] if LIBDIR else []),
                               capture_output=True, text=True, timeout=30)
            self.assertEqual(r.returncode, 2, args)
            self.assertTrue(r.stderr.startswith("tarvex-gridftp-server: "), (args, r.stderr))
