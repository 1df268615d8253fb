"""The Debian package: cpack -G DEB of the build into a scratch folder, read
back with dpkg-deb.  Its control fields and conffiles, lintian's errors, and its
contents unpacked and run as the installed tree is (the same checks)."""
import os
import shutil
import sys
import tempfile
import unittest

from install_support import BUILD, CONFIG_FILES, CPACK, VERSION, Tree, run
from test_install_tree import TreeChecks

PACKAGE = "tarvex-gridftp-server"


# cpack's dependency list needs dpkg-shlibdeps (dpkg-dev) and file.
TOOLS = ("dpkg-deb", "dpkg-shlibdeps", "file")


class DebianPackage(TreeChecks, unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        if not BUILD:
            raise unittest.SkipTest("TARVEX_BUILD_DIR not set")
        missing = [t for t in TOOLS if shutil.which(t) is None]
        if missing:
            print("SKIPPED LOUDLY: no Debian package made or checked: %s not installed"
                  % " and ".join(missing), file=sys.stderr)
            raise unittest.SkipTest("%s not installed" % " and ".join(missing))
        cls.work = tempfile.mkdtemp(prefix="tarvex-install-package-")
        try:
            out = os.path.join(cls.work, "out")
            run([CPACK, "-G", "DEB", "--config", os.path.join(BUILD, "CPackConfig.cmake"),
                 "-B", out], timeout=540)
            debs = [f for f in os.listdir(out) if f.endswith(".deb")]
            if len(debs) != 1:
                raise AssertionError("cpack made %r" % debs)
            cls.deb_name = debs[0]
            cls.deb = os.path.join(out, debs[0])
            root = os.path.join(cls.work, "root")
            run(["dpkg-deb", "-x", cls.deb, root])
            cls.tree = Tree(root, "/usr")
        except BaseException:
            shutil.rmtree(cls.work, ignore_errors=True)
            raise

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def field(self, name):
        return run(["dpkg-deb", "-f", self.deb, name]).stdout.strip()

    def test_file_name_and_fields(self):
        arch = run(["dpkg", "--print-architecture"]).stdout.strip()
        # The README installs it as ./tarvex-gridftp-server_*.deb.
        self.assertEqual(self.deb_name, "%s_%s-1_%s.deb" % (PACKAGE, VERSION, arch))
        self.assertEqual((self.field("Package"), self.field("Version"),
                          self.field("Architecture")), (PACKAGE, VERSION + "-1", arch))
        # The libraries' packages come from dpkg-shlibdeps; the postinst
        # makes the account with adduser, which nothing links.
        self.assertIn("adduser", self.field("Depends"))

    def test_conffiles(self):
        control = os.path.join(self.work, "control")
        run(["dpkg-deb", "-e", self.deb, control])
        with open(os.path.join(control, "conffiles")) as f:
            conffiles = sorted(f.read().split())
        # Exactly the files under /etc, which dpkg keeps when an operator
        # changed them.
        in_etc = sorted("/" + os.path.relpath(os.path.join(d, n), self.tree.root)
                        for d, _, names in os.walk(self.tree.system_path("/etc")) for n in names)
        self.assertEqual(conffiles, in_etc)
        self.assertEqual(sorted(CONFIG_FILES), in_etc)

    def test_lintian_finds_no_error(self):
        if shutil.which("lintian") is None:
            print("SKIPPED LOUDLY: lintian is not installed; the package is unchecked",
                  file=sys.stderr)
            self.skipTest("lintian is not installed")
        r = run(["lintian", "--tag-display-limit", "0", self.deb], check=False, timeout=600)
        self.assertIn(r.returncode, (0, 1), r.stderr)  # 1: it found an error
        print("lintian:\n" + r.stdout, file=sys.stderr)
        self.assertEqual([line for line in r.stdout.splitlines() if line.startswith("E: ")], [])
