"""The unmodified vinmand on a virtual board. The launcher leaves its PID in
the state directory and waits for a "go" file there before it execs the daemon,
so a scenario can prepare the board first. Clients run inside the board's
mount namespace (nsenter), where the bus and the PTZ socket sit at the
encoder's own paths. Every wait is bounded."""

import configparser
import ctypes
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import pytest

from conftest import REPO, Paths, board_env

POLICY = os.path.join(REPO, "data", "com.korvi.Encoder.conf")
SERVICE = "com.korvi.Encoder"
OBJECT = "/com/korvi/Encoder"
VIDEO = "com.korvi.Encoder.Video"
ERROR = "com.korvi.Encoder.Error."
ACQUIRED = f"Acquired '{SERVICE}' on D-Bus message bus."
ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
ALLOW_REPLACEMENT, REPLACE = 1, 2

LAUNCHER = ('echo $$ > "$VBOARD_STATE_DIR/pid"; '
            'until [ -e "$VBOARD_STATE_DIR/go" ]; do sleep 0.02; done; exec "$0"')
SYSLOG_LINE = re.compile(r"^<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)\[(\d+)\]: ?(.*)$")
GDBUS_ERROR = re.compile(r"GDBus\.Error:([\w.]+): (.*)")
# Owns a bus name with the flags in argv[2]; adds each change of ownership to the file argv[3].
NAME_OWNER = """
import sys
from gi.repository import Gio, GLib
say = lambda text: lambda c, n: open(sys.argv[3], "a").write(text + " ")
Gio.bus_own_name(Gio.BusType.SYSTEM, sys.argv[1], Gio.BusNameOwnerFlags(int(sys.argv[2])), None,
                 say("acquired"), say("lost"))
GLib.MainLoop().run()
"""
PTZ_CLIENT = ("import socket, sys; s = socket.socket(socket.AF_UNIX); "
              "s.connect('/run/vidhostd/coax.socket'); s.sendall(bytes.fromhex(sys.argv[1]))")
# Clients find the board's bus at its fixed path, never one of the caller's.
CLIENT_ENV = {k: v for k, v in os.environ.items() if k != "DBUS_SYSTEM_BUS_ADDRESS"}
LIST_KEYS = ("saturation", "brightness", "contrast", "hue", "sharpness", "xoffset", "yoffset",
             "standard", "resolution", "auto", "capture_mode_changed")


class DBusError(Exception):  # (error name, message)
    pass


def wait_until(condition, timeout, what):  # returns condition()'s first true value
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
        return ""


def parse_config(text):  # {group: {key: value}}, in file order
    parser = configparser.ConfigParser(interpolation=None, delimiters=("=",))
    parser.optionxform = str
    parser.read_string(text)
    return {g: dict(parser[g]) for g in parser.sections()}


def in_order(messages, expected):
    rest = iter(messages)
    missing = [text for text in expected if text not in rest]
    assert not missing, f"{missing} missing or out of order in:\n" + "\n".join(messages)


