"""What the benches on the virtual board share (from the sources or BUILD/bench/): the
Board of scripts/run-on-vboard, the board's counters, bus clients, /proc figures."""

import argparse
import collections
import os
import re
import runpy
import statistics
import sys
import time

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402,F401

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))  # holds bench/
sys.stdout.reconfigure(line_buffering=True)


# In a build tree HERE is the build directory and its cache names the sources.
REPO = HERE
if os.path.exists(cache := os.path.join(HERE, "CMakeCache.txt")):
    REPO = re.search(r"^CMAKE_HOME_DIRECTORY:\w+=(.*)$", open(cache).read(), re.M)[1]
_rov = runpy.run_path(os.path.join(REPO, "scripts", "run-on-vboard"))
Board, BoardError, SERVICE, OBJECT = map(_rov.get, ("Board", "BoardError", "SERVICE", "OBJECT"))
CHANNELS = 4
I2C_TRANSFERS = ("i2c_pointer_writes", "i2c_reads", "i2c_register_writes", "i2c_address_sets")


def parse_args(doc, argv=None, **options):
    """--build and OPTIONS (name=default, typed by the default); needs root."""
    p = argparse.ArgumentParser(description=doc)
    p.add_argument("--build", default=HERE if REPO != HERE else f"{REPO}/build/debug")
    for name, default in options.items():
        kind = {"action": "store_true"} if default is False else {"type": type(default)}
        p.add_argument("--" + name.replace("_", "-"), default=default, **kind)
    args = p.parse_args(argv)
    if os.geteuid() != 0:
        sys.exit(f"{p.prog}: needs root (the board's mount namespace)")
    return args


def summary(values):
    ms = [f"{v * 1000:.0f} ms" for v in (statistics.median(values), min(values), max(values))]
    return f"median {ms[0]}, min {ms[1]}, max {ms[2]} over {len(values)}"


def wait_for(condition, timeout, what, interval=0.05):
    deadline = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise BoardError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(interval)
    return value


def start_daemon(board, timeout=30):
    """Waits for the daemon to hold its bus name; returns its PID."""
    pid = wait_for(board.daemon_pid, 20, "the daemon to start")
    wait_for(lambda: any(f"Acquired '{SERVICE}' on D-Bus message bus." in ln.text for ln in
                         board.all_log_lines()), timeout, "the daemon to own its bus name")
    return pid


def wait_connected(board, ch, state, timeout=30):  # the daemon's connected event for CH
    board.ctl("wait", "--timeout", str(timeout), "connected", str(ch), str(state),
              timeout=timeout + 10)


def counters(board):
    """The board's counters, {"reg_reads ch0 0x01": n, ...}."""
    return {name: int(value) for name, _, value in
            (ln.rpartition(" ") for ln in board.ctl("counters").splitlines()) if name}


def delta(after, before):
    """What the counters moved by, with the I2C transfers summed under "transfers"."""
    moved = collections.Counter(after) - collections.Counter(before)  # counters only grow
    moved["transfers"] = sum(moved[k] for k in I2C_TRANSFERS)
    return moved


def locked_channels(board):
    """The channels ListConfig shows with a format; None when the call fails."""
    try:
        rows = board.busctl_json("call", SERVICE, OBJECT, SERVICE, "ListConfig")["data"][0]
    except BoardError:
        return None
    return {i for i, row in enumerate(rows) if row[7] not in ("none", "disabled")}


def wait_locked(board, timeout=120):
    wait_for(lambda: locked_channels(board) == set(range(CHANNELS)), timeout,
             "every channel to lock", 0.5)


def connect(board):  # a client of the board's bus
    return Gio.DBusConnection.new_for_address_sync(
        board.bus_address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)


def proc_sample(pid):
    """VmRSS, VmHWM (kB), Threads and open fds of a process, with the time; None once gone."""
    try:
        with open(f"/proc/{pid}/status") as f:
            s = {k: int(v.split()[0]) for k, _, v in (ln.partition(":") for ln in f)
                 if k in ("VmRSS", "VmHWM", "Threads")}
        return s | {"t": time.monotonic(), "fds": len(os.listdir(f"/proc/{pid}/fd"))}
    except OSError:
        return None
