"""The manager on the virtual board: cameras locked in automatic mode, a fixed
configuration applied, a capture mode service that refuses, and what the
daemon tells the rest of the encoder in each case."""

import pytest

from daemon import wait_until
from daemon import boards  # noqa: F401  (the fixture of every scenario)

LOCK = ("Accepted lock on new video type, update video config file: "
        "type {type} on channel {ch}, video type = {standard}")
CHANGED = "VIDEO_INPUT_CONFIGURATION_CHANGED"

# What each camera becomes once taken: type and standard numbers (file, lock
# message), capture mode and frequency, the published texts and numbers, the
# video system's video_typeN and GetVideoProperties.
CAMERAS = {
    "tvi:1080p25": dict(type=3, standard=0, std_text="tvi", res_text="1080p25", mode=3,
                        freq="50Hz", detected="HDTV1080p", video_type=4, setting=0,
                        props=(False, 4, 1.0, 25.0)),
    "cvbs:pal": dict(type=8, standard=3, std_text="cvbs", res_text="pal", mode=1, freq="50Hz",
                     detected="PAL", video_type=0, setting=1, props=(True, 0, 2.75, 25.0)),
    "cvbs:ntsc": dict(type=9, standard=3, std_text="cvbs", res_text="ntsc", mode=2,
                      freq="60Hz", detected="NTSC", video_type=1, setting=2,
                      props=(True, 1, 2.75, 30.0)),
    "ahd:720p30": dict(type=4, standard=1, std_text="ahd", res_text="720p30", mode=4,
                       freq="60Hz", detected="HDTV720p", video_type=2, setting=0,
                       props=(False, 2, 1.0, 30.0)),
}


def check_taken(board, ch, camera, auto, mode_changed, published_type=None):
    """Everything the daemon publishes about a channel that carries CAMERA.
    The published VideoType is the capture standard of the pipeline's mode when
    it was published (by default the camera's)."""
    want = CAMERAS[camera]
    board.wait("capture-mode", ch, want["mode"])
    board.wait("connected", ch, "1")
    board.wait_property(ch, "DetectedType", want["detected"])
    board.wait("overlay", ch, CHANGED if mode_changed else "-")
    group = wait_until(lambda: (g := board.config_file()[f"Channel {ch}"])["configured"] == "true"
                       and g, 15, f"channel {ch} saved as configured")
    assert group == {"standard": str(want["standard"]), "resolution": str(want["type"]),
                     "auto": "true" if auto else "false", "configured": "true"}
    assert board.get("lock", ch) == "1"
    assert board.get("capture-frequency", ch) == want["freq"]
    assert board.get("video-type", ch) == str(want["setting"])
    assert board.video_property(ch, "VideoType") == (
        want["video_type"] if published_type is None else published_type)
    # connected = true went out once, after the start-up's false.
    assert board.get("events", ch) == "2"
    row = board.list_config()[ch]
    assert (row["standard"], row["resolution"], row["auto"], row["capture_mode_changed"]) == (
        want["std_text"], want["res_text"], auto, mode_changed)
    assert board.call("GetVideoProperties", ch) == (*want["props"], mode_changed)
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
        want = CAMERAS[camera]
        board.wait_log(LOCK.format(type=want["type"], ch=ch, standard=want["standard"]),
                       timeout=45)
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
    row = board.list_config()[1]
    assert (row["standard"], row["resolution"]) == ("none", "none")

    # Channel 0's capture mode was changed by the daemon: its loss, seen in the
    # same passes, is not acted on.
    assert board.get("lock", 0) == "0"
    assert board.get("connected", 0) == "1"
    assert board.get("events", 0) == "2"
    assert board.get("overlay", 0) == CHANGED
    assert board.video_property(0, "DetectedType") == CAMERAS[changed]["detected"]
    assert board.config_file()["Channel 0"]["configured"] == "true"
    assert board.list_config()[0]["resolution"] == CAMERAS[changed]["res_text"]
    assert board.messages().count(LOCK.format(type=8, ch=1, standard=3)) == 1  # no relock


@pytest.mark.parametrize("chip,camera", [("tp2827", "ahd:720p30"), ("tp2826", "cvbs:ntsc")])
def test_fixed_configuration_is_applied_on_the_first_pass(boards, chip, camera):
    want = CAMERAS[camera]
    auto = "standard=5\nresolution=31\nauto=true\nconfigured=false\n"
    fixed = (f"standard={want['standard']}\nresolution={want['type']}\n"
             "auto=false\nconfigured=true\n")
    config = "".join(f"[Channel {ch}]\n{fixed if ch == 1 else auto}\n" for ch in range(4))
    board = boards(chip=chip, cameras=[f"1:{camera}"], config=config)
    # The fixed step publishes the video type before it switches the capture
    # mode, so the published type is still the pipeline's former PAL (0); the
    # applied channel is not published again while it has video.
    check_taken(board, 1, camera, auto=False, mode_changed=True, published_type=0)
    # Applied from the configuration, not detected: no lock on channel 1.
    assert not [m for m in board.messages() if m.startswith("Accepted lock")]
    assert board.config_file()["Channel 0"]["auto"] == "true"
    assert board.list_config()[0]["auto"] is True


def test_refused_capture_mode_keeps_the_channel_searching_until_it_is_accepted(boards):
    board = boards(chip="tp2827", cameras=["0:tvi:1080p25"], gate_open=False)
    board.ctl("fault", "service", "capturemode", "failing")
    board.open_gate()
    lock = LOCK.format(type=3, ch=0, standard=0)
    board.wait_count(lock, 2, timeout=45)

    assert [m for m in board.messages()
            if m.startswith("set_capture_mode Unable to set SetCaptureMode on channel 0")]
    assert board.get("capture-mode", 0) == "1"
    assert CHANGED not in board.get("overlay", 0)
    assert board.config_file()["Channel 0"]["configured"] == "false"
    assert board.video_property(0, "DetectedType") == "HDTV1080p"
    assert board.list_config()[0]["capture_mode_changed"] is False
    assert board.status()["services"]["capture"][0]["set_capture_mode_calls"] == 0

    board.ctl("fault", "clear")
    check_taken(board, 0, "tvi:1080p25", auto=True, mode_changed=True)
