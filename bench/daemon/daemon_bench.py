#!/usr/bin/python3
"""Figures of vinmand on the virtual board (printed, not judged):

- per idle manager pass with four locked channels on a TP2827: the I2C
  transfers and register accesses (board counters), the reads of the capture
  driver's no-video statistics and the D-Bus calls to the board's services,
  each next to what the daemon needs;
- the daemon's resident memory after start-up and with four channels locked;
- the time from plugging a camera to its "connected" = true event;
- the time from SIGTERM to the daemon's exit;
- with --valgrind: a leak check of a short run (start, plug, lock, unplug,
  SIGTERM) under valgrind --leak-check=full.

usage: bench/daemon/daemon_bench.py [--build DIR] [--passes N] [--plugs N]
                                    [--stops N] [--valgrind] [--valgrind-only]

Use a Debug or Release build (default build/debug); sanitizer builds distort
the memory and time figures. Needs root (the board's mount namespace). The
statistics reads are counted with strace attached to the daemon; without
strace that figure is left out.
"""

import argparse
import importlib.machinery
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
import types

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def load_board_module():
    path = os.path.join(REPO, "scripts", "run-on-vboard")
    loader = importlib.machinery.SourceFileLoader("run_on_vboard", path)
    module = types.ModuleType(loader.name)
    module.__file__ = path
    loader.exec_module(module)
    return module


rov = load_board_module()

SERVICE = "com.korvi.Encoder"
OBJECT = "/com/korvi/Encoder"
# Four cameras that lock without coupling channels. Channel 3 carries PAL, the
# capture pipeline's mode at start, so the daemon never changes its capture
# mode and acts on its loss: the plug timing uses it.
CAMERAS = ["0:tvi:1080p25", "1:ahd:720p30", "2:cvi:1080p30", "3:cvbs:pal"]
PLUG_CHANNEL = 3
PLUG_CAMERA = ("cvbs", "pal")
ACQUIRED = "Acquired 'com.korvi.Encoder' on D-Bus message bus."
LOCK_TIMEOUT = 90

# What one idle pass needs. With every channel configured the lock pass skips
# all of them and the overlay has nothing to change, so the only work is the
# status pass: per channel one page-scoped read of the video status register
# and one read of the capture driver's no-video statistic.
#
# A page-scoped read of register 0x01 for channel N is, on the bus:
#   read 0x40 (keep the page)  -> 1-byte pointer write + 1-byte read
#   write 0x40 = N             -> one 2-byte register write
#   read 0x01                  -> 1-byte pointer write + 1-byte read
#   write 0x40 = kept value    -> one 2-byte register write
# so 2 register reads and 2 register writes, 6 transfers per channel, 24 for
# four channels. The slave address is bound once at start-up (no address sets).
CHANNELS = 4
NEED_I2C = {"i2c_pointer_writes": 2 * CHANNELS, "i2c_reads": 2 * CHANNELS,
            "i2c_register_writes": 2 * CHANNELS, "i2c_address_sets": 0, "i2c_failed": 0}
NEED_REGISTERS = {"reads 0x01": CHANNELS, "reads 0x40": CHANNELS, "writes 0x40": 2 * CHANNELS}
NEED_STATS_READS = CHANNELS
NEED_BUS_CALLS = 0
NEED_BUS_CONNECTIONS = 0


def log(text=""):
    print(text, flush=True)


def ms(seconds):
    return f"{seconds * 1000:.0f} ms"


def summary(values):
    if not values:
        return "no sample"
    return (f"median {ms(statistics.median(values))}, min {ms(min(values))}, "
            f"max {ms(max(values))} over {len(values)}")


def proc_status(pid):
    """VmRSS, VmHWM (kB) and Threads of a process."""
    out = {}
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                key, _, value = line.partition(":")
                if key in ("VmRSS", "VmHWM", "Threads"):
                    out[key] = int(value.split()[0])
    except OSError:
        pass
    return out


def wait_for(condition, timeout, what, interval=0.05):
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise rov.BoardError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(interval)


def wait_log(board, text, timeout):
    wait_for(lambda: any(text in line.text for line in board.all_log_lines()), timeout,
             f"'{text}' in the daemon's log")


def counters(board):
    """The board's counters as {name: value}; the name is everything before
    the last field ("reg_reads ch0 01")."""
    out = {}
    for line in board.ctl("counters").splitlines():
        name, _, value = line.rpartition(" ")
        if name:
            out[name] = int(value)
    return out


def service_calls(board):
    return {name: s["calls"] for name, s in board.status()["services"].items()
            if isinstance(s, dict) and "calls" in s}


