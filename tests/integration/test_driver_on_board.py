"""The chip driver alone on the virtual board (vboard-drive): it identifies the chip, detects
each camera the chip can, and each fixed format locks on a matching camera only."""

import os

import pytest

from conftest import BUILD, run_board

DRIVE = os.path.join(BUILD, "tests", "drivecheck", "vboard-drive")
pytestmark = pytest.mark.skipif(not os.access(DRIVE, os.X_OK), reason=f"{DRIVE} is not built")

HD_STD = ("tvi", "ahd", "cvi")
SD = [("cvbs", "pal", ""), ("cvbs", "ntsc", "")]
# Short-line 720p and the long-line variants each need their own register set.
HD = ([(s, r, "") for s in HD_STD for r in ("1080p25", "1080p30", "720p25", "720p30")] +
      [(s, r, "long") for s in HD_STD for r in ("720p25", "720p30")])


def plan(chip):
    """(cameras on channels 0.., the driver's arguments, the lines it must print)."""
    own = lambda cams: (cams, [cam[:2] for cam in cams])  # noqa: E731
    if chip == "tp2826":  # standard definition only
        runs = [(SD * 2, None), *((HD[i:i + 4], None) for i in range(0, 12, 4)), own(SD * 2),
                (SD[:1], [("cvbs", "ntsc")])]
    else:  # 4K and 25/30 frames/s 1440p on channel 0 only
        fixed = HD + SD + [(s, "1440p15", "") for s in HD_STD]
        runs = [*(((SD + HD)[i:i + 4], None) for i in range(0, 20, 4)),
                *(own(fixed[i:i + 4]) for i in range(0, 23, 4)),
                *(own([(s, r, "")]) for r in ("4k12", "4k15", "1440p25", "1440p30")
                  for s in HD_STD),
                ([("tvi", "1080p30", "")], [("tvi", "1080p25")])]
    for cams, formats in runs:
        if formats is None:
            found = chip == "tp2827" or cams[0][0] == "cvbs"
            yield cams, f"lock {10 if found else 2}", [
                f"ch {ch} locked {s} {r}" if found else f"ch {ch} no lock"
                for ch, (s, r, _) in enumerate(cams)]
        else:
            yield cams, "program " + " ".join(f"{s} {r}" for s, r in formats), [
                f"ch {ch} {s} {r} {'locked' if cam[:2] == (s, r) else 'no-lock'} video 1"
                for ch, (cam, (s, r)) in enumerate(zip(cams, formats))]


@pytest.mark.parametrize("chip", ["tp2827", "tp2826"])
def test_driver_identifies_detects_and_programs_on_the_board(chip):
    runs = list(plan(chip))
    script = " && ".join("".join(f"vboard-ctl plug {ch} {' '.join(cam)} && " for ch, cam in
                                 enumerate(cams)) + f"echo == && {DRIVE} {args}"
                         for cams, args, _ in runs)  # a failing step stops the script
    r = run_board(script, "--chip", chip, timeout=240)
    assert r.returncode == 0, r.stdout + r.stderr
    outputs = [out.splitlines() for out in r.stdout.split("==\n")[1:]]
    for (cams, args, expect), out in zip(runs, outputs, strict=True):
        assert out[0] == "Techpoint " + chip[2:], out
        assert sorted(out[1:]) == sorted(expect), f"{args} on cameras {cams}"
