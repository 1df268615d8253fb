"""The control interface under /_emulator/: JSON in, JSON out, no auth.
Control requests are never logged."""

import base64
import json
import re
import time
from urllib.parse import parse_qs

from boxemu_content import BytesContent, SyntheticContent
from boxemu_flight import concurrency
from boxemu_store import USER, BoxError, Clock
from boxemu_wan import KEYS as WAN_KEYS

USER_ID = USER["id"]

CONTROL_LIMIT = 64 << 20


class ControlError(Exception):
    pass


def _int(doc, key, default, minimum=0):
    value = doc.get(key, default)
    if value is None:
        value = default
    if not isinstance(value, int) or isinstance(value, bool) or value < minimum:
        raise ControlError("'%s' must be an integer >= %d" % (key, minimum))
    return value


def _text(doc, key):
    value = doc.get(key)
    if not isinstance(value, str) or not value:
        raise ControlError("'%s' must be a non-empty string" % key)
    return value


def _objects(doc, key):
    value = doc.get(key, [])
    if not isinstance(value, list) or not all(isinstance(v, dict) for v in value):
        raise ControlError("'%s' must be an array of objects" % key)
    return value


class Control:
    def __init__(self, state):
        self.state = state
        self.store = state.store

    def handle(self, method, path, raw_query, body):
        """-> (status, JSON document, stream Content or None)."""
        query = parse_qs(raw_query, keep_blank_values=True)
        name = path[len("/_emulator/"):].rstrip("/")
        handlers = {
            ("POST", "reset"): self.reset,
            ("POST", "seed"): self.seed,
            ("GET", "item"): self.item,
            ("GET", "content"): self.content,
            ("GET", "tree"): self.tree,
            ("POST", "faults"): self.faults,
            ("GET", "faults"): self.list_faults,
            ("DELETE", "faults"): self.clear_faults,
            ("POST", "rate_limit"): self.rate_limit,
            ("POST", "tokens"): self.tokens,
            ("POST", "oauth"): self.oauth,
            ("GET", "oauth"): self.oauth_view,
            ("POST", "commit_pending"): self.commit_pending,
            ("POST", "config"): self.config,
            ("GET", "log"): self.log,
            ("DELETE", "log"): self.clear_log,
            ("GET", "concurrency"): self.concurrency,
        }
        func = handlers.get((method, name))
        if func is None:
            body.drain()
            return 404, {"error": "no control request %s %s" % (method, path)}, None
        try:
            if method == "POST":
                data = body.read_all(CONTROL_LIMIT)
                if data is None:
                    raise ControlError("control body too large")
                try:
                    doc = json.loads(data) if data.strip() else {}
                except (ValueError, UnicodeDecodeError) as e:
                    raise ControlError("body is not JSON: %s" % e) from None
                return func(doc)
            body.drain()
            return func(query)
        except ControlError as e:
            return 400, {"error": str(e)}, None
        except BoxError as e:
            return 400, {"error": "%s: %s" % (e.code, e.message)}, None

    # -- state ------------------------------------------------------------

    def reset(self, doc):
        self.state.reset()
        return 200, {}, None

    def seed(self, doc):
        entries = doc.get("entries") if isinstance(doc, dict) else None
        if not isinstance(entries, list):
            raise ControlError("seed needs an 'entries' array")
        ids = {}
        for entry in entries:
            if not isinstance(entry, dict) or not isinstance(entry.get("path"), str):
                raise ControlError("every entry needs a 'path'")
            path = entry["path"]
            ids[path] = self._seed_one(entry, path, ids)
        return 200, {"ids": ids}, None

    def _seed_one(self, entry, path, ids):
        parts = [p for p in path.split("/") if p]
        if not path.startswith("/") or not parts:
            raise ControlError("bad seed path %r" % path)
        kind = entry.get("type", "file")
        if kind not in ("file", "folder"):
            raise ControlError("bad type %r for %s" % (kind, path))
        content = None
        if kind == "file":
            content = self._seed_content(entry, path)
        modified = None
        if entry.get("modified_at") is not None:
            try:
                modified = Clock.parse(entry["modified_at"])
            except ValueError as e:
                raise ControlError(str(e)) from None
        with self.store.lock:
            folder = self.store.root
            for depth, name in enumerate(parts[:-1], 1):
                child = self.store.child_named(folder, name)
                if child is None:
                    child = self.store.create_folder(folder, name)
                    ids["/" + "/".join(parts[:depth])] = child.id
                elif child.type != "folder":
                    raise ControlError("%s: %s is a file" % (path, name))
                folder = child
            item = self.store.child_named(folder, parts[-1])
            if item is not None and item.type != kind:
                raise ControlError("%s exists as a %s" % (path, item.type))
            if item is None and kind == "folder":
                item = self.store.create_folder(folder, parts[-1])
            elif item is None:
                item = self.store.create_file(folder, parts[-1], content, modified)
            elif kind == "file":
                self.store.set_content(item, content, modified)
            if modified is not None:
                item.content_modified_at = modified
                item.content_created_at = min(item.content_created_at, modified)
            properties = dict(entry.get("properties") or {})
            if entry.get("md5_property") is not None:
                properties["tarvex-md5"] = entry["md5_property"]
            if properties:
                instance = item.metadata.get("global", {}).get("properties")
                if instance is None:
                    self.store.metadata_create(item, "global", "properties", properties)
                else:
                    instance.update(properties)
            return item.id

    @staticmethod
    def _seed_content(entry, path):
        if "content" in entry:
            if not isinstance(entry["content"], str):
                raise ControlError("%s: 'content' must be a string" % path)
            return BytesContent(entry["content"].encode("utf-8"))
        if "content_base64" in entry:
            try:
                return BytesContent(base64.b64decode(entry["content_base64"], validate=True))
            except (ValueError, TypeError):
                raise ControlError("%s: bad content_base64" % path) from None
        size = entry.get("size", 0)
        if not isinstance(size, int) or isinstance(size, bool) or size < 0:
            raise ControlError("%s: 'size' must be a non-negative integer" % path)
        return SyntheticContent(size)

    def _path_item(self, query):
        path = (query.get("path") or [""])[0]
        with self.store.lock:
            return self.store.by_path(path)

    def item(self, query):
        with self.store.lock:
            item = self._path_item(query)
            if item is None:
                return 404, {"error": "no such item"}, None
            return 200, self.store.control_json(item), None

    def content(self, query):
        with self.store.lock:
            item = self._path_item(query)
            if item is None or item.type != "file":
                return 404, {"error": "no such file"}, None
            return 200, None, item.content

    def tree(self, query):
        with self.store.lock:
            return 200, self.store.tree(), None

    # -- behaviour ----------------------------------------------------------

    def faults(self, doc):
        faults = doc if isinstance(doc, list) else doc.get("faults", [doc])
        checked = []
        for fault in faults:
            if not isinstance(fault, dict):
                raise ControlError("a fault is a JSON object")
            fault = dict(fault)
            fault["count"] = _int(fault, "count", 1, minimum=-1)
            if fault["count"] == 0:
                raise ControlError("'count' must be positive (or -1: forever)")
            for key in ("path_regex", "query_regex"):
                if fault.get(key) is not None:
                    try:
                        re.compile(fault[key])
                    except (re.error, TypeError) as e:
                        raise ControlError("bad %s: %s" % (key, e)) from None
            if fault.get("status") is not None:
                _int(fault, "status", 0, minimum=100)
            _int(fault, "delay_ms", 0)
            if fault.get("throttle_bps") is not None:
                _int(fault, "throttle_bps", 0, minimum=1)
            for key in ("truncate_after", "cut_body_after", "range_short_by"):
                if fault.get(key) is not None:
                    _int(fault, key, 0)
            self._check_header_regex(fault.get("header_regex"))
            headers = fault.get("headers") or {}
            if not isinstance(headers, dict) or not all(
                    isinstance(v, str) for v in headers.values()):
                raise ControlError("'headers' must map names to strings")
            body = fault.get("body")
            if body is not None and not isinstance(body, (dict, list, str)):
                raise ControlError("'body' must be an object, a string or null")
            checked.append(fault)
        with self.state.lock:
            self.state.faults.extend(checked)
        return 200, {"pending": len(self.state.faults)}, None

    @staticmethod
    def _check_header_regex(wanted):
        if wanted is None:
            return
        if not isinstance(wanted, dict) or not all(
                isinstance(v, str) for v in wanted.values()):
            raise ControlError("'header_regex' must map header names to regexes")
        for name, regex in wanted.items():
            try:
                re.compile(regex)
            except re.error as e:
                raise ControlError("bad header_regex for %s: %s" % (name, e)) from None

    def list_faults(self, query):
        with self.state.lock:
            return 200, list(self.state.faults), None

    def clear_faults(self, query):
        with self.state.lock:
            self.state.faults.clear()
        return 200, {}, None

    def rate_limit(self, doc):
        per_second = _int(doc, "per_second", 0)
        retry_after = _int(doc, "retry_after", 1)
        with self.state.lock:
            self.state.rate.update(per_second=per_second, retry_after=retry_after)
            self.state.rate["recent"].clear()
        return 200, {}, None

    def tokens(self, doc):
        with self.state.lock:
            if "revoke" in doc:
                self.state.tokens.pop(doc["revoke"], None)
            if "token" in doc:
                if not isinstance(doc["token"], str) or not doc["token"]:
                    raise ControlError("'token' must be a non-empty string")
                expires_in = doc.get("expires_in")
                if expires_in is not None and not isinstance(expires_in, (int, float)):
                    raise ControlError("'expires_in' must be a number or null")
                self.state.tokens[doc["token"]] = (
                    None if expires_in is None else time.time() + expires_in)
            return 200, {"tokens": sorted(self.state.tokens)}, None

    def oauth(self, doc):
        """Clients, users and refresh tokens of the token endpoint, the
        lifetime of the access tokens it issues, revocations.  Everything is
        checked before anything changes."""
        if not isinstance(doc, dict):
            raise ControlError("oauth takes a JSON object")
        clients = [(_text(c, "client_id"), _text(c, "client_secret"))
                   for c in _objects(doc, "clients")]
        users = [self._user(u) for u in _objects(doc, "users")]
        refresh = [(_text(r, "refresh_token"), _text(r, "client_id"),
                    _text(r, "user_id") if "user_id" in r else USER_ID)
                   for r in _objects(doc, "refresh_tokens")]
        revoke = doc.get("revoke", [])
        if not isinstance(revoke, list) or not all(isinstance(t, str) for t in revoke):
            raise ControlError("'revoke' must be an array of tokens")
        lifetime = _int(doc, "access_token_lifetime", None, minimum=1) \
            if doc.get("access_token_lifetime") is not None else None
        upcoming = doc.get("next_lifetimes")
        if upcoming is not None and (not isinstance(upcoming, list) or not all(
                isinstance(s, int) and not isinstance(s, bool) and s >= 1 for s in upcoming)):
            raise ControlError("'next_lifetimes' must be an array of integers >= 1")
        oauth = self.state.oauth
        with self.state.lock:
            for client_id, secret in clients:
                oauth.add_client(client_id, secret)
            for user in users:
                oauth.add_user(user)
            for token, client_id, user_id in refresh:
                oauth.add_refresh_token(token, client_id, user_id)
            for token in revoke:
                oauth.revoke(token)
            if lifetime is not None:
                oauth.lifetime = lifetime
            if upcoming is not None:
                oauth.next_lifetimes = list(upcoming)
            return 200, oauth.view(), None

    def oauth_view(self, query):
        with self.state.lock:
            return 200, self.state.oauth.view(), None

    @staticmethod
    def _user(doc):
        user = {"id": _text(doc, "id")}
        for key in ("name", "login"):
            if key in doc:
                user[key] = _text(doc, key)
        if "max_upload_size" in doc:
            user["max_upload_size"] = _int(doc, "max_upload_size", 0)
        return user

    def commit_pending(self, doc):
        count = _int(doc, "count", 0)
        retry_after = _int(doc, "retry_after", 1)
        with self.state.lock:
            self.state.commit_pending.update(count=count, retry_after=retry_after)
        return 200, {}, None

    def config(self, doc):
        with self.state.lock:
            config = self.state.config
            if "part_size" in doc:
                config["part_size"] = _int(doc, "part_size", 0, minimum=1)
            if "min_session_size" in doc:
                config["min_session_size"] = _int(doc, "min_session_size", 0)
            for key in WAN_KEYS:
                if key in doc:
                    config[key] = _int(doc, key, 0)
            if "download_base" in doc:
                base = doc["download_base"]
                if base is not None and not re.fullmatch(r"https?://[^/?#]+", str(base)):
                    raise ControlError("'download_base' must be null or scheme://host:port")
                config["download_base"] = base
            if "conflicts_as_list" in doc:
                if not isinstance(doc["conflicts_as_list"], bool):
                    raise ControlError("'conflicts_as_list' must be true or false")
                with self.store.lock:
                    self.store.conflicts_as_list = doc["conflicts_as_list"]
            with self.store.lock:
                return 200, dict(config, conflicts_as_list=self.store.conflicts_as_list), None

    def log(self, query):
        with self.state.lock:
            return 200, list(self.state.log), None

    def clear_log(self, query):
        with self.state.lock:
            self.state.log.clear()
        return 200, {}, None

    def concurrency(self, query):
        """Most requests of a kind open at once in the log and in flight."""
        with self.state.lock:
            logged = list(self.state.log)
        # An entry goes to the log while its answer is still being sent.
        entries = {id(e): e for e in logged}
        entries.update((id(e), e) for e in self.state.flight.entries())
        try:
            return 200, concurrency(entries.values(), (query.get("method") or [None])[0],
                                    (query.get("path_regex") or [None])[0]), None
        except re.error as e:
            raise ControlError("bad path_regex: %s" % e) from None
