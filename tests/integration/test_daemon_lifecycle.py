"""The daemon's life: start-up, locks and losses, the bus name taken over both ways,
shutdown on a signal; and a capture mode service that refuses."""

import os
import signal

import pytest

from daemon import (ACQUIRED, CAMERAS, CHANGED, LOCK, NOBODY, OBJECT, SERVICE, VIDEO, check_taken,
                    in_order, parse_config, wait_until)

DEFAULT = [("standard", "5"), ("resolution", "31"), ("auto", "true"), ("configured", "false")]


@pytest.mark.parametrize("chip,cpuid,sig,changed", [("tp2827", True, signal.SIGTERM, "tvi:1080p25"),
                                                    ("tp2826", False, signal.SIGINT, "cvbs:ntsc")])
def test_start_up_locks_losses_name_taken_over_then_a_signal(boards, chip, cpuid, sig, changed):
    board = boards(chip=chip, capture_modes=["2:1080p"], cpuid=cpuid, gate_open=False)
    (first_owner := board.own_name(1))("acquired")  # allows replacement
    board.open_gate()
    first_config = wait_until(lambda: board.config_file(raw=True), 20, "the configuration file")
    board.wait_log(ACQUIRED)
    first_owner("acquired lost")
    ptz = chip == "tp2827"  # only the TP2827 relays PTZ records
    in_order(board.messages(), [
        "Starting vinmand.", "Init overlay handler", *(["Starting PTZ thread"] if ptz else []),
        f"Connection open for '{SERVICE}' on D-Bus message bus.", "Starting manager thread",
        ACQUIRED])
    assert all(priority >= 6 for priority, _ in board.log()), board.log()
    # One "connected" = false event per channel, sent while the decoder is created.
    assert [(c["events"], c["connected"]) for c in board.status()["channels"]] == [(1, 0)] * 4
    # No configuration file yet: the default one, every channel automatic.
    assert [(g, list(keys.items())) for g, keys in parse_config(first_config).items()] \
        == [(f"Channel {ch}", DEFAULT) for ch in range(4)]
    # The video objects only, nothing detected yet, readable by anyone; the video
    # type follows the pipeline's mode (channel 2 starts in 1080p).
    objects = board.call("GetManagedObjects", iface="org.freedesktop.DBus.ObjectManager",
                         user=NOBODY)[0]
    assert {p: (o[VIDEO]["DetectedType"], o[VIDEO]["VideoType"]) for p, o in objects.items()} \
        == {f"{OBJECT}/{ch}": ("none", 4 if ch == 2 else 0) for ch in range(4)}
    assert board.get_property("MultiDeviceProperties", user=NOBODY) is cpuid  # cpuid_bit0
    for ch in range(4):  # once the manager has run
        board.wait("overlay", ch, "VIDEO_LOSS")

    # Channel 0's camera needs another capture mode than the pipeline's PAL, 1's not.
    board.ctl("plug", "0", *changed.split(":"))
    board.ctl("plug", "1", "cvbs", "pal")
    check_taken(board, 0, changed, auto=True, mode_changed=True)
    check_taken(board, 1, "cvbs:pal", auto=True, mode_changed=False)
    board.ctl("unplug", "0")
    board.ctl("unplug", "1")
    # Channel 1 is lost once and searches again.
    board.wait("overlay", 1, "VIDEO_LOSS")
    board.wait_property(1, "DetectedType", "none")
    wait_until(lambda: board.config_file()["Channel 1"]["configured"] == "false", 15,
               "channel 1 saved as not configured")
    assert [board.get("events", 1), board.get("connected", 1)] == ["3", "0"]
    assert [board.list_config()[1][k] for k in ("standard", "resolution")] == ["none", "none"]
    # Channel 0's capture mode was changed by the daemon: its loss is not acted on.
    assert [board.get(key, 0) for key in ("lock", "connected", "events", "overlay")] == [
        "0", "1", "2", CHANGED]
    assert board.get_property("DetectedType", 0) == CAMERAS[changed][4]
    assert board.config_file()["Channel 0"]["configured"] == "true"

    board.own_name(2)("acquired")  # replaces the daemon
    lost = f"Could not acquire '{SERVICE}' on D-Bus message bus."
    board.wait_log(lost)
    assert (3, lost) in board.log()
    # Still serving the chip: channel 1's camera back is locked again (once before).
    board.ctl("plug", "1", "cvbs", "pal")
    locks = lambda: board.messages().count(LOCK.format(8, 1) + "type = 3")  # noqa: E731
    assert wait_until(lambda: locks() >= 2, 45, "channel 1 locked again") and locks() == 2

    os.kill(board.pid, sig)
    assert board.wait_exit() == 0
    messages = board.messages()
    in_order(messages, [f"Recived signal '{sig.name}', shutting down.", "vinmand stopping.",
                        "Stopping manager thread", "Manager thread exit", "Stopped manager thread",
                        *(["Stopping PTZ thread", "Stopped PTZ thread"] if ptz else []),
                        "vinmand cleaning up.", "vinmand stopped."])
    assert messages.count("vinmand stopped.") == 1 and messages[-1] == "vinmand stopped."
    assert ptz or not [m for m in messages if "ptz" in m.lower()]


def test_refused_capture_mode_keeps_the_channel_searching_until_it_is_accepted(boards):
    board = boards(chip="tp2827", cameras=["0:tvi:1080p25"], gate_open=False)
    board.ctl("fault", "service", "capturemode", "failing")
    board.open_gate()
    wait_until(lambda: board.messages().count(LOCK.format(3, 0) + "type = 0") >= 2, 45,
               "the lock retried on the next pass")
    board.wait_log("set_capture_mode Unable to set SetCaptureMode on channel 0")
    assert [board.get("capture-mode", 0), board.config_file()["Channel 0"]["configured"],
            board.get_property("DetectedType", 0), board.list_config()[0]["capture_mode_changed"],
            board.status()["services"]["capture"][0]["set_capture_mode_calls"]] == [
        "1", "false", "HDTV1080p", False, 0]
    assert CHANGED not in board.get("overlay", 0)
    board.ctl("fault", "clear")
    check_taken(board, 0, "tvi:1080p25", auto=True, mode_changed=True)
