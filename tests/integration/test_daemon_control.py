"""Every method of the control service as a client calls it, the bus policy, PTZ."""

import pytest

from daemon import ACQUIRED, CAMERAS, ERROR, LOCK, NOBODY, OBJECT, SERVICE, check_taken

PICTURE = ("saturation", "brightness", "contrast", "hue", "sharpness", "xoffset", "yoffset")
REFUSALS = {"InvalidAutoMode": "Not a valid auto mode", "InvalidStandard":
            "Not a valid video standard", "InvalidResolution": "Not a valid video resolution"}
# Per chip: refused pairs, an accepted one, the resolutions, channel 3's fixed camera.
STANDARDS = {
    "tp2827": ([("cvbs", "720p25", "InvalidStandard"), ("tvi", "ntsc", "InvalidStandard"),
                ("ahd", "4k15", "InvalidResolution")], ("ahd", "720p25"),
               ["pal", "ntsc", "720p25", "720p30", "1080p25", "1080p30", "1440p25", "1440p30",
                "4k12", "4k15"], "ahd:720p30"),
    "tp2826": ([("tvi", "1080p30", "InvalidResolution"), ("ahd", "720p25", "InvalidResolution")],
               ("cvbs", "ntsc"), ["pal", "ntsc"], "cvbs:ntsc")}


def regs(board, page):  # the page's 256 registers
    lines = board.ctl("regs", str(page)).splitlines()[2:]
    return [int(v, 16) for line in lines for v in line.split(":")[1].split()]


def hstart(regs):  # the 11-bit signed horizontal start in 0x15 bits 4-6 and 0x16
    h = ((regs[0x15] >> 4) & 7) << 8 | regs[0x16]
    return h - 2048 if h & 0x400 else h


