"""The fault matrix: every fault the virtual board can inject, one scenario each.
The daemon keeps running (with no chip, it ends), answers its clients, keeps
the configuration file holding what a client last had accepted, logs the
message, and recovers once the fault is cleared.

Faults during operation share one board: a CVBS PAL camera on channel 1 (the
pipeline's own mode, so a loss on it is acted on), channel 3 kept in fixed
formats by a client, channels 0 and 2 for the 4K coupling. Faults that matter
at start-up get a board of their own, prepared before the gate opens."""

import os
import signal
from dataclasses import dataclass, field
from typing import Callable, Optional

import pytest

from daemon import ACQUIRED, ERROR, OBJECT, SERVICE, Board, in_order, wait_until
from daemon import boards  # noqa: F401  (the fixture of the start-up scenarios)

CAM, FIXED = 1, 3
LATE_MS = 1000
# Set on channel 3 in turn: each differs from the one before in type and in
# capture mode, so every set reaches the capture mode service, the image
# control service and the video system.
FORMATS = [
    dict(std="ahd", res="720p25", standard=1, resolution=5, mode=4, freq="50Hz", setting=0),
    dict(std="cvbs", res="ntsc", standard=3, resolution=9, mode=2, freq="60Hz", setting=2),
    dict(std="tvi", res="1080p30", standard=0, resolution=2, mode=3, freq="60Hz", setting=0),
    dict(std="cvbs", res="pal", standard=3, resolution=8, mode=1, freq="50Hz", setting=1),
]
AUTO = {"auto": "true"}
DISABLED = {"standard": "4", "resolution": "33", "auto": "false"}


class Rig:
    """The shared board, what its configuration file must hold, and where the
    current scenario's part of the log starts."""

    def __init__(self, board):
        self.board = board
        self.expected = {f"Channel {ch}": dict(AUTO) for ch in range(4)}
        self.turn = self.mark = 0
        self.saturation = None
        self.contrast = self.contrast_set = 50  # the chip's default

    def wait_logged(self, text):
        """TEXT ending in "*" is a prefix (the rest is another service's error)."""
        new = lambda: self.board.messages()[self.mark:]  # noqa: E731
        match = (lambda m: m.startswith(text[:-1])) if text.endswith("*") else text.__eq__
        wait_until(lambda: any(map(match, new())), 30, f"'{text}' in the log")

    def services(self):
        return self.board.status()["services"]

    def set_format(self, ch=FIXED):
        """A fixed format the daemon must accept whatever else fails."""
        fmt = FORMATS[self.turn % len(FORMATS)]
        self.turn += 1
        assert self.board.call("SetVideoStandard", ch, 0, fmt["std"], fmt["res"]) == ()
        self.expected[f"Channel {ch}"] = {"standard": str(fmt["standard"]),
                                          "resolution": str(fmt["resolution"]), "auto": "false"}
        return fmt

    def check_serving(self, chip_ok=True):
        """Alive, and a setter answered: taken, or refused while the chip can't
        be written."""
        board = self.board
        os.kill(board.daemon_pid, 0)
        self.contrast = 31 if self.contrast != 31 else 32
        if chip_ok:
            board.call("SetContrast", 2, self.contrast)
            self.contrast_set = self.contrast
        else:
            assert board.call_error("SetContrast", 2, self.contrast) == (
                ERROR + "System", "Failed to set contrast")
        assert board.list_config()[2]["contrast"] == self.contrast_set

    def check_config(self):
        groups = self.board.config_file()
        assert list(groups) == list(self.expected)
        for name, want in self.expected.items():
            assert {k: groups[name][k] for k in want} == want, (name, groups[name])

    def settle(self):  # the camera's channel reported with video, its overlay clear
        self.board.wait("connected", CAM, "1")
        self.board.wait("overlay", CAM, "-")


# -- what a scenario does while the fault is in force --------------------------

def refuse_saturation(rig, other_register=False):
    rig.saturation = 77 if rig.board.list_config()[0]["saturation"] != 77 else 78
    assert rig.board.call_error("SetSaturation", 0, rig.saturation) == (
        ERROR + "System", "Failed to set saturation")
    assert rig.board.list_config()[0]["saturation"] != rig.saturation
    if other_register:  # brightness is another register: still written
        rig.board.call("SetBrightness", 0, rig.saturation)
        assert rig.board.list_config()[0]["brightness"] == rig.saturation


