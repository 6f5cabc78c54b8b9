"""The virtual board through the kernel path (i2c-dev, sysfs GPIO with poll(),
the capture driver's files, the services on the board's bus), vboard-ctl, and
the board's own lifecycle: exit status, signals, clean-up."""

import json
import os
import re
import signal
import subprocess

from conftest import Paths, run_board


def lines(script, *options):
    r = run_board(script, *options)
    assert r.returncode == 0, r.stderr
    return r.stdout.splitlines()


def test_i2c_gpio_statistics_and_capture_devices_through_the_kernel():
    out = lines("vboard-probe i2c 0x10 0x5a; vboard-probe i2c 0x40 0x02; vboard-ctl regs 2 | "
                "grep '^10:'; vboard-probe i2c-raw 0x45; vboard-ctl fault chip nack all; "
                "vboard-probe i2c-raw 0x44; vboard-ctl fault chip absent; vboard-probe i2c-raw 0x44; "
                "vboard-ctl fault clear; vboard-probe i2c 0x10 0x5a; vboard-probe reset; "
                "vboard-ctl regs 2 | grep '^10:'", "--chip", "tp2826")
    assert out[:4] == ["id 0x26", "readback 0x5a", "id 0x26", "readback 0x02"]
    assert out[4].split()[1] != "5a"  # written on page 0 (power-on), not in channel 2's bank
    assert out[5:11] == ["read: No such device or address", "read: Remote I/O error",
                         "read: No such device or address", "id 0x26", "readback 0x5a", "reset"]
    assert out[11].split()[1] != "5a", "the reset pulse restores the power-on values"

    # Channel 1 programmed for 1080p30 (line length 2200) locks on a TVI 1080p30 camera.
    out = lines("vboard-probe irq-wait 200; vboard-probe irq-wait 10000 -- 'vboard-ctl plug 1 tvi "
                "1080p30'; vboard-probe i2c 0x40 1; vboard-probe i2c 0x1c 0x08; vboard-probe i2c "
                "0x1d 0x98; vboard-ctl wait lock 1 1 && vboard-probe stats; vboard-ctl fault stats "
                "missing 3; vboard-ctl fault stats empty 0; vboard-probe stats; vboard-ctl unplug 1;"
                " vboard-ctl get no-video 1; vboard-probe cam 2 1; vboard-ctl fault cam fail 2; "
                "vboard-probe cam 2 0; echo 1 > /sys/class/gpio/video_term_3/value; "
                "echo 1 > /sys/class/gpio/decoder_interrupt_0/value || echo refused; "
                "vboard-ctl fault gpio missing decoder_reset_0; ls /sys/class/gpio; "
                "vboard-ctl status --json")
    out = [line for line in out if not line.startswith(("id ", "readback "))]
    assert out[:15] == ["timeout", "edge value 1", "after read clear", "0: 1", "1: 0", "2: 1",
                        "3: 1", "0: read 0", "1: 0", "2: 1", "3: -ENOENT", "1", "ioctl ok",
                        "ioctl: Input/output error", "refused"]
    gpio = set(out[15:-1])
    assert {"cpuid_bit0", "decoder_interrupt_0", "video_term_1", "video_term_4"} <= gpio
    assert "decoder_reset_0" not in gpio
    assert [(c["cam_ioctls"], c["cam_value"], c["termination"])
            for c in json.loads(out[-1])["channels"]] == [(0, None, 0), (0, None, 0), (1, 1, 1),
                                                          (0, None, 0)]
    assert "cpuid_bit0" not in lines("ls /sys/class/gpio", "--no-cpuid")


