"""Uploads over explicit TLS (TLS 1.3) by clients that end their data
connections without close_notify (Debian's ftp-ssl, Python closing without
unwrap()), and --tls-strict-eof.  rclone's pooled TLS connections are in
test_box_many_sessions."""
import io
import os
import shutil
import ssl
import subprocess
import unittest

from harness import BoxTest, reply_of, wait_for, write_random


def tls13_login(server):
    ctx = ssl.create_default_context(cafile=server.ca)
    ctx.minimum_version = ssl.TLSVersion.TLSv1_3
    return server.ftp(context=ctx)


def store_and_drop(f, path, data, allo=False):
    """STOR whose data connection ends with a bare TCP FIN (close() without
    unwrap()): no TLS close_notify.  The final reply's text."""
    if allo:
        f.sendcmd("ALLO %d" % len(data))
    conn = f.transfercmd("STOR " + path)
    conn.sendall(data)
    conn.close()
    return reply_of(f.voidresp)


class TlsClients(BoxTest):
    tls = True

    servers = 0

    @classmethod
    def start_server(cls, extra=(), **kw):
        cls.servers += 1
        log = os.path.join(cls.work, "xfer-%d.log" % cls.servers)
        server = super().start_server(extra=["--transfer-log", log] + list(extra), **kw)
        server.transfer_log = log
        return server

    def transfer_log(self, server, lines=0):
        """The transfer log's lines, once it has at least `lines`."""
        def read():
            got = []
            if os.path.exists(server.transfer_log):
                with open(server.transfer_log) as f:
                    got = f.read().splitlines()
            return got if len(got) >= lines else None
        return wait_for(lambda: read() is not None, "transfer log lines") and read()

    def test_ftp_ssl_uploads(self):
        if shutil.which("ftp-ssl") is None:
            self.skipTest("ftp-ssl is not installed")
        src = self.local("f.bin")
        write_random(src, 3 << 20, seed=7)
        with open(src, "rb") as f:
            data = f.read()
        script = "user anonymous x\nbinary\n" + "".join(
            "put f.bin /f%d.bin\n" % i for i in range(8)) + "quit\n"
        r = subprocess.run(["ftp-ssl", "-n", "-p", "-v", "-z", "secure",
                            "-z", "cacert=" + self.server.ca, "127.0.0.1", str(self.server.port)],
                           input=script, capture_output=True, text=True, cwd=self.work,
                           timeout=300)
        self.assertEqual(r.stdout.count("226 Transfer complete"), 8, r.stdout + self.diagnostics())
        self.assertFiles({"/f%d.bin" % i: data for i in range(8)})

    def test_python_closing_without_unwrap(self):
        logged = len(self.transfer_log(self.server))
        f = tls13_login(self.server)
        data = os.urandom(1 << 20)
        for i in range(24):
            self.assertTrue(store_and_drop(f, "/p%d.bin" % i, data).startswith("226"), i)
        # An end with close_notify (storbinary unwraps) is not marked.
        self.assertTrue(f.storbinary("STOR /clean.bin", io.BytesIO(data)).startswith("226"))
        f.quit()
        expected = {"/p%d.bin" % i: data for i in range(24)}
        expected["/clean.bin"] = data
        self.assertFiles(expected)
        log = self.server.read_log()
        self.assertRegex(log, r"STOR /p23\.bin .*\(end unconfirmed: no TLS close_notify\)")
        self.assertRegex(log, r"STOR /clean\.bin from 0: \d+ bytes in \d+ ms\n")
        lines = self.transfer_log(self.server, logged + 25)
        self.assertTrue(lines[-2].endswith(" /p23.bin b _ i a anonymous ftp 0 * c end-unconfirmed"),
                        lines[-2])
        self.assertTrue(lines[-1].endswith(" * c"), lines[-1])

    def test_strict_eof(self):
        server = self.start_server(extra=["--tls-strict-eof"])
        self.addCleanup(server.stop)
        f = tls13_login(server)
        data = os.urandom(300000)
        self.assertRegex(store_and_drop(f, "/cut.bin", data), "^426 .*without TLS close_notify")
        # An announced size makes the count the check.
        self.assertTrue(store_and_drop(f, "/sized.bin", data, allo=True).startswith("226"))
        self.assertTrue(f.storbinary("STOR /clean.bin", io.BytesIO(data)).startswith("226"))
        f.quit()
        self.assertFiles({"/sized.bin": data, "/clean.bin": data})
        self.assertEqual(self.transfer_log(server, 3)[0][-2:], " i")


if __name__ == "__main__":
    unittest.main()
