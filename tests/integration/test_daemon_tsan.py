"""Cameras locked, lost and found on every channel while bus clients read the
video objects, GetVideoProperties and ListConfig, then SIGTERM; with the TSan
daemon ($VINMAN_TSAN_BUILD_DIR) and the ASan+UBSan one: status 0, no sanitizer
report, every call answered, no value that no channel state can give."""

import json
import os
import signal

import pytest

from daemon import ACQUIRED, REPO, Paths, wait_until
from daemon import boards  # noqa: F401  (the fixture of every scenario)

TSAN_VINMAND = os.path.join(REPO, os.environ.get("VINMAN_TSAN_BUILD_DIR", "build/tsan"), "src",
                            "vinmand")
SANITIZER_REPORTS = ("ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:")
# Channels 0 and 3 need another capture mode than the pipeline's PAL, so the
# lock changes it (and their later loss is not acted on); 1 and 2 keep PAL
# and report every loss and return.
CAMERAS = {0: ("tvi", "1080p25"), 1: ("cvbs", "pal"), 2: ("cvbs", "pal"), 3: ("ahd", "720p30")}

# Reads on a connection of its own until the file argv[1] exists, then prints
# its counts, errors and impossible values as JSON.
CLIENT = r"""
import json, os, sys
from gi.repository import Gio, GLib

bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
SERVICE, OBJECT = "com.korvi.Encoder", "/com/korvi/Encoder"
VALID = {"VideoType": {0, 1, 2, 4, 6, 7},
         "DetectedType": {"none", "PAL", "NTSC", "HDTV720p", "HDTV1080p", "HDTVQHD", "HDTV4K"}}
STANDARDS = {"tvi", "ahd", "cvi", "cvbs", "none", "disabled"}
RESOLUTIONS = {"pal", "ntsc", "720p25", "720p30", "1080p25", "1080p30", "1440p15", "1440p25",
               "1440p30", "4k12", "4k15", "none", "disabled"}
counts = dict.fromkeys(["VideoType", "DetectedType", "GetVideoProperties", "ListConfig"], 0)
errors, odd = [], []

def call(path, iface, method, args, reply):
    try:
        r = bus.call_sync(SERVICE, path, iface, method, args, GLib.VariantType(reply),
                          Gio.DBusCallFlags.NONE, 30000, None).unpack()
        counts[args[1] if method == "Get" else method] += 1
        return r
    except GLib.Error as e:
        errors.append(f"{method}: {e.message}")

while not os.path.exists(sys.argv[1]):
    for ch in range(4):
        for prop in VALID:
            r = call(f"{OBJECT}/{ch}", "org.freedesktop.DBus.Properties", "Get",
                     GLib.Variant("(ss)", ("com.korvi.Encoder.Video", prop)), "(v)")
            if r is not None and r[0] not in VALID[prop]:
                odd.append(f"{prop} {ch} {r[0]!r}")
        r = call(OBJECT, SERVICE, "GetVideoProperties", GLib.Variant("(i)", (ch,)), "(biddb)")
        if r is not None:
            is_sd, standard, factor, rate, _ = r
            if (is_sd != (standard in (0, 1)) or factor != (2.75 if is_sd else 1.0)
                    or standard not in VALID["VideoType"] | {-1} or not 0 < rate <= 60):
                odd.append(f"GetVideoProperties {ch} {r!r}")
    r = call(OBJECT, SERVICE, "ListConfig", None, "(a(uuuuuiissbb))")
    # "none" goes with whatever format the chip had programmed
    if r is not None and (len(r[0]) != 4 or any(row[7] not in STANDARDS or (
            row[7] != "none" and row[8] not in RESOLUTIONS) for row in r[0])):
        odd.append(f"ListConfig {r[0]!r}")
print(json.dumps({"counts": counts, "errors": errors[:20], "odd": odd[:20]}), flush=True)
"""


@pytest.fixture(params=["tsan", "asan"])
def sanitized_daemon(request, monkeypatch):
    if request.param == "tsan":
        if not os.access(TSAN_VINMAND, os.X_OK):
            pytest.skip(f"{TSAN_VINMAND} is not built (set VINMAN_TSAN_BUILD_DIR)")
        monkeypatch.setattr(Paths, "daemon", TSAN_VINMAND)
        monkeypatch.setenv("TSAN_OPTIONS", "halt_on_error=0:second_deadlock_stack=1:suppressions="
                           + os.path.join(REPO, "tools", "tsan", "glib.supp"))
    else:
        monkeypatch.setenv("ASAN_OPTIONS", "detect_leaks=1:abort_on_error=1")
        monkeypatch.setenv("UBSAN_OPTIONS", "print_stacktrace=1:halt_on_error=1")
    return request.param


def toggle_all(board, plug):
    """Unplugs (or plugs back) every camera; waits for the manager to see it."""
    seen = lambda ch: board.messages().count(f"Got video loss/detect on channel {ch}")  # noqa
    before = {ch: seen(ch) for ch in CAMERAS}
    for ch, camera in CAMERAS.items():
        board.ctl(*(["plug", str(ch), *camera] if plug else ["unplug", str(ch)]))
    for ch in CAMERAS:
        wait_until(lambda: seen(ch) > before[ch], 30, f"the manager to see channel {ch} change")
    for ch in (1, 2):
        board.wait("connected", ch, "1" if plug else "0")


def test_cameras_come_and_go_while_clients_read(boards, sanitized_daemon):
    board = boards(chip="tp2827", cameras=[f"{ch}:{s}:{r}" for ch, (s, r) in CAMERAS.items()])
    board.wait_log(ACQUIRED)
    stop_file = os.path.join(board.state, "clients.stop")
    clients = [board.spawn_inside("/usr/bin/python3", "-c", CLIENT, stop_file) for _ in range(3)]
    # The first locks happen while the clients read: detection, capture
    # mode changes, publication and the configuration file.
    wait_until(lambda: [(r["standard"], r["resolution"]) for r in board.list_config()]
               == list(CAMERAS.values()), 60, "the daemon to lock every channel")
    for _ in range(2):
        toggle_all(board, plug=False)
        toggle_all(board, plug=True)

    open(stop_file, "w").close()
    reports = []
    for proc in clients:
        out, _ = proc.communicate(timeout=60)
        assert proc.returncode == 0, out
        reports.append(json.loads(out.strip().splitlines()[-1]))
    board.signal(signal.SIGTERM)
    status = board.wait_exit(timeout=60)
    # The sanitizers write to the daemon's stderr, which the board passes on.
    output = board.board_output()
    found = [word for word in SANITIZER_REPORTS if word in output]
    first = min((output.index(word) for word in found), default=0)
    assert not found, f"{sanitized_daemon} daemon reported {found}:\n{output[first:first + 8000]}"
    assert status == 0, output[-4000:] + board.log_text()[-4000:]
    assert board.messages()[-1] == "vinmand stopped."
    for report in reports:
        assert report["errors"] == [] and report["odd"] == [], report
        assert all(n > 0 for n in report["counts"].values()), report
