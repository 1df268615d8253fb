"""A login whose Box answer trickles in is answered at the login deadline;
a login that cannot reach Box is refused.  Either way the log names the
Box host and the cause."""
import ftplib
import socket
import unittest

from harness import BoxTest, wait_for


class LoginDeadline(BoxTest):
    server_extra = ("--login-timeout", "2")

    def test_trickling_box_answer(self):
        # The root listing a login reads, at 2 bytes a second: 20 minutes.
        self.emu.seed(*({"path": "/name-%03d.bin" % i, "size": 1} for i in range(20)))
        self.emu.fault({"method": "GET", "path_regex": "^/2.0/folders/0/items$",
                        "throttle_bps": 2, "count": -1})
        f = ftplib.FTP(timeout=60)
        f.connect("127.0.0.1", self.server.port)
        self.assertRaisesRegex(ftplib.error_temp, "^421 Login time exceeded", f.login,
                               "anonymous", "x")
        self.assertRaises(EOFError, f.getresp)
        f.close()
        wait_for(lambda: "session start for anonymous timed out after 2 s (--login-timeout): "
                 "The operation was cancelled: GET %s/2.0/folders/0/items" % self.emu.base
                 in self.server.read_log(), "the cause in the log")
        self.emu.control("DELETE", "faults")
        self.ftp().quit()  # the next login is served

    def test_box_refusing_connections(self):
        with socket.socket() as s:   # a port nobody listens on
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
        base = "http://127.0.0.1:%d" % port
        server = self.start_server(env={"TARVEX_BOX_API_BASE": base,
                                        "TARVEX_BOX_UPLOAD_BASE": base})
        self.addCleanup(server.stop)
        f = ftplib.FTP(timeout=60)
        f.connect("127.0.0.1", server.port)
        self.assertRaisesRegex(ftplib.error_perm, "^530 Couldn't connect to server", f.login,
                               "anonymous", "x")
        f.close()
        self.assertIn("session start for anonymous failed: 530 Couldn't connect to server "
                      "(Failed to connect to 127.0.0.1 port %d" % port, server.read_log())


if __name__ == "__main__":
    unittest.main()
