"""The virtual board through the kernel path and its bus; its exit status, signals, clean-up."""

import json
import os
import re
import signal
import subprocess

from conftest import run_board


def test_kernel_path_and_services_on_the_boards_bus():
    overlay = ("busctl call com.korvi.PrioritizedTextOverlay /com/korvi/PrioritizedTextOverlay/2 "
               "com.korvi.PrioritizedTextOverlay Set su")
    mode = "com.korvi.CaptureMode1 /com/korvi/CaptureMode1/3 com.korvi.CaptureMode1.Channel"
    image = "com.korvi.ImageControl /com/korvi/ImageControl/{}/0 com.korvi.ImageControl"
    event = "busctl call com.korvi.Event1 /com/korvi/Event1 com.korvi.Event1"
    # Channel 1 programmed for 1080p30 (line length 2200) locks on a TVI 1080p30 camera.
    r = run_board(f"""r10() {{ vboard-ctl regs 2 | awk '/^10:/ {{print $2}}'; }}
vboard-probe i2c 0x40 2 >&2; vboard-probe i2c 0x10 0x5a; r10; vboard-probe reset; r10
vboard-probe i2c-raw 0x45; vboard-ctl fault chip nack all; vboard-probe i2c-raw 0x44
vboard-ctl fault clear; vboard-probe irq-wait 200
vboard-probe irq-wait 10000 -- 'vboard-ctl plug 1 tvi 1080p30'
(vboard-probe i2c 0x40 1; vboard-probe i2c 0x1c 0x08; vboard-probe i2c 0x1d 0x98) >&2
vboard-ctl wait lock 1 1 && vboard-probe stats; vboard-ctl plug 2 cvbs 1080p25 || echo refused
vboard-ctl wait --timeout 0.2 lock 2 1 || echo failed; vboard-probe cam 2 1
echo 1 > /sys/class/gpio/video_term_3/value; vboard-ctl status | grep -c 'tvi 1080p30'
ls /sys/class/gpio | xargs
set -e
{overlay} VIDEO_LOSS 0; {overlay} 'a "b" \\c' 1; {overlay} VIDEO_LOSS 7
busctl call {mode} SetCaptureMode i 5
busctl call {mode} SetCaptureMode i 6 2>/dev/null || echo refused
busctl get-property {image.format(3)} CaptureMode
busctl set-property {image.format(3)}Stream CaptureFrequency s 60Hz
busctl call com.korvi.VideoSystem1 /com/korvi/VideoSystem1/Input/0 \
  com.korvi.VideoSystem1.Input SetSettings 'a{{sv}}' 1 video_type1 u 1
{event} Declare 'sa{{sv}}' vidhostd 1 channel u 2
{event} Send 'sia{{sv}}' vidhostd 1 1 connected b 1
vboard-ctl fault service imagecontrol late 1500
(busctl get-property {image.format(0)} CaptureMode; echo late) &
sleep 0.3
busctl get-property com.korvi.VideoSystem1 /com/korvi/VideoSystem1 com.korvi.VideoSystem1 Started
echo others answered; wait
vboard-ctl status --json
""", "--chip", "tp2826", "--capture-mode", "3:720p", "--capture-mode", "0:ntsc")
    assert r.returncode == 0, r.stderr
    out = r.stdout.splitlines()
    assert out[:-1] == [
        "id 0x26", "readback 0x5a", "5a", "reset", "00", "read: No such device or address",
        "read: Remote I/O error", "timeout", "edge value 1", "after read clear", "0: 1", "1: 0",
        "2: 1", "3: 1", "refused", "failed", "ioctl ok", "1", "cpuid_bit0 decoder_interrupt_0 "
        "decoder_reset_0 export unexport video_term_1 video_term_2 video_term_3 video_term_4",
        "refused", "i 6", "i 1", "b true", "others answered", "i 2", "late"]
    channels = json.loads(out[-1])["channels"]
    assert [(c["cam_ioctls"], c["cam_value"], c["termination"], c["capture_mode"],
             c["capture_frequency"]) for c in channels] == [(0, None, 0, 2, "50Hz"),
        (0, None, 0, 1, "50Hz"), (1, 1, 1, 1, "50Hz"), (0, None, 0, 6, "60Hz")]
    assert channels[1]["overlay"] == ["VIDEO_LOSS", 'a "b" \\c']
    assert (channels[0]["video_type"], channels[1]["connected"]) == (1, 1)


def host_state():
    with open("/proc/self/mountinfo") as f:
        mounts = sorted(" ".join(line.split()[3:5]) for line in f)
    return mounts, subprocess.run(["pgrep", "-P", str(os.getpid())], capture_output=True).stdout


def test_twenty_boards_in_a_row_and_a_terminated_one_leave_nothing_behind(board_factory):
    before = host_state()
    for i in range(20):
        # Every other command writes the private directories, leaves a process and crashes.
        r = run_board("vboard-probe i2c 0x10 1" if i % 2 else
                      "touch /etc/encoder/x /run/vidhostd/x; sleep 617 & kill -SEGV $$")
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
