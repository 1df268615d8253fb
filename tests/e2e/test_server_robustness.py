"""Bad input on the control connection, misbehaving clients and crashed
sessions: the server answers clearly and stays up."""
import ftplib
import os
import re
import signal
import socket
import ssl
import threading
import time
import unittest

from harness import ServerTest, own_server, process_gone, session_pids, tear_down, wait_for

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
    except (ftplib.error_temp, EOFError, OSError):
        return False


def read_file(path):
    """The file's bytes, None when there is none."""
    try:
        with open(path, "rb") as f:
            return f.read()
    except FileNotFoundError:
        return None


def logged_in_raw(server):
    """A logged-in Raw connection, or None when the server refused it."""
    r = Raw(server)
    if r.greeting.startswith(b"220"):
        return r.login()
    r.close()
    return None


# One connection's walk: each line sent, the reply it must get.  How lines
# are split, cleaned and limited is gridftp_server_parse_test's; here is
# what the session answers to each kind, before and after a login.
STEPS = [
    (b"NOOP " + b"a" * 5000, b"500"),                   # longer than a line may be
    (b"NO\x00OP", b"500"),                              # NUL byte
    (b"XYZZY", b"502"),                                 # unknown command
    (b"12345 abc", b"500"),                             # not a command word
    (b"", b"500"),
    (b"PASS x", b"503"), (b"LIST", b"530"), (b"PBSZ 0", b"503"), (b"AUTH TLS", b"502"),
    (b"USER e\xc2\x9bvil\xc0\xaf", b"331"),            # C1 CSI in UTF-8, and worse
    (b"PASS x", b"230"),
    (b"RNTO /x", b"503"), (b"RETR /x", b"425"), (b"USER again", b"503"),
    (b"PORT 10,0,0,1,4,1", b"501"), (b"PORT 127,0,0,1,0,21", b"501"),
    (b"EPRT |3|x|1|", b"522"), (b"MKD", b"501"),
    (b"CWD ../../../..", b"250"), (b"PWD", b'257 "/"'),
    (b"EPSV ALL", b"200"), (b"PASV", b"503"), (b"PORT 127,0,0,1,40,1", b"503"),
    (b"EPSV", b"229"),
    # The root folder is the server's to refuse, whatever the plug-in.
    (b"MKD /", b"550 The root"), (b"RMD /", b"550 The root"), (b"RNFR /", b"550 The root"),
    (b"RNFR /keep.txt", b"350"), (b"RNTO /", b"553 Cannot rename to the root"),
    # Control characters in a path, and a path the storage repeats in its
    # error reply.
    (b"RETR /a\rb", b"501"), (b"MKD /x\x1b[2J", b"501"), (b"CWD /\x7f", b"501"),
    (b"USER a\rb", b"501"), (b"DELE /x\xc2\x9b1m", b"550"),
]


class BadInput(ServerTest):
    def test_replies_to_bad_lines_and_commands_out_of_order(self):
        open(self.local("keep.txt"), "wb").close()
        c = Raw(self.server)
        self.addCleanup(c.close)
        for line, code in STEPS:
            reply = c.cmd(line)
            self.assertTrue(reply.startswith(code), (line, reply))
            # No control character of the client's comes back.
            text = reply.replace(b"\r\n", b"")
            self.assertIsNone(re.search(rb"[\x00-\x1f\x7f]|\xc2\x9b", text), (line, reply))
        # Pipelined commands are answered in order.
        c.sock.sendall(b"MKD /pipe\r\nNOOP\r\nCKSM MD5 0 -1 /keep.txt\r\nSTAT\r\n"
                       b"CWD /pipe\r\nPWD\r\nRMD /pipe\r\nQUIT\r\n")
        codes = [c.reply()[:3] for _ in range(8)]
        self.assertEqual(codes, [b"257", b"200", b"213", b"211", b"250", b"257", b"250", b"221"])
        self.assertFalse({"pipe", "x\x1b[2J"} & set(os.listdir(self.server.root)))
        log = self.server.read_log()
        self.assertIn(r"e\xc2\x9bvil\xc0\xaf logged in", log)
        self.assertNotIn("\x9b", log)

    def test_unlistable_names_are_left_out_of_listings(self):
        folder = self.local("names")
        os.mkdir(folder)
        for name in ("fine.txt", "evil\r\n226 forged.txt", "esc\x1b[2J.txt", "tab\there"):
            open(os.path.join(folder, name), "wb").close()
        os.symlink("x\ry", os.path.join(folder, "link"))
        f = self.server.ftp()
        lines = []
        f.retrlines("LIST /names", lines.append)
        self.assertEqual([l.split()[-1] for l in lines], ["fine.txt"], lines)
        self.assertEqual(f.sendcmd("STAT /names").count("fine.txt"), 1)
        self.assertNotIn("forged", f.sendcmd("STAT /names"))
        f.quit()
        log = self.server.read_log()
        self.assertIn("left out of the listing of /names", log)
        self.assertIn("evil\\x0d\\x0a226 forged.txt", log)
        self.assertNotIn("\x1b", log)

    def test_a_restart_offset_is_checked_and_for_the_next_transfer_only(self):
        # Which numbers are refused is pinned by gridftp_server_parse_test.
        c = Raw(self.server).login()
        self.addCleanup(c.close)
        with open(self.local("old.txt"), "wb") as f:
            f.write(b"OLD-CONTENT-TAIL")
        # A refused offset is not kept; one beyond the end refuses the
        # store; every command, an unknown one too, ends by dropping it.
        steps = [("/new.txt", ["REST 9223372036854775807"], b"226", b"abc"),
                 ("/h", ["REST %d" % HUGE], b"554", None),
                 ("/old.txt", ["REST 17"], b"554", b"OLD-CONTENT-TAIL"),
                 ("/old.txt", ["REST 16"], b"226", b"OLD-CONTENT-TAILabc"),  # appends
                 ("/new.txt", ["REST 1", "SIZE /old.txt"], b"226", b"abc"),
                 ("/old.txt", ["REST 5", "XYZZY"], b"226", b"abc")]
        for path, before, code, content in steps:
            reply = c.store(path, b"abc", before)
            self.assertTrue(reply.startswith(code), (path, before, reply))
            self.assertEqual(read_file(self.local(path[1:])), content, (path, before))

    def test_crashed_session_leaves_listener_up(self):
        c = Raw(self.server).login(b"crasher")
        self.addCleanup(c.close)
        pid = session_pids(self.server, "crasher logged in")[-1]
        os.kill(pid, signal.SIGSEGV)
        self.assertEqual(c.f.readline(), b"")  # that client lost its session
        # (under AddressSanitizer the crash ends in abort(): any signal will do)
        wait_for(lambda: re.search(r"session %d ended by signal \d+" % pid,
                                   self.server.read_log()), "the listener to reap the session")
        self.assertTrue(logged_in(self.server))


