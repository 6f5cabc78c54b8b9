#!/usr/bin/python3
"""Figures of the control service and the PTZ relay of vinmand on a virtual TP2827
board (printed, not judged): round trips of SetSaturation and ListConfig next to a
bus Ping, from a client in the board's mount namespace, idle and while cameras on
channels 1 to 3 are replugged so that the manager keeps locking them; PTZ records
per second through the PTZ socket and the I2C transfers per record.

usage: bench/control/control_bench.py [--build DIR] [--calls N] [--locking-seconds S]
                                      [--ptz-records N]

Needs root and a Debug or Release build (sanitizers distort the times)."""

import os
import random
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import CHANNELS, log, wait_for  # noqa: E402

LOCK_TIMEOUT = 120
HOLD = 3  # seconds a replugged camera stays before the next channel's turn
BASELINE = 4  # seconds of idle I2C traffic measured before the PTZ records
# Cameras on a capture pipeline that starts in each one's mode: only such a
# channel is searched again after a replug (a changed mode keeps its lock).
CAMERAS = ["0:tvi:1080p25", "1:ahd:720p30", "2:ahd:1080p30", "3:cvbs:pal"]
CAPTURE_MODES = ["0:1080p", "1:720p", "2:1080p", "3:pal"]
# Two formats of each channel's mode, so a replug needs a new lock. No CVI: such
# a channel falls back to searching right after every lock on this board.
CHURN = {1: [("tvi", "720p30"), ("ahd", "720p30")],
         2: [("tvi", "1080p30"), ("ahd", "1080p30")],
         3: [("cvbs", "pal"), ("cvbs", "pal")]}
MANAGER_LINES = {
    "video loss/detect interrupts": "Got video loss/detect on channel",
    "chip programmed for a format": "Set Video Standard, channel:",
    "locks accepted": "Accepted lock on new video type",
}
CALLS = ("SetSaturation", "ListConfig", "Ping")

# {"cmd": "calls", "min_calls": N, "min_seconds": S}: the three calls in rotating
# order, answering round trips (ns) and errors; {"cmd": "ptz", "data": HEX}.
CLIENT = r'''
import json, socket, sys, time
import gi
gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib

SERVICE, OBJECT = "com.korvi.Encoder", "/com/korvi/Encoder"
conn = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
owner = conn.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "GetNameOwner", GLib.Variant("(s)", (SERVICE,)), None,
                       Gio.DBusCallFlags.NONE, 5000, None).unpack()[0]


def answer(obj):
    print(json.dumps(obj), flush=True)


def timed(times, errors, name, dest, iface, method, params, reply=None):
    t0 = time.perf_counter_ns()
    try:
        conn.call_sync(dest, OBJECT, iface, method, params,
                       reply and GLib.VariantType.new(reply), Gio.DBusCallFlags.NONE, 25000, None)
        times[name].append(time.perf_counter_ns() - t0)
    except GLib.Error as e:
        key = f"{name}: {Gio.DBusError.get_remote_error(e) or e.message}"
        errors[key] = errors.get(key, 0) + 1


answer({"owner": owner})
for line in sys.stdin:
    cmd = json.loads(line)
    if cmd["cmd"] == "calls":
        times, errors = {"SetSaturation": [], "ListConfig": [], "Ping": []}, {}
        start, n = time.monotonic(), 0
        while n < cmd["min_calls"] or time.monotonic() - start < cmd["min_seconds"]:
            calls = [("SetSaturation", SERVICE, SERVICE, "SetSaturation",
                      GLib.Variant("(iu)", (n % 4, n % 101))),
                     ("ListConfig", SERVICE, SERVICE, "ListConfig", None, "(a(uuuuuiissbb))"),
                     ("Ping", owner, "org.freedesktop.DBus.Peer", "Ping", None)]
            for call in calls[n % 3:] + calls[:n % 3]:
                timed(times, errors, *call)
            n += 1
        answer({"times": times, "errors": errors, "seconds": time.monotonic() - start})
    elif cmd["cmd"] == "ptz":
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect("/run/vidhostd/coax.socket")
        t0 = time.monotonic()
        s.sendall(bytes.fromhex(cmd["data"]))
        took = time.monotonic() - t0
        s.close()
        answer({"write_seconds": took})
'''


