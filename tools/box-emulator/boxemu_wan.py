"""A distant Box on loopback.

Three settings, each 0 (off) by default, at start-up and through the
control interface's config:
- latency_ms: every API request (content, upload, downloads, OAuth) waits
  that long before it is served, as if it had crossed a long network;
- part_processing_ms: every upload session part and commit waits that much
  more once its body is in, Box's own work on it;
- bandwidth_bps: each connection moves request and answer bodies at that
  rate (each direction on its own, as on a full-duplex link).

Waits are plain sleeps of the request's own thread and never hold a lock,
so requests on several connections are delayed side by side, as a real
server's would be.  Bodies are paced in pieces of at most 256 KiB (20 ms of
the rate, 5 ms at 50 MB/s): per-byte pacing would cost the interpreter more
than the data, and hashing and spooling large pieces let go of the GIL."""

import re
import time

KEYS = ("latency_ms", "part_processing_ms", "bandwidth_bps")
PIECE_MAX = 256 << 10
PIECES_PER_SECOND = 50

# The requests Box has to process after their body: parts and commits of an
# upload session, whichever request created it.
_PROCESSED = (("PUT", re.compile(r"/api/2\.0/files/upload_sessions/[^/]+/?")),
              ("POST", re.compile(r"/api/2\.0/files/upload_sessions/[^/]+/commit/?")))


def add_arguments(parser):
    parser.add_argument("--latency-ms", type=int, default=0,
                        help="wait before serving each API request")
    parser.add_argument("--part-processing-ms", type=int, default=0,
                        help="extra wait for each upload part and commit")
    parser.add_argument("--bandwidth-bps", type=int, default=0,
                        help="bytes a second each connection moves each way (0: no limit)")


def check_arguments(parser, args):
    for key in KEYS:
        if getattr(args, key) < 0:
            parser.error("--%s must not be negative" % key.replace("_", "-"))


def start_config(args):
    """The settings as the command line gives them: what reset goes back to."""
    return {key: getattr(args, key) for key in KEYS}


class Schedule:
    """Paces one body at `bps`: the piece that brings it to n bytes goes
    when n / bps seconds have passed since the first piece was asked for.
    So n bytes never take less than n / bps, no credit is saved while the
    connection is idle, and a thread woken late catches up instead of
    losing the time for the rest of the body."""

    def __init__(self, bps):
        self.bps = float(bps)
        self.piece = max(1, min(PIECE_MAX, int(bps) // PIECES_PER_SECOND))
        self.start = None
        self.moved = 0

    def wait(self, n):
        now = time.monotonic()
        if self.start is None:
            self.start = now
        self.moved += n
        delay = self.start + self.moved / self.bps - now
        if delay > 0:
            time.sleep(delay)


class PacedWriter:
    """A socket stand-in whose sendall keeps to `bps` bytes a second."""

    def __init__(self, sock, bps):
        self.sock = sock
        self.schedule = Schedule(bps)

    def sendall(self, data):
        view = memoryview(data).cast("B")
        step = self.schedule.piece
        for at in range(0, len(view), step):
            piece = view[at:at + step]
            self.schedule.wait(len(piece))
            self.sock.sendall(piece)


class PacedReader:
    """A stand-in for the connection's buffered reader (read and readline,
    what request bodies use) that hands out `bps` bytes a second."""

    def __init__(self, rfile, bps):
        self.rfile = rfile
        self.schedule = Schedule(bps)

    def read(self, n):
        """n bytes, fewer when the connection closes first (as a buffered
        reader's read).  Larger reads are filled piece by piece in place."""
        step = self.schedule.piece
        if n <= step:
            self.schedule.wait(n)
            return self.rfile.read(n)
        data = bytearray(n)
        got = 0
        with memoryview(data) as view:
            while got < n:
                want = min(n - got, step)
                self.schedule.wait(want)
                count = self.rfile.readinto(view[got:got + want])
                got += count
                if count < want:
                    break
        del data[got:]
        return data

    def readline(self, limit=-1):
        line = self.rfile.readline(limit)
        self.schedule.wait(len(line))
        return line


class Profile:
    """The settings one request is served under, taken when it arrives."""

    def __init__(self, config=None):
        config = config or {}
        self.latency = config.get("latency_ms", 0) / 1000.0
        self.processing = config.get("part_processing_ms", 0) / 1000.0
        self.bps = config.get("bandwidth_bps", 0)

    def wait_latency(self):
        if self.latency > 0:
            time.sleep(self.latency)

    def wait_processing(self, method, path):
        if self.processing > 0 and any(
                method == m and pattern.fullmatch(path) for m, pattern in _PROCESSED):
            time.sleep(self.processing)

    def reader(self, rfile):
        return PacedReader(rfile, self.bps) if self.bps > 0 else rfile

    def writer(self, sock):
        return PacedWriter(sock, self.bps) if self.bps > 0 else sock


NO_WAN = Profile()
