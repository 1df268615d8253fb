"""Bad input on the control connection, misbehaving clients and crashed
sessions: the server answers clearly and stays up."""
import ftplib
import io
import os
import pwd
import re
import signal
import socket
import ssl
import threading
import time
import unittest

from harness import (ResumingFTP_TLS, ServerTest, make_hash, own_server, process_gone,
                     session_pids, wait_for)

HUGE = 1 << 40  # a sparse file this big costs nothing to make, hours to hash


class Raw:
    """A control connection driven line by line: replies as raw bytes, so
    that a stray CR or control byte cannot hide."""

    def __init__(self, server, source=None):
        self.sock = socket.create_connection(("127.0.0.1", server.port), timeout=30,
                                             source_address=source)
        self.f = self.sock.makefile("rb")
        self.greeting = self.f.readline()

    def reply(self):
        """One reply, every line, as bytes."""
        lines = [self.f.readline()]
        if lines[0][3:4] == b"-":
            while not lines[-1].startswith(lines[0][:3] + b" ") and lines[-1]:
                lines.append(self.f.readline())
        return b"".join(lines)

    def send(self, line):
        if isinstance(line, str):
            line = line.encode()
        self.sock.sendall(line + b"\r\n")

    def cmd(self, line):
        self.send(line)
        return self.reply()

    def login(self, user=b"anonymous"):
        assert self.cmd(b"USER " + user).startswith(b"331")
        assert self.cmd(b"PASS x").startswith(b"230")
        return self

    def store(self, path, data, before=()):
        """EPSV, the commands `before`, then STOR of `data`; the final reply."""
        port = int(re.search(rb"\|\|\|(\d+)\|", self.cmd("EPSV")).group(1))
        with socket.create_connection(("127.0.0.1", port), timeout=30) as d:
            for line in before:
                self.cmd(line)
            first = self.cmd("STOR " + path)
            if not first.startswith(b"150"):
                return first
            d.sendall(data)
        return self.reply()

    def close(self):
        self.f.close()
        self.sock.close()


def logged_in(server):
    """True when a login and QUIT went through; False when the server
    refused the connection (no session place yet)."""
    try:
        server.ftp().quit()
        return True
    except (ftplib.error_temp, EOFError, ConnectionError):
        return False


def logged_in_raw(server):
    """A logged-in Raw connection, or None when the server refused it."""
    r = Raw(server)
    if r.greeting.startswith(b"220"):
        return r.login()
    r.close()
    return None


