"""The fault matrix: for every fault the virtual board can inject, the daemon
keeps running (with no chip, it ends), answers its clients, keeps the file
holding what a client last had accepted, logs the message, and recovers once
the fault is cleared. Faults during operation share one board: a CVBS PAL
camera on channel 1 (the pipeline's own mode, so a loss on it is acted on),
channel 3 in fixed formats set by a client, channels 0 and 2 for the 4K
coupling. Faults that matter at start-up get a board each."""

import signal

import pytest

from daemon import ACQUIRED, ERROR, Board, in_order, read_file, wait_until
from daemon import boards  # noqa: F401  (the fixture of the start-up scenarios)

CAM, FIXED = 1, 3
# Set on channel 3 in turn: each differs from the one before in type and in
# capture mode, so every set reaches the capture mode, image control and video
# system services. (standard, resolution, file's numbers, capture mode,
# capture frequency, video system setting)
FORMATS = [("ahd", "720p25", "1", "5", "4", "50Hz", "0"),
           ("cvbs", "ntsc", "3", "9", "2", "60Hz", "2"),
           ("tvi", "1080p30", "0", "2", "3", "60Hz", "0"),
           ("cvbs", "pal", "3", "8", "1", "50Hz", "1")]
AUTO = {"auto": "true"}


class Rig:
    """The shared board and what its configuration file must hold."""

    def __init__(self, board):
        self.board = board
        self.expected = {f"Channel {ch}": dict(AUTO) for ch in range(4)}
        self.turn = self.tries = 0
        self.contrast = 50  # the chip's default

    def services(self):
        return self.board.status()["services"]

    def set_format(self):
        """A fixed format the daemon must accept whatever else fails."""
        fmt = FORMATS[self.turn % len(FORMATS)]
        self.turn += 1
        assert self.board.call("SetVideoStandard", FIXED, 0, *fmt[:2]) == ()
        self.expected[f"Channel {FIXED}"] = dict(standard=fmt[2], resolution=fmt[3], auto="false")
        return fmt

    def check(self, chip_ok=True):
        """Alive; a setter answered (taken, or refused while the chip can't be
        written); the file holds the last accepted changes."""
        assert self.board.proc.poll() is None
        self.tries += 1
        if chip_ok:
            self.board.call("SetContrast", 2, 20 + self.tries)
            self.contrast = 20 + self.tries
        else:
            assert self.board.call_error("SetContrast", 2, 20 + self.tries) == (
                ERROR + "System", "Failed to set contrast")
        assert self.board.list_config()[2]["contrast"] == self.contrast
        groups = self.board.config_file()
        assert list(groups) == list(self.expected)
        for name, want in self.expected.items():
            assert {k: groups[name][k] for k in want} == want, (name, groups[name])


# -- what a scenario does while the fault is in force, and once it is cleared --

def refuse_saturation(rig, before, other_register=False):
    before["saturation"] = value = 60 + rig.tries
    assert rig.board.call_error("SetSaturation", 0, value) == (
        ERROR + "System", "Failed to set saturation")
    assert rig.board.list_config()[0]["saturation"] != value
    if other_register:  # brightness is another register: still written
        rig.board.call("SetBrightness", 0, value)
        assert rig.board.list_config()[0]["brightness"] == value


def saturation_works(rig, before):
    rig.board.call("SetSaturation", 0, before["saturation"])
    assert rig.board.list_config()[0]["saturation"] == before["saturation"]


def refuse_termination(rig, before, line):
    assert rig.board.call_error("SetVideoTermination", line - 1, 1) == (
        ERROR + "System", "Failed to set video termination")
    rig.board.call("SetVideoTermination", line % 4, 0)  # another line still works


def termination_works(rig, before, line):
    rig.board.call("SetVideoTermination", line - 1, 1)
    assert rig.board.get("term", line) == "1"
    rig.board.call("SetVideoTermination", line - 1, 0)


def lose_video(rig, before):  # the trigger for the event and overlay services
    rig.board.ctl("fault", "stats", "empty", str(CAM))


def overlay_called_again(rig, before):
    # The failed "Set" is not repeated; the next change (video back) is sent.
    wait_until(lambda: rig.services()["overlay"][CAM]["unset_calls"]
               > before["services"]["overlay"][CAM]["unset_calls"], 30, "the next overlay call")


def event_sent_again(rig, before):
    # The failed loss is not sent again; the next change (video back) is.
    rig.board.wait("events", CAM, str(before["channels"][CAM]["events"] + 1))
    assert rig.board.get("connected", CAM) == "1"


