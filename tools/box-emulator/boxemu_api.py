"""Box API requests on folders, files, downloads and metadata
(everything under "/2.0/")."""

import json
import re
import secrets
import time

from boxemu_store import BoxError, Clock, bad_request, decode_marker, encode_marker, not_found

JSON_LIMIT = 16 << 20
DOWNLOAD_LIFETIME = 15 * 60


class Response:
    def __init__(self, status, doc=None, headers=None, content=None, offset=0, length=None):
        self.status = status
        self.doc = doc
        self.headers = dict(headers or {})
        self.content = content
        self.offset = offset
        self.length = length


def read_json(req, required=True):
    data = req.body.read_all(JSON_LIMIT)
    if data is None:
        raise BoxError(413, "request_entity_too_large", "Request body too large")
    if not data.strip():
        if required:
            raise bad_request("Request body is missing")
        return None
    try:
        return json.loads(data)
    except (ValueError, UnicodeDecodeError):
        raise bad_request("Request body is not valid JSON") from None


def first(query, key):
    values = query.get(key)
    return values[0] if values else None


def parent_id_of(doc):
    parent = doc.get("parent") if isinstance(doc, dict) else None
    if not isinstance(parent, dict) or not isinstance(parent.get("id"), str):
        return None
    return parent["id"]