class BadInput(ServerTest):
    def send(self, c, data):
        c.sock.sendall(data)
        return c.reply().decode(errors="replace")

    def test_malformed_lines(self):
        c = Raw(self.server)
        self.addCleanup(c.close)
        cases = [
            (b"NOOP " + b"a" * 5000 + b"\r\n", "500"),        # overlong line
            (b"B" * 10000, None),                              # overlong, no end yet
            (b"\r\nNOOP\r\n", "200"),                          # ... and the line after it
            (b"NO\x00OP\r\n", "500"),                          # NUL byte
            (b"XYZZY\r\n", "502"),                             # unknown command
            (b"12345 abc\r\n", "500"),                         # not a command word
            (b"\r\n", "500"),                                  # empty line
            (b"\xff\xf4\xff\xf2NOOP\r\n", "200"),              # Telnet IP + Synch stripped
            (b"noop\n", "200"),                                # lower case, bare LF
        ]
        for data, code in cases:
            c.sock.sendall(data)
            if code is None:
                continue
            if data.startswith(b"\r\nNOOP"):
                self.assertTrue(c.reply().startswith(b"500"))  # for the long line
            self.assertTrue(c.reply().decode().startswith(code), data[:20])

    def test_commands_out_of_order(self):
        c = Raw(self.server)
        self.addCleanup(c.close)
        cases = [(b"PASS x\r\n", "503"), (b"LIST\r\n", "530"), (b"RETR /x\r\n", "530"),
                 (b"CWD /\r\n", "530"), (b"PBSZ 0\r\n", "503"), (b"PROT P\r\n", "503"),
                 (b"AUTH TLS\r\n", "502"), (b"STAT /\r\n", "530")]
        for data, code in cases:
            self.assertTrue(self.send(c, data).startswith(code), data)
        c = Raw(self.server).login()
        self.addCleanup(c.close)
        cases = [(b"RNTO /x\r\n", "503"), (b"RETR /x\r\n", "425"), (b"LIST\r\n", "425"),
                 (b"USER again\r\n", "503"), (b"PORT 10,0,0,1,4,1\r\n", "501"),
                 (b"EPRT |1|10.0.0.1|5000|\r\n", "501"), (b"PORT 127,0,0,1,0,21\r\n", "501"),
                 (b"EPRT |3|x|1|\r\n", "522"), (b"MKD\r\n", "501"),
                 (b"CWD ../../../..\r\n", "250"), (b"PWD\r\n", '257 "/"'),
                 (b"EPSV ALL\r\n", "200"), (b"PASV\r\n", "503"),
                 (b"PORT 127,0,0,1,40,1\r\n", "503"), (b"EPSV\r\n", "229"),
                 # The root folder is the server's to refuse, whatever the plug-in.
                 (b"MKD /\r\n", "550 The root"), (b"RMD /\r\n", "550 The root"),
                 (b"RNFR /\r\n", "550 The root"), (b"RNFR /keep.txt\r\n", "350"),
                 (b"RNTO /\r\n", "553 Cannot rename to the root")]
        open(self.local("keep.txt"), "wb").close()
        for data, code in cases:
            self.assertTrue(self.send(c, data).startswith(code), data)

    def test_pipelined_commands_answered_in_order(self):
        c = Raw(self.server).login()
        self.addCleanup(c.close)
        with open(self.local("pipe.txt"), "wb") as fh:
            fh.write(b"x" * 100)
        c.sock.sendall(b"MKD /pipe\r\nNOOP\r\nCKSM MD5 0 -1 /pipe.txt\r\nSTAT\r\n"
                       b"CWD /pipe\r\nPWD\r\nRMD /pipe\r\nQUIT\r\n")
        codes = [c.reply()[:3] for _ in range(8)]
        self.assertEqual(codes, [b"257", b"200", b"213", b"211", b"250", b"257", b"250", b"221"])

    def test_many_connections_dropped(self):
        for i in range(1000):
            s = socket.create_connection(("127.0.0.1", self.server.port), timeout=10)
            if i % 3 == 1:
                s.sendall(b"USER anonymous\r\nPASS")
            elif i % 3 == 2:
                s.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
            s.close()
        # Sessions end as their clients vanish; a login soon works again.
        deadline = time.time() + 30
        while True:
            try:
                f = self.server.ftp()
                break
            except (OSError, EOFError, Exception):
                if time.time() > deadline:
                    raise
                time.sleep(0.2)
        self.assertEqual(f.pwd(), "/")
        f.quit()

    def test_crashed_session_leaves_listener_up(self):
        c = Raw(self.server).login(b"crasher")
        self.addCleanup(c.close)
        pid = session_pids(self.server, "crasher logged in")[-1]
        os.kill(pid, signal.SIGSEGV)
        self.assertEqual(c.f.readline(), b"")  # that client lost its session
        # (under AddressSanitizer the crash ends in abort(): any signal will do)
        wait_for(lambda: re.search(r"session %d ended by signal \d+" % pid,
                                   self.server.read_log()), "the listener to reap the session")
        f = self.server.ftp()
        f.quit()


class Shutdown(unittest.TestCase):
    def test_stopping_ends_sessions_cleanly(self):
        srv = own_server(self)
        with open(os.path.join(srv.root, "long.bin"), "wb") as fh:
            fh.truncate(1 << 30)
        f = srv.ftp()
        conn = f.transfercmd("RETR /long.bin")
        conn.recv(1000)
        start = time.time()
        srv.proc.terminate()
        self.assertEqual(srv.proc.wait(timeout=20), 0)
        self.assertLess(time.time() - start, 4)  # no session needed killing
        # The session stopped its transfer and closed the plug-in's session.
        self.assertRegex(srv.read_log(), r"RETR /long\.bin from 0: \d+ bytes .*\(failed\)")
        self.assertRegex(srv.read_log(), r"\[\d+\]: anonymous logged out \(SIGTERM\)")
        conn.close()
        f.close()

    def test_sigterm_stops_a_checksum(self):
        srv = own_server(self, extra=["--cancel-grace", "3"])
        with open(os.path.join(srv.root, "huge.bin"), "wb") as f:
            f.truncate(HUGE)
        c = Raw(srv).login()
        self.addCleanup(c.close)
        start_checksum(self, c)
        srv.proc.terminate()
        self.assertEqual(srv.proc.wait(timeout=30), 0)
        # The session stopped the plug-in and ended by itself: the
        # listener did not have to kill it.
        self.assertIn("stopped, every session ended", srv.read_log())


