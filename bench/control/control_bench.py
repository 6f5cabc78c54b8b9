#!/usr/bin/python3
"""Figures of the control service and the PTZ relay of vinmand on a virtual
TP2827 board, all against one daemon in one run (printed, not judged):

1. round-trip time of an image control call (SetSaturation) and of the
   configuration listing (ListConfig), p50 and p99, next to
   org.freedesktop.DBus.Peer.Ping to the daemon's unique name, with the
   ratios to Ping; the three calls are interleaved, at least --calls of each,
   from one client with a persistent system-bus connection (Gio) running in
   the board's mount namespace, so it reaches the daemon exactly as a client
   on the encoder does;
   a) idle: every camera locked, the manager thread only polls the status;
   b) locking: the same while cameras are unplugged and plugged with another
      format on channels 1 to 3 over and over, so that the manager thread
      keeps detecting and locking them (the chip work of a lock holds the
      decoder mutex that the image controls also need);
2. PTZ records per second through /run/vidhostd/coax.socket until the chip
   has completed every transmission, and the I2C transfers per record from
   the board's counters.

usage: bench/control/control_bench.py [--build DIR] [--calls N] [--locking-seconds S]
                                      [--ptz-records N]

Use a Debug or Release build (default build/debug); sanitizer builds distort
the times. Needs root (the board's mount namespace, nsenter).
"""

import argparse
import importlib.machinery
import json
import os
import random
import statistics
import subprocess
import sys
import threading
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
CHANNELS = 4
ACQUIRED = "Acquired 'com.korvi.Encoder' on D-Bus message bus."
LOCK_TIMEOUT = 120

# Four cameras that lock without coupling channels, on a capture pipeline
# that starts in the mode each of them needs. A channel whose capture mode the
# daemon had to change keeps its lock through a video loss, so only channels
# whose mode already fits are searched again after a replug.
CAMERAS = ["0:tvi:1080p25", "1:ahd:720p30", "2:ahd:1080p30", "3:cvbs:pal"]
CAPTURE_MODES = ["0:1080p", "1:720p", "2:1080p", "3:pal"]
# While locking: each of these channels alternates between two formats of its
# capture mode, so a replugged camera needs a new detection and a new
# programming of the chip (PAL is the only format of its mode). CVI cameras
# are left out: on this board a CVI 1080p25, 1080p30 or 720p25 channel whose
# loss is acted on falls back to searching right after every lock, so the
# manager would never be idle.
CHURN = {1: [("tvi", "720p30"), ("ahd", "720p30")],
         2: [("tvi", "1080p30"), ("ahd", "1080p30")],
         3: [("cvbs", "pal"), ("cvbs", "pal")]}

# Log lines that show the manager at work.
MANAGER_LINES = {
    "video loss/detect interrupts": "Got video loss/detect on channel",
    "chip programmed for a format": "Set Video Standard, channel:",
    "locks accepted": "Accepted lock on new video type",
}

I2C_TRANSFERS = ("i2c_pointer_writes", "i2c_reads", "i2c_register_writes", "i2c_address_sets")

