"""The Box plug-in with its credential from tarvex-box-credential: the server
runs the helper for "creds" and "renew-creds", the helper asks the
emulator's token endpoint (HTTPS, verified with the test CA), and a session
whose first token runs out renews it on the way.  Nothing secret reaches
the server's log, whatever the debug settings."""
import ftplib
import os
import tempfile
import unittest

from harness import (BOX_CREDENTIAL, CHUNKED_MINIMUM, CRASH_SIGNS, BoxCredentialTool, BoxTest,
                     pattern, sha256)

# The plug-in asks for renew-creds when fewer than 100 s remain: a first
# token of 120 s is renewed by an operation about 20 s into the session.
FIRST_LIFETIME = 120


@unittest.skipUnless(BOX_CREDENTIAL and os.path.exists(BOX_CREDENTIAL),
                     "TARVEX_BOX_CREDENTIAL not built")
class CredentialHelperSession(BoxTest):
    https = True
    part_size = 4 << 20

    def setUp(self):
        super().setUp()
        # Each test keeps the helper's state, calls and logs apart.
        self.folder = tempfile.mkdtemp(dir=self.work)
        self.tool = BoxCredentialTool(self.emu, self.folder)
        self.tool.enrol_new_user("anonymous", FIRST_LIFETIME)

    def api_tokens(self, method=None):
        """The bearer token of every API and upload request (or of those of
        `method`), in order."""
        return [e["headers"]["authorization"].split()[-1] for e in self.emu.log()
                if "/2.0/" in e["path"] and e["path"] != "/2.0/users/me"
                and method in (None, e["method"])]

    def secrets(self):
        doc = self.tool.stored("anonymous")
        return {"access token": doc["access_token"], "refresh token": doc["refresh_token"],
                "enrolment refresh token": self.tool.first_refresh_token,
                "client secret": self.tool.client["client_secret"]}

    def start_logging_server(self, box_levels, rest_levels):
        """A server using the helper whose plug-in and REST client write
        their debug lines to files of their own: {name: path}, the
        server's log (with the helper's standard error) among them."""
        logs = {"plug-in debug": os.path.join(self.folder, "box-debug.log"),
                "REST client debug": os.path.join(self.folder, "rest-debug.log")}
        for path in logs.values():
            open(path, "w").close()
        server = self.start_server(creds=self.tool, env={
            "TARVEX_BOX_DEBUG": box_levels + "," + logs["plug-in debug"],
            "TARVEX_DSI_REST_DEBUG": rest_levels + "," + logs["REST client debug"]})
        self.addCleanup(server.stop)
        logs["server"] = server.log_path
        return server, logs

    def assertNoSecrets(self, logs, secrets):
        """No secret in any log; each log shows it was written to."""
        texts = {}
        for name, path in logs.items():
            with open(path, errors="replace") as f:
                texts[name] = f.read()
        self.assertIn("box: TRACE", texts["plug-in debug"])
        self.assertIn("/2.0/folders/", texts["REST client debug"])
        for sign in CRASH_SIGNS:
            self.assertNotIn(sign, texts["server"])
        leaks = {}
        for log, text in texts.items():
            for name, value in secrets.items():
                lines = [line.replace(value, "<%s>" % name)
                         for line in text.splitlines() if value in line]
                if lines:
                    leaks["%s in the %s log" % (name, log)] = lines[:2]
        self.assertEqual(leaks, {})

    def test_session_renews_through_the_helper_and_logs_no_secret(self):
        secrets = self.secrets()
        first = secrets["access token"]
        # Every level of the plug-in's and the REST client's debug output
        # (how the trace hides credential headers is the RestTrace unit's).
        server, logs = self.start_logging_server("ALL", "ALL")
        self.emu.seed({"path": "/keep/a.txt", "content": "hello"})
        f = server.ftp()
        self.addCleanup(f.close)
        self.assertEqual(f.size("/keep/a.txt"), 5)
        # A store of 13 parts taking 2 s each outlasts the first token's
        # 20 s: its parts go on with the second.
        self.emu.fault({"method": "PUT", "path_regex": "/upload_sessions/", "delay_ms": 2000,
                        "count": -1})
        data = pattern(CHUNKED_MINIMUM + 1)
        self.assertEqual(self.store(f, "/long.bin", data), "226 Transfer complete.")
        self.assertEqual(sha256(self.emu.content("/long.bin")), sha256(data))
        self.assertEqual(f.mkd("/after"), "/after")
        self.assertEqual(self.tool.call_log(), ["creds", "renew-creds"])

        renewal = self.secrets()
        second = renewal["access token"]
        self.assertNotEqual(second, first)
        self.assertEqual([e["status"] for e in self.emu.log() if e["path"] == "/oauth2/token"],
                         [200, 200])
        # Every API request carried the first token until the renewal, then
        # the second; the folder made after it, the second.
        tokens = self.api_tokens()
        self.assertEqual(tokens, sorted(tokens, key=[first, second].index))
        self.assertEqual((tokens[0], tokens[-1]), (first, second))
        parts = self.api_tokens("PUT")
        self.assertEqual((parts[0], parts[-1]), (first, second))
        self.assertEqual([e for e in self.emu.log() if e["status"] == 401], [])
        self.assertIn("/after", self.paths())
        self.assertNoSecrets(logs, dict(secrets, **{"second " + k: v
                                                     for k, v in renewal.items()}))

    def test_a_credential_the_helper_refuses_is_not_available(self):
        # Each cause the helper names is pinned by box_credential_test; here
        # the server's side: the login refused, the helper's words logged.
        server = self.start_server(creds=self.tool)
        self.addCleanup(server.stop)
        path = os.path.join(self.tool.state_dir, "anonymous", "credential.json")
        os.chmod(path, 0o644)
        f = ftplib.FTP(timeout=60)
        f.connect("127.0.0.1", server.port)
        with self.assertRaises(ftplib.error_temp) as refused:
            f.login("anonymous", "x")
        f.close()
        self.assertEqual(str(refused.exception), '451-CONFIGURATION_ERROR\n451 Configuration '
                         'data "creds" is not available.')
        log = server.read_log()
        self.assertIn("tarvex-box-credential: anonymous: %s has mode 0644" % path, log)
        self.assertIn("session start for anonymous failed: 451 CONFIGURATION_ERROR: "
                      'Configuration data "creds" is not available.', log)
