#!/usr/bin/python3
"""Figures of vinmand on the virtual board (printed, not judged): the work of an
idle manager pass next to what it needs, resident memory, plug -> connected and
SIGTERM -> exit times, and with --valgrind a leak check of a short run.

usage: bench/daemon/daemon_bench.py [--build DIR] [--passes N] [--plugs N]
                                    [--stops N] [--valgrind] [--valgrind-only]

Needs root, a Debug or Release build (sanitizers distort the figures) and strace
for the statistics reads."""

import os
import random
import re
import select
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import CHANNELS, log, wait_for  # noqa: E402

# Cameras that lock without coupling channels. Channel 3 carries PAL, the capture
# mode at start, so the daemon acts on its loss: the plug timing uses it.
CAMERAS = ["0:tvi:1080p25", "1:ahd:720p30", "2:cvi:1080p30", "3:cvbs:pal"]
PLUG_CHANNEL, PLUG_CAMERA = 3, ("cvbs", "pal")
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
    """The counters, wall-clock and monotonic time once the next pass has moved
    the counters and they have been still for 400 ms."""
    current = wait_for(lambda: (c := bl.counters(board)) != before and c, timeout,
                       "a manager pass")
    while True:
        time.sleep(0.4)
        settled = bl.counters(board)
        if settled == current:
            return settled, time.time(), time.monotonic()
        current = settled


