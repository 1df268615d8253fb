"""Replies a client acts on, for commands whose arguments sit at the edge
of what the server takes: TYPE L 8, SITE CHMOD 0, an unknown AUTH."""
import ftplib
import os

from harness import ServerTest


class Replies(ServerTest):
    server_args = {"tls": True}

    def test_edge_arguments(self):
        with open(self.local("f.txt"), "wb") as f:
            f.write(b"x")
        ftp = self.server.ftp()
        for cmd, code in (("TYPE L 8", "200"), ("TYPE L 7", "504"), ("AUTH KERBEROS", "504"),
                          ("SITE CHMOD 0 /f.txt", "200")):
            try:
                reply = ftp.sendcmd(cmd)
            except ftplib.Error as e:
                reply = str(e)
            self.assertEqual(reply[:3], code, cmd)
        self.assertEqual(os.stat(self.local("f.txt")).st_mode & 0o7777, 0)
        ftp.quit()