class Api:
    def __init__(self, state):
        self.state = state
        self.store = state.store
        self.downloads = {}   # key -> (file id, content, expiry)

    # -- folders --------------------------------------------------------

    def list_items(self, req, folder_id):
        q = req.query
        limit_text = first(q, "limit")
        limit = 100
        if limit_text is not None:
            if not re.fullmatch(r"\d+", limit_text) or int(limit_text) < 1:
                raise bad_request("Invalid value for limit", "invalid_limit")
            limit = min(int(limit_text), 1000)
        fields = first(q, "fields")
        usemarker = (first(q, "usemarker") or "").lower() == "true"
        with self.store.lock:
            folder = self.store.get(folder_id, "folder")
            children = list(folder.children.values())
            if usemarker:
                marker = first(q, "marker")
                start = decode_marker(marker) if marker else 0
                rest = [c for c in children if c.slot >= start]
                page = rest[:limit]
                entries = [self._entry(c, fields) for c in page]
                doc = {"entries": entries, "limit": limit,
                       "next_marker": encode_marker(rest[limit].slot) if len(rest) > limit else None}
                return Response(200, doc)
            offset_text = first(q, "offset") or "0"
            if not re.fullmatch(r"\d+", offset_text):
                raise bad_request("Invalid value for offset", "invalid_offset")
            offset = int(offset_text)
            if offset > len(children):
                raise bad_request("The offset is beyond the last item", "invalid_offset")
            page = children[offset:offset + limit]
            doc = {"total_count": len(children), "entries": [self._entry(c, fields) for c in page],
                   "offset": offset, "limit": limit}
            return Response(200, doc)

    def _entry(self, item, fields):
        from boxemu_store import FILE_MINI, FOLDER_MINI
        default = FOLDER_MINI if item.type == "folder" else FILE_MINI
        return self.store.item_json(item, fields, default)

    def folder_info(self, req, folder_id):
        with self.store.lock:
            folder = self.store.get(folder_id, "folder")
            return Response(200, self.store.item_json(folder, first(req.query, "fields")))

    def create_folder(self, req):
        doc = read_json(req)
        if not isinstance(doc, dict) or "name" not in doc:
            raise bad_request("'name' is required")
        parent_id = parent_id_of(doc)
        if parent_id is None:
            raise bad_request("'parent' with 'id' is required")
        with self.store.lock:
            parent = self.store.get(parent_id, "folder", name="parent", location="body")
            folder = self.store.create_folder(parent, doc["name"])
            return Response(201, self.store.item_json(folder, first(req.query, "fields")))

    # -- items ----------------------------------------------------------

    def file_info(self, req, file_id):
        with self.store.lock:
            item = self.store.get(file_id, "file")
            return Response(200, self.store.item_json(item, first(req.query, "fields")))

    def update(self, req, kind, item_id):
        doc = read_json(req)
        if not isinstance(doc, dict):
            raise bad_request("The body must be a JSON object")
        with self.store.lock:
            item = self.store.get(item_id, kind)
            name = doc.get("name", item.name)
            parent = item.parent
            if "parent" in doc:
                parent_id = parent_id_of(doc)
                if parent_id is None:
                    raise bad_request("'parent' needs an 'id'")
                parent = self.store.get(parent_id, "folder", name="parent", location="body")
            if parent is None:
                raise BoxError(403, "access_denied_insufficient_permissions",
                               "The root folder cannot be renamed or moved")
            self.store.move(item, name, parent)
            return Response(200, self.store.item_json(item, first(req.query, "fields")))

    def delete(self, req, kind, item_id):
        recursive = (first(req.query, "recursive") or "").lower() == "true"
        req.body.drain()
        with self.store.lock:
            item = self.store.get(item_id, kind)
            self.store.delete(item, recursive and kind == "folder")
        return Response(204)

    def versions(self, req, file_id):
        """GET /2.0/files/ID/versions: the versions before the current one,
        newest first, offset paged."""
        q = req.query
        req.body.drain()
        limit, offset = 1000, 0
        for key in ("limit", "offset"):
            text = first(q, key)
            if text is not None and not re.fullmatch(r"\d+", text):
                raise bad_request("Invalid value for %s" % key, "invalid_" + key)
        if first(q, "limit") is not None:
            limit = min(max(int(first(q, "limit")), 1), 1000)
        if first(q, "offset") is not None:
            offset = int(first(q, "offset"))
        with self.store.lock:
            item = self.store.get(file_id, "file")
            entries = self.store.versions_json(item)
        return Response(200, {"total_count": len(entries), "entries": entries[offset:offset + limit],
                              "offset": offset, "limit": limit})

    # -- downloads ------------------------------------------------------

    def content_redirect(self, req, file_id):
        req.body.drain()
        with self.store.lock:
            item = self.store.get(file_id, "file")
            key = secrets.token_urlsafe(24)
            now = time.time()
            self.downloads = {k: v for k, v in self.downloads.items() if v[2] > now}
            self.downloads[key] = (item.id, item.content, now + DOWNLOAD_LIFETIME)
        # Box's downloads come from another host; "download_base" (control
        # config) puts them on another origin here too.
        base = self.state.config.get("download_base") or req.base_url
        location = "%s/d/1/%s/download" % (base, key)
        return Response(302, headers={"Location": location})

    def download(self, req, key):
        req.body.drain()
        with self.store.lock:
            entry = self.downloads.get(key)
        if entry is None or entry[2] < time.time():
            raise not_found("download", key)
        content = entry[1]
        size = content.size
        headers = {"Content-Type": "application/octet-stream", "Accept-Ranges": "bytes"}
        rng = req.headers.get("Range")
        if rng:
            span = parse_range(rng, size)
            if span == "unsatisfiable":
                headers["Content-Range"] = "bytes */%d" % size
                return Response(416, headers=headers)
            if span is not None:
                start, end = span
                headers["Content-Range"] = "bytes %d-%d/%d" % (start, end, size)
                return Response(206, headers=headers, content=content,
                                offset=start, length=end - start + 1)
        return Response(200, headers=headers, content=content, offset=0, length=size)

    # -- metadata -------------------------------------------------------

    def metadata(self, req, kind_plural, item_id, scope, template):
        kind = kind_plural[:-1]
        method = req.method
        if method in ("GET", "DELETE"):
            req.body.drain()
            with self.store.lock:
                item = self.store.get(item_id, kind)
                if method == "GET":
                    return Response(200, dict(self.store.metadata_get(item, scope, template)))
                self.store.metadata_get(item, scope, template)
                item.metadata[scope].pop(template)
                return Response(204)
        content_type = (req.headers.get("Content-Type") or "").split(";")[0].strip().lower()
        if method == "PUT" and content_type != "application/json-patch+json":
            req.body.drain()
            raise BoxError(415, "unsupported_media_type",
                           "Metadata updates need Content-Type application/json-patch+json")
        doc = read_json(req)
        with self.store.lock:
            item = self.store.get(item_id, kind)
            if method == "POST":
                if not isinstance(doc, dict):
                    raise bad_request("The body must be a JSON object", "schema_validation_failed")
                return Response(201, dict(self.store.metadata_create(item, scope, template, doc)))
            return Response(200, dict(self.store.metadata_patch(item, scope, template, doc)))


def parse_range(value, size):
    """A single "bytes=" range -> (first, last), "unsatisfiable", or None when
    the header is to be ignored (not bytes, several ranges, malformed)."""
    m = re.fullmatch(r"\s*bytes\s*=\s*(\d*)\s*-\s*(\d*)\s*", value)
    if not m or (m.group(1) == "" and m.group(2) == ""):
        return None
    if m.group(1) == "":
        suffix = int(m.group(2))
        if suffix == 0 or size == 0:
            return "unsatisfiable"
        return max(0, size - suffix), size - 1
    start = int(m.group(1))
    if start >= size:
        return "unsatisfiable"
    end = int(m.group(2)) if m.group(2) else size - 1
    if end < start:
        return None
    return start, min(end, size - 1)


def parse_time_attr(doc, key):
    value = doc.get(key) if isinstance(doc, dict) else None
    if value is None:
        return None
    try:
        return Clock.parse(value)
    except ValueError:
        raise bad_request("Invalid value for '%s'" % key) from None
