#!/usr/bin/python3
"""Soak run: vinmand on a TP2827 virtual board under random load (cameras replugged, D-Bus
and PTZ clients), then a report: calls made and answered, errors by name, the daemon's memory,
fds and threads over time, configuration file checks after every change; status 0 if all
passed. --no-thread-cache turns glibc's per-thread cache of freed blocks off."""

import collections
import os
import random
import socket
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import benchlib as bl  # noqa: E402
from benchlib import OBJECT, SERVICE, Gio, GLib  # noqa: E402

# The configuration file's numbers of the standards and resolutions asked for.
STANDARD = {"tvi": "0", "ahd": "1", "cvi": "2", "cvbs": "3"}
RESOLUTION = {"1080p30": "2", "1080p25": "3", "720p30": "4", "720p25": "5", "pal": "8",
              "ntsc": "9", "1440p15": "24"}
HD = [(s, r) for s in ("tvi", "ahd", "cvi") for r in ("720p25", "720p30", "1080p25", "1080p30")]
# Fixed formats of the TP2827 without UHD, which couples channels 0 and 2.
FIXED = HD + [("cvbs", "pal"), ("cvbs", "ntsc"), ("ahd", "1440p15")]
REFUSED = [("cvbs", "720p25"), ("tvi", "ntsc"), ("hd", "1080p25"), ("ahd", "2160p")]
CAMERAS = [f"{s} {r}" for s, r in HD] + ["cvbs pal", "cvbs ntsc", "ahd 720p25 long"]
SETTERS = ["SetSaturation", "SetBrightness", "SetContrast", "SetHue", "SetSharpness"]


class Soak:
    def __init__(self, args, board):
        self.args, self.board, self.stop = args, board, threading.Event()
        self.lock, self.config_lock = threading.Lock(), threading.RLock()
        self.made, self.errors, self.misc = [collections.Counter() for _ in range(3)]
        self.unanswered, self.failures, self.checks = [], [], 0
        self.expected = {ch: {} for ch in range(4)}  # what the file must hold; {}: unchecked

    def count(self, key, n=1):
        with self.lock:
            self.misc[key] += n

    def check_config(self, when):
        with self.config_lock:  # a standard change holds it from its call to its check
            self.checks += 1
            try:
                kf = GLib.KeyFile()
                kf.load_from_file(self.board.config_file, GLib.KeyFileFlags.NONE)
                problems = [f"Channel {ch} {k} = {have}, last accepted {v}"
                             for ch, want in self.expected.items() for k, v in want.items()
                             if (have := kf.get_value(f"Channel {ch}", k)) != v]
            except (OSError, GLib.Error) as e:
                problems = [f"unreadable: {e}"]
            if problems:
                self.failures.append(f"{when}: " + "; ".join(problems))

    def call(self, conn, method, args):
        """One call; the error name or None. A local error or NoReply counts as no answer."""
        name = lost = None
        try:
            conn.call_sync(SERVICE, OBJECT, SERVICE, method,
                           GLib.Variant(args[0], args[1:]) if args else None,
                           None, Gio.DBusCallFlags.NONE, 25000, None)
        except GLib.Error as e:
            name = Gio.DBusError.get_remote_error(e)
            lost, name = name in (None, "org.freedesktop.DBus.Error.NoReply"), name or e.message
        with self.lock:
            self.made[method] += 1
            if lost:
                self.unanswered.append(f"{method}{args}: {name}")
            elif name:
                self.errors[name] += 1
        return name

    def client(self, idx):
        rng = random.Random(self.args.seed * 1000 + idx)
        conn = bl.connect(self.board)
        while not self.stop.wait(rng.uniform(0.02, 0.15)):
            ch = rng.choice([4, -1, 0, 1, 2, 3] if rng.random() < 0.1 else range(4))
            if rng.random() < 0.15:
                self.standard_change(conn, rng, ch)
                continue
            offset = rng.choice(["SetXOffset", "SetYOffset"])
            self.call(conn, *rng.choices([
                (rng.choice(SETTERS), ("(iu)", ch, rng.randrange(121))),
                (offset, ("(ii)", ch, rng.randrange(-300, 301))),
                ("SetVideoTermination", ("(ii)", ch, rng.randrange(2))), ("ListConfig", ()),
                ("GetVideoProperties", ("(i)", ch)), ("ListSupportedResolutions", ())],
                [35, 10, 5, 15, 15, 5])[0])
        conn.close_sync(None)

    def standard_change(self, conn, rng, ch):
        r = rng.random()
        request = (ch, 1, "", "") if r < 0.3 else (ch, 2, "tvi", "1080p25") if r > 0.95 else (
            ch, 0, *rng.choice(FIXED if r < 0.85 else REFUSED))
        with self.config_lock:
            error = self.call(conn, "SetVideoStandard", ("(iiss)",) + request)
            if 0 <= ch < 4 and error is None:
                self.expected[ch] = {"auto": "true"} if request[1] == 1 else {
                    "auto": "false", "standard": STANDARD[request[2]],
                    "resolution": RESOLUTION[request[3]]}
                self.count("standard changes accepted")
            elif 0 <= ch < 4 and error == f"{SERVICE}.Error.System":
                self.expected[ch] = {}  # refused after the channel took the new mode
            self.check_config(f"after SetVideoStandard{request} -> {error or 'ok'}")

    def plugger(self, _):
        rng = random.Random(self.args.seed)
        while not self.stop.wait(rng.uniform(0.5, 3.0)):
            ch, unplug = str(rng.randrange(4)), rng.random() < 0.4
            try:
                self.board.ctl(*(["unplug", ch] if unplug else
                                 ["plug", ch, *rng.choice(CAMERAS).split()]))
                self.count("unplugs" if unplug else "plugs")
            except (bl.BoardError, OSError) as e:
                self.count(f"board command failed: {e}")

    def ptz_client(self, idx):
        rng = random.Random(self.args.seed * 7 + idx)
        while not self.stop.wait(rng.uniform(0.05, 0.5)):
            n = rng.randrange(1, 4)
            try:
                with socket.socket(socket.AF_UNIX) as s:
                    s.settimeout(5)
                    s.connect(self.board.ptz_socket)
                    s.sendall(b"".join(bytes([rng.randrange(4)]) + rng.randbytes(4)
                                       for _ in range(n)))
                self.count("ptz records sent", n)
            except OSError as e:
                self.count(f"ptz client error: {type(e).__name__}")