def daemon_locked(board):
    """True once ListConfig shows a format on every channel."""
    try:
        reply = board.busctl_json("call", SERVICE, OBJECT, SERVICE, "ListConfig")
    except rov.BoardError:
        return False
    rows = reply["data"][0]
    return len(rows) == CHANNELS and all(row[7] not in ("none", "disabled") for row in rows)


def pass_boundary(board, before, timeout=10):
    """Waits for the manager's next pass (the board's counters move) and
    returns the counters once they have been still for 400 ms, with the time:
    a moment between two passes."""
    current = wait_for(lambda: (c := counters(board)) != before and c, timeout,
                       "a manager pass")
    while True:
        time.sleep(0.4)
        settled = counters(board)
        if settled == current:
            return settled, time.time(), time.monotonic()
        current = settled


class SyscallTrace:
    """strace attached to every thread of the daemon, with wall-clock stamps,
    for what the board does not count: opens of the no-video statistics,
    connections to the system bus and the manager's 2000 ms interrupt waits."""

    POLL_CALL = re.compile(r"^(\d+)\s+([\d.]+)\s+(\w*poll)\((.*)$")
    RESUMED = re.compile(r"^(\d+)\s+([\d.]+)\s+<\.\.\. (\w*poll) resumed>(.*)$")

    def __init__(self, pid):
        self.file = tempfile.NamedTemporaryFile(prefix="daemon-bench-strace.", dir="/tmp",
                                                delete=False)
        self.file.close()
        self.proc = subprocess.Popen(
            ["strace", "-f", "-qq", "-ttt", "-T", "-e", "trace=openat,connect,poll,ppoll",
             "-o", self.file.name, "-p", str(pid)],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        # strace says nothing once attached; a traced syscall in its output
        # shows that it is.
        wait_for(lambda: os.path.getsize(self.file.name) > 0 or self.proc.poll() is not None,
                 10, "strace to attach")
        if self.proc.poll() is not None:
            raise OSError(self.proc.stderr.read().decode().strip())

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            self.proc.wait(10)
        with open(self.file.name) as f:
            lines = f.read().splitlines()
        os.unlink(self.file.name)
        return lines

    DURATION = re.compile(r"<([\d.]+)>$")

    @classmethod
    def count(cls, lines, start, end):
        """(statistics opens, bus connects, 2000 ms interrupt-wait time-outs,
        the manager's busy time after each time-out) between start and end."""
        stats = connects = timeouts = 0
        pending_poll = {}  # pid -> (entry stamp, arguments) of its unfinished poll
        waits = []  # (entry, exit) of the manager's 2000 ms waits
        for line in lines:
            fields = line.split(None, 2)
            if len(fields) < 3:
                continue
            pid, stamp = fields[0], float(fields[1])
            text = fields[2]
            inside = start <= stamp <= end
            m = cls.POLL_CALL.match(line)
            if m:
                args = m.group(4)
                if "<unfinished ...>" in args:
                    pending_poll[pid] = (stamp, args)
                    continue
                if ", 2000)" in args:
                    d = cls.DURATION.search(args)
                    waits.append((stamp, stamp + float(d.group(1)) if d else stamp))
                    if inside and "= 0 (Timeout)" in args:
                        timeouts += 1
                continue
            m = cls.RESUMED.match(line)
            if m:
                entry, call = pending_poll.pop(pid, (stamp, ""))
                if ", 2000" in call:
                    waits.append((entry, stamp))
                    if inside and "= 0 (Timeout)" in m.group(4):
                        timeouts += 1
                continue
            if not inside:
                continue
            if text.startswith("openat(") and "/veltra/stats/no_video_" in text:
                stats += 1
            elif text.startswith("connect("):
                connects += 1
        busy = [nxt[0] - cur[1] for cur, nxt in zip(waits, waits[1:])
                if start <= cur[1] and nxt[0] <= end]
        return stats, connects, timeouts, busy


def delta(after, before):
    return {k: after.get(k, 0) - before.get(k, 0) for k in set(after) | set(before)
            if after.get(k, 0) != before.get(k, 0)}


def register_accesses(moved):
    """Register reads and writes summed over the page slots: {"reads 0x01": n}."""
    out = {}
    for name, value in moved.items():
        parts = name.split()
        if len(parts) == 3 and parts[0] in ("reg_reads", "reg_writes"):
            key = f"{parts[0][4:]} 0x{int(parts[2], 16):02x}"
            out[key] = out.get(key, 0) + value
    return out


def row(label, per_pass, need):
    mark = "" if need is None else ("  (as needed)" if abs(per_pass - need) < 1e-9 else
                                    "  (differs)")
    need_text = "-" if need is None else f"{need:g}"
    log(f"  {label:<34}{per_pass:>8.2f}  {need_text:>6}{mark}")


def bench_idle_passes(args):
    log(f"== idle manager passes, four locked channels ({', '.join(CAMERAS)})")
    with rov.Board(args.build, chip="tp2827", cameras=CAMERAS) as board:
        pid = wait_for(board.daemon_pid, 20, "the daemon to start")
        wait_log(board, ACQUIRED, 30)
        started = proc_status(pid)
        for ch in range(CHANNELS):
            board.ctl("wait", "--timeout", str(LOCK_TIMEOUT), "connected", str(ch), "1",
                      timeout=LOCK_TIMEOUT + 10)
        wait_for(lambda: daemon_locked(board), LOCK_TIMEOUT, "the daemon to lock every channel",
                 interval=0.5)
        # Two passes for the overlay and the configuration file to settle.
        c = counters(board)
        for _ in range(2):
            c, _, _ = pass_boundary(board, c)
        locked = proc_status(pid)

        trace = None
        if shutil.which("strace"):
            try:
                trace = SyscallTrace(pid)
            except OSError as e:
                log(f"  strace could not attach ({e}): no statistics figure")
        else:
            log("  strace is not installed: no statistics figure")

        c0, t0, m0 = pass_boundary(board, counters(board))
        calls0 = service_calls(board)
        c = c0
        for _ in range(args.passes):
            c, t1, m1 = pass_boundary(board, c)
        calls1 = service_calls(board)
        traced = trace.stop() if trace else None

        n = args.passes
        moved = delta(c, c0)
        log(f"  {n} passes in {m1 - m0:.1f} s ({(m1 - m0) / n:.2f} s a pass)")
        log(f"  {'per pass':<34}{'measured':>8}  {'needed':>6}")
        transfers = sum(moved.get(k, 0) for k in ("i2c_pointer_writes", "i2c_reads",
                                                  "i2c_register_writes", "i2c_address_sets"))
        row("i2c transfers", transfers / n,
            sum(v for k, v in NEED_I2C.items() if k != "i2c_failed"))
        for key, need in NEED_I2C.items():
            row("  " + key, moved.get(key, 0) / n, need)
        regs = register_accesses(moved)
        for key in sorted(set(regs) | set(NEED_REGISTERS)):
            row("  register " + key, regs.get(key, 0) / n, NEED_REGISTERS.get(key, 0))
        pages = sorted(k for k in moved
                   if k.startswith("reg_reads ") and int(k.split()[2], 16) == 0x01)
        log("  status register reads by page:   " +
            ", ".join(f"{k.split()[1]} {moved[k] / n:g}" for k in pages))
        if traced is not None:
            stats, connects, waits, busy = SyscallTrace.count(traced, t0, t1)
            row("statistics reads (strace)", stats / n, NEED_STATS_READS)
            row("system bus connections (strace)", connects / n, NEED_BUS_CONNECTIONS)
            log(f"  strace saw {waits} interrupt waits end in their 2000 ms time-out "
                f"for {n} passes; the manager's work after each: {summary(busy)}")
        bus = delta(calls1, calls0)
        row("bus calls to the board's services", sum(bus.values()) / n, NEED_BUS_CALLS)
        for name, value in sorted(bus.items()):
            log(f"    {name}: {value}")
        others = {k: v for k, v in moved.items() if not k.startswith(("reg_", "i2c_"))}
        if others:
            log("  other counters moved: "
                + ", ".join(f"{k} {v}" for k, v in sorted(others.items())))
        log()
        log("== resident memory of the daemon")
        log(f"  after start-up (bus name acquired): VmRSS {started.get('VmRSS')} kB, "
            f"{started.get('Threads')} threads")
        final = proc_status(pid)
        log(f"  four channels locked:              VmRSS {locked.get('VmRSS')} kB")
        log(f"  after the idle passes:             VmRSS {final.get('VmRSS')} kB, "
            f"VmHWM {final.get('VmHWM')} kB")
        log()

        bench_plug(board, args)
        status = board.stop()
        log(f"  daemon exit status after SIGTERM: {status}")
        log()


def channel_locked(board, ch):
    try:
        reply = board.busctl_json("call", SERVICE, OBJECT, SERVICE, "ListConfig")
    except rov.BoardError:
        return False
    return reply["data"][0][ch][7] not in ("none", "disabled")


def bench_plug(board, args):
    ch = str(PLUG_CHANNEL)
    log(f"== camera plug -> connected = true (channel {ch}, {' '.join(PLUG_CAMERA)})")
    connected, locked = [], []
    for _ in range(args.plugs):
        # Every plug starts from the same state: the camera was locked by the
        # daemon, then unplugged and its loss reported.
        wait_for(lambda: channel_locked(board, PLUG_CHANNEL), LOCK_TIMEOUT,
                 f"the daemon to lock channel {ch}", interval=0.2)
        board.ctl("unplug", ch)
        board.ctl("wait", "--timeout", "30", "connected", ch, "0", timeout=40)
        wait_for(lambda: not channel_locked(board, PLUG_CHANNEL), 30,
                 f"the daemon to give up channel {ch}", interval=0.2)
        # A fresh point of the pass cycle.
        pass_boundary(board, counters(board))
        start = time.monotonic()
        board.ctl("plug", ch, *PLUG_CAMERA)
        board.ctl("wait", "--timeout", "30", "connected", ch, "1", timeout=40)
        connected.append(time.monotonic() - start)
        wait_for(lambda: channel_locked(board, PLUG_CHANNEL), LOCK_TIMEOUT,
                 f"the daemon to lock channel {ch}", interval=0.2)
        locked.append(time.monotonic() - start)
    log(f"  plug -> connected = true: {summary(connected)} plugs (board polled every 20 ms)")
    log(f"  plug -> locked (ListConfig): {summary(locked)} plugs (polled every 200 ms)")
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
            raise rov.BoardError(f"the daemon did not exit within {timeout} s of SIGTERM")
        return time.monotonic() - start
    finally:
        os.close(fd)


def bench_stop(args):
    log(f"== SIGTERM -> exit, and VmRSS after start-up ({args.stops} runs)")
    times, rss, statuses = [], [], []
    for _ in range(args.stops):
        with rov.Board(args.build, chip="tp2827", cameras=CAMERAS) as board:
            pid = wait_for(board.daemon_pid, 20, "the daemon to start")
            wait_log(board, ACQUIRED, 30)
            # One pass after start-up, then a random point of the 2 s pass
            # cycle: the manager sees the stop when its interrupt wait ends.
            pass_boundary(board, counters(board))
            rss.append(proc_status(pid).get("VmRSS", 0))
            time.sleep(random.uniform(0, 2))
            times.append(daemon_exit_time(pid))
            statuses.append(board.stop())
    # The manager sees the stop when its interrupt wait (2000 ms) ends, then
    # the PTZ thread when its socket poll (1000 ms) ends: at most about 3 s.
    log(f"  SIGTERM -> exit: {summary(times)} runs")
    log(f"  VmRSS after start-up: median {statistics.median(rss):.0f} kB, "
        f"min {min(rss)} kB, max {max(rss)} kB")
    log(f"  exit statuses: {statuses}")
    log()


def find_valgrind_daemon(board):
    """PID of the valgrind process that runs the daemon on the board."""
    table = rov._process_table()
    todo = [board.proc.pid]
    while todo:
        pid = todo.pop()
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                argv = f.read().split(b"\0")
        except OSError:
            argv = []
        if argv and b"valgrind" in argv[0] and board.daemon.encode() in argv:
            return pid
        todo += table.get(pid, [])
    return None


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
    ch = "0"
    try:
        with rov.Board(args.build, chip="tp2827", cameras=[], command=command) as board:
            pid = wait_for(lambda: find_valgrind_daemon(board), 30, "valgrind to start")
            wait_log(board, ACQUIRED, 180)
            board.ctl("plug", ch, "cvbs", "pal")
            board.ctl("wait", "--timeout", "180", "connected", ch, "1", timeout=190)
            wait_log(board, "on channel 0, video type", 180)
            board.ctl("unplug", ch)
            board.ctl("wait", "--timeout", "180", "connected", ch, "0", timeout=190)
            took = daemon_exit_time(pid, timeout=180)
            status = board.stop(timeout=60)
        log(f"  SIGTERM -> exit under valgrind: {ms(took)}; exit status {status}")
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
        # The loss records valgrind listed (definite and possible), shortened.
        records = re.findall(
            r"(==\d+== [\d,]+ .*(?:definitely|possibly) lost in loss record.*\n"
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
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build", default=os.path.join(REPO, "build", "debug"))
    p.add_argument("--passes", type=int, default=6, help="idle passes measured")
    p.add_argument("--plugs", type=int, default=4, help="plug timings")
    p.add_argument("--stops", type=int, default=5, help="SIGTERM timings (one board each)")
    p.add_argument("--valgrind", action="store_true", help="also run the leak check")
    p.add_argument("--valgrind-only", action="store_true", help="run the leak check only")
    args = p.parse_args()
    if os.geteuid() != 0:
        sys.exit("daemon_bench: needs root (the board's mount namespace)")
    log(f"build {os.path.abspath(args.build)}")
    log()
    try:
        if not args.valgrind_only:
            bench_idle_passes(args)
            bench_stop(args)
        if args.valgrind or args.valgrind_only:
            bench_valgrind(args)
    except rov.BoardError as e:
        sys.exit(f"daemon_bench: {e}")


if __name__ == "__main__":
    main()
