"""The server's configuration as an operator meets it: settings from a
--config file under the command line's; --check-config and the start
refusing what a session would refuse, each problem named by file, line and
key; and SIGHUP reading the file, the TLS certificate and key and the Box
policy again for new sessions, keeping the old when the new is bad."""
import json
import os
import shutil
import signal
import subprocess
import tempfile
import unittest

from harness import LIBDIR, SERVER, BoxServer, BoxTest, make_hash, make_tls_files, run, wait_for


def write(path, text, mode=0o644):
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, mode)
    return path


@unittest.skipUnless(SERVER and LIBDIR, "the server and the Box plug-in are not built")
class StartChecks(unittest.TestCase):
    """What --check-config says, and that the start refuses the same."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="tarvex-e2e-config-")
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.policy = write(os.path.join(self.dir, "policy.json"),
                            '{\n  "user_api_rate_limit": 16\n}\n')
        self.ca, self.cert, self.key = make_tls_files(self.dir)
        os.chmod(self.cert, 0o644)
        self.passwd = write(os.path.join(self.dir, "passwd"), "alice:%s\n" % make_hash("pw"))

    def conf(self, *lines):
        return write(os.path.join(self.dir, "server.conf"), "".join(
            line + "\n" for line in ("port = 0", "dsi = box", "dsi-path = " + LIBDIR,
                                     "passwd = " + self.passwd,
                                     "config-file = config=" + self.policy) + lines))

    def server(self, *args):
        command = [SERVER, "--config", os.path.join(self.dir, "server.conf")] + list(args)
        return subprocess.run(command, capture_output=True, text=True, timeout=60)

    def test_problems_name_their_file_line_and_key(self):
        # Each case breaks a fresh set of files: (lines for the file, message).
        # A bad value in the file is gridftp_server_options_test's; the
        # policy's other mistakes box_frame_load_test's.
        def policy_type():
            write(self.policy, '{\n  "user_api_rate_limit": "16"\n}\n')
            return (), ('%s:2: "user_api_rate_limit": Error unpacking collection storage '
                        'policy: Expected integer, got string (configuration data "config")'
                        % self.policy)

        def bare_login():
            write(self.passwd, "# logins\nalice:\n")
            return (), ("password file %s:2: alice: no password hash (expected "
                        "login:hash[:account])" % self.passwd)

        def key_missing():
            os.unlink(self.key)
            return (("tls-cert = " + self.cert, "tls-key = " + self.key),
                    "cannot read TLS key %s: No such file or directory" % self.key)

        for case in (policy_type, bare_login, key_missing):
            with self.subTest(case.__name__):
                self.setUp()
                lines, message = case()
                self.conf(*lines)
                for args in (("--check-config",), ("--foreground",)):
                    r = self.server(*args)
                    self.assertEqual(r.returncode, 2, r.stdout + r.stderr)
                    self.assertIn("tarvex-gridftp-server: " + message + "\n", r.stderr)


class Reload(BoxTest):
    """One server whose TLS settings come from a --config file, changed
    and signalled step by step."""

    @classmethod
    def start_server(cls, extra=(), **kw):
        cls.tls_a = make_tls_files(tempfile.mkdtemp(dir=cls.work))
        cls.tls_b = make_tls_files(tempfile.mkdtemp(dir=cls.work))
        cls.cert = os.path.join(cls.work, "server.pem")
        cls.key = os.path.join(cls.work, "server.key")
        cls.use_certificate(cls.tls_a)
        cls.conf = os.path.join(cls.work, "server.conf")
        cls.write_conf("idle-timeout = 900")
        return BoxServer(cls.emu, extra=["--config", cls.conf] + list(extra), **kw)

    @classmethod
    def use_certificate(cls, files):
        shutil.copy(files[1], cls.cert)
        shutil.copy(files[2], cls.key)

    @classmethod
    def write_conf(cls, *lines):
        write(cls.conf, "# TLS for every login\ntls-cert = %s\ntls-key = %s\nrequire-tls = true\n"
              % (cls.cert, cls.key) + "".join(line + "\n" for line in lines))

    def list_root(self, ca):
        return run(["curl", "-sS", "--ssl-reqd", "--cacert", ca, "--user", "anonymous:x",
                    "--max-time", "60", self.server.url("/")])

    def reload(self, expect):
        """SIGHUP, then the listening process's next line about it."""
        before = self.server.read_log().count("tarvex-gridftp-server: configuration ")
        self.server.proc.send_signal(signal.SIGHUP)

        def logged():
            lines = [line for line in self.server.read_log().splitlines()
                     if line.startswith("tarvex-gridftp-server: configuration ")]
            return lines[before:] if len(lines) > before else None
        lines = wait_for(logged, "the reload's log line")
        self.assertIn(expect, "\n".join(lines))

    def test_sighup_takes_a_new_certificate_and_keeps_what_is_bad(self):
        ca_a, ca_b = self.tls_a[0], self.tls_b[0]
        r = self.list_root(ca_a)
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        r = run(["curl", "-sS", "--user", "anonymous:x", self.server.url("/")])
        self.assertIn("530", r.stderr)   # require-tls, from the file

        self.use_certificate(self.tls_b)
        self.write_conf("idle-timeout = 600")
        self.reload("configuration read again: idle-timeout: 900 -> 600")
        r = self.list_root(ca_b)
        self.assertEqual(r.returncode, 0, r.stderr + self.diagnostics())
        self.assertNotEqual(self.list_root(ca_a).returncode, 0)   # the old certificate is gone

        # A policy the plug-in would refuse, then a bad line in the file:
        # each is named, and logins go on with what was read before.
        policy = os.path.join(self.server.work, "policy.json")
        write(policy, '{"user_api_rate_limit": 100')
        self.reload("configuration not read again, the old one stays: %s:1:" % policy)
        self.assertEqual(self.list_root(ca_b).returncode, 0, self.diagnostics())
        # One SIGHUP, one reading, however many logins come after it.
        self.assertEqual(self.server.read_log().count("configuration not read again"), 1)
        write(policy, json.dumps({"user_api_rate_limit": 100}))
        self.write_conf("idle-timeout = soon")
        self.reload('the old one stays: %s:5: idle-timeout: bad value "soon"' % self.conf)
        self.assertEqual(self.list_root(ca_b).returncode, 0, self.diagnostics())
