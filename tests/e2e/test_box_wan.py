"""A distant Box through real clients: the emulator adds a round trip to
every request and Box's processing to every part, and the server's policy
asks for parts in flight, download streams and pages of 1000 items.  Each
key with a client that uses it, the bytes compared with what Box holds;
how many requests go at once and what each asks for is pinned by the
integration tests (box_in_flight, box_session)."""
import os

from harness import MIB, BoxTest, pattern, sha256, sha256_file

SIZE = 70 * MIB   # above the 64 MiB from which a download goes in streams
POLICY = {"user_api_rate_limit": 100, "upload_parts_in_flight": 4, "download_streams": 4,
          "list_page_size": 1000}
PARTS = r"^/api/2\.0/files/upload_sessions/[^/]+$"


class DistantBox(BoxTest):

    @classmethod
    def start_server(cls, extra=(), **kw):
        return super().start_server(extra, policy=POLICY, **kw)

    def setUp(self):
        super().setUp()
        self.emu.config(latency_ms=20, part_processing_ms=100)

    def test_lftp_put_with_allo_sends_parts_in_flight(self):
        src = self.local_file("up.bin", SIZE, seed=16)
        self.lftp("set ftp:use-allo true; put %s -o /up.bin" % src)
        self.assertEqual(sha256(self.emu.content("/up.bin")), sha256_file(src))
        self.assertGreater(self.emu.concurrency("PUT", PARTS)["peak"], 1)

    def test_curl_get_in_streams(self):
        self.emu.seed({"path": "/w/down.bin", "size": SIZE})
        out = self.local("down.out")
        self.curl("-o", out, self.server.url("/w/down.bin"))
        self.assertEqual(sha256_file(out), sha256(pattern(SIZE)))
        self.assertGreater(self.emu.concurrency("GET", "^/d/")["peak"], 1)

    def test_lftp_lists_a_big_folder(self):
        names = ["f%04d" % i for i in range(1200)]
        self.emu.seed({"path": "/big", "type": "folder"},
                      *({"path": "/big/" + n, "content": "x"} for n in names))
        r = self.lftp("cls -1 /big/")
        self.assertEqual(sorted(os.path.basename(line.rstrip("/"))
                                for line in r.stdout.split()), names)
        pages = [e for e in self.requests("GET", "/items") if "limit" in e["query"]]
        self.assertEqual([e["query"]["limit"] for e in pages[-2:]], [["1000"], ["1000"]])