@pytest.mark.parametrize("chip", STANDARDS)
def test_every_method_its_refusals_and_who_may_call(boards, chip):
    refused, (std, res), resolutions, fixed = STANDARDS[chip]
    groups = ["standard=5\nresolution=31\nauto=true\nconfigured=false"] * 3 + [
        "standard={1}\nresolution={0}\nauto=false\nconfigured=true".format(*CAMERAS[fixed])]
    board = boards(chip=chip, cameras=[f"3:{fixed}"],
                   config="".join(f"[Channel {ch}]\n{g}\n\n" for ch, g in enumerate(groups)))
    board.wait_log(ACQUIRED)
    # Published before the capture mode switch, so as PAL (0); applied, not detected.
    check_taken(board, 3, fixed, auto=False, mode_changed=True, published_type=0)
    assert not [m for m in board.messages() if m.startswith(LOCK.format(CAMERAS[fixed][0], 3))]
    assert board.call("ListSupportedResolutions") == ([(r,) for r in resolutions],)
    before = (board.list_config(), board.config_file())
    for auto, s, r, name in [
            (2, "tvi", "1080p25", "InvalidAutoMode"), (0, "xyz", "pal", "InvalidStandard"),
            (0, "cvbs", "576i", "InvalidResolution"), (0, "disabled", "pal", "InvalidStandard"),
            (0, "cvbs", "disabled", "InvalidResolution"), *[(0, *x) for x in refused]]:
        assert board.call_error("SetVideoStandard", 1, auto, s, r) == (ERROR + name, REFUSALS[name])
    assert (board.list_config(), board.config_file()) == before

    # A fixed format taken: once the configuration changed, the loss text stays.
    board.wait("overlay", 1, "VIDEO_LOSS")
    assert board.call("SetVideoStandard", 1, 0, std, res) == ()
    board.wait("overlay", 1, "VIDEO_LOSS,VIDEO_INPUT_CONFIGURATION_CHANGED")

    # Image controls on the programmed format; x offset 200 reaches the chip as -56.
    base, untouched = regs(board, 1), regs(board, 2)[0x10:0x19]
    values = [100, 100, 50, 100, 50, 200, -8]
    for name, value in zip(PICTURE, values):
        assert board.call(f"Set{name.capitalize().replace('off', 'Off')}", 1, value) == ()
    chip_regs = regs(board, 1)
    assert chip_regs[0x10:0x15] == [0x3F, 0x40, 0x7F, 0x7F, (base[0x14] & 0xE0) | 15]
    assert hstart(chip_regs) == max(-1024, min(1023, hstart(base) - 56))
    assert regs(board, 2)[0x10:0x19] == untouched
    # Above 100 (also -1 sent as unsigned) and wrong channels: refused, chip and record kept.
    for name in PICTURE[:5]:
        assert board.call_error(f"Set{name.capitalize()}", 1, 101) == (
            ERROR + "InvalidArgument", f"Invalid {name} value")
        assert (6, f"Invalid {name} value") in board.log()
    assert board.call_error("SetBrightness", 1, 4294967295)[1] == "Invalid brightness value"
    for method, *args in [*[(f"Set{n.capitalize().replace('off', 'Off')}", 0) for n in PICTURE],
                          ("SetVideoTermination", 1), ("SetVideoStandard", 1, "", ""),
                          ("GetVideoProperties",)]:
        for ch in (-1, 4):
            assert board.call_error(method, ch, *args) == (
                ERROR + "InvalidArgument", "Wrong number of channels"), (method, ch)
    assert regs(board, 1)[0x10:0x19] == chip_regs[0x10:0x19]
    assert [board.list_config()[1][k] for k in PICTURE] == values

    # A caller the policy does not admit is refused and changes nothing; it may introspect.
    state = lambda: (board.list_config(), [g["auto"] for g in board.config_file().values()],  # noqa
                     board.get("term", 2))
    before = state()
    for args in [("SetSaturation", 0, 70), ("SetVideoTermination", 1, 1),
                 ("SetVideoStandard", 0, 0, "cvbs", "pal"), ("ListConfig",),
                 ("GetVideoProperties", 0)]:
        assert board.call_error(*args, user=NOBODY)[0] == \
            "org.freedesktop.DBus.Error.AccessDenied", args
    assert state() == before
    r = board.inside("gdbus", "introspect", "--system", "--dest", SERVICE, "--object-path",
                     f"{OBJECT}/2", user=NOBODY)
    assert "com.korvi.Encoder.Video" in r.stdout, r.stderr
    if chip == "tp2826":
        return

    # UHD on channel 0 disables channel 2 until channel 0 leaves it.
    assert board.call("SetVideoStandard", 0, 0, "cvi", "4k12") == ()
    rows = board.list_config()
    assert [rows[2][k] for k in ("standard", "resolution", "auto")] == [
        "disabled", "disabled", False]
    assert (rows[0]["standard"], rows[0]["resolution"], board.get("capture-mode", 0)) == (
        "cvi", "4k12", "5")
    assert board.call("GetVideoProperties", 0) == (False, 7, 1.0, 12.5, True)
    # Automatic mode on channel 0 ignores the texts and frees channel 2.
    assert board.call("SetVideoStandard", 0, 1, "abc", "") == ()
    rows = board.list_config()  # (the file: the fault matrix)
    assert (rows[2]["resolution"], rows[2]["auto"], rows[0]["auto"]) == ("none", True, True)
    assert board.call("GetVideoProperties", 0) == (False, -1, 1.0, 20.0, True)

    # PTZ: two records in one write, one to an empty input, one more; each sent twice.
    board.send_ptz(bytes([3, 0x11, 0x22, 0x33, 0x44, 3, 0xA5, 0x5A, 0x00, 0xFF]))
    board.send_ptz(bytes([0, 1, 2, 3, 4]))
    board.send_ptz(bytes([3, 0x80, 0x01, 0xFF, 0x00]))
    board.wait("ptz", 3, ",".join(r for r in ("0311223344", "03a55a00ff", "038001ff00")
                                  for _ in range(2)))
    counters = dict(line.rsplit(" ", 1) for line in board.ctl("counters").splitlines())
    assert (counters["ptz_transmissions"], counters["ptz_garbled"]) == ("8", "0")
