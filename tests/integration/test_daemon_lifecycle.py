"""The daemon's life on the virtual board: start-up, shutdown on a signal, and
the bus name taken over in both directions. (No chip: the fault matrix.)"""

import os
import signal
import stat

import pytest

from daemon import (ACQUIRED, ALLOW_REPLACEMENT, NOBODY, OBJECT, REPLACE, SERVICE, VIDEO,
                    in_order, parse_config, read_file, wait_until)
from daemon import boards  # noqa: F401  (the fixture of every scenario)

DEFAULT_GROUP = [("standard", "5"), ("resolution", "31"), ("auto", "true"), ("configured", "false")]


@pytest.mark.parametrize("chip,cpuid,sig", [("tp2827", True, signal.SIGTERM),
                                            ("tp2826", False, signal.SIGINT)])
def test_start_up_then_a_signal_stops_the_threads_in_order(boards, chip, cpuid, sig):
    board = boards(chip=chip, capture_modes=["2:1080p"], cpuid=cpuid, gate_open=False)
    board.open_gate()
    first_config = wait_until(lambda: read_file(board.config_path), 20, "the configuration file")
    board.wait_log(ACQUIRED)
    ptz = chip == "tp2827"  # only the TP2827 relays PTZ records
    in_order(board.messages(), [
        "Starting vinmand.", "Init overlay handler", *(["Starting PTZ thread"] if ptz else []),
        f"Connection open for '{SERVICE}' on D-Bus message bus.", "Starting manager thread",
        ACQUIRED])
    assert board.messages()[0] == "Starting vinmand."
    assert all(priority >= 6 for priority, _ in board.log()), board.log()
    # One "connected" = false event per channel, sent while the decoder is created.
    assert [(board.get("events", ch), board.get("connected", ch)) for ch in range(4)] == \
        [("1", "0")] * 4
    # No configuration file yet: the default one, every channel automatic.
    assert [(g, list(keys.items())) for g, keys in parse_config(first_config).items()] \
        == [(f"Channel {ch}", DEFAULT_GROUP) for ch in range(4)]

    # The video objects, and only them, with nothing detected yet, readable by
    # anyone; the video type follows the capture pipeline's mode (channel 2
    # starts in 1080p).
    objects = board.call("GetManagedObjects", iface="org.freedesktop.DBus.ObjectManager",
                         user=NOBODY)[0]
    assert {path: (o[VIDEO]["DetectedType"], o[VIDEO]["VideoType"])
            for path, o in objects.items()} == {
        f"{OBJECT}/{ch}": ("none", 4 if ch == 2 else 0) for ch in range(4)}
    # A board with the cpuid_bit0 line is a multi-device one.
    assert board.get_property("MultiDeviceProperties", user=NOBODY) is cpuid
    # Channels without video get the no-video text once the manager has run.
    for ch in range(4):
        board.wait("overlay", ch, "VIDEO_LOSS")
    assert board.get("events", 0) == "1"

    socket_path = os.path.join(board.state, "run-vidhostd", "coax.socket")
    if ptz:
        board.wait_log("Starting ptz runner")
        mode = os.stat(socket_path).st_mode
        assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o775
    board.signal(sig)
    assert board.wait_exit() == 0
    messages = board.messages()
    in_order(messages, [f"Recived signal '{sig.name}', shutting down.", "vinmand stopping.",
                        "Stopping manager thread", "Manager thread exit", "Stopped manager thread",
                        *(["Stopping PTZ thread", "Stopped PTZ thread"] if ptz else []),
                        "vinmand cleaning up.", "vinmand stopped."])
    assert messages.count("vinmand stopped.") == 1 and messages[-1] == "vinmand stopped."
    if not ptz:
        assert not [m for m in messages if "ptz" in m.lower()]
        assert not os.path.exists(socket_path)


def test_bus_name_is_taken_over_both_ways_and_the_manager_keeps_running(boards):
    board = boards(chip="tp2827", gate_open=False)
    first = board.own_name(ALLOW_REPLACEMENT)
    first("acquired")
    board.open_gate()
    board.wait_log(ACQUIRED)
    first("acquired lost")
    board.own_name(REPLACE)("acquired")
    lost = f"Could not acquire '{SERVICE}' on D-Bus message bus."
    board.wait_log(lost)
    assert (3, lost) in board.log()
    # Still serving the chip: a camera plugged now is detected and locked.
    board.ctl("plug", "0", "tvi", "1080p25")
    board.wait_log("Accepted lock on new video type, update video config file: "
                   "type 3 on channel 0, video type = 0", timeout=45)
    board.wait("capture-mode", 0, "3")
    board.wait("connected", 0, "1")
    assert "vinmand stopping." not in board.messages()
