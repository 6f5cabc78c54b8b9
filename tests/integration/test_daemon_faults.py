"""The fault matrix: under every fault the board injects, the daemon runs on (with no
chip it ends), answers, keeps what was accepted, logs it, recovers once cleared."""

import os
import signal

import pytest

from daemon import ACQUIRED, ERROR, LOCK, Board, in_order, wait_until

CAM, FIXED, AUTO = 1, 3, {"auto": "true"}
# Channel 3's formats in turn: request, file's numbers, capture mode and frequency, video type.
FORMATS = [f.split() for f in ("ahd 720p25 1 5 4 50Hz 0", "cvbs ntsc 3 9 2 60Hz 2",
                               "tvi 1080p30 0 2 3 60Hz 0", "cvbs pal 3 8 1 50Hz 1")]


class Rig:  # the shared board and what its configuration file must hold
    def __init__(self, board):
        self.board, self.turn, self.tries, self.contrast = board, 0, 0, 50
        self.expected = {f"Channel {ch}": dict(AUTO) for ch in range(4)}

    def grew(self, before, *keys):  # how much a counter of `vboard-ctl status` grew
        now = self.board.status()
        for key in keys:
            now, before = now[key], before[key]
        return now - before

    def set_format(self):  # accepted whatever else fails
        fmt = FORMATS[self.turn % len(FORMATS)]
        self.turn += 1
        assert self.board.call("SetVideoStandard", FIXED, 0, *fmt[:2]) == ()
        self.expected[f"Channel {FIXED}"] = dict(standard=fmt[2], resolution=fmt[3], auto="false")
        return fmt

    def check(self, chip_ok=True):  # alive, a setter answered, the file as accepted
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


def saturation(rig, before, cleared):  # 0x12 refused; brightness, another register, written
    value = before.setdefault("saturation", 60 + rig.tries)
    if cleared:
        rig.board.call("SetSaturation", 0, value)
        assert rig.board.list_config()[0]["saturation"] == value
        return
    assert rig.board.call_error("SetSaturation", 0, value) == (
        ERROR + "System", "Failed to set saturation")
    rig.board.call("SetBrightness", 0, value)
    row = rig.board.list_config()[0]
    assert row["saturation"] != value and row["brightness"] == value


def termination(line):
    def act(rig, before, cleared):
        if not cleared:
            assert rig.board.call_error("SetVideoTermination", line - 1, 1) == (
                ERROR + "System", "Failed to set video termination")
            return rig.board.call("SetVideoTermination", line % 4, 0)  # another line works
        rig.board.call("SetVideoTermination", line - 1, 1)
        assert rig.board.get("term", line) == "1"
        rig.board.call("SetVideoTermination", line - 1, 0)
    return act


def wait_board(key, value):  # while in force
    return lambda rig, before, cleared=False: cleared or rig.board.wait(key, CAM, value)


lose_video = lambda rig, before: rig.board.ctl("fault", "stats", "empty", str(CAM))  # noqa: E731


def overlay_called_again(rig, before):  # the failed call is not repeated, the next is sent
    wait_until(lambda: rig.grew(before, "services", "overlay", CAM, "unset_calls"), 30,
               "an overlay call")


def event_sent_again(rig, before):  # the failed loss is not sent again, the return is
    rig.board.wait("events", CAM, str(before["channels"][CAM]["events"] + 1))
    assert rig.board.get("connected", CAM) == "1"


def pipeline_follows(rig, before):  # a refused call is not repeated; the next set gets through
    _, _, _, _, mode, freq, setting = rig.set_format()
    rig.board.wait("capture-mode", FIXED, mode)
    wait_until(lambda: rig.grew(before, "services", "capture", FIXED, "frequency_sets"), 10,
               "a frequency set")
    assert rig.board.get("capture-frequency", FIXED) == freq
    assert rig.board.get("video-type", FIXED) == setting  # unlike the format before


