#!/usr/bin/env python3
"""Measures how long a whole chunk takes from disk to the standard output of
`nmb_read --follow`: a writer appends the sample counters file's chunks one
at a time (rewriting the header's file_size after each, as collectors do),
and the time from each append to its NDJSON line is taken. Every wait is
bounded.

Usage: follow_latency.py [BUILD_DIR]   (nmb_read and tools/make_sample built there)
Runs twice: woken by inotify, and looking every 0.25 s (NMB_FOLLOW_POLL=1).
"""
import os
import random
import selectors
import shutil
import struct
import subprocess
import sys
import tempfile
import time

random.seed(1)
build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/release")
work = tempfile.mkdtemp(prefix="nmb-follow-")
try:
    subprocess.run([f"{build}/tools/make_sample", f"{work}/examples"], check=True,
                   stdout=subprocess.DEVNULL)
    source = open(f"{work}/examples/counters.bin", "rb").read()
    block = struct.unpack_from("<I", source, 112)[0]
    chunks = [source[o:o + block] for o in range(256, len(source), block)] * 5
    os.mkdir(f"{work}/live")
    path = f"{work}/live/node.bin"

    def header(size):
        return source[:8] + struct.pack("<Q", size) + source[16:256]

    def measure(env_extra, label):
        with open(path, "wb") as f:
            f.write(header(256))
        follower = subprocess.Popen(
            [f"{build}/nmb_read", "-s", f"{work}/examples/schema", "-f", "ndjson", "--follow",
             "-d", f"{work}/live"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            env={**os.environ, "TZ": "UTC", **env_extra})
        sel = selectors.DefaultSelector()
        sel.register(follower.stdout, selectors.EVENT_READ)
        time.sleep(0.5)  # the follower has looked at the file once
        latencies = []
        pending = b""
        for n, chunk in enumerate(chunks, 1):
            with open(path, "r+b") as f:
                f.seek(0, os.SEEK_END)
                f.write(chunk)
                f.flush()
                written = time.monotonic()
                f.seek(0)
                f.write(header(256 + n * block))
            while pending.count(b"\n") < 1:
                if not sel.select(timeout=5):
                    sys.exit(f"no line within 5 s of chunk {n}")
                pending += os.read(follower.stdout.fileno(), 1 << 16)
            latencies.append(time.monotonic() - written)
            pending = pending[pending.index(b"\n") + 1:]
            time.sleep(random.uniform(0.1, 0.4))  # an idle writer, at any phase of the loop
        follower.terminate()
        follower.wait(timeout=10)
        print(f"{label}: median {sorted(latencies)[len(latencies) // 2] * 1000:.2f} ms, "
              f"worst {max(latencies) * 1000:.2f} ms over {len(latencies)} chunks "
              f"(bound 500 ms), exit status {follower.returncode}")

    measure({}, "inotify")
    measure({"NMB_FOLLOW_POLL": "1"}, "polling every 0.25 s")
finally:
    shutil.rmtree(work)