# The client, run by python3 inside the board's mount namespace. It reads one
# JSON command a line from stdin and answers each with one JSON line.
#   {"cmd": "calls", "min_calls": N, "min_seconds": S}
#       SetSaturation, ListConfig and Peer.Ping interleaved (the order rotates
#       every round) until each was made N times and S seconds have passed;
#       answers the round-trip times in nanoseconds per call and the errors.
#   {"cmd": "ptz", "data": HEX}
#       one connection to the PTZ socket, all records written at once;
#       answers the time the writing took.
#   {"cmd": "quit"}
CLIENT = r'''
import json, os, socket, sys, time
import gi
gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib

SERVICE = "com.korvi.Encoder"
OBJECT = "/com/korvi/Encoder"
conn = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
owner = conn.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "GetNameOwner", GLib.Variant("(s)", (SERVICE,)),
                       GLib.VariantType.new("(s)"), Gio.DBusCallFlags.NONE, 5000,
                       None).unpack()[0]


def answer(obj):
    sys.stdout.write(json.dumps(obj) + "\n")
    sys.stdout.flush()


answer({"owner": owner})
clock = time.perf_counter_ns
for line in sys.stdin:
    cmd = json.loads(line)
    if cmd["cmd"] == "quit":
        break
    if cmd["cmd"] == "calls":
        times = {"SetSaturation": [], "ListConfig": [], "Ping": []}
        errors = {}
        value = 0

        def timed(name, dest, iface, method, params, reply):
            t0 = clock()
            try:
                conn.call_sync(dest, OBJECT, iface, method, params, reply,
                               Gio.DBusCallFlags.NONE, 25000, None)
            except GLib.Error as e:
                key = f"{name}: {Gio.DBusError.get_remote_error(e) or e.message}"
                errors[key] = errors.get(key, 0) + 1
                return
            times[name].append(clock() - t0)

        def set_saturation():
            timed("SetSaturation", SERVICE, SERVICE, "SetSaturation",
                  GLib.Variant("(iu)", (value % 4, value % 101)), None)

        def list_config():
            timed("ListConfig", SERVICE, SERVICE, "ListConfig", None,
                  GLib.VariantType.new("(a(uuuuuiissbb))"))

        def ping():
            timed("Ping", owner, "org.freedesktop.DBus.Peer", "Ping", None, None)

        round_ = [set_saturation, list_config, ping]
        start = time.monotonic()
        n = 0
        while n < cmd["min_calls"] or time.monotonic() - start < cmd["min_seconds"]:
            k = n % 3
            for call in round_[k:] + round_[:k]:
                call()
            value += 1
            n += 1
        answer({"times": times, "errors": errors, "seconds": time.monotonic() - start})
    elif cmd["cmd"] == "ptz":
        data = bytes.fromhex(cmd["data"])
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect("/run/vidhostd/coax.socket")
        t0 = time.monotonic()
        s.sendall(data)
        took = time.monotonic() - t0
        s.close()
        answer({"write_seconds": took})
'''


def log(text=""):
    print(text, flush=True)


def wait_for(condition, timeout, what, interval=0.05):
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise rov.BoardError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(interval)


def counters(board):
    out = {}
    for line in board.ctl("counters").splitlines():
        name, _, value = line.rpartition(" ")
        if name:
            out[name] = int(value)
    return out


def transfers(c):
    return sum(c.get(k, 0) for k in I2C_TRANSFERS)


def manager_lines(board):
    texts = [line.text for line in board.all_log_lines()]
    return {label: sum(1 for t in texts if needle in t) for label, needle in MANAGER_LINES.items()}


def manager_work(before, after):
    return ", ".join(f"{after[k] - before[k]} {k}" for k in MANAGER_LINES)


def daemon_locked(board):
    """True once ListConfig shows a format on every channel."""
    try:
        reply = board.busctl_json("call", SERVICE, OBJECT, SERVICE, "ListConfig")
    except rov.BoardError:
        return False
    rows = reply["data"][0]
    return len(rows) == CHANNELS and all(row[7] not in ("none", "disabled") for row in rows)


class Client:
    """The measuring client in the board's mount namespace."""

    def __init__(self, board):
        env = dict(os.environ)
        env.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
        self.proc = subprocess.Popen(
            ["nsenter", "--target", str(board.daemon_pid()), "--mount", "--", "/usr/bin/python3",
             "-c", CLIENT], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=env)
        self.owner = self._answer()["owner"]

    def _answer(self):
        line = self.proc.stdout.readline()
        if not line:
            raise rov.BoardError(f"the client ended (status {self.proc.wait()})")
        return json.loads(line)

    def request(self, **cmd):
        self.proc.stdin.write(json.dumps(cmd) + "\n")
        self.proc.stdin.flush()
        return self._answer()

    def close(self):
        if self.proc.poll() is None:
            try:
                self.proc.stdin.write('{"cmd": "quit"}\n')
                self.proc.stdin.close()
                self.proc.wait(10)
            except (OSError, subprocess.TimeoutExpired):
                self.proc.kill()
                self.proc.wait()


def percentiles(values):
    q = statistics.quantiles(values, n=100, method="inclusive")
    return q[49], q[98]


