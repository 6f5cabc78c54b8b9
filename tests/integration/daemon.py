"""The unmodified vinmand on a virtual board, for the end-to-end scenarios.

The board runs `sh -c LAUNCHER vinmand`: the launcher leaves its PID in the
state directory and waits on a FIFO there before it execs the daemon (same
PID), so a scenario can prepare the board (faults, a rival bus name owner)
first. Clients run inside the board's mount namespace through nsenter, where
the bus, its policy and the PTZ socket sit at the encoder's own paths; the
board's state comes from `vboard-ctl`. Every wait is bounded."""

import configparser
import ctypes
import json
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import pytest

from conftest import BUILD, REPO

VBOARD = os.path.join(BUILD, "sim", "vboard", "vboard")
VBOARD_CTL = os.path.join(BUILD, "sim", "vboard", "vboard-ctl")
VINMAND = os.path.join(BUILD, "src", "vinmand")
POLICY = os.path.join(REPO, "data", "com.korvi.Encoder.conf")

SERVICE = "com.korvi.Encoder"
OBJECT = "/com/korvi/Encoder"
VIDEO = "com.korvi.Encoder.Video"
ERROR = "com.korvi.Encoder.Error."
ACQUIRED = f"Acquired '{SERVICE}' on D-Bus message bus."
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]

LAUNCHER = 'echo $$ > "$VBOARD_STATE_DIR/pid" && read go < "$VBOARD_STATE_DIR/gate" && exec "$0"'
SYSLOG_LINE = re.compile(r"^<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)\[(\d+)\]: ?(.*)$")
GDBUS_ERROR = re.compile(r"GDBus\.Error:([\w.]+): (.*)")

# Owns a bus name with the flags in argv[2] and prints each change of ownership.
NAME_OWNER = """
import sys
from gi.repository import Gio, GLib
Gio.bus_own_name(Gio.BusType.SYSTEM, sys.argv[1], Gio.BusNameOwnerFlags(int(sys.argv[2])), None,
                 lambda c, n: print("acquired", flush=True), lambda c, n: print("lost", flush=True))
GLib.MainLoop().run()
"""

# Writes the bytes given in hex as argv[1] in one write to the PTZ socket.
PTZ_CLIENT = """
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.connect("/run/vidhostd/coax.socket")
s.sendall(bytes.fromhex(sys.argv[1]))
"""

# Clients find the board's bus at its fixed path, never one of the caller's.
CLIENT_ENV = {k: v for k, v in os.environ.items() if k != "DBUS_SYSTEM_BUS_ADDRESS"}
ALLOW_REPLACEMENT = 1
REPLACE = 2


class DBusError(Exception):
    """A method's error reply: (error name, message)."""


def wait_until(condition, timeout, what):
    """Polls condition() until it returns a true value, which is returned."""
    deadline = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > deadline:
            pytest.fail(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)
    return value