class Board:
    def __init__(self, chip="tp2827", cameras=(), config=None, capture_modes=(), cpuid=True):
        self.options = ["--chip", chip, *([] if cpuid else ["--no-cpuid"])]
        self.options += [x for cam in cameras for x in ("--camera", cam)]
        self.options += [x for mode in capture_modes for x in ("--capture-mode", mode)]
        self.config, self.exit_code, self._helpers = config, None, []

    def start(self, gate_open=True, timeout=30):
        self.state = tempfile.mkdtemp(prefix="vd.", dir="/tmp")
        cmd = [Paths.vboard, "run", "--state-dir", self.state, "--policy", POLICY, *self.options]
        if self.config is not None:
            with open(os.path.join(self.state, "seed.conf"), "w") as f:
                f.write(self.config)
            cmd += ["--config", f.name]
        self._out = open(os.path.join(self.state, "vboard.out"), "w+b")
        # Its own session, and SIGTERM should the test runner die.
        self.proc = subprocess.Popen(
            [*cmd, "--", "/bin/sh", "-c", LAUNCHER, Paths.daemon], stdin=subprocess.DEVNULL,
            stdout=self._out, stderr=subprocess.STDOUT, env=board_env(), start_new_session=True,
            preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGTERM))
        self.ctl("wait", "--timeout", str(timeout), "ready", timeout=timeout + 10)
        pid_file = os.path.join(self.state, "pid")
        # The launcher's PID, which the daemon keeps when it is started.
        self.pid = int(wait_until(lambda: read_file(pid_file).strip(), timeout,
                                  "the launcher"))
        if gate_open:
            self.open_gate()
        return self

    def open_gate(self):
        open(os.path.join(self.state, "go"), "w").close()

    def wait_exit(self, timeout=30):  # the daemon's (and so the board's) status
        try:
            self.exit_code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            pytest.fail(f"the daemon did not end within {timeout} s:\n" + self.log_text())
        return self.exit_code

    def signal(self, sig):
        os.kill(self.pid, sig)

    def stop(self):  # a complaint unless the daemon ended with status 0
        for proc in self._helpers:
            proc.kill()
            proc.wait()
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(20)
            except subprocess.TimeoutExpired:  # reported as status -9
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
        code, output = self.proc.returncode, self.board_output()[-4000:]
        self._out.close()
        shutil.rmtree(self.state, ignore_errors=True)
        if self.exit_code is None and code:
            return f"the daemon ended with status {code}:\n{output}"

    def board_output(self):
        self._out.flush()
        return read_file(self._out.name)

    @property
    def config_path(self):
        return os.path.join(self.state, "etc-encoder", "video.conf")

    def config_file(self):
        return parse_config(read_file(self.config_path))

    def ctl(self, *args, timeout=30):
        r = subprocess.run([Paths.ctl, "--state-dir", self.state, *args], capture_output=True,
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

    def regs(self, page):  # the page's 256 registers
        lines = self.ctl("regs", str(page)).splitlines()[2:]
        return [int(v, 16) for line in lines for v in line.split(":")[1].split()]

    def log_text(self):
        if self.proc.poll() is None:
            return self.ctl("log")
        return read_file(os.path.join(self.state, "syslog.log"))

    def log(self):  # the daemon's messages as (priority, text), no debug lines
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

    def _nsenter(self, cmd, user=None):  # user=NOBODY: an unprivileged caller
        return ["nsenter", "--target", str(self.pid), "--mount", "--", *(user or []), *cmd]

    def inside(self, *cmd, user=None):
        return subprocess.run(self._nsenter(cmd, user), capture_output=True, text=True,
                              timeout=30, env=CLIENT_ENV)

    def spawn_inside(self, *cmd):  # stopped with the board
        self._helpers.append(subprocess.Popen(
            self._nsenter(cmd), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, env=CLIENT_ENV))
        return self._helpers[-1]

    def call(self, method, *args, user=None, path=OBJECT, iface=SERVICE):
        """gdbus call: the reply's values as a tuple, or DBusError."""
        from gi.repository import GLib
        r = self.inside("gdbus", "call", "--system", "--dest", SERVICE, "--object-path", path,
                        "--method", f"{iface}.{method}", "--", *map(str, args), user=user)
        if r.returncode != 0:
            if not (m := GDBUS_ERROR.search(r.stderr)):
                pytest.fail(f"gdbus {method} {args}: {r.stderr.strip()}")
            raise DBusError(m.group(1), m.group(2).strip())
        return GLib.Variant.parse(None, r.stdout.strip(), None, None).unpack()

    def call_error(self, method, *args, user=None):  # (error name, message)
        with pytest.raises(DBusError) as e:
            self.call(method, *args, user=user)
        return e.value.args

    def get_property(self, name, channel=None, user=None):  # of the Encoder or a channel
        return self.call("Get", *((SERVICE,) if channel is None else (VIDEO,)), name, user=user,
                         path=OBJECT if channel is None else f"{OBJECT}/{channel}",
                         iface="org.freedesktop.DBus.Properties")[0]

    def wait_property(self, channel, name, value, timeout=30):
        wait_until(lambda: self.get_property(name, channel) == value, timeout,
                   f"{OBJECT}/{channel} {name} = {value!r}")

    def list_config(self):  # a dict per channel
        return [dict(zip(LIST_KEYS, row)) for row in self.call("ListConfig")[0]]

    def own_name(self, flags):
        """A process inside the board that owns the service's name with FLAGS;
        the returned function waits until it has said WORDS ("acquired lost")."""
        path = os.path.join(self.state, f"owner.{flags}")
        self.spawn_inside(sys.executable, "-c", NAME_OWNER, SERVICE, str(flags), path)
        return lambda words: wait_until(lambda: read_file(path).split() == words.split(),
                                        20, f"the name owner to say '{words}'")

    def send_ptz(self, data):
        r = self.inside(sys.executable, "-c", PTZ_CLIENT, data.hex())
        assert r.returncode == 0, r.stderr


@pytest.fixture
def boards():
    """`boards(chip=..., cameras=[...])`; at the end every daemon must stop with
    status 0, which under the sanitizer builds also means no error or leak."""
    started = []

    def make(gate_open=True, **kwargs):
        started.append(Board(**kwargs))
        return started[-1].start(gate_open=gate_open)

    yield make
    complaints = [c for c in (board.stop() for board in started) if c]
    if complaints:
        pytest.fail("\n".join(complaints))