class Limits(unittest.TestCase):
    def test_idle_timeout_and_session_limit(self):
        srv = own_server(self, extra=["--idle-timeout", "1", "--max-sessions", "2"])
        a = Raw(srv).login()
        b = Raw(srv).login()
        s = socket.create_connection(("127.0.0.1", srv.port), timeout=10)
        self.assertTrue(s.makefile("rb").readline().startswith(b"421"))
        s.close()
        self.assertTrue(a.reply().startswith(b"421 Idle timeout"))
        self.assertTrue(b.reply().startswith(b"421 Idle timeout"))
        # A login works once the listener has reaped both sessions.
        wait_for(lambda: logged_in(srv), "a session place to be free")
        self.assertTrue(srv.alive())


class ClientNumbers(ServerTest):
    """Offsets, sizes and addresses from clients are range-checked, and a
    restart offset is for the very next transfer only."""

    def setUp(self):
        self.c = Raw(self.server).login()
        self.addCleanup(self.c.close)

    def test_a_refused_offset_is_not_kept(self):
        # Which numbers are refused is pinned by gridftp_server_parse_test.
        self.assertTrue(self.c.cmd("REST 9223372036854775807").startswith(b"501"))
        self.assertTrue(self.c.store("/x", b"abc").startswith(b"226"))
        with open(self.local("x"), "rb") as f:
            self.assertEqual(f.read(), b"abc")

    def test_restart_beyond_the_end_is_refused(self):
        with open(self.local("short.txt"), "wb") as f:
            f.write(b"12345")
        for path, offset in (("/h", HUGE), ("/short.txt", 6)):
            reply = self.c.store(path, b"x", ["REST %d" % offset])
            self.assertTrue(reply.startswith(b"554"), reply)
        self.assertFalse(os.path.exists(self.local("h")))
        with open(self.local("short.txt"), "rb") as f:
            self.assertEqual(f.read(), b"12345")
        # At the end exactly it appends, as a resumed upload does.
        self.assertTrue(self.c.store("/short.txt", b"678", ["REST 5"]).startswith(b"226"))
        with open(self.local("short.txt"), "rb") as f:
            self.assertEqual(f.read(), b"12345678")

    def test_restart_offset_is_for_the_next_transfer_only(self):
        # Every command ends by dropping the offset, the unknown ones too
        # (a listing in between as well: the session drops it the same way).
        for between in ("SIZE /old.txt", "XYZZY"):
            with open(self.local("old.txt"), "wb") as f:
                f.write(b"OLD-CONTENT-TAIL")
            for path in ("/new.txt", "/old.txt"):
                reply = self.c.store(path, b"NEWDATA", ["REST 5", between])
                self.assertTrue(reply.startswith(b"226"), reply)
                with open(self.local(path[1:]), "rb") as f:
                    self.assertEqual(f.read(), b"NEWDATA", (between, path))
            os.unlink(self.local("new.txt"))


def start_checksum(test, c):
    """A checksum of /huge.bin (a 1 TiB sparse file): a long plug-in call,
    under way once its first progress reply came.  How ABOR stops one is
    pinned by test_server_plugin_contract (test_abor_cancels_the_operation)
    and gridftp_server_cancel_test (PosixCancel)."""
    c.cmd("OPTS CKSM INTERVAL=1")
    c.send("CKSM MD5 0 -1 /huge.bin")
    test.assertTrue(c.reply().startswith(b"113"))


class Cancelling(ServerTest):
    """A client that leaves in the middle of a long plug-in call."""
    server_args = {"extra": ["--cancel-grace", "3"]}

    def test_a_client_leaving_ends_its_session(self):
        with open(self.local("huge.bin"), "wb") as f:
            f.truncate(HUGE)
        c = Raw(self.server).login(b"leaver")
        pid = session_pids(self.server, "leaver logged in")[-1]
        start_checksum(self, c)
        c.close()
        wait_for(lambda: process_gone(pid), "the session to end")
        self.assertNotIn("did not stop", self.server.read_log())


