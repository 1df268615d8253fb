"""The emulator and the plug-in's request table against Box's API
description: every request the plug-in makes exists there as made, and the
emulator's answers have the documented shapes."""

import base64
import hashlib
import json
import os
import unittest

from box_openapi import OpenApi, openapi_path
from emulator_process import Emulator

HERE = os.path.dirname(os.path.abspath(__file__))
with open(os.path.join(HERE, "box_requests.json")) as f:
    TABLE = json.load(f)

# Codes Box sends that its description does not name anywhere.
UNDOCUMENTED_CODES = {"rate_limit_exceeded", "bad_digest"}
FRAMING_HEADERS = {"content-length", "transfer-encoding"}


def media_type(value):
    return value.split(";", 1)[0].strip().lower()


def sample_url(entry, kind="files"):
    url = entry["url"]
    if url.startswith("/2.0/%s/%s"):
        return url.replace("%s", kind, 1).replace("%s", "1")
    return url.replace("%s", "1")


@unittest.skipUnless(os.path.exists(openapi_path()), "box-openapi.json not available")
class RequestTableTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.api = OpenApi()

    def test_every_request_is_documented(self):
        for entry in TABLE["requests"]:
            with self.subTest(entry["name"]):
                undocumented = entry.get("undocumented", {})
                template, prefix = self.api.template_for(sample_url(entry))
                self.assertIsNotNone(template, entry["url"])
                op = self.api.operation(template, entry["method"])
                self.assertIsNotNone(op, "%s %s" % (entry["method"], template))
                servers = self.api.servers(op)
                on_upload = any(s.endswith("/api/2.0") for s in servers)
                self.assertEqual(on_upload, entry["base"] == "upload", servers)
                self.assertEqual(prefix, "/api/2.0" if on_upload else "/2.0")
                params = {(p["in"], p["name"].lower()) for p in op.get("parameters", [])}
                for name in entry["query"]:
                    documented = ("query", name.lower()) in params
                    # An acknowledged gap must stay a gap, else the note is stale.
                    self.assertEqual(documented, "query:" + name not in undocumented, name)
                for name in entry["headers"]:
                    low = name.lower()
                    if low == "authorization":
                        self.assertIn("OAuth2Security", self.api.doc["components"]["securitySchemes"])
                    elif low == "content-type":
                        body = op.get("requestBody", {}).get("content", {})
                        self.assertIn(media_type(entry["content_type"]), body)
                    elif low not in FRAMING_HEADERS:
                        self.assertIn(("header", low), params, name)
                self.assertIn(str(entry["response"]), op["responses"])

    def test_asked_fields_are_item_properties(self):
        file_props = self.api.properties({"$ref": "#/components/schemas/File--Full"})
        folder_props = self.api.properties({"$ref": "#/components/schemas/Folder--Full"})
        for entry in TABLE["requests"]:
            for field in filter(None, entry["query"].get("fields", "").split(",")):
                top = field.split(".")[0]
                with self.subTest(entry["name"], field=field):
                    self.assertIn(top, file_props)
                    if top != "sha1":   # folders have no SHA-1
                        self.assertIn(top, folder_props)