def uhd(rig, before, cleared):  # capture device 2 is told it has no video
    res, taken = (("4k12", "10"), 1) if cleared else (("4k15", "11"), 0)
    assert rig.board.call("SetVideoStandard", 0, 0, "tvi", res[0]) == ()
    assert rig.grew(before, "channels", 2, "cam_ioctls") == taken
    rig.expected["Channel 0"] = dict(standard="0", resolution=res[1], auto="false")
    rig.expected["Channel 2"] = dict(standard="4", resolution="33", auto="false")
    if cleared:
        assert rig.board.get("cam-ioctl", 2) == "1"
        assert rig.board.call("SetVideoStandard", 0, 1, "", "") == ()  # both search again
        rig.expected["Channel 0"], rig.expected["Channel 2"] = dict(AUTO), dict(AUTO)


def service_faults(name, logs, trigger, recovered, late_wait):  # late: 1 s, the reply comes
    trigger = trigger or (lambda r, b: None)
    return [(f"{name}-{how}", ["service", name, how], logs,
             lambda r, b, cleared: (recovered if cleared else trigger)(r, b))
            for how in ("absent", "failing")] + [
        (f"{name}-late", ["service", name, "late", "1000"], [],
         lambda r, b, cleared: cleared or (trigger(r, b), late_wait(r, b)))]


# On one board (a PAL camera on 1, fixed formats on 3, 4K on 0 and 2): id, fault,
# messages (exact, or a prefix ending in "*"), action(rig, status before, cleared).
RUNTIME = [
    # All refused: image controls answer System (the check's contrast), formats are taken.
    ("chip-nack-all", ["chip", "nack", "all"], ["Unable to write data", "Unable to send data"],
     lambda *args: None),
    ("chip-nack-0x12", ["chip", "nack", "0x12"],
     ["Unable to send data", "Failed to set saturation"], saturation),
    *[(f"gpio-video_term_{n}", ["gpio", "missing", f"video_term_{n}"],
       [f"Failed to request named GPIO video_term_{n}", "Failed to set video termination"],
       termination(n)) for n in range(1, 5)],
    # A statistic that can't be read counts as no video: the loss is reported.
    ("stats-missing", ["stats", "missing", str(CAM)],
     [f"check_no_video: Failed to open /proc/driver/veltra/stats/no_video_{CAM}"],
     wait_board("connected", "0")),
    ("stats-empty", ["stats", "empty", str(CAM)],
     [f"check_no_video: Failed to read ret=0 /proc/driver/veltra/stats/no_video_{CAM}"],
     wait_board("overlay", "VIDEO_LOSS")),
    # Capture device 2 refusing the 4K set-up changes nothing else.
    ("cam-fail-2", ["cam", "fail", "2"], ["ioctl CAM_IOC_SET_NO_VIDEO failed"], uhd),
    *service_faults("overlay", ["prioritized_text_overlay: Call failed (*"], lose_video,
                    overlay_called_again, wait_board("overlay", "VIDEO_LOSS")),
    *service_faults("event", ["Failed to send Video Connected event: *",
                              f"Failed to send video connected event for channel {CAM}"],
                    lose_video, event_sent_again, wait_board("connected", "0")),
    *[fault for name, log in [
        ("capturemode", "set_capture_mode Unable to set SetCaptureMode on channel 3 *"),
        ("imagecontrol", "set_capture_frequency: Unable to set 'CaptureFrequency' on channel "
                         "'3'. Error msg: *"),
        ("videosystem", "Failed to update video_type: :*")]
      for fault in service_faults(name, [log], None, pipeline_follows, pipeline_follows)],
]


@pytest.fixture(scope="module")
def matrix(request):
    m = dict(tried=[], passed=[])
    yield m
    line = f"fault matrix: {len(m['tried'])} faults tried, {len(m['passed'])} scenarios passed"
    with request.config.pluginmanager.get_plugin("capturemanager").global_and_fixture_disabled():
        request.config.pluginmanager.get_plugin("terminalreporter").write_line("\n" + line)


@pytest.fixture(scope="module")
def rig():
    board = Board()
    try:
        board.start(chip="tp2827", cameras=[f"{CAM}:cvbs:pal"])
        board.wait_log(LOCK.format(8, CAM) + "type = 3", timeout=60)
        yield Rig(board)
    finally:
        complaint = board.stop()
    assert not complaint, complaint


