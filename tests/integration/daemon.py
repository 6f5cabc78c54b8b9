"""The unmodified vinmand on a virtual board, for the end-to-end scenarios.

How a scenario meets the daemon:

- The board runs `vboard run --state-dir DIR --policy data/com.korvi.Encoder.conf
  ... -- sh -c LAUNCHER vinmand`. The launcher blocks on a FIFO in DIR and then
  execs the daemon (same PID, so the board's exit status is the daemon's). A
  scenario can thus prepare the board (faults, a rival owner of the bus name)
  before the daemon starts; `start()` opens the gate at once unless asked not to.
- Every client (busctl, gdbus, python3) runs inside the board's private mount
  namespace through `nsenter --target BOARD --mount`, where it finds the board's
  system bus at /run/dbus/system_bus_socket and the PTZ socket at
  /run/vidhostd/coax.socket: the same paths and the same policy as on the
  encoder, so a client is called exactly as a client author would call it, and
  `setpriv` can make it an unprivileged caller.
- The board's own state (cameras, lock, overlay texts, capture mode, events,
  registers) comes from `vboard-ctl --state-dir DIR`; the daemon's log is the
  board's syslog sink (`vboard-ctl log`, or DIR/syslog.log once the board has
  ended).

Waiting is always bounded: `vboard-ctl wait` with a time-out, or `wait_until`
polling a condition against a deadline.

Every board started through `Boards` is stopped, with everything it started,
when the scenario ends, also when it fails."""

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

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.abspath(os.path.join(REPO, os.environ.get("VINMAN_BUILD_DIR", "build/asan")))
VBOARD = os.path.join(BUILD, "sim", "vboard", "vboard")
VBOARD_CTL = os.path.join(BUILD, "sim", "vboard", "vboard-ctl")
VINMAND = os.path.join(BUILD, "src", "vinmand")
POLICY = os.path.join(REPO, "data", "com.korvi.Encoder.conf")

SERVICE = "com.korvi.Encoder"
OBJECT = "/com/korvi/Encoder"
VIDEO = "com.korvi.Encoder.Video"
ERROR = "com.korvi.Encoder.Error."
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]

LAUNCHER = 'read go < "$VBOARD_STATE_DIR/gate" && exec "$0"'
SYSLOG_LINE = re.compile(r"^<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)\[(\d+)\]: ?(.*)$")
GDBUS_ERROR = re.compile(r"GDBus\.Error:([\w.]+): (.*)")

# Owns a bus name with the flags given as argv[2], prints each change of
# ownership on a line of its own, and runs until killed.
NAME_OWNER = """
import sys
from gi.repository import Gio, GLib
def say(text):
    print(text, flush=True)
Gio.bus_own_name(Gio.BusType.SYSTEM, sys.argv[1], Gio.BusNameOwnerFlags(int(sys.argv[2])),
                 None, lambda c, n: say("acquired"), lambda c, n: say("lost"))
GLib.MainLoop().run()
"""

# Writes the bytes given in hex as argv[1] in one write to the PTZ socket.
PTZ_CLIENT = """
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
s.connect("/run/vidhostd/coax.socket")
s.sendall(bytes.fromhex(sys.argv[1]))
s.close()
"""

ALLOW_REPLACEMENT = 1
REPLACE = 2


def require_root():
    """Module-level mark for the scenarios: they need root for the board's
    mount namespace, nsenter and setpriv."""
    return pytest.mark.skipif(os.geteuid() != 0,
                              reason="the daemon's scenarios need root (board namespace, "
                                     "nsenter, setpriv)")


class DBusError(Exception):
    def __init__(self, name, message):
        super().__init__(f"{name}: {message}")
        self.name = name
        self.message = message