@unittest.skipUnless(os.path.exists(openapi_path()), "box-openapi.json not available")
class AnswerSchemaTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.api = OpenApi()
        cls.codes = cls.api.documented_codes() | UNDOCUMENTED_CODES
        cls.emu = Emulator("--part-size", "1024", "--min-session-size", "0")

    @classmethod
    def tearDownClass(cls):
        cls.emu.close()

    def setUp(self):
        self.emu.control("POST", "reset")
        self.ids = self.emu.seed(
            {"path": "/d", "type": "folder"},
            {"path": "/d/f.txt", "content": "hello", "md5_property": "5d41402abc4b2a76b9719d911017c592",
             "modified_at": "2020-01-02T03:04:05-07:00"},
            {"path": "/d/sub/g.bin", "size": 3000})

    def check(self, method, url, status, doc, hdrs=None):
        """doc is the answer to method url with status: check it against the
        schema Box documents for that answer."""
        template, _ = self.api.template_for(url.split("?")[0])
        op = self.api.operation(template, method)
        self.assertIsNotNone(op, "%s %s" % (method, template))
        resp = self.api.response(op, status)
        self.assertIsNotNone(resp, "%s %s answers %d" % (method, template, status))
        for header in resp.get("headers", {}):
            self.assertIn(header.lower(), hdrs or {}, "%s %s" % (method, template))
        schema = self.api.response_schema(op, status)
        if schema is None:
            self.assertIsNone(doc)
            return
        if status >= 400 and "code" in doc:
            # ClientError's enum lists generic codes only; the specific ones
            # are named in the descriptions of the answers.
            self.assertIn(doc["code"], self.codes)
            self.assertEqual(doc["status"], status)
            doc = {k: v for k, v in doc.items() if k != "code"}
        self.assertEqual(self.api.validate(doc, schema), [], json.dumps(doc)[:400])

    def call(self, method, url, body=None, status=None, headers=None):
        got, doc, hdrs = self.emu.json(method, url, body, headers)
        if status is not None:
            self.assertEqual(got, status, doc)
        self.check(method, url, got, doc, hdrs)
        return doc

    def test_item_answers(self):
        fields = {e["name"]: e["query"].get("fields") for e in TABLE["requests"]}
        fields["item"] = fields["make_folder"]
        d, f = self.ids["/d"], self.ids["/d/f.txt"]
        for query in ("?fields=" + fields["item"] + "&usemarker=true&marker=&limit=300",
                      "?fields=" + fields["item"] + "&usemarker=true&limit=1",
                      "", "?offset=1&limit=1"):
            self.call("GET", "/2.0/folders/%s/items%s" % (d, query), status=200)
        for query in ("?fields=" + fields["file_info"], ""):
            doc = self.call("GET", "/2.0/files/%s/%s" % (f, query), status=200)
        self.assertEqual(doc["content_modified_at"][-6:], "-08:00")
        self.call("POST", "/2.0/folders?fields=" + fields["item"],
                  {"name": "new", "parent": {"id": d}}, status=201)
        self.call("POST", "/2.0/folders", {"name": "new2", "parent": {"id": "0"}}, status=201)
        self.call("PUT", "/2.0/files/%s?fields=%s" % (f, fields["item"]),
                  {"name": "g.txt", "parent": {"id": "0"}}, status=200)
        self.call("PUT", "/2.0/folders/%s" % self.ids["/d/sub"],
                  {"name": "sub2", "parent": {"id": d}}, status=200)

    def test_error_answers(self):
        d = self.ids["/d"]
        self.call("POST", "/2.0/folders", {"name": "SUB", "parent": {"id": d}}, status=409)
        self.call("DELETE", "/2.0/folders/%s" % d, status=400)
        self.call("GET", "/2.0/files/999999", status=404)
        self.call("GET", "/2.0/folders/999999/items", status=404)
        self.call("PUT", "/2.0/files/%s" % self.ids["/d/f.txt"],
                  {"name": "bad/name", "parent": {"id": d}}, status=400)
        self.emu.control("POST", "rate_limit", {"per_second": 1, "retry_after": 3})
        self.call("GET", "/2.0/files/%s" % self.ids["/d/f.txt"], status=200)
        self.call("GET", "/2.0/files/%s" % self.ids["/d/f.txt"], status=429)

    def test_metadata_answers(self):
        url = "/2.0/files/%s/metadata/global/properties" % self.ids["/d/sub/g.bin"]
        self.call("POST", url, {"tarvex-md5": "00"}, status=201)
        self.call("POST", url, {"tarvex-md5": "00"}, status=409)
        self.call("PUT", url, [{"op": "add", "path": "/tarvex-md5", "value": "11"}], status=200,
                  headers={"Content-Type": "application/json-patch+json"})

    def test_upload_answers(self):
        d = self.ids["/d"]
        boundary = "tarvex_0123"
        body = ("--%s\r\nContent-Disposition: form-data; name=\"attributes\"\r\n\r\n"
                "{\"name\":\"up.txt\",\"parent\":{\"id\":\"%s\"}}\r\n--%s\r\n"
                "Content-Disposition: form-data; name=\"file\"; filename=\"up.txt\"\r\n"
                "Content-Type: application/octet-stream\r\n\r\nabc\r\n--%s--\r\n"
                % (boundary, d, boundary, boundary)).encode()
        headers = {"Content-Type": "multipart/form-data; boundary=" + boundary}
        for status in (201, 409):
            got, doc, hdrs = self.emu.json("POST", "/api/2.0/files/content", body, headers)
            self.assertEqual(got, status, doc)
            self.check("POST", "/api/2.0/files/content", got, doc, hdrs)

        data = bytes(range(256)) * 10
        session = self.call("POST", "/api/2.0/files/upload_sessions",
                            {"folder_id": d, "file_size": len(data), "file_name": "big.bin"},
                            status=201)
        url = "/api/2.0/files/upload_sessions/" + session["id"]
        parts = []
        for offset in range(0, len(data), session["part_size"]):
            chunk = data[offset:offset + session["part_size"]]
            digest = base64.b64encode(hashlib.sha1(chunk).digest()).decode()
            headers = {"Content-Type": "application/octet-stream", "digest": "sha=" + digest,
                       "Content-Range": "bytes %d-%d/%d" % (offset, offset + len(chunk) - 1,
                                                            len(data))}
            parts.append(self.call("PUT", url, chunk, status=200, headers=headers)["part"])
        self.assertEqual(len(parts), session["total_parts"])
        digest = base64.b64encode(hashlib.sha1(data).digest()).decode()
        self.emu.control("POST", "commit_pending", {"count": 1, "retry_after": 2})
        for status in (202, 201):
            self.call("POST", url + "/commit", {"parts": parts}, status=status,
                      headers={"digest": "sha=" + digest})


if __name__ == "__main__":
    unittest.main()