def report_calls(title, result, extra=""):
    times = result["times"]
    ping50, ping99 = percentiles(times["Ping"])
    total = sum(len(v) for v in times.values())
    log(f"  {title}: {total} calls in {result['seconds']:.1f} s{extra}")
    log(f"    {'call':<16}{'calls':>7}{'p50 us':>10}{'p99 us':>10}{'p50/Ping':>10}{'p99/Ping':>10}")
    for name in ("SetSaturation", "ListConfig", "Ping"):
        p50, p99 = percentiles(times[name])
        log(f"    {name:<16}{len(times[name]):>7}{p50 / 1000:>10.0f}{p99 / 1000:>10.0f}"
            f"{p50 / ping50:>10.2f}{p99 / ping99:>10.2f}")
    for key, n in sorted(result["errors"].items()):
        log(f"    error replies {key}: {n}")
    return {name: percentiles(v) for name, v in times.items()}


class Churn(threading.Thread):
    """Unplugs a camera, waits until the daemon has seen the loss, plugs the
    channel's other camera, holds it for `hold` seconds and moves on to the
    next channel, until stopped; every channel ends with a camera plugged."""

    def __init__(self, board, hold):
        super().__init__(daemon=True)
        self.board = board
        self.hold = hold
        self.stop_flag = threading.Event()
        self.first_loss = threading.Event()
        self.replugs = 0
        self.error = None

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
                    self.stop_flag.wait(self.hold)
                turn += 1
        except (rov.BoardError, subprocess.TimeoutExpired) as e:
            self.error = e
            self.first_loss.set()


def bench_calls(board, client, args):
    log("== control calls: round trip of one call as the client sees it")
    log("   SetSaturation: an image control, set down to the chip's register;")
    log("   ListConfig: the configuration of the four channels;")
    log("   Ping: org.freedesktop.DBus.Peer.Ping to the daemon's unique name "
        f"({client.owner}),")
    log("         answered by the daemon's bus connection without a method handler: the")
    log("         cost of the bus itself. p50 = median, p99 = 99th percentile, in")
    log("         microseconds; the ratios are to Ping's p50 and p99.")
    lines0 = manager_lines(board)
    idle = client.request(cmd="calls", min_calls=args.calls, min_seconds=0)
    lines1 = manager_lines(board)
    idle_p = report_calls("idle, four cameras locked", idle)
    log("    the manager meanwhile: " + manager_work(lines0, lines1))
    log()

    lines0 = manager_lines(board)
    churn = Churn(board, args.hold)
    churn.start()
    churn.first_loss.wait(40)
    locking = client.request(cmd="calls", min_calls=args.calls,
                             min_seconds=args.locking_seconds)
    churn.stop_flag.set()
    churn.join(60)
    if churn.error:
        raise rov.BoardError(f"replugging cameras: {churn.error}")
    lines1 = manager_lines(board)
    busy_p = report_calls("while the manager locks cameras", locking,
                          f", {churn.replugs} cameras replugged on channels 1-3")
    log("    the manager meanwhile: " + manager_work(lines0, lines1))
    log("    locking / idle:   " + ", ".join(
        f"{name} p50 x{busy_p[name][0] / idle_p[name][0]:.2f} "
        f"p99 x{busy_p[name][1] / idle_p[name][1]:.2f}" for name in ("SetSaturation",
                                                                     "ListConfig", "Ping")))
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
    before = {ch: ptz_received(board, ch) for ch in range(CHANNELS)}

    # What the manager's idle passes cost on the bus, to tell it apart from
    # the PTZ traffic measured below.
    c_idle0, t_idle0 = counters(board), time.monotonic()
    time.sleep(args.baseline_seconds)
    c_idle1, t_idle1 = counters(board), time.monotonic()
    idle_rate = (transfers(c_idle1) - transfers(c_idle0)) / (t_idle1 - t_idle0)

    c0 = counters(board)
    want = c0["ptz_transmissions"] + 2 * len(records)
    start = time.monotonic()
    written = client.request(cmd="ptz", data=b"".join(records).hex())
    c1 = wait_for(lambda: (c := counters(board))["ptz_transmissions"] >= want and c,
                  60 + len(records) / 10, "the chip to complete every PTZ transmission",
                  interval=0.02)
    took = time.monotonic() - start
    n = len(records)

    intact = 0
    for ch in range(CHANNELS):
        got = ptz_received(board, ch)[len(before[ch]):]
        sent = [r.hex() for r in records if r[0] == ch for _ in range(2)]
        intact += sum(1 for a, b in zip(got, sent) if a == b)
    moved = {k: c1.get(k, 0) - c0.get(k, 0) for k in c1}
    total = transfers(c1) - transfers(c0)
    manager_share = idle_rate * took
    regs = {}
    for name, value in moved.items():
        parts = name.split()
        if len(parts) == 3 and parts[0] in ("reg_reads", "reg_writes") and value:
            regs[(parts[0], parts[2])] = regs.get((parts[0], parts[2]), 0) + value
    triggers = moved["ptz_transmissions"]
    polls = regs.get(("reg_reads", "0xb6"), 0)

    def row(label, value, meaning=""):
        log(f"  {label:<40}{value:>8}   {meaning}".rstrip())

    row("records/s", f"{n / took:.1f}",
        f"{n} records from the first byte written to the last transmission completed on "
        f"the chip: {took:.2f} s (the client's write took {written['write_seconds']:.2f} s)")
    row("I2C transfers per record", f"{total / n:.1f}",
        "every transfer on the bus during the run, the manager's passes included")
    row("  without the manager's share", f"{(total - manager_share) / n:.1f}",
        f"its idle rate, {idle_rate:.1f} transfers/s, taken off")
    for key, label in (("i2c_register_writes", "register writes"),
                       ("i2c_pointer_writes", "register pointer writes (one a read)"),
                       ("i2c_reads", "reads"),
                       ("i2c_address_sets", "slave address sets")):
        row("  " + label, f"{moved.get(key, 0) / n:.1f}", "per record")
    row("completion polls per transmission", f"{polls / max(triggers, 1):.2f}",
        "reads of 0xB6; above 1, the daemon slept 2 ms waiting for the chip")
    row("transmissions on the chip", f"{triggers}",
        f"2 per record; garbled {moved.get('ptz_garbled', 0)}, failed I2C transfers "
        f"{moved.get('i2c_failed', 0)}")
    row("transmissions received intact", f"{intact}",
        f"of {2 * n}: what the cameras decoded equals what was written, in order")
    log()