def read_file(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except OSError:
        return None


def parse_config(text):
    """The daemon's key file as {group: {key: value}}, in file order."""
    parser = configparser.ConfigParser(interpolation=None, delimiters=("=",))
    parser.optionxform = str
    parser.read_string(text)
    return {g: dict(parser[g]) for g in parser.sections()}


class Board:
    """One virtual board with the daemon on it."""

    def __init__(self, chip="tp2827", cameras=(), config=None, capture_modes=(), cpuid=True):
        self.options = ["--chip", chip, *([] if cpuid else ["--no-cpuid"])]
        self.options += [x for cam in cameras for x in ("--camera", cam)]
        self.options += [x for mode in capture_modes for x in ("--capture-mode", mode)]
        self.config = config
        self.state = self.proc = self.board_pid = self.daemon_pid = None
        self.exit_code = self.first_config = self._out = None
        self._helpers = []

    def start(self, gate_open=True, timeout=30):
        for path in (VBOARD, VBOARD_CTL, VINMAND):
            if not os.access(path, os.X_OK):
                pytest.fail(f"{path} is not built (build {BUILD} or set VINMAN_BUILD_DIR)")
        self.state = tempfile.mkdtemp(prefix="vd.", dir="/tmp")
        os.mkfifo(os.path.join(self.state, "gate"))
        cmd = [VBOARD, "run", "--state-dir", self.state, "--policy", POLICY, *self.options]
        if self.config is not None:
            with open(os.path.join(self.state, "seed.conf"), "w") as f:
                f.write(self.config)
            cmd += ["--config", f.name]
        env = dict(os.environ)
        env.pop("VBOARD_STATE_DIR", None)
        env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
        self._out = open(os.path.join(self.state, "vboard.out"), "w+b")
        # Its own session, and SIGTERM should the test runner die.
        self.proc = subprocess.Popen(
            [*cmd, "--", "/bin/sh", "-c", LAUNCHER, VINMAND], stdin=subprocess.DEVNULL,
            stdout=self._out, stderr=subprocess.STDOUT, env=env, start_new_session=True,
            preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGTERM))
        self.ctl("wait", "--timeout", str(timeout), "ready", timeout=timeout + 10)
        pid_file = os.path.join(self.state, "pid")
        self.board_pid = int(wait_until(lambda: (read_file(pid_file) or "").strip(), timeout,
                                        "the launcher"))
        if gate_open:
            self.open_gate()
        return self

    def open_gate(self, timeout=20):
        """Lets the launcher exec the daemon; returns once the daemon runs and,
        without a seeded configuration, has written its configuration file
        (kept in first_config as first written)."""
        gate = os.path.join(self.state, "gate")

        def open_writer():
            try:
                return (os.open(gate, os.O_WRONLY | os.O_NONBLOCK),)
            except OSError:  # ENXIO: the launcher has not opened it yet
                return None

        (fd,) = wait_until(open_writer, timeout, "the launcher to wait at its gate")
        os.write(fd, b"go\n")
        os.close(fd)
        exe = os.path.realpath(VINMAND)

        def execed():
            try:
                return os.readlink(f"/proc/{self.board_pid}/exe") == exe and self.board_pid
            except OSError:
                return self.proc.poll() is not None and -1

        # -1 when the daemon ended before it was seen.
        self.daemon_pid = wait_until(execed, timeout, "the daemon to start")
        if self.config is None:
            def written_or_ended():
                text = read_file(self.config_path)
                return (text,) if text or self.proc.poll() is not None else None

            self.first_config = wait_until(written_or_ended, timeout,
                                           "the daemon's configuration file")[0]

    def wait_exit(self, timeout=30):
        """Waits for the daemon (and so the board) to end; returns its status."""
        try:
            self.exit_code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            pytest.fail(f"the daemon did not end within {timeout} s:\n" + self.log_text())
        return self.exit_code

    def signal(self, sig):
        assert self.daemon_pid and self.daemon_pid > 0, "the daemon is not running"
        os.kill(self.daemon_pid, sig)

    def stop(self):
        """Ends the helpers, the daemon (SIGTERM) and the board and removes the
        state directory; returns a complaint when a daemon that ran did not
        end with status 0 of its own, else None."""
        for proc in self._helpers:
            proc.kill()
            proc.wait()
        complaint = None
        if self.proc is not None and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(20)
            except subprocess.TimeoutExpired:
                complaint = "the daemon did not end within 20 s of SIGTERM"
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
        code = self.proc.returncode if self.proc is not None else None
        if not complaint and (self.daemon_pid or 0) > 0 and self.exit_code is None and code:
            complaint = f"the daemon ended with status {code}"
        if complaint:
            complaint += ":\n" + self.board_output()[-4000:]
        if self._out:
            self._out.close()
        shutil.rmtree(self.state or "", ignore_errors=True)
        return complaint

    def board_output(self):
        self._out.flush()
        return read_file(self._out.name) or ""

    @property
    def config_path(self):
        return os.path.join(self.state, "etc-encoder", "video.conf")

    def config_file(self):
        return parse_config(read_file(self.config_path) or "")

    # -- the board --------------------------------------------------------------

    def ctl(self, *args, timeout=30):
        r = subprocess.run([VBOARD_CTL, "--state-dir", self.state, *args], capture_output=True,
                           text=True, timeout=timeout)
        if r.returncode != 0:
            pytest.fail(f"vboard-ctl {' '.join(args)}: {r.stderr.strip()}\n"
                        + self.board_output()[-4000:])
        return r.stdout

    def get(self, key, arg):
        return self.ctl("get", key, str(arg)).strip()

    def wait(self, key, arg, value, timeout=30):  # until `get KEY ARG` reads VALUE
        self.ctl("wait", "--timeout", str(timeout), key, str(arg), str(value),
                 timeout=timeout + 10)

    def status(self):
        return json.loads(self.ctl("status", "--json"))

    def regs(self, page):
        """The register bank of a page as a list of 256 values."""
        lines = self.ctl("regs", str(page)).splitlines()[2:]
        return [int(v, 16) for line in lines for v in line.split(":")[1].split()]

    # -- the daemon's log -------------------------------------------------------

    def log_text(self):
        if self.proc.poll() is None:
            return self.ctl("log")
        return read_file(os.path.join(self.state, "syslog.log")) or ""

    def log(self):
        """The daemon's messages as (priority, text), debug lines left out."""
        matches = map(SYSLOG_LINE.match, self.log_text().splitlines())
        return [(int(m.group(1)) & 7, m.group(4)) for m in matches
                if m and m.group(2) == "vinmand" and int(m.group(1)) & 7 <= 6]

    def messages(self):
        return [text for _, text in self.log()]

    def wait_log(self, text, timeout=30):
        self.ctl("wait", "--timeout", str(timeout), "log", text, timeout=timeout + 10)

    def wait_count(self, text, count, timeout=30):
        wait_until(lambda: self.messages().count(text) >= count, timeout,
                   f"{count} x '{text}' in the log")

    # -- clients inside the board ----------------------------------------------

    def _nsenter(self, cmd, user=None):  # user=NOBODY: an unprivileged caller
        return ["nsenter", "--target", str(self.board_pid), "--mount", "--", *(user or []), *cmd]

    def inside(self, *cmd, user=None, timeout=30):
        return subprocess.run(self._nsenter(cmd, user), capture_output=True, text=True,
                              timeout=timeout, env=CLIENT_ENV)

    def spawn_inside(self, *cmd):
        """A long-running command in the board's namespace, stopped with the board."""
        proc = subprocess.Popen(self._nsenter(cmd), stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                env=CLIENT_ENV)
        self._helpers.append(proc)
        return proc

    def call(self, method, *args, user=None):
        """Calls a method with gdbus; returns the reply's values as a tuple or
        raises DBusError."""
        from gi.repository import GLib

        r = self.inside("gdbus", "call", "--system", "--dest", SERVICE, "--object-path", OBJECT,
                        "--method", f"{SERVICE}.{method}", "--", *map(str, args), user=user)
        if r.returncode != 0:
            m = GDBUS_ERROR.search(r.stderr)
            if not m:
                pytest.fail(f"gdbus {method} {args}: {r.stderr.strip()}")
            raise DBusError(m.group(1), m.group(2).strip())
        return GLib.Variant.parse(None, r.stdout.strip(), None, None).unpack()

    def call_error(self, method, *args, user=None):
        """Calls a method that must fail; returns (error name, message)."""
        with pytest.raises(DBusError) as e:
            self.call(method, *args, user=user)
        return e.value.args

    def busctl(self, *args, user=None, as_json=True):
        """busctl --system; the reply parsed from JSON (or its text)."""
        r = self.inside("busctl", "--system", *(["--json=short"] if as_json else []), *args,
                        user=user)
        if r.returncode != 0:
            pytest.fail(f"busctl {' '.join(args)}: {r.stderr.strip()}")
        return json.loads(r.stdout) if as_json else r.stdout

    def video_property(self, channel, name, user=None):
        return self.busctl("get-property", SERVICE, f"{OBJECT}/{channel}", VIDEO, name,
                           user=user)["data"]

    def wait_property(self, channel, name, value, timeout=30):
        wait_until(lambda: self.video_property(channel, name) == value, timeout,
                   f"{OBJECT}/{channel} {name} = {value!r}")

    def list_config(self):
        """ListConfig as one dict per channel."""
        keys = ("saturation", "brightness", "contrast", "hue", "sharpness", "xoffset",
                "yoffset", "standard", "resolution", "auto", "capture_mode_changed")
        return [dict(zip(keys, row)) for row in self.call("ListConfig")[0]]

    def own_name(self, flags):
        """A process inside the board that owns the service's name with FLAGS;
        its lines ("acquired", "lost") arrive on the returned queue."""
        proc = self.spawn_inside(sys.executable, "-c", NAME_OWNER, SERVICE, str(flags))
        lines = queue.Queue()
        threading.Thread(target=lambda: [lines.put(s.strip()) for s in proc.stdout],
                         daemon=True).start()
        return lines

    def send_ptz(self, data):
        r = self.inside(sys.executable, "-c", PTZ_CLIENT, data.hex())
        assert r.returncode == 0, r.stderr


def next_line(lines, timeout=20):
    try:
        return lines.get(timeout=timeout)
    except queue.Empty:
        pytest.fail(f"no output from the helper within {timeout} s")


def in_order(messages, expected):
    """Fails unless the expected messages stand in the log in this order."""
    start = 0
    for text in expected:
        try:
            start = messages.index(text, start) + 1
        except ValueError:
            pytest.fail(f"'{text}' missing after position {start} in:\n" + "\n".join(messages))


@pytest.fixture
def boards():
    """Starts boards for one scenario (`boards(chip=..., cameras=[...])`); at
    its end every daemon must stop cleanly: status 0, which under the
    sanitizer builds also means no memory error or leak."""
    started = []

    def make(gate_open=True, **kwargs):
        started.append(Board(**kwargs))
        return started[-1].start(gate_open=gate_open)

    yield make
    complaints = [c for c in (board.stop() for board in started) if c]
    if complaints:
        pytest.fail("\n".join(complaints))
