#!/usr/bin/env python3
"""Soak test of --follow with --checkpoint: a collector-like writer appends
counters chunks to files under a folder (rewriting the header's file_size
after every append, starting a new file every 40 chunks), while nmb_read
follows the folder and is stopped again and again by SIGTERM or SIGKILL and
restarted with its checkpoint. At the end every record written must be on
the output: none lost; none repeated after SIGTERM; after SIGKILL at most the
chunks since the last checkpoint. Every wait is bounded.

Usage: follow_soak.py [BUILD_DIR] [SECONDS] [term]   (nmb_read and
tools/make_sample built there; 60 seconds by default; "term": SIGTERM only)
"""
import json
import os
import random
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build/release")
seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 60
signals = ["SIGTERM"] if sys.argv[3:4] == ["term"] else ["SIGTERM", "SIGTERM", "SIGKILL"]
random.seed(7)
work = tempfile.mkdtemp(prefix="nmb-soak-")
try:
    subprocess.run([f"{build}/tools/make_sample", f"{work}/examples"], check=True,
                   stdout=subprocess.DEVNULL)
    template = open(f"{work}/examples/counters.bin", "rb").read()
    block = struct.unpack_from("<I", template, 112)[0]
    chunk0 = template[256:256 + block]
    live = f"{work}/live"
    os.mkdir(live)
    written = []  # block timestamps, in writing order
    stop_writer = threading.Event()

    def writer():
        t = 1700000000000000
        n = 0
        while not stop_writer.is_set():
            path = f"{live}/node_{n:04d}.bin"
            with open(path, "wb") as f:
                f.write(template[:8] + struct.pack("<Q", 256) + template[16:256])
            for k in range(40):
                if stop_writer.is_set():
                    break
                t += 1000
                chunk = chunk0[:8] + struct.pack("<Q", t) + chunk0[16:]
                with open(path, "r+b") as f:
                    f.seek(0, os.SEEK_END)
                    f.write(chunk)
                    f.flush()
                    f.seek(8)
                    f.write(struct.pack("<Q", 256 + (k + 1) * block))
                written.append(t)
                time.sleep(random.uniform(0, 0.01))
            n += 1

    out_path = f"{work}/out.ndjson"
    checkpoint = f"{work}/checkpoint.json"
    command = [f"{build}/nmb_read", "-s", f"{work}/examples/schema", "-f", "ndjson", "--follow",
               "--follow-interval", "0.05", "--checkpoint", checkpoint, "-d", live]
    thread = threading.Thread(target=writer)
    thread.start()
    kills = {"SIGTERM": 0, "SIGKILL": 0}
    statuses = []
    deadline = time.monotonic() + seconds
    with open(out_path, "ab") as out:
        while time.monotonic() < deadline:
            follower = subprocess.Popen(command, stdout=out, stderr=subprocess.DEVNULL)
            time.sleep(random.uniform(0.2, 1.5))
            sig = random.choice(signals)
            follower.send_signal(getattr(signal, sig))
            statuses.append(follower.wait(timeout=30))
            kills[sig] += 1
        stop_writer.set()
        thread.join(timeout=30)
        # A last follower catches up, then stops by SIGTERM.
        follower = subprocess.Popen(command, stdout=out, stderr=subprocess.DEVNULL)
        time.sleep(2)
        follower.send_signal(signal.SIGTERM)
        statuses.append(follower.wait(timeout=30))
    seen = {}
    torn = 0  # a line cut by SIGKILL in the middle of a write
    with open(out_path) as f:
        for line in f:
            try:
                stamp = json.loads(line)["timestamp"]
            except ValueError:
                torn += 1
                continue
            seen[stamp] = seen.get(stamp, 0) + 1
    lost = [t for t in written if t not in seen]
    repeated = sum(c - 1 for c in seen.values())
    made_up = [t for t in seen if t not in set(written)]
    bad_status = [s for s in statuses if s not in (0, -signal.SIGKILL)]
    print(f"{len(written)} records written in {seconds:g} s, {len(seen)} distinct on the output; "
          f"restarts after {kills['SIGTERM']} SIGTERM and {kills['SIGKILL']} SIGKILL; "
          f"lost {len(lost)}, repeated {repeated}, lines cut by SIGKILL {torn}, "
          f"made up {len(made_up)}, "
          f"unexpected exit statuses {bad_status}")
    sys.exit(1 if lost or made_up or bad_status or ((repeated or torn) and not kills["SIGKILL"])
             else 0)
finally:
    shutil.rmtree(work)
