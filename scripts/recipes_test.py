#!/usr/bin/env python3
"""Runs every shell block of docs/RECIPES.md, as written, in a scratch folder
holding the sample data set, and compares its standard output with the text
block that follows it. Blocks after a "<!-- not run -->" line are skipped.
The InfluxDB recipe writes into an influxd of its own, started here on
127.0.0.1 with temporary folders and every other listener off, and always
stopped.

Usage: recipes_test.py BUILD_DIR   (nmb_read and tools/make_sample built there)
"""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
BLOCK = re.compile(r"(<!-- not run -->\n)?```sh\n(.*?)```\n(?:```text\n(.*?)```\n)?", re.S)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def influx_config(folder, http_port):
    return f"""reporting-disabled = true
bind-address = "127.0.0.1:{free_port()}"
[meta]
  dir = "{folder}/meta"
[data]
  dir = "{folder}/data"
  wal-dir = "{folder}/wal"
  query-log-enabled = false
[http]
  bind-address = "127.0.0.1:{http_port}"
  log-enabled = false
  pprof-enabled = false
  unix-socket-enabled = false
[monitor]
  store-enabled = false
[subscriber]
  enabled = false
[continuous_queries]
  enabled = false
[retention]
  enabled = false
[shard-precreation]
  enabled = false
[ifql]
  enabled = false
[logging]
  level = "warn"
  suppress-logo = true
"""


def start_influxd(folder):
    """Returns (process, url), or raises after a bounded wait."""
    for _ in range(3):  # a port found free may be taken before influxd binds it
        port = free_port()
        config = os.path.join(folder, "influxdb.conf")
        with open(config, "w") as f:
            f.write(influx_config(folder, port))
        log = open(os.path.join(folder, "influxd.log"), "w")
        process = subprocess.Popen(["influxd", "-config", config], stdout=log, stderr=log)
        url = f"http://127.0.0.1:{port}"
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and process.poll() is None:
            try:
                urllib.request.urlopen(url + "/ping", timeout=1)
                return process, url
            except OSError:
                time.sleep(0.1)
        stop(process)
    with open(os.path.join(folder, "influxd.log")) as f:
        raise RuntimeError("influxd did not start:\n" + f.read())


def stop(process):
    process.terminate()
    try:
        process.wait(timeout=10)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def main():
    build = os.path.abspath(sys.argv[1])
    with open(os.path.join(ROOT, "docs", "RECIPES.md"), encoding="utf-8") as f:
        blocks = BLOCK.findall(f.read())
    scratch = tempfile.mkdtemp(prefix="nmb_recipes.")
    influxd = None
    failures = 0
    try:
        subprocess.run([os.path.join(build, "tools", "make_sample"), os.path.join(scratch, "examples")],
                       check=True, stdout=subprocess.DEVNULL)
        os.mkdir(os.path.join(scratch, "influx"))
        influxd, url = start_influxd(os.path.join(scratch, "influx"))
        env = dict(os.environ, PATH=build + os.pathsep + os.environ["PATH"], TZ="UTC",
                   INFLUX=url, LC_ALL="C")
        env.pop("NMB_NO_PROGRESS", None)
        ran = 0
        for not_run, script, expected in blocks:
            if not_run:
                continue
            ran += 1
            try:
                result = subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=scratch,
                                        env=env, capture_output=True, text=True, timeout=120)
            except subprocess.TimeoutExpired:
                print(f"recipe timed out:\n{script}", file=sys.stderr)
                failures += 1
                continue
            if result.returncode != 0 or (expected and result.stdout != expected):
                failures += 1
                print(f"recipe failed (exit {result.returncode}):\n{script}\n--- expected\n"
                      f"{expected}--- got\n{result.stdout}--- standard error\n{result.stderr}",
                      file=sys.stderr)
        print(f"recipes: {ran - failures} of {ran} passed")
    finally:
        if influxd is not None:
            stop(influxd)
        shutil.rmtree(scratch, ignore_errors=True)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