def main(argv):
    args = bl.parse_args(__doc__, argv, minutes=10.0, clients=4, ptz_clients=2,
                         seed=int(time.time()) % 100000, sample=10.0, no_thread_cache=False)
    if args.no_thread_cache:
        os.environ["GLIBC_TUNABLES"] = "glibc.malloc.tcache_count=0"  # the board passes it on
    print(f"soak: {args.minutes:g} min, {args.clients} D-Bus and {args.ptz_clients} PTZ clients, "
          f"seed {args.seed}" + ("; glibc's per-thread cache off" * args.no_thread_cache))
    with bl.Board(args.build) as board:
        pid = bl.start_daemon(board, timeout=10)
        soak, samples, died = Soak(args, board), [bl.proc_sample(pid)], False
        soak.check_config("at start")
        threads = [threading.Thread(target=f, args=(i,)) for f, n in (
            (soak.plugger, 1), (soak.client, args.clients), (soak.ptz_client, args.ptz_clients))
            for i in range(n)]
        for t in threads:
            t.start()
        while (left := samples[0]["t"] + args.minutes * 60 - time.monotonic()) > 0:
            soak.stop.wait(min(args.sample, left))
            if died := not (s := bl.proc_sample(pid)):
                break
            samples.append(s)
            soak.check_config(f"at {s['t'] - samples[0]['t']:.0f} s")
        soak.stop.set()
        for t in threads:
            t.join()
        samples += [s] if (s := bl.proc_sample(pid)) else []
        code = board.stop()
        stopped = any(line.text == "vinmand stopped." for line in board.all_log_lines())
    clean = stopped and not died and code in (0, None)  # None: board killed once the daemon ended
    made = soak.made.total()
    print(f"== soak report ({(samples[-1]['t'] - samples[0]['t']) / 60:.1f} min)\nD-Bus calls "
          f"made {made}, answered {made - len(soak.unanswered)}; by method, error replies by "
          "name and other counts:")
    for key, n in sorted(soak.made.items()) + soak.errors.most_common() + sorted(soak.misc.items()):
        print(f"  {key:<46}{n}")
    print("\n  ".join([f"calls without an answer: {len(soak.unanswered)}"]
                       + soak.unanswered[:10]))
    print("daemon process  time  VmRSS kB  VmHWM kB  fds  threads")
    for s in samples:
        print(f"  {s['t'] - samples[0]['t']:>18.0f}s {s['VmRSS']:>9} {s['VmHWM']:>9} "
              f"{s['fds']:>4} {s['Threads']:>8}")
    print("\n  ".join([f"configuration file checks: {soak.checks}, failed: "
                       f"{len(soak.failures)}"] + soak.failures[:10]))
    ok = clean and not soak.unanswered and not soak.failures
    print(f"shutdown: {'clean' if clean else 'NOT clean'}; exit status {code}"
          + ("; the daemon died during the run" * died) + f"\nresult: {'PASS' if ok else 'FAIL'}")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
