"""Where the build is ($VINMAN_BUILD_DIR, default build/asan) and how to start
a virtual board around a command. The board needs root and FUSE; without them
the scenarios are skipped with the reason."""

import os
import shutil
import subprocess
import tempfile
import time

import pytest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.abspath(os.path.join(REPO, os.environ.get("VINMAN_BUILD_DIR", "build/asan")))


class Paths:
    vboard = os.path.join(BUILD, "sim", "vboard", "vboard")
    ctl = os.path.join(BUILD, "sim", "vboard", "vboard-ctl")
    probe = os.path.join(BUILD, "sim", "probe", "vboard-probe")
    daemon = os.path.join(BUILD, "src", "vinmand")


def _skip_reason():
    if os.geteuid() != 0:
        return "the virtual board's integration tests run as root (mount namespace, FUSE)"
    if not os.path.exists("/dev/fuse"):
        return "no /dev/fuse on this machine"
    for p in (Paths.vboard, Paths.ctl, Paths.probe):
        if not os.access(p, os.X_OK):
            return f"{p} is not built (set VINMAN_BUILD_DIR to the build directory)"
    if shutil.which("dbus-daemon") is None:
        return "dbus-daemon is not installed"
    return None


def pytest_collection_modifyitems(config, items):
    if reason := _skip_reason():
        for item in items:
            if "integration" in str(item.fspath):
                item.add_marker(pytest.mark.skip(reason=reason))


def board_env():
    """vboard-ctl and vboard-probe on the PATH, no outer board's state."""
    env = dict(os.environ)
    env["PATH"] = os.pathsep.join([os.path.dirname(Paths.ctl), os.path.dirname(Paths.probe),
                                   env.get("PATH", "")])
    env.pop("VBOARD_STATE_DIR", None)
    env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
    return env


def run_board(script, *options, timeout=60):
    """Runs `vboard run OPTIONS -- sh -c SCRIPT` to its end."""
    cmd = [Paths.vboard, "run", *options, "--", "sh", "-c", script]
    return subprocess.run(cmd, capture_output=True, text=True, timeout=timeout, env=board_env())


class RunningBoard:
    """A board kept running around a sleep."""

    def __init__(self, *options):
        self.state = tempfile.mkdtemp(prefix="vboard-test.", dir="/tmp")
        self.proc = subprocess.Popen(
            [Paths.vboard, "run", "--state-dir", self.state, *options, "--", "sleep", "600"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            env=board_env())
        deadline = time.monotonic() + 30
        while not os.path.exists(os.path.join(self.state, "ready")):
            if self.proc.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise RuntimeError("board not ready: " + self.proc.stderr.read().decode())
            time.sleep(0.02)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
        try:
            self.proc.wait(30)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        shutil.rmtree(self.state, ignore_errors=True)


@pytest.fixture
def board_factory():
    boards = []

    def make(*options, **kwargs):
        boards.append(RunningBoard(*options, **kwargs))
        return boards[-1]

    yield make
    for b in boards:
        b.stop()
