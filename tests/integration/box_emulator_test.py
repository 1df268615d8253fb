"""What the Box emulator refuses as Box does.  The other suites drive its
paging, ranges, faults, tokens and logs and fail when those go wrong; a
refusal that went missing would instead let a plug-in fault through
unseen, so each is pinned here.  Its answers' shapes are checked against
Box's API description by box_emulator_contract_test."""
import hashlib
import unittest

from harness import EmulatorCase, digest, pattern, upload_body

PART = EmulatorCase.PART


class Refusals(EmulatorCase):
    def assertBoxError(self, answer, status, code):
        got, doc, _ = answer
        self.assertEqual((got, doc["type"], doc["status"], doc["code"]),
                         (status, "error", status, code))
        return doc

    def test_uploads_refuse_what_box_refuses(self):
        up = self.emu.seed({"path": "/up", "type": "folder"})["/up"]
        url = "/api/2.0/files/content"
        status, first, _ = self.emu.json("POST", url, *upload_body("x.bin", up, b"1"))
        self.assertEqual(status, 201, first)
        doc = self.assertBoxError(self.emu.json("POST", url, *upload_body("X.BIN", up, b"1")),
                                  409, "item_name_in_use")
        self.assertEqual(doc["context_info"]["conflicts"]["id"], first["entries"][0]["id"])
        self.assertBoxError(self.emu.json("POST", url,
                                          *upload_body("y", up, b"1", file_first=True)),
                            400, "metadata_after_file_contents")

    def test_upload_session_checks_parts_and_commits(self):
        u = self.emu.seed({"path": "/u", "type": "folder"})["/u"]
        data = pattern(2500, 7)
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
        self.assertEqual(put(0, data[:1000])[1]["part"], parts[1])   # the same part again
        self.assertBoxError(put(0, pattern(1000)), 409, "range_overlap")
        commit = url + "/commit?fields=name,size,sha1"
        answer = self.emu.json("POST", commit, {"parts": parts}, {"digest": digest(b"no")})
        self.assertBoxError(answer, 400, "bad_digest")
        self.assertEqual(self.emu.json("POST", commit, {"parts": parts[1:]},
                                       {"digest": digest(data)})[0], 400)
        status, doc, _ = self.emu.json("POST", commit, {"parts": parts}, {"digest": digest(data)})
        entry = doc["entries"][0]
        self.assertEqual((status, entry["size"], entry["sha1"]),
                         (201, 2500, hashlib.sha1(data).hexdigest()))
        self.assertEqual(self.emu.json("POST", commit, {"parts": parts})[0], 404)


if __name__ == "__main__":
    unittest.main()
