"""A login whose Box answer trickles in is answered at the login deadline."""
import ftplib
import unittest

from box_harness import BoxTest


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
        self.emu.clear_faults()
        self.ftp().quit()  # the next login is served


if __name__ == "__main__":
    unittest.main()
