"""What the benches on the virtual board share: the Board of scripts/run-on-vboard,
the board's counters and the daemon's /proc figures. Works from the sources and
from its copy in BUILD/bench/."""

import argparse
import collections
import importlib.machinery
import os
import statistics
import sys
import time
import types

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))  # holds bench/
sys.stdout.reconfigure(line_buffering=True)


def cache_value(build, key):
    try:
        with open(os.path.join(build, "CMakeCache.txt")) as f:
            return next((line.split("=", 1)[1].strip() for line in f
                         if line.startswith(key + ":")), None)
    except OSError:
        return None


# In a build tree HERE is the build directory and its cache names the sources.
REPO = cache_value(HERE, "CMAKE_HOME_DIRECTORY") or HERE
_loader = importlib.machinery.SourceFileLoader(
    "run_on_vboard", os.path.join(REPO, "scripts", "run-on-vboard"))
rov = types.ModuleType(_loader.name)
rov.__file__ = _loader.path
_loader.exec_module(rov)
Board, BoardError, SERVICE, OBJECT = rov.Board, rov.BoardError, rov.SERVICE, rov.OBJECT
CHANNELS = 4
I2C_TRANSFERS = ("i2c_pointer_writes", "i2c_reads", "i2c_register_writes", "i2c_address_sets")


def default_build(name="debug"):
    return HERE if REPO != HERE else os.path.join(REPO, "build", name)


def parse_args(doc, argv=None, **options):
    """--build and OPTIONS (name=default, typed by the default); needs root."""
    p = argparse.ArgumentParser(description=doc.split("\n\n")[0])
    p.add_argument("--build", default=default_build())
    for name, default in options.items():
        kind = {"action": "store_true"} if default is False else {"type": type(default)}
        p.add_argument("--" + name.replace("_", "-"), default=default, **kind)
    args = p.parse_args(argv)
    if os.geteuid() != 0:
        sys.exit(f"{p.prog}: needs root (the board's mount namespace)")
    print(f"build {os.path.abspath(args.build)}")
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


def wait_log(board, text, timeout):
    wait_for(lambda: any(text in line.text for line in board.all_log_lines()), timeout,
             f"'{text}' in the daemon's log")


def start_daemon(board, timeout=30):
    """Waits for the daemon to hold its bus name; returns its PID."""
    pid = wait_for(board.daemon_pid, 20, "the daemon to start")
    wait_log(board, f"Acquired '{SERVICE}' on D-Bus message bus.", timeout)
    return pid


def wait_connected(board, ch, state, timeout=30):
    """Waits for the board to send the channel's connected event with STATE."""
    board.ctl("wait", "--timeout", str(timeout), "connected", str(ch), str(state),
              timeout=timeout + 10)


def counters(board):
    """The board's counters, {"reg_reads ch0 01": n, ...}."""
    return {name: int(value) for name, _, value in
            (line.rpartition(" ") for line in board.ctl("counters").splitlines()) if name}


def delta(after, before):
    return collections.Counter(after) - collections.Counter(before)  # counters only grow


def transfers(c):
    return sum(c.get(k, 0) for k in I2C_TRANSFERS)


def register_accesses(moved):
    """Register reads and writes summed over the page slots: {"reads 0x01": n}."""
    out = collections.Counter()
    for name, value in moved.items():
        parts = name.split()
        if len(parts) == 3 and parts[0] in ("reg_reads", "reg_writes"):
            out[f"{parts[0][4:]} 0x{int(parts[2], 16):02x}"] += value
    return out


def locked_channels(board):
    """The channels ListConfig shows with a format; None when the call fails."""
    try:
        rows = board.busctl_json("call", SERVICE, OBJECT, SERVICE, "ListConfig")["data"][0]
    except BoardError:
        return None
    return {i for i, row in enumerate(rows) if row[7] not in ("none", "disabled")}


def wait_locked(board, what="every channel to lock", timeout=120):
    wait_for(lambda: locked_channels(board) == set(range(CHANNELS)), timeout, what, 0.5)


def proc_sample(pid):
    """VmRSS, VmHWM (kB), Threads and open fds of a process, with the time; None
    once it is gone."""
    s = {"t": time.monotonic()}
    try:
        with open(f"/proc/{pid}/status") as f:
            for key, _, value in (line.partition(":") for line in f):
                if key in ("VmRSS", "VmHWM", "Threads"):
                    s[key] = int(value.split()[0])
        s["fds"] = len(os.listdir(f"/proc/{pid}/fd"))
    except OSError:
        return None
    return s
