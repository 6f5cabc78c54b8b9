#!/usr/bin/python3
"""Figures of vinmand's control service and PTZ relay on a virtual TP2827 board: p50/p99
of SetSaturation and ListConfig round trips next to a bus Ping, idle and while replugged
cameras keep the manager locking; PTZ records per second and I2C transfers per record."""

import os
import random
import socket
import statistics
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import OBJECT, SERVICE, Gio, GLib  # noqa: E402

# Pipelines start in each camera's mode, so a replugged channel is searched again; two
# formats of the mode alternate so that each replug needs a new lock (CVI would relock).
CAMERAS = ["0:tvi:1080p25", "1:ahd:720p30", "2:ahd:1080p30", "3:cvbs:pal"]
CAPTURE_MODES = ["0:1080p", "1:720p", "2:1080p", "3:pal"]
CHURN = [(1, "tvi", "720p30"), (2, "tvi", "1080p30"), (3, "cvbs", "pal"),
         (1, "ahd", "720p30"), (2, "ahd", "1080p30"), (3, "cvbs", "pal")]
LOCKED = "Accepted lock on new video type"
CALLS = {"SetSaturation": SERVICE, "ListConfig": SERVICE, "Ping": "org.freedesktop.DBus.Peer"}


def measure_calls(board, conn, title, min_calls, min_seconds=0):
    """Prints p50 and p99 of the three calls made in rotating order."""
    times, names = {name: [] for name in CALLS}, list(CALLS)
    locks = sum(LOCKED in ln.text for ln in board.all_log_lines())
    start, n = time.monotonic(), 0
    while n < min_calls or time.monotonic() - start < min_seconds:
        for name in names[n % 3:] + names[:n % 3]:
            params = GLib.Variant("(iu)", (n % 4, n % 101)) if name == "SetSaturation" else None
            t0 = time.perf_counter_ns()
            conn.call_sync(SERVICE, OBJECT, CALLS[name], name, params, None,
                           Gio.DBusCallFlags.NONE, 25000, None)
            times[name].append(time.perf_counter_ns() - t0)
        n += 1
    locks = sum(LOCKED in ln.text for ln in board.all_log_lines()) - locks
    p = {k: statistics.quantiles(v, n=100, method="inclusive")[49::49] for k, v in times.items()}
    print(f"  {title}: {n} calls each in {time.monotonic() - start:.1f} s, {locks} locks "
          "accepted meanwhile\n    call              p50 us    p99 us  p50/Ping  p99/Ping")
    for k in CALLS:
        print(f"    {k:<16}{p[k][0] / 1000:>10.0f}{p[k][1] / 1000:>10.0f}"
              f"{p[k][0] / p['Ping'][0]:>10.2f}{p[k][1] / p['Ping'][1]:>10.2f}")


def bench_calls(board, args):
    conn, stop, replugs = bl.connect(board), threading.Event(), []

    def churn():  # unplug, wait for the daemon to see the loss, plug the other camera, hold 3 s
        while not stop.is_set():
            ch, *camera = CHURN[len(replugs) % len(CHURN)]
            board.ctl("unplug", str(ch))
            bl.wait_connected(board, ch, 0, 20)
            board.ctl("plug", str(ch), *camera)
            replugs.append(ch)
            stop.wait(3)

    print("== round trips: SetSaturation sets a chip register, ListConfig lists the channels")
    measure_calls(board, conn, "idle, four cameras locked", args.calls)
    (thread := threading.Thread(target=churn)).start()
    bl.wait_for(lambda: replugs, 40, "the first replug")
    measure_calls(board, conn, "while cameras on channels 1-3 are replugged", args.calls,
                  args.locking_seconds)
    stop.set()
    thread.join(60)


def bench_ptz(board, n):
    print(f"== PTZ: {n} records of 5 bytes, channels 0-3 in turn, in one write")
    rng = random.Random(2827)  # records for channels 0-3 in turn
    records = bytes(b if i % 5 else i // 5 % 4 for i, b in enumerate(rng.randbytes(5 * n)))
    c1, start = bl.counters(board), time.monotonic()
    with socket.socket(socket.AF_UNIX) as s:
        s.connect(board.ptz_socket)
        s.sendall(records)
    want = c1["ptz_transmissions"] + 2 * n  # the chip sends each record twice
    c2 = bl.wait_for(lambda: (c := bl.counters(board))["ptz_transmissions"] >= want and c,
                     60 + n / 10, "every PTZ transmission", interval=0.02)
    took, moved = time.monotonic() - start, bl.delta(c2, c1)
    print(f"  records/s {n / took:.1f} (first byte written to last transmission done)\n"
          f"  I2C transfers per record {moved['transfers'] / n:.1f} (idle passes included): "
          + ", ".join(f"{moved[k] / n:.1f} {k[4:]}" for k in bl.I2C_TRANSFERS)
          + f"\n  garbled transmissions {moved['ptz_garbled']}, failed transfers "
          f"{moved['i2c_failed']}")


def main():
    args = bl.parse_args(__doc__, calls=2000, locking_seconds=30.0, ptz_records=1000)
    print(f"cameras {', '.join(CAMERAS)}; {os.cpu_count()} CPUs, load {os.getloadavg()[0]:.2f}")
    with bl.Board(args.build, cameras=CAMERAS, capture_modes=CAPTURE_MODES) as board:
        bl.start_daemon(board)
        bl.wait_locked(board)
        bench_calls(board, args)
        bl.wait_locked(board)
        bench_ptz(board, args.ptz_records)
        print(f"daemon exit status {board.stop()}; load {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
