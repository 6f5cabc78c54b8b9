#!/usr/bin/python3
"""Soak run: vinmand on the virtual board for a while under a random load,
then a report.

usage: bench/soak/soak.py [--build DIR] [--minutes N] [--clients N] [--ptz-clients N]
                          [--chip tp2827|tp2826] [--seed N] [--sample SECONDS]

While the daemon runs, cameras are plugged and unplugged at random, several
D-Bus clients call every method of com.korvi.Encoder (image controls with
valid and out-of-range values, offsets, termination, standard changes,
listings, properties), and PTZ clients send records over the PTZ socket. The
report gives the calls made and answered, the error replies by name, the
daemon's resident memory, file descriptors and threads over time, the PTZ
records sent and transmitted, and the result of checking the configuration
file after every change: it must always parse as a key file and hold the
values of the last accepted standard change of each channel.

Use a Debug or Release build (the default is build/debug, which ./run
builds); sanitizer builds distort the memory figures. The exit status is 0
when every call was answered, every configuration check passed and the
daemon stopped cleanly.
"""

import argparse
import collections
import importlib.machinery
import os
import random
import socket
import stat
import sys
import threading
import time
import types

import gi

gi.require_version("Gio", "2.0")
gi.require_version("GLib", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def load_board_module():
    path = os.path.join(REPO, "scripts", "run-on-vboard")
    loader = importlib.machinery.SourceFileLoader("run_on_vboard", path)
    module = types.ModuleType(loader.name)
    module.__file__ = path
    loader.exec_module(module)
    return module


rov = load_board_module()

SERVICE = "com.korvi.Encoder"
OBJECT = "/com/korvi/Encoder"
CALL_TIMEOUT_MS = 25000

# The configuration file's numbers of the standards and resolutions that the
# soak asks for.
STANDARD_NUMBER = {"tvi": 0, "ahd": 1, "cvi": 2, "cvbs": 3}
RESOLUTION_NUMBER = {"1080p30": 2, "1080p25": 3, "720p30": 4, "720p25": 5, "pal": 8,
                     "ntsc": 9, "1440p15": 24}

# Fixed formats a client may ask for on any channel of each chip. The UHD
# formats are left out: they couple channels 0 and 2, which the expected
# values below don't model.
FIXED_FORMATS = {
    "tp2827": [(s, r) for s in ("tvi", "ahd", "cvi")
               for r in ("720p25", "720p30", "1080p25", "1080p30")]
              + [("cvbs", "pal"), ("cvbs", "ntsc"), ("ahd", "1440p15")],
    "tp2826": [("cvbs", "pal"), ("cvbs", "ntsc")],
}
# Requests every chip refuses before changing anything.
REFUSED_FORMATS = [("cvbs", "720p25"), ("tvi", "ntsc"), ("hd", "1080p25"), ("ahd", "2160p")]

CAMERAS = {
    "tp2827": [f"{s} {r}" for s in ("tvi", "ahd", "cvi")
               for r in ("720p25", "720p30", "1080p25", "1080p30")]
              + ["cvbs pal", "cvbs ntsc", "ahd 720p25 long"],
    "tp2826": ["cvbs pal", "cvbs ntsc"],
}


class Stats:
    def __init__(self):
        self.lock = threading.Lock()
        self.made = collections.Counter()
        self.answered = collections.Counter()
        self.errors = collections.Counter()
        self.unanswered = []
        self.other = collections.Counter()

    def count(self, key, n=1):
        with self.lock:
            self.other[key] += n


class ConfigChecker:
    """Expected values of the configuration file and their checks. Standard
    changes are serialised through `lock`, so that what the file must hold
    after an accepted change is known."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        # channel -> {"auto": bool, "standard": int, "resolution": int}; a
        # missing key is not checked.
        self.expected = {ch: {} for ch in range(4)}
        self.checks = 0
        self.failures = []

    def accepted(self, channel, auto, standard=None, resolution=None):
        e = {"auto": bool(auto)}
        if not auto:
            e["standard"] = STANDARD_NUMBER[standard]
            e["resolution"] = RESOLUTION_NUMBER[resolution]
        self.expected[channel] = e

    def unknown(self, channel):
        self.expected[channel] = {}

    def check(self, when):
        """Call with `lock` held."""
        self.checks += 1
        problems = []
        try:
            mode = stat.S_IMODE(os.stat(self.path).st_mode)
            if mode != 0o644:
                problems.append(f"mode {mode:o}, not 644")
            kf = GLib.KeyFile()
            kf.load_from_file(self.path, GLib.KeyFileFlags.NONE)
            for ch in range(4):
                group = f"Channel {ch}"
                values = {
                    "standard": kf.get_integer(group, "standard"),
                    "resolution": kf.get_integer(group, "resolution"),
                    "auto": kf.get_boolean(group, "auto"),
                    "configured": kf.get_boolean(group, "configured"),
                }
                for key, want in self.expected[ch].items():
                    if values[key] != want:
                        problems.append(f"{group} {key} = {values[key]}, last accepted {want}")
        except (OSError, GLib.Error) as e:
            problems.append(f"unreadable: {e}")
        if problems:
            self.failures.append(f"{when}: " + "; ".join(problems))


def bus_connection(address):
    return Gio.DBusConnection.new_for_address_sync(
        address,
        Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)


def call(conn, stats, method, args, iface=SERVICE, path=OBJECT, reply=None):
    """One call; returns (reply, error name or None). A call that got no
    answer within the time-out is recorded as unanswered."""
    params = GLib.Variant(args[0], tuple(args[1:])) if args else None
    with stats.lock:
        stats.made[method] += 1
    try:
        result = conn.call_sync(SERVICE, path, iface, method, params,
                                GLib.VariantType.new(reply) if reply else None,
                                Gio.DBusCallFlags.NONE, CALL_TIMEOUT_MS, None)
        with stats.lock:
            stats.answered[method] += 1
        return result, None
    except GLib.Error as e:
        name = Gio.DBusError.get_remote_error(e) or f"{e.domain}:{e.code}"
        no_answer = (e.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT)
                     or name == "org.freedesktop.DBus.Error.NoReply"
                     or e.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CLOSED))
        with stats.lock:
            if no_answer:
                stats.unanswered.append(f"{method}{args}: {e.message}")
            else:
                stats.answered[method] += 1
                stats.errors[name] += 1
        return None, name


def client(idx, args, board, stats, checker, stop):
    rng = random.Random(args.seed * 1000 + idx)
    conn = bus_connection(board.bus_address)
    formats = FIXED_FORMATS[args.chip]
    setters = ["SetSaturation", "SetBrightness", "SetContrast", "SetHue", "SetSharpness"]
    try:
        while not stop.is_set():
            ch = rng.choice([0, 1, 2, 3, 3, 0, 1, 2, 4, -1]) if rng.random() < 0.1 \
                else rng.randrange(4)
            what = rng.random()
            if what < 0.35:
                call(conn, stats, rng.choice(setters), ("(iu)", ch, rng.randrange(0, 121)))
            elif what < 0.45:
                call(conn, stats, rng.choice(["SetXOffset", "SetYOffset"]),
                     ("(ii)", ch, rng.randrange(-300, 301)))
            elif what < 0.50:
                call(conn, stats, "SetVideoTermination", ("(ii)", ch, rng.randrange(2)))
            elif what < 0.65:
                standard_change(conn, rng, stats, checker, ch, formats)
            elif what < 0.75:
                call(conn, stats, "ListConfig", (), reply="(a(uuuuuiissbb))")
            elif what < 0.85:
                call(conn, stats, "GetVideoProperties", ("(i)", ch))
            elif what < 0.90:
                call(conn, stats, "ListSupportedResolutions", (), reply="(a(s))")
            else:
                prop = rng.choice([("com.korvi.Encoder", OBJECT, "MultiDeviceProperties")]
                                  + [("com.korvi.Encoder.Video", f"{OBJECT}/{c}", p)
                                     for c in range(4) for p in ("VideoType", "DetectedType")])
                call(conn, stats, "Get", ("(ss)", prop[0], prop[2]),
                     iface="org.freedesktop.DBus.Properties", path=prop[1])
            stop.wait(rng.uniform(0.02, 0.15))
    finally:
        conn.close_sync(None)


def standard_change(conn, rng, stats, checker, ch, formats):
    r = rng.random()
    if r < 0.3:
        request = (ch, 1, "", "")
    elif r < 0.85:
        s, res = rng.choice(formats)
        request = (ch, 0, s, res)
    elif r < 0.95:
        s, res = rng.choice(REFUSED_FORMATS)
        request = (ch, 0, s, res)
    else:
        request = (ch, 2, "tvi", "1080p25")
    with checker.lock:
        _, error = call(conn, stats, "SetVideoStandard", ("(iiss)",) + request)
        if 0 <= ch < 4:
            if error is None:
                checker.accepted(ch, request[1] == 1, request[2], request[3])
            elif error == "com.korvi.Encoder.Error.System":
                # The decoder refused after the channel had taken the
                # request's mode: the file holds whatever the save wrote.
                checker.unknown(ch)
        if error is None:
            stats.count("standard changes accepted")
        checker.check(f"after SetVideoStandard{request} -> {error or 'ok'}")


def plugger(args, board, stats, stop):
    rng = random.Random(args.seed)
    cameras = CAMERAS[args.chip]
    while not stop.wait(rng.uniform(0.5, 3.0)):
        ch = rng.randrange(4)
        try:
            if rng.random() < 0.4:
                board.ctl("unplug", str(ch))
                stats.count("unplugs")
            else:
                board.ctl("plug", str(ch), *rng.choice(cameras).split())
                stats.count("plugs")
        except (rov.BoardError, OSError) as e:
            stats.count(f"board command failed: {e}")


def ptz_client(idx, args, board, stats, stop):
    rng = random.Random(args.seed * 7 + idx)
    while not stop.is_set():
        try:
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
                s.settimeout(5)
                s.connect(board.ptz_socket)
                for _ in range(rng.randrange(1, 20)):
                    n = rng.randrange(1, 4)
                    data = b"".join(bytes([rng.randrange(4)] + [rng.randrange(256)
                                                                for _ in range(4)])
                                    for _ in range(n))
                    s.sendall(data)
                    stats.count("ptz records sent", n)
                    if stop.wait(rng.uniform(0.05, 0.5)):
                        break
        except OSError as e:
            stats.count(f"ptz client error: {type(e).__name__}")
            stop.wait(0.5)


def sample(pid):
    s = {"t": time.monotonic()}
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                key, _, value = line.partition(":")
                if key in ("VmRSS", "VmHWM", "VmSize"):
                    s[key] = int(value.split()[0])
                elif key == "Threads":
                    s[key] = int(value)
        s["fds"] = len(os.listdir(f"/proc/{pid}/fd"))
    except OSError:
        return None
    return s


def main(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--build", default=os.path.join(REPO, "build", "debug"))
    p.add_argument("--minutes", type=float, default=10)
    p.add_argument("--clients", type=int, default=4)
    p.add_argument("--ptz-clients", type=int, default=2)
    p.add_argument("--chip", choices=("tp2827", "tp2826"), default="tp2827")
    p.add_argument("--seed", type=int, default=int(time.time()) % 100000)
    p.add_argument("--sample", type=float, default=10, help="seconds between memory samples")
    args = p.parse_args(argv)
    sys.stdout.reconfigure(line_buffering=True)

    cache = os.path.join(args.build, "CMakeCache.txt")
    if os.path.exists(cache) and any(line.startswith("CMAKE_BUILD_TYPE:STRING=")
                                     and ("san" in line.lower())
                                     for line in open(cache)):
        print("soak: warning: sanitizer build; memory figures are not the daemon's own",
              file=sys.stderr)

    board = rov.Board(args.build, chip=args.chip)
    stats = Stats()
    stop = threading.Event()
    samples = []
    print(f"soak: {args.minutes:g} min on a {args.chip} board, {args.clients} D-Bus clients, "
          f"{args.ptz_clients if args.chip == 'tp2827' else 0} PTZ clients, seed {args.seed}",
          flush=True)
    with board:
        deadline = time.monotonic() + 10
        while board.daemon_pid() is None and time.monotonic() < deadline:
            time.sleep(0.05)
        # The service is up once its name answers.
        conn = bus_connection(board.bus_address)
        while time.monotonic() < deadline:
            try:
                conn.call_sync(SERVICE, OBJECT, "org.freedesktop.DBus.Peer", "Ping", None,
                               None, Gio.DBusCallFlags.NONE, 1000, None)
                break
            except GLib.Error:
                time.sleep(0.1)
        conn.close_sync(None)
        pid = board.daemon_pid()
        if pid is None:
            print("soak: the daemon did not start\n" + board.board_output(), file=sys.stderr)
            return 1
        checker = ConfigChecker(board.config_file)
        with checker.lock:
            checker.check("at start")
        start = time.monotonic()
        samples.append(sample(pid))
        threads = [threading.Thread(target=plugger, args=(args, board, stats, stop))]
        threads += [threading.Thread(target=client, args=(i, args, board, stats, checker, stop))
                    for i in range(args.clients)]
        if args.chip == "tp2827":
            threads += [threading.Thread(target=ptz_client, args=(i, args, board, stats, stop))
                        for i in range(args.ptz_clients)]
        for t in threads:
            t.start()
        end = start + args.minutes * 60
        daemon_died = False
        try:
            while time.monotonic() < end:
                if stop.wait(min(args.sample, max(end - time.monotonic(), 0))):
                    break
                s = sample(pid)
                if s is None:
                    daemon_died = True
                    break
                samples.append(s)
                if len(samples) % max(int(60 / args.sample), 1) == 1:
                    with stats.lock:
                        made = sum(stats.made.values())
                    print(f"soak: {(s['t'] - start) / 60:.1f} min, {made} calls, "
                          f"VmRSS {s.get('VmRSS')} kB, {s['fds']} fds")
                with checker.lock:
                    checker.check(f"at {s['t'] - start:.0f} s")
        except KeyboardInterrupt:
            print("soak: interrupted", file=sys.stderr)
        finally:
            stop.set()
            for t in threads:
                t.join()
        elapsed = time.monotonic() - start
        # Let the last PTZ records reach the chip before counting them.
        time.sleep(1.5)
        try:
            counters = dict(line.rsplit(" ", 1) for line in board.ctl("counters").splitlines()
                            if line.count(" ") == 1)
        except rov.BoardError:
            counters = {}
        final = sample(pid)
        if final:
            samples.append(final)
        code = board.stop()
        lines = board.all_log_lines()
    levels = collections.Counter(line.level for line in lines if line.program == "vinmand")
    stopped = any(line.text == "vinmand stopped." for line in lines)
    clean = stopped and not daemon_died and (code == 0 or (code is None and board.board_killed))

    print(f"\n== soak report ({elapsed / 60:.1f} min, seed {args.seed})")
    print("D-Bus calls            made  answered")
    for method in sorted(stats.made):
        print(f"  {method:<24}{stats.made[method]:>6}{stats.answered[method]:>10}")
    print(f"  {'total':<24}{sum(stats.made.values()):>6}{sum(stats.answered.values()):>10}")
    print("error replies by name")
    for name, n in stats.errors.most_common():
        print(f"  {name:<46}{n:>6}")
    if stats.unanswered:
        print(f"calls without an answer: {len(stats.unanswered)}")
        for u in stats.unanswered[:10]:
            print(f"  {u}")
    print("board and PTZ")
    for key, n in sorted(stats.other.items()):
        print(f"  {key:<46}{n:>6}")
    if counters:
        print(f"  {'ptz transmissions on the chip (2 per record)':<46}{counters.get('ptz_transmissions', '?'):>6}")
        print(f"  {'ptz records garbled on the chip':<46}{counters.get('ptz_garbled', '?'):>6}")
        print(f"  {'chip resets':<46}{counters.get('resets', '?'):>6}")
    print("daemon process (from /proc)   time   VmRSS kB  VmHWM kB  fds  threads")
    for s in samples:
        print(f"  {'':<26}{s['t'] - start:6.0f}s {s.get('VmRSS', 0):>9} {s.get('VmHWM', 0):>9} "
              f"{s['fds']:>4} {s.get('Threads', 0):>8}")
    if len(samples) >= 2:
        first, last = samples[0], samples[-1]
        rss = [s["VmRSS"] for s in samples]
        print(f"  VmRSS first {first['VmRSS']} kB, last {last['VmRSS']} kB, "
              f"min {min(rss)}, max {max(rss)}; fds {first['fds']} -> {last['fds']}; "
              f"threads {first['Threads']} -> {last['Threads']}")
    print(f"configuration file checks: {checker.checks}, failed: {len(checker.failures)}")
    for f in checker.failures[:10]:
        print(f"  {f}")
    print("daemon log lines by level: "
          + ", ".join(f"{k} {v}" for k, v in sorted(levels.items())))
    status = "unknown (board killed after the daemon stopped)" if code is None else str(code)
    print(f"shutdown: {'clean' if clean else 'NOT clean'}; exit status {status}"
          + ("; the daemon died during the run" if daemon_died else ""))
    ok = clean and not stats.unanswered and not checker.failures
    print("result: " + ("PASS" if ok else "FAIL"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
