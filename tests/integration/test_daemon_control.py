"""Every method of the control service from inside the board, the bus policy,
and PTZ records up to the camera."""

import pytest

from daemon import ACCESS_DENIED, ACQUIRED, ERROR, NOBODY, OBJECT, SERVICE
from daemon import boards  # noqa: F401  (the fixture of every scenario)

INVALID_ARGUMENT = ERROR + "InvalidArgument"
# Every method that takes a channel, with arguments that are valid otherwise.
CHANNEL_METHODS = [("SetSaturation", 50), ("SetBrightness", 0), ("SetContrast", 50),
                   ("SetHue", 0), ("SetSharpness", 0), ("SetXOffset", 0), ("SetYOffset", 0),
                   ("SetVideoTermination", 1), ("SetVideoStandard", 1, "", ""),
                   ("GetVideoProperties",)]
PICTURE = ("saturation", "brightness", "contrast", "hue", "sharpness", "xoffset", "yoffset")
REFUSALS = {"InvalidAutoMode": "Not a valid auto mode",
            "InvalidStandard": "Not a valid video standard",
            "InvalidResolution": "Not a valid video resolution"}


def hstart(regs):
    """The 11-bit signed horizontal start held in 0x15 bits 4-6 and 0x16."""
    h = ((regs[0x15] >> 4) & 7) << 8 | regs[0x16]
    return h - 2048 if h & 0x400 else h


def test_image_controls_termination_and_who_may_call(boards):
    board = boards(chip="tp2826")
    board.wait_log(ACQUIRED)
    # A programmed format gives the picture the position the offsets act on.
    board.call("SetVideoStandard", 1, 0, "cvbs", "ntsc")
    base, untouched = board.regs(1), board.regs(2)[0x10:0x19]
    values = [100, 100, 50, 100, 50, 200, -8]
    for name, value in zip(PICTURE, values):
        assert board.call(f"Set{name.capitalize().replace('off', 'Off')}", 1, value) == ()
    regs = board.regs(1)
    # brightness, contrast, saturation, hue (100 reaches the chip as 100)
    assert regs[0x10:0x14] == [0x3F, 0x40, 0x7F, 0x7F]
    assert regs[0x14] == (base[0x14] & 0xE0) | 15  # sharpness 50
    # 200 reaches the chip as its low byte, -56; a positive y offset moves up.
    assert hstart(regs) == max(-1024, min(1023, hstart(base) - 56))
    assert regs[0x15] & 0x8F == base[0x15] & 0x8F
    assert regs[0x18] == min(255, base[0x18] + 8)
    assert board.regs(2)[0x10:0x19] == untouched

    # Above 100 (also -1 sent as unsigned) and wrong channels are refused;
    # chip and record stay.
    for name in PICTURE[:5]:
        assert board.call_error(f"Set{name.capitalize()}", 1, 101) == (
            INVALID_ARGUMENT, f"Invalid {name} value")
        assert (6, f"Invalid {name} value") in board.log()
    assert board.call_error("SetBrightness", 1, 4294967295)[1] == "Invalid brightness value"
    for method, *args in CHANNEL_METHODS:
        for ch in (-1, 4):
            assert board.call_error(method, ch, *args) == (
                INVALID_ARGUMENT, "Wrong number of channels"), (method, ch)
    assert board.regs(1)[0x10:0x19] == regs[0x10:0x19]
    config = board.list_config()
    assert [config[1][k] for k in PICTURE] == values
    assert [config[0][k] for k in PICTURE] == [50, 0, 50, 0, 0, 0, 0]

    # The termination line of channel N is video_term_(N + 1); nothing is stored.
    board.call("SetVideoTermination", 3, 1)
    assert [board.get("term", n) for n in range(1, 5)] == ["0", "0", "0", "1"]
    board.call("SetVideoTermination", 0, 1)
    board.call("SetVideoTermination", 3, 0)
    assert [board.get("term", n) for n in range(1, 5)] == ["1", "0", "0", "0"]

    # A caller the policy does not admit is refused and changes nothing; it
    # may still introspect.
    state = lambda: (board.list_config(), [g["auto"] for g in board.config_file().values()],  # noqa
                     board.get("term", 2))
    before = state()
    for args in [("SetSaturation", 0, 70), ("SetVideoTermination", 1, 1),
                 ("SetVideoStandard", 0, 0, "cvbs", "pal"), ("ListConfig",),
                 ("GetVideoProperties", 0)]:
        assert board.call_error(*args, user=NOBODY)[0] == ACCESS_DENIED, args
    assert state() == before
    assert "on_set_video_standard channel: 0" not in "".join(board.messages())
    r = board.inside("gdbus", "introspect", "--system", "--dest", SERVICE, "--object-path",
                     f"{OBJECT}/2", user=NOBODY)
    assert "com.korvi.Encoder.Video" in r.stdout, r.stderr


