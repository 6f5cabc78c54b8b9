#!/usr/bin/python3
"""Figures of the control service and the PTZ relay of vinmand on a virtual TP2827
board (printed, not judged): round trips of SetSaturation and ListConfig next to a
bus Ping, idle and while cameras on channels 1 to 3 are replugged so that the
manager keeps locking them; PTZ records per second through the PTZ socket and the
I2C transfers per record. Needs root and a Debug or Release build."""

import itertools
import os
import random
import socket
import statistics
import subprocess
import sys
import threading
import time

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import CHANNELS, OBJECT, SERVICE, wait_for  # noqa: E402

HOLD = 3  # seconds a replugged camera stays before the next channel's turn
# Cameras on a capture pipeline that starts in each one's mode: only such a
# channel is searched again after a replug (a changed mode keeps its lock).
CAMERAS = ["0:tvi:1080p25", "1:ahd:720p30", "2:ahd:1080p30", "3:cvbs:pal"]
CAPTURE_MODES = ["0:1080p", "1:720p", "2:1080p", "3:pal"]
# Two formats of each channel's mode, so a replug needs a new lock. No CVI: such
# a channel falls back to searching right after every lock on this board.
CHURN = {1: [("tvi", "720p30"), ("ahd", "720p30")],
         2: [("tvi", "1080p30"), ("ahd", "1080p30")],
         3: [("cvbs", "pal"), ("cvbs", "pal")]}
LOCKED = "Accepted lock on new video type"
CALLS = ("SetSaturation", "ListConfig", "Ping")


def round_trips(conn, owner, min_calls, min_seconds):
    """The three calls in rotating order: {call: [ns]}, error replies, seconds."""
    times, errors = {name: [] for name in CALLS}, {}
    start, n = time.monotonic(), 0
    while n < min_calls or time.monotonic() - start < min_seconds:
        calls = [("SetSaturation", SERVICE, SERVICE, GLib.Variant("(iu)", (n % 4, n % 101))),
                 ("ListConfig", SERVICE, SERVICE, None),
                 ("Ping", owner, "org.freedesktop.DBus.Peer", None)]
        for name, dest, iface, params in calls[n % 3:] + calls[:n % 3]:
            t0 = time.perf_counter_ns()
            try:
                conn.call_sync(dest, OBJECT, iface, name, params, None,
                               Gio.DBusCallFlags.NONE, 25000, None)
                times[name].append(time.perf_counter_ns() - t0)
            except GLib.Error as e:
                key = f"{name}: {Gio.DBusError.get_remote_error(e) or e.message}"
                errors[key] = errors.get(key, 0) + 1
        n += 1
    return times, errors, time.monotonic() - start


def measure_calls(board, conn, owner, title, min_calls, min_seconds=0):
    locks = sum(LOCKED in line.text for line in board.all_log_lines())
    times, errors, seconds = round_trips(conn, owner, min_calls, min_seconds)
    locks = sum(LOCKED in line.text for line in board.all_log_lines()) - locks
    p = {name: statistics.quantiles(v, n=100, method="inclusive") for name, v in times.items()}
    p = {name: (q[49], q[98]) for name, q in p.items()}
    print(f"  {title}: {sum(map(len, times.values()))} calls in {seconds:.1f} s, "
          f"the manager accepted {locks} locks meanwhile")
    print("    call                calls    p50 us    p99 us  p50/Ping  p99/Ping")
    for name in CALLS:
        print(f"    {name:<16}{len(times[name]):>7}{p[name][0] / 1000:>10.0f}"
              f"{p[name][1] / 1000:>10.0f}{p[name][0] / p['Ping'][0]:>10.2f}"
              f"{p[name][1] / p['Ping'][1]:>10.2f}")
    for key, n in sorted(errors.items()):
        print(f"    error replies {key}: {n}")
    return p


def churn(board, stop, first_loss, replugs, errors):
    """Unplugs a camera, waits until the daemon has seen the loss, plugs the
    channel's other camera and holds it before the next channel, until stopped."""
    try:
        for turn in itertools.count():
            for ch, cams in CHURN.items():
                if stop.is_set():
                    return
                board.ctl("unplug", str(ch))
                bl.wait_connected(board, ch, 0, 20)
                first_loss.set()
                board.ctl("plug", str(ch), *cams[turn % 2])
                replugs.append(ch)
                stop.wait(HOLD)
    except (bl.BoardError, subprocess.TimeoutExpired) as e:
        errors.append(e)
        first_loss.set()


