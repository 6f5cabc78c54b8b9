#!/usr/bin/python3
"""Soak run: vinmand on a virtual TP2827 board under a random load (cameras plugged
and unplugged, D-Bus clients calling every method with valid and invalid values,
PTZ clients), then a report: calls and error replies, PTZ records, the daemon's
memory, fds and threads over time, and the configuration file checked after every
change. Exit status 0 when every call was answered, every check passed and the
daemon stopped cleanly.

glibc keeps a cache of freed blocks for each thread that fills slowly as the
daemon's threads meet new block sizes, so its resident memory creeps for a long
while although what it holds stays the same; --no-thread-cache turns that cache
off, which tells the allocator's warm-up from growth of the daemon's own memory."""

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
from gi.repository import Gio, GLib  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import OBJECT, SERVICE  # noqa: E402

# The configuration file's numbers of the standards and resolutions asked for.
STANDARD_NUMBER = {"tvi": 0, "ahd": 1, "cvi": 2, "cvbs": 3}
RESOLUTION_NUMBER = {"1080p30": 2, "1080p25": 3, "720p30": 4, "720p25": 5, "pal": 8,
                     "ntsc": 9, "1440p15": 24}
HD = [(s, r) for s in ("tvi", "ahd", "cvi") for r in ("720p25", "720p30", "1080p25", "1080p30")]
# Fixed formats a client may ask for on the TP2827; no UHD, which couples channels 0 and 2.
FIXED_FORMATS = HD + [("cvbs", "pal"), ("cvbs", "ntsc"), ("ahd", "1440p15")]
REFUSED_FORMATS = [("cvbs", "720p25"), ("tvi", "ntsc"), ("hd", "1080p25"), ("ahd", "2160p")]
CAMERAS = [f"{s} {r}" for s, r in HD] + ["cvbs pal", "cvbs ntsc", "ahd 720p25 long"]
SETTERS = ["SetSaturation", "SetBrightness", "SetContrast", "SetHue", "SetSharpness"]
PROPERTIES = [(SERVICE, OBJECT, "MultiDeviceProperties")] + [
    (f"{SERVICE}.Video", f"{OBJECT}/{c}", p) for c in range(4)
    for p in ("VideoType", "DetectedType")]
REPLY = {"ListConfig": "(a(uuuuuiissbb))", "ListSupportedResolutions": "(a(s))"}
CLOSED = [(Gio.io_error_quark(), Gio.IOErrorEnum.TIMED_OUT),
          (Gio.io_error_quark(), Gio.IOErrorEnum.CLOSED)]


