"""The operator's half of tests/install/acceptance, run once the package is
installed: configures /etc/tarvex as the README says (TLS files, a password
file, the Box application, the helper's settings), with a Box emulator on
127.0.0.1 in place of Box, starts the service as its unit does, enrols a
user whose first access token lasts 120 seconds, and has one curl session
list, download (slowly, so that the session outlives the token's first 20
seconds) and upload through the server, the token renewed by
tarvex-box-credential on the way, and a second session list again.
(--check-config, SIGHUP and the order of the tokens are test_box_configuration's
and test_box_credential's; implicit FTPS, the audit log and the metrics
test_box_operator's: those features are the same whatever installed them.)
Prints what it checked; exit status 1 when a check failed."""
import json
import os
import pwd
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from install_support import unit_command, unit_setting  # noqa: E402  (puts harness on the path)
from harness import Emulator, make_tls_files, pattern, sha256, wait_for, write_random  # noqa: E402

UNIT = "/usr/lib/systemd/system/tarvex-gridftp-server.service"
PORT = 2811
USER, PASSWORD = "alice", "acceptance-pw-7"
CLIENT = {"client_id": "acceptance-app", "client_secret": "acceptance-secret-91d3"}
REFRESH = "r-acceptance-first"
FIRST_LIFETIME = 120
BIG = 6 << 20          # downloaded at 200 KiB/s: about 30 s
RATE = "200k"
failures = []


def check(ok, what):
    print(("ok    " if ok else "FAIL  ") + what, flush=True)
    if not ok:
        failures.append(what)


def put(path, text, mode, group="root"):
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, mode)
    shutil.chown(path, "root", group)


def configure(emu, work):
    """/etc/tarvex as an operator sets it up for the emulator."""
    ca, cert, key = make_tls_files(work)
    os.makedirs("/etc/tarvex/tls", exist_ok=True)
    for src, name in ((cert, "server.pem"), (key, "server.key")):
        with open(src) as f:
            put("/etc/tarvex/tls/" + name, f.read(), 0o640, "tarvex")
    with open(emu.ca) as f:
        put("/etc/tarvex/tls/emulator-ca.pem", f.read(), 0o644)
    hashed = subprocess.run(["openssl", "passwd", "-6", PASSWORD], check=True,
                            capture_output=True, text=True).stdout.strip()
    put("/etc/tarvex/passwd", "%s:%s\n" % (USER, hashed), 0o640, "tarvex")
    put("/etc/tarvex/box-client.json", json.dumps(CLIENT), 0o600)
    put("/etc/tarvex/box-credential.json", json.dumps(
        {"token_url": emu.base + "/oauth2/token", "api_base": emu.base}), 0o644)
    # The packaged policy, pointed at the emulator.
    with open("/etc/tarvex/box-policy.json") as f:
        policy = json.load(f)
    policy.update({"box_api_base": emu.base, "box_upload_base": emu.base})
    put("/etc/tarvex/box-policy.json", json.dumps(policy), 0o644)
    return ca


def start_service(log):
    """The unit's command line as its account, listening on loopback only
    (the unit serves every address); the emulator's CA for the REST client
    as a drop-in's Environment= would give it."""
    with open(UNIT) as f:
        text = f.read()
    # The command line's options win over the configuration file's.
    command = unit_command(text) + ["--bind", "127.0.0.1"]
    account = pwd.getpwnam(unit_setting(text, "User"))
    env = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": account.pw_dir,
           "USER": account.pw_name, "LOGNAME": account.pw_name,
           "TARVEX_DSI_REST_CA_FILE": "/etc/tarvex/tls/emulator-ca.pem"}
    print("service: " + " ".join(command), flush=True)
    proc = subprocess.Popen(["setpriv", "--reuid", account.pw_name, "--regid",
                             unit_setting(text, "Group"), "--init-groups", "--"] + command,
                            stdout=log, stderr=subprocess.STDOUT, env=env)

    def listening():
        if proc.poll() is not None:
            raise AssertionError("the service exited")
        try:
            socket.create_connection(("127.0.0.1", PORT), timeout=1).close()
            return True
        except OSError:
            return False
    wait_for(listening, "the service to listen on %d" % PORT)
    return proc


def enrol(emu):
    emu.control("POST", "oauth", {
        "clients": [CLIENT], "users": [{"id": "4242", "max_upload_size": 1 << 30}],
        "refresh_tokens": [{"refresh_token": REFRESH, "client_id": CLIENT["client_id"],
                            "user_id": "4242"}],
        "next_lifetimes": [FIRST_LIFETIME]})
    r = subprocess.run(["tarvex-box-credential", "--enrol", USER, "--account", "tarvex",
                        "--client", "/etc/tarvex/box-client.json", "--refresh-token-file", "-"],
                       input=REFRESH + "\n", capture_output=True, text=True, timeout=60,
                       env=dict(os.environ,
                                TARVEX_DSI_REST_CA_FILE="/etc/tarvex/tls/emulator-ca.pem"))
    check(r.returncode == 0, "enrolment: " + (r.stdout + r.stderr).strip())


def stored_credential():
    path = "/var/lib/tarvex/box/%s/credential.json" % USER
    st = os.stat(path)
    with open(path) as f:
        return json.load(f), st


