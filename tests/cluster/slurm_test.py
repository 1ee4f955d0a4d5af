#!/usr/bin/env python3
"""A real cluster for the cluster launcher: starts a single-node Slurm on
127.0.0.1 (munged with its own socket and key, slurmctld and slurmd in the
foreground as children of this script, free ports, every file in a
temporary folder), runs scripts/nmb-slurm over built files (two sources,
packed pages, one file that fails) in several formats, and requires each
final output and exit status to be those of one plain nmb_read run. Then
it stops every daemon by its PID and waits for stray slurmstepds. Every
wait is bounded.

Usage: slurm_test.py BUILD_DIR   (nmb_read and tools/make_sample built there)
"""
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
build = os.path.abspath(sys.argv[1])
nmb_read = f"{build}/nmb_read"
launcher = os.path.join(ROOT, "scripts", "nmb-slurm")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def need(program):
    path = shutil.which(program) or shutil.which(program, path="/usr/sbin:/sbin")
    if path is None:
        sys.exit(f"slurm test: {program} not found (scripts/setup.sh installs slurm-wlm and munge)")
    return path


def wait_until(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return
        time.sleep(0.2)
    raise RuntimeError(f"slurm test: {what} within {seconds} s")


class Cluster:
    def __init__(self, work):
        self.work = work
        self.children = []
        self.env = {**os.environ, "SLURM_CONF": f"{work}/slurm.conf"}

    def start(self):
        work = self.work
        os.makedirs(f"{work}/munge", mode=0o711)
        with open(f"{work}/munge.key", "wb") as key:
            key.write(os.urandom(1024))
        os.chmod(f"{work}/munge.key", 0o600)
        socket_path = f"{work}/munge/munge.sock"
        self.spawn("munged", [need("munged"), "--foreground", "--force", f"--socket={socket_path}",
                              f"--key-file={work}/munge.key", f"--pid-file={work}/munge/pid",
                              f"--log-file={work}/munge/log", f"--seed-file={work}/munge/seed"])
        wait_until(lambda: os.path.exists(socket_path), 10, "munged did not start")
        host = socket.gethostname()
        for folder in ("state", "spool"):
            os.mkdir(f"{work}/{folder}")
        with open(f"{work}/slurm.conf", "w") as conf:
            conf.write(f"""ClusterName=nmbtest
SlurmctldHost={host}(127.0.0.1)
SlurmctldPort={free_port()}
SlurmdPort={free_port()}
SlurmUser={os.environ.get("USER", "root") if os.getuid() else "root"}
SlurmdUser=root
AuthType=auth/munge
AuthInfo=socket={socket_path}
StateSaveLocation={work}/state
SlurmdSpoolDir={work}/spool
SlurmctldPidFile={work}/slurmctld.pid
SlurmdPidFile={work}/slurmd.pid
SlurmctldLogFile={work}/slurmctld.log
SlurmdLogFile={work}/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
ReturnToService=2
MpiDefault=none
SlurmdParameters=config_overrides
NodeName={host} NodeAddr=127.0.0.1 CPUs=16 State=UNKNOWN
PartitionName=test Nodes={host} Default=YES MaxTime=INFINITE State=UP
""")
        self.spawn("slurmctld", [need("slurmctld"), "-D", "-i"])
        self.spawn("slurmd", [need("slurmd"), "-D"])

        def idle():
            r = subprocess.run(["sinfo", "-h", "-o", "%T"], env=self.env, capture_output=True,
                               text=True, timeout=10)
            return r.returncode == 0 and r.stdout.strip() == "idle"
        wait_until(idle, 30, "the node did not become idle")

    def spawn(self, name, command):
        log = open(f"{self.work}/{name}.out", "wb")
        child = subprocess.Popen(command, env=self.env, stdout=log, stderr=subprocess.STDOUT)
        self.children.append((name, child))

    def stop(self):
        # Daemons in the reverse order of their start, each by its PID.
        for name, child in reversed(self.children):
            if child.poll() is None:
                child.send_signal(signal.SIGTERM)
                try:
                    child.wait(timeout=15)
                except subprocess.TimeoutExpired:
                    child.kill()
                    child.wait(timeout=5)

        def no_stepd():
            r = subprocess.run(["pgrep", "-f", f"slurmstepd.*{self.work}"], capture_output=True)
            return r.returncode != 0
        try:
            wait_until(no_stepd, 15, "slurmstepd processes did not end")
        except RuntimeError:
            subprocess.run(["pkill", "-9", "-f", f"slurmstepd.*{self.work}"])


def make_inputs(work):
    subprocess.run([f"{build}/tools/make_sample", f"{work}/examples"], check=True,
                   stdout=subprocess.DEVNULL)
    files = sorted(f"{work}/examples/{name}" for name in os.listdir(f"{work}/examples")
                   if name.endswith(".bin"))
    # A second source: the counters file under another source id.
    data = bytearray(open(f"{work}/examples/counters.bin", "rb").read())
    data[16:80] = b"node02".ljust(64, b"\0")
    with open(f"{work}/examples/node02.bin", "wb") as f:
        f.write(data)
    # A file that fails: too short for a header.
    with open(f"{work}/examples/cut.bin", "wb") as f:
        f.write(b"NMBF" + bytes(60))
    return files[:2] + [f"{work}/examples/cut.bin"] + files[2:] + [f"{work}/examples/node02.bin"]


def main():
    work = tempfile.mkdtemp(prefix="nmb-slurm-")
    os.chmod(work, 0o755)
    cluster = Cluster(work)
    failures = []
    started = time.monotonic()
    try:
        files = make_inputs(work)
        cluster.start()
        formats = ["ndjson", "openmetrics", "txt", "influx"]
        results = {}

        def launch(fmt):
            args = ["-s", f"{work}/examples/schema", "-f", fmt] + files
            plain = subprocess.run([nmb_read] + args, capture_output=True, timeout=60,
                                   env={**os.environ, "TZ": "UTC"})
            out = f"{work}/all.{fmt}"
            sliced = subprocess.run([launcher, "-n", "3", "-w", "-O", out, "--"] + args,
                                    capture_output=True, timeout=120,
                                    env={**cluster.env, "NMB_READ": nmb_read, "TZ": "UTC"})
            results[fmt] = (plain, sliced, out)

        threads = [threading.Thread(target=launch, args=(fmt,)) for fmt in formats]
        for t in threads:
            t.start()
        for t in threads:
            t.join(timeout=180)
        for fmt in formats:
            if fmt not in results:
                failures.append(f"{fmt}: the launcher did not finish")
                continue
            plain, sliced, out = results[fmt]
            joined = open(out, "rb").read() if os.path.exists(out) else None
            if joined != plain.stdout:
                failures.append(f"{fmt}: the joined output differs from one run")
            if sliced.returncode != plain.returncode:
                failures.append(f"{fmt}: exit status {sliced.returncode}, one run gave "
                                f"{plain.returncode}; {sliced.stderr.decode(errors='replace')}")
    except Exception as error:  # a daemon that did not start, a timeout
        failures.append(str(error))
    finally:
        cluster.stop()
        if failures:
            for name in ("slurmctld.log", "slurmd.log", "munged.out"):
                path = f"{work}/{name}"
                if os.path.exists(path):
                    print(f"== {name}\n" + open(path, errors="replace").read()[-2000:])
        shutil.rmtree(work, ignore_errors=True)
    for failure in failures:
        print(f"slurm test: {failure}")
    print(f"slurm test: {'failed' if failures else 'passed'} in {time.monotonic() - started:.1f} s")
    return 1 if failures else 0


sys.exit(main())
