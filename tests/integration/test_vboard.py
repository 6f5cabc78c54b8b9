"""The virtual board through the real kernel path: i2c-dev, sysfs GPIO with
poll(), the capture driver's files, the board's services on its private bus,
and the board's own lifecycle (exit status, signals, clean-up)."""

import json
import os
import signal
import subprocess
import time

import pytest

from conftest import Paths, RunningBoard, board_env, run_board


def lines(result):
    assert result.returncode == 0, result.stderr
    return result.stdout.splitlines()


# -- i2c-dev -------------------------------------------------------------------

@pytest.mark.parametrize("chip,ident", [("tp2827", "0x27"), ("tp2826", "0x26")])
def test_i2c_binds_reads_identity_and_writes_registers(chip, ident):
    out = lines(run_board("vboard-probe i2c 0x10 0x5a && vboard-probe i2c 0x40 0x02 && "
                          "vboard-ctl regs 2 | grep '^10:'", "--chip", chip))
    assert out[0] == f"id {ident}"
    assert out[1] == "readback 0x5a"
    assert out[3] == "readback 0x02"
    # The write went to channel 0's bank (page 0 at power-on), not channel 2's.
    assert out[4].split()[1] != "5a"


def test_i2c_failures_carry_the_chip_errno():
    out = lines(run_board(
        "vboard-probe i2c-raw 0x45; vboard-ctl fault chip nack all; vboard-probe i2c-raw 0x44; "
        "vboard-ctl fault clear; vboard-ctl fault chip absent; vboard-probe i2c-raw 0x44; "
        "vboard-ctl fault clear; vboard-probe i2c-raw 0x44"))
    assert out[0] == "read: No such device or address"
    assert out[1] == "read: Remote I/O error"
    assert out[2] == "read: No such device or address"
    assert out[3] == "id 0x27"


# -- GPIO ----------------------------------------------------------------------

def test_interrupt_line_wakes_poll_on_plug_and_rearms_on_read():
    out = lines(run_board("vboard-probe irq-wait 10000 -- 'vboard-ctl plug 1 tvi 1080p25'; "
                          "vboard-ctl get irq-edges"))
    assert out == ["edge value 1", "after read clear", "1"]


def test_interrupt_line_stays_quiet_without_an_edge():
    out = lines(run_board("vboard-probe irq-wait 200"))
    assert out == ["timeout"]


def test_reset_pulse_restores_power_on_registers():
    out = lines(run_board("vboard-probe i2c 0x10 0x5a && vboard-probe reset && "
                          "vboard-ctl get resets && vboard-ctl regs 0 | grep '^10:'"))
    assert out[2] == "reset"
    assert out[3] == "1"
    assert out[4].split()[1] != "5a"


def test_gpio_lines_termination_cpuid_and_missing_line():
    script = ("ls /sys/class/gpio; echo 1 > /sys/class/gpio/video_term_3/value; "
              "vboard-ctl get term 3; vboard-ctl get term 1; "
              "cat /sys/class/gpio/decoder_interrupt_0/direction; "
              "echo 1 > /sys/class/gpio/decoder_interrupt_0/value || echo refused; "
              "vboard-ctl fault gpio missing decoder_reset_0; "
              "test -e /sys/class/gpio/decoder_reset_0 || echo reset gone")
    out = lines(run_board(script))
    assert {"cpuid_bit0", "decoder_reset_0", "decoder_interrupt_0", "video_term_1",
            "video_term_4"} <= set(out)
    assert out[-5:] == ["1", "0", "in", "refused", "reset gone"]
    out = lines(run_board("ls /sys/class/gpio", "--no-cpuid"))
    assert "cpuid_bit0" not in out and "video_term_2" in out


# -- capture driver --------------------------------------------------------------

def test_statistics_follow_lock_and_faults():
    # Channel 1 programmed for 1080p30 (line length 2200) locks on a TVI 1080p30 camera.
    script = ("vboard-probe stats; vboard-ctl plug 1 tvi 1080p30; vboard-probe i2c 0x40 1 >/dev/null; "
              "vboard-probe i2c 0x1c 0x08 >/dev/null; vboard-probe i2c 0x1d 0x98 >/dev/null; "
              "vboard-ctl wait lock 1 1 && "
              "vboard-probe stats; vboard-ctl fault stats missing 3; "
              "vboard-ctl fault stats empty 0; vboard-probe stats; vboard-ctl unplug 1; "
              "vboard-ctl get no-video 1")
    out = lines(run_board(script))
    assert out[0:4] == ["0: 1", "1: 1", "2: 1", "3: 1"]
    assert out[4:8] == ["0: 1", "1: 0", "2: 1", "3: 1"]
    assert out[8:12] == ["0: read 0", "1: 0", "2: 1", "3: -ENOENT"]
    assert out[12] == "1"