class Soak:
    """What the load threads share; `lock` guards the counts."""

    def __init__(self, args, board):
        self.args, self.board, self.stop = args, board, threading.Event()
        self.lock, self.config_lock = threading.Lock(), threading.RLock()
        self.made, self.answered, self.errors, self.other = (collections.Counter()
                                                             for _ in range(4))
        self.unanswered, self.failures, self.checks = [], [], 0
        # What the configuration file must hold; a missing key is not checked.
        self.expected = {ch: {} for ch in range(4)}

    def count(self, key, n=1):
        with self.lock:
            self.other[key] += n

    def check_config(self, when):
        """Checks the file against the last accepted changes; a standard change
        holds `config_lock` from its call to its check."""
        with self.config_lock:
            self.checks += 1
            problems = []
            try:
                if (mode := stat.S_IMODE(os.stat(self.board.config_file).st_mode)) != 0o644:
                    problems.append(f"mode {mode:o}, not 644")
                kf = GLib.KeyFile()
                kf.load_from_file(self.board.config_file, GLib.KeyFileFlags.NONE)
                for ch, want in self.expected.items():
                    group = f"Channel {ch}"
                    have = {k: kf.get_integer(group, k) for k in ("standard", "resolution")}
                    have.update({k: kf.get_boolean(group, k) for k in ("auto", "configured")})
                    problems += [f"{group} {k} = {have[k]}, last accepted {v}"
                                 for k, v in want.items() if have[k] != v]
            except (OSError, GLib.Error) as e:
                problems.append(f"unreadable: {e}")
            if problems:
                self.failures.append(f"{when}: " + "; ".join(problems))

    def call(self, conn, method, args, iface=SERVICE, path=OBJECT):
        """One call; returns the error name or None."""
        name = lost = None
        try:
            conn.call_sync(SERVICE, path, iface, method,
                           GLib.Variant(args[0], args[1:]) if args else None,
                           GLib.VariantType.new(REPLY[method]) if method in REPLY else None,
                           Gio.DBusCallFlags.NONE, 25000, None)
        except GLib.Error as e:
            name = Gio.DBusError.get_remote_error(e) or f"{e.domain}:{e.code}"
            if any(e.matches(*c) for c in CLOSED) or name == "org.freedesktop.DBus.Error.NoReply":
                lost = f"{method}{args}: {e.message}"
        with self.lock:
            self.made[method] += 1
            if lost:
                self.unanswered.append(lost)
                return name
            self.answered[method] += 1
            if name:
                self.errors[name] += 1
        return name

    def client(self, idx):
        rng = random.Random(self.args.seed * 1000 + idx)
        conn = Gio.DBusConnection.new_for_address_sync(
            self.board.bus_address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
            | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
        while not self.stop.wait(rng.uniform(0.02, 0.15)):
            ch = rng.choice([0, 1, 2, 3, 3, 0, 1, 2, 4, -1] if rng.random() < 0.1 else range(4))
            what = rng.random()
            if what < 0.35:
                self.call(conn, rng.choice(SETTERS), ("(iu)", ch, rng.randrange(0, 121)))
            elif what < 0.45:
                self.call(conn, rng.choice(["SetXOffset", "SetYOffset"]),
                          ("(ii)", ch, rng.randrange(-300, 301)))
            elif what < 0.50:
                self.call(conn, "SetVideoTermination", ("(ii)", ch, rng.randrange(2)))
            elif what < 0.65:
                self.standard_change(conn, rng, ch)
            elif what < 0.75:
                self.call(conn, "ListConfig", ())
            elif what < 0.85:
                self.call(conn, "GetVideoProperties", ("(i)", ch))
            elif what < 0.90:
                self.call(conn, "ListSupportedResolutions", ())
            else:
                iface, path, prop = rng.choice(PROPERTIES)
                self.call(conn, "Get", ("(ss)", iface, prop), "org.freedesktop.DBus.Properties",
                          path)
        conn.close_sync(None)

    def standard_change(self, conn, rng, ch):
        r = rng.random()
        if r < 0.3:
            request = (ch, 1, "", "")
        elif r < 0.95:
            request = (ch, 0, *rng.choice(FIXED_FORMATS if r < 0.85 else REFUSED_FORMATS))
        else:
            request = (ch, 2, "tvi", "1080p25")
        with self.config_lock:
            error = self.call(conn, "SetVideoStandard", ("(iiss)",) + request)
            if 0 <= ch < 4 and error is None:
                self.expected[ch] = {"auto": True} if request[1] == 1 else {
                    "auto": False, "standard": STANDARD_NUMBER[request[2]],
                    "resolution": RESOLUTION_NUMBER[request[3]]}
                self.count("standard changes accepted")
            elif 0 <= ch < 4 and error == f"{SERVICE}.Error.System":
                # Refused after the channel took the request's mode: the file holds
                # whatever the save wrote.
                self.expected[ch] = {}
            self.check_config(f"after SetVideoStandard{request} -> {error or 'ok'}")

    def plugger(self):
        rng = random.Random(self.args.seed)
        while not self.stop.wait(rng.uniform(0.5, 3.0)):
            ch = str(rng.randrange(4))
            try:
                if rng.random() < 0.4:
                    self.board.ctl("unplug", ch)
                    self.count("unplugs")
                else:
                    self.board.ctl("plug", ch, *rng.choice(CAMERAS).split())
                    self.count("plugs")
            except (bl.BoardError, OSError) as e:
                self.count(f"board command failed: {e}")

    def ptz_client(self, idx):
        rng = random.Random(self.args.seed * 7 + idx)
        while not self.stop.is_set():
            try:
                with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
                    s.settimeout(5)
                    s.connect(self.board.ptz_socket)
                    for _ in range(rng.randrange(1, 20)):
                        n = rng.randrange(1, 4)
                        s.sendall(bytes(b for _ in range(n) for b in [rng.randrange(4)]
                                        + [rng.randrange(256) for _ in range(4)]))
                        self.count("ptz records sent", n)
                        if self.stop.wait(rng.uniform(0.05, 0.5)):
                            break
            except OSError as e:
                self.count(f"ptz client error: {type(e).__name__}")
                self.stop.wait(0.5)

    def run(self, pid, samples):
        """Loads the daemon for the run's minutes; returns whether it died."""
        self.check_config("at start")
        threads = [threading.Thread(target=self.plugger)]
        threads += [threading.Thread(target=self.client, args=(i,))
                    for i in range(self.args.clients)]
        threads += [threading.Thread(target=self.ptz_client, args=(i,))
                    for i in range(self.args.ptz_clients)]
        for t in threads:
            t.start()
        start = samples[0]["t"]
        end = start + self.args.minutes * 60
        try:
            while (now := time.monotonic()) < end:
                self.stop.wait(min(self.args.sample, end - now))
                if not (s := bl.proc_sample(pid)):
                    return True
                samples.append(s)
                self.check_config(f"at {s['t'] - start:.0f} s")
        finally:
            self.stop.set()
            for t in threads:
                t.join()
        return False


def main(argv):
    args = bl.parse_args(__doc__, argv, minutes=10.0, clients=4, ptz_clients=2,
                         seed=int(time.time()) % 100000, sample=10.0, no_thread_cache=False)
    if args.no_thread_cache:
        os.environ["GLIBC_TUNABLES"] = "glibc.malloc.tcache_count=0"  # the board passes it on
    sanitizer = "san" in (bl.cache_value(args.build, "CMAKE_BUILD_TYPE") or "").lower()
    print(f"soak: {args.minutes:g} min on a tp2827 board, {args.clients} D-Bus clients, "
          f"{args.ptz_clients} PTZ clients, seed {args.seed}"
          + ("; sanitizer build: its memory figures are not the daemon's own" * sanitizer)
          + ("; glibc's per-thread cache off" * args.no_thread_cache))
    with bl.Board(args.build) as board:
        try:
            pid = bl.start_daemon(board, timeout=10)
        except bl.BoardError as e:
            sys.exit(f"soak: the daemon did not start: {e}\n" + board.board_output())
        soak, samples = Soak(args, board), [bl.proc_sample(pid)]
        died = soak.run(pid, samples)
        elapsed = time.monotonic() - samples[0]["t"]
        time.sleep(1.5)  # for the last PTZ records to reach the chip
        counters = bl.counters(board) if board.running() else {}
        if final := bl.proc_sample(pid):
            samples.append(final)
        code = board.stop()
        lines = board.all_log_lines()
    levels = collections.Counter(line.level for line in lines if line.program == "vinmand")
    stopped = any(line.text == "vinmand stopped." for line in lines)
    clean = stopped and not died and (code == 0 or (code is None and board.board_killed))

    print(f"\n== soak report ({elapsed / 60:.1f} min, seed {args.seed})")
    print("D-Bus calls            made  answered")
    soak.made["total"], soak.answered["total"] = soak.made.total(), soak.answered.total()
    for method in sorted(soak.made, key=lambda m: (m == "total", m)):
        print(f"  {method:<24}{soak.made[method]:>6}{soak.answered[method]:>10}")
    print("error replies by name")
    for name, n in soak.errors.most_common():
        print(f"  {name:<46}{n:>6}")
    if soak.unanswered:
        print(f"calls without an answer: {len(soak.unanswered)}\n  "
              + "\n  ".join(soak.unanswered[:10]))
    print("board and PTZ")
    for key, n in sorted(soak.other.items()) + [
            ("ptz transmissions on the chip (2 per record)", counters.get("ptz_transmissions")),
            ("ptz records garbled on the chip", counters.get("ptz_garbled")),
            ("chip resets", counters.get("resets"))]:
        print(f"  {key:<46}{n if n is not None else '?':>6}")
    print("daemon process (from /proc)   time   VmRSS kB  VmHWM kB  fds  threads")
    for s in samples:
        print(f"  {'':<26}{s['t'] - samples[0]['t']:6.0f}s {s['VmRSS']:>9} {s['VmHWM']:>9} "
              f"{s['fds']:>4} {s['Threads']:>8}")
    first, last, rss = samples[0], samples[-1], [s["VmRSS"] for s in samples]
    print(f"  VmRSS first {first['VmRSS']} kB, last {last['VmRSS']} kB, min {min(rss)}, "
          f"max {max(rss)}; fds {first['fds']} -> {last['fds']}; "
          f"threads {first['Threads']} -> {last['Threads']}")
    print(f"configuration file checks: {soak.checks}, failed: {len(soak.failures)}")
    for f in soak.failures[:10]:
        print(f"  {f}")
    print("daemon log lines by level: " + ", ".join(f"{k} {v}" for k, v in sorted(levels.items())))
    status = "unknown (board killed after the daemon stopped)" if code is None else str(code)
    print(f"shutdown: {'clean' if clean else 'NOT clean'}; exit status {status}"
          + ("; the daemon died during the run" if died else ""))
    ok = clean and not soak.unanswered and not soak.failures
    print("result: " + ("PASS" if ok else "FAIL"))
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
