#!/usr/bin/env python3
"""Prints the speed at which the Box emulator takes one upload session of
SIZE bytes (default 1 GiB) on loopback, parts sent by N curl processes at
once, each on its own keep-alive connection:

    tools/box-emulator/bench_upload.py [SIZE] [--parts-in-flight N] [--config JSON]

--config JSON is posted to the control interface's config first, e.g.
'{"bandwidth_bps":50000000,"part_processing_ms":50}' for a distant Box.
The time runs from the first part to the commit's answer; preparing the
parts (files and digests) is not counted."""

import argparse
import base64
import concurrent.futures
import hashlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
TOKEN = "test-token"


def call(base, method, path, doc=None, headers=None):
    data = None if doc is None else json.dumps(doc).encode()
    req = urllib.request.Request(base + path, data=data, method=method,
                                 headers=dict(headers or {}, Authorization="Bearer " + TOKEN))
    with urllib.request.urlopen(req) as answer:
        return json.loads(answer.read() or b"{}")


def prepare(directory, size, part_size):
    """Part files of SIZE bytes of noise -> [(path, offset, length, digest)],
    and the whole file's digest header."""
    block = os.urandom(1 << 20)
    whole = hashlib.sha1()
    parts = []
    for offset in range(0, size, part_size):
        length = min(part_size, size - offset)
        path = os.path.join(directory, "part-%d" % offset)
        h = hashlib.sha1()
        with open(path, "wb") as f:
            left = length
            while left:
                chunk = block[:min(left, len(block))]
                f.write(chunk)
                h.update(chunk)
                whole.update(chunk)
                left -= len(chunk)
        parts.append((path, offset, length, "sha=" + base64.b64encode(h.digest()).decode()))
    return parts, "sha=" + base64.b64encode(whole.digest()).decode()


def put_parts(url, size, parts):
    """One curl process PUTs the parts one after the other on one
    keep-alive connection -> the parts' JSON."""
    command = ["curl", "-sf"]
    for path, offset, length, digest in parts:
        if len(command) > 2:
            command.append("--next")
        command += ["-X", "PUT", "-T", path, "-o", path + ".json",
                    "-H", "Authorization: Bearer " + TOKEN,
                    "-H", "Content-Type: application/octet-stream", "-H", "digest: " + digest,
                    "-H", "Content-Range: bytes %d-%d/%d" % (offset, offset + length - 1, size),
                    url]
    subprocess.run(command, check=True)
    done = []
    for path, _, _, _ in parts:
        with open(path + ".json") as f:
            done.append(json.load(f)["part"])
    return done


def cpu_seconds(pid):
    """User and system CPU time of a process so far (all its threads)."""
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("size", nargs="?", type=int, default=1 << 30)
    p.add_argument("--parts-in-flight", type=int, default=1)
    p.add_argument("--config")
    args = p.parse_args()
    directory = tempfile.mkdtemp(prefix="bench-upload-")
    port_file = os.path.join(directory, "port")
    emulator = subprocess.Popen(
        [sys.executable, os.path.join(HERE, "box_emulator.py"), "--quiet", "--port", "0",
         "--port-file", port_file, "--data-dir", os.path.join(directory, "data")],
        stdout=subprocess.DEVNULL)
    try:
        while not os.path.exists(port_file):
            if emulator.poll() is not None:
                sys.exit("bench_upload: the emulator did not start")
            time.sleep(0.05)
        with open(port_file) as f:
            base = "http://127.0.0.1:%d" % int(f.read())
        if args.config:
            call(base, "POST", "/_emulator/config", json.loads(args.config))
        session = call(base, "POST", "/api/2.0/files/upload_sessions",
                       {"folder_id": "0", "file_size": args.size, "file_name": "big"})
        parts, digest = prepare(directory, args.size, session["part_size"])
        url = base + "/api/2.0/files/upload_sessions/" + session["id"]
        start, cpu = time.monotonic(), cpu_seconds(emulator.pid)
        n = args.parts_in_flight
        with concurrent.futures.ThreadPoolExecutor(n) as pool:
            shares = pool.map(lambda i: put_parts(url, args.size, parts[i::n]), range(n))
            done = [part for share in shares for part in share]
        call(base, "POST", "/api/2.0/files/upload_sessions/%s/commit" % session["id"],
             {"parts": done}, {"digest": digest, "Content-Type": "application/json"})
        took, cpu = time.monotonic() - start, cpu_seconds(emulator.pid) - cpu
        print("upload of %d bytes in %d parts, %d in flight: %.0f bytes/s (%.2f s, "
              "emulator CPU %.2f s)" % (args.size, len(parts), args.parts_in_flight,
                                       args.size / took, took, cpu))
    finally:
        emulator.terminate()
        emulator.wait()
        shutil.rmtree(directory, ignore_errors=True)


if __name__ == "__main__":
    main()
