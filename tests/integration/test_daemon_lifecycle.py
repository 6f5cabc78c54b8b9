"""The daemon's life on the virtual board: start-up, shutdown on a signal, a
board without a chip, and the bus name taken over in both directions."""

import os
import signal
import stat

import pytest

from daemon import (ALLOW_REPLACEMENT, OBJECT, REPLACE, SERVICE, VIDEO, in_order,
                    next_line, parse_config, require_root)
from daemon import boards  # noqa: F401  (the fixture of every scenario)

pytestmark = require_root()

ACQUIRED = f"Acquired '{SERVICE}' on D-Bus message bus."
CONNECTION = f"Connection open for '{SERVICE}' on D-Bus message bus."
NOT_ACQUIRED = f"Could not acquire '{SERVICE}' on D-Bus message bus."


@pytest.mark.parametrize("chip,cpuid", [("tp2827", True), ("tp2826", False)])
def test_startup_announces_every_channel_and_writes_the_default_configuration(boards, chip,
                                                                             cpuid):
    board = boards(chip=chip, capture_modes=["2:1080p"], cpuid=cpuid)
    board.wait_log(ACQUIRED)

    messages = board.messages()
    expected = ["Starting vinmand.", "Init overlay handler"]
    if chip == "tp2827":
        expected += ["Starting PTZ thread"]
    expected += [CONNECTION, "Starting manager thread", ACQUIRED]
    in_order(messages, expected)
    assert messages[0] == "Starting vinmand."
    if chip == "tp2826":
        assert not [m for m in messages if "ptz" in m.lower()]
    assert all(priority >= 6 for priority, _ in board.log()), board.log()

    # One "connected" = false event per channel, sent while the decoder is created.
    for ch in range(4):
        assert board.get("events", ch) == "1"
        assert board.get("connected", ch) == "0"

    # No configuration file yet: the default one, every channel automatic.
    assert board.first_config is not None
    first = parse_config(board.first_config)
    assert list(first) == [f"Channel {ch}" for ch in range(4)]
    for group in first.values():
        assert list(group.items()) == [("standard", "5"), ("resolution", "31"),
                                       ("auto", "true"), ("configured", "false")]

    # The video objects, and only them, with nothing detected yet; the video
    # type follows the capture pipeline's mode (channel 2 starts in 1080p).
    reply = board.busctl("call", SERVICE, OBJECT, "org.freedesktop.DBus.ObjectManager",
                         "GetManagedObjects")
    objects = reply["data"][0]
    assert sorted(objects) == [f"{OBJECT}/{ch}" for ch in range(4)]
    for ch in range(4):
        props = objects[f"{OBJECT}/{ch}"][VIDEO]
        assert props["DetectedType"]["data"] == "none"
        assert props["VideoType"]["data"] == (4 if ch == 2 else 0)
    # A board with the cpuid_bit0 line is a multi-device one.
    assert board.busctl("get-property", SERVICE, OBJECT, SERVICE,
                        "MultiDeviceProperties")["data"] is cpuid

    # Channels without video get the no-video text once the manager has run.
    for ch in range(4):
        board.wait("overlay", ch, "VIDEO_LOSS")
    assert board.get("events", 0) == "1"


@pytest.mark.parametrize("chip,sig", [("tp2827", signal.SIGTERM), ("tp2826", signal.SIGINT)])
def test_signal_stops_the_threads_in_order_and_exits_0(boards, chip, sig):
    board = boards(chip=chip)
    board.wait_log(ACQUIRED)
    socket_path = os.path.join(board.state, "run-vidhostd", "coax.socket")
    if chip == "tp2827":
        board.wait_log("Starting ptz runner")
        mode = os.stat(socket_path).st_mode
        assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o775
    else:
        assert not os.path.exists(socket_path)

    board.signal(sig)
    assert board.wait_exit() == 0

    messages = board.messages()
    expected = [f"Recived signal '{sig.name}', shutting down.", "vinmand stopping.",
                "Stopping manager thread", "Manager thread exit", "Stopped manager thread"]
    if chip == "tp2827":
        expected += ["Stopping PTZ thread", "Stopped PTZ thread"]
    expected += ["vinmand cleaning up.", "vinmand stopped."]
    in_order(messages, expected)
    assert messages[-1] == "vinmand stopped."
    assert messages.count("vinmand stopped.") == 1
    if chip == "tp2826":
        assert not [m for m in messages if "ptz" in m.lower()]
        assert not os.path.exists(socket_path)


def test_board_without_chip_ends_at_once_with_status_0(boards):
    board = boards(chip="tp2826", gate_open=False)
    board.ctl("fault", "chip", "absent")
    board.open_gate()
    assert board.wait_exit() == 0

    log = board.log()
    messages = [text for _, text in log]
    in_order(messages, ["Starting vinmand.", "still no valid video source",
                        "No valid decoder setup.", "vinmand stopped."])
    assert (3, "No valid decoder setup.") in log
    assert messages[-1] == "vinmand stopped."
    for never in (CONNECTION, ACQUIRED, "Starting manager thread", "vinmand stopping.",
                  "vinmand cleaning up."):
        assert never not in messages
    assert board.first_config is None


def test_bus_name_is_taken_over_both_ways_and_the_manager_keeps_running(boards):
    board = boards(chip="tp2827", gate_open=False)
    first, first_lines = board.own_name(ALLOW_REPLACEMENT)
    assert next_line(first_lines) == "acquired"

    board.open_gate()
    board.wait_log(ACQUIRED)
    assert next_line(first_lines) == "lost"

    second, second_lines = board.own_name(REPLACE)
    assert next_line(second_lines) == "acquired"
    board.wait_log(NOT_ACQUIRED)
    assert (3, NOT_ACQUIRED) in board.log()

    # Still serving the chip: a camera plugged now is detected and locked.
    board.ctl("plug", "0", "tvi", "1080p25")
    board.wait_log("Accepted lock on new video type, update video config file: "
                   "type 3 on channel 0, video type = 0", timeout=45)
    board.wait("capture-mode", 0, "3")
    board.wait("connected", 0, "1")
    assert board.daemon_pid and os.path.exists(f"/proc/{board.daemon_pid}")
    assert "vinmand stopping." not in board.messages()

    board.signal(signal.SIGTERM)
    assert board.wait_exit() == 0
