#!/usr/bin/python3
"""Figures of vinmand on the virtual board (printed, not judged): the work of an
idle manager pass next to what it needs, resident memory, plug -> connected and
SIGTERM -> exit times, and with --valgrind a leak check of a short run. Needs
root, a Debug or Release build and strace (for the statistics reads)."""

import os
import random
import re
import select
import shutil
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
PLUG = "3"
LOCK_TIMEOUT = 90

# An idle pass with every channel configured only polls the status: per channel
# one page-scoped read of register 0x01 (read 0x40 to keep the page, write 0x40 =
# N, read 0x01, write 0x40 back: 2 reads of a pointer write and a byte, 2 register
# writes) and one read of the capture driver's no-video statistic. The slave
# address is bound once at start-up.
NEED_I2C = {"i2c_pointer_writes": 2 * CHANNELS, "i2c_reads": 2 * CHANNELS,
            "i2c_register_writes": 2 * CHANNELS, "i2c_address_sets": 0, "i2c_failed": 0}
NEED_REGISTERS = {"reads 0x01": CHANNELS, "reads 0x40": CHANNELS, "writes 0x40": 2 * CHANNELS}


def pass_boundary(board, before, timeout=10):
    """The counters and the time once the next pass has moved the counters and
    they have been still for 400 ms."""
    current = wait_for(lambda: (c := bl.counters(board)) != before and c, timeout,
                       "a manager pass")
    while True:
        time.sleep(0.4)
        if (settled := bl.counters(board)) == current:
            return settled, time.time()
        current = settled


def start_strace(pid, out):
    """strace on every thread of the daemon (one file a thread), for what the board
    does not count: opens of the no-video statistics and bus connections."""
    proc = shutil.which("strace") and subprocess.Popen(
        ["strace", "-f", "-ff", "-qq", "-ttt", "-e", "trace=openat,connect",
         "-o", os.path.join(out, "t"), "-p", str(pid)], stdin=subprocess.DEVNULL)
    time.sleep(1)  # strace says nothing once attached
    if not proc or proc.poll() is not None:
        print("  strace not installed or not attached: no statistics figure")
        return None
    return proc


def traced_calls(proc, out, start, end):
    """(statistics opens, bus connects) that strace saw between start and end."""
    proc.send_signal(signal.SIGINT)
    proc.wait(10)
    calls = [m[2] for name in os.listdir(out) for line in open(os.path.join(out, name))
             if (m := re.match(r"^([\d.]+) (.*)$", line)) and start <= float(m[1]) <= end]
    return (sum(c.startswith("openat(") and "/veltra/stats/no_video_" in c for c in calls),
            sum(c.startswith("connect(") for c in calls))


def row(label, per_pass, need):
    mark = "as needed" if abs(per_pass - need) < 1e-9 else "differs"
    print(f"  {label:<34}{per_pass:>8.2f}  {need:>6g}  ({mark})")


def service_calls(board):
    return sum(s["calls"] for s in board.status()["services"].values()
               if isinstance(s, dict) and "calls" in s)


def wait_lock(board, state, timeout=LOCK_TIMEOUT):
    wait_for(lambda: (int(PLUG) in (bl.locked_channels(board) or ())) == state, timeout,
             f"the daemon to {'lock' if state else 'give up'} channel {PLUG}", interval=0.2)


def bench_idle_passes(args, out):
    print(f"== idle manager passes, four locked channels ({', '.join(CAMERAS)})")
    with bl.Board(args.build, chip="tp2827", cameras=CAMERAS) as board:
        pid = bl.start_daemon(board)
        started = bl.proc_sample(pid)
        bl.wait_locked(board)
        c, _ = pass_boundary(board, bl.counters(board))
        c, _ = pass_boundary(board, c)  # for the overlay and the configuration file to settle
        locked = bl.proc_sample(pid)
        trace = start_strace(pid, out)

        c0, t0 = pass_boundary(board, bl.counters(board))
        calls0, c, n, m0 = service_calls(board), c0, args.passes, time.monotonic()
        for _ in range(n):
            c, t1 = pass_boundary(board, c)
        took, bus = time.monotonic() - m0, service_calls(board) - calls0
        moved = bl.delta(c, c0)
        print(f"  {n} passes in {took:.1f} s ({took / n:.2f} s a pass)")
        print(f"  {'per pass':<34}{'measured':>8}  {'needed':>6}")
        row("i2c transfers", bl.transfers(moved) / n, sum(NEED_I2C.values()))
        for key, need in NEED_I2C.items():
            row("  " + key, moved.get(key, 0) / n, need)
        regs = bl.register_accesses(moved)
        for key in sorted(set(regs) | set(NEED_REGISTERS)):
            row("  register " + key, regs.get(key, 0) / n, NEED_REGISTERS.get(key, 0))
        print("  status register reads by page:   " + ", ".join(
            f"{k.split()[1]} {v / n:g}" for k, v in sorted(moved.items())
            if k.startswith("reg_reads ") and int(k.split()[2], 16) == 0x01))
        if trace:
            stats, connects = traced_calls(trace, out, t0, t1)
            row("statistics reads (strace)", stats / n, CHANNELS)
            row("system bus connections (strace)", connects / n, 0)
        row("bus calls to the board's services", bus / n, 0)
        final = bl.proc_sample(pid)
        print(f"== resident memory of the daemon: VmRSS {started['VmRSS']} kB after start-up "
              f"({started['Threads']} threads), {locked['VmRSS']} kB with four channels "
              f"locked, {final['VmRSS']} kB after the passes (VmHWM {final['VmHWM']} kB)")

        print(f"== camera plug -> connected = true (channel {PLUG}, cvbs pal)")
        connected, relocked = [], []
        for _ in range(args.plugs):
            # From a camera the daemon had locked, unplugged and its loss reported,
            # at a fresh point of the pass cycle.
            board.ctl("unplug", PLUG)
            bl.wait_connected(board, PLUG, 0)
            wait_lock(board, False)
            pass_boundary(board, bl.counters(board))
            start = time.monotonic()
            board.ctl("plug", PLUG, "cvbs", "pal")
            bl.wait_connected(board, PLUG, 1)
            connected.append(time.monotonic() - start)
            wait_lock(board, True)
            relocked.append(time.monotonic() - start)
        print(f"  plug -> connected = true: {bl.summary(connected)} plugs (polled every 20 ms)")
        print(f"  plug -> locked (ListConfig): {bl.summary(relocked)} plugs (polled every 200 ms)")