def refuse_termination(line):
    def during(rig):
        assert rig.board.call_error("SetVideoTermination", line - 1, 1) == (
            ERROR + "System", "Failed to set video termination")
        rig.board.call("SetVideoTermination", line % 4, 0)  # another line still works
    return during


def lose_video(rig):  # the trigger for the event and overlay services
    rig.board.ctl("fault", "stats", "empty", str(CAM))


def uhd(rig):
    cams = rig.board.status()["channels"][2]["cam_ioctls"]
    assert rig.board.call("SetVideoStandard", 0, 0, "tvi", "4k15") == ()
    rig.expected["Channel 0"] = {"standard": "0", "resolution": "11", "auto": "false"}
    rig.expected["Channel 2"] = dict(DISABLED)
    assert rig.board.status()["channels"][2]["cam_ioctls"] == cams  # refused by the device


# -- what must work again once the fault is cleared ----------------------------

def saturation_works(rig, before):
    rig.board.call("SetSaturation", 0, rig.saturation)
    assert rig.board.list_config()[0]["saturation"] == rig.saturation


def termination_works(line):
    def after(rig, before):
        rig.board.call("SetVideoTermination", line - 1, 1)
        assert rig.board.get("term", line) == "1"
        rig.board.call("SetVideoTermination", line - 1, 0)
    return after


def overlay_called_again(rig, before):
    # The failed "Set" is not repeated; the next change (video back) is sent.
    wait_until(lambda: rig.services()["overlay"][CAM]["unset_calls"] > before["unset"], 30,
               "the overlay service to get the next change")


def event_sent_again(rig, before):
    # The failed loss is not sent again; the next change (video back) is.
    rig.board.wait("events", CAM, str(before["events"] + 1))
    assert rig.board.get("connected", CAM) == "1"


def pipeline_follows(rig, before):
    # A refused call is not made again; the next set reaches every service.
    fmt = rig.set_format()
    rig.board.wait("capture-mode", FIXED, str(fmt["mode"]))
    wait_until(lambda: rig.services()["capture"][FIXED]["frequency_sets"] > before["freq"], 10,
               "the capture frequency to be set")
    assert rig.board.get("capture-frequency", FIXED) == fmt["freq"]
    assert rig.services()["video_system"]["set_settings_calls"] > before["settings"]
    assert rig.board.get("video-type", FIXED) == str(fmt["setting"])


def uhd_again(rig, before):
    cams = rig.board.status()["channels"][2]["cam_ioctls"]
    assert rig.board.call("SetVideoStandard", 0, 0, "tvi", "4k12") == ()
    rig.expected["Channel 0"]["resolution"] = "10"
    assert rig.board.status()["channels"][2]["cam_ioctls"] == cams + 1
    assert rig.board.get("cam-ioctl", 2) == "1"
    # Channel 0 leaves 4K: both channels search again.
    assert rig.board.call("SetVideoStandard", 0, 1, "", "") == ()
    rig.expected["Channel 0"] = dict(AUTO)
    rig.expected["Channel 2"] = dict(AUTO)


@dataclass
class Fault:
    id: str
    fault: list
    logs: list = field(default_factory=list)  # exact, or a prefix ending in "*"
    during: Optional[Callable] = None
    after: Optional[Callable] = None
    chip_ok: bool = True
    late: Optional[str] = None  # the service whose reply is late: it must come


def service_faults(name, logs, trigger, after, late_check):
    return [Fault(f"{name}-absent", ["service", name, "absent"], logs, trigger, after),
            Fault(f"{name}-failing", ["service", name, "failing"], logs, trigger, after),
            Fault(f"{name}-late", ["service", name, "late", str(LATE_MS)], [],
                  trigger, late_check, late=name)]