def curl(ca, *transfers):
    """One curl invocation, one FTP session (its connection kept for every
    transfer): the transfers' arguments, one list each."""
    # --tls-max 1.2, as the README says for chained transfers: over TLS
    # 1.3 curl offers a data connection the session of the one before,
    # which holds no ticket, and the server refuses it (425).
    auth = ["-sS", "--max-time", "600", "--ssl-reqd", "--cacert", ca, "--tls-max", "1.2",
            "--user", "%s:%s" % (USER, PASSWORD)]
    args = ["curl"]
    for transfer in transfers:
        args += (["--next"] if len(args) > 1 else []) + auth + transfer
    start = time.monotonic()
    r = subprocess.run(args, capture_output=True, text=True, timeout=900)
    return r, time.monotonic() - start


def session(emu, ca, work):
    """One session lists, downloads slowly (the first token then has less
    than the plug-in's 100 s left) and uploads; a second one lists.

    The upload comes last in its session: a data connection after a STOR
    under PROT P is at times refused with 425 as not resuming the control
    connection's TLS session, a fault of the server's that this round is
    not about."""
    upload = os.path.join(work, "upload.bin")
    write_random(upload, 3 << 20, seed=7)
    out = {k: os.path.join(work, k) for k in ("list1", "big.bin", "list2")}
    base = "ftp://127.0.0.1:%d/acceptance/" % PORT
    r, seconds = curl(ca, [base, "-o", out["list1"]],
                      ["--limit-rate", RATE, base + "big.bin", "-o", out["big.bin"]],
                      ["-T", upload, base + "upload.bin"])
    check(r.returncode == 0, "curl session (%.0f s) %s" % (seconds, r.stderr.strip()))
    if r.returncode != 0:
        return
    r, _ = curl(ca, [base, "-o", out["list2"]])
    check(r.returncode == 0, "second curl session " + r.stderr.strip())
    with open(out["list1"]) as f:
        first = f.read()
    check("readme.txt" in first and "big.bin" in first and "upload.bin" not in first,
          "first listing: " + " ".join(line.split()[-1] for line in first.splitlines()))
    if os.path.exists(out["list2"]):
        with open(out["list2"]) as f:
            check("upload.bin" in f.read(), "the second session's listing shows the upload")
    got = b""
    if os.path.exists(out["big.bin"]):  # a failed download leaves none
        with open(out["big.bin"], "rb") as f:
            got = f.read()
    check(sha256(got) == sha256(pattern(BIG)), "download of %d bytes intact" % BIG)
    with open(upload, "rb") as f:
        check(sha256(emu.content("/acceptance/upload.bin")) == sha256(f.read()),
              "upload stored on the emulator intact")
    check(seconds > FIRST_LIFETIME - 100, "the session outlived the first token's 20 s")


def main():
    work = tempfile.mkdtemp(prefix="tarvex-acceptance-session-")
    emu = Emulator(https=True)
    service = None
    log_path = os.path.join(work, "service.log")
    log = open(log_path, "wb")
    try:
        ca = configure(emu, work)
        emu.seed({"path": "/acceptance/readme.txt", "content": "installed\n"},
                 {"path": "/acceptance/big.bin", "size": BIG})
        service = start_service(log)
        enrol(emu)
        first, st = stored_credential()
        check((st.st_uid, st.st_mode & 0o777) == (pwd.getpwnam("tarvex").pw_uid, 0o600),
              "state file owned by tarvex, mode 0600")
        session(emu, ca, work)

        second, _ = stored_credential()
        grants = [e["status"] for e in emu.log() if e["path"] == "/oauth2/token"]
        # The second session took the renewed token from the state file.
        check(grants == [200, 200], "token requests: enrolment and one renewal %r" % grants)
        check(second["access_token"] != first["access_token"],
              "the helper stored the renewed token")
        check(not [e for e in emu.log() if e["status"] == 401], "no request refused as 401")
    finally:
        if service is not None:
            service.terminate()
            service.wait(timeout=30)
        log.close()
        emu.stop()
        with open(log_path, errors="replace") as f:
            text = f.read()
        print("--- service log\n" + text + "---", flush=True)
        shutil.rmtree(work, ignore_errors=True)
    logins = re.findall(r"\[(\d+)\]: %s logged in" % USER, text)
    transfers = re.findall(r"\[(\d+)\]: (RETR|STOR) /acceptance/", text)
    check(len(logins) == 2 and [p for p, _ in transfers[:2]] == [logins[0]] * 2 and
          logins[1] not in {p for p, _ in transfers},
          "the first session downloaded and uploaded, then a second logged in")
    check(first["access_token"] not in text and second["access_token"] not in text,
          "no token in the service's log")
    with open("/var/log/tarvex/xferlog") as f:
        xfer = [line.split() for line in f]
    check(sorted((x[8], x[11], x[13]) for x in xfer) ==
          [("/acceptance/big.bin", "o", USER), ("/acceptance/upload.bin", "i", USER)],
          "transfer log: the download and the upload")
    print("acceptance: %s" % ("FAILED: " + "; ".join(failures) if failures else "passed"))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
