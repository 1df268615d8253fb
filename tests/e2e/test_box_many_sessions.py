"""Clients that move whole trees over several connections at once, through
the Box plug-in with the shared session cache: lftp's parallel mirror both
ways (then its mkdir -p, mv, rm, rmdir and rm -r on the tree) and rclone's
copy, check and sync.  Each connection is a session of its own; one makes
a folder or stores a file and the others must find it at once (what each
session sees of the others is pinned by the driver tests; here only real
clients show that the whole round has no error).

The server is started with --max-sessions-per-address 32: rclone opens
up to transfers + checkers connections."""
import os
import pwd
import shutil
import tempfile
import unittest

from harness import (CHUNKED_MINIMUM, BoxServer, BoxTest, make_hash, run, sha256_file,
                     write_random)

POLICY = {"user_api_rate_limit": 100, "session_cache": "shared", "cache_ttl_seconds": 60}
ERROR_SIGNS = ("Access failed", "Fatal error", "ERROR", "553 ", "550 ", "421 ")


def local_tree(root):
    """relative path -> "folder" or the file's SHA-256."""
    out = {}
    for folder, dirs, files in os.walk(root):
        rel = os.path.relpath(folder, root)
        if rel != ".":
            out[rel] = "folder"
        for name in files:
            out[os.path.normpath(os.path.join(rel, name))] = sha256_file(
                os.path.join(folder, name))
    return out


def make_tree(root, layout, seed=0):
    """`layout`: relative path -> size (files) or None (folders)."""
    for i, (name, size) in enumerate(sorted(layout.items())):
        path = os.path.join(root, name)
        if size is None:
            os.makedirs(path, exist_ok=True)
            continue
        os.makedirs(os.path.dirname(path), exist_ok=True)
        write_random(path, size, seed=seed + i)


# Three levels of folders, an empty one, twenty small files.
SMALL_TREE = {"top.txt": 10, "empty": None}
SMALL_TREE.update({"a/f%d.bin" % i: 1000 + i for i in range(6)})
SMALL_TREE.update({"a/b/g%d.bin" % i: 2000 + i for i in range(6)})
SMALL_TREE.update({"a/b/c/h%d.bin" % i: 3000 + i for i in range(4)})
SMALL_TREE.update({"d/k%d.bin" % i: 400 + i for i in range(3)})


class ManySessions(BoxTest):
    maxDiff = None
    server_extra = ("--max-sessions-per-address", "32")

    @classmethod
    def start_server(cls, extra=(), **kw):
        return BoxServer(cls.emu, policy=POLICY, extra=list(cls.server_extra) + list(extra), **kw)

    def assertBoxHolds(self, root, folder, where):
        want = {folder: "folder"}
        want.update({folder + "/" + p: v for p, v in local_tree(root).items()})
        self.assertFiles(want, where)

    def assertClean(self, r, what):
        text = r.stdout + r.stderr
        self.assertEqual(r.returncode, 0, what + ":\n" + text + self.diagnostics())
        # rclone takes MDTM for a sign that times can be set too and, the
        # server having no MFMT, logs this after every upload: not a
        # failure (it counts none).
        lines = [line for line in text.splitlines() if "SetModTime is not supported" not in line]
        for sign in ERROR_SIGNS:
            self.assertNotIn(sign, "\n".join(lines), what + ":\n" + text)

    # -- lftp -------------------------------------------------------------

    def test_lftp_parallel_mirror_both_ways(self):
        tree = self.local("lftp-tree")
        layout = dict(SMALL_TREE)
        layout["a/b/large.bin"] = CHUNKED_MINIMUM + 1024 * 1024
        make_tree(tree, layout, seed=500)
        self.assertClean(self.lftp("set ftp:use-allo yes; mirror -R --parallel=4 lftp-tree /L",
                                   ok=False), "mirror -R")
        self.assertBoxHolds(tree, "/L", "mirror -R")
        self.assertClean(self.lftp("mirror --parallel=4 /L lftp-back", ok=False), "mirror")
        self.assertEqual(local_tree(self.local("lftp-back")), local_tree(tree))
        # lftp's commands on what it mirrored.
        self.lftp("mkdir -p /L/x/y; mv /L/d /L/x/y/d; rm /L/top.txt; rmdir /L/empty")
        paths = self.paths()
        self.assertIn("/L/x/y/d/k0.bin", paths)
        self.assertEqual(paths & {"/L/d", "/L/top.txt", "/L/empty"}, set())
        self.assertIn("550", self.lftp("rmdir /L/x", ok=False).stderr)   # not empty
        self.lftp("rm -r /L")
        self.assertFiles({})

    # -- rclone -----------------------------------------------------------

    def rclone(self, *args):
        return run(["rclone", "--config", self.rclone_conf, "--retries", "1",
                    "--low-level-retries", "1"] + list(args), timeout=300, env=self.rclone_env)

    def test_rclone_copy_check_and_sync_over_tls(self):
        # Over explicit TLS with a password file: rclone's pooled
        # connections share one TLS session cache, which the server accepts
        # for data connections of the same user.
        if shutil.which("rclone") is None:
            raise unittest.SkipTest("rclone is not installed (scripts/install-deps brings it)")
        me = pwd.getpwuid(os.geteuid()).pw_name
        server = self.start_server(tls=True, passwd="alice:%s:%s\n" % (make_hash("pw"), me))
        self.addCleanup(server.stop)
        conf_dir = tempfile.mkdtemp(prefix="rclone-", dir=self.work)
        self.rclone_conf = os.path.join(conf_dir, "rclone.conf")
        open(self.rclone_conf, "w").close()
        obscured = run(["rclone", "obscure", "pw"]).stdout.strip()
        self.rclone_env = dict(os.environ, XDG_CACHE_HOME=conf_dir, RCLONE_CONFIG_BOX_TYPE="ftp",
                               RCLONE_CONFIG_BOX_HOST="127.0.0.1",
                               RCLONE_CONFIG_BOX_PORT=str(server.port),
                               RCLONE_CONFIG_BOX_USER="alice", RCLONE_CONFIG_BOX_PASS=obscured,
                               RCLONE_CONFIG_BOX_EXPLICIT_TLS="true",
                               RCLONE_CONFIG_BOX_NO_CHECK_CERTIFICATE="true")
        tree = self.local("rclone-tree")
        # rclone copies no empty folder.
        make_tree(tree, {p: v for p, v in SMALL_TREE.items() if v is not None}, seed=700)

        self.assertClean(self.rclone("copy", tree, "box:/R"), "copy up")
        self.assertBoxHolds(tree, "/R", "copy up")
        back = self.local("rclone-back")
        self.assertClean(self.rclone("copy", "box:/R", back), "copy down")
        self.assertEqual(local_tree(back), local_tree(tree))
        self.assertClean(self.rclone("check", "--download", tree, "box:/R"), "check")

        # Deleted, replaced (other size and bytes) and added files, one in a
        # new folder.
        os.remove(os.path.join(tree, "a/f0.bin"))
        shutil.rmtree(os.path.join(tree, "a/b/c"))
        write_random(os.path.join(tree, "a/b/g1.bin"), 5000, seed=900)
        make_tree(tree, {"a/new.bin": 123, "n/m/new.bin": 456}, seed=901)
        self.assertClean(self.rclone("sync", "--transfers", "8", tree, "box:/R"), "sync")
        # The folder it emptied goes too (RMD).
        self.assertBoxHolds(tree, "/R", "sync")
        log = server.read_log()
        self.assertNotIn("data connection refused", log)
        self.assertGreater(log.count("alice logged in"), 2, log)   # connections at once