RUNTIME = [
    # Every transfer refused: the image controls answer with the system error,
    # format programming ignores write failures, so a new standard is taken.
    Fault("chip-nack-all", ["chip", "nack", "all"], ["Unable to write data", "Unable to send data",
          "Failed to set saturation"], refuse_saturation, saturation_works, chip_ok=False),
    Fault("chip-nack-0x12", ["chip", "nack", "0x12"], ["Unable to send data",
          "Failed to set saturation"], lambda rig: refuse_saturation(rig, True), saturation_works),
    *[Fault(f"gpio-video_term_{n}", ["gpio", "missing", f"video_term_{n}"],
            [f"Failed to request named GPIO video_term_{n}", "Failed to set video termination"],
            refuse_termination(n), termination_works(n)) for n in range(1, 5)],
    # A statistic that can't be read counts as no video: the loss is reported.
    Fault("stats-missing", ["stats", "missing", str(CAM)],
          [f"check_no_video: Failed to open /proc/driver/veltra/stats/no_video_{CAM}"],
          lambda rig: rig.board.wait("connected", CAM, "0")),
    Fault("stats-empty", ["stats", "empty", str(CAM)],
          [f"check_no_video: Failed to read ret=0 /proc/driver/veltra/stats/no_video_{CAM}"],
          lambda rig: rig.board.wait("overlay", CAM, "VIDEO_LOSS")),
    # The 4K output set-up tells capture device 2 it has no video; the device
    # refusing it changes nothing else.
    Fault("cam-fail-2", ["cam", "fail", "2"], ["ioctl CAM_IOC_SET_NO_VIDEO failed"], uhd,
          uhd_again),
    *service_faults("overlay", ["prioritized_text_overlay: Call failed (*"], lose_video,
                    overlay_called_again,
                    lambda rig, _: rig.board.wait("overlay", CAM, "VIDEO_LOSS")),
    *service_faults("event", ["Failed to send Video Connected event: *",
                              f"Failed to send video connected event for channel {CAM}"],
                    lose_video, event_sent_again,
                    lambda rig, _: rig.board.wait("connected", CAM, "0")),
    *service_faults("capturemode", ["set_capture_mode Unable to set SetCaptureMode on channel 3 *"],
                    None, pipeline_follows, pipeline_follows),
    *service_faults("imagecontrol", ["set_capture_frequency: Unable to set 'CaptureFrequency' "
                                     "on channel '3'. Error msg: *"], None, pipeline_follows,
                    pipeline_follows),
    *service_faults("videosystem", ["Failed to update video_type: :*"], None, pipeline_follows,
                    pipeline_follows),
]


@pytest.fixture(scope="module")
def matrix(request):
    m = dict(tried=[], passed=[])
    yield m
    line = f"fault matrix: {len(m['tried'])} faults tried, {len(m['passed'])} scenarios passed"
    plugins = request.config.pluginmanager
    with plugins.get_plugin("capturemanager").global_and_fixture_disabled():
        plugins.get_plugin("terminalreporter").write_line("\n" + line)


@pytest.fixture(scope="module")
def rig():
    board = Board(chip="tp2827", cameras=[f"{CAM}:cvbs:pal"])
    try:
        board.start()
        board.wait_log(ACQUIRED)
        board.wait_log(f"Accepted lock on new video type, update video config file: "
                       f"type 8 on channel {CAM}, video type = 3", timeout=60)
        r = Rig(board)
        r.settle()
        yield r
    finally:
        complaint = board.stop()
    assert not complaint, complaint


@pytest.mark.parametrize("case", RUNTIME, ids=lambda c: c.id)
def test_fault_during_operation(rig, matrix, case):
    matrix["tried"].append(case.id)
    board = rig.board
    services = (status := board.status())["services"]
    before = dict(events=status["channels"][CAM]["events"],
                  unset=services["overlay"][CAM]["unset_calls"],
                  freq=services["capture"][FIXED]["frequency_sets"],
                  settings=services["video_system"]["set_settings_calls"],
                  late=services["services"][case.late]["late_replies"] if case.late else 0)
    rig.mark = len(board.messages())
    board.ctl("fault", *case.fault)
    if case.during:
        case.during(rig)
    rig.set_format()  # the change a client makes while the fault lasts
    for text in case.logs:
        rig.wait_logged(text)
    rig.check_serving(case.chip_ok)
    rig.check_config()
    if case.late:
        case.after(rig, before)
        assert rig.services()["services"][case.late]["late_replies"] > before["late"]
    board.ctl("fault", "clear")
    if case.after and not case.late:
        case.after(rig, before)
    rig.settle()
    rig.check_serving()
    rig.check_config()
    matrix["passed"].append(case.id)


# -- faults present when the daemon starts -------------------------------------

SEED = "".join(f"[Channel {ch}]\nstandard=5\nresolution=31\nauto=true\nconfigured=false\n\n"
               for ch in range(3)) + "[Channel 3]\nstandard=3\nresolution=9\nauto=false\n" \
                                     "configured=true\n"