class SyscallTrace:
    """strace on every thread of the daemon (one file a thread), for what the board
    does not count: opens of the no-video statistics, bus connections and the
    manager's 2000 ms interrupt waits."""

    def __init__(self, pid):
        if not shutil.which("strace"):
            raise OSError("not installed")
        self.dir = tempfile.mkdtemp(prefix="daemon-bench-strace.", dir="/tmp")
        self.proc = subprocess.Popen(
            ["strace", "-f", "-ff", "-qq", "-ttt", "-T", "-e", "trace=openat,connect,poll,ppoll",
             "-o", os.path.join(self.dir, "t"), "-p", str(pid)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        # strace says nothing once attached; a traced call in its output shows it.
        wait_for(lambda: self.proc.poll() is not None or any(
            os.path.getsize(os.path.join(self.dir, f)) for f in os.listdir(self.dir)),
            10, "strace to attach")
        if self.proc.poll() is not None:
            shutil.rmtree(self.dir, ignore_errors=True)
            raise OSError(self.proc.stderr.read().decode().strip())

    def stop(self):
        """The calls of each thread: [[(stamp, text, duration)]]."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            self.proc.wait(10)
        threads = []
        for name in os.listdir(self.dir):
            with open(os.path.join(self.dir, name)) as f:
                threads.append([(float(m[1]), m[2], float(m[3])) for line in f
                                if (m := re.match(r"^([\d.]+) (.*) <([\d.]+)>$", line))])
        shutil.rmtree(self.dir, ignore_errors=True)
        return threads

    @staticmethod
    def count(threads, start, end):
        """(statistics opens, bus connects, 2000 ms interrupt-wait time-outs, the
        manager's busy time after each time-out) between start and end."""
        stats = connects = timeouts = 0
        busy = []
        for calls in threads:
            inside = [text for stamp, text, _ in calls if start <= stamp <= end]
            stats += sum(t.startswith("openat(") and "/veltra/stats/no_video_" in t
                         for t in inside)
            connects += sum(t.startswith("connect(") for t in inside)
            waits = [(stamp, stamp + took, "= 0 (Timeout)" in text) for stamp, text, took in calls
                     if "poll(" in text and ", 2000)" in text]
            timeouts += sum(timeout and start <= left <= end for _, left, timeout in waits)
            busy += [nxt[0] - cur[1] for cur, nxt in zip(waits, waits[1:])
                     if start <= cur[1] and nxt[0] <= end]
        return stats, connects, timeouts, busy


def row(label, per_pass, need):
    mark = "  (as needed)" if abs(per_pass - need) < 1e-9 else "  (differs)"
    log(f"  {label:<34}{per_pass:>8.2f}  {need:>6g}{mark}")


def service_calls(board):
    return {name: s["calls"] for name, s in board.status()["services"].items()
            if isinstance(s, dict) and "calls" in s}


def start_trace(pid):
    try:
        return SyscallTrace(pid)
    except OSError as e:  # not installed, or could not attach
        log(f"  strace: {e}: no statistics figure")


def bench_idle_passes(args):
    log(f"== idle manager passes, four locked channels ({', '.join(CAMERAS)})")
    with bl.Board(args.build, chip="tp2827", cameras=CAMERAS) as board:
        pid = bl.start_daemon(board)
        started = bl.proc_sample(pid) or {}
        for ch in range(CHANNELS):
            board.ctl("wait", "--timeout", str(LOCK_TIMEOUT), "connected", str(ch), "1",
                      timeout=LOCK_TIMEOUT + 10)
        wait_for(lambda: bl.daemon_locked(board), LOCK_TIMEOUT,
                 "the daemon to lock every channel", interval=0.5)
        c = bl.counters(board)
        for _ in range(2):  # for the overlay and the configuration file to settle
            c, _, _ = pass_boundary(board, c)
        locked = bl.proc_sample(pid) or {}
        trace = start_trace(pid)

        c0, t0, m0 = pass_boundary(board, bl.counters(board))
        calls0, c, n = service_calls(board), c0, args.passes
        for _ in range(n):
            c, t1, m1 = pass_boundary(board, c)
        bus = bl.delta(service_calls(board), calls0)
        traced = trace.stop() if trace else None

        moved = bl.delta(c, c0)
        log(f"  {n} passes in {m1 - m0:.1f} s ({(m1 - m0) / n:.2f} s a pass)")
        log(f"  {'per pass':<34}{'measured':>8}  {'needed':>6}")
        row("i2c transfers", bl.transfers(moved) / n,
            sum(v for k, v in NEED_I2C.items() if k != "i2c_failed"))
        for key, need in NEED_I2C.items():
            row("  " + key, moved.get(key, 0) / n, need)
        regs = bl.register_accesses(moved)
        for key in sorted(set(regs) | set(NEED_REGISTERS)):
            row("  register " + key, regs.get(key, 0) / n, NEED_REGISTERS.get(key, 0))
        pages = sorted(k for k in moved
                       if k.startswith("reg_reads ") and int(k.split()[2], 16) == 0x01)
        log("  status register reads by page:   "
            + ", ".join(f"{k.split()[1]} {moved[k] / n:g}" for k in pages))
        if traced is not None:
            stats, connects, waits, busy = SyscallTrace.count(traced, t0, t1)
            row("statistics reads (strace)", stats / n, CHANNELS)
            row("system bus connections (strace)", connects / n, 0)
            log(f"  strace saw {waits} interrupt waits end in their 2000 ms time-out "
                f"for {n} passes; the manager's work after each: {bl.summary(busy)}")
        row("bus calls to the board's services", sum(bus.values()) / n, 0)
        for name, value in sorted(bus.items()):
            log(f"    {name}: {value}")
        others = {k: v for k, v in moved.items() if not k.startswith(("reg_", "i2c_"))}
        if others:
            log("  other counters moved: "
                + ", ".join(f"{k} {v}" for k, v in sorted(others.items())))
        final = bl.proc_sample(pid) or {}
        log()
        log("== resident memory of the daemon")
        log(f"  after start-up (bus name acquired): VmRSS {started.get('VmRSS')} kB, "
            f"{started.get('Threads')} threads")
        log(f"  four channels locked:              VmRSS {locked.get('VmRSS')} kB")
        log(f"  after the idle passes:             VmRSS {final.get('VmRSS')} kB, "
            f"VmHWM {final.get('VmHWM')} kB")
        log()
        bench_plug(board, args)
        log(f"  daemon exit status after SIGTERM: {board.stop()}")
        log()


def bench_plug(board, args):
    ch = str(PLUG_CHANNEL)
    log(f"== camera plug -> connected = true (channel {ch}, {' '.join(PLUG_CAMERA)})")

    def wait_lock(state, what):
        wait_for(lambda: (PLUG_CHANNEL in (bl.locked_channels(board) or ())) == state,
                 LOCK_TIMEOUT, f"the daemon to {what} channel {ch}", interval=0.2)

    connected, locked = [], []
    for _ in range(args.plugs):
        # Every plug starts from a camera the daemon had locked, unplugged and
        # its loss reported, at a fresh point of the pass cycle.
        wait_lock(True, "lock")
        board.ctl("unplug", ch)
        board.ctl("wait", "--timeout", "30", "connected", ch, "0", timeout=40)
        wait_lock(False, "give up")
        pass_boundary(board, bl.counters(board))
        start = time.monotonic()
        board.ctl("plug", ch, *PLUG_CAMERA)
        board.ctl("wait", "--timeout", "30", "connected", ch, "1", timeout=40)
        connected.append(time.monotonic() - start)
        wait_lock(True, "lock")
        locked.append(time.monotonic() - start)
    log(f"  plug -> connected = true: {bl.summary(connected)} plugs (board polled every 20 ms)")
    log(f"  plug -> locked (ListConfig): {bl.summary(locked)} plugs (polled every 200 ms)")
    log()


def daemon_exit_time(pid, timeout=30):
    """Sends SIGTERM and returns the seconds until the process has exited."""
    fd = os.pidfd_open(pid)
    try:
        start = time.monotonic()
        os.kill(pid, signal.SIGTERM)
        poller = select.poll()
        poller.register(fd, select.POLLIN)
        if not poller.poll(timeout * 1000):
            raise bl.BoardError(f"the daemon did not exit within {timeout} s of SIGTERM")
        return time.monotonic() - start
    finally:
        os.close(fd)


def bench_stop(args):
    log(f"== SIGTERM -> exit, and VmRSS after start-up ({args.stops} runs)")
    times, rss, statuses = [], [], []
    for _ in range(args.stops):
        with bl.Board(args.build, chip="tp2827", cameras=CAMERAS) as board:
            pid = bl.start_daemon(board)
            # One pass after start-up, then a random point of the 2 s pass cycle:
            # the manager sees the stop when its interrupt wait ends.
            pass_boundary(board, bl.counters(board))
            rss.append((bl.proc_sample(pid) or {}).get("VmRSS", 0))
            time.sleep(random.uniform(0, 2))
            times.append(daemon_exit_time(pid))
            statuses.append(board.stop())
    log(f"  SIGTERM -> exit: {bl.summary(times)} runs")
    log(f"  VmRSS after start-up: median {statistics.median(rss):.0f} kB, "
        f"min {min(rss)} kB, max {max(rss)} kB")
    log(f"  exit statuses: {statuses}")
    log()


def bench_valgrind(args):
    log("== valgrind --leak-check=full: start, plug, lock, unplug, SIGTERM")
    if not shutil.which("valgrind"):
        log("  valgrind is not installed")
        return
    daemon = os.path.join(os.path.abspath(args.build), "src", "vinmand")
    outdir = tempfile.mkdtemp(prefix="daemon-bench-vg.", dir="/tmp")
    vglog = os.path.join(outdir, "valgrind.log")
    command = ["valgrind", "--leak-check=full", "--show-leak-kinds=definite,possible",
               "--num-callers=30", f"--log-file={vglog}", daemon]
    try:
        with bl.Board(args.build, chip="tp2827", cameras=[], command=command) as board:
            pid = wait_for(lambda: bl.find_process(
                board, lambda argv: b"valgrind" in argv[0] and daemon.encode() in argv),
                30, "valgrind to start")
            bl.wait_log(board, bl.ACQUIRED, 180)
            board.ctl("plug", "0", "cvbs", "pal")
            board.ctl("wait", "--timeout", "180", "connected", "0", "1", timeout=190)
            bl.wait_log(board, "on channel 0, video type", 180)
            board.ctl("unplug", "0")
            board.ctl("wait", "--timeout", "180", "connected", "0", "0", timeout=190)
            took = daemon_exit_time(pid, timeout=180)
            status = board.stop(timeout=60)
        log(f"  SIGTERM -> exit under valgrind: {bl.ms(took)}; exit status {status}")
        with open(vglog) as f:
            text = f.read()
        keep = re.compile(r"^==\d+== +(definitely lost:|indirectly lost:|possibly lost:|"
                          r"still reachable:|ERROR SUMMARY|All heap blocks|in use at exit)")
        for line in text.splitlines():
            if keep.search(line):
                log("  " + re.sub(r"^==\d+== ", "", line))
        m = re.search(r"definitely lost: ([\d,]+) bytes in ([\d,]+) blocks", text)
        lost = m.group(1) if m else ("0" if "no leaks are possible" in text else "?")
        log(f"  definitely lost: {lost} bytes")
        # The first loss records (definite and possible), shortened.
        records = re.findall(r"(==\d+== [\d,]+ .*(?:definitely|possibly) lost in loss record.*\n"
                             r"(?:==\d+== +(?:at|by).*\n)+)", text)
        for record in records[:6]:
            lines = [re.sub(r"^==\d+== +", "", line) for line in record.splitlines()]
            log("    " + lines[0])
            for line in lines[1:13]:
                log("      " + line)
    finally:
        shutil.rmtree(outdir, ignore_errors=True)
    log()


def main():
    p = bl.parser("daemon_bench", __doc__)
    p.add_argument("--passes", type=int, default=6, help="idle passes measured")
    p.add_argument("--plugs", type=int, default=4, help="plug timings")
    p.add_argument("--stops", type=int, default=5, help="SIGTERM timings (one board each)")
    p.add_argument("--valgrind", action="store_true", help="also run the leak check")
    p.add_argument("--valgrind-only", action="store_true", help="run the leak check only")
    args = p.parse_args()
    bl.need_root("daemon_bench")
    log(f"build {os.path.abspath(args.build)}")
    log()
    try:
        if not args.valgrind_only:
            bench_idle_passes(args)
            bench_stop(args)
        if args.valgrind or args.valgrind_only:
            bench_valgrind(args)
    except bl.BoardError as e:
        sys.exit(f"daemon_bench: {e}")


if __name__ == "__main__":
    main()