def exit_time(pid, timeout=30):
    """Sends SIGTERM and returns the seconds until the process has exited."""
    fd = os.pidfd_open(pid)
    try:
        start = time.monotonic()
        os.kill(pid, signal.SIGTERM)
        if not select.select([fd], [], [], timeout)[0]:
            raise bl.BoardError(f"the daemon did not exit within {timeout} s of SIGTERM")
        return time.monotonic() - start
    finally:
        os.close(fd)


def bench_stop(args):
    print(f"== SIGTERM -> exit ({args.stops} runs)")
    times, statuses = [], []
    for _ in range(args.stops):
        with bl.Board(args.build, chip="tp2827", cameras=CAMERAS) as board:
            pid = bl.start_daemon(board)
            # One pass after start-up, then a random point of the 2 s pass cycle:
            # the manager sees the stop when its interrupt wait ends.
            pass_boundary(board, bl.counters(board))
            time.sleep(random.uniform(0, 2))
            times.append(exit_time(pid))
            statuses.append(board.stop())
    print(f"  SIGTERM -> exit: {bl.summary(times)} runs; exit statuses {statuses}")


def bench_valgrind(args, out):
    print("== valgrind --leak-check=full: start, plug, lock, unplug, SIGTERM")
    vglog, pidfile = os.path.join(out, "valgrind.log"), os.path.join(out, "pid")
    daemon = os.path.join(os.path.abspath(args.build), "src", "vinmand")
    command = ["sh", "-c", f'echo $$ > {pidfile} && exec "$@"', "sh", "valgrind",
               "--leak-check=full", "--num-callers=30", f"--log-file={vglog}", daemon]
    with bl.Board(args.build, chip="tp2827", cameras=[], command=command) as board:
        bl.wait_log(board, f"Acquired '{bl.SERVICE}' on D-Bus message bus.", 180)
        board.ctl("plug", "0", "cvbs", "pal")
        bl.wait_connected(board, 0, 1, 180)
        bl.wait_log(board, "on channel 0, video type", 180)
        board.ctl("unplug", "0")
        bl.wait_connected(board, 0, 0, 180)
        took = exit_time(int(open(pidfile).read()), timeout=180)
        print(f"  SIGTERM -> exit under valgrind: {took * 1000:.0f} ms; "
              f"exit status {board.stop(timeout=60)}")
    text = open(vglog).read()
    for line in re.findall(r"^==\d+== +((?:definitely|indirectly|possibly) lost:.*|still "
                           r"reachable:.*|ERROR SUMMARY.*|All heap blocks.*|in use at exit.*)$",
                           text, re.M):
        print("  " + line)
    # The first loss records, shortened.
    for record in re.findall(r"^==\d+== ([\d,]+ .*(?:definitely|possibly) lost in loss record.*\n"
                             r"(?:==\d+== +(?:at|by).*\n){1,12})", text, re.M)[:6]:
        print("    " + re.sub(r"\n==\d+== +", "\n      ", record).rstrip())


def main():
    args = bl.parse_args(__doc__, passes=6, plugs=4, stops=5, valgrind=False)
    out = tempfile.mkdtemp(prefix="daemon-bench.", dir="/tmp")
    try:
        bench_idle_passes(args, out)
        bench_stop(args)
        if args.valgrind:
            bench_valgrind(args, out)
    except bl.BoardError as e:
        sys.exit(f"daemon_bench: {e}")
    finally:
        shutil.rmtree(out, ignore_errors=True)


if __name__ == "__main__":
    main()
