"""The chip driver alone on the virtual board: vboard-drive identifies the chip,
lets automatic detection lock on each camera the chip detects and programs each
fixed format it takes; the chip model's own view judges what the chip took."""

import json
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
    """Rounds (tag, cameras plugged on channels 0.., driver command, channel ->
    (line the driver prints, whether the chip locks)); a program job is
    (channel, camera, programmed standard and resolution)."""
    rounds = []

    def lock(cams, seconds, found=True):
        rounds.append((f"L{len(rounds)}", list(enumerate(cams)), f"lock {seconds} " +
                       " ".join(str(ch) for ch in range(len(cams))),
                       {ch: (f"ch {ch} locked {s} {r}" if found else f"ch {ch} no lock", found)
                        for ch, (s, r, _) in enumerate(cams)}))

    def program(*jobs):
        rounds.append((f"P{len(rounds)}", [(ch, cam) for ch, cam, _ in jobs],
                       "program " + " ".join(f"{ch} {p[0]} {p[1]}" for ch, _, p in jobs),
                       {ch: (f"ch {ch} {p[0]} {p[1]} {'locked' if cam[:2] == p else 'no-lock'}"
                             " line-length {} video 1", cam[:2] == p) for ch, cam, p in jobs}))

    if chip == "tp2827":
        for i in range(0, len(SD + HD), 4):
            lock((SD + HD)[i:i + 4], 10)
        fixed = HD + SD + [(s, "1440p15", "") for s in HD_STD]
        for i in range(0, len(fixed), 4):
            program(*((ch, cam, cam[:2]) for ch, cam in enumerate(fixed[i:i + 4])))
        for s in HD_STD:  # 4K and 25/30 frames/s 1440p: channel 0 only
            for r in ("4k12", "4k15", "1440p25", "1440p30"):
                program((0, (s, r, ""), (s, r)))
        program((1, ("tvi", "1080p30", ""), ("tvi", "1080p25")))  # must not lock
    else:  # standard definition only
        lock(SD * 2, 10)
        for i in range(0, 12, 4):
            lock(HD[i:i + 4], 2, found=False)
        program(*((ch, ("cvbs", r, ""), ("cvbs", r)) for ch, r in enumerate(("pal", "ntsc") * 2)))
        program((0, ("cvbs", "pal", ""), ("cvbs", "ntsc")))
    return rounds


@pytest.mark.parametrize("chip", ["tp2827", "tp2826"])
def test_driver_identifies_detects_and_programs_on_the_board(chip):
    rounds = plan(chip)
    script = ["echo '== ID'", f"{DRIVE} identify"]
    for tag, plugs, command, _ in rounds:  # a failing step stops the script
        script += [f"vboard-ctl plug {ch} {' '.join(cam)}" for ch, cam in plugs]
        script += [f"echo '== {tag}'", f"{DRIVE} {command}", "echo $(vboard-ctl status --json)"]
    r = run_board(" && ".join(script), "--chip", chip, timeout=240)
    assert r.returncode == 0, r.stdout + r.stderr
    out = {}
    for line in r.stdout.splitlines():
        if line.startswith("== "):
            tag = out.setdefault(line[3:], [])
        else:
            tag.append(line)
    assert out["ID"] == ["Techpoint " + chip[2:]]
    for tag, plugs, _, expect in rounds:
        view = {c["index"]: c for c in json.loads([s for s in out[tag] if s.startswith("{")][-1])["channels"]}
        for ch, cam in plugs:
            line, locks = expect[ch]
            what = f"{tag} ch {ch}: camera {' '.join(cam)}"
            # The driver's own reading and the chip model agree on the lock and
            # on the line length the format left in the timing registers.
            assert line.format(view[ch]["line_length"]) in out[tag], what
            assert view[ch]["locked"] == locks, what
