"""Behaviour of the Box emulator itself: paging, ranges, faults, limits,
tokens, uploads, commits and the request log."""

import base64
import hashlib
import http.client
import json
import os
import time
import unittest
from urllib.parse import urlencode

from emulator_process import Emulator, pattern

PART = 1000
with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "box_requests.json")) as f:
    REQUESTS = json.load(f)["requests"]


def digest(data):
    return "sha=" + base64.b64encode(hashlib.sha1(data).digest()).decode()


def multipart(boundary, *parts):
    out = b""
    for headers, data in parts:
        out += b"--" + boundary.encode() + b"\r\n"
        out += "".join("%s: %s\r\n" % h for h in headers).encode() + b"\r\n" + data + b"\r\n"
    return out + b"--" + boundary.encode() + b"--\r\n"


def upload_body(name, parent, data, boundary="tarvex_b", modified=None, file_first=False):
    attrs = {"name": name, "parent": {"id": parent}}
    if modified:
        attrs["content_modified_at"] = modified
    a = ([("Content-Disposition", 'form-data; name="attributes"')], json.dumps(attrs).encode())
    f = ([("Content-Disposition", 'form-data; name="file"; filename="%s"' % name),
          ("Content-Type", "application/octet-stream")], data)
    body = multipart(boundary, *((f, a) if file_first else (a, f)))
    return body, {"Content-Type": "multipart/form-data; boundary=" + boundary}


class EmulatorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.emu = Emulator("--part-size", str(PART), "--min-session-size", "0")

    @classmethod
    def tearDownClass(cls):
        cls.emu.close()

    def setUp(self):
        self.emu.control("POST", "reset")

    def assertBoxError(self, status, doc, code):
        self.assertEqual((doc["type"], doc["status"], doc["code"]), ("error", status, code))
        self.assertTrue(doc["request_id"] and doc["message"] and doc["help_url"])

    def test_marker_paging_is_stable_and_complete(self):
        ids = self.emu.seed(*({"path": "/p/f%03d" % i, "content": str(i)} for i in range(250)))
        expected = [ids["/p/f%03d" % i] for i in range(250)]
        base = "/2.0/folders/%s/items?usemarker=true&limit=100" % ids["/p"]
        seen, marker, pages = [], "", 0
        while marker is not None:
            status, doc, _ = self.emu.json("GET", base + "&marker=" + marker)
            self.assertEqual(status, 200, doc)
            seen += [e["id"] for e in doc["entries"]]
            marker, pages = doc.get("next_marker"), pages + 1
            if pages == 1:   # a new item lands at the end, not on a page already served
                self.emu.seed({"path": "/p/late", "content": ""})
        self.assertEqual((pages, seen[:250]), (3, expected))
        self.assertEqual(len(seen), 251)
        for query, limit in (("", 100), ("&limit=5000", 1000), ("&limit=7", 7)):
            status, doc, _ = self.emu.json("GET", base.split("?")[0] + "?usemarker=true" + query)
            self.assertEqual((doc["limit"], len(doc["entries"])), (limit, min(limit, 251)))
        status, doc, _ = self.emu.json("GET", base.split("?")[0] + "?offset=249&limit=100")
        self.assertEqual((doc["total_count"], len(doc["entries"])), (251, 2))
        for bad in ("&marker=zzz", "&limit=0", "&limit=x"):
            status, doc, _ = self.emu.json("GET", base.split("&")[0] + bad)
            self.assertEqual(status, 400, bad)

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
        got, _, data = self.emu.download(ids["/e"])
        self.assertEqual((got, data), (200, b""))

    def test_tree_changes_and_errors(self):
        ids = self.emu.seed({"path": "/a/b/c.txt", "content": "x"}, {"path": "/z", "type": "folder"})
        status, doc, _ = self.emu.json("POST", "/2.0/folders", {"name": "B", "parent": {"id": ids["/a"]}})
        self.assertBoxError(409, doc, "item_name_in_use")
        self.assertEqual(doc["context_info"]["conflicts"]["id"], ids["/a/b"])
        self.assertEqual(doc["context_info"]["conflicts"]["name"], "b")
        status, doc, _ = self.emu.json("DELETE", "/2.0/folders/" + ids["/a"])
        self.assertBoxError(400, doc, "folder_not_empty")
        status, doc, _ = self.emu.json("PUT", "/2.0/folders/" + ids["/a"],
                                       {"name": "a", "parent": {"id": ids["/a/b"]}})
        self.assertEqual(status, 400)
        status, doc, _ = self.emu.json("PUT", "/2.0/files/" + ids["/a/b/c.txt"] + "?fields=name,parent",
                                       {"name": "d.txt", "parent": {"id": ids["/z"]}})
        self.assertEqual((status, doc["name"], doc["parent"]["id"]), (200, "d.txt", ids["/z"]))
        self.assertEqual(self.emu.control("GET", "item?path=/z/d.txt")["id"], ids["/a/b/c.txt"])
        status, _, _ = self.emu.json("DELETE", "/2.0/folders/%s?recursive=true" % ids["/a"])
        self.assertEqual(status, 204)
        status, doc, _ = self.emu.json("GET", "/2.0/folders/%s/items" % ids["/a/b"])
        self.assertBoxError(404, doc, "trashed")
        status, doc, _ = self.emu.json("GET", "/2.0/files/123456/")
        self.assertBoxError(404, doc, "not_found")
        self.assertEqual(doc["context_info"]["errors"][0]["name"], "item")
        status, doc, _ = self.emu.json("PATCH", "/2.0/files/" + ids["/a/b/c.txt"])
        self.assertEqual(status, 405)

    def test_tokens_and_rate_limit(self):
        status, hdrs, data = self.emu.request("GET", "/2.0/folders/0/items", token=None)
        self.assertEqual((status, data), (401, b""))
        self.assertIn('error="invalid_request"', hdrs["www-authenticate"])
        self.emu.control("POST", "tokens", {"token": "short", "expires_in": 1})
        self.assertEqual(self.emu.request("GET", "/2.0/folders/0/items", token="short")[0], 200)
        time.sleep(1.1)
        status, hdrs, _ = self.emu.request("GET", "/2.0/folders/0/items", token="short")
        self.assertEqual(status, 401)
        self.assertIn('error="invalid_token"', hdrs["www-authenticate"])
        self.emu.control("POST", "tokens", {"revoke": "test-token"})
        self.assertEqual(self.emu.request("GET", "/2.0/folders/0/items")[0], 401)
        self.emu.control("POST", "reset")
        self.emu.control("POST", "rate_limit", {"per_second": 3, "retry_after": 4})
        answers = [self.emu.json("GET", "/2.0/folders/0/items") for _ in range(4)]
        self.assertEqual([a[0] for a in answers], [200, 200, 200, 429])
        self.assertBoxError(429, answers[3][1], "rate_limit_exceeded")
        self.assertEqual(answers[3][2]["retry-after"], "4")
        time.sleep(1.05)
        self.assertEqual(self.emu.json("GET", "/2.0/folders/0/items")[0], 200)

    def test_faults(self):
        ids = self.emu.seed({"path": "/f", "size": 5000})
        self.emu.control("POST", "faults", {"method": "GET", "path_regex": "^/2.0/folders/0/items",
                                            "count": 2, "status": 503, "headers": {"Retry-After": "7"},
                                            "body": {"code": "unavailable"}})
        self.emu.control("POST", "faults", {"path_regex": "^/2.0/folders/0/items", "status": 418,
                                            "body": "teapot"})
        got = [self.emu.request("GET", "/2.0/folders/0/items") for _ in range(4)]
        self.assertEqual([g[0] for g in got], [503, 503, 418, 200])
        self.assertEqual((got[0][1]["retry-after"], json.loads(got[0][2])), ("7", {"code": "unavailable"}))
        self.assertEqual(got[2][2], b"teapot")
        self.emu.control("POST", "faults", {"path_regex": "/items$", "drop": True})
        with self.assertRaises((http.client.HTTPException, OSError)):
            self.emu.request("GET", "/2.0/folders/0/items")
        self.emu.control("POST", "faults", {"path_regex": "^/d/", "truncate_after": 100})
        with self.assertRaises(http.client.IncompleteRead):
            self.emu.download(ids["/f"])
        self.emu.control("POST", "faults", {"path_regex": "/items$", "delay_ms": 300})
        start = time.monotonic()
        self.assertEqual(self.emu.request("GET", "/2.0/folders/0/items")[0], 200)
        self.assertGreaterEqual(time.monotonic() - start, 0.3)
        statuses = [e["status"] for e in self.emu.control("GET", "log")]
        self.assertEqual(statuses[4:], [0, 302, 200, 200])

    def test_multipart_upload(self):
        ids = self.emu.seed({"path": "/up", "type": "folder"})
        data = pattern(0, 300000)
        body, headers = upload_body("x.bin", ids["/up"], data, modified="2021-06-01T12:00:00Z")
        status, doc, _ = self.emu.json("POST", "/api/2.0/files/content?fields=name,sha1,size,content_modified_at",
                                       body, headers)
        self.assertEqual(status, 201, doc)
        entry = doc["entries"][0]
        self.assertEqual((entry["size"], entry["sha1"]), (len(data), hashlib.sha1(data).hexdigest()))
        self.assertEqual(entry["content_modified_at"], "2021-06-01T05:00:00-07:00")
        self.assertEqual(self.emu.control("GET", "content?path=/up/x.bin"), data)
        status, doc, _ = self.emu.json("POST", "/api/2.0/files/content", *upload_body("X.BIN", ids["/up"], b"1"))
        self.assertBoxError(409, doc, "item_name_in_use")
        self.assertEqual(doc["context_info"]["conflicts"]["id"], entry["id"])
        status, doc, _ = self.emu.json("POST", "/api/2.0/files/content",
                                       *upload_body("y", ids["/up"], b"1", file_first=True))
        self.assertBoxError(400, doc, "metadata_after_file_contents")
        # Chunked request framing, a boundary that also occurs partly in the data.
        body, headers = upload_body("z", ids["/up"], b"\r\n--tarvex_" * 1000, boundary="tarvex_bb")
        headers["Transfer-Encoding"] = "chunked"
        status, doc, _ = self.emu.json("POST", "/api/2.0/files/content",
                                       iter([body[:777], body[777:]]), headers)
        self.assertEqual((status, doc["entries"][0]["size"]), (201, 11000))

    def test_upload_session(self):
        ids = self.emu.seed({"path": "/u", "type": "folder"})
        data = pattern(7, 2500)
        status, session, _ = self.emu.json("POST", "/api/2.0/files/upload_sessions",
                                           {"folder_id": ids["/u"], "file_size": 2500, "file_name": "s.bin"})
        self.assertEqual((status, session["part_size"], session["total_parts"]), (201, PART, 3))
        url = "/api/2.0/files/upload_sessions/" + session["id"]

        def put(offset, chunk, total=2500, dig=None):
            hdrs = {"Content-Range": "bytes %d-%d/%d" % (offset, offset + len(chunk) - 1, total),
                    "digest": dig or digest(chunk), "Content-Type": "application/octet-stream"}
            return self.emu.json("PUT", url, chunk, hdrs)

        bad = [(put(0, data[:1000], dig=digest(b"x")), 400, "bad_digest"),
               (put(500, data[500:1500]), 416, "range_mismatch"),
               (put(0, data[:999]), 416, "range_mismatch"),
               (put(0, data[:1000], total=9999), 416, "range_mismatch")]
        for (status, doc, _), want_status, code in bad:
            self.assertBoxError(want_status, doc, code)
        parts = [put(o, data[o:o + PART])[1]["part"] for o in (2000, 0, 1000)]
        self.assertEqual(put(0, data[:1000])[1]["part"], parts[1])   # the same part again
        self.assertBoxError(409, put(0, pattern(0, 1000))[1], "range_overlap")
        self.assertEqual([p["size"] for p in parts], [500, 1000, 1000])
        status, doc, _ = self.emu.json("POST", url + "/commit", {"parts": parts}, {"digest": digest(b"no")})
        self.assertBoxError(400, doc, "bad_digest")
        status, doc, _ = self.emu.json("POST", url + "/commit", {"parts": parts[1:]}, {"digest": digest(data)})
        self.assertEqual(status, 400)
        self.emu.control("POST", "commit_pending", {"count": 2, "retry_after": 3})
        answers = [self.emu.request("POST", url + "/commit?fields=name,size,sha1",
                                    json.dumps({"parts": parts}).encode(),
                                    {"digest": digest(data), "Content-Type": "application/json"})
                   for _ in range(3)]
        self.assertEqual([(a[0], a[1].get("retry-after")) for a in answers],
                         [(202, "3"), (202, "3"), (201, None)])
        entry = json.loads(answers[2][2])["entries"][0]
        self.assertEqual((entry["size"], entry["sha1"]), (2500, hashlib.sha1(data).hexdigest()))
        self.assertEqual(self.emu.control("GET", "content?path=/u/s.bin"), data)
        self.assertEqual(self.emu.download(entry["id"], {"Range": "bytes=900-1100"})[2], data[900:1101])
        self.assertEqual(self.emu.json("POST", url + "/commit", {"parts": parts})[0], 404)
        status, doc, _ = self.emu.json("POST", "/api/2.0/files/upload_sessions",
                                       {"folder_id": ids["/u"], "file_size": 10, "file_name": "S.BIN"})
        self.assertBoxError(409, doc, "item_name_in_use")

    def test_metadata_properties(self):
        ids = self.emu.seed({"path": "/m.txt", "content": "m"})
        url = "/2.0/files/%s/metadata/global/properties" % ids["/m.txt"]
        info = "/2.0/files/%s/?fields=name,metadata.global.properties" % ids["/m.txt"]
        self.assertNotIn("metadata", self.emu.json("GET", info)[1])
        self.assertEqual(self.emu.json("POST", url, {"tarvex-md5": "aa"})[0], 201)
        self.assertBoxError(409, self.emu.json("POST", url, {"tarvex-md5": "bb"})[1], "tuple_already_exists")
        patch = [{"op": "add", "path": "/tarvex-md5", "value": "cc"}]
        self.assertEqual(self.emu.json("PUT", url, patch)[0], 415)   # plain JSON is not a patch
        status, doc, _ = self.emu.json("PUT", url, patch, {"Content-Type": "application/json-patch+json"})
        self.assertEqual((status, doc["tarvex-md5"], doc["$version"]), (200, "cc", 1))
        self.assertEqual(self.emu.json("GET", info)[1]["metadata"]["global"]["properties"]["tarvex-md5"], "cc")
        self.assertNotIn("metadata", self.emu.json("GET", info.replace(",metadata.global.properties", ""))[1])

    def test_answers_every_plugin_request(self):
        """Each request of the plug-in's table, made as the plug-in makes it,
        gets the answer the table expects."""
        ids = self.emu.seed(*({"path": p, "type": "folder"} for p in ("/empty", "/renf", "/metaf")),
                            *({"path": p, "content": "abc"} for p in
                              ("/full/x", "/del.txt", "/ren.txt", "/dl.txt", "/meta.txt")))
        data = pattern(0, 1500)
        state = {}
        targets = {"list_folder": "0", "file_info": ids["/dl.txt"], "delete_file": ids["/del.txt"],
                   "delete_folder": ids["/empty"], "delete_folder_recursive": ids["/full"],
                   "rename_file": ids["/ren.txt"], "rename_folder": ids["/renf"],
                   "download": ids["/dl.txt"], "file_properties_create": ids["/meta.txt"],
                   "file_properties_update": ids["/meta.txt"], "folder_properties_create": ids["/metaf"],
                   "folder_properties_update": ids["/metaf"]}
        patch = [{"op": "add", "path": "/tarvex-md5", "value": "y"}]
        bodies = {"make_folder": {"name": "n", "parent": {"id": "0"}},
                  "rename_file": {"name": "r.txt", "parent": {"id": ids["/renf"]}},
                  "rename_folder": {"name": "r2", "parent": {"id": ids["/metaf"]}},
                  "file_properties_create": {"tarvex-md5": "x"}, "file_properties_update": patch,
                  "folder_properties_create": {"tarvex-md5": "x"}, "folder_properties_update": patch,
                  "create_upload_session": {"folder_id": "0", "file_size": len(data), "file_name": "s"}}
        for entry in REQUESTS:
            name = entry["name"]
            url = entry["url"]
            if url.startswith("/2.0/%s/%s"):
                url = url.replace("%s", "files" if "file" in name else "folders", 1)
            url = url.replace("%s", targets.get(name) or state.get("session", ""))
            query = {k: "" if v.startswith("<") else v for k, v in entry["query"].items()}
            headers = {"Content-Type": entry.get("content_type", "").replace("<uuid>", "0123")}
            body = bodies.get(name)
            if name == "upload":
                body, headers = upload_body("u.bin", "0", data, boundary="tarvex_0123")
            elif name == "upload_part":
                body = data[:PART]
                headers.update({"Content-Range": "bytes 0-999/1500", "digest": digest(body)})
            elif name == "commit_upload_session":
                rest = data[PART:]   # the session's second and last part
                got, _, part = self.emu.request("PUT", url.rsplit("/commit", 1)[0], rest, {
                    "Content-Range": "bytes 1000-1499/1500", "digest": digest(rest)})
                self.assertEqual(got, 200, part)
                body = {"parts": state["parts"] + [json.loads(part)["part"]]}
                headers["digest"] = digest(data)
            if "Range" in entry["headers"]:
                headers["Range"] = "bytes=1-2"
            if isinstance(body, (dict, list)):
                body = json.dumps(body).encode()
            status, hdrs, answer = self.emu.request(entry["method"], url + "?" + urlencode(query), body,
                                                    {k: v for k, v in headers.items() if v})
            with self.subTest(name):
                self.assertEqual(status, entry["response"], answer[:300])
            if name == "create_upload_session":
                state["session"] = json.loads(answer)["id"]
            if name == "upload_part":
                state["parts"] = [json.loads(answer)["part"]]
        self.assertEqual(self.emu.control("GET", "content?path=/s"), data)

    def test_log_and_keep_alive(self):
        conn = self.emu.connect()
        body = json.dumps({"name": "k", "parent": {"id": "0"}}).encode()
        self.emu.request("POST", "/2.0/folders?fields=id", iter([body[:5], body[5:]]),
                         {"Transfer-Encoding": "chunked", "Content-Type": "application/json;"}, conn=conn)
        self.emu.request("GET", "/2.0/folders/0/items?usemarker=true&marker=", conn=conn)
        self.emu.control("GET", "item?path=/k")
        sock = conn.sock
        self.emu.request("GET", "/2.0/folders/0/items", conn=conn)
        self.assertIs(conn.sock, sock)   # one connection served all three
        conn.close()
        log = self.emu.control("GET", "log")
        self.assertEqual([(e["method"], e["path"], e["status"]) for e in log],
                         [("POST", "/2.0/folders", 201), ("GET", "/2.0/folders/0/items", 200),
                          ("GET", "/2.0/folders/0/items", 200)])
        self.assertEqual((log[0]["body_length"], log[0]["body_sha1"]),
                         (len(body), hashlib.sha1(body).hexdigest()))
        self.assertEqual(log[0]["headers"]["content-type"], "application/json;")
        self.assertEqual(log[1]["query"], {"usemarker": ["true"], "marker": [""]})
        self.emu.control("DELETE", "log")
        self.assertEqual(self.emu.control("GET", "log"), [])


if __name__ == "__main__":
    unittest.main()
