"""The virtual board through the kernel path (i2c-dev, sysfs GPIO with poll(),
the capture driver's files, the services on the board's bus), vboard-ctl, and
the board's own lifecycle: exit status, signals, clean-up."""

import json
import os
import re
import signal
import subprocess

import pytest

from conftest import Paths, run_board


def lines(script, *options):
    r = run_board(script, *options)
    assert r.returncode == 0, r.stderr
    return r.stdout.splitlines()


@pytest.mark.parametrize("chip,ident", [("tp2827", "0x27"), ("tp2826", "0x26")])
def test_i2c_identity_paged_writes_and_errnos(chip, ident):
    out = lines("vboard-probe i2c 0x10 0x5a; vboard-probe i2c 0x40 0x02; vboard-ctl regs 2 | "
                "grep '^10:'; vboard-probe i2c-raw 0x45; vboard-ctl fault chip nack all; "
                "vboard-probe i2c-raw 0x44; vboard-ctl fault chip absent; vboard-probe i2c-raw 0x44; "
                "vboard-ctl fault clear; vboard-probe i2c-raw 0x44", "--chip", chip)
    assert out[:4] == [f"id {ident}", "readback 0x5a", f"id {ident}", "readback 0x02"]
    assert out[4].split()[1] != "5a"  # written on page 0 (power-on), not in channel 2's bank
    assert out[5:] == ["read: No such device or address", "read: Remote I/O error",
                       "read: No such device or address", f"id {ident}"]


def test_gpio_interrupt_edges_reset_pulse_and_sysfs_rules():
    out = lines("vboard-probe irq-wait 200; vboard-probe irq-wait 10000 -- 'vboard-ctl plug 1 tvi "
                "1080p25'; vboard-ctl get irq-edges; vboard-probe i2c 0x10 0x5a >/dev/null; "
                "vboard-probe reset; vboard-ctl get resets; vboard-ctl regs 0 | grep '^10:'; "
                "echo 1 > /sys/class/gpio/video_term_3/value; vboard-ctl get term 3; "
                "vboard-ctl get term 1; cat /sys/class/gpio/decoder_interrupt_0/direction; "
                "echo 1 > /sys/class/gpio/decoder_interrupt_0/value || echo refused; "
                "vboard-ctl fault gpio missing decoder_reset_0; ls /sys/class/gpio")
    assert out[:6] == ["timeout", "edge value 1", "after read clear", "1", "reset", "1"]
    assert out[6].split()[1] != "5a"
    assert out[7:11] == ["1", "0", "in", "refused"]
    assert {"cpuid_bit0", "decoder_interrupt_0", "video_term_1", "video_term_4"} <= set(out[11:])
    assert "decoder_reset_0" not in out[11:]
    assert "cpuid_bit0" not in lines("ls /sys/class/gpio", "--no-cpuid")


def test_statistics_and_capture_device_follow_lock_and_faults():
    # Channel 1 programmed for 1080p30 (line length 2200) locks on a TVI 1080p30 camera.
    out = lines("vboard-probe stats; vboard-ctl plug 1 tvi 1080p30; vboard-probe i2c 0x40 1; "
                "vboard-probe i2c 0x1c 0x08; vboard-probe i2c 0x1d 0x98; vboard-ctl wait lock 1 1 "
                "&& vboard-probe stats; vboard-ctl fault stats missing 3; vboard-ctl fault stats "
                "empty 0; vboard-probe stats; vboard-ctl unplug 1; vboard-ctl get no-video 1; "
                "vboard-probe cam 2 1; vboard-ctl get cam-ioctl 2; vboard-ctl get cam-ioctl 1; "
                "vboard-ctl fault cam fail 2; vboard-probe cam 2 0; vboard-ctl status --json")
    out = [line for line in out if not line.startswith(("id ", "readback "))]
    assert out[:17] == ["0: 1", "1: 1", "2: 1", "3: 1", "0: 1", "1: 0", "2: 1", "3: 1",
                        "0: read 0", "1: 0", "2: 1", "3: -ENOENT", "1",
                        "ioctl ok", "1", "-", "ioctl: Input/output error"]
    cam = json.loads(out[17])["channels"][2]
    assert (cam["cam_ioctls"], cam["cam_value"]) == (1, 1)