def manager_lines(board):
    texts = [line.text for line in board.all_log_lines()]
    return {label: sum(needle in t for t in texts) for label, needle in MANAGER_LINES.items()}


def manager_work(before, after):
    return ", ".join(f"{after[k] - before[k]} {k}" for k in MANAGER_LINES)


def report_calls(title, result, extra=""):
    times = result["times"]
    ping50, ping99 = bl.percentiles(times["Ping"])
    log(f"  {title}: {sum(len(v) for v in times.values())} calls in "
        f"{result['seconds']:.1f} s{extra}")
    log(f"    {'call':<16}{'calls':>7}{'p50 us':>10}{'p99 us':>10}{'p50/Ping':>10}{'p99/Ping':>10}")
    for name in CALLS:
        p50, p99 = bl.percentiles(times[name])
        log(f"    {name:<16}{len(times[name]):>7}{p50 / 1000:>10.0f}{p99 / 1000:>10.0f}"
            f"{p50 / ping50:>10.2f}{p99 / ping99:>10.2f}")
    for key, n in sorted(result["errors"].items()):
        log(f"    error replies {key}: {n}")
    return {name: bl.percentiles(v) for name, v in times.items()}


class Churn(threading.Thread):
    """Unplugs a camera, waits until the daemon has seen the loss, plugs the
    channel's other camera and holds it before the next channel, until stopped."""

    def __init__(self, board):
        super().__init__(daemon=True)
        self.board = board
        self.stop_flag, self.first_loss = threading.Event(), threading.Event()
        self.replugs, self.error = 0, None

    def run(self):
        turn = 0
        try:
            while not self.stop_flag.is_set():
                for ch, cams in CHURN.items():
                    if self.stop_flag.is_set():
                        break
                    self.board.ctl("unplug", str(ch))
                    self.board.ctl("wait", "--timeout", "20", "connected", str(ch), "0",
                                   timeout=30)
                    self.first_loss.set()
                    self.board.ctl("plug", str(ch), *cams[turn % 2])
                    self.replugs += 1
                    self.stop_flag.wait(HOLD)
                turn += 1
        except (bl.BoardError, subprocess.TimeoutExpired) as e:
            self.error = e
            self.first_loss.set()


def bench_calls(board, client, args):
    log("== control calls: round trip of one call as the client sees it; SetSaturation\n"
        "   sets a chip register, ListConfig lists the four channels, Ping (Peer.Ping to\n"
        f"   {client.hello['owner']}) is the bus's own cost. p50/p99 in microseconds.")
    lines0 = manager_lines(board)
    idle = client.request(cmd="calls", min_calls=args.calls, min_seconds=0)
    lines1 = manager_lines(board)
    idle_p = report_calls("idle, four cameras locked", idle)
    log("    the manager meanwhile: " + manager_work(lines0, lines1))
    log()

    lines0 = manager_lines(board)
    churn = Churn(board)
    churn.start()
    churn.first_loss.wait(40)
    locking = client.request(cmd="calls", min_calls=args.calls, min_seconds=args.locking_seconds)
    churn.stop_flag.set()
    churn.join(60)
    if churn.error:
        raise bl.BoardError(f"replugging cameras: {churn.error}")
    lines1 = manager_lines(board)
    busy_p = report_calls("while the manager locks cameras", locking,
                          f", {churn.replugs} cameras replugged on channels 1-3")
    log("    the manager meanwhile: " + manager_work(lines0, lines1))
    log("    locking / idle:   " + ", ".join(
        f"{name} p50 x{busy_p[name][0] / idle_p[name][0]:.2f} "
        f"p99 x{busy_p[name][1] / idle_p[name][1]:.2f}" for name in CALLS))
    log()


def ptz_received(board, ch):
    text = board.ctl("get", "ptz", str(ch)).strip()
    return [] if text in ("", "-") else text.split(",")