def load_average():
    return " ".join(f"{x:.2f}" for x in os.getloadavg())


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build", default=os.path.join(REPO, "build", "debug"))
    p.add_argument("--calls", type=int, default=2000, help="minimum calls of each kind a phase")
    p.add_argument("--locking-seconds", type=float, default=30,
                   help="minimum length of the locking phase")
    p.add_argument("--hold", type=float, default=3,
                   help="seconds a replugged camera is left before the next channel's turn")
    p.add_argument("--ptz-records", type=int, default=1000)
    p.add_argument("--baseline-seconds", type=float, default=4,
                   help="idle time measured for the manager's own I2C traffic")
    args = p.parse_args()
    if os.geteuid() != 0:
        sys.exit("control_bench: needs root (the board's mount namespace)")
    log(f"build {os.path.abspath(args.build)}; TP2827 board, cameras {', '.join(CAMERAS)}, "
        f"capture modes {', '.join(CAPTURE_MODES)}")
    log(f"machine: {os.cpu_count()} CPUs, load average {load_average()} at the start "
        "(other work on the machine moves every time below)")
    log()
    try:
        with rov.Board(args.build, chip="tp2827", cameras=CAMERAS,
                       capture_modes=CAPTURE_MODES) as board:
            wait_for(board.daemon_pid, 20, "the daemon to start")
            wait_for(lambda: any(ACQUIRED in line.text for line in board.all_log_lines()), 30,
                     "the bus name")
            wait_for(lambda: daemon_locked(board), LOCK_TIMEOUT, "every channel to lock",
                     interval=0.5)
            client = Client(board)
            try:
                bench_calls(board, client, args)
                wait_for(lambda: daemon_locked(board), LOCK_TIMEOUT,
                         "every channel to lock again", interval=0.5)
                bench_ptz(board, client, args)
            finally:
                client.close()
            status = board.stop()
            log(f"daemon exit status after SIGTERM: {status}; load average {load_average()} "
                "at the end")
    except rov.BoardError as e:
        sys.exit(f"control_bench: {e}")


if __name__ == "__main__":
    main()
