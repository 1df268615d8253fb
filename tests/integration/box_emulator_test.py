"""Behaviour of the Box emulator that other tests rely on: paging, ranges,
faults, limits, tokens, uploads, commits and the request log."""

import hashlib
import http.client
import json
import threading
import time
import unittest
from urllib.parse import quote, urlencode

from emulator_process import PART, EmulatorCase, digest, pattern, upload_body, wait_for


class EmulatorTest(EmulatorCase):
    def assertBoxError(self, answer, status, code):
        got, doc, _ = answer
        self.assertEqual((got, doc["type"], doc["status"], doc["code"]),
                         (status, "error", status, code))
        self.assertTrue(doc["request_id"] and doc["message"] and doc["help_url"])
        return doc

    def test_marker_paging_is_stable_and_complete(self):
        ids = self.emu.seed(*({"path": "/p/f%03d" % i, "content": str(i)} for i in range(250)))
        items = "/2.0/folders/%s/items" % ids["/p"]
        page = items + "?usemarker=true&limit=100&marker="
        seen, marker, pages = [], "", 0
        while marker is not None:
            status, doc, _ = self.emu.json("GET", page + marker)
            self.assertEqual(status, 200, doc)
            seen += [e["id"] for e in doc["entries"]]
            marker, pages = doc.get("next_marker"), pages + 1
            if pages == 1:   # a new item lands at the end, not on a page already served
                self.emu.seed({"path": "/p/late", "content": ""})
        self.assertEqual((pages, seen[:250]), (3, [ids["/p/f%03d" % i] for i in range(250)]))
        self.assertEqual(seen[250:], [self.emu.control("GET", "item?path=/p/late")["id"]])
        for bad in ("marker=zzz", "limit=0", "limit=x"):
            self.assertEqual(self.emu.json("GET", items + "?usemarker=true&" + bad)[0], 400, bad)

    def test_download_ranges(self):
        ids = self.emu.seed({"path": "/s.bin", "size": 1000}, {"path": "/e", "content": ""})
        table = [(None, 200, None, 0, 1000), ("bytes=0-9", 206, "bytes 0-9/1000", 0, 10),
                 ("bytes=990-", 206, "bytes 990-999/1000", 990, 10),
                 ("bytes=-5", 206, "bytes 995-999/1000", 995, 5),
                 ("bytes=500-5000", 206, "bytes 500-999/1000", 500, 500),
                 ("bytes=1000-", 416, "bytes */1000", 0, 0)]
        for rng, status, content_range, offset, length in table:
            with self.subTest(rng):
                got, hdrs, data = self.emu.download(ids["/s.bin"], {"Range": rng} if rng else {})
                self.assertEqual((got, hdrs.get("content-range")), (status, content_range))
                self.assertEqual(int(hdrs["content-length"]), len(data))
                if status != 416:
                    self.assertEqual(data, pattern(offset, length))
        self.assertEqual(self.emu.download(ids["/e"])[::2], (200, b""))

    def test_tokens(self):
        items = "/2.0/folders/0/items"
        status, hdrs, data = self.emu.request("GET", items, token=None)
        self.assertEqual((status, data), (401, b""))
        self.assertIn('error="invalid_request"', hdrs["www-authenticate"])
        self.emu.control("POST", "tokens", {"token": "long", "expires_in": 3600})
        self.emu.control("POST", "tokens", {"token": "due", "expires_in": 0})
        self.assertEqual(self.emu.request("GET", items, token="long")[0], 200)
        status, hdrs, _ = self.emu.request("GET", items, token="due")
        self.assertEqual(status, 401)
        self.assertIn('error="invalid_token"', hdrs["www-authenticate"])
        # A token is refused once its time is up, and not before.
        granted = time.time()
        self.emu.control("POST", "tokens", {"token": "short", "expires_in": 1})
        wait_for(lambda: self.emu.request("GET", items, token="short")[0] == 401)
        self.assertGreaterEqual(time.time() - granted, 1.0)

    def test_rate_limit(self):
        """Beyond per_second requests within a second of the first of them,
        429 with Retry-After; accepted again once that second is over."""
        items = "/2.0/folders/0/items"

        def burst():   # the limit set anew empties its window
            self.emu.control("POST", "rate_limit", {"per_second": 3, "retry_after": 4})
            start = time.monotonic()
            answers = [self.emu.json("GET", items) for _ in range(4)]
            return answers, start, time.monotonic() - start

        # The fourth request must be refused only when all four came within
        # a second; a machine too busy for that tries again.
        deadline = time.monotonic() + 60
        while True:
            answers, start, took = burst()
            self.assertEqual([a[0] for a in answers[:3]], [200] * 3)
            if took < 1.0:
                break
            self.assertLess(time.monotonic(), deadline, "never four requests within a second")
        self.assertBoxError(answers[3], 429, "rate_limit_exceeded")
        self.assertEqual(answers[3][2]["retry-after"], "4")
        wait_for(lambda: self.emu.json("GET", items)[0] == 200)
        self.assertGreaterEqual(time.monotonic() - start, 1.0)

    def test_faults_apply_to_the_next_matches(self):
        items = "/2.0/folders/0/items"
        self.emu.control("POST", "faults", [
            {"method": "GET", "path_regex": "^/2.0/folders/0/items", "count": 2, "status": 503,
             "headers": {"Retry-After": "7"}, "body": {"code": "unavailable"}},
            {"path_regex": "^/2.0/folders/0/items", "status": 418, "body": "teapot"}])
        self.assertEqual(self.emu.request("GET", "/2.0/folders/1/items")[0], 404)   # no match
        got = [self.emu.request("GET", items) for _ in range(4)]
        self.assertEqual([g[0] for g in got], [503, 503, 418, 200])
        self.assertEqual((got[0][1]["retry-after"], json.loads(got[0][2])),
                         ("7", {"code": "unavailable"}))
        self.assertEqual(got[2][2], b"teapot")
        self.emu.control("POST", "faults", {"path_regex": "/items$", "drop": True})
        with self.assertRaises((http.client.HTTPException, OSError)):
            self.emu.request("GET", items)
        self.emu.control("POST", "faults", {"path_regex": "^/2.0/folders$", "delay_ms": 300})
        start = time.monotonic()
        status, doc, _ = self.emu.json("POST", "/2.0/folders",
                                       {"name": "late", "parent": {"id": "0"}})
        self.assertGreaterEqual(time.monotonic() - start, 0.3)
        self.assertEqual((status, doc["name"]), (201, "late"))   # the body still reached Box
        self.assertEqual([e["status"] for e in self.emu.control("GET", "log")][-2:], [0, 201])

    def test_shaped_answers_throttle_and_reset(self):
        ids = self.emu.seed({"path": "/t.bin", "size": 3000})
        self.emu.control("POST", "faults", {"path_regex": "^/d/", "throttle_bps": 4000})
        start = time.monotonic()
        status, _, data = self.emu.download(ids["/t.bin"], {"Range": "bytes=1000-"})
        # 2000 bytes in slices of 200, the last one due after 1800 / 4000 s.
        self.assertGreaterEqual(time.monotonic() - start, 0.45)
        self.assertEqual((status, data), (206, pattern(1000, 2000)))
        # A reset after 500 bytes: the client sees the connection torn down
        # inside the body, never a complete answer.
        self.emu.control("POST", "faults", {"path_regex": "^/d/", "truncate_after": 500,
                                            "reset": True})
        with self.assertRaises(ConnectionResetError):
            self.emu.download(ids["/t.bin"])
        self.assertEqual([(e["status"], e["response_length"])
                          for e in self.emu.control("GET", "log")][-1], (200, 500))
        for bad in ({"throttle_bps": 0}, {"throttle_bps": "fast"}):
            self.assertEqual(self.emu.request("POST", "/_emulator/faults", bad)[0], 400, bad)

    def test_tree_lists_every_item_with_digests(self):
        self.emu.seed({"path": "/a/b/one", "content": "1"},
                      {"path": "/a/two", "size": 10, "md5_property": "f" * 32},
                      {"path": "/e", "type": "folder"})
        tree = self.emu.control("GET", "tree")
        self.assertEqual([(e["path"], e["type"], e["size"], e["sha1"], e["tarvex-md5"])
                          for e in tree],
                         [("/a", "folder", 11, None, None), ("/a/b", "folder", 1, None, None),
                          ("/a/b/one", "file", 1, hashlib.sha1(b"1").hexdigest(), None),
                          ("/a/two", "file", 10, hashlib.sha1(pattern(0, 10)).hexdigest(),
                           "f" * 32),
                          ("/e", "folder", 0, None, None)])

    def test_multipart_upload(self):
        up = self.emu.seed({"path": "/up", "type": "folder"})["/up"]
        data = pattern(0, 300000)
        status, doc, _ = self.emu.json(
            "POST", "/api/2.0/files/content?fields=name,sha1,size,content_modified_at",
            *upload_body("x.bin", up, data, modified="2021-06-01T12:00:00Z"))
        self.assertEqual(status, 201, doc)
        entry = doc["entries"][0]
        self.assertEqual((entry["size"], entry["sha1"], entry["content_modified_at"]),
                         (len(data), hashlib.sha1(data).hexdigest(), "2021-06-01T05:00:00-07:00"))
        self.assertEqual(self.emu.control("GET", "content?path=/up/x.bin"), data)
        url = "/api/2.0/files/content"
        doc = self.assertBoxError(self.emu.json("POST", url, *upload_body("X.BIN", up, b"1")),
                                  409, "item_name_in_use")
        self.assertEqual(doc["context_info"]["conflicts"]["id"], entry["id"])
        answer = self.emu.json("POST", url, *upload_body("y", up, b"1", file_first=True))
        self.assertBoxError(answer, 400, "metadata_after_file_contents")
        # Box takes the file from the part with a filename, whatever its name.
        status, doc, _ = self.emu.json("POST", url,
                                       *upload_body("c", up, b"abc", field="contents"))
        self.assertEqual((status, doc["entries"][0]["size"]), (201, 3))
        # Chunked request framing, a boundary that also occurs partly in the data.
        body, headers = upload_body("z", up, b"\r\n--tarvex_" * 1000, boundary="tarvex_bb")
        headers["Transfer-Encoding"] = "chunked"
        status, doc, _ = self.emu.json("POST", url, iter([body[:777], body[777:]]), headers)
        self.assertEqual((status, doc["entries"][0]["size"]), (201, 11000))

    def test_conflicts_come_as_an_object_or_as_a_list(self):
        ids = self.emu.seed({"path": "/c/taken", "type": "folder"})
        body = json.dumps({"name": "TAKEN", "parent": {"id": ids["/c"]}}).encode()
        for as_list, wrap in ((None, lambda mini: mini), (True, lambda mini: [mini]),
                              (False, lambda mini: mini)):
            with self.subTest(as_list=as_list):
                if as_list is not None:
                    self.emu.control("POST", "config", {"conflicts_as_list": as_list})
                doc = self.assertBoxError(self.emu.json("POST", "/2.0/folders", body),
                                          409, "item_name_in_use")
                self.assertEqual(doc["context_info"]["conflicts"],
                                 wrap({"type": "folder", "id": ids["/c/taken"],
                                       "sequence_id": "0", "etag": "0", "name": "taken"}))

    def test_upload_session_checks_parts_and_commits(self):
        u = self.emu.seed({"path": "/u", "type": "folder"})["/u"]
        data = pattern(7, 2500)
        status, session, _ = self.emu.json("POST", "/api/2.0/files/upload_sessions",
                                           {"folder_id": u, "file_size": 2500,
                                            "file_name": "s.bin"})
        self.assertEqual((status, session["part_size"], session["total_parts"]), (201, PART, 3))
        url = "/api/2.0/files/upload_sessions/" + session["id"]

        def put(offset, chunk, total=2500, dig=None):
            return self.emu.json("PUT", url, chunk, {
                "Content-Range": "bytes %d-%d/%d" % (offset, offset + len(chunk) - 1, total),
                "digest": dig or digest(chunk), "Content-Type": "application/octet-stream"})

        self.assertBoxError(put(0, data[:1000], dig=digest(b"x")), 400, "bad_digest")
        for offset, end, total in ((500, 1500, 2500), (0, 999, 2500), (0, 1000, 9999)):
            self.assertBoxError(put(offset, data[offset:end], total), 416, "range_mismatch")
        parts = [put(o, data[o:o + PART])[1]["part"] for o in (2000, 0, 1000)]
        self.assertEqual([p["size"] for p in parts], [500, 1000, 1000])
        self.assertEqual(put(0, data[:1000])[1]["part"], parts[1])   # the same part again
        self.assertBoxError(put(0, pattern(0, 1000)), 409, "range_overlap")
        commit = url + "/commit?fields=name,size,sha1"
        answer = self.emu.json("POST", commit, {"parts": parts}, {"digest": digest(b"no")})
        self.assertBoxError(answer, 400, "bad_digest")
        self.assertEqual(self.emu.json("POST", commit, {"parts": parts[1:]},
                                       {"digest": digest(data)})[0], 400)
        self.emu.control("POST", "commit_pending", {"count": 2, "retry_after": 3})
        answers = [self.emu.json("POST", commit, {"parts": parts}, {"digest": digest(data)})
                   for _ in range(3)]
        self.assertEqual([(a[0], a[2].get("retry-after")) for a in answers],
                         [(202, "3"), (202, "3"), (201, None)])
        entry = answers[2][1]["entries"][0]
        self.assertEqual((entry["size"], entry["sha1"]), (2500, hashlib.sha1(data).hexdigest()))
        self.assertEqual(self.emu.download(entry["id"], {"Range": "bytes=900-1100"})[2],
                         data[900:1101])
        self.assertEqual(self.emu.json("POST", commit, {"parts": parts})[0], 404)

    def session(self, size):
        """A new upload session's URL and a function that PUTs one part."""
        u = self.emu.seed({"path": "/u", "type": "folder"})["/u"]
        status, session, _ = self.emu.json("POST", "/api/2.0/files/upload_sessions",
                                           {"folder_id": u, "file_size": size,
                                            "file_name": "s.bin"})
        self.assertEqual(status, 201, session)
        url = "/api/2.0/files/upload_sessions/" + session["id"]

        def headers(offset, chunk):
            return {"Content-Range": "bytes %d-%d/%d" % (offset, offset + len(chunk) - 1, size),
                    "digest": digest(chunk), "Content-Type": "application/octet-stream"}

        return url, headers

    def test_wan_profile_delays_and_paces(self):
        """Lower bounds only: a busy machine may take longer, never less."""
        wan = {"latency_ms": 150, "part_processing_ms": 250, "bandwidth_bps": 400000}
        self.assertEqual({k: v for k, v in self.emu.control("POST", "config", wan).items()
                          if k in wan}, wan)

        def took(call):
            start = time.monotonic()
            result = call()
            return time.monotonic() - start, result

        ids = self.emu.seed({"path": "/w.bin", "size": 100000})
        seconds, (status, _, data) = took(lambda: self.emu.download(ids["/w.bin"]))
        # Two requests (the redirect, then the bytes) and 100000 bytes at 400000 a second.
        self.assertGreaterEqual(seconds, 2 * 0.15 + 0.25)
        self.assertEqual((status, data), (200, pattern(0, 100000)))
        # Request bodies come in at the rate too; a plain upload is not processed.
        seconds, (status, _, _) = took(lambda: self.emu.json(
            "POST", "/api/2.0/files/content", *upload_body("p", "0", pattern(0, 100000))))
        self.assertEqual(status, 201)
        self.assertGreaterEqual(seconds, 0.15 + 0.25)
        # Parts and commits wait for Box's processing as well.
        url, headers = self.session(1000)
        seconds, (status, part, _) = took(
            lambda: self.emu.json("PUT", url, pattern(0, 1000), headers(0, pattern(0, 1000))))
        self.assertEqual(status, 200, part)
        self.assertGreaterEqual(seconds, 0.15 + 0.25)
        seconds, (status, _, _) = took(lambda: self.emu.json(
            "POST", url + "/commit", {"parts": [part["part"]]},
            {"digest": digest(pattern(0, 1000))}))
        self.assertEqual(status, 201)
        self.assertGreaterEqual(seconds, 0.15 + 0.25)
        self.assertEqual(self.emu.request("POST", "/_emulator/config", {"latency_ms": -1})[0],
                         400)
        self.emu.control("POST", "reset")
        config = self.emu.control("POST", "config", {})
        self.assertEqual({k: config[k] for k in wan}, dict.fromkeys(wan, 0))

    def test_open_requests_are_counted_and_faults_cut_them(self):
        url, headers = self.session(3000)
        data = pattern(0, 3000)
        parts = "concurrency?method=PUT&path_regex=" + quote(r"^/api/2\.0/files/upload_sessions/")
        # Three parts whose bodies are held back stay open together.
        conns = []
        for offset in (0, 1000, 2000):
            conn = http.client.HTTPConnection("127.0.0.1", self.emu.port, timeout=30)
            conn.putrequest("PUT", url)
            held = dict(headers(offset, data[offset:offset + 1000]),
                        **{"Authorization": "Bearer test-token", "Content-Length": "1000"})
            for k, v in held.items():
                conn.putheader(k, v)
            conn.endheaders()
            conns.append(conn)
        wait_for(lambda: self.emu.control("GET", parts)["open"] == 3)
        for conn, offset in zip(conns, (0, 1000, 2000)):
            conn.send(data[offset:offset + 1000])
            answer = conn.getresponse()
            self.assertEqual((answer.status, json.loads(answer.read())["part"]["offset"]),
                             (200, offset))
            conn.close()
        # Requests one after the other on a connection never overlap.
        for _ in range(2):
            self.assertEqual(self.emu.request("PUT", url, data[:1000], headers(0, data[:1000]))[0],
                             200)
        self.assertEqual(self.emu.control("GET", parts), {"peak": 3, "open": 0, "count": 5})
        log = self.emu.control("GET", "log")
        self.assertTrue(all(e["started"] <= e["ended"] for e in log))
        # A part picked by its Content-Range is cut after 400 bytes of its body.
        self.emu.control("POST", "faults", {"method": "PUT", "cut_body_after": 400, "reset": True,
                                            "header_regex": {"content-range": "^bytes 1000-"}})
        self.assertEqual(self.emu.request("PUT", url, data[:1000], headers(0, data[:1000]))[0],
                         200)
        with self.assertRaises((http.client.HTTPException, OSError)):
            self.emu.request("PUT", url, data[1000:2000], headers(1000, data[1000:2000]))
        self.assertEqual([(e["status"], e["body_length"])
                          for e in self.emu.control("GET", "log")][-2:], [(200, 1000), (0, 400)])
        for bad in ({"header_regex": {"range": "("}}, {"header_regex": "x"},
                    {"cut_body_after": -1}):
            self.assertEqual(self.emu.request("POST", "/_emulator/faults", bad)[0], 400, bad)

    def test_new_versions_keep_the_old_content(self):
        f = self.emu.seed({"path": "/v/f.bin", "content": "one"})["/v/f.bin"]
        status, doc, _ = self.emu.json("POST", "/api/2.0/files/%s/content?fields=name,size" % f,
                                       *upload_body("f.bin", None, b"two!"))
        self.assertEqual((status, doc["entries"][0]["id"], doc["entries"][0]["size"]),
                         (200, f, 4))
        data = pattern(0, 2500)
        status, session, _ = self.emu.json("POST", "/api/2.0/files/%s/upload_sessions" % f,
                                           {"file_size": len(data), "file_name": "g.bin"})
        self.assertEqual(status, 201, session)
        url = "/api/2.0/files/upload_sessions/" + session["id"]
        parts = [self.emu.json("PUT", url, data[o:o + PART], {
            "Content-Range": "bytes %d-%d/%d" % (o, min(o + PART, 2500) - 1, 2500),
            "digest": digest(data[o:o + PART])})[1]["part"] for o in (0, 1000, 2000)]
        status, doc, _ = self.emu.json("POST", url + "/commit", {"parts": parts},
                                       {"digest": digest(data)})
        self.assertEqual((status, doc["entries"][0]["id"]), (201, f))
        # The current content under the new name; the two before it, newest first.
        self.assertEqual(self.emu.control("GET", "content?path=/v/g.bin"), data)
        status, doc, _ = self.emu.json("GET", "/2.0/files/%s/versions" % f)
        self.assertEqual([(v["name"], v["size"], v["sha1"], v["version_number"])
                          for v in doc["entries"]],
                         [("f.bin", 4, hashlib.sha1(b"two!").hexdigest(), "2"),
                          ("f.bin", 3, hashlib.sha1(b"one").hexdigest(), "1")])
        self.assertEqual(len(self.emu.control("GET", "item?path=/v/g.bin")["versions"]), 2)
        # Downloads on another origin when asked to.
        self.emu.control("POST", "config", {"download_base": "http://localhost:1"})
        status, hdrs, _ = self.emu.request("GET", "/2.0/files/%s/content" % f)
        self.assertTrue(hdrs["location"].startswith("http://localhost:1/d/1/"), hdrs)

    def test_request_log(self):
        body = json.dumps({"name": "k", "parent": {"id": "0"}}).encode()
        self.emu.request("POST", "/2.0/folders?fields=id", iter([body[:5], body[5:]]),
                         {"Transfer-Encoding": "chunked", "Content-Type": "application/json;"})
        sock = self.emu.conn.sock
        self.emu.request("GET", "/2.0/folders/0/items?usemarker=true&marker=")
        self.emu.control("GET", "item?path=/k")
        self.assertIs(self.emu.conn.sock, sock)   # kept alive
        log = self.emu.control("GET", "log")
        self.assertEqual([(e["method"], e["path"], e["status"]) for e in log],
                         [("POST", "/2.0/folders", 201), ("GET", "/2.0/folders/0/items", 200)])
        self.assertEqual((log[0]["body_length"], log[0]["body_sha1"]),
                         (len(body), hashlib.sha1(body).hexdigest()))
        self.assertEqual(log[0]["headers"]["content-type"], "application/json;")
        self.assertEqual(log[1]["query"], {"usemarker": ["true"], "marker": [""]})
        self.assertGreater(log[1]["response_length"], 0)
        self.emu.control("DELETE", "log")
        self.assertEqual(self.emu.control("GET", "log"), [])


