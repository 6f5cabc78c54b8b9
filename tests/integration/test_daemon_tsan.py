"""Concurrency: the manager locks, loses and finds the cameras on every channel
while bus clients keep reading every channel's video object, GetVideoProperties
and ListConfig; then SIGTERM. Run with the ThreadSanitizer build of the daemon
($VINMAN_TSAN_BUILD_DIR, default build/tsan) and with the AddressSanitizer +
UndefinedBehaviorSanitizer build: the daemon stops with status 0, no sanitizer
speaks, every call is answered and no value is one no channel state can give."""

import json
import os
import signal

import pytest

import daemon
from daemon import ACQUIRED, wait_until
from daemon import boards  # noqa: F401  (the fixture of every scenario)

TSAN_BUILD = os.path.abspath(os.path.join(daemon.REPO, os.environ.get("VINMAN_TSAN_BUILD_DIR",
                                                                      "build/tsan")))
TSAN_VINMAND = os.path.join(TSAN_BUILD, "src", "vinmand")
TSAN_SUPPRESSIONS = os.path.join(daemon.REPO, "tools", "tsan", "glib.supp")
SANITIZER_REPORTS = ("ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:")

IRQ_SEEN = "Got video loss/detect on channel {ch}"
CLIENTS = 3
ROUNDS = 2

# Channels 0 and 3 need another capture mode than the pipeline's PAL, so the
# lock changes it (and their later loss is not acted on); 1 and 2 keep PAL
# and report every loss and return.
CAMERAS = {0: ("tvi", "1080p25"), 1: ("cvbs", "pal"), 2: ("cvbs", "pal"), 3: ("ahd", "720p30")}
REPORTS_LOSS = (1, 2)

# A client inside the board, on a connection of its own until the file argv[1]
# exists; then prints its counts as JSON. A torn or stale value is counted.
CLIENT = r"""
import json, os, sys
from gi.repository import Gio, GLib

bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
SERVICE, OBJECT = "com.korvi.Encoder", "/com/korvi/Encoder"
CAPTURE = {0, 1, 2, 4, 6, 7}
DETECTED = {"none", "PAL", "NTSC", "HDTV720p", "HDTV1080p", "HDTVQHD", "HDTV4K"}
STANDARDS = {"tvi", "ahd", "cvi", "cvbs", "none", "disabled"}
RESOLUTIONS = {"pal", "ntsc", "720p25", "720p30", "1080p25", "1080p30", "1440p15",
               "1440p25", "1440p30", "4k12", "4k15", "none", "disabled"}
counts = {"VideoType": 0, "DetectedType": 0, "GetVideoProperties": 0, "ListConfig": 0}
errors, odd = [], []

def call(path, iface, method, args, reply):
    try:
        return bus.call_sync(SERVICE, path, iface, method, args, GLib.VariantType(reply),
                             Gio.DBusCallFlags.NONE, 30000, None).unpack()
    except GLib.Error as e:
        errors.append(f"{method}: {e.message}")
        return None

while not os.path.exists(sys.argv[1]):
    for ch in range(4):
        for prop in ("VideoType", "DetectedType"):
            r = call(f"{OBJECT}/{ch}", "org.freedesktop.DBus.Properties", "Get",
                     GLib.Variant("(ss)", ("com.korvi.Encoder.Video", prop)), "(v)")
            if r is not None:
                counts[prop] += 1
                if r[0] not in (CAPTURE if prop == "VideoType" else DETECTED):
                    odd.append(f"{prop} {ch} {r[0]!r}")
        r = call(OBJECT, SERVICE, "GetVideoProperties", GLib.Variant("(i)", (ch,)), "(biddb)")
        if r is not None:
            counts["GetVideoProperties"] += 1
            is_sd, standard, factor, rate, _ = r
            if (is_sd != (standard in (0, 1)) or factor != (2.75 if is_sd else 1.0)
                    or standard not in CAPTURE | {-1} or not 0 < rate <= 60):
                odd.append(f"GetVideoProperties {ch} {r!r}")
    r = call(OBJECT, SERVICE, "ListConfig", None, "(a(uuuuuiissbb))")
    if r is not None:
        counts["ListConfig"] += 1
        rows = r[0]  # "none" goes with whatever format the chip had programmed
        if len(rows) != 4 or any(row[7] not in STANDARDS
                                 or (row[7] != "none" and row[8] not in RESOLUTIONS)
                                 for row in rows):
            odd.append(f"ListConfig {rows!r}")
print(json.dumps({"counts": counts, "errors": errors[:20], "odd": odd[:20]}), flush=True)
"""


@pytest.fixture(params=["tsan", "asan"])
def sanitized_daemon(request, monkeypatch):
    if request.param == "tsan":
        if not os.access(TSAN_VINMAND, os.X_OK):
            pytest.skip(f"{TSAN_VINMAND} is not built (build {TSAN_BUILD} with "
                        "CMAKE_BUILD_TYPE=Tsan or set VINMAN_TSAN_BUILD_DIR)")
        monkeypatch.setattr(daemon, "VINMAND", TSAN_VINMAND)
        monkeypatch.setenv("TSAN_OPTIONS",
                           f"halt_on_error=0:second_deadlock_stack=1:"
                           f"suppressions={TSAN_SUPPRESSIONS}")
    else:
        monkeypatch.setenv("ASAN_OPTIONS", "detect_leaks=1:abort_on_error=1")
        monkeypatch.setenv("UBSAN_OPTIONS", "print_stacktrace=1:halt_on_error=1")
    return request.param


def irq_count(board, ch):
    return board.messages().count(IRQ_SEEN.format(ch=ch))


def toggle_all(board, plug):
    """Unplugs (or plugs back) every camera; waits for the manager to see each
    change and, where loss is reported, for the event."""
    before = {ch: irq_count(board, ch) for ch in CAMERAS}
    for ch, (standard, resolution) in CAMERAS.items():
        if plug:
            board.ctl("plug", str(ch), standard, resolution)
        else:
            board.ctl("unplug", str(ch))
    for ch in CAMERAS:
        wait_until(lambda: irq_count(board, ch) > before[ch], 30,
                   f"the manager to see channel {ch} {'plugged' if plug else 'unplugged'}")
    for ch in REPORTS_LOSS:
        board.wait("connected", ch, "1" if plug else "0", timeout=30)


def test_cameras_come_and_go_while_clients_read(boards, sanitized_daemon):
    board = boards(chip="tp2827",
                   cameras=[f"{ch}:{s}:{r}" for ch, (s, r) in CAMERAS.items()])
    board.wait_log(ACQUIRED, timeout=30)
    stop_file = os.path.join(board.state, "clients.stop")
    clients = [board.spawn_inside("/usr/bin/python3", "-c", CLIENT, stop_file)
               for _ in range(CLIENTS)]

    # The first locks happen while the clients read: detection, capture
    # mode changes, publication and the configuration file.
    wait_until(lambda: [(r["standard"], r["resolution"]) for r in board.list_config()]
               == list(CAMERAS.values()), 60, "the daemon to lock every channel")
    for _ in range(ROUNDS):
        toggle_all(board, plug=False)
        toggle_all(board, plug=True)
    for ch in REPORTS_LOSS:
        board.wait("connected", ch, "1")

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
