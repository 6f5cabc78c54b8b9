"""The manager on the virtual board: cameras locked in automatic mode, a fixed
configuration applied, a refusing capture mode service; what the daemon tells
the rest of the encoder in each case."""

import pytest

from daemon import wait_until
from daemon import boards  # noqa: F401  (the fixture of every scenario)

LOCK = ("Accepted lock on new video type, update video config file: "
        "type {0} on channel {2}, video type = {1}")
CHANGED = "VIDEO_INPUT_CONFIGURATION_CHANGED"

# Once taken: type and standard numbers (file, lock message), capture mode and
# frequency, DetectedType, VideoType, video system's video_typeN, GetVideoProperties.
CAMERAS = {"tvi:1080p25": (3, 0, "3", "50Hz", "HDTV1080p", 4, "0", (False, 4, 1.0, 25.0)),
           "cvbs:pal": (8, 3, "1", "50Hz", "PAL", 0, "1", (True, 0, 2.75, 25.0)),
           "cvbs:ntsc": (9, 3, "2", "60Hz", "NTSC", 1, "2", (True, 1, 2.75, 30.0)),
           "ahd:720p30": (4, 1, "4", "60Hz", "HDTV720p", 2, "0", (False, 2, 1.0, 30.0))}


def check_taken(board, ch, camera, auto, mode_changed, published_type=None):
    """Everything published about a channel carrying CAMERA. VideoType is the
    capture standard of the pipeline's mode when it was published."""
    vtype, standard, mode, freq, detected, video_type, setting, props = CAMERAS[camera]
    board.wait("capture-mode", ch, mode)
    board.wait("connected", ch, "1")
    board.wait_property(ch, "DetectedType", detected)
    board.wait("overlay", ch, CHANGED if mode_changed else "-")
    group = wait_until(lambda: (g := board.config_file()[f"Channel {ch}"])["configured"] == "true"
                       and g, 15, f"channel {ch} saved as configured")
    assert group == {"standard": str(standard), "resolution": str(vtype),
                     "auto": "true" if auto else "false", "configured": "true"}
    assert [board.get(key, ch) for key in ("lock", "capture-frequency", "video-type")] == [
        "1", freq, setting]
    assert board.get_property("VideoType", ch) == (
        video_type if published_type is None else published_type)
    assert board.get("events", ch) == "2"  # connected = true once, after the start-up's false
    row = board.list_config()[ch]
    assert [row[k] for k in ("standard", "resolution", "auto", "capture_mode_changed")] == [
        *camera.split(":"), auto, mode_changed]
    assert board.call("GetVideoProperties", ch) == (*props, mode_changed)
    services = board.status()["services"]
    assert services["capture"][ch]["set_capture_mode_calls"] == (1 if mode_changed else 0)
    # Whatever no-video text was shown, none is removed once the configuration
    # changed; otherwise every one shown was removed again.
    overlay = services["overlay"][ch]
    assert overlay["unset_calls"] == (0 if mode_changed else overlay["set_calls"])


@pytest.mark.parametrize("chip,changed", [("tp2827", "tvi:1080p25"), ("tp2826", "cvbs:ntsc")])
def test_automatic_lock_then_unplug(boards, chip, changed):
    """Channel 0 needs another capture mode than the pipeline's PAL, channel 1
    (PAL) does not."""
    board = boards(chip=chip, cameras=[f"0:{changed}", "1:cvbs:pal"])
    for ch, camera in ((0, changed), (1, "cvbs:pal")):
        board.wait_log(LOCK.format(*CAMERAS[camera][:2], ch), timeout=45)
    check_taken(board, 0, changed, auto=True, mode_changed=True)
    check_taken(board, 1, "cvbs:pal", auto=True, mode_changed=False)

    board.ctl("unplug", "0")
    board.ctl("unplug", "1")
    # Channel 1 is lost once and searches again.
    board.wait("connected", 1, "0")
    board.wait("overlay", 1, "VIDEO_LOSS")
    board.wait_property(1, "DetectedType", "none")
    wait_until(lambda: board.config_file()["Channel 1"]["configured"] == "false", 15,
               "channel 1 saved as not configured")
    assert board.get("events", 1) == "3"
    assert board.config_file()["Channel 1"]["auto"] == "true"
    assert [board.list_config()[1][k] for k in ("standard", "resolution")] == ["none", "none"]
    # Channel 0's capture mode was changed by the daemon: its loss, seen in the
    # same passes, is not acted on.
    assert [board.get(key, 0) for key in ("lock", "connected", "events", "overlay")] == [
        "0", "1", "2", CHANGED]
    assert board.get_property("DetectedType", 0) == CAMERAS[changed][4]
    assert board.config_file()["Channel 0"]["configured"] == "true"
    assert board.list_config()[0]["resolution"] == changed.split(":")[1]
    assert board.messages().count(LOCK.format(8, 3, 1)) == 1  # no relock


@pytest.mark.parametrize("chip,camera", [("tp2827", "ahd:720p30"), ("tp2826", "cvbs:ntsc")])
def test_fixed_configuration_is_applied_on_the_first_pass(boards, chip, camera):
    vtype, standard = CAMERAS[camera][:2]
    auto = "standard=5\nresolution=31\nauto=true\nconfigured=false\n"
    fixed = f"standard={standard}\nresolution={vtype}\nauto=false\nconfigured=true\n"
    config = "".join(f"[Channel {ch}]\n{fixed if ch == 1 else auto}\n" for ch in range(4))
    board = boards(chip=chip, cameras=[f"1:{camera}"], config=config)
    # The fixed step publishes the video type before it switches the capture
    # mode, so the published type is still the pipeline's former PAL (0); the
    # applied channel is not published again while it has video.
    check_taken(board, 1, camera, auto=False, mode_changed=True, published_type=0)
    # Applied from the configuration, not detected: no lock on channel 1.
    assert not [m for m in board.messages() if m.startswith("Accepted lock")]
    assert board.list_config()[0]["auto"] is True


def test_refused_capture_mode_keeps_the_channel_searching_until_it_is_accepted(boards):
    board = boards(chip="tp2827", cameras=["0:tvi:1080p25"], gate_open=False)
    board.ctl("fault", "service", "capturemode", "failing")
    board.open_gate()
    board.wait_count(LOCK.format(3, 0, 0), 2, timeout=45)  # retried on the next pass
    assert [m for m in board.messages()
            if m.startswith("set_capture_mode Unable to set SetCaptureMode on channel 0")]
    assert board.get("capture-mode", 0) == "1"
    assert CHANGED not in board.get("overlay", 0)
    assert board.config_file()["Channel 0"]["configured"] == "false"
    assert board.get_property("DetectedType", 0) == "HDTV1080p"
    assert board.list_config()[0]["capture_mode_changed"] is False
    assert board.status()["services"]["capture"][0]["set_capture_mode_calls"] == 0

    board.ctl("fault", "clear")
    check_taken(board, 0, "tvi:1080p25", auto=True, mode_changed=True)