def form(**params):
    """A token endpoint request body and its headers."""
    return (urlencode(params).encode(),
            {"Content-Type": "application/x-www-form-urlencoded"})


class OAuthTest(EmulatorCase):
    """The token endpoint, users/me and the upload preflight."""
    CLIENT = {"client_id": "app", "client_secret": "app-secret"}

    def setUp(self):
        super().setUp()
        self.emu.control("POST", "oauth", {
            "clients": [self.CLIENT], "users": [{"id": "77", "max_upload_size": 1000}],
            "refresh_tokens": [{"refresh_token": "r0", "client_id": "app", "user_id": "77"}]})

    def token(self, **params):
        return self.emu.json("POST", "/oauth2/token", *form(**params), token=None)[:2]

    def refresh(self, token, **client):
        return self.token(grant_type="refresh_token", refresh_token=token,
                          **(client or self.CLIENT))

    def states(self):
        return {t: r["state"] for t, r in self.emu.control("GET", "oauth")["refresh_tokens"].items()}

    def test_refresh_tokens_rotate_and_are_spent(self):
        status, first = self.refresh("r0")
        self.assertEqual((status, first["token_type"], first["expires_in"]), (200, "bearer", 3600))
        self.assertNotEqual(first["refresh_token"], "r0")
        self.assertEqual(self.states(), {"r0": "spent", first["refresh_token"]: "active"})
        # The issued token works on the API and speaks for its user.
        self.assertEqual(self.emu.json("GET", "/2.0/folders/0/items",
                                       token=first["access_token"])[0], 200)
        me = self.emu.json("GET", "/2.0/users/me?fields=id,max_upload_size",
                           token=first["access_token"])[1]
        self.assertEqual(me, {"type": "user", "id": "77", "name": "User 77",
                              "login": "user77@example.com", "max_upload_size": 1000})
        status, second = self.refresh(first["refresh_token"])
        self.assertEqual(status, 200)
        # A refused request spends nothing.
        status, doc = self.refresh(second["refresh_token"], client_id="app", client_secret="x")
        self.assertEqual((status, doc["error"]), (400, "invalid_client"))
        self.assertEqual(self.states()[second["refresh_token"]], "active")
        self.emu.control("POST", "oauth", {"revoke": [second["refresh_token"]]})
        refused = [("spent", self.refresh("r0")),
                   ("revoked", self.refresh(second["refresh_token"])),
                   ("unknown", self.refresh("nothing")),
                   ("no grant", self.token(**self.CLIENT))]
        self.assertEqual([(why, status, doc["error"]) for why, (status, doc) in refused],
                         [("spent", 400, "invalid_grant"), ("revoked", 400, "invalid_grant"),
                          ("unknown", 400, "invalid_grant"), ("no grant", 400, "invalid_grant")])

    def test_one_refresh_token_serves_one_of_two_racing_requests(self):
        body, headers = form(grant_type="refresh_token", refresh_token="r0", **self.CLIENT)
        statuses = []

        def use():
            conn = http.client.HTTPConnection("127.0.0.1", self.emu.port, timeout=30)
            conn.request("POST", "/oauth2/token", body, headers)
            statuses.append(conn.getresponse().status)
            conn.close()

        threads = [threading.Thread(target=use) for _ in range(8)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        self.assertEqual(sorted(statuses), [200] + [400] * 7)

    def test_client_credentials_act_as_a_named_user(self):
        grant = dict(grant_type="client_credentials", box_subject_type="user", **self.CLIENT)
        status, doc = self.token(box_subject_id="77", **grant)
        self.assertEqual(status, 200)
        self.assertNotIn("refresh_token", doc)
        self.assertEqual(self.emu.json("GET", "/2.0/users/me", token=doc["access_token"])[1]["id"],
                         "77")
        cases = [({"box_subject_id": "78"}, "invalid_grant"),
                 ({}, "invalid_request"),
                 ({"box_subject_id": "77", "client_secret": "x"}, "invalid_client"),
                 ({"box_subject_id": "77", "box_subject_type": "enterprise"},
                  "unauthorized_client")]
        for change, error in cases:
            with self.subTest(change):
                status, doc = self.token(**dict(grant, **change))
                self.assertEqual((status, doc["error"]), (400, error))

    def test_issued_tokens_expire_as_set(self):
        self.emu.control("POST", "oauth", {"next_lifetimes": [1], "access_token_lifetime": 50})
        short = self.refresh("r0")[1]
        later = self.refresh(short["refresh_token"])[1]
        self.assertEqual((short["expires_in"], later["expires_in"]), (1, 50))
        deadline = time.monotonic() + 10
        while self.emu.request("GET", "/2.0/users/me", token=short["access_token"])[0] == 200:
            self.assertLess(time.monotonic(), deadline, "the 1 s token never expired")
            time.sleep(0.05)
        self.assertEqual(self.emu.request("GET", "/2.0/users/me",
                                          token=later["access_token"])[0], 200)

    def test_upload_preflight(self):
        ids = self.emu.seed({"path": "/d/taken.txt", "content": "x"})
        token = self.refresh("r0")[1]["access_token"]   # user 77: 1000 bytes at most
        url = "/2.0/files/content"
        cases = [({"name": "new.txt", "size": 1000, "parent": {"id": ids["/d"]}}, 200, None),
                 ({"name": "TAKEN.txt", "size": 1, "parent": {"id": ids["/d"]}}, 409,
                  "item_name_in_use"),
                 ({"name": "big", "size": 1001, "parent": {"id": ids["/d"]}}, 413,
                  "file_size_limit_exceeded"),
                 ({"name": "a/b", "parent": {"id": ids["/d"]}}, 400, "item_name_invalid"),
                 ({"name": "x", "parent": {"id": "999999"}}, 404, "not_found"),
                 ({"name": "x"}, 400, "bad_request")]
        for doc, status, code in cases:
            with self.subTest(doc):
                got, answer, _ = self.emu.json("OPTIONS", url, doc, token=token)
                self.assertEqual((got, answer.get("code")), (status, code))
        answer = self.emu.json("OPTIONS", url, cases[1][0], token=token)[1]
        self.assertEqual([c["id"] for c in answer["context_info"]["conflicts"]],
                         [ids["/d/taken.txt"]])
        self.assertEqual(self.emu.json("OPTIONS", url, cases[0][0], token=token)[1],
                         {"upload_url": self.emu.base + "/api/2.0/files/content"})
        # The default user (test-token) may send more.
        self.assertEqual(self.emu.json("OPTIONS", url, cases[2][0])[0], 200)
        self.assertEqual(self.emu.request("OPTIONS", url, b"{}", token=None)[0], 401)


if __name__ == "__main__":
    unittest.main()
