"""Box's upload API (everything under "/api/2.0/"): the multipart upload
and upload sessions with parts and commit."""

import base64
import binascii
import hashlib
import json
import os
import re
import secrets
import shutil
import tempfile
import threading
import time

from boxemu_api import JSON_LIMIT, Response, first, parent_id_of, parse_time_attr, read_json
from boxemu_oauth import bearer
from boxemu_body import Multipart, MultipartError, header_params
from boxemu_content import CHUNK, FileContent
from boxemu_store import BoxError, bad_request, check_name

SESSION_LIFETIME = 7 * 24 * 3600
MAX_PARTS = 10000


def parse_digest(value):
    """'sha=<base64>' (RFC 3230, possibly among other algorithms) -> hex."""
    for item in (value or "").split(","):
        algo, _, encoded = item.strip().partition("=")
        if algo.strip().lower() in ("sha", "sha-1", "sha1"):
            try:
                raw = base64.b64decode(encoded.strip(), validate=True)
            except (binascii.Error, ValueError):
                raw = b""
            if len(raw) != 20:
                raise bad_request("The digest header is not a base64 SHA-1", "bad_digest")
            return raw.hex()
    raise bad_request("Missing or unsupported digest header; use sha=<base64>")


def spool(chunks, directory, hashed=True):
    """Write chunks to a new file in directory -> (path, size, sha1 hex, or
    None when not hashed: a caller whose chunks are a whole request body
    has their SHA-1 from the body already)."""
    fd, path = tempfile.mkstemp(prefix="spool-", dir=directory)
    h = hashlib.sha1() if hashed else None
    size = 0
    try:
        with os.fdopen(fd, "wb") as f:
            for chunk in chunks:
                f.write(chunk)
                if h is not None:
                    h.update(chunk)
                size += len(chunk)
    except BaseException:
        os.unlink(path)
        raise
    return path, size, h.hexdigest() if h is not None else None


def file_sha1(paths, into=None):
    """SHA-1 of the files' bytes one after the other (added to `into`)."""
    h = into if into is not None else hashlib.sha1()
    for path in paths:
        with open(path, "rb") as f:
            while True:
                data = f.read(CHUNK)
                if not data:
                    break
                h.update(data)
    return h


def _names_a_file(disposition):
    """Box takes the file from the part that carries a filename, whatever
    that part is called: clients name it "file", "contents", ..."""
    return "filename" in disposition or "filename*" in disposition


def body_chunks(body):
    while True:
        data = body.read()
        if not data:
            return
        yield data