# Per chip: refused standard/resolution pairs, the accepted fixed set-up of
# channel 1 with what it becomes, and the resolutions offered.
STANDARDS = {
    "tp2827": dict(
        refused=[("cvbs", "720p25", "InvalidStandard"), ("tvi", "ntsc", "InvalidStandard"),
                 ("ahd", "4k15", "InvalidResolution")],
        fixed=("ahd", "720p25"), camera=["ahd", "720p25", "long"], group=("1", "5"),
        video_type=2, detected="HDTV720p",
        resolutions=["pal", "ntsc", "720p25", "720p30", "1080p25", "1080p30", "1440p25",
                     "1440p30", "4k12", "4k15"]),
    "tp2826": dict(
        refused=[("tvi", "1080p30", "InvalidResolution"),
                 ("ahd", "720p25", "InvalidResolution")],
        fixed=("cvbs", "ntsc"), camera=["cvbs", "ntsc"], group=("3", "9"),
        video_type=1, detected="NTSC",
        resolutions=["pal", "ntsc"]),
}


@pytest.mark.parametrize("chip", STANDARDS)
def test_set_video_standard_programs_the_chip_and_couples_uhd(boards, chip):
    want = STANDARDS[chip]
    board = boards(chip=chip)
    board.wait_log(ACQUIRED)
    assert board.call("ListSupportedResolutions") == ([(r,) for r in want["resolutions"]],)
    before = (board.list_config(), board.config_file())
    for auto, std, res, name in [
            (2, "tvi", "1080p25", "InvalidAutoMode"), (0, "xyz", "pal", "InvalidStandard"),
            (0, "cvbs", "576i", "InvalidResolution"), (0, "disabled", "pal", "InvalidStandard"),
            (0, "cvbs", "disabled", "InvalidResolution"),
            *[(0, *refused) for refused in want["refused"]]]:
        assert board.call_error("SetVideoStandard", 1, auto, std, res) == (
            ERROR + name, REFUSALS[name])
    assert (board.list_config(), board.config_file()) == before
    assert board.get("capture-mode", 1) == "1"

    board.wait("overlay", 1, "VIDEO_LOSS")
    std, res = want["fixed"]
    assert board.call("SetVideoStandard", 1, 0, std, res) == ()
    assert f"on_set_video_standard channel: 1, auto_mode: 0, standard: {std}, resolution: {res}" \
        in board.messages()
    assert board.get_property("VideoType", 1) == want["video_type"]
    group = board.config_file()["Channel 1"]
    assert (group["standard"], group["resolution"], group["auto"]) == (*want["group"], "false")
    row = board.list_config()[1]
    assert (row["standard"], row["resolution"], row["auto"], row["capture_mode_changed"]) == (
        std, res, False, True)
    # The chip was programmed for the format: a camera sending it locks (no
    # detection runs on a fixed channel) and is reported. With nothing on the
    # input when the format was fixed, 720p is set up for long lines. Once the
    # configuration changed, the loss text is no longer touched.
    changed = "VIDEO_LOSS,VIDEO_INPUT_CONFIGURATION_CHANGED"
    board.wait("overlay", 1, changed)
    board.ctl("plug", "1", *want["camera"])
    board.wait("lock", 1, "1")
    board.wait("connected", 1, "1")
    board.wait_property(1, "DetectedType", want["detected"])
    assert not [m for m in board.messages() if m.startswith("Accepted lock")]
    assert board.get("overlay", 1) == changed
    if chip == "tp2826":
        return
    # UHD on channel 0 disables channel 2 until channel 0 leaves it.
    assert board.call("SetVideoStandard", 0, 0, "cvi", "4k12") == ()
    assert board.config_file()["Channel 2"]["configured"] == "true"  # the rest: fault matrix
    rows = board.list_config()
    assert [rows[2][k] for k in ("standard", "resolution", "auto")] == [
        "disabled", "disabled", False]
    assert (rows[0]["standard"], rows[0]["resolution"]) == ("cvi", "4k12")
    assert board.get("capture-mode", 0) == "5"
    assert board.call("GetVideoProperties", 0) == (False, 7, 1.0, 12.5, True)
    # Automatic mode on channel 0 ignores the texts and frees channel 2.
    assert board.call("SetVideoStandard", 0, 1, "abc", "") == ()
    assert "on_set_video_standard channel: 0, auto_mode: 1, standard: abc, resolution: " \
        in board.messages()
    group = board.config_file()["Channel 2"]
    assert (group["auto"], group["configured"]) == ("true", "false")
    rows = board.list_config()
    assert (rows[2]["resolution"], rows[2]["auto"], rows[0]["auto"]) == ("none", True, True)
    assert board.call("GetVideoProperties", 0) == (False, -1, 1.0, 20.0, True)


def test_ptz_records_reach_the_cameras(boards):
    board = boards(chip="tp2827", cameras=["1:tvi:1080p25", "3:ahd:720p30"])
    board.wait_log("Starting ptz runner")
    # Two records in one write, then a record for an empty input and one more
    # on a new connection: the server reads 5-byte records and serves the next
    # client after the first has gone.
    board.send_ptz(bytes([3, 0x11, 0x22, 0x33, 0x44, 1, 0xA5, 0x5A, 0x00, 0xFF]))
    board.send_ptz(bytes([0, 1, 2, 3, 4]))
    board.send_ptz(bytes([3, 0x80, 0x01, 0xFF, 0x00]))
    # Every record goes up the cable twice.
    board.wait("ptz", 3, "0311223344,0311223344,038001ff00,038001ff00")
    board.wait("ptz", 1, "01a55a00ff,01a55a00ff")
    assert board.get("ptz", 0) == "-"
    counters = dict(line.rsplit(" ", 1) for line in board.ctl("counters").splitlines())
    assert (counters["ptz_transmissions"], counters["ptz_garbled"]) == ("8", "0")