def pipeline_follows(rig, before):
    # A refused call is not made again; the next set reaches every service.
    _, _, _, _, mode, freq, setting = rig.set_format()
    rig.board.wait("capture-mode", FIXED, mode)
    wait_until(lambda: rig.services()["capture"][FIXED]["frequency_sets"]
               > before["services"]["capture"][FIXED]["frequency_sets"], 10, "a frequency set")
    assert rig.board.get("capture-frequency", FIXED) == freq
    assert rig.services()["video_system"]["set_settings_calls"] > \
        before["services"]["video_system"]["set_settings_calls"]
    assert rig.board.get("video-type", FIXED) == setting


def uhd(rig, before, res=("4k15", "11"), taken=0):
    # The 4K output set-up tells capture device 2 it has no video.
    assert rig.board.call("SetVideoStandard", 0, 0, "tvi", res[0]) == ()
    count = lambda status: status["channels"][2]["cam_ioctls"]  # noqa: E731
    assert count(rig.board.status()) == count(before) + taken
    rig.expected["Channel 0"] = dict(standard="0", resolution=res[1], auto="false")
    rig.expected["Channel 2"] = dict(standard="4", resolution="33", auto="false")


def uhd_again(rig, before):
    uhd(rig, before, ("4k12", "10"), 1)
    assert rig.board.get("cam-ioctl", 2) == "1"
    assert rig.board.call("SetVideoStandard", 0, 1, "", "") == ()  # both channels search again
    rig.expected["Channel 0"], rig.expected["Channel 2"] = dict(AUTO), dict(AUTO)


def wait_board(key, value):
    return lambda rig, before: rig.board.wait(key, CAM, value)


def service_faults(name, logs, trigger, after, late_check):
    """Absent and failing: the message, and the next change gets through once
    cleared. Late (1 s): the reply must come."""
    def late(rig, before):
        if trigger:
            trigger(rig, before)
        late_check(rig, before)
    return [(f"{name}-{how}", ["service", name, how], logs, trigger, after)
            for how in ("absent", "failing")] + [
        (f"{name}-late", ["service", name, "late", "1000"], [], late, None)]


PIPELINE_SERVICES = {
    "capturemode": "set_capture_mode Unable to set SetCaptureMode on channel 3 *",
    "imagecontrol": "set_capture_frequency: Unable to set 'CaptureFrequency' on channel '3'. "
                    "Error msg: *",
    "videosystem": "Failed to update video_type: :*"}
