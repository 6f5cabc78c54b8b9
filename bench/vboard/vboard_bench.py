#!/usr/bin/python3
"""Prints (does not judge) two figures of the virtual board: register reads per
second through the FUSE i2c-dev file (one 1-byte write and one 1-byte read each),
measured inside a board by vboard-probe; the time from starting `vboard run` to
the board's ready file, over a few runs.

usage: bench/vboard/vboard_bench.py [BUILD_DIR] (default build/asan; needs root)"""

import os
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402


def main():
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else bl.default_build("asan"))
    vboard = os.path.join(build, "sim", "vboard", "vboard")
    probe = os.path.join(build, "sim", "probe", "vboard-probe")
    if os.geteuid() != 0:
        sys.exit("vboard_bench: needs root")

    r = subprocess.run([vboard, "run", "--", probe, "loop", "20000"], capture_output=True,
                       text=True, timeout=300)
    print("i2c round trips:", r.stdout.strip() or r.stderr.strip())

    times = []
    for _ in range(5):
        state = tempfile.mkdtemp(prefix="vboard-bench.", dir="/tmp")
        start = time.monotonic()
        p = subprocess.Popen([vboard, "run", "--state-dir", state, "--", "sleep", "600"],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while not os.path.exists(os.path.join(state, "ready")) and p.poll() is None:
            time.sleep(0.001)
        times.append(time.monotonic() - start)
        p.terminate()
        p.wait(30)
        shutil.rmtree(state, ignore_errors=True)
    print(f"vboard run to ready: {bl.summary(times)} runs")


if __name__ == "__main__":
    main()