def start_checksum(c, path="/huge.bin"):
    """A checksum of a 1 TiB sparse file: a long plug-in call, under way
    once its first progress reply came.  How ABOR stops one is pinned by
    test_server_plugin_contract and gridftp_server_cancel_test."""
    c.cmd("OPTS CKSM INTERVAL=1")
    c.send("CKSM MD5 0 -1 " + path)
    assert c.reply().startswith(b"113")


class Stopping(unittest.TestCase):
    def test_sessions_stop_their_plugin_calls(self):
        srv = own_server(self, extra=["--cancel-grace", "3"])
        with open(os.path.join(srv.root, "huge.bin"), "wb") as f:
            f.truncate(HUGE)
        # A client that leaves in the middle of a long plug-in call ends
        # its session.
        c = Raw(srv).login(b"leaver")
        pid = session_pids(srv, "leaver logged in")[-1]
        start_checksum(c)
        c.close()
        wait_for(lambda: process_gone(pid), "the session to end")
        # SIGTERM stops a transfer and a checksum under way: each session
        # ends by itself, its plug-in's session closed.
        c = Raw(srv).login()
        self.addCleanup(c.close)
        start_checksum(c)
        f = srv.ftp()
        conn = f.transfercmd("RETR /huge.bin")
        conn.recv(1000)
        start = time.time()
        srv.proc.terminate()
        self.assertEqual(srv.proc.wait(timeout=30), 0)
        self.assertLess(time.time() - start, 4)  # no session needed killing
        log = srv.read_log()
        self.assertRegex(log, r"RETR /huge\.bin from 0: \d+ bytes .*\(failed\)")
        self.assertRegex(log, r"\[\d+\]: anonymous logged out \(SIGTERM\)")
        self.assertIn("stopped, every session ended", log)
        self.assertNotIn("did not stop", log)
        conn.close()
        f.close()

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


class DataConnections(ServerTest):
    """Under PROT P the data go only to the client that holds the control
    connection: its data connection must resume that connection's TLS
    session.  Passive ports come from the operator's range; a client that
    resets or speaks in the clear after AUTH TLS ends only its own."""
    server_args = {"tls": True, "extra": ["--pasv-range", "40100-40119"]}

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
        while block := conn.recv(65536):
            got += block
        conn.close()
        self.assertTrue(owner.voidresp().startswith("226"))
        thread.join(timeout=30)
        intruder.close()
        return got, stolen

    def test_a_client_that_cannot_resume(self):
        """A data connection in a new TLS session (refused above) is let in
        when the operator lets such clients in."""
        srv = own_server(self, tls=True, extra=["--tls-data-any-session"])
        with open(os.path.join(srv.root, "pub.txt"), "wb") as f:
            f.write(b"public")
        plain = ftplib.FTP_TLS(context=ssl.create_default_context(cafile=srv.ca), timeout=30)
        plain.connect("127.0.0.1", srv.port)
        plain.login("anonymous", "x")
        plain.prot_p()
        got = []
        plain.retrbinary("RETR /pub.txt", got.append)
        self.assertEqual(got, [b"public"])
        plain.quit()

    def test_client_dropping_the_data_connection(self):
        with open(self.local("drop.bin"), "wb") as fh:
            fh.truncate(256 * 1024 * 1024)
        f = self.server.ftp()
        for _ in range(5):
            self.assertIn(f.makepasv()[1], range(40100, 40120))
        conn = f.transfercmd("RETR /drop.bin")
        conn.recv(1000)
        tear_down(conn)  # a reset, mid-transfer
        with self.assertRaises(ftplib.error_temp) as cm:
            f.voidresp()
        self.assertIn("426", str(cm.exception))
        self.assertEqual(f.pwd(), "/")
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
