#!/usr/bin/python3
"""Figures of the virtual board: register reads per second through the FUSE i2c-dev file
(vboard-probe inside a board) and the time from `vboard run` to its ready file."""

import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402

build = os.path.abspath(bl.parse_args(__doc__).build)
vboard = os.path.join(build, "sim", "vboard", "vboard")
r = subprocess.run([vboard, "run", "--", os.path.join(build, "sim", "probe", "vboard-probe"),
                    "loop", "20000"], capture_output=True, text=True, timeout=300)
print("i2c round trips:", r.stdout.strip() or r.stderr.strip())
times = []
for _ in range(5):
    with tempfile.TemporaryDirectory(prefix="vboard-bench.", ignore_cleanup_errors=True) as state:
        start = time.monotonic()
        p = subprocess.Popen([vboard, "run", "--state-dir", state, "--", "sleep", "600"],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        bl.wait_for(lambda: os.path.exists(f"{state}/ready") or p.poll() is not None, 60,
                    "the board", interval=0.001)
        times.append(time.monotonic() - start)
        p.terminate()
        p.wait(30)
print(f"vboard run to ready: {bl.summary(times)} runs")
