"""File contents of the emulated Box account.

Contents are never held in memory when they can be big: synthetic contents
are generated from a periodic pattern, uploaded contents live in files of
the data directory and are sent with sendfile(2) where the socket allows it.
"""

import hashlib
import os
import socket
import threading

CHUNK = 1 << 20
PERIOD = 251

# One chunk plus one period: any offset's chunk is a zero-copy slice of it.
_PATTERN = memoryview(bytes(i % PERIOD for i in range(CHUNK + PERIOD)))

_sha1_by_size = {}
_sha1_lock = threading.Lock()


def pattern_slice(offset, length):
    """The synthetic bytes [offset, offset + length), length <= CHUNK."""
    start = offset % PERIOD
    return _PATTERN[start:start + length]


class Content:
    """Bytes of one file version.  Subclasses provide size, sha1, chunks()."""

    size = 0

    def chunks(self, offset, length):
        raise NotImplementedError

    def send(self, sock, offset, length, limit=None):
        """Send [offset, offset + length) to sock; stop after limit bytes.

        Returns the number of bytes sent."""
        sent = 0
        for chunk in self.chunks(offset, length):
            if limit is not None and sent + len(chunk) > limit:
                chunk = chunk[:limit - sent]
            sock.sendall(chunk)
            sent += len(chunk)
            if limit is not None and sent >= limit:
                break
        return sent

    def discard(self):
        pass


class BytesContent(Content):
    def __init__(self, data):
        self.data = bytes(data)
        self.size = len(self.data)
        self.sha1 = hashlib.sha1(self.data).hexdigest()

    def chunks(self, offset, length):
        view = memoryview(self.data)
        end = offset + length
        while offset < end:
            step = min(CHUNK, end - offset)
            yield view[offset:offset + step]
            offset += step


class SyntheticContent(Content):
    """Byte i is i % 251; the SHA-1 is computed once per size and cached."""

    def __init__(self, size):
        self.size = size
        with _sha1_lock:
            digest = _sha1_by_size.get(size)
        if digest is None:
            h = hashlib.sha1()
            for chunk in self.chunks(0, size):
                h.update(chunk)
            digest = h.hexdigest()
            with _sha1_lock:
                _sha1_by_size[size] = digest
        self.sha1 = digest

    def chunks(self, offset, length):
        end = offset + length
        while offset < end:
            step = min(CHUNK, end - offset)
            yield pattern_slice(offset, step)
            offset += step


class FileContent(Content):
    """Contents made of whole spool files laid end to end (one for a plain
    upload, one per part for an upload session)."""

    def __init__(self, paths, sha1):
        self.paths = list(paths)
        self.sizes = [os.path.getsize(p) for p in self.paths]
        self.size = sum(self.sizes)
        self.sha1 = sha1

    def _segments(self, offset, length):
        """(path, offset inside it, count) covering the range."""
        base = 0
        end = offset + length
        for path, size in zip(self.paths, self.sizes):
            lo = max(offset, base)
            hi = min(end, base + size)
            if lo < hi:
                yield path, lo - base, hi - lo
            base += size

    def chunks(self, offset, length):
        for path, start, count in self._segments(offset, length):
            with open(path, "rb") as f:
                f.seek(start)
                while count > 0:
                    data = f.read(min(CHUNK, count))
                    if not data:
                        raise IOError("spool file shrank: " + path)
                    count -= len(data)
                    yield data

    def send(self, sock, offset, length, limit=None):
        # Plain TCP sockets take the kernel's zero-copy path; TLS sockets and
        # truncated answers go through the chunk loop.
        if limit is not None or type(sock) is not socket.socket:
            return Content.send(self, sock, offset, length, limit)
        sent = 0
        for path, start, count in self._segments(offset, length):
            with open(path, "rb") as f:
                sent += sock.sendfile(f, start, count)
        return sent

    def discard(self):
        for path in self.paths:
            try:
                os.unlink(path)
            except OSError:
                pass


def sha1_of(content):
    h = hashlib.sha1()
    for chunk in content.chunks(0, content.size):
        h.update(chunk)
    return h.hexdigest()
