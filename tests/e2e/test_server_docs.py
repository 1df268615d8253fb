"""The operator's documents against the programs: each manual page (the
server's and the credential helper's) has an item for every option of its
program's --help and none other, renders without a warning (the install
tests check where it lands); the README's "Running the server" and the server's
manual page name no option the server does not have; --version and the
manual page carry the project's version."""
import os
import re
import shutil
import subprocess
import unittest

from harness import SERVER

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
BOX_CREDENTIAL = os.environ.get("TARVEX_BOX_CREDENTIAL", "")
README = os.path.join(ROOT, "README.md")

# Commands whose own options the documents show beside the server's: on a
# line, whatever follows one of these words is not the server's.
OTHER_COMMANDS = re.compile(r"\b(tarvex-box-credential|systemctl|curl|lftp|wget|openssl|mkpasswd)\b")
OPTION = re.compile(r"(?<![\w-])--[a-z][a-z0-9-]*")


def man_text(source):
    """The manual page's source with its escapes for '-', '\\' and fonts
    undone, so that options read as they are typed."""
    text = re.sub(r"\\f[BIRP]|\\c|\\&", "", source)
    return text.replace("\\-", "-").replace("\\e", "\\")


def options_used(text):
    """Every --option on the server's part of each line of `text`."""
    found = set()
    for line in text.splitlines():
        m = OTHER_COMMANDS.search(line)
        found |= set(OPTION.findall(line[:m.start()] if m else line))
    return found


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as f:
        return re.search(r"project\(tarvex VERSION ([0-9.]+)", f.read()).group(1)


class ManualPage:
    """Checks of one program's manual page: PROGRAM, PAGE (under doc/),
    TITLE (its NAME line) and help_options(the --help text)."""

    @classmethod
    def setUpClass(cls):
        cls.help = subprocess.run([cls.PROGRAM, "--help"], capture_output=True, text=True,
                                  check=True, timeout=30).stdout
        cls.options = cls.help_options(cls.help)
        cls.path = os.path.join(ROOT, "doc", cls.PAGE)
        with open(cls.path, encoding="utf-8") as f:
            cls.man_source = f.read()
        cls.man = man_text(cls.man_source)

    def test_manual_page_has_an_item_per_option(self):
        section = self.man.split(".SH OPTIONS", 1)[1].split("\n.SH ", 1)[0]
        # The line after .TP is the item's tag.
        tags = re.findall(r"^\.TP\n\.[A-Z]*\s*(--[a-z][a-z0-9-]*)", section, re.M)
        self.assertEqual(sorted(set(tags)), sorted(self.options))
        self.assertEqual(len(tags), len(set(tags)), "an option has two items")

    def test_version(self):
        name = os.path.basename(self.PROGRAM)
        out = subprocess.run([self.PROGRAM, "--version"], capture_output=True, text=True,
                             check=True, timeout=30).stdout
        self.assertEqual(out, "%s %s\n" % (name, project_version()))
        th = re.search(r"^\.TH .*", self.man_source, re.M).group(0)
        self.assertIn('"tarvex %s"' % project_version(), th)

    @unittest.skipUnless(shutil.which("man"), "man is not installed")
    def test_manual_page_renders_without_warnings(self):
        r = subprocess.run(["man", "--warnings", "-l", self.path], capture_output=True,
                           text=True, timeout=60, env=dict(os.environ, MANWIDTH="80"))
        self.assertEqual((r.returncode, r.stderr), (0, ""))
        self.assertIn(self.TITLE, r.stdout)


@unittest.skipUnless(SERVER, "TARVEX_SERVER_BIN not set")
class ServerDocuments(ManualPage, unittest.TestCase):
    PROGRAM = SERVER
    PAGE = "tarvex-gridftp-server.8"
    TITLE = "tarvex-gridftp-server - FTP and GridFTP server"

    @staticmethod
    def help_options(text):
        # An item starts two spaces in; its continuation lines further.
        return set(re.findall(r"^  (--[a-z][a-z0-9-]*)", text, re.M))

    def test_documents_name_only_options_that_exist(self):
        with open(README, encoding="utf-8") as f:
            readme = f.read()
        section = readme.split("\n## Running the server\n", 1)[1].split("\n## ", 1)[0]
        used = options_used(section)
        self.assertGreaterEqual(len(used), 10, used)  # the section was found and read
        self.assertEqual(used - self.options, set(), "README options --help does not list")
        self.assertEqual(options_used(self.man) - self.options, set(),
                         "manual page options --help does not list")


@unittest.skipUnless(BOX_CREDENTIAL, "TARVEX_BOX_CREDENTIAL not set")
class CredentialHelperDocuments(ManualPage, unittest.TestCase):
    PROGRAM = BOX_CREDENTIAL
    PAGE = "tarvex-box-credential.1"
    TITLE = "tarvex-box-credential - keep users' Box credentials"

    @staticmethod
    def help_options(text):
        # Its usage names the modes (--renew, --enrol) in the synopsis and
        # the settings below; --help and --version are answered by main().
        return set(OPTION.findall(text)) | {"--help", "--version"}


if __name__ == "__main__":
    unittest.main()