@pytest.mark.parametrize("name,fault,logs,action", RUNTIME, ids=[f[0] for f in RUNTIME])
def test_fault_during_operation(rig, matrix, name, fault, logs, action):
    matrix["tried"].append(name)
    board = rig.board
    board.wait("connected", CAM, "1")  # the camera's channel settled, its overlay clear
    board.wait("overlay", CAM, "-")
    before, mark = board.status(), len(board.messages())
    board.ctl("fault", *fault)
    action(rig, before, False)
    rig.set_format()  # the change a client makes while the fault lasts
    for text in logs:  # a "*" stands for another service's error
        match = (lambda m: m.startswith(text[:-1])) if text.endswith("*") else text.__eq__
        wait_until(lambda: any(map(match, board.messages(mark))), 30, f"'{text}' in the log")
    rig.check(chip_ok=name != "chip-nack-all")
    if fault[-2] == "late":
        assert rig.grew(before, "services", "services", fault[1], "late_replies") > 0
    board.ctl("fault", "clear")
    action(rig, before, True)
    board.wait("connected", CAM, "1")
    board.wait("overlay", CAM, "-")
    rig.check()
    matrix["passed"].append(name)


SEED = "".join(f"[Channel {ch}]\nstandard=5\nresolution=31\nauto=true\nconfigured=false\n\n"
               for ch in range(3)) + "[Channel 3]\nstandard=3\nresolution=9\nauto=false\n" \
                                     "configured=true\n"


def lines_and_services_missing(board):
    # The stored configuration was taken as it is, and a new one is accepted.
    board.wait_log(ACQUIRED, timeout=60)
    row = board.list_config()[3]
    assert (row["standard"], row["resolution"], row["auto"]) == ("cvbs", "ntsc", False)
    assert board.call("SetVideoStandard", 3, 0, "ahd", "720p25") == ()
    assert {k: board.config_file()["Channel 3"][k] for k in ("standard", "resolution", "auto")} \
        == {"standard": "1", "resolution": "5", "auto": "false"}
    # The reset pulse is given once, at start-up; the chip answers all the same.
    board.wait_log("FAILED: write 1 to reset GPIO")
    assert board.get_property("MultiDeviceProperties") is False
    # Each channel's event is declared once, at start-up: none can be sent later.
    for ch in range(4):
        board.wait_log(f"Failed to send video connected event for channel {ch}")
        board.wait_log(f"get_capture_mode_index Unable to get CaptureModeIndex on channel {ch} ")
    assert board.messages().count("Failed to create Video Connected event") >= 4
    # The edge set-up and the manager's own handle fail: the manager thread ends at once.
    board.wait_log("Failed to request named GPIO decoder_interrupt_0")
    os.kill(board.pid, signal.SIGTERM)
    assert board.wait_exit() == 0
    assert "Stopped manager thread" in board.messages()
    assert "Manager thread exit" not in board.messages()


def no_chip(board):  # not outlived: status 0 at once (to be restarted), the file left alone
    assert board.wait_exit(timeout=60) == 0
    messages = board.messages()
    in_order(messages, ["Starting vinmand.", "can't communicate with tp28xx chip",
                        "still no valid video source", "No valid decoder setup.",
                        "vinmand stopped."])
    assert (3, "No valid decoder setup.") in board.log() and messages[-1] == "vinmand stopped."
    assert not [m for m in messages if "D-Bus" in m or m in (
        "Starting manager thread", "vinmand stopping.", "vinmand cleaning up.")]
    assert board.config_file(raw=True) == SEED


@pytest.mark.parametrize("chip,faults,check", [
    ("tp2827", ["gpio missing decoder_reset_0", "gpio missing decoder_interrupt_0",
                "gpio missing cpuid_bit0", "service event absent", "service imagecontrol absent"],
     lines_and_services_missing), ("tp2826", ["chip absent"], no_chip)], ids=["lines", "no-chip"])
def test_faults_at_start_up(boards, matrix, chip, faults, check):
    matrix["tried"] += (names := [fault.replace(" ", "-") for fault in faults])
    board = boards(chip=chip, config=SEED, gate_open=False)
    for fault in faults:
        board.ctl("fault", *fault.split())
    board.open_gate()
    check(board)
    matrix["passed"] += names
