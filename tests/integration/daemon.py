"""The unmodified vinmand on a virtual board, clients in its mount namespace."""

import configparser
import ctypes
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import pytest

from conftest import REPO, Paths, board_env

SERVICE, OBJECT, VIDEO = "com.korvi.Encoder", "/com/korvi/Encoder", "com.korvi.Encoder.Video"
ERROR = "com.korvi.Encoder.Error."
ACQUIRED = f"Acquired '{SERVICE}' on D-Bus message bus."
NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
# Leaves its PID (the daemon's) and execs the daemon once a "go" file is there.
LAUNCHER = ('echo $$ > "$VBOARD_STATE_DIR/pid"; '
            'until [ -e "$VBOARD_STATE_DIR/go" ]; do sleep 0.02; done; exec "$0"')
SYSLOG_LINE = re.compile(r"^<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d ([^\[:]+)\[(\d+)\]: ?(.*)$")
# Owns the name argv[1] with the flags argv[2]; appends each change of ownership to argv[3].
NAME_OWNER = """import sys
from gi.repository import Gio, GLib
say = lambda text: lambda c, n: open(sys.argv[3], "a").write(text + " ")
Gio.bus_own_name(Gio.BusType.SYSTEM, sys.argv[1], Gio.BusNameOwnerFlags(int(sys.argv[2])), None,
                 say("acquired"), say("lost"))
GLib.MainLoop().run()"""
PTZ_CLIENT = ("import socket, sys; s = socket.socket(socket.AF_UNIX); "
              "s.connect('/run/vidhostd/coax.socket'); s.sendall(bytes.fromhex(sys.argv[1]))")
# Clients find the board's bus at its fixed path, never one of the caller's.
CLIENT_ENV = {k: v for k, v in os.environ.items() if k != "DBUS_SYSTEM_BUS_ADDRESS"}
LIST_KEYS = ("saturation", "brightness", "contrast", "hue", "sharpness", "xoffset", "yoffset",
             "standard", "resolution", "auto", "capture_mode_changed")


class DBusError(Exception):  # (error name, message)
    pass


def wait_until(condition, timeout, what):  # condition()'s first true value
    deadline = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > deadline:
            pytest.fail(f"timed out after {timeout} s waiting for {what}")
        time.sleep(0.05)
    return value


def read_file(path):
    return pathlib.Path(path).read_text(errors="replace") if os.path.exists(path) else ""


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
    def start(self, chip="tp2827", cameras=(), config=None, capture_modes=(), cpuid=True,
              gate_open=True):
        self.state = tempfile.mkdtemp(prefix="vd.", dir="/tmp")
        self.exit_code, self._helpers = None, []
        cmd = [Paths.vboard, "run", "--state-dir", self.state, "--chip", chip, "--policy",
               os.path.join(REPO, "data", f"{SERVICE}.conf"), *([] if cpuid else ["--no-cpuid"])]
        cmd += [x for cam in cameras for x in ("--camera", cam)]
        cmd += [x for mode in capture_modes for x in ("--capture-mode", mode)]
        if config is not None:
            pathlib.Path(self.state, "seed.conf").write_text(config)
            cmd += ["--config", os.path.join(self.state, "seed.conf")]
        self._out = open(os.path.join(self.state, "vboard.out"), "w+b")
        # Its own session, and SIGTERM should the test runner die.
        self.proc = subprocess.Popen(
            [*cmd, "--", "/bin/sh", "-c", LAUNCHER, Paths.daemon], stdin=subprocess.DEVNULL,
            stdout=self._out, stderr=subprocess.STDOUT, env=board_env(), start_new_session=True,
            preexec_fn=lambda: ctypes.CDLL(None).prctl(1, signal.SIGTERM))
        self.ctl("wait", "--timeout", "30", "ready", timeout=40)
        pid_file = os.path.join(self.state, "pid")  # the launcher's, which the daemon keeps
        self.pid = int(wait_until(lambda: read_file(pid_file).strip(), 30, "the launcher"))
        if gate_open:
            self.open_gate()
        return self

    def open_gate(self):
        open(os.path.join(self.state, "go"), "w").close()

    def wait_exit(self, timeout=30):  # the daemon's (and so the board's) status
        self.exit_code = self.proc.wait(timeout)
        return self.exit_code

    def stop(self):  # a complaint unless the daemon ended with status 0
        [proc.kill() or proc.wait() for proc in self._helpers]
        self.proc.terminate()  # nothing if it has ended
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

    def config_file(self, raw=False):
        text = read_file(os.path.join(self.state, "etc-encoder", "video.conf"))
        return text if raw else parse_config(text)

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

    def log(self):  # the daemon's messages as (priority, text), no debug lines
        text = self.ctl("log") if self.proc.poll() is None else read_file(
            os.path.join(self.state, "syslog.log"))
        matches = map(SYSLOG_LINE.match, text.splitlines())
        return [(int(m.group(1)) & 7, m.group(4)) for m in matches
                if m and m.group(2) == "vinmand" and int(m.group(1)) & 7 <= 6]

    def messages(self, start=0):
        return [text for _, text in self.log()][start:]

    def wait_log(self, text, timeout=30):
        self.ctl("wait", "--timeout", str(timeout), "log", text, timeout=timeout + 10)

    def inside(self, *cmd, user=None, spawn=False):  # user=NOBODY: an unprivileged caller
        cmd = ["nsenter", "--target", str(self.pid), "--mount", "--", *(user or []), *cmd]
        if not spawn:
            return subprocess.run(cmd, capture_output=True, text=True, timeout=30, env=CLIENT_ENV)
        self._helpers.append(subprocess.Popen(  # stopped with the board
            cmd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, env=CLIENT_ENV))
        return self._helpers[-1]

    def call(self, method, *args, user=None, path=OBJECT, iface=SERVICE):  # or DBusError
        from gi.repository import GLib
        r = self.inside("gdbus", "call", "--system", "--dest", SERVICE, "--object-path", path,
                        "--method", f"{iface}.{method}", "--", *map(str, args), user=user)
        if r.returncode != 0:
            if not (m := re.search(r"GDBus\.Error:([\w.]+): (.*)", r.stderr)):
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

    def wait_property(self, channel, name, value):
        wait_until(lambda: self.get_property(name, channel) == value, 30, f"{channel} {name}")

    def list_config(self):  # a dict per channel
        return [dict(zip(LIST_KEYS, row)) for row in self.call("ListConfig")[0]]

    def own_name(self, flags):  # 1: allow replacement, 2: replace; a wait for its words
        path = os.path.join(self.state, f"owner.{flags}")
        self.inside(sys.executable, "-c", NAME_OWNER, SERVICE, str(flags), path, spawn=True)
        return lambda words: wait_until(lambda: read_file(path).split() == words.split(),
                                        20, f"the name owner to say '{words}'")

    def send_ptz(self, data):
        r = self.inside(sys.executable, "-c", PTZ_CLIENT, data.hex())
        assert r.returncode == 0, r.stderr


