#!/usr/bin/python3
"""Prints (does not judge) two figures of the virtual board:
- register reads per second through the FUSE i2c-dev file (one 1-byte write
  and one 1-byte read each), measured inside a board by vboard-probe;
- the time from starting `vboard run` to the board's ready file, over a few runs.

usage: bench/vboard/vboard_bench.py [BUILD_DIR] (default build/asan; needs root)"""

import os
import statistics
import subprocess
import sys
import tempfile
import time

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def main():
    build = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(REPO, "build/asan"))
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
        ready = os.path.join(state, "ready")
        while not os.path.exists(ready) and p.poll() is None:
            time.sleep(0.001)
        times.append(time.monotonic() - start)
        p.terminate()
        p.wait(30)
        subprocess.run(["rm", "-rf", state])
    print(f"vboard run to ready: median {statistics.median(times) * 1000:.0f} ms, "
          f"min {min(times) * 1000:.0f} ms, max {max(times) * 1000:.0f} ms over {len(times)} runs")


if __name__ == "__main__":
    main()
