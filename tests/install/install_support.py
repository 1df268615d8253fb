"""What the install tests share: installing the build into a scratch
folder, the layout an installed prefix must have, the checks of its ELF
files, and serving Box through an installed server against the emulator.

A "tree" is a folder holding an installed prefix as it lands on a machine:
`tree.root` the DESTDIR (or the unpacked package), `tree.prefix` the prefix
inside it (/usr/local, /usr)."""
import glob
import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "support"))

from harness import SOURCE, BoxCredentialTool, BoxServer, Emulator, Server  # noqa: E402

BUILD = os.environ.get("TARVEX_BUILD_DIR", "")
CMAKE = os.environ.get("TARVEX_CMAKE", "cmake")
CPACK = os.environ.get("TARVEX_CPACK", "cpack")
CONFIGURED_PREFIX = os.environ.get("TARVEX_INSTALL_PREFIX", "/usr/local")
VERSION = os.environ.get("TARVEX_VERSION", "")

# The platform's shared libraries; their headers are the ones under
# platform/*/include.
LIBRARIES = ("tarvex_common", "tarvex_gridftp_server", "tarvex_dsi_rest")
PLUGINS = ("libtarvex_gridftp_server_posix.so", "libtarvex_gridftp_server_box.so")
PROGRAMS = ("tarvex-gridftp-server", "tarvex-box-credential")
MANUAL_PAGES = ("tarvex-gridftp-server.8", "tarvex-box-credential.1")
UNIT = "tarvex-gridftp-server.service"
CONFIG_FILES = ("/etc/tarvex/box-policy.json", "/etc/tarvex/tarvex-gridftp-server.conf",
                "/etc/logrotate.d/tarvex-gridftp-server")
EXAMPLES = ("passwd", "box-policy.json", "box-credential.json", "box-client.json",
            "per-account.conf")


def run(args, timeout=120, check=True, **kw):
    r = subprocess.run(args, capture_output=True, text=True, timeout=timeout, **kw)
    if check and r.returncode != 0:
        raise AssertionError("%s failed (%d):\n%s%s" % (
            " ".join(shlex.quote(a) for a in args), r.returncode, r.stdout, r.stderr))
    return r


def soname(library):
    """The library's soname: the major version of the project's."""
    return "lib%s.so.%s" % (library, VERSION.split(".")[0])


def public_headers():
    return sorted(os.path.basename(h)
                  for h in glob.glob(os.path.join(SOURCE, "platform", "*", "include", "*.h")))


class Tree:
    def __init__(self, root, prefix):
        self.root = root
        self.prefix = prefix

    def path(self, *parts):
        """A path of the prefix, as found under the root."""
        return os.path.join(self.root + self.prefix, *parts)

    def system_path(self, absolute):
        """An absolute path of the machine (/etc/...), under the root."""
        return self.root + absolute

    def bin(self, program):
        return self.path("bin", program)

    def lib(self, name=""):
        """The platform's private library folder, which holds the plug-ins."""
        return self.path("lib", "tarvex", name)

    def pkgconfig(self, name=""):
        return self.path("share", "pkgconfig", name)


def install_build(destdir):
    """cmake --install of the build into DESTDIR=destdir, at the prefix the
    build was configured with."""
    env = dict(os.environ, DESTDIR=destdir)
    run([CMAKE, "--install", BUILD], env=env, timeout=300)
    return Tree(destdir, CONFIGURED_PREFIX)