def bench_calls(board, args):
    conn = Gio.DBusConnection.new_for_address_sync(
        board.bus_address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
    owner = conn.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetNameOwner", GLib.Variant("(s)", (SERVICE,)),
                           None, Gio.DBusCallFlags.NONE, 5000, None).unpack()[0]
    print("== control calls: round trip of one call as the client sees it; SetSaturation\n"
          "   sets a chip register, ListConfig lists the four channels, Ping (Peer.Ping to\n"
          f"   {owner}) is the bus's own cost. p50/p99 in microseconds.")
    idle = measure_calls(board, conn, owner, "idle, four cameras locked", args.calls)
    stop, first_loss, replugs, errors = threading.Event(), threading.Event(), [], []
    thread = threading.Thread(target=churn, args=(board, stop, first_loss, replugs, errors))
    thread.start()
    first_loss.wait(40)
    busy = measure_calls(board, conn, owner, "while cameras on channels 1-3 are replugged",
                         args.calls, args.locking_seconds)
    stop.set()
    thread.join(60)
    conn.close_sync(None)
    if errors:
        raise bl.BoardError(f"replugging cameras: {errors[0]}")
    print(f"    {len(replugs)} cameras replugged; locking / idle: " + ", ".join(
        f"{name} p50 x{busy[name][0] / idle[name][0]:.2f} "
        f"p99 x{busy[name][1] / idle[name][1]:.2f}" for name in CALLS))


def ptz_received(board, ch):
    text = board.ctl("get", "ptz", str(ch)).strip()
    return [] if text in ("", "-") else text.split(",")


def bench_ptz(board, n):
    print(f"== PTZ records through the socket ({n} records of 5 bytes, channels 0-3 in turn, "
          "one write)")
    rng = random.Random(2827)
    records = [bytes([i % CHANNELS] + [rng.randrange(256) for _ in range(4)]) for i in range(n)]
    before = {ch: ptz_received(board, ch) for ch in range(CHANNELS)}
    c1, start = bl.counters(board), time.monotonic()
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(board.ptz_socket)
        s.sendall(b"".join(records))
    write = time.monotonic() - start
    want = c1["ptz_transmissions"] + 2 * n
    c2 = wait_for(lambda: (c := bl.counters(board))["ptz_transmissions"] >= want and c,
                  60 + n / 10, "the chip to complete every PTZ transmission", interval=0.02)
    took = time.monotonic() - start

    intact = sum(a == b for ch in range(CHANNELS) for a, b in zip(
        ptz_received(board, ch)[len(before[ch]):],
        [r.hex() for r in records if r[0] == ch for _ in range(2)]))
    moved = bl.delta(c2, c1)
    total, triggers = bl.transfers(moved), moved.get("ptz_transmissions", 0)
    print(f"  records/s {n / took:.1f} ({took:.2f} s from the first byte written to the last "
          f"transmission completed on the chip; the write took {write:.2f} s)")
    print(f"  I2C transfers per record {total / n:.1f} (the manager's idle passes included): "
          + ", ".join(f"{moved.get(k, 0) / n:.1f} {k[4:]}" for k in bl.I2C_TRANSFERS))
    print(f"  completion polls (reads of 0xB6) per transmission "
          f"{bl.register_accesses(moved)['reads 0xb6'] / max(triggers, 1):.2f}")
    print(f"  transmissions on the chip {triggers} (2 per record), received intact and in "
          f"order {intact}; garbled {moved.get('ptz_garbled', 0)}, failed I2C transfers "
          f"{moved.get('i2c_failed', 0)}")


def main():
    args = bl.parse_args(__doc__, calls=2000, locking_seconds=30.0, ptz_records=1000)
    print(f"TP2827 board, cameras {', '.join(CAMERAS)}, capture modes {', '.join(CAPTURE_MODES)}"
          f"; {os.cpu_count()} CPUs, load average {os.getloadavg()[0]:.2f} at the start")
    try:
        with bl.Board(args.build, chip="tp2827", cameras=CAMERAS,
                      capture_modes=CAPTURE_MODES) as board:
            bl.start_daemon(board)
            bl.wait_locked(board)
            bench_calls(board, args)
            bl.wait_locked(board, "every channel to lock again")
            bench_ptz(board, args.ptz_records)
            print(f"daemon exit status after SIGTERM: {board.stop()}; load average "
                  f"{os.getloadavg()[0]:.2f} at the end")
    except bl.BoardError as e:
        sys.exit(f"control_bench: {e}")


if __name__ == "__main__":
    main()