class Strangers(unittest.TestCase):
    """Connections that never log in hold a session place only until the
    login deadline, and only until a new connection finds no place left:
    a flood of them cannot keep out a client that logs in."""

    def test_login_deadline_and_sessions_per_address(self):
        srv = own_server(self, extra=["--login-timeout", "2", "--max-sessions-per-address", "2"])
        member = srv.ftp()
        first = Raw(srv)
        stranger = Raw(srv)  # takes the place of the first stranger
        self.assertTrue(stranger.greeting.startswith(b"220"), stranger.greeting)
        self.assertEqual(first.f.readline(), b"")
        first.close()
        other = Raw(srv, source=("127.0.0.2", 0))  # another address is served
        self.assertTrue(other.greeting.startswith(b"220"), other.greeting)
        other.close()
        # NOOPs do not keep the stranger's place.
        start = time.monotonic()
        reply = b""
        while not reply.startswith(b"421"):
            reply = stranger.cmd("NOOP")
            if reply.startswith(b"200"):
                self.assertLess(time.monotonic() - start, 30, "no deadline")
                self.assertEqual(member.sendcmd("NOOP"), "200 NOOP ok.")
                time.sleep(0.2)
        self.assertIn(b"Login time exceeded", reply)
        self.assertGreaterEqual(time.monotonic() - start, 1.5)
        stranger.close()
        # The logged-in session is past the deadline and goes on; two of
        # them fill their address's share.
        self.assertEqual(member.sendcmd("NOOP"), "200 NOOP ok.")
        second = wait_for(lambda: logged_in_raw(srv), "a place for a second login")
        refused = Raw(srv)
        self.assertTrue(refused.greeting.startswith(b"421"), refused.greeting)
        self.assertIn(b"address", refused.greeting)
        refused.close()
        second.close()
        member.quit()

    def test_a_flood_of_strangers(self):
        srv = own_server(self, extra=["--max-sessions", "8", "--login-timeout", "600"])
        member = srv.ftp()
        # Seven strangers from three addresses fill the places.
        flood = [Raw(srv, source=("127.0.0.%d" % (2 + i % 3), 0)) for i in range(7)]
        client = Raw(srv, source=("127.0.0.9", 0))
        # The flood goes on while the client logs in: six strangers are
        # left, so some address always holds more of them than the
        # client's does, and they give up their places first.
        flood += [Raw(srv, source=("127.0.0.%d" % (2 + i % 3), 0)) for i in range(6)]
        self.assertEqual({r.greeting[:4] for r in flood + [client]}, {b"220 "})
        self.assertTrue(client.login())
        self.assertEqual(member.sendcmd("NOOP"), "200 NOOP ok.")
        ended = re.findall(r"ending session \d+ from (\S+), not logged in", srv.read_log())
        self.assertEqual(len(ended), 7, srv.read_log())
        self.assertNotIn("127.0.0.9", ended)
        self.assertEqual(flood[0].f.readline(), b"")  # the oldest went first
        for r in flood + [client]:
            r.close()
        member.quit()