def expected_files(tree):
    """Every file the tree must hold: [(description, path under the root)]."""
    out = [("program " + p, tree.bin(p)) for p in PROGRAMS]
    for name in LIBRARIES:
        out.append(("library " + name, tree.lib("lib%s.so.%s" % (name, VERSION))))
        out.append(("soname link of " + name, tree.lib(soname(name))))
        out.append(("link for -l" + name, tree.lib("lib%s.so" % name)))
    out += [("plug-in " + p, tree.lib(p)) for p in PLUGINS]
    out += [("header " + h, tree.path("include", "tarvex", h)) for h in public_headers()]
    out += [("pkg-config file " + p, tree.pkgconfig("%s.pc" % p))
            for p in ("tarvex-gridftp-server", "tarvex-dsi-rest")]
    out.append(("systemd unit", tree.path("lib", "systemd", "system", UNIT)))
    out += [("manual page " + p, tree.path("share", "man", "man" + p[-1], p + ".gz"))
            for p in MANUAL_PAGES]
    out += [("configuration " + c, tree.system_path(c)) for c in CONFIG_FILES]
    out += [("example " + e, tree.path("share", "doc", "tarvex-gridftp-server", "examples", e))
            for e in EXAMPLES]
    return out


def elf_files(tree):
    """The installed programs, libraries (by their real names) and plug-ins."""
    files = [tree.bin(p) for p in PROGRAMS] + [tree.lib(p) for p in PLUGINS]
    for name in LIBRARIES:
        files.append(os.path.realpath(tree.lib(soname(name))))
    return files


def runpath(path):
    """The ELF file's RUNPATH (or RPATH) entries."""
    out = run(["readelf", "-d", "-W", path]).stdout
    found = re.search(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", out)
    return found.group(1).split(":") if found else []


def resolved_libraries(path):
    """ldd's view: {library: resolved path, or None when not found}."""
    out = run(["ldd", path]).stdout
    found = {}
    for line in out.splitlines():
        m = re.match(r"\s*(\S+) => (not found|(\S+))", line)
        if m:
            found[m.group(1)] = m.group(3)
    return found


def clean_environment():
    """The environment without anything that could point a program at
    libraries or plug-ins other than the installed ones."""
    return {k: v for k, v in os.environ.items()
            if k not in ("LD_LIBRARY_PATH", "LD_PRELOAD", "TARVEX_EXTENSION_PATH")
            and not k.startswith("TARVEX_BOX_") and not k.startswith("TARVEX_DSI_REST_")}


def installed_server(tree, **kw):
    """The tree's tarvex-gridftp-server on 127.0.0.1, any free port, with
    its default plug-in path (no --dsi-path unless given in `extra`)."""
    return Server(program=tree.bin("tarvex-gridftp-server"), config_file=False,
                  env=clean_environment(), **kw)


def curl(server, path, *args):
    """curl of ftp://127.0.0.1:PORT/path as an anonymous login."""
    r = run(["curl", "-sS", "--max-time", "60", "--user", "anonymous:x"] + list(args) +
            [server.url(path)], check=False)
    if r.returncode != 0:
        raise AssertionError("curl %s: %s\n--- server log:\n%s" % (
            path, r.stderr, server.read_log()[-4000:]))
    return r.stdout


def listed_names(listing):
    """The names of a LIST answer (ls -l lines: the name is the last field)."""
    return sorted(line.split(None, 8)[8] for line in listing.splitlines() if line.strip())


def serve_box_from(tree, check):
    """Starts the tree's server with its Box plug-in against a fresh
    emulator, the credential coming from the tree's tarvex-box-credential,
    and hands `check` (server, emulator) to the caller's assertions."""
    emu = Emulator()
    work = tempfile.mkdtemp(prefix="tarvex-install-box-")
    server = None
    try:
        tool = BoxCredentialTool(emu, work, program=tree.bin("tarvex-box-credential"))
        tool.enrol_new_user("anonymous", env=clean_environment())
        # The plug-in's API bases come from the policy alone, not from the
        # environment the build's tests use.
        server = BoxServer(emu, creds=tool, program=tree.bin("tarvex-gridftp-server"),
                           policy={"user_api_rate_limit": 100, "box_api_base": emu.base,
                                   "box_upload_base": emu.base},
                           env={"TARVEX_BOX_API_BASE": None, "TARVEX_BOX_UPLOAD_BASE": None,
                                "TARVEX_DSI_REST_CA_FILE": None},
                           base_env=clean_environment())
        check(server, emu)
    finally:
        if server is not None:
            server.stop()
        emu.stop()
        shutil.rmtree(work, ignore_errors=True)
