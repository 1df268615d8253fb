"""cmake --install into a scratch DESTDIR, then everything from the installed
tree alone: its layout, its programs and plug-ins finding their libraries
there, the installed server serving Box through the installed plug-in and
credential helper, and a plug-in built against the installed headers and
pkg-config file."""
import os
import shutil
import tempfile
import unittest

from install_support import (BUILD, HERE, curl, elf_files, expected_files, install_build,
                             installed_server, listed_names, resolved_libraries, run,
                             runpath, serve_box_from)


class TreeChecks:
    """Checks of an installed tree (self.tree), shared with the package
    test, which runs them on the unpacked package."""

    def test_layout(self):
        missing = [what for what, path in expected_files(self.tree) if not os.path.exists(path)]
        self.assertEqual(missing, [])

    def test_elf_files_find_their_libraries_in_the_tree(self):
        lib = os.path.realpath(self.tree.lib())
        for path in elf_files(self.tree):
            with self.subTest(file=os.path.basename(path)):
                # $ORIGIN only: nothing of the build folder or its machine.
                self.assertEqual([p for p in runpath(path) if not p.startswith("$ORIGIN")], [])
                found = resolved_libraries(path)
                self.assertEqual([n for n, p in found.items() if p is None], [])
                ours = {n: os.path.dirname(os.path.realpath(p)) for n, p in found.items()
                        if n.startswith("libtarvex_")}
                self.assertEqual({n: lib for n in ours}, ours)

    def test_installed_server_serves_box(self):
        def check(server, emu):
            emu.seed({"path": "/reports/q1.txt", "content": "first quarter\n"},
                     {"path": "/reports/q2.txt", "content": "second\n"},
                     {"path": "/reports/archive", "type": "folder"})
            self.assertEqual(listed_names(curl(server, "/reports/")),
                             ["archive", "q1.txt", "q2.txt"])
            self.assertEqual(curl(server, "/reports/q1.txt"), "first quarter\n")
            self.assertIn("storage box", server.read_log())
        serve_box_from(self.tree, check)


class InstalledTree(TreeChecks, unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        if not BUILD:
            raise unittest.SkipTest("TARVEX_BUILD_DIR not set")
        cls.work = tempfile.mkdtemp(prefix="tarvex-install-tree-")
        try:
            cls.tree = install_build(os.path.join(cls.work, "root"))
        except BaseException:
            shutil.rmtree(cls.work, ignore_errors=True)
            raise

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def pkg_config(self, *args):
        env = dict(os.environ, PKG_CONFIG_PATH=self.tree.pkgconfig(),
                   PKG_CONFIG_SYSROOT_DIR=self.tree.root)
        return run(["pkg-config"] + list(args), env=env).stdout.split()

    def test_plugin_built_against_the_installed_headers_is_served(self):
        plugins = os.path.join(self.work, "plugins")
        os.makedirs(plugins, exist_ok=True)
        plugin = os.path.join(plugins, "libtarvex_gridftp_server_hello.so")
        flags = self.pkg_config("--cflags", "--libs", "tarvex-gridftp-server")
        run(["cc", "-std=c11", "-Wall", "-Wextra", "-Werror", "-pedantic", "-fPIC", "-shared",
             "-o", plugin, os.path.join(HERE, "hello_plugin.c")] + flags)
        server = installed_server(self.tree, dsi="hello", dsi_path=plugins)
        self.addCleanup(server.stop)
        listing = curl(server, "/")
        self.assertEqual(listed_names(listing), ["hello.txt"])
        self.assertEqual(listing.split()[4], "12")