def wait_until(condition, timeout, what):
    """Polls condition() until it returns a true value, which is returned; fails
    the scenario after timeout seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            pytest.fail(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)


def _die_with_parent():
    os.setsid()
    try:
        ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG
    except (OSError, AttributeError):
        pass


def _children(pid):
    out = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                stat = f.read()
        except OSError:
            continue
        if int(stat[stat.rindex(")") + 2:].split()[1]) == pid:
            out.append(int(entry))
    return out


def _link(pid, name):
    """/proc/PID/NAME's target ("exe", "ns/mnt"); "" once the process is gone."""
    try:
        return os.readlink(f"/proc/{pid}/{name}")
    except OSError:
        return ""


def parse_config(text):
    """The daemon's key file as {group: {key: value}}, groups and keys in file order."""
    parser = configparser.ConfigParser(interpolation=None, delimiters=("=",))
    parser.optionxform = str
    parser.read_string(text)
    return {g: dict(parser[g]) for g in parser.sections()}


class Board:
    """One virtual board with the daemon on it."""

    def __init__(self, chip="tp2827", cameras=(), config=None, capture_modes=(), cpuid=True):
        self.chip = chip
        self.cpuid = cpuid
        self.cameras = list(cameras)
        self.config = config
        self.capture_modes = list(capture_modes)
        self.state = None
        self.proc = None
        self.board_pid = None
        self.daemon_pid = None
        self.exit_code = None
        self.first_config = None
        self._out = None
        self._helpers = []

    # -- lifecycle --------------------------------------------------------------

    def start(self, gate_open=True, timeout=30):
        for path in (VBOARD, VBOARD_CTL, VINMAND):
            if not os.access(path, os.X_OK):
                pytest.fail(f"{path} is not built (build {BUILD} or set VINMAN_BUILD_DIR)")
        self.state = tempfile.mkdtemp(prefix="vd.", dir="/tmp")
        os.mkfifo(os.path.join(self.state, "gate"))
        cmd = [VBOARD, "run", "--chip", self.chip, "--state-dir", self.state, "--policy", POLICY]
        if not self.cpuid:
            cmd += ["--no-cpuid"]
        if self.config is not None:
            path = os.path.join(self.state, "seed.conf")
            with open(path, "w") as f:
                f.write(self.config)
            cmd += ["--config", path]
        for cam in self.cameras:
            cmd += ["--camera", cam]
        for mode in self.capture_modes:
            cmd += ["--capture-mode", mode]
        cmd += ["--", "/bin/sh", "-c", LAUNCHER, VINMAND]
        env = dict(os.environ)
        env.pop("VBOARD_STATE_DIR", None)
        env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
        self._out = open(os.path.join(self.state, "vboard.out"), "w+b")
        self.proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=self._out,
                                     stderr=subprocess.STDOUT, env=env,
                                     preexec_fn=_die_with_parent)
        r = subprocess.run([VBOARD_CTL, "--state-dir", self.state, "wait", "--timeout",
                            str(timeout), "ready"], capture_output=True, text=True,
                           timeout=timeout + 10)
        if r.returncode != 0:
            pytest.fail(f"the board did not become ready: {r.stderr}{self.board_output()}")
        # The board is the supervisor's child that entered the private namespace.
        own_ns = _link("self", "ns/mnt")
        self.board_pid = wait_until(
            lambda: next((p for p in _children(self.proc.pid)
                          if _link(p, "ns/mnt") not in ("", own_ns)), None),
            timeout, "the board process")
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
        # The daemon's PID, or -1 when the board (and the daemon) ended first.
        self.daemon_pid = wait_until(
            lambda: next((p for p in _children(self.board_pid) if _link(p, "exe") == exe), None)
            or (self.proc.poll() is not None and -1), timeout, "the daemon to start")
        if self.config is None:
            def written_or_ended():
                text = self._read(self.config_path)
                if text:
                    return (text,)
                return (None,) if self.proc.poll() is not None else None

            self.first_config = wait_until(written_or_ended, timeout,
                                           "the daemon's configuration file")[0]

    def wait_exit(self, timeout=30):
        """Waits for the daemon to end (the board ends with it); returns its
        exit status."""
        try:
            self.exit_code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            pytest.fail(f"the daemon did not end within {timeout} s:\n" + self.log_text())
        return self.exit_code

    def signal(self, sig):
        assert self.daemon_pid and self.daemon_pid > 0, "the daemon is not running"
        os.kill(self.daemon_pid, sig)

    def stop(self):
        """Ends everything this board started: helpers, the daemon (SIGTERM
        through the board), the board; removes the state directory. Returns
        a complaint when a daemon that was running did not end cleanly (exit
        status not 0, or killed), else None."""
        for proc in self._helpers:
            if proc.poll() is None:
                proc.kill()
            proc.wait()
        self._helpers.clear()
        complaint = None
        if self.proc is not None and self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(20)
            except subprocess.TimeoutExpired:
                complaint = "the daemon did not end within 20 s of SIGTERM"
                if self.board_pid:
                    try:
                        os.kill(self.board_pid, signal.SIGKILL)
                    except ProcessLookupError:
                        pass
                try:
                    self.proc.wait(10)
                except subprocess.TimeoutExpired:
                    os.killpg(self.proc.pid, signal.SIGKILL)
                    self.proc.wait()
        code = self.proc.returncode if self.proc is not None else None
        ran = self.daemon_pid is not None and self.daemon_pid > 0
        if not complaint and ran and self.exit_code is None and code not in (0, None):
            complaint = f"the daemon ended with status {code}"
        if complaint:
            complaint += ":\n" + self.board_output()[-4000:]
        if self._out:
            self._out.close()
            self._out = None
        if self.state:
            shutil.rmtree(self.state, ignore_errors=True)
            self.state = None
        return complaint

    def board_output(self):
        if not self._out:
            return ""
        self._out.flush()
        self._out.seek(0)
        text = self._out.read().decode(errors="replace")
        self._out.seek(0, os.SEEK_END)
        return text

    # -- files ----------------------------------------------------------------

    @staticmethod
    def _read(path):
        try:
            with open(path) as f:
                return f.read()
        except OSError:
            return None

    @property
    def config_path(self):
        return os.path.join(self.state, "etc-encoder", "video.conf")

    def config_file(self):
        """The daemon's configuration file as {group: {key: value}}."""
        return parse_config(self._read(self.config_path) or "")

    # -- the board --------------------------------------------------------------

    def ctl(self, *args, timeout=30):
        r = subprocess.run([VBOARD_CTL, "--state-dir", self.state, *args], capture_output=True,
                           text=True, timeout=timeout)
        if r.returncode != 0:
            pytest.fail(f"vboard-ctl {' '.join(args)}: {r.stderr.strip()}")
        return r.stdout

    def get(self, key, arg=None):
        return self.ctl("get", key, *([] if arg is None else [str(arg)])).strip()

    def wait(self, key, arg, value, timeout=30):
        """Waits for `vboard-ctl get KEY ARG` to read VALUE."""
        self.ctl("wait", "--timeout", str(timeout), key, str(arg), str(value),
                 timeout=timeout + 10)

    def status(self):
        return json.loads(self.ctl("status", "--json"))

    def regs(self, page):
        """The register bank of a page as a list of 256 values."""
        values = []
        for line in self.ctl("regs", str(page)).splitlines()[2:]:
            values += [int(v, 16) for v in line.split(":")[1].split()]
        return values

    # -- the daemon's log -------------------------------------------------------

    def log_text(self):
        if self.proc is not None and self.proc.poll() is None:
            return self.ctl("log")
        return self._read(os.path.join(self.state, "syslog.log")) or ""

    def log(self, max_priority=6):
        """The daemon's messages as (priority, text), debug lines left out."""
        out = []
        for raw in self.log_text().splitlines():
            m = SYSLOG_LINE.match(raw)
            if m and m.group(2) == "vinmand" and int(m.group(1)) & 7 <= max_priority:
                out.append((int(m.group(1)) & 7, m.group(4)))
        return out

    def messages(self):
        return [text for _, text in self.log()]

    def wait_log(self, text, timeout=30):
        self.ctl("wait", "--timeout", str(timeout), "log", text, timeout=timeout + 10)

    def wait_count(self, text, count, timeout=30):
        """Waits until the daemon has logged TEXT at least COUNT times."""
        return wait_until(lambda: self.messages().count(text) >= count, timeout,
                          f"{count} x '{text}' in the log")

    # -- clients inside the board ----------------------------------------------

    def inside(self, *cmd, user=None, timeout=30):
        """Runs a command in the board's mount namespace, as root or, with
        user=NOBODY, as an unprivileged user."""
        env = dict(os.environ)
        env.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
        full = ["nsenter", "--target", str(self.board_pid), "--mount", "--", *(user or []), *cmd]
        return subprocess.run(full, capture_output=True, text=True, timeout=timeout, env=env)

    def spawn_inside(self, *cmd):
        """A long-running command in the board's namespace, stopped with the board."""
        proc = subprocess.Popen(["nsenter", "--target", str(self.board_pid), "--mount", "--",
                                 *cmd], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        self._helpers.append(proc)
        return proc

    def call(self, method, *args, user=None, path=OBJECT, interface=SERVICE):
        """Calls a method with gdbus; returns the reply's values as a tuple or
        raises DBusError with the error's name and message."""
        from gi.repository import GLib

        r = self.inside("gdbus", "call", "--system", "--dest", SERVICE, "--object-path", path,
                        "--method", f"{interface}.{method}", "--", *[str(a) for a in args],
                        user=user)
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
        return e.value.name, e.value.message

    def busctl(self, *args, user=None, as_json=True):
        """busctl --system; the reply parsed from JSON (or its text), or a failure."""
        r = self.inside("busctl", "--system", *(["--json=short"] if as_json else []), *args,
                        user=user)
        if r.returncode != 0:
            pytest.fail(f"busctl {' '.join(args)}: {r.stderr.strip()}")
        if not as_json:
            return r.stdout
        return json.loads(r.stdout) if r.stdout.strip() else None

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
        """A process inside the board that owns com.korvi.Encoder with the
        given flags; its output lines ("acquired", "lost") arrive on a queue."""
        proc = self.spawn_inside(sys.executable, "-c", NAME_OWNER, SERVICE, str(flags))
        lines = queue.Queue()

        def pump():
            for line in proc.stdout:
                lines.put(line.strip())

        threading.Thread(target=pump, daemon=True).start()
        return proc, lines

    def send_ptz(self, data):
        r = self.inside(sys.executable, "-c", PTZ_CLIENT, data.hex())
        assert r.returncode == 0, r.stderr


def next_line(lines, timeout=20):
    try:
        return lines.get(timeout=timeout)
    except queue.Empty:
        pytest.fail(f"no output from the helper within {timeout} s")


def in_order(messages, expected):
    """The positions of the expected messages in the log, each one found after
    the previous; fails naming the first one missing."""
    positions = []
    start = 0
    for text in expected:
        try:
            start = messages.index(text, start)
        except ValueError:
            pytest.fail(f"'{text}' missing after position {start} in:\n" + "\n".join(messages))
        positions.append(start)
        start += 1
    return positions


@pytest.fixture
def boards():
    """Starts boards for one scenario (`boards(chip=..., cameras=[...])`) and
    stops every one of them at its end, failing the scenario when a daemon
    does not stop cleanly."""
    started = []

    def make(gate_open=True, **kwargs):
        board = Board(**kwargs)
        started.append(board)
        return board.start(gate_open=gate_open)

    yield make
    # Every scenario ends with a clean shutdown of its daemons: exit status 0,
    # which under the sanitizer build also means no memory error or leak.
    complaints = [c for c in (board.stop() for board in started) if c]
    if complaints:
        pytest.fail("\n".join(complaints))
