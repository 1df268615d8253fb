"""tarvex-box-credential against the Box emulator: enrolment, the credential
it hands the plug-in, refresh-token rotation kept before use, one token
request for concurrent renewals, refusals that leave the state file as it
was, and state files that are not the account's own."""

import datetime
import json
import os
import pwd
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from harness import EmulatorCase, wait_for

HERE = os.path.dirname(os.path.abspath(__file__))

HELPER = os.environ.get("TARVEX_BOX_CREDENTIAL", "")
# Enrolment names the account the sessions run as: here, the test's own.
ACCOUNT = pwd.getpwuid(os.geteuid()).pw_name
CLIENT = {"client_id": "app", "client_secret": "app-secret"}
# The date form the plug-in parses: a fraction and a numeric offset.
PLUGIN_DATE = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{1,6}[+-]\d\d:\d\d\Z")
with open(os.path.join(HERE, "box_credential_requests.json")) as f:
    TABLE = {e["name"]: e for e in json.load(f)["requests"]}


@unittest.skipUnless(HELPER and os.path.exists(HELPER), "TARVEX_BOX_CREDENTIAL not built")
class CredentialHelperTest(EmulatorCase):
    def setUp(self):
        super().setUp()
        self.dir = tempfile.mkdtemp(prefix="box-credential-test-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.state_dir = os.path.join(self.dir, "state")
        self.client = self.write_file("client.json", json.dumps(CLIENT))
        self.emu.control("POST", "oauth", {"clients": [CLIENT],
                                           "users": [{"id": "77", "max_upload_size": 123456}]})

    # -- helpers ------------------------------------------------------------

    def write_file(self, name, text, mode=0o600):
        path = os.path.join(self.dir, name)
        with open(path, "w") as f:
            f.write(text)
        os.chmod(path, mode)
        return path

    def args(self, *args):
        return [HELPER, "--state-dir", self.state_dir, "--token-url",
                self.emu.base + "/oauth2/token", "--api-base", self.emu.base, *args]

    def helper(self, *args):
        return subprocess.run(self.args(*args), capture_output=True, text=True, timeout=60)

    def enrol(self, user="alice", lifetime=None, box_user_id=None):
        """Enrols `user` with a refresh token of its own (or the client
        credentials grant); `lifetime`: of the first access token."""
        if lifetime is not None:
            self.emu.control("POST", "oauth", {"next_lifetimes": [lifetime]})
        if box_user_id is not None:
            grant = ["--box-user-id", box_user_id]
        else:
            self.emu.control("POST", "oauth", {"refresh_tokens": [
                {"refresh_token": "r-" + user, "client_id": "app", "user_id": "77"}]})
            grant = ["--refresh-token-file", self.write_file("token-" + user, "r-%s\n" % user)]
        r = self.helper("--enrol", user, "--account", ACCOUNT, "--client", self.client, *grant)
        self.assertEqual(r.returncode, 0, r.stderr)
        return r

    def state_file(self, user="alice"):
        return os.path.join(self.state_dir, user, "credential.json")

    def stored(self, user="alice"):
        with open(self.state_file(user)) as f:
            return json.load(f)

    def snapshot(self, user="alice"):
        path = self.state_file(user)
        st = os.lstat(path)
        with open(path, "rb") as f:
            return f.read(), st.st_mode, st.st_uid, st.st_mtime_ns

    def token_requests(self):
        return [e for e in self.emu.control("GET", "log") if e["path"] == "/oauth2/token"]

    def refresh_states(self):
        return {t: r["state"]
                for t, r in self.emu.control("GET", "oauth")["refresh_tokens"].items()}

    def assertFailsCleanly(self, result, message):
        self.assertEqual((result.returncode, result.stdout), (1, ""), result.stderr)
        self.assertRegex(result.stderr, r"\Atarvex-box-credential: [^\n]*%s[^\n]*\n\Z" % message)

    # -- tests --------------------------------------------------------------

    def test_enrolment_and_the_credential_the_plugin_gets(self):
        enrolled = self.enrol()
        stored = self.stored()
        self.assertIn("enrolled alice: Box user 77 through the refresh_token grant",
                      enrolled.stdout)
        for secret in (stored["access_token"], stored["refresh_token"], CLIENT["client_secret"]):
            self.assertNotIn(secret, enrolled.stdout + enrolled.stderr)
        self.assertEqual((os.stat(self.state_file()).st_mode & 0o777,
                          os.stat(os.path.dirname(self.state_file())).st_mode & 0o777),
                         (0o600, 0o700))
        self.assertEqual(self.refresh_states(),
                         {"r-alice": "spent", stored["refresh_token"]: "active"})

        r = self.helper("alice")
        self.assertEqual(r.returncode, 0, r.stderr)
        doc = json.loads(r.stdout)
        self.assertEqual(sorted(doc), ["access_token", "max_upload", "sub", "token_expiry"])
        self.assertEqual((doc["access_token"], doc["sub"], doc["max_upload"]),
                         (stored["access_token"], "77", 123456))
        self.assertRegex(doc["token_expiry"], PLUGIN_DATE)
        issued = self.emu.control("GET", "oauth")["access_tokens"][doc["access_token"]]
        expiry = datetime.datetime.fromisoformat(doc["token_expiry"]).timestamp()
        self.assertLessEqual(abs(expiry - issued["expires_at"]), 1.5)
        # A fresh token is handed out again without asking Box; the
        # requests made are the ones of the helper's table.
        self.assertEqual(self.helper("alice").stdout, r.stdout)
        log = self.emu.control("GET", "log")
        self.assertEqual([(e["method"], e["path"], e["status"]) for e in log],
                         [("POST", "/oauth2/token", 200), ("GET", "/2.0/users/me", 200)])
        for entry, name in zip(log, ("token_refresh", "users_me")):
            want = TABLE[name]
            self.assertEqual({k: v[0] for k, v in entry["query"].items()}, want["query"])
            self.assertEqual(entry["headers"].get("content-type"), want.get("content_type"))
            self.assertEqual("authorization" in entry["headers"],
                             "Authorization" in want["headers"])

    def test_rotated_refresh_token_is_kept_before_anything_else(self):
        self.enrol(lifetime=60)       # due for renewal at once
        enrolled = self.stored()
        # users/me hangs: the helper is killed after Box rotated the token.
        self.emu.control("POST", "faults", {"path_regex": "^/2.0/users/me$", "delay_ms": 60000})
        proc = subprocess.Popen(self.args("alice"), stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
        try:
            wait_for(lambda: self.stored()["refresh_token"] != enrolled["refresh_token"],
                     "the rotated refresh token in the state file")
        finally:
            proc.send_signal(signal.SIGKILL)
            proc.communicate()
        self.emu.control("DELETE", "faults")
        kept = self.stored()
        self.assertEqual(self.refresh_states(), {"r-alice": "spent",
                                                 enrolled["refresh_token"]: "spent",
                                                 kept["refresh_token"]: "active"})
        self.assertNotEqual(kept["access_token"], enrolled["access_token"])
        # The next call hands out the token obtained before the kill.
        r = self.helper("alice")
        self.assertEqual(json.loads(r.stdout)["access_token"], kept["access_token"], r.stderr)
        self.assertEqual(len(self.token_requests()), 2)

    def test_concurrent_renewals_make_one_token_request(self):
        self.enrol(lifetime=60)
        before = self.stored()["access_token"]
        # The first renewal holds the lock for a second at least.
        self.emu.control("POST", "faults", {"path_regex": "^/oauth2/token$", "delay_ms": 1000})
        procs = [subprocess.Popen(self.args("--renew", "alice"), stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True) for _ in range(2)]
        outs = [p.communicate(timeout=60) for p in procs]
        self.assertEqual([p.returncode for p in procs], [0, 0], outs)
        self.assertEqual(outs[0][0], outs[1][0])
        token = json.loads(outs[0][0])["access_token"]
        self.assertNotEqual(token, before)
        self.assertEqual(token, self.stored()["access_token"])
        self.assertEqual(len(self.token_requests()), 2)    # enrolment and one renewal

    def test_failed_renewals_leave_the_state_file_as_it_was_and_quote_no_secret(self):
        def spend(user):
            # A copy from before a renewal, put back: its refresh token is spent.
            copy = self.snapshot(user)[0]
            self.assertEqual(self.helper("--renew", user).returncode, 0)
            with open(self.state_file(user), "wb") as f:
                f.write(copy)

        def fault(status, body=None):
            doc = {"path_regex": "^/oauth2/token$", "status": status}
            if body is not None:
                doc["body"] = body
            return lambda user: self.emu.control("POST", "faults", doc)

        def malformed(user):
            with open(self.state_file(user), "w") as f:
                f.write('{"x": SECRET-3')

        # What the token endpoint says besides its code, a code that is no
        # code, and what a parser would quote of a malformed file: none of
        # it is written.
        echo = fault(400, {"error": "invalid_grant", "error_description": "unknown SECRET-1"})
        cases = [("spent", spend, (), "invalid_grant; .*spent or revoked"),
                 ("box-down", fault(503), (), "answered HTTP 503"),
                 ("echo", echo, (), "refused the grant: invalid_grant; the refresh token is spent"),
                 ("odd-code", fault(400, {"error": "SECRET-2 was refused"}), (),
                  "refused the grant: \\(an error code that is not one\\)"),
                 ("malformed", malformed, (),
                  "bad state file .*: not JSON \\(line 1, column 12\\)"),
                 ("network", None, ("--token-url", "http://127.0.0.1:9/oauth2/token"),
                  "request failed: .*connect.*POST http://127.0.0.1:9$")]
        for user, prepare, extra, message in cases:
            with self.subTest(user):
                self.enrol(user, lifetime=60)
                if prepare:
                    prepare(user)
                before = self.snapshot(user)
                r = self.helper(*extra, user)
                self.assertFailsCleanly(r, message)
                self.assertNotIn("SECRET", r.stderr)
                self.assertEqual(self.snapshot(user), before)

    def test_state_that_is_not_the_accounts_own_is_refused(self):
        self.enrol()
        folder = os.path.dirname(self.state_file())
        good = self.snapshot()[0]

        def put(text=good, mode=0o600):
            def change():
                with open(self.state_file(), "wb") as f:
                    f.write(text)
                os.chmod(self.state_file(), mode)
            return change

        def link():
            os.replace(self.state_file(), os.path.join(folder, "real.json"))
            os.symlink("real.json", self.state_file())

        cases = [("mode 0640", put(mode=0o640), "has mode 0640"),
                 ("folder 0777", lambda: os.chmod(folder, 0o777), "others must not write"),
                 ("symlink", link, "is a symbolic link"),
                 ("no refresh token", put(json.dumps(dict(json.loads(good), refresh_token=None))
                                          .encode()), "bad state file.*refresh_token")]
        if os.geteuid() == 0:
            cases.append(("other owner", lambda: os.chown(self.state_file(), 65534, 65534),
                          "owned by uid 65534"))
        for name, change, message in cases:
            with self.subTest(name):
                self.emu.control("DELETE", "log")
                change()
                before = os.lstat(self.state_file())
                self.assertFailsCleanly(self.helper("alice"), message)
                after = os.lstat(self.state_file())
                self.assertEqual((after.st_mode, after.st_uid, after.st_mtime_ns),
                                 (before.st_mode, before.st_uid, before.st_mtime_ns))
                self.assertEqual(self.emu.control("GET", "log"), [])
                shutil.rmtree(folder)
                self.enrol()

    def test_enrolment_keeps_the_endpoints_it_was_given(self):
        # The server runs the helper without --token-url and --api-base: a
        # renewal goes where the enrolment's refresh token was issued.
        self.enrol(lifetime=60)
        stored = self.stored()
        self.assertEqual((stored["token_url"], stored["api_base"]),
                         (self.emu.base + "/oauth2/token", self.emu.base))
        no_settings = self.write_file("no-settings.json", "{}", 0o644)
        r = subprocess.run([HELPER, "--config", no_settings, "--state-dir", self.state_dir,
                            "--renew", "alice"], capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertNotEqual(json.loads(r.stdout)["access_token"], stored["access_token"])
        self.assertEqual(len(self.token_requests()), 2)

    def test_client_credentials_grant(self):
        enrolled = self.enrol("svc", lifetime=60, box_user_id="77")
        self.assertIn("Box user 77 through the client_credentials grant", enrolled.stdout)
        stored = self.stored("svc")
        self.assertNotIn("refresh_token", stored)
        self.emu.control("POST", "oauth", {"next_lifetimes": [60]})
        r = self.helper("svc")           # 60 s left: renewed with the same grant
        self.assertEqual(r.returncode, 0, r.stderr)
        doc = json.loads(r.stdout)
        self.assertNotEqual(doc["access_token"], stored["access_token"])
        self.assertEqual((doc["sub"], doc["max_upload"]), ("77", 123456))
        # A token that users/me says is someone else's is never kept.
        before = self.snapshot("svc")
        self.emu.control("POST", "faults", {"path_regex": "^/2.0/users/me$", "status": 200,
                                            "body": {"type": "user", "id": "99",
                                                     "max_upload_size": 1}})
        self.assertFailsCleanly(self.helper("svc"), "token for user 99 instead of 77")
        self.assertEqual(self.snapshot("svc"), before)

    def test_settings_and_bad_invocations(self):
        self.enrol()
        typo = self.write_file("typo.json", '{"token_uri": "https://example.com/"}')
        open_client = self.write_file("open-client.json", json.dumps(CLIENT), 0o644)
        token = self.write_file("token", "x\n")
        open_token = self.write_file("open-token", "x\n", 0o640)
        secret_client = self.write_file("secret-client.json", "[SECRET-4]")
        cases = [(("--token-url", "http://192.0.2.1/oauth2/token", "alice"), 1,
                  "token URL http://192.0.2.1/oauth2/token refused"),
                 (("--api-base", "http://box.example.com", "alice"), 1, "API base .* refused"),
                 (("--config", typo, "alice"), 1, 'unknown key "token_uri"'),
                 (("../alice",), 1, "not a user name"),
                 (("--enrol", "carol", "--client", open_client, "--refresh-token-file", token),
                  1, "client file .* readable by its owner only"),
                 (("--enrol", "carol", "--client", self.client, "--refresh-token-file",
                   open_token), 1, "refresh token file .* readable by its owner only"),
                 (("--enrol", "carol", "--client", secret_client, "--box-user-id", "77"), 1,
                  "client file .*: not JSON \\(line 1, column 7\\)"),
                 (("--enrol", "carol", "--client", self.client, "--refresh-token", "x"), 2,
                  "--refresh-token is gone: .*ps.*--refresh-token-file"),
                 (("--renew", "--enrol", "alice"), 2, "exclude each other")]
        if os.geteuid() == 0:
            # Kept for root, the credential would be refused to the service
            # at the first login.
            cases.append((("--enrol", "carol", "--client", self.client,
                           "--refresh-token-file", token),
                          1, "as root, --enrol needs --account NAME.*tarvex for the packaged"))
        for args, status, message in cases:
            with self.subTest(args):
                r = self.helper(*args)
                self.assertEqual((r.returncode, r.stdout), (status, ""))
                self.assertRegex(r.stderr.splitlines()[0], message)
                self.assertNotIn("SECRET", r.stderr)
        self.assertEqual(len(self.token_requests()), 1)


if __name__ == "__main__":
    unittest.main()