def test_capture_device_ioctl_by_value_is_recorded():
    script = ("vboard-probe cam 2 1; vboard-ctl get cam-ioctl 2; vboard-ctl get cam-ioctl 1; "
              "vboard-ctl fault cam fail 2; vboard-probe cam 2 1; vboard-ctl status --json")
    out = lines(run_board(script))
    assert out[0:3] == ["ioctl ok", "1", "-"]
    assert out[3] == "ioctl: Input/output error"
    status = json.loads(out[4])
    assert status["channels"][2]["cam_ioctls"] == 1
    assert status["channels"][2]["cam_value"] == 1


# -- services --------------------------------------------------------------------

def test_services_answer_on_the_boards_bus():
    script = """
set -e
gdbus call --system --dest com.korvi.PrioritizedTextOverlay \
  --object-path /com/korvi/PrioritizedTextOverlay/2 \
  --method com.korvi.PrioritizedTextOverlay.Set VIDEO_LOSS 0 >/dev/null
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
gdbus call --system --dest com.korvi.Event1 --object-path /com/korvi/Event1 \
  --method com.korvi.Event1.Declare vidhostd "{'channel': <uint32 2>}"
gdbus call --system --dest com.korvi.Event1 --object-path /com/korvi/Event1 \
  --method com.korvi.Event1.Send vidhostd 1 "{'connected': <true>}" >/dev/null
vboard-ctl get connected 1
"""
    out = lines(run_board(script, "--capture-mode", "3:720p"))
    assert out[0] == "VIDEO_LOSS"
    assert out[1] == "i 6"
    assert out[2] == "60Hz"
    assert out[3] == "b true"
    assert out[4] == "1"
    assert out[5] == "(1,)"
    assert out[6] == "1"


def test_service_faults_reach_callers():
    script = ("vboard-ctl fault service overlay absent; "
              "busctl call com.korvi.PrioritizedTextOverlay /com/korvi/PrioritizedTextOverlay/1 "
              "com.korvi.PrioritizedTextOverlay Unset s VIDEO_LOSS 2>&1 | head -1; "
              "vboard-ctl fault service capturemode failing; "
              "busctl call com.korvi.CaptureMode1 /com/korvi/CaptureMode1/0 "
              "com.korvi.CaptureMode1.Channel SetCaptureMode i 1 >/dev/null 2>&1 || echo failed; "
              "vboard-ctl get capture-mode 0")
    out = lines(run_board(script, "--capture-mode", "0:ntsc"))
    assert "not" in out[0] and "com.korvi.PrioritizedTextOverlay" in out[0]
    assert out[1] == "failed"
    assert out[2] == "2"


def test_policy_file_is_included_in_a_strict_bus(tmp_path):
    policy = tmp_path / "policy.conf"
    policy.write_text("""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><policy user="root"><allow own="com.example.Allowed"/></policy></busconfig>
""")
    script = ("/usr/bin/python3 - <<'EOF'\n"
              "import dbus\n"
              "bus = dbus.SystemBus()\n"
              "for name in ('com.example.Allowed', 'com.example.Other'):\n"
              "    try:\n"
              "        bus.request_name(name)\n"
              "        print(name, 'owned')\n"
              "    except dbus.exceptions.DBusException:\n"
              "        print(name, 'denied')\n"
              "EOF\n"
              "busctl get-property com.korvi.VideoSystem1 /com/korvi/VideoSystem1 "
              "com.korvi.VideoSystem1 Started")
    out = lines(run_board(script, "--policy", str(policy)))
    assert out == ["com.example.Allowed owned", "com.example.Other denied", "b true"]


# -- namespace, syslog, configuration ------------------------------------------------

