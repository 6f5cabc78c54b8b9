"""Cameras come and go while clients read, under TSan ($VINMAN_TSAN_BUILD_DIR) and ASan."""

import os
import signal

import pytest

from daemon import ACQUIRED, REPO, Paths, wait_until

TSAN_BUILD = os.path.join(REPO, os.environ.get("VINMAN_TSAN_BUILD_DIR", "build/tsan"))
# 0 and 3 need another capture mode than PAL (their loss is then not acted on), 1 and 2 not.
CAMERAS = {0: ("tvi", "1080p25"), 1: ("cvbs", "pal"), 2: ("cvbs", "pal"), 3: ("ahd", "720p30")}
# Calls until the file $0 exists; one line a round: PASS, or the method that failed.
CLIENT = """E=com.korvi.Encoder O=/com/korvi/Encoder
call() { gdbus call --system --dest $E -o "$1" -m "$2" -- $3 > /dev/null || r="FAIL $2"; }
while [ ! -e "$0" ]; do r=PASS
  for ch in 0 1 2 3; do call $O/$ch org.freedesktop.DBus.Properties.GetAll $E.Video
    call $O $E.GetVideoProperties $ch; done; call $O $E.ListConfig; echo $r; done"""


@pytest.fixture(params=["tsan", "asan"])  # asan: the build's own daemon, ASan+UBSan
def sanitized_daemon(request, monkeypatch):
    if request.param == "tsan":
        daemon = os.path.join(TSAN_BUILD, "src", "vinmand")
        if not os.access(daemon, os.X_OK):
            pytest.skip(f"{daemon} is not built (set VINMAN_TSAN_BUILD_DIR)")
        monkeypatch.setattr(Paths, "daemon", daemon)
        monkeypatch.setenv("TSAN_OPTIONS", "halt_on_error=0:second_deadlock_stack=1:suppressions="
                           + os.path.join(REPO, "tools", "tsan", "glib.supp"))
    return request.param


def test_cameras_come_and_go_while_clients_read(boards, sanitized_daemon):
    board = boards(chip="tp2827", cameras=[f"{ch}:{s}:{r}" for ch, (s, r) in CAMERAS.items()])
    board.wait_log(ACQUIRED)
    stop_file = os.path.join(board.state, "clients.stop")
    clients = [board.inside("sh", "-c", CLIENT, stop_file, spawn=True) for _ in range(3)]
    # The first locks happen while the clients read.
    wait_until(lambda: [(r["standard"], r["resolution"]) for r in board.list_config()]
               == list(CAMERAS.values()), 60, "the daemon to lock every channel")
    seen = lambda ch: board.messages().count(f"Got video loss/detect on channel {ch}")  # noqa
    for plug in (False, True, False, True):
        before = {ch: seen(ch) for ch in CAMERAS}
        for ch, camera in CAMERAS.items():
            board.ctl(*(["plug", str(ch), *camera] if plug else ["unplug", str(ch)]))
        for ch in CAMERAS:
            wait_until(lambda: seen(ch) > before[ch], 30, f"the manager to see channel {ch}")
        for ch in (1, 2):
            board.wait("connected", ch, "1" if plug else "0")

    open(stop_file, "w").close()
    rounds = [proc.communicate(timeout=60)[0].splitlines() for proc in clients]
    os.kill(board.pid, signal.SIGTERM)
    status = board.wait_exit(timeout=60)
    output = board.board_output()  # the sanitizers write to the daemon's stderr
    found = [w for w in ("ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:")
             if w in output]
    assert not found and status == 0, f"{sanitized_daemon}: {found}, {status}\n{output[-8000:]}"
    assert board.messages()[-1] == "vinmand stopped."
    assert all(r and set(r) == {"PASS"} for r in rounds), [set(r) for r in rounds]
