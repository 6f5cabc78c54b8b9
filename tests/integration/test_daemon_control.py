"""The control service called with gdbus and busctl from inside the board:
image controls down to the chip's registers, termination lines, video
standards, listings, the bus policy, and PTZ records up to the camera."""

import pytest

from daemon import ACCESS_DENIED, ACQUIRED, ERROR, NOBODY, OBJECT, SERVICE, VIDEO
from daemon import boards  # noqa: F401  (the fixture of every scenario)

INVALID_ARGUMENT = ERROR + "InvalidArgument"
WRONG_CHANNEL = (INVALID_ARGUMENT, "Wrong number of channels")

# Every method that takes a channel, with arguments that are valid otherwise.
CHANNEL_METHODS = [("SetSaturation", 50), ("SetBrightness", 0), ("SetContrast", 50),
                   ("SetHue", 0), ("SetSharpness", 0), ("SetXOffset", 0), ("SetYOffset", 0),
                   ("SetVideoTermination", 1), ("SetVideoStandard", 1, "", ""),
                   ("GetVideoProperties",)]
PICTURE = ("saturation", "brightness", "contrast", "hue", "sharpness", "xoffset", "yoffset")
REFUSALS = {"InvalidAutoMode": "Not a valid auto mode",
            "InvalidStandard": "Not a valid video standard",
            "InvalidResolution": "Not a valid video resolution"}


def picture_regs(board, ch):
    return board.regs(ch)[0x10:0x19]


def hstart(regs):
    """The 11-bit signed horizontal start held in 0x15 bits 4-6 and 0x16."""
    h = ((regs[0x15 - 0x10] >> 4) & 7) << 8 | regs[0x16 - 0x10]
    return h - 2048 if h & 0x400 else h


def test_image_controls_and_termination(boards):
    board = boards(chip="tp2826")
    board.wait_log(ACQUIRED)
    # A programmed format gives the picture the position the offsets act on.
    board.call("SetVideoStandard", 1, 0, "cvbs", "ntsc")
    base = picture_regs(board, 1)
    untouched = picture_regs(board, 2)

    values = [100, 100, 50, 100, 50, 200, -8]
    for name, value in zip(PICTURE, values):
        assert board.call(f"Set{name.capitalize().replace('off', 'Off')}", 1, value) == ()
    regs = picture_regs(board, 1)
    # brightness, contrast, saturation, hue (100 reaches the chip as 100)
    assert regs[:4] == [0x3F, 0x40, 0x7F, 0x7F]
    assert regs[0x14 - 0x10] == (base[0x14 - 0x10] & 0xE0) | 15  # sharpness 50
    # 200 reaches the chip as its low byte, -56; a positive y offset moves up.
    assert hstart(regs) == max(-1024, min(1023, hstart(base) - 56))
    assert regs[0x15 - 0x10] & 0x8F == base[0x15 - 0x10] & 0x8F
    assert regs[0x18 - 0x10] == min(255, base[0x18 - 0x10] + 8)
    assert picture_regs(board, 2) == untouched

    # Above 100 (also -1 sent as unsigned) is refused; chip and record stay.
    for name in PICTURE[:5]:
        assert board.call_error(f"Set{name.capitalize()}", 1, 101) == (INVALID_ARGUMENT, f"Invalid {name} value")
        assert (6, f"Invalid {name} value") in board.log()
    assert board.call_error("SetBrightness", 1, 4294967295)[1] == "Invalid brightness value"
    for args in CHANNEL_METHODS:
        for ch in (-1, 4):
            assert board.call_error(args[0], ch, *args[1:]) == WRONG_CHANNEL, (args, ch)
    assert picture_regs(board, 1) == regs

    config = board.list_config()
    assert [config[1][k] for k in PICTURE] == values
    assert [config[0][k] for k in PICTURE] == [50, 0, 50, 0, 0, 0, 0]

    # The termination line of channel N is video_term_(N + 1); nothing is stored.
    assert board.call("SetVideoTermination", 3, 1) == ()
    assert [board.get("term", n) for n in range(1, 5)] == ["0", "0", "0", "1"]
    assert board.call("SetVideoTermination", 0, 1) == ()
    assert board.call("SetVideoTermination", 3, 0) == ()
    assert [board.get("term", n) for n in range(1, 5)] == ["1", "0", "0", "0"]


# Per chip: refused standard/resolution pairs, the accepted fixed set-up of
# channel 1 with what it becomes, and the resolutions offered.
STANDARDS = {
    "tp2827": dict(
        refused=[("cvbs", "720p25", "InvalidStandard"), ("tvi", "ntsc", "InvalidStandard"),
                 ("ahd", "4k15", "InvalidResolution")],
        fixed=("ahd", "720p25"), camera=["ahd", "720p25", "long"], group=("1", "5"), mode="4",
        freq="50Hz", setting="0",
        video_type=2, detected="HDTV720p", props=(False, 2, 1.0, 25.0, True),
        resolutions=["pal", "ntsc", "720p25", "720p30", "1080p25", "1080p30", "1440p25",
                     "1440p30", "4k12", "4k15"]),
    "tp2826": dict(
        refused=[("tvi", "1080p30", "InvalidResolution"),
                 ("ahd", "720p25", "InvalidResolution")],
        fixed=("cvbs", "ntsc"), camera=["cvbs", "ntsc"], group=("3", "9"), mode="2",
        freq="60Hz", setting="2",
        video_type=1, detected="NTSC", props=(True, 1, 2.75, 30.0, True),
        resolutions=["pal", "ntsc"]),
}


