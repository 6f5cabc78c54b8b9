#!/usr/bin/python3
"""Soak run: vinmand on the virtual board for a while under a random load (cameras
plugged and unplugged, D-Bus clients calling every method with valid and invalid
values, PTZ clients), then a report: calls and error replies, the daemon's memory,
fds and threads over time, PTZ records, and the configuration file checked after
every change. Exit status 0 when every call was answered, every check passed and
the daemon stopped cleanly.

usage: bench/soak/soak.py [--build DIR] [--minutes N] [--clients N] [--ptz-clients N]
                          [--chip tp2827|tp2826] [--seed N] [--sample SECONDS]
"""

import collections
import os
import random
import socket
import stat
import sys
import threading
import time

import gi

gi.require_version("Gio", "2.0")
gi.require_version("GLib", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import OBJECT, SERVICE  # noqa: E402

# The configuration file's numbers of the standards and resolutions asked for.
STANDARD_NUMBER = {"tvi": 0, "ahd": 1, "cvi": 2, "cvbs": 3}
RESOLUTION_NUMBER = {"1080p30": 2, "1080p25": 3, "720p30": 4, "720p25": 5, "pal": 8,
                     "ntsc": 9, "1440p15": 24}
HD = [(s, r) for s in ("tvi", "ahd", "cvi") for r in ("720p25", "720p30", "1080p25", "1080p30")]
# Fixed formats a client may ask for; no UHD, which couples channels 0 and 2.
FIXED_FORMATS = {"tp2827": HD + [("cvbs", "pal"), ("cvbs", "ntsc"), ("ahd", "1440p15")],
                 "tp2826": [("cvbs", "pal"), ("cvbs", "ntsc")]}
REFUSED_FORMATS = [("cvbs", "720p25"), ("tvi", "ntsc"), ("hd", "1080p25"), ("ahd", "2160p")]
CAMERAS = {"tp2827": [f"{s} {r}" for s, r in HD] + ["cvbs pal", "cvbs ntsc", "ahd 720p25 long"],
           "tp2826": ["cvbs pal", "cvbs ntsc"]}
SETTERS = ["SetSaturation", "SetBrightness", "SetContrast", "SetHue", "SetSharpness"]
PROPERTIES = [("com.korvi.Encoder", OBJECT, "MultiDeviceProperties")] + [
    ("com.korvi.Encoder.Video", f"{OBJECT}/{c}", p) for c in range(4)
    for p in ("VideoType", "DetectedType")]


class Stats:
    def __init__(self):
        self.lock = threading.Lock()
        self.made, self.answered = collections.Counter(), collections.Counter()
        self.errors, self.other = collections.Counter(), collections.Counter()
        self.unanswered = []

    def count(self, key, n=1):
        with self.lock:
            self.other[key] += n


class ConfigChecker:
    """What the configuration file must hold; standard changes are serialised
    through `lock`."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.expected = {ch: {} for ch in range(4)}  # a missing key is not checked
        self.checks = 0
        self.failures = []

    def accepted(self, channel, auto, standard, resolution):
        self.expected[channel] = {"auto": bool(auto)} if auto else {
            "auto": False, "standard": STANDARD_NUMBER[standard],
            "resolution": RESOLUTION_NUMBER[resolution]}

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
                values = {k: kf.get_integer(group, k) for k in ("standard", "resolution")}
                values.update({k: kf.get_boolean(group, k) for k in ("auto", "configured")})
                problems += [f"{group} {key} = {values[key]}, last accepted {want}"
                             for key, want in self.expected[ch].items() if values[key] != want]
        except (OSError, GLib.Error) as e:
            problems.append(f"unreadable: {e}")
        if problems:
            self.failures.append(f"{when}: " + "; ".join(problems))


def bus_connection(address):
    return Gio.DBusConnection.new_for_address_sync(
        address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)


def call(conn, stats, method, args, iface=SERVICE, path=OBJECT, reply=None):
    """One call; returns the error name or None."""
    params = GLib.Variant(args[0], tuple(args[1:])) if args else None
    with stats.lock:
        stats.made[method] += 1
    try:
        conn.call_sync(SERVICE, path, iface, method, params,
                       GLib.VariantType.new(reply) if reply else None,
                       Gio.DBusCallFlags.NONE, 25000, None)
        name = None
    except GLib.Error as e:
        name = Gio.DBusError.get_remote_error(e) or f"{e.domain}:{e.code}"
        if (e.matches(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT)
                or e.matches(Gio.io_error_quark(), Gio.IOErrorEnum.CLOSED)
                or name == "org.freedesktop.DBus.Error.NoReply"):
            with stats.lock:
                stats.unanswered.append(f"{method}{args}: {e.message}")
            return name
    with stats.lock:
        stats.answered[method] += 1
        if name:
            stats.errors[name] += 1
    return name


def client(idx, args, board, stats, checker, stop):
    rng = random.Random(args.seed * 1000 + idx)
    conn = bus_connection(board.bus_address)
    try:
        while not stop.is_set():
            ch = rng.choice([0, 1, 2, 3, 3, 0, 1, 2, 4, -1]) if rng.random() < 0.1 \
                else rng.randrange(4)
            what = rng.random()
            if what < 0.35:
                call(conn, stats, rng.choice(SETTERS), ("(iu)", ch, rng.randrange(0, 121)))
            elif what < 0.45:
                call(conn, stats, rng.choice(["SetXOffset", "SetYOffset"]),
                     ("(ii)", ch, rng.randrange(-300, 301)))
            elif what < 0.50:
                call(conn, stats, "SetVideoTermination", ("(ii)", ch, rng.randrange(2)))
            elif what < 0.65:
                standard_change(conn, rng, stats, checker, ch, FIXED_FORMATS[args.chip])
            elif what < 0.75:
                call(conn, stats, "ListConfig", (), reply="(a(uuuuuiissbb))")
            elif what < 0.85:
                call(conn, stats, "GetVideoProperties", ("(i)", ch))
            elif what < 0.90:
                call(conn, stats, "ListSupportedResolutions", (), reply="(a(s))")
            else:
                iface, path, prop = rng.choice(PROPERTIES)
                call(conn, stats, "Get", ("(ss)", iface, prop),
                     iface="org.freedesktop.DBus.Properties", path=path)
            stop.wait(rng.uniform(0.02, 0.15))
    finally:
        conn.close_sync(None)


def standard_change(conn, rng, stats, checker, ch, formats):
    r = rng.random()
    if r < 0.3:
        request = (ch, 1, "", "")
    elif r < 0.95:
        request = (ch, 0, *rng.choice(formats if r < 0.85 else REFUSED_FORMATS))
    else:
        request = (ch, 2, "tvi", "1080p25")
    with checker.lock:
        error = call(conn, stats, "SetVideoStandard", ("(iiss)",) + request)
        if 0 <= ch < 4 and error is None:
            checker.accepted(ch, request[1] == 1, request[2], request[3])
        elif 0 <= ch < 4 and error == "com.korvi.Encoder.Error.System":
            # Refused after the channel took the request's mode: the file holds
            # whatever the save wrote.
            checker.expected[ch] = {}
        if error is None:
            stats.count("standard changes accepted")
        checker.check(f"after SetVideoStandard{request} -> {error or 'ok'}")


def plugger(args, board, stats, stop):
    rng = random.Random(args.seed)
    while not stop.wait(rng.uniform(0.5, 3.0)):
        ch = str(rng.randrange(4))
        try:
            if rng.random() < 0.4:
                board.ctl("unplug", ch)
                stats.count("unplugs")
            else:
                board.ctl("plug", ch, *rng.choice(CAMERAS[args.chip]).split())
                stats.count("plugs")
        except (bl.BoardError, OSError) as e:
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
                    s.sendall(bytes(b for _ in range(n) for b in
                                    [rng.randrange(4)] + [rng.randrange(256) for _ in range(4)]))
                    stats.count("ptz records sent", n)
                    if stop.wait(rng.uniform(0.05, 0.5)):
                        break
        except OSError as e:
            stats.count(f"ptz client error: {type(e).__name__}")
            stop.wait(0.5)


def run(args, board, stats, samples):
    """Returns (checker, counters, seconds run, whether the daemon died)."""
    try:
        pid = bl.start_daemon(board, timeout=10)
    except bl.BoardError as e:
        sys.exit(f"soak: the daemon did not start: {e}\n" + board.board_output())
    checker = ConfigChecker(board.config_file)
    stop = threading.Event()
    with checker.lock:
        checker.check("at start")
    start = time.monotonic()
    samples.append(bl.proc_sample(pid))
    threads = [threading.Thread(target=plugger, args=(args, board, stats, stop))]
    threads += [threading.Thread(target=client, args=(i, args, board, stats, checker, stop))
                for i in range(args.clients)]
    threads += [threading.Thread(target=ptz_client, args=(i, args, board, stats, stop))
                for i in range(args.ptz_clients if args.chip == "tp2827" else 0)]
    for t in threads:
        t.start()
    end = start + args.minutes * 60
    died = False
    try:
        while time.monotonic() < end:
            stop.wait(min(args.sample, max(end - time.monotonic(), 0)))
            s = bl.proc_sample(pid)
            if s is None:
                died = True
                break
            samples.append(s)
            if len(samples) % max(int(60 / args.sample), 1) == 1:
                with stats.lock:
                    made = sum(stats.made.values())
                print(f"soak: {(s['t'] - start) / 60:.1f} min, {made} calls, "
                      f"VmRSS {s.get('VmRSS')} kB, {s['fds']} fds")
            with checker.lock:
                checker.check(f"at {s['t'] - start:.0f} s")
    finally:
        stop.set()
        for t in threads:
            t.join()
    elapsed = time.monotonic() - start
    time.sleep(1.5)  # for the last PTZ records to reach the chip
    try:
        counters = bl.counters(board)
    except bl.BoardError:
        counters = {}
    if final := bl.proc_sample(pid):
        samples.append(final)
    return checker, counters, elapsed, died


def main(argv):
    p = bl.parser("soak", __doc__)
    p.add_argument("--minutes", type=float, default=10)
    p.add_argument("--clients", type=int, default=4)
    p.add_argument("--ptz-clients", type=int, default=2)
    p.add_argument("--chip", choices=("tp2827", "tp2826"), default="tp2827")
    p.add_argument("--seed", type=int, default=int(time.time()) % 100000)
    p.add_argument("--sample", type=float, default=10, help="seconds between memory samples")
    args = p.parse_args(argv)
    sys.stdout.reconfigure(line_buffering=True)
    if "san" in (bl.cache_value(args.build, "CMAKE_BUILD_TYPE") or "").lower():
        print("soak: warning: sanitizer build; memory figures are not the daemon's own",
              file=sys.stderr)
    stats, samples = Stats(), []
    print(f"soak: {args.minutes:g} min on a {args.chip} board, {args.clients} D-Bus clients, "
          f"{args.ptz_clients if args.chip == 'tp2827' else 0} PTZ clients, seed {args.seed}")
    with bl.Board(args.build, chip=args.chip) as board:
        checker, counters, elapsed, died = run(args, board, stats, samples)
        code = board.stop()
        lines = board.all_log_lines()
    levels = collections.Counter(line.level for line in lines if line.program == "vinmand")
    stopped = any(line.text == "vinmand stopped." for line in lines)
    clean = stopped and not died and (code == 0 or (code is None and board.board_killed))

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
    rows = sorted(stats.other.items())
    if counters:
        rows += [("ptz transmissions on the chip (2 per record)",
                  counters.get("ptz_transmissions", "?")),
                 ("ptz records garbled on the chip", counters.get("ptz_garbled", "?")),
                 ("chip resets", counters.get("resets", "?"))]
    for key, n in rows:
        print(f"  {key:<46}{n:>6}")
    print("daemon process (from /proc)   time   VmRSS kB  VmHWM kB  fds  threads")
    start = samples[0]["t"]
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
          + ("; the daemon died during the run" if died else ""))
    ok = clean and not stats.unanswered and not checker.failures
    print("result: " + ("PASS" if ok else "FAIL"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
