"""The chip driver alone on the virtual board: vboard-drive identifies the chip,
lets automatic detection lock on each camera the chip can detect, and programs
each fixed format the chip takes; the chip model's own view (`vboard-ctl
status`) judges what the chip really took. One board run per chip does it all."""

import json
import os
import re

import pytest

from conftest import BUILD, run_board

DRIVE = os.path.join(BUILD, "tests", "drivecheck", "vboard-drive")
pytestmark = pytest.mark.skipif(not os.access(DRIVE, os.X_OK), reason=f"{DRIVE} is not built")

HD_STANDARDS = ("tvi", "ahd", "cvi")
HD = ("1080p25", "1080p30", "720p25", "720p30")
SD = [("cvbs", "pal", ""), ("cvbs", "ntsc", "")]
# Short-line 720p and the long-line variants each need their own register set.
HD_CAMERAS = ([(s, r, "") for s in HD_STANDARDS for r in HD] +
              [(s, r, "long") for s in HD_STANDARDS for r in ("720p25", "720p30")])
# Fixed formats: any channel, and the 4K / 25-30 frames/s 1440p ones on channel 0 only.
ANY_CHANNEL_2827 = HD_CAMERAS + SD + [(s, "1440p15", "") for s in HD_STANDARDS]
CHANNEL0_2827 = [(s, r, "") for s in HD_STANDARDS for r in ("4k12", "4k15", "1440p25", "1440p30")]


def chunks(items, size=4):
    return [items[i:i + size] for i in range(0, len(items), size)]


def round_(tag, plugs, command):
    """Plugs (channel, standard, resolution, variant), runs the driver, then
    prints the chip model's view as one line "chip {json}"."""
    return [*(f"vboard-ctl plug {ch} {s} {r} {v}" for ch, s, r, v in plugs), f"echo '== {tag}'",
            f"{DRIVE} {command}", "echo chip $(vboard-ctl status --json)"]


def plan(chip):
    """The board's script, its lock rounds L* (tag, cameras, seconds, detectable)
    and its program rounds P* (tag, jobs)."""
    if chip == "tp2827":
        locks = [("L%d" % n, g, 10, True) for n, g in enumerate(chunks(SD + HD_CAMERAS))]
        anych = [(i % 4, s, r, v, (s, r)) for i, (s, r, v) in enumerate(ANY_CHANNEL_2827)]
        programs = chunks(anych) + [[(0, s, r, v, (s, r))] for s, r, v in CHANNEL0_2827]
        # A format that does not fit the camera must not lock: the check can fail.
        programs.append([(1, "tvi", "1080p25", "", ("tvi", "1080p30"))])
    else:
        # The TP2826 detects and programs standard definition only.
        locks = [("L0", SD * 2, 10, True)]
        locks += [("L%d" % (n + 1), g, 2, False) for n, g in enumerate(chunks(HD_CAMERAS[:12]))]
        programs = [[(ch, "cvbs", r, "", ("cvbs", r)) for ch, r in enumerate(("pal", "ntsc") * 2)],
                    [(0, "cvbs", "pal", "", ("cvbs", "ntsc"))]]
    script = ["echo '== ID'", f"{DRIVE} identify"]
    for tag, cams, seconds, _ in locks:
        channels = " ".join(map(str, range(len(cams))))
        script += round_(tag, [(ch, *cam) for ch, cam in enumerate(cams)],
                         f"lock {seconds} {channels}")
    programs = [("P%d" % n, jobs) for n, jobs in enumerate(programs)]
    for tag, jobs in programs:
        script += round_(tag, [job[:4] for job in jobs],
                         "program " + " ".join(f"{ch} {p[0]} {p[1]}" for ch, *_, p in jobs))
    return " && ".join(script), locks, programs


@pytest.fixture(scope="module", params=["tp2827", "tp2826"])
def board_run(request):
    chip = request.param
    script, locks, programs = plan(chip)
    r = run_board(script, "--chip", chip, timeout=240)
    assert r.returncode == 0, r.stdout + r.stderr
    out, tag = {}, None
    for line in r.stdout.splitlines():
        if line.startswith("== "):
            tag = line[3:]
            out[tag] = []
        elif tag:
            out[tag].append(line)
    return chip, out, locks, programs


def chip_view(out, tag):
    """channel -> (locked, line length) as the chip model sees them."""
    status = json.loads(next(s for s in out[tag] if s.startswith("chip "))[5:])
    return {c["index"]: (c["locked"], c["line_length"]) for c in status["channels"]}


def test_identify_names_the_chip(board_run):
    chip, out, _, _ = board_run
    assert out["ID"] == ["Techpoint 2827" if chip == "tp2827" else "Techpoint 2826"]


def test_detection_locks_on_each_detectable_camera(board_run):
    _, out, locks, _ = board_run
    for tag, cameras, _, detectable in locks:
        view = chip_view(out, tag)
        for ch, (std, res, variant) in enumerate(cameras):
            what = f"{tag} ch {ch}: {std} {res} {variant}"
            if detectable:
                assert f"ch {ch} locked {std} {res}" in out[tag], what
                assert view[ch][0], what
            else:
                assert f"ch {ch} no lock" in out[tag], what


def test_fixed_formats_are_taken_by_the_chip(board_run):
    _, out, _, programs = board_run
    for tag, jobs in programs:
        view = chip_view(out, tag)
        for ch, std, res, variant, (pstd, pres) in jobs:
            fits = (std, res) == (pstd, pres)
            what = f"{tag} ch {ch}: camera {std} {res} {variant}, programmed {pstd} {pres}"
            lock, length = view[ch]
            # The driver's own reading and the chip model agree on the lock and
            # on the line length the format left in the timing registers.
            state = "locked" if fits else "no-lock"
            expected = f"ch {ch} {pstd} {pres} {state} line-length {length} video 1"
            assert expected in out[tag], what
            assert lock == fits, what