def test_private_directories_syslog_and_seeded_config(tmp_path):
    conf = tmp_path / "video.conf"
    conf.write_text("[0]\nresolution=auto\n")
    script = ("cat /etc/encoder/video.conf; echo x > /etc/encoder/new.conf; "
              "touch /run/vidhostd/sock; logger -u /dev/log -t vinmand 'hello board'; "
              "vboard-ctl wait log 'hello board' && echo logged; "
              "vboard-ctl log | grep -c 'vinmand: hello board'")
    state = tmp_path / "state"
    out = lines(run_board(script, "--config", str(conf), "--state-dir", str(state)))
    assert out == ["[0]", "resolution=auto", "logged", "1"]
    assert not os.path.exists("/etc/encoder") and not os.path.exists("/run/vidhostd")
    assert (state / "etc-encoder" / "new.conf").read_text() == "x\n"
    assert (state / "run-vidhostd" / "sock").exists()
    assert "hello board" in (state / "syslog.log").read_text()


def test_bad_command_lines_are_refused_with_status_2():
    for args in (["--camera", "1:cvbs:1080p25"], ["--camera", "4:tvi:pal"],
                 ["--capture-mode", "0:9"], ["--chip", "tp2800"], ["--frobnicate"]):
        r = subprocess.run([Paths.vboard, "run", *args, "--", "true"], capture_output=True,
                           text=True, timeout=30)
        assert r.returncode == 2, args
        assert r.stderr.startswith("vboard: ") and len(r.stderr.splitlines()) == 1


# -- lifecycle -----------------------------------------------------------------

def snapshot_host():
    with open("/proc/self/mountinfo") as f:
        mounts = sorted(" ".join(l.split()[3:5]) for l in f)
    tmp = sorted(n for n in os.listdir("/tmp") if n.startswith("vboard."))
    return mounts, tmp


def descendants(pid):
    kids = []
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open(f"/proc/{entry}/stat") as f:
                    if int(f.read().rsplit(")", 1)[1].split()[1]) == pid:
                        kids.append(int(entry))
            except (OSError, IndexError):
                pass
    return kids


def test_exit_status_is_the_commands():
    assert run_board("exit 3").returncode == 3
    assert run_board("kill -SEGV $$").returncode == 128 + signal.SIGSEGV
    assert run_board("kill -KILL $$").returncode == 128 + signal.SIGKILL


def test_twenty_boards_leave_nothing_behind():
    before = snapshot_host()
    for i in range(20):
        # Every other board leaves a background process and crashes.
        script = "vboard-probe i2c 0x10 1 >/dev/null" if i % 2 else "sleep 600 & kill -SEGV $$"
        r = run_board(script)
        assert r.returncode == (0 if i % 2 else 128 + signal.SIGSEGV), r.stderr
        assert descendants(os.getpid()) == []
    assert snapshot_host() == before
    assert subprocess.run(["pgrep", "-f", "sleep 600"], capture_output=True).returncode == 1


def test_sigterm_reaches_command_and_board_cleans_up(board_factory):
    before = snapshot_host()
    board = board_factory()
    pid = board.proc.pid
    assert board.ctl("get", "lock", "0").stdout == "0\n"
    os.kill(pid, signal.SIGTERM)
    assert board.proc.wait(30) == 128 + signal.SIGTERM
    assert not os.path.exists(os.path.join(board.state, "ready"))
    assert not os.path.exists(os.path.join(board.state, "control.sock"))
    board.stop()
    assert snapshot_host() == before


def test_ctl_finds_the_only_running_board_and_reports_errors(board_factory):
    board = board_factory("--camera", "2:ahd:1080p30")
    env = board_env()
    r = subprocess.run([Paths.ctl, "get", "camera", "2"], capture_output=True, text=True,
                       env=env, timeout=30)
    if r.returncode == 0:
        assert r.stdout == "ahd 1080p30\n"
    else:
        # Another board of a parallel run is up: the client asks for a choice.
        assert "several boards" in r.stderr
    r = board.ctl("plug", "1", "cvbs", "1080p25", check=False)
    assert r.returncode == 1 and "cvbs" in r.stderr
    r = board.ctl("wait", "--timeout", "0.2", "lock", "2", "1", check=False)
    assert r.returncode == 1 and "timed out" in r.stderr
    status = json.loads(board.ctl("status", "--json").stdout)
    assert status["channels"][2]["camera"] == {"standard": "ahd", "resolution": "1080p30",
                                               "long": False}
    assert [s["camera"] for s in status["channels"]].count(None) == 3
    text = board.ctl("status").stdout
    assert "ahd 1080p30" in text and "channel 3" in text