# (id, fault, messages (exact, or a prefix ending in "*"), while in force, once cleared)
RUNTIME = [
    # Every transfer refused: the image controls answer with the system error,
    # format programming ignores write failures, so a new standard is taken.
    ("chip-nack-all", ["chip", "nack", "all"], ["Unable to write data", "Unable to send data",
     "Failed to set saturation"], refuse_saturation, saturation_works),
    ("chip-nack-0x12", ["chip", "nack", "0x12"], ["Unable to send data",
     "Failed to set saturation"], lambda r, b: refuse_saturation(r, b, True), saturation_works),
    *[(f"gpio-video_term_{n}", ["gpio", "missing", f"video_term_{n}"],
       [f"Failed to request named GPIO video_term_{n}", "Failed to set video termination"],
       lambda r, b, n=n: refuse_termination(r, b, n),
       lambda r, b, n=n: termination_works(r, b, n)) for n in range(1, 5)],
    # A statistic that can't be read counts as no video: the loss is reported.
    ("stats-missing", ["stats", "missing", str(CAM)],
     [f"check_no_video: Failed to open /proc/driver/veltra/stats/no_video_{CAM}"],
     wait_board("connected", "0"), None),
    ("stats-empty", ["stats", "empty", str(CAM)],
     [f"check_no_video: Failed to read ret=0 /proc/driver/veltra/stats/no_video_{CAM}"],
     wait_board("overlay", "VIDEO_LOSS"), None),
    # Capture device 2 refusing the 4K set-up changes nothing else.
    ("cam-fail-2", ["cam", "fail", "2"], ["ioctl CAM_IOC_SET_NO_VIDEO failed"], uhd, uhd_again),
    *service_faults("overlay", ["prioritized_text_overlay: Call failed (*"], lose_video,
                    overlay_called_again, wait_board("overlay", "VIDEO_LOSS")),
    *service_faults("event", ["Failed to send Video Connected event: *",
                              f"Failed to send video connected event for channel {CAM}"],
                    lose_video, event_sent_again, wait_board("connected", "0")),
    *[fault for name, log in PIPELINE_SERVICES.items()
      for fault in service_faults(name, [log], None, pipeline_follows, pipeline_follows)],
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
        board.wait_log(f"Accepted lock on new video type, update video config file: "
                       f"type 8 on channel {CAM}, video type = 3", timeout=60)
        yield Rig(board)
    finally:
        complaint = board.stop()
    assert not complaint, complaint


@pytest.mark.parametrize("name,fault,logs,during,after", RUNTIME, ids=[f[0] for f in RUNTIME])
def test_fault_during_operation(rig, matrix, name, fault, logs, during, after):
    matrix["tried"].append(name)
    board = rig.board
    board.wait("connected", CAM, "1")  # the camera's channel settled, its overlay clear
    board.wait("overlay", CAM, "-")
    before = board.status()
    late = fault[1] if fault[-2] == "late" else None
    mark = len(board.messages())
    board.ctl("fault", *fault)
    if during:
        during(rig, before)
    rig.set_format()  # the change a client makes while the fault lasts
    for text in logs:  # a "*" stands for another service's error
        match = (lambda m: m.startswith(text[:-1])) if text.endswith("*") else text.__eq__
        wait_until(lambda: any(map(match, board.messages()[mark:])), 30, f"'{text}' in the log")
    rig.check(chip_ok=name != "chip-nack-all")
    if late:
        assert rig.services()["services"][late]["late_replies"] > \
            before["services"]["services"][late]["late_replies"]
    board.ctl("fault", "clear")
    if after:
        after(rig, before)
    board.wait("connected", CAM, "1")
    board.wait("overlay", CAM, "-")
    rig.check()
    matrix["passed"].append(name)


# -- faults present when the daemon starts -------------------------------------

SEED = "".join(f"[Channel {ch}]\nstandard=5\nresolution=31\nauto=true\nconfigured=false\n\n"
               for ch in range(3)) + "[Channel 3]\nstandard=3\nresolution=9\nauto=false\n" \
                                     "configured=true\n"


def reset_line_missing(board):
    # The reset pulse is given once, at start-up; the chip answers all the same.
    for text in ("FAILED: write 1 to reset GPIO", "FAILED: write 0 to reset GPIO"):
        board.wait_log(text)
    assert board.messages().count("Failed to request named GPIO decoder_reset_0") == 2


def interrupt_line_missing(board):
    # Both the edge set-up and the manager's own handle fail; the manager
    # thread then ends at once and nothing watches the chip until a restart.
    board.wait_count("Failed to request named GPIO decoder_interrupt_0", 2)
    board.signal(signal.SIGTERM)
    assert board.wait_exit() == 0
    assert "Stopped manager thread" in board.messages()
    assert "Manager thread exit" not in board.messages()


def cpuid_line_missing(board):
    assert board.get_property("MultiDeviceProperties") is False
    assert all(priority >= 6 for priority, _ in board.log()), board.log()


def events_absent(board):
    # Each channel's event is declared once, at start-up: with no event
    # service then, no channel has a declaration to send on while the daemon runs.
    for ch in range(4):
        board.wait_log(f"Failed to send video connected event for channel {ch}")
    assert board.messages().count("Failed to create Video Connected event") >= 4


def image_control_absent(board):
    for ch in range(4):
        assert [m for m in board.messages() if m.startswith(
            f"get_capture_mode_index Unable to get CaptureModeIndex on channel {ch} ")]
    # Read again for each set; once the service is back it gets the next one.
    board.ctl("fault", "clear")
    assert board.call("SetVideoStandard", 3, 0, "cvbs", "ntsc") == ()
    assert board.status()["services"]["capture"][3]["frequency_sets"] >= 1
    assert board.get("capture-frequency", 3) == "60Hz"


START = {"gpio-decoder_reset_0": (["gpio", "missing", "decoder_reset_0"], reset_line_missing),
         "gpio-decoder_interrupt_0": (["gpio", "missing", "decoder_interrupt_0"],
                                      interrupt_line_missing),
         "gpio-cpuid_bit0": (["gpio", "missing", "cpuid_bit0"], cpuid_line_missing),
         "event-absent-at-start": (["service", "event", "absent"], events_absent),
         "imagecontrol-absent-at-start": (["service", "imagecontrol", "absent"],
                                          image_control_absent)}


@pytest.mark.parametrize("name", START)
def test_fault_at_start_up(boards, matrix, name):
    matrix["tried"].append(name)
    fault, check = START[name]
    board = boards(chip="tp2827", config=SEED, gate_open=False)
    board.ctl("fault", *fault)
    board.open_gate()
    board.wait_log(ACQUIRED, timeout=60)
    # The stored configuration was taken as it is, and a new one is accepted.
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
    messages = board.messages()
    in_order(messages, ["Starting vinmand.", "can't communicate with tp28xx chip",
                        "still no valid video source", "No valid decoder setup.",
                        "vinmand stopped."])
    assert (3, "No valid decoder setup.") in board.log() and messages[-1] == "vinmand stopped."
    assert not [m for m in messages if "D-Bus" in m or m in (
        "Starting manager thread", "vinmand stopping.", "vinmand cleaning up.")]
    assert read_file(board.config_path) == SEED
    matrix["passed"].append("chip-absent")