def test_services_answer_refuse_and_fail_on_the_boards_bus():
    overlay = ("busctl call com.korvi.PrioritizedTextOverlay /com/korvi/PrioritizedTextOverlay/"
               "{} com.korvi.PrioritizedTextOverlay")
    mode = "busctl call com.korvi.CaptureMode1 /com/korvi/CaptureMode1/{} " \
           "com.korvi.CaptureMode1.Channel SetCaptureMode i"
    image = "com.korvi.ImageControl /com/korvi/ImageControl/{}/0 com.korvi.ImageControl"
    out = lines(f"""set -e
{overlay.format(2)} Set su VIDEO_LOSS 0
{overlay.format(2)} Set su 'a "b" \\c' 1
{overlay.format(2)} Set su VIDEO_LOSS 7
{mode.format(3)} 5
{mode.format(3)} 6 2>/dev/null || echo refused
busctl get-property {image.format(3)} CaptureMode
busctl set-property {image.format(3)}Stream CaptureFrequency s 60Hz
busctl get-property com.korvi.VideoSystem1 /com/korvi/VideoSystem1 com.korvi.VideoSystem1 Started
busctl call com.korvi.VideoSystem1 /com/korvi/VideoSystem1/Input/0 \
  com.korvi.VideoSystem1.Input SetSettings 'a{{sv}}' 1 video_type1 u 1
busctl call com.korvi.Event1 /com/korvi/Event1 com.korvi.Event1 Declare 'sa{{sv}}' vidhostd 1 channel u 2
busctl call com.korvi.Event1 /com/korvi/Event1 com.korvi.Event1 Send 'sia{{sv}}' vidhostd 1 1 connected b 1
vboard-ctl fault service overlay absent
{overlay.format(1)} Unset s VIDEO_LOSS 2>&1 | head -1
vboard-ctl fault service capturemode failing
{mode.format(0)} 1 2>/dev/null || echo failed
vboard-ctl fault service imagecontrol late 1500
(busctl get-property {image.format(0)} CaptureMode; echo late) &
sleep 0.3
busctl get-property com.korvi.VideoSystem1 /com/korvi/VideoSystem1 com.korvi.VideoSystem1 Started
echo others answered
wait
vboard-ctl fault clear
vboard-ctl status --json
""", "--capture-mode", "3:720p", "--capture-mode", "0:ntsc")
    assert out[:4] == ["refused", "i 6", "b true", "i 1"]
    assert "com.korvi.PrioritizedTextOverlay" in out[4] and "not" in out[4]
    assert out[5:10] == ["failed", "b true", "others answered", "i 2", "late"]
    channels = json.loads(out[-1])["channels"]
    assert channels[1]["overlay"] == ["VIDEO_LOSS", 'a "b" \\c']
    assert [(c["capture_mode"], c["capture_frequency"]) for c in channels] == [
        (2, "50Hz"), (1, "50Hz"), (1, "50Hz"), (6, "60Hz")], "a failing call changes nothing"
    assert (channels[0]["video_type"], channels[1]["connected"]) == (1, 1)


def test_command_line_and_ctl_errors():
    for args in (["--camera", "1:cvbs:1080p25"], ["--camera", "4:tvi:pal"],
                 ["--capture-mode", "0:9"], ["--frobnicate"]):
        r = subprocess.run([Paths.vboard, "run", *args, "--", "true"], capture_output=True,
                           text=True, timeout=30)
        assert r.returncode == 2, args
        assert r.stderr.startswith("vboard: ") and len(r.stderr.splitlines()) == 1
    out = lines("vboard-ctl plug 1 cvbs 1080p25 2>&1 || echo refused; vboard-ctl wait --timeout "
                "0.2 lock 2 1 2>&1 || echo failed; vboard-ctl status", "--camera", "2:ahd:1080p30")
    assert "cvbs" in out[0] and out[1] == "refused" and "timed out" in out[2] and out[3] == "failed"
    assert "ahd 1080p30" in "\n".join(out[4:])


def host_state():
    with open("/proc/self/mountinfo") as f:
        mounts = sorted(" ".join(line.split()[3:5]) for line in f)
    return mounts, subprocess.run(["pgrep", "-P", str(os.getpid())], capture_output=True).stdout


def test_twenty_boards_in_a_row_and_a_terminated_one_leave_nothing_behind(board_factory):
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
    board = board_factory()
    os.kill(board.proc.pid, signal.SIGTERM)
    assert board.proc.wait(30) == 128 + signal.SIGTERM
    assert not {"ready", "control.sock"} & set(os.listdir(board.state))
    board.stop()
    assert host_state() == before