LOCK = "Accepted lock on new video type, update video config file: type {} on channel {}, video "
CHANGED = "VIDEO_INPUT_CONFIGURATION_CHANGED"
# Once locked: type, standard, capture mode, frequency, DetectedType, VideoType, video type.
CAMERAS = {"tvi:1080p25": (3, 0, 3, "50Hz", "HDTV1080p", 4, 0, (False, 4, 1.0, 25.0)),
           "cvbs:pal": (8, 3, 1, "50Hz", "PAL", 0, 1, (True, 0, 2.75, 25.0)),
           "cvbs:ntsc": (9, 3, 2, "60Hz", "NTSC", 1, 2, (True, 1, 2.75, 30.0)),
           "ahd:720p30": (4, 1, 4, "60Hz", "HDTV720p", 2, 0, (False, 2, 1.0, 30.0))}


def check_taken(board, ch, camera, auto, mode_changed, published_type=None):
    vtype, standard, mode, freq, detected, video_type, setting, props = CAMERAS[camera]
    board.wait("connected", ch, "1", timeout=45)
    board.wait_property(ch, "DetectedType", detected)
    board.wait("overlay", ch, CHANGED if mode_changed else "-")
    group = wait_until(lambda: (g := board.config_file()[f"Channel {ch}"])["configured"] == "true"
                       and g, 15, f"channel {ch} saved as configured")
    assert group == {"standard": str(standard), "resolution": str(vtype),
                     "auto": "true" if auto else "false", "configured": "true"}
    assert board.get_property("VideoType", ch) == (
        video_type if published_type is None else published_type)
    row = board.list_config()[ch]
    assert [row[k] for k in ("standard", "resolution", "auto", "capture_mode_changed")] == [
        *camera.split(":"), auto, mode_changed]
    assert board.call("GetVideoProperties", ch) == (*props, mode_changed)
    status = board.status()
    c, overlay = status["channels"][ch], status["services"]["overlay"][ch]
    # connected = true sent once, after the start-up's false
    assert [c["locked"], c["capture_mode"], c["capture_frequency"], c["video_type"], c["events"],
            status["services"]["capture"][ch]["set_capture_mode_calls"]] == [
        True, mode, freq, setting, 2, int(mode_changed)]
    # Every text shown was removed again but the configuration change's.
    assert overlay["unset_calls"] == overlay["set_calls"] - mode_changed, overlay