def test_services_answer_and_fail_on_the_boards_bus():
    out = lines("""set -e
busctl call com.korvi.PrioritizedTextOverlay /com/korvi/PrioritizedTextOverlay/2 \
  com.korvi.PrioritizedTextOverlay Set su VIDEO_LOSS 0
vboard-ctl get overlay 1
busctl call com.korvi.CaptureMode1 /com/korvi/CaptureMode1/3 com.korvi.CaptureMode1.Channel \
  SetCaptureMode i 5
busctl get-property com.korvi.ImageControl /com/korvi/ImageControl/3/0 \
  com.korvi.ImageControl CaptureMode
busctl set-property com.korvi.ImageControl /com/korvi/ImageControl/3/0 \
  com.korvi.ImageControlStream CaptureFrequency s 60Hz
vboard-ctl get capture-frequency 3
busctl get-property com.korvi.VideoSystem1 /com/korvi/VideoSystem1 com.korvi.VideoSystem1 Started
busctl call com.korvi.VideoSystem1 /com/korvi/VideoSystem1/Input/0 \
  com.korvi.VideoSystem1.Input SetSettings 'a{sv}' 1 video_type1 u 1
vboard-ctl get video-type 0
busctl call com.korvi.Event1 /com/korvi/Event1 com.korvi.Event1 Declare 'sa{sv}' vidhostd 1 channel u 2
busctl call com.korvi.Event1 /com/korvi/Event1 com.korvi.Event1 Send 'sia{sv}' vidhostd 1 1 connected b 1
vboard-ctl get connected 1
vboard-ctl fault service overlay absent
busctl call com.korvi.PrioritizedTextOverlay /com/korvi/PrioritizedTextOverlay/1 \
  com.korvi.PrioritizedTextOverlay Unset s VIDEO_LOSS 2>&1 | head -1
vboard-ctl fault service capturemode failing
busctl call com.korvi.CaptureMode1 /com/korvi/CaptureMode1/0 com.korvi.CaptureMode1.Channel \
  SetCaptureMode i 1 2>/dev/null || echo failed
vboard-ctl get capture-mode 0
""", "--capture-mode", "3:720p", "--capture-mode", "0:ntsc")
    assert out[:7] == ["VIDEO_LOSS", "i 6", "60Hz", "b true", "1", "i 1", "1"]
    assert "com.korvi.PrioritizedTextOverlay" in out[7] and "not" in out[7]
    assert out[8:] == ["failed", "2"]


def test_bad_command_lines_are_refused_with_status_2():
    for args in (["--camera", "1:cvbs:1080p25"], ["--camera", "4:tvi:pal"],
                 ["--capture-mode", "0:9"], ["--chip", "tp2800"], ["--frobnicate"]):
        r = subprocess.run([Paths.vboard, "run", *args, "--", "true"], capture_output=True,
                           text=True, timeout=30)
        assert r.returncode == 2, args
        assert r.stderr.startswith("vboard: ") and len(r.stderr.splitlines()) == 1


def host_state():
    with open("/proc/self/mountinfo") as f:
        mounts = sorted(" ".join(line.split()[3:5]) for line in f)
    return mounts, subprocess.run(["pgrep", "-P", str(os.getpid())], capture_output=True).stdout


def test_twenty_boards_in_a_row_leave_nothing_behind():
    before = host_state()
    for i in range(20):
        # Every other command writes the private directories, leaves a process and crashes.
        script = ("vboard-probe i2c 0x10 1" if i % 2 else "touch /etc/encoder/x /run/vidhostd/x; "
                  "sleep 617 & kill -SEGV $$")
        r = run_board(script)
        assert r.returncode == (0 if i % 2 else 128 + signal.SIGSEGV)
        assert not os.path.exists(re.search(r"state dir (\S+)", r.stderr)[1])
        assert host_state() == before
    assert not os.path.exists("/etc/encoder/x") and not os.path.exists("/run/vidhostd/x")
    assert subprocess.run(["pgrep", "-f", "sleep 617"], capture_output=True).returncode == 1
    assert run_board("exit 3").returncode == 3


def test_sigterm_reaches_the_command_and_the_board_cleans_up(board_factory):
    before = host_state()
    board = board_factory()
    os.kill(board.proc.pid, signal.SIGTERM)
    assert board.proc.wait(30) == 128 + signal.SIGTERM
    assert not {"ready", "control.sock"} & set(os.listdir(board.state))
    board.stop()
    assert host_state() == before


def test_ctl_reads_the_board_and_reports_errors(board_factory):
    board = board_factory("--camera", "2:ahd:1080p30")
    r = board.ctl("plug", "1", "cvbs", "1080p25", check=False)
    assert r.returncode == 1 and "cvbs" in r.stderr
    r = board.ctl("wait", "--timeout", "0.2", "lock", "2", "1", check=False)
    assert r.returncode == 1 and "timed out" in r.stderr
    status = json.loads(board.ctl("status", "--json").stdout)
    assert [c["camera"] for c in status["channels"]] == [
        None, None, {"standard": "ahd", "resolution": "1080p30", "long": False}, None]
    assert "ahd 1080p30" in board.ctl("status").stdout