def reset_line_missing(board):
    # The reset pulse is given once, at start-up; the chip answers all the same.
    assert board.messages().count("Failed to request named GPIO decoder_reset_0") == 2


def interrupt_line_missing(board):
    # Both the edge set-up and the manager's own handle fail; the manager
    # thread then ends at once and nothing watches the chip until a restart.
    board.wait_count("Failed to request named GPIO decoder_interrupt_0", 2)
    board.signal(signal.SIGTERM)
    assert board.wait_exit() == 0
    messages = board.messages()
    assert "Stopped manager thread" in messages and "Manager thread exit" not in messages


def cpuid_line_missing(board):
    assert board.busctl("get-property", SERVICE, OBJECT, SERVICE,
                        "MultiDeviceProperties")["data"] is False
    assert all(priority >= 6 for priority, _ in board.log()), board.log()


def events_absent(board):
    # Each channel's event is declared once, at start-up: with no event
    # service then, no channel has a declaration to send on while the daemon runs.
    for ch in range(4):
        board.wait_log(f"Failed to send video connected event for channel {ch}")
    assert board.messages().count("Failed to create Video Connected event") >= 4


def image_control_absent(board):
    messages = board.messages()
    for ch in range(4):
        assert [m for m in messages if m.startswith(
            f"get_capture_mode_index Unable to get CaptureModeIndex on channel {ch} ")]
    # Read again for each set; once the service is back it gets the next one.
    board.ctl("fault", "clear")
    assert board.call("SetVideoStandard", 3, 0, "cvbs", "ntsc") == ()
    assert board.status()["services"]["capture"][3]["frequency_sets"] >= 1
    assert board.get("capture-frequency", 3) == "60Hz"


START = [
    ("gpio-decoder_reset_0", ["gpio", "missing", "decoder_reset_0"],
     ["FAILED: write 1 to reset GPIO", "FAILED: write 0 to reset GPIO"], reset_line_missing),
    ("gpio-decoder_interrupt_0", ["gpio", "missing", "decoder_interrupt_0"],
     [], interrupt_line_missing),
    ("gpio-cpuid_bit0", ["gpio", "missing", "cpuid_bit0"], [], cpuid_line_missing),
    ("event-absent-at-start", ["service", "event", "absent"], [], events_absent),
    ("imagecontrol-absent-at-start", ["service", "imagecontrol", "absent"], [],
     image_control_absent),
]


@pytest.mark.parametrize("name,fault,logs,check", START, ids=[s[0] for s in START])
def test_fault_at_start_up(boards, matrix, name, fault, logs, check):
    matrix["tried"].append(name)
    board = boards(chip="tp2827", config=SEED, gate_open=False)
    board.ctl("fault", *fault)
    board.open_gate()
    board.wait_log(ACQUIRED, timeout=60)
    for text in logs:
        board.wait_log(text)
    # The stored configuration was taken as it is, and a new one is accepted.
    assert board.config_file()["Channel 3"]["resolution"] == "9"
    row = board.list_config()[3]
    assert (row["standard"], row["resolution"], row["auto"]) == ("cvbs", "ntsc", False)
    assert board.call("SetVideoStandard", 3, 0, "ahd", "720p25") == ()
    assert {k: board.config_file()["Channel 3"][k] for k in ("standard", "resolution", "auto")} \
        == {"standard": "1", "resolution": "5", "auto": "false"}
    check(board)
    matrix["passed"].append(name)


def test_no_chip_at_start_up(boards, matrix):
    """The one fault the daemon does not outlive: it gives up at once with
    status 0 (the service manager restarts it) and leaves its file alone."""
    matrix["tried"].append("chip-absent")
    board = boards(chip="tp2826", config=SEED, gate_open=False)
    board.ctl("fault", "chip", "absent")
    board.open_gate()
    assert board.wait_exit(timeout=60) == 0
    log = board.log()
    messages = [text for _, text in log]
    in_order(messages, ["Starting vinmand.", "can't communicate with tp28xx chip",
                        "still no valid video source", "No valid decoder setup.",
                        "vinmand stopped."])
    assert (3, "No valid decoder setup.") in log and messages[-1] == "vinmand stopped."
    assert not [m for m in messages if "D-Bus" in m or m in (
        "Starting manager thread", "vinmand stopping.", "vinmand cleaning up.")]
    with open(board.config_path) as f:
        assert f.read() == SEED
    matrix["passed"].append("chip-absent")
