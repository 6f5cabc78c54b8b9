"""The build ($VINMAN_BUILD_DIR, default build/asan) and virtual boards around a command."""

import os
import shutil
import subprocess
import tempfile

import pytest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.abspath(os.path.join(REPO, os.environ.get("VINMAN_BUILD_DIR", "build/asan")))


class Paths:
    vboard = os.path.join(BUILD, "sim", "vboard", "vboard")
    ctl = os.path.join(BUILD, "sim", "vboard", "vboard-ctl")
    probe = os.path.join(BUILD, "sim", "probe", "vboard-probe")
    daemon = os.path.join(BUILD, "src", "vinmand")


def _skip_reason():
    if os.geteuid() != 0 or not os.path.exists("/dev/fuse"):
        return "the virtual board runs as root with /dev/fuse (mount namespace, FUSE)"
    for p in (Paths.vboard, Paths.ctl, Paths.probe):
        if not os.access(p, os.X_OK):
            return f"{p} is not built (set VINMAN_BUILD_DIR to the build directory)"
    return None if shutil.which("dbus-daemon") else "dbus-daemon is not installed"


def pytest_collection_modifyitems(config, items):
    for item in items if (reason := _skip_reason()) else []:
        if "integration" in str(item.fspath):
            item.add_marker(pytest.mark.skip(reason=reason))


def board_env():  # vboard-ctl and vboard-probe on the PATH, no outer board's state
    env = dict(os.environ)
    env["PATH"] = os.pathsep.join([os.path.dirname(Paths.ctl), os.path.dirname(Paths.probe),
                                   env.get("PATH", "")])
    env.pop("VBOARD_STATE_DIR", None)
    env.setdefault("ASAN_OPTIONS", "detect_leaks=1")
    return env


def run_board(script, *options, timeout=60):  # `vboard run OPTIONS -- sh -c SCRIPT`
    cmd = [Paths.vboard, "run", *options, "--", "sh", "-c", script]
    return subprocess.run(cmd, capture_output=True, text=True, timeout=timeout, env=board_env())


class RunningBoard:  # a board kept running around a sleep
    def __init__(self, *options):
        self.state = tempfile.mkdtemp(prefix="vboard-test.", dir="/tmp")
        self.proc = subprocess.Popen(
            [Paths.vboard, "run", "--state-dir", self.state, *options, "--", "sleep", "600"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            env=board_env())
        if subprocess.run([Paths.ctl, "--state-dir", self.state, "wait", "--timeout", "30",
                           "ready"], capture_output=True).returncode:
            self.stop()
            raise RuntimeError("board not ready: " + self.proc.stderr.read().decode())

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
    yield lambda *options: boards.append(RunningBoard(*options)) or boards[-1]
    for b in boards:
        b.stop()


@pytest.fixture
def boards():  # daemons on boards; each must end with status 0 (no sanitizer error or leak)
    from daemon import Board
    started = []

    yield lambda **kwargs: started.append(Board()) or started[-1].start(**kwargs)
    if complaints := [c for c in (board.stop() for board in started) if c]:
        pytest.fail("\n".join(complaints))
