#!/usr/bin/python3
"""Figures of vinmand on the virtual board: the work of an idle manager pass next to what
it needs, resident memory, plug -> connected and SIGTERM -> exit times; with --valgrind also
a leak check of a short run (start, lock, loss, SIGTERM). Needs root, a Debug or Release build
and strace."""

import os
import random
import re
import select
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import CHANNELS, wait_for  # noqa: E402

# Cameras that lock without coupling channels. Channel 3 carries PAL, the capture
# mode at start, so the daemon acts on its loss: the plug timing uses it.
CAMERAS = ["0:tvi:1080p25", "1:ahd:720p30", "2:cvi:1080p30", "3:cvbs:pal"]
PLUG = 3


def pass_boundary(board, before, timeout=10):
    """The counters and the time once a pass has moved them and they are still for 400 ms."""
    current = wait_for(lambda: (c := bl.counters(board)) != before and c, timeout, "a pass")
    while True:
        time.sleep(0.4)
        if (settled := bl.counters(board)) == current:
            return settled, time.time()
        current = settled


def service_calls(board):
    return sum(s["calls"] for s in board.status()["services"].values()
               if isinstance(s, dict) and "calls" in s)


def bench_idle_passes(args):
    with (tempfile.TemporaryDirectory(dir="/tmp") as out,
          bl.Board(args.build, cameras=CAMERAS) as board):
        pid = bl.start_daemon(board)
        started = bl.proc_sample(pid)
        bl.wait_locked(board)
        c, _ = pass_boundary(board, bl.counters(board))
        c, _ = pass_boundary(board, c)  # for the overlay and the configuration file to settle
        # strace on every thread for what the board does not count: statistics opens, connects
        trace = subprocess.Popen(["strace", "-f", "-ff", "-qq", "-ttt", "-e", "openat,connect",
                                  "-o", f"{out}/t", "-p", str(pid)], stdin=subprocess.DEVNULL)
        time.sleep(1)  # strace says nothing once attached
        c0, t0 = pass_boundary(board, bl.counters(board))
        calls0, c, n, m0 = service_calls(board), c0, args.passes, time.monotonic()
        for _ in range(n):
            c, t1 = pass_boundary(board, c)
        took, moved = time.monotonic() - m0, bl.delta(c, c0)
        trace.send_signal(signal.SIGINT)
        trace.wait(10)
        calls = [x[1] for name in os.listdir(out) for line in open(f"{out}/{name}")
                 if len(x := line.split(maxsplit=1)) == 2 and t0 <= float(x[0]) <= t1]
        print(f"== {n} idle passes in {took:.1f} s, {', '.join(CAMERAS)} locked\n"
              f"  per pass{'measured':>36}  needed")
        # An idle pass only polls the status: per channel one page-scoped read of 0x01 (read
        # 0x40, write 0x40 = N, read 0x01, write 0x40 back: 6 transfers), one statistics read.
        for label, value, need in [
                ("i2c transfers", moved["transfers"], 6 * CHANNELS),
                ("failed i2c transfers", moved["i2c_failed"], 0),
                *((f"reads of 0x01 on page {ch}", moved[f"reg_reads ch{ch} 0x01"], 1)
                  for ch in range(CHANNELS)),
                ("statistics reads (strace)", sum("no_video_" in x for x in calls), CHANNELS),
                ("bus connections (strace)", sum(x.startswith("connect(") for x in calls), 0),
                ("bus calls to the board's services", service_calls(board) - calls0, 0)]:
            mark = "as needed" if value == need * n else "differs"
            print(f"  {label:<36}{value / n:>8.2f}  {need:>6}  ({mark})")
        final = bl.proc_sample(pid)
        print(f"== daemon VmRSS: {started['VmRSS']} kB after start-up ({started['Threads']} "
              f"threads), {final['VmRSS']} kB after the passes (VmHWM {final['VmHWM']} kB)")
        connected = []
        for _ in range(args.plugs):
            # From a camera the daemon had locked and seen lost, at a fresh point of the pass.
            board.ctl("unplug", str(PLUG))
            bl.wait_connected(board, PLUG, 0)
            pass_boundary(board, bl.counters(board))
            start = time.monotonic()
            board.ctl("plug", str(PLUG), "cvbs", "pal")
            bl.wait_connected(board, PLUG, 1)
            connected.append(time.monotonic() - start)
            wait_for(lambda: PLUG in (bl.locked_channels(board) or ()), 90, "the lock", 0.2)
        print(f"== plug (channel {PLUG}, cvbs pal) -> connected = true: {bl.summary(connected)} "
              "plugs (polled every 20 ms)")


def bench_valgrind(args):
    with tempfile.TemporaryDirectory(dir="/tmp") as out:
        command = ["valgrind", "--leak-check=full", f"--log-file={out}/log",
                   os.path.join(os.path.abspath(args.build), "src", "vinmand")]
        with bl.Board(args.build, cameras=[], command=command) as board:
            wait_for(lambda: any("Acquired" in ln.text for ln in board.all_log_lines()), 180,
                     "the daemon to own its bus name")  # no PID to find under valgrind
            board.ctl("plug", "0", "cvbs", "pal")
            bl.wait_connected(board, 0, 1, 180)
            board.ctl("unplug", "0")
            bl.wait_connected(board, 0, 0, 180)
            print(f"== valgrind --leak-check=full, exit status {board.stop(timeout=120)}")
        print("\n".join("  " + m for m in re.findall(
            r"^==\d+== +((?:definitely|indirectly|possibly) lost:.*|ERROR SUMMARY.*)$",
            open(f"{out}/log").read(), re.M)))


def main():
    args = bl.parse_args(__doc__, passes=6, plugs=4, stops=5, valgrind=False)
    if args.valgrind:
        return bench_valgrind(args)
    bench_idle_passes(args)
    times, statuses = [], []
    for _ in range(args.stops):
        with bl.Board(args.build, cameras=CAMERAS) as board:
            pid = bl.start_daemon(board)
            pass_boundary(board, bl.counters(board))
            time.sleep(random.uniform(0, 2))  # a random point of the 2 s pass cycle
            fd, start = os.pidfd_open(pid), time.monotonic()
            os.kill(pid, signal.SIGTERM)
            select.select([fd], [], [], 30)  # readable once the daemon has exited
            times.append(time.monotonic() - start)
            os.close(fd)
            statuses.append(board.stop())
    print(f"== SIGTERM -> exit: {bl.summary(times)} runs; exit statuses {statuses}")


if __name__ == "__main__":
    main()