class ProtectedData(ServerTest):
    """Under PROT P the data go only to the client that holds the control
    connection: its data connection must resume that connection's TLS
    session."""
    server_args = {"tls": True}

    def tls_login(self, version):
        ctx = ssl.create_default_context(cafile=self.server.ca)
        ctx.maximum_version = version
        return self.server.ftp(context=ctx)

    def test_data_go_only_to_the_session_holder(self):
        content = os.urandom(300000)
        with open(self.local("secret.bin"), "wb") as f:
            f.write(content)
        # TLS 1.3 resumes by ticket; TLS 1.2 by ticket or by session id.
        for version in (ssl.TLSVersion.TLSv1_3, ssl.TLSVersion.TLSv1_2):
            owner = self.tls_login(version)
            other = self.tls_login(version)  # the intruder's own login
            other.voidcmd("NOOP")
            for name, session in (("a new TLS session", None),
                                  ("the TLS session of its own login", other.sock.session)):
                got, stolen = self.retrieve_beside_an_intruder(owner, other.context, session)
                self.assertEqual(stolen, [b""], (version, name))
                self.assertEqual(got, content, (version, name))
            owner.quit()
            other.quit()
        self.assertIn("data connection refused", self.server.read_log())

    def retrieve_beside_an_intruder(self, owner, context, session):
        """RETR /secret.bin by `owner` while another connection, made
        first, handshakes with `context` and `session`: what each got."""
        host, port = owner.makepasv()
        intruder = socket.create_connection((host, port), timeout=30)  # first in line
        stolen = []

        def intrude():
            try:
                t = context.wrap_socket(intruder, server_hostname="127.0.0.1", session=session)
                stolen.append(t.recv(65536))
            except (OSError, ssl.SSLError):
                stolen.append(b"")

        thread = threading.Thread(target=intrude)
        thread.start()
        conn = socket.create_connection((host, port), timeout=30)
        self.assertTrue(owner.sendcmd("RETR /secret.bin").startswith("150"))
        conn = owner.context.wrap_socket(conn, server_hostname="127.0.0.1",
                                         session=owner.sock.session)
        got = b""
        while True:
            block = conn.recv(65536)
            if not block:
                break
            got += block
        conn.close()
        self.assertTrue(owner.voidresp().startswith("226"))
        thread.join(timeout=30)
        intruder.close()
        return got, stolen

    def test_a_client_that_cannot_resume(self):
        with open(self.local("pub.txt"), "wb") as f:
            f.write(b"public")
        plain = ftplib.FTP_TLS(context=ssl.create_default_context(cafile=self.server.ca),
                               timeout=30)
        plain.connect("127.0.0.1", self.server.port)
        plain.login("anonymous", "x")
        plain.prot_p()
        with self.assertRaisesRegex(ftplib.error_temp, "^425 .*not resumed"):
            plain.retrbinary("RETR /pub.txt", lambda b: self.fail("data went out"))
        plain.quit()
        # An operator can let such clients in.
        srv = own_server(self, tls=True, extra=["--tls-data-any-session"])
        plain = ftplib.FTP_TLS(context=ssl.create_default_context(cafile=srv.ca),
                               timeout=30)
        plain.connect("127.0.0.1", srv.port)
        plain.login("anonymous", "x")
        plain.prot_p()
        plain.storbinary("STOR /any.txt", io.BytesIO(b"allowed"))
        with open(os.path.join(srv.root, "any.txt"), "rb") as f:
            self.assertEqual(f.read(), b"allowed")
        plain.quit()


class ProtectedDataOfOneUser(ServerTest):
    """With a password file, a data connection may also resume a TLS
    session given to another control connection of the same user (clients
    that pool connections share one session cache), even one still logging
    in; another user's, or that of a connection that never logs in, does not
    let it in."""

    @classmethod
    def setUpClass(cls):
        me = pwd.getpwuid(os.geteuid()).pw_name
        cls.server_args = {"tls": True, "passwd": "".join(
            "%s:%s:%s\n" % (user, make_hash(user), me) for user in ("alice", "bob"))}
        super().setUpClass()

    def control(self, ctx, user=None):
        f = ResumingFTP_TLS(context=ctx, timeout=30)
        f.connect("127.0.0.1", self.server.port)
        f.auth()
        f.sendcmd("PBSZ 0")
        if user is not None:
            f.login(user, user)
        return f

    def test_sessions_of_one_user(self):
        with open(self.local("secret.bin"), "wb") as f:
            f.write(b"alice's")
        # One context for every connection, as a client with one session
        # cache has.
        ctx = ssl.create_default_context(cafile=self.server.ca)
        owner = self.control(ctx, "alice")
        owner.prot_p()
        # The other control connection's user, whether it has logged in
        # before the data connection resumes its session (else it logs in
        # while the server checks), and whether the data go out.
        cases = (("alice", True, True), ("alice", False, True), ("bob", True, False),
                 (None, True, False))
        for who, first, admitted in cases:
            other = self.control(ctx, who if first else None)
            session = other.sock.session
            self.assertTrue(session.has_ticket, who)
            if who is None:
                other.close()  # never logs in
            host, port = owner.makepasv()
            conn = socket.create_connection((host, port), timeout=30)
            self.assertTrue(owner.sendcmd("RETR /secret.bin").startswith("150"))
            conn = owner.context.wrap_socket(conn, server_hostname="127.0.0.1", session=session)
            if not first:
                other.login(who, who)
            got = conn.recv(100)
            conn.close()
            if admitted:
                self.assertEqual(got, b"alice's", (who, first))
                self.assertTrue(owner.voidresp().startswith("226"))
            else:
                self.assertEqual(got, b"", who)
                self.assertRaisesRegex(ftplib.error_temp, "^425 .*not resumed", owner.voidresp)
            other.close()
        owner.quit()