def bench_ptz(board, client, args):
    log(f"== PTZ records through the socket ({args.ptz_records} records of 5 bytes, "
        "channels 0-3 in turn, one write)")
    rng = random.Random(2827)
    records = [bytes([i % CHANNELS] + [rng.randrange(256) for _ in range(4)])
               for i in range(args.ptz_records)]
    n = len(records)
    before = {ch: ptz_received(board, ch) for ch in range(CHANNELS)}

    # The manager's own traffic, to tell it apart from the PTZ records.
    c_idle0, t_idle0 = bl.counters(board), time.monotonic()
    time.sleep(BASELINE)
    c_idle1, t_idle1 = bl.counters(board), time.monotonic()
    idle_rate = (bl.transfers(c_idle1) - bl.transfers(c_idle0)) / (t_idle1 - t_idle0)

    c0 = bl.counters(board)
    want = c0["ptz_transmissions"] + 2 * n
    start = time.monotonic()
    written = client.request(cmd="ptz", data=b"".join(records).hex())
    c1 = wait_for(lambda: (c := bl.counters(board))["ptz_transmissions"] >= want and c,
                  60 + n / 10, "the chip to complete every PTZ transmission", interval=0.02)
    took = time.monotonic() - start

    intact = 0
    for ch in range(CHANNELS):
        got = ptz_received(board, ch)[len(before[ch]):]
        sent = [r.hex() for r in records if r[0] == ch for _ in range(2)]
        intact += sum(a == b for a, b in zip(got, sent))
    moved = bl.delta(c1, c0)
    total = bl.transfers(moved)
    triggers = moved.get("ptz_transmissions", 0)
    polls = bl.register_accesses(moved).get("reads 0xb6", 0)

    def row(label, value, meaning):
        log(f"  {label:<40}{value:>8}   {meaning}")

    row("records/s", f"{n / took:.1f}",
        f"{n} records from the first byte written to the last transmission completed on "
        f"the chip: {took:.2f} s (the client's write took {written['write_seconds']:.2f} s)")
    row("I2C transfers per record", f"{total / n:.1f}",
        "every transfer on the bus during the run, the manager's passes included")
    row("  without the manager's share", f"{(total - idle_rate * took) / n:.1f}",
        f"its idle rate, {idle_rate:.1f} transfers/s, taken off")
    for key, label in (("i2c_register_writes", "register writes"),
                       ("i2c_pointer_writes", "register pointer writes (one a read)"),
                       ("i2c_reads", "reads"), ("i2c_address_sets", "slave address sets")):
        row("  " + label, f"{moved.get(key, 0) / n:.1f}", "per record")
    row("completion polls per transmission", f"{polls / max(triggers, 1):.2f}",
        "reads of 0xB6; above 1, the daemon slept 2 ms waiting for the chip")
    row("transmissions on the chip", f"{triggers}",
        f"2 per record; garbled {moved.get('ptz_garbled', 0)}, failed I2C transfers "
        f"{moved.get('i2c_failed', 0)}")
    row("transmissions received intact", f"{intact}",
        f"of {2 * n}: what the cameras decoded equals what was written, in order")
    log()


def main():
    p = bl.parser("control_bench", __doc__)
    p.add_argument("--calls", type=int, default=2000, help="minimum calls of each kind a phase")
    p.add_argument("--locking-seconds", type=float, default=30, help="minimum locking phase")
    p.add_argument("--ptz-records", type=int, default=1000)
    args = p.parse_args()
    bl.need_root("control_bench")
    log(f"build {os.path.abspath(args.build)}; TP2827 board, cameras {', '.join(CAMERAS)}, "
        f"capture modes {', '.join(CAPTURE_MODES)}")
    log(f"machine: {os.cpu_count()} CPUs, load average {bl.load_average()} at the start "
        "(other work on the machine moves every time below)")
    log()
    try:
        with bl.Board(args.build, chip="tp2827", cameras=CAMERAS,
                      capture_modes=CAPTURE_MODES) as board:
            bl.start_daemon(board)
            wait_for(lambda: bl.daemon_locked(board), LOCK_TIMEOUT, "every channel to lock",
                     interval=0.5)
            client = bl.NamespaceClient(board, CLIENT)
            try:
                bench_calls(board, client, args)
                wait_for(lambda: bl.daemon_locked(board), LOCK_TIMEOUT,
                         "every channel to lock again", interval=0.5)
                bench_ptz(board, client, args)
            finally:
                client.close()
            log(f"daemon exit status after SIGTERM: {board.stop()}; load average "
                f"{bl.load_average()} at the end")
    except bl.BoardError as e:
        sys.exit(f"control_bench: {e}")


if __name__ == "__main__":
    main()