class Session:
    def __init__(self, sid, folder_id, name, size, part_size, directory, file_id=None):
        self.id = sid
        self.folder_id = folder_id
        self.file_id = file_id   # a new version of this file, or None: a new file
        self.name = name
        self.size = size
        self.part_size = part_size
        self.total_parts = max(1, -(-size // part_size))
        self.directory = directory
        self.parts = {}          # offset -> part dict (+ "path")
        self.expires_at = time.time() + SESSION_LIFETIME
        # SHA-1 of the parts from offset 0 up to `hashed`, taken in the
        # background as parts arrive (hashlib lets go of the GIL), so that
        # the commit need not read the whole file again while the uploader
        # waits: a 1 GiB commit took 0.7 to 0.9 s that way, now about 10 ms.
        self.hash_lock = threading.Lock()
        self.sha1 = hashlib.sha1()
        self.hashed = 0

    def hash_parts(self, store_lock):
        """Adds the parts that follow the hashed prefix, as far as they
        go without a gap, under hash_lock; a part file that went away (an
        abort) ends it."""
        with self.hash_lock:
            while self.hashed < self.size:
                with store_lock:
                    part = self.parts.get(self.hashed)
                    path = part and part["path"]
                if part is None:
                    return
                try:
                    file_sha1([path], self.sha1)
                except OSError:
                    return
                self.hashed += part["size"]

    def discard(self):
        shutil.rmtree(self.directory, ignore_errors=True)


class Uploads:
    def __init__(self, state):
        self.state = state
        self.store = state.store

    # -- single request upload -------------------------------------------

    def upload(self, req):
        attributes, spooled = self._receive(req)
        try:
            return self._store_upload(req, attributes, spooled)
        except BaseException:
            self._drop(spooled)
            raise

    def upload_version(self, req, file_id):
        """POST /api/2.0/files/ID/content: a new version of a file; the one
        before stays among its versions."""
        attributes, spooled = self._receive(req)
        try:
            return self._store_version(req, file_id, attributes, spooled)
        except BaseException:
            self._drop(spooled)
            raise

    def _receive(self, req):
        """The multipart body: (attributes, spooled file or None).  Nothing
        is kept from a body that does not end as its framing says."""
        ctype, params = header_params(req.headers.get("Content-Type") or "")
        if ctype != "multipart/form-data":
            req.body.drain()
            raise bad_request("Uploads must be multipart/form-data")
        attributes = None
        spooled = None
        try:
            for headers, data in Multipart(req.body, params.get("boundary")).parts():
                _, disposition = header_params(headers.get("content-disposition", ""))
                field = disposition.get("name")
                if field == "attributes":
                    raw = b"".join(data)
                    if len(raw) > JSON_LIMIT:
                        raise bad_request("attributes too large")
                    try:
                        attributes = json.loads(raw)
                    except (ValueError, UnicodeDecodeError):
                        raise bad_request("attributes are not valid JSON") from None
                elif spooled is None and (field == "file" or _names_a_file(disposition)):
                    if attributes is None:
                        raise bad_request("The attributes part must come before the file part",
                                          "metadata_after_file_contents")
                    spooled = spool(data, self.state.data_dir)
            req.body.drain()
        except MultipartError as e:
            req.body.drain()
            self._drop(spooled)
            raise bad_request("Malformed multipart body: %s" % e) from None
        except BaseException:
            req.body.drain()
            self._drop(spooled)
            raise
        return attributes, spooled

    @staticmethod
    def _drop(spooled):
        if spooled is not None:
            try:
                os.unlink(spooled[0])
            except OSError:
                pass

    @staticmethod
    def _checked_file(req, attributes, spooled):
        """(spool path, SHA-1, content_modified_at) of an upload whose
        attributes have a name; Box's checks of the file part."""
        if not isinstance(attributes, dict) or "name" not in attributes:
            raise bad_request("attributes with 'name' are required")
        if spooled is None:
            raise bad_request("The file part is missing")
        path, _, sha1 = spooled
        wanted = req.headers.get("Content-MD5")
        if wanted and wanted.strip().lower() != sha1:
            raise bad_request("The Content-MD5 header does not match the file's SHA-1",
                              "bad_digest")
        return path, sha1, parse_time_attr(attributes, "content_modified_at")

    def _store_upload(self, req, attributes, spooled):
        parent_id = (attributes.get("parent") or {}).get("id") \
            if isinstance(attributes, dict) and isinstance(attributes.get("parent"), dict) \
            else None
        path, sha1, modified = self._checked_file(req, attributes, spooled)
        if not isinstance(parent_id, str):
            raise bad_request("attributes need 'parent' with an 'id'")
        with self.store.lock:
            parent = self.store.get(parent_id, "folder", name="parent", location="body")
            item = self.store.create_file(parent, attributes["name"], FileContent([path], sha1),
                                          modified)
            entry = self.store.item_json(item, first(req.query, "fields"))
        return Response(201, {"total_count": 1, "entries": [entry]})

    def _store_version(self, req, file_id, attributes, spooled):
        path, sha1, modified = self._checked_file(req, attributes, spooled)
        with self.store.lock:
            item = self.store.get(file_id, "file")
            self._new_version(item, attributes["name"], FileContent([path], sha1), modified)
            entry = self.store.item_json(item, first(req.query, "fields"))
        # Box's description has this answer 200, where a new file is 201.
        return Response(200, {"total_count": 1, "entries": [entry]})

    def _new_version(self, item, name, content, modified):
        """A new version, which may carry a new name (checked first, like
        any other); the version before keeps the name it had."""
        renamed = name is not None and name != item.name
        if renamed:
            check_name(name)
            self.store.conflict(item.parent, name, exclude=item)
        self.store.new_version(item, content, modified)
        if renamed:
            self.store.move(item, name, item.parent)

    # -- preflight -------------------------------------------------------

    def preflight(self, req):
        """OPTIONS /2.0/files/content: would an upload of this name and size
        into this folder be taken?  The same checks as the upload itself,
        plus the user's upload limit."""
        doc = read_json(req)
        if not isinstance(doc, dict) or "name" not in doc:
            raise bad_request("'name' is required")
        parent_id = parent_id_of(doc)
        if parent_id is None:
            raise bad_request("'parent' with 'id' is required")
        size = doc.get("size")
        if size is not None and (not isinstance(size, int) or isinstance(size, bool)
                                 or size < 0):
            raise bad_request("Invalid value for 'size'")
        user = self.state.oauth.user_of(bearer(req.headers.get("Authorization")))
        if size is not None and size > user["max_upload_size"]:
            raise BoxError(413, "file_size_limit_exceeded",
                           "File size %d exceeds the user's upload limit of %d bytes"
                           % (size, user["max_upload_size"]))
        check_name(doc["name"])
        with self.store.lock:
            parent = self.store.get(parent_id, "folder", name="parent", location="body")
            other = self.store.child_named(parent, doc["name"])
            if other is not None:
                # Here the conflicts come as a list, as Box documents the
                # preflight's answer.
                raise BoxError(409, "item_name_in_use", "Item with the same name already exists",
                               {"conflicts": [self.store.mini(other)]})
        return Response(200, {"upload_url": "%s/api/2.0/files/content" % req.base_url})

    # -- upload sessions -------------------------------------------------

    def create_session(self, req):
        doc = read_json(req)
        if not isinstance(doc, dict):
            raise bad_request("The body must be a JSON object")
        if "folder_id" not in doc:
            raise bad_request("folder_id is required", "missing_destination")
        if not isinstance(doc["folder_id"], str):
            raise bad_request("folder_id must be a string", "invalid_folder_id")
        if "file_size" not in doc:
            raise bad_request("file_size is required", "missing_file_size")
        size = doc["file_size"]
        if not isinstance(size, int) or isinstance(size, bool) or size < 0:
            raise bad_request("file_size must be a number", "invalid_file_size")
        if "file_name" not in doc:
            raise bad_request("file_name is required", "missing_file_name")
        check_name(doc["file_name"])
        with self.store.lock:
            parent = self.store.get(doc["folder_id"], "folder", name="folder_id", location="body")
            self.store.conflict(parent, doc["file_name"])
            return self._open_session(req, parent, doc["file_name"], size)

    def create_version_session(self, req, file_id):
        """POST /api/2.0/files/ID/upload_sessions: a session whose commit
        makes a new version of the file."""
        doc = read_json(req)
        if not isinstance(doc, dict):
            raise bad_request("The body must be a JSON object")
        if "file_size" not in doc:
            raise bad_request("file_size is required", "missing_file_size")
        size = doc["file_size"]
        if not isinstance(size, int) or isinstance(size, bool) or size < 0:
            raise bad_request("file_size must be a number", "invalid_file_size")
        name = doc.get("file_name")
        if name is not None:
            check_name(name)
        with self.store.lock:
            item = self.store.get(file_id, "file")
            if name is not None and name != item.name:
                self.store.conflict(item.parent, name, exclude=item)
            return self._open_session(req, item.parent, name, size, item.id)

    def _open_session(self, req, parent, name, size, file_id=None):
        """Called under the store's lock."""
        config = self.state.config
        if size < config["min_session_size"]:
            raise bad_request("file_size is below the minimum for upload sessions (%d)"
                              % config["min_session_size"], "file_size_too_small")
        sid = secrets.token_hex(16).upper()
        directory = os.path.join(self.state.data_dir, "session-" + sid)
        os.mkdir(directory)
        part_size = config["part_size"]
        while -(-size // part_size) > MAX_PARTS:
            part_size *= 2   # Box grows the part size for huge files
        session = Session(sid, parent.id, name, size, part_size, directory, file_id)
        self.store.sessions[sid] = session
        return Response(201, self._session_json(req, session))

    def _session_json(self, req, s):
        url = "%s/api/2.0/files/upload_sessions/%s" % (req.base_url, s.id)
        return {"id": s.id, "type": "upload_session",
                "session_expires_at": self.store.clock.format(s.expires_at),
                "part_size": s.part_size, "total_parts": s.total_parts,
                "num_parts_processed": len(s.parts),
                "session_endpoints": {"upload_part": url, "commit": url + "/commit",
                                      "abort": url, "list_parts": url + "/parts",
                                      "status": url, "log_event": url + "/log"}}

    def _session(self, sid):
        session = self.store.sessions.get(sid)
        if session is None or session.expires_at < time.time():
            raise BoxError(404, "not_found", "Upload session not found",
                           {"errors": [{"reason": "invalid_parameter", "name": "upload_session_id",
                                        "message": "Invalid value '%s'." % sid,
                                        "location": "path"}]})
        return session

    def session_status(self, req, sid):
        req.body.drain()
        with self.store.lock:
            return Response(200, self._session_json(req, self._session(sid)))

    def abort(self, req, sid):
        req.body.drain()
        with self.store.lock:
            session = self._session(sid)
            del self.store.sessions[sid]
        session.discard()
        return Response(204)

    def list_parts(self, req, sid):
        req.body.drain()
        with self.store.lock:
            session = self._session(sid)
            parts = [self._part_json(session.parts[o]) for o in sorted(session.parts)]
        return Response(200, {"entries": parts, "limit": 1000, "offset": 0,
                              "total_count": len(parts)})

    @staticmethod
    def _part_json(part):
        return {k: part[k] for k in ("part_id", "offset", "size", "sha1")}

    def upload_part(self, req, sid):
        try:
            with self.store.lock:
                session = self._session(sid)
            digest = parse_digest(req.headers.get("digest"))
            start, end = self._check_range(session, req.headers.get("Content-Range"))
            # The body is the part: its SHA-1, taken for the log as it is
            # read, is the part's, so the spool does not hash it again.
            path, size, _ = spool(body_chunks(req.body), session.directory, hashed=False)
            sha1 = req.body.hexdigest()
        finally:
            req.body.drain()
        try:
            if size != end - start + 1:
                raise BoxError(416, "range_mismatch",
                               "The body has %d bytes but Content-Range names %d"
                               % (size, end - start + 1))
            if sha1 != digest:
                raise bad_request("The digest header does not match the part's SHA-1",
                                  "bad_digest")
            with self.store.lock:
                old = session.parts.get(start)
                if old is not None and old["sha1"] != sha1:
                    raise BoxError(409, "range_overlap",
                                   "A different part was already uploaded for this range")
                if old is not None:
                    os.unlink(path)
                    return Response(200, {"part": self._part_json(old)})
                part = {"part_id": secrets.token_hex(4).upper(), "offset": start,
                        "size": size, "sha1": sha1, "path": path}
                session.parts[start] = part
            if start == session.hashed:
                threading.Thread(target=session.hash_parts, args=(self.store.lock,),
                                 daemon=True).start()
            return Response(200, {"part": self._part_json(part)})
        except BaseException:
            if os.path.exists(path) and all(p.get("path") != path for p in session.parts.values()):
                os.unlink(path)
            raise

    @staticmethod
    def _check_range(session, value):
        m = re.fullmatch(r"\s*bytes\s+(\d+)-(\d+)/(\d+)\s*", value or "")
        if not m:
            raise BoxError(416, "range_mismatch", "Missing or malformed Content-Range header")
        start, end, total = (int(g) for g in m.groups())
        if total != session.size:
            raise BoxError(416, "range_mismatch",
                           "Content-Range total %d differs from the session's file size %d"
                           % (total, session.size))
        if end < start or end >= total or start % session.part_size != 0:
            raise BoxError(416, "range_mismatch", "Content-Range is not on a part boundary")
        if end - start + 1 != session.part_size and end != total - 1:
            raise BoxError(416, "range_mismatch",
                           "Only the last part may be smaller than part_size")
        if end - start + 1 > session.part_size:
            raise BoxError(416, "range_mismatch", "The part is larger than part_size")
        return start, end

    def commit(self, req, sid):
        digest_header = req.headers.get("digest")
        doc = read_json(req)
        with self.store.lock:
            session = self._session(sid)
            pending = self.state.commit_pending
            if pending["count"] > 0:
                pending["count"] -= 1
                return Response(202, headers={"Retry-After": str(pending["retry_after"])})
        digest = parse_digest(digest_header)
        if not isinstance(doc, dict) or not isinstance(doc.get("parts"), list):
            raise bad_request("'parts' is required")
        ordered = self._check_parts(session, doc["parts"])
        # The listed parts cover the file without gaps, so they are the
        # session's parts in offset order: the running SHA-1 is theirs once
        # it has caught up (it finishes here what the background left).
        session.hash_parts(self.store.lock)
        with session.hash_lock:
            whole = session.sha1.copy() if session.hashed == session.size else None
        h = whole or file_sha1(part["path"] for part in ordered)
        if h.hexdigest() != digest:
            raise bad_request("The digest header does not match the file's SHA-1", "bad_digest")
        attributes = doc.get("attributes") if isinstance(doc.get("attributes"), dict) else {}
        modified = parse_time_attr(attributes, "content_modified_at")
        with self.store.lock:
            if self.store.sessions.get(sid) is not session:
                raise BoxError(404, "not_found", "Upload session not found")
            parent = self.store.get(session.folder_id, "folder", name="folder_id",
                                    location="body")
            paths = []
            for part in ordered:
                final = os.path.join(self.state.data_dir, "part-%s-%d" % (sid, part["offset"]))
                os.rename(part["path"], final)
                part["path"] = final
                paths.append(final)
            try:
                content = FileContent(paths, h.hexdigest())
                if session.file_id is None:
                    item = self.store.create_file(parent, session.name, content, modified)
                else:
                    item = self.store.get(session.file_id, "file")
                    self._new_version(item, session.name, content, modified)
            except BaseException:
                for part, final in zip(ordered, paths):
                    os.rename(final, os.path.join(session.directory, os.path.basename(final)))
                    part["path"] = os.path.join(session.directory, os.path.basename(final))
                raise
            del self.store.sessions[sid]
            entry = self.store.item_json(item, first(req.query, "fields"))
        session.discard()
        return Response(201, {"total_count": 1, "entries": [entry]})

    @staticmethod
    def _check_parts(session, listed):
        ordered = []
        for p in listed:
            if not isinstance(p, dict) or not isinstance(p.get("offset"), int):
                raise bad_request("Every part needs part_id, offset, size and sha1")
            known = session.parts.get(p["offset"])
            if known is None or p.get("part_id") != known["part_id"] \
                    or p.get("size", known["size"]) != known["size"] \
                    or p.get("sha1", known["sha1"]) != known["sha1"]:
                raise bad_request("Part %r was not uploaded in this session" % (p,))
            ordered.append(known)
        ordered.sort(key=lambda p: p["offset"])
        position = 0
        for part in ordered:
            if part["offset"] != position:
                raise bad_request("The parts do not cover the file without gaps or overlaps")
            position += part["size"]
        if position != session.size:
            raise bad_request("The parts cover %d of %d bytes" % (position, session.size))
        return ordered