class Names(ServerTest):
    """Names that cannot be written on one line stay out of listings;
    replies and the log never carry a client's control characters."""

    def test_unlistable_names_are_left_out(self):
        folder = self.local("names")
        os.mkdir(folder)
        for name in ("fine.txt", "evil\r\n226 forged.txt", "esc\x1b[2J.txt", "tab\there"):
            open(os.path.join(folder, name), "wb").close()
        os.symlink("x\ry", os.path.join(folder, "link"))
        f = self.server.ftp()
        lines = []
        f.retrlines("LIST /names", lines.append)
        self.assertEqual([l.split()[-1] for l in lines], ["fine.txt"], lines)
        self.assertEqual(f.nlst("/names"), ["fine.txt"])
        self.assertEqual([n for n, _ in f.mlsd("/names")], [".", "fine.txt"])
        self.assertEqual(f.sendcmd("STAT /names").count("fine.txt"), 1)
        self.assertNotIn("forged", f.sendcmd("STAT /names"))
        f.quit()
        log = self.server.read_log()
        self.assertIn("left out of the listing of /names", log)
        self.assertIn("evil\\x0d\\x0a226 forged.txt", log)
        self.assertNotIn("\x1b", log)

    def test_control_characters_from_clients(self):
        c = Raw(self.server)
        self.addCleanup(c.close)
        reply = c.cmd(b"USER e\xc2\x9bvil\xc0\xaf")
        self.assertTrue(reply.startswith(b"331"), reply)
        self.assertNotIn(b"\xc2\x9b", reply)
        self.assertTrue(c.cmd(b"PASS x").startswith(b"230"))
        for line in (b"RETR /a\rb", b"MKD /x\x1b[2J", b"CWD /\x7f", b"USER a\rb"):
            reply = c.cmd(line)
            self.assertTrue(reply.startswith(b"501"), (line, reply))
            self.assertEqual(reply.count(b"\r"), 1, reply)  # only the line's end
        # A path the storage repeats in its error reply (C1 CSI in UTF-8).
        reply = c.cmd(b"DELE /x\xc2\x9b1m")
        self.assertTrue(reply.startswith(b"550"), reply)
        self.assertNotIn(b"\xc2\x9b", reply)
        self.assertEqual(os.listdir(self.server.root), [])
        log = self.server.read_log()
        self.assertIn(r"e\xc2\x9bvil\xc0\xaf logged in", log)
        self.assertNotIn("\x9b", log)


class DataConnections(ServerTest):
    server_args = {"tls": True, "extra": ["--pasv-range", "40100-40119"]}

    def test_passive_ports_from_the_range(self):
        f = self.server.ftp()
        ports = []
        for _ in range(5):
            h = f.sendcmd("PASV")
            nums = h[h.index("(") + 1:h.index(")")].split(",")
            ports.append(int(nums[4]) * 256 + int(nums[5]))
        self.assertTrue(all(40100 <= p <= 40119 for p in ports), ports)
        f.quit()

    def test_client_dropping_the_data_connection(self):
        with open(self.local("drop.bin"), "wb") as fh:
            fh.truncate(256 * 1024 * 1024)
        f = self.server.ftp()
        conn = f.transfercmd("RETR /drop.bin")
        conn.recv(1000)
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\x00\x00\x00\x00\x00\x00\x00")
        conn.close()  # a reset, mid-transfer
        with self.assertRaises(ftplib.error_temp) as cm:
            f.voidresp()
        self.assertIn("426", str(cm.exception))
        self.assertEqual(f.pwd(), "/")
        f.quit()

    def test_abort_during_upload(self):
        f = self.server.ftp()
        conn = f.transfercmd("STOR /partial.bin")
        conn.sendall(os.urandom(1 << 20))
        resp = f.abort()
        conn.close()
        self.assertTrue(resp.startswith("426"), resp)
        self.assertTrue(f.getresp().startswith("226"))
        self.assertLessEqual(os.path.getsize(self.local("partial.bin")), 1 << 20)
        f.storbinary("STOR /after.bin", io.BytesIO(b"fine"))
        with open(self.local("after.bin"), "rb") as fh:
            self.assertEqual(fh.read(), b"fine")
        f.quit()

    def test_garbage_instead_of_a_tls_handshake(self):
        c = Raw(self.server)
        self.assertTrue(c.cmd("AUTH TLS").startswith(b"234"))
        c.sock.sendall(b"USER anonymous\r\nPASS x\r\n" * 10)
        try:
            rest = c.f.read()
        except ConnectionResetError:
            rest = b""
        self.assertEqual(rest, b"")  # the session ends, nothing answered in the clear
        c.close()
        f = self.server.ftp(tls=True)
        f.quit()


if __name__ == "__main__":
    unittest.main()