@pytest.mark.parametrize("chip", ["tp2827", "tp2826"])
def test_set_video_standard_programs_the_chip_and_tells_the_pipeline(boards, chip):
    want = STANDARDS[chip]
    board = boards(chip=chip)
    board.wait_log(ACQUIRED)
    assert board.call("ListSupportedResolutions") == ([(r,) for r in want["resolutions"]],)

    before = (board.list_config(), board.config_file())
    refused = [(2, "tvi", "1080p25", "InvalidAutoMode"), (0, "xyz", "pal", "InvalidStandard"),
               (0, "cvbs", "576i", "InvalidResolution"), (0, "disabled", "pal", "InvalidStandard"),
               (0, "cvbs", "disabled", "InvalidResolution")]
    refused += [(0, std, res, name) for std, res, name in want["refused"]]
    for auto, std, res, name in refused:
        assert board.call_error("SetVideoStandard", 1, auto, std, res) == (
            ERROR + name, REFUSALS[name])
    assert (board.list_config(), board.config_file()) == before
    assert board.get("capture-mode", 1) == "1"

    board.wait("overlay", 1, "VIDEO_LOSS")
    std, res = want["fixed"]
    assert board.call("SetVideoStandard", 1, 0, std, res) == ()
    assert f"on_set_video_standard channel: 1, auto_mode: 0, standard: {std}, resolution: {res}" \
        in board.messages()
    assert board.get("capture-mode", 1) == want["mode"]
    assert board.get("capture-frequency", 1) == want["freq"]
    assert board.get("video-type", 1) == want["setting"]
    assert board.video_property(1, "VideoType") == want["video_type"]
    group = board.config_file()["Channel 1"]
    assert (group["standard"], group["resolution"], group["auto"]) == (*want["group"], "false")
    row = board.list_config()[1]
    assert (row["standard"], row["resolution"], row["auto"], row["capture_mode_changed"]) == (
        std, res, False, True)
    assert board.call("GetVideoProperties", 1) == want["props"]
    board.wait("overlay", 1, "VIDEO_LOSS,VIDEO_INPUT_CONFIGURATION_CHANGED")

    # The chip was programmed for the format: a camera sending it locks (no
    # detection runs on a fixed channel) and is reported. With nothing on the
    # input when the format was fixed, 720p is set up for long lines.
    board.ctl("plug", "1", *want["camera"])
    board.wait("lock", 1, "1")
    board.wait("connected", 1, "1")
    board.wait_property(1, "DetectedType", want["detected"])
    assert not [m for m in board.messages() if m.startswith("Accepted lock")]
    # Once the configuration changed, the loss text is no longer touched.
    assert board.get("overlay", 1) == "VIDEO_LOSS,VIDEO_INPUT_CONFIGURATION_CHANGED"


def test_uhd_on_channel_0_disables_channel_2_until_channel_0_leaves_it(boards):
    board = boards(chip="tp2827")
    board.wait_log(ACQUIRED)
    assert board.call("SetVideoStandard", 0, 0, "cvi", "4k12") == ()
    assert board.config_file()["Channel 2"] == {"standard": "4", "resolution": "33",
                                                "auto": "false", "configured": "true"}
    rows = board.list_config()
    assert (rows[2]["standard"], rows[2]["resolution"], rows[2]["auto"]) == (
        "disabled", "disabled", False)
    assert (rows[0]["standard"], rows[0]["resolution"]) == ("cvi", "4k12")
    # The UHD output set-up tells capture device 2 it carries no video.
    assert board.get("cam-ioctl", 2) == "1"
    assert board.get("capture-mode", 0) == "5"
    assert board.call("GetVideoProperties", 0) == (False, 7, 1.0, 12.5, True)

    # Automatic mode on channel 0 ignores the texts and frees channel 2.
    assert board.call("SetVideoStandard", 0, 1, "abc", "") == ()
    assert "on_set_video_standard channel: 0, auto_mode: 1, standard: abc, resolution: " \
        in board.messages()
    group = board.config_file()["Channel 2"]
    assert (group["auto"], group["configured"]) == ("true", "false")
    rows = board.list_config()
    assert (rows[2]["resolution"], rows[2]["auto"]) == ("none", True)
    assert rows[0]["auto"] is True
    assert board.call("GetVideoProperties", 0) == (False, -1, 1.0, 20.0, True)


def test_unprivileged_caller_is_refused_but_may_read(boards):
    board = boards(chip="tp2827")
    board.wait_log(ACQUIRED)
    before = (board.list_config(), board.config_file(), board.get("term", 1))
    for args in [("SetSaturation", 0, 70), ("SetVideoTermination", 0, 1),
                 ("SetVideoStandard", 0, 0, "tvi", "1080p25"), ("ListConfig",),
                 ("GetVideoProperties", 0)]:
        name, _ = board.call_error(*args, user=NOBODY)
        assert name == ACCESS_DENIED, args
    assert (board.list_config(), board.config_file(), board.get("term", 1)) == before
    assert not [m for m in board.messages() if m.startswith("on_set_video_standard")]

    assert board.video_property(0, "DetectedType", user=NOBODY) == "none"
    assert board.video_property(3, "VideoType", user=NOBODY) == 0
    objects = board.busctl("call", SERVICE, OBJECT, "org.freedesktop.DBus.ObjectManager",
                           "GetManagedObjects", user=NOBODY)["data"][0]
    assert sorted(objects) == [f"{OBJECT}/{ch}" for ch in range(4)]
    text = board.busctl("introspect", SERVICE, OBJECT, user=NOBODY, as_json=False)
    assert ".SetVideoStandard" in text and ".ListConfig" in text
    assert VIDEO in board.busctl("introspect", SERVICE, f"{OBJECT}/2", user=NOBODY,
                                 as_json=False)


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
    assert counters["ptz_transmissions"] == "8"
    assert counters["ptz_garbled"] == "0"
