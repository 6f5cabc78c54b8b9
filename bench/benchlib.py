"""What the benches on the virtual board share: the Board of scripts/run-on-vboard,
the board's counters, the daemon's /proc figures and a client in the board's mount
namespace. Works from the sources and from its copy in BUILD/bench/."""

import argparse
import importlib.machinery
import json
import os
import statistics
import subprocess
import sys
import time
import types

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))  # holds bench/


def cache_value(build, key):
    try:
        with open(os.path.join(build, "CMakeCache.txt")) as f:
            return next((line.split("=", 1)[1].strip() for line in f
                         if line.startswith(key + ":")), None)
    except OSError:
        return None


# In a build tree HERE is the build directory and its cache names the sources.
REPO = cache_value(HERE, "CMAKE_HOME_DIRECTORY") or HERE


def _load_run_on_vboard():
    path = os.path.join(REPO, "scripts", "run-on-vboard")
    loader = importlib.machinery.SourceFileLoader("run_on_vboard", path)
    module = types.ModuleType(loader.name)
    module.__file__ = path
    loader.exec_module(module)
    return module


rov = _load_run_on_vboard()
Board, BoardError = rov.Board, rov.BoardError

SERVICE = "com.korvi.Encoder"
OBJECT = "/com/korvi/Encoder"
ACQUIRED = "Acquired 'com.korvi.Encoder' on D-Bus message bus."
CHANNELS = 4
I2C_TRANSFERS = ("i2c_pointer_writes", "i2c_reads", "i2c_register_writes", "i2c_address_sets")


def default_build(name="debug"):
    return HERE if REPO != HERE else os.path.join(REPO, "build", name)


def parser(prog, doc):
    p = argparse.ArgumentParser(prog=prog, description=doc.split("\n\n")[0])
    p.add_argument("--build", default=default_build())
    return p


def need_root(prog):
    if os.geteuid() != 0:
        sys.exit(f"{prog}: needs root (the board's mount namespace)")


def log(text=""):
    print(text, flush=True)


def ms(seconds):
    return f"{seconds * 1000:.0f} ms"


def summary(values):
    if not values:
        return "no sample"
    return (f"median {ms(statistics.median(values))}, min {ms(min(values))}, "
            f"max {ms(max(values))} over {len(values)}")


def percentiles(values):
    """p50 and p99."""
    q = statistics.quantiles(values, n=100, method="inclusive")
    return q[49], q[98]


def load_average():
    return " ".join(f"{x:.2f}" for x in os.getloadavg())


def wait_for(condition, timeout, what, interval=0.05):
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise BoardError(f"timed out after {timeout} s waiting for {what}")
        time.sleep(interval)


def wait_log(board, text, timeout):
    wait_for(lambda: any(text in line.text for line in board.all_log_lines()), timeout,
             f"'{text}' in the daemon's log")


def start_daemon(board, timeout=30):
    """Waits for the daemon to hold its bus name; returns its PID."""
    pid = wait_for(board.daemon_pid, 20, "the daemon to start")
    wait_log(board, ACQUIRED, timeout)
    return pid


def counters(board):
    """The board's counters, {"reg_reads ch0 01": n, ...}."""
    return {name: int(value) for name, _, value in
            (line.rpartition(" ") for line in board.ctl("counters").splitlines()) if name}


def delta(after, before):
    return {k: after.get(k, 0) - before.get(k, 0) for k in set(after) | set(before)
            if after.get(k, 0) != before.get(k, 0)}


def transfers(c):
    return sum(c.get(k, 0) for k in I2C_TRANSFERS)


def register_accesses(moved):
    """Register reads and writes summed over the page slots: {"reads 0x01": n}."""
    out = {}
    for name, value in moved.items():
        parts = name.split()
        if len(parts) == 3 and parts[0] in ("reg_reads", "reg_writes"):
            key = f"{parts[0][4:]} 0x{int(parts[2], 16):02x}"
            out[key] = out.get(key, 0) + value
    return out


def locked_channels(board):
    """The channels ListConfig shows with a format; None when the call fails."""
    try:
        rows = board.busctl_json("call", SERVICE, OBJECT, SERVICE, "ListConfig")["data"][0]
    except BoardError:
        return None
    return {i for i, row in enumerate(rows) if row[7] not in ("none", "disabled")}


def daemon_locked(board):
    return locked_channels(board) == set(range(CHANNELS))


def proc_sample(pid):
    """VmRSS, VmHWM, VmSize (kB), Threads and open fds of a process, with the
    time; None once it is gone."""
    s = {"t": time.monotonic()}
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                key, _, value = line.partition(":")
                if key in ("VmRSS", "VmHWM", "VmSize", "Threads"):
                    s[key] = int(value.split()[0])
        s["fds"] = len(os.listdir(f"/proc/{pid}/fd"))
    except OSError:
        return None
    return s


def find_process(board, match):
    """PID of the first of the board's descendants whose argv satisfies match."""
    table = rov._process_table()
    todo = [board.proc.pid]
    while todo:
        pid = todo.pop()
        try:
            with open(f"/proc/{pid}/cmdline", "rb") as f:
                if match(f.read().split(b"\0")):
                    return pid
        except OSError:
            pass
        todo += table.get(pid, [])
    return None


class NamespaceClient:
    """A python3 program in the daemon's mount namespace (the bus and the PTZ socket
    at their usual paths), one JSON line out once ready, then one per request."""

    def __init__(self, board, code):
        env = dict(os.environ)
        env.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
        self.proc = subprocess.Popen(
            ["nsenter", "--target", str(board.daemon_pid()), "--mount", "--",
             "/usr/bin/python3", "-c", code],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=env)
        self.hello = self._answer()

    def _answer(self):
        line = self.proc.stdout.readline()
        if not line:
            raise BoardError(f"the client ended (status {self.proc.wait()})")
        return json.loads(line)

    def request(self, **cmd):
        self.proc.stdin.write(json.dumps(cmd) + "\n")
        self.proc.stdin.flush()
        return self._answer()

    def close(self):
        if self.proc.poll() is None:
            try:
                self.proc.stdin.close()  # the client ends at the end of its input
                self.proc.wait(10)
            except (OSError, subprocess.TimeoutExpired):
                self.proc.kill()
                self.proc.wait()
