#!/usr/bin/python3
"""A long run of the daemon under a steady mix of calls, sampled once a minute.

    soak.py [MINUTES] [--bin-dir DIR] [--clients N] [--seed S] [--warm-up S]

The daemon runs as the system tests run it (tests/system/daemon.py): a private
dbus-daemon, the simulated 240x240 16-bit panel, a private mount namespace
holding the example screens and their images. Several client processes, each on
its own bus connection, send one call every 20 to 50 ms (seeded): ShowGui of
every example screen (static, slideshow, breathing, progress bar, text and
image), ShowSimpleScreen with lines in several scripts at varying sizes and
places, with and without an example image and its animations, brightness
changes in and out of range, calls sent without a reply, and malformed calls
(bodies that are not one string-keyed dictionary, unknown functions, values of
the wrong type). Every answer is checked against what the daemon must answer.
A probe on a connection of its own alternates two screens about twice a second
and times each from its call until the panel holds that screen's picture.

Once a minute it prints the daemon's resident size (VmRSS, and RssAnon, the part
that is not pages of files), its open descriptors (entries of /proc/PID/fd), its
file-backed mappings (lines of /proc/PID/maps that name a file), the p50 and p99
of the time from a call to its answer over that minute (every call that waits
for an answer, errors included) and the p99 of the probe's request-to-pixels
times. It ends with one line per
figure, "soak NAME START END": START is the first minute's figure, END the
last minute's.

Exits with 1 if the daemon died or did not stop cleanly, a client saw a wrong
answer or none at all, a call sent without a reply was not served, or a minute
went by without its figures.
"""
import argparse
import json
import math
import os
import random
import re
import select
import signal
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # leave no __pycache__ in the source tree
HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.dirname(HERE)
SYSTEM_TESTS = os.path.join(SOURCE_DIR, "tests", "system")
sys.path.insert(0, SYSTEM_TESTS)

import dbus  # noqa: E402
import load_client  # noqa: E402
from daemon import BUS_NAME, INTERFACE, OBJECT_PATH, Daemon, PrivateBus, \
    is_daemon_process, status_kb, unwrap  # noqa: E402
from load_client import SCREENS  # noqa: E402
from ratios import Panel, resident_kb  # noqa: E402

# Each client waits this long (uniformly drawn, in ms) after an answer before
# its next call: the daemon is kept busy without being saturated.
PAUSE_MS = (20, 50)
# The probe: one screen change about every PROBE_EVERY_S (drawn from this
# range), its panel read every POLL_S, given up after PROBE_TIMEOUT_S.
PROBE_EVERY_S = (0.25, 0.75)
POLL_S = 0.0002
PROBE_TIMEOUT_S = 2.0
SECONDS_PER_MINUTE = 60.0

# Lines of text in the scripts the font renderer covers. Of the emoji, DejaVu
# Sans draws the face and the heart in outline; the others are placeholder boxes.
TEXTS = [
    "Firmware 2.1 is ready",                 # Latin
    "Über 42 % — prêt",                      # Latin with diacritics
    "مرحبا بالعالم",                          # Arabic
    "Firmware 2.1 تحديث",                     # mixed directions
    "עדכון תוכנה",                            # Hebrew
    "नमस्ते दुनिया",                            # Devanagari
    "กำลังอัปเดต",                            # Thai
    "正在更新固件",                            # Chinese
    "ファームウェア更新中",                     # Japanese
    "펌웨어 업데이트",                          # Korean
    "😀 ❤ 📷 🎉",                              # emoji
]
# The example images, each with an animation it can run and that animation's
# parameters as (duration range in ms, count or None).
IMAGES = [
    ("logo.png", "static", None, None),
    ("heart.png", "breathing", (200, 4000), None),
    ("spinner.png", "slideshow", (200, 3000), 8),
    ("progress.png", "progressbar", (500, 30000), None),
]
# Animations outside the engine's limits: the screen is refused (statusCode 1).
BROKEN_ANIMATIONS = [
    {"file": "spinner.png", "animation": "slideshow", "duration": dbus.Int32(800),
     "count": dbus.Int32(0)},
    {"file": "spinner.png", "animation": "slideshow", "duration": dbus.Int32(800),
     "count": dbus.Int32(101)},
    {"file": "heart.png", "animation": "breathing", "duration": dbus.Int32(50)},
    {"file": "heart.png", "animation": "breathing", "duration": dbus.Int32(30001)},
    {"file": "progress.png", "animation": "progressbar", "duration": dbus.Int32(600001)},
]
ALIGN_HOR = ["left", "center", "right"]
ALIGN_VERT = ["top", "middle", "bottom"]
# The two screens of the probe: their pictures differ from each other and from
# anything the clients show.
PROBE_SCREENS = [
    {"text": dbus.Dictionary({"str": "PROBE", "size": dbus.Int32(48), "alignHor": "center",
                              "alignVert": "middle"}, signature="sv")},
    {"text": dbus.Dictionary({"str": "probe", "size": dbus.Int32(20), "alignHor": "right",
                              "alignVert": "bottom"}, signature="sv"),
     "img": dbus.Dictionary({"file": "logo.png", "alignHor": "left", "alignVert": "top"},
                            signature="sv")},
]


def percentile(values, fraction):
    """The nearest-rank percentile of `values` (a fraction 0 .. 1); None if empty."""
    if not values:
        return None
    ordered = sorted(values)
    return ordered[max(0, math.ceil(fraction * len(ordered)) - 1)]


# ---- the clients ---------------------------------------------------------------


def brightness_value(rng):
    """A brightness of any kind the daemon may be sent, with the percentage it must
    report for it (None: negative, so it reports whatever the backlight is at)."""
    pick = rng.random()
    if pick < 0.6:
        value = rng.randrange(0, 101)
        return dbus.Int32(value), value
    if pick < 0.75:
        return dbus.Int32(-1), None
    if pick < 0.85:
        value = rng.choice([101, 127, 128, 255, 1000, 2 ** 31 - 1])
        return dbus.Int32(value), 100
    if pick < 0.95:
        return dbus.Int32(rng.choice([-2, -100, -128, -129, -(2 ** 31)])), None
    # Other integer types are taken as well.
    value = rng.randrange(0, 101)
    kind = rng.choice([dbus.Byte, dbus.Int16, dbus.UInt16, dbus.UInt32, dbus.Int64,
                       dbus.UInt64])
    return kind(value), value


def place(rng, record, offset=0.7):
    """Adds an alignment and, with probability `offset`, a random position (which
    may put the element partly or wholly off the panel) to an element record."""
    if rng.random() < offset:
        record["x"] = dbus.Int32(rng.randrange(-40, 200))
        record["y"] = dbus.Int32(rng.randrange(-20, 220))
    record["alignHor"] = rng.choice(ALIGN_HOR)
    record["alignVert"] = rng.choice(ALIGN_VERT)
    return record


def text_record(rng):
    return dbus.Dictionary(place(rng, {"str": rng.choice(TEXTS),
                                       "size": dbus.Int32(rng.randrange(8, 49))}),
                           signature="sv")


def image_record(rng):
    file, animation, durations, count = rng.choice(IMAGES)
    if rng.random() < 0.25:
        animation, durations, count = "static", None, None  # any image may stand still
    record = {"file": file, "animation": animation}
    if durations:
        record["duration"] = dbus.Int32(rng.randrange(*durations))
    if count:
        record["count"] = dbus.Int32(count)
    return dbus.Dictionary(place(rng, record, 0.3), signature="sv")


class SoakClient(load_client.Client):
    """A load-test client that times every call waiting for an answer, paces its
    calls, and sends the soak's mix."""

    def __init__(self, address, client, seed):
        super().__init__(address, client, 0)
        self.rng = random.Random(f"{seed}-{client}")
        self.latencies = []
        self.mismatch_count = 0
        self.calls = 0

    def call(self, function, signature, args):
        start = time.perf_counter()
        try:
            return super().call(function, signature, args)
        finally:
            self.latencies.append((time.perf_counter() - start) * 1e3)

    def mismatch(self, what):
        self.mismatch_count += 1
        super().mismatch(what)

    def expect_show_gui(self, kind, request, status, name, brightness):
        """ShowGui: `status`, and a payload of screen `name` (None: any screen, or
        none) and `brightness` (None: any percentage the backlight may be at)."""
        request_id = self.next_id
        self.next_id += 1
        request = dict(request, id=dbus.UInt64(request_id))
        try:
            reply = unwrap(self.call("ShowGui", "a{sv}",
                                     (dbus.Dictionary(request, signature="sv"),)))
        except dbus.DBusException as error:
            self.mismatch([kind, repr(request), "error " + error.get_dbus_name()])
            return
        payload = reply.get("payload") or {}
        good = (reply.get("statusCode") == status and reply.get("requestId") == request_id and
                set(payload) == {"guiId", "brightness"})
        if good and name is not None:
            good = payload["guiId"] == name
        elif good:
            good = payload["guiId"] in SCREENS + [""]
        if good and brightness is not None:
            good = payload["brightness"] == brightness
        elif good:
            good = -1 <= payload["brightness"] <= 100
        if good:
            self.count(kind)
        else:
            self.mismatch([kind, repr(request), reply])

    def show_gui(self):
        rng = self.rng
        name = rng.choice(SCREENS)
        request, brightness = {"guiId": name}, None
        if rng.random() < 0.5:
            request["brightness"], brightness = brightness_value(rng)
        # Served as a whole before the next call: the payload is this call's
        # screen and, when it set one, its brightness.
        self.expect_show_gui("ShowGui", request, 0, name, brightness)

    def show_simple_screen(self):
        rng = self.rng
        request = {}
        pick = rng.random()
        if pick < 0.85:
            request["text"] = text_record(rng)
        if pick > 0.45:
            request["img"] = image_record(rng)
        if rng.random() < 0.3:
            request["brightness"] = brightness_value(rng)[0]
        self.expect_reply("ShowSimpleScreen", "ShowSimpleScreen", request, 0)

    def one_call(self, i):
        rng = self.rng
        self.calls += 1
        pick = rng.random()
        if pick < 0.28:
            self.show_gui()
        elif pick < 0.56:
            self.show_simple_screen()
        elif pick < 0.61:
            # Brightness alone: the screen on show stays.
            request = {"guiId": ""}
            request["brightness"], brightness = brightness_value(rng)
            self.expect_show_gui("brightness", request, 0, None, brightness)
        elif pick < 0.64:
            request = {"guiId": rng.choice(["nosuch", "Logo", "logo.png", "hello "])}
            self.expect_show_gui("ShowGui unknown", request, 1, None, None)
        elif pick < 0.67:
            request = {"img": dbus.Dictionary(rng.choice(BROKEN_ANIMATIONS), signature="sv"),
                       "text": text_record(rng)}
            self.expect_reply("ShowSimpleScreen refused", "ShowSimpleScreen", request, 1)
        elif pick < 0.77:
            if rng.random() < 0.3:
                # A name seen nowhere else: its log line proves the call was served.
                name = f"lost-c{self.client}-{i}"
                self.lost_names.append(name)
                self.send_without_reply("ShowGui", {"guiId": name})
            elif rng.random() < 0.5:
                self.send_without_reply("ShowGui", {"guiId": rng.choice(SCREENS),
                                                    "brightness": brightness_value(rng)[0]})
            else:
                self.send_without_reply("ShowSimpleScreen", {"text": text_record(rng)})
            self.count("no reply")
        elif pick < 0.85:
            self.unknown_function(["ShowSomething", "Reboot", "showgui", "ShowGUI"])
        elif pick < 0.95:
            self.not_a_request()
        else:
            self.wrong_value_types()

    def report(self):
        """What happened since the last report, as one JSON line."""
        self.connection.flush()
        result = {"latencies": self.latencies, "calls": self.calls, "counts": self.counts,
                  "mismatches": self.mismatch_count, "first_mismatches": self.mismatches,
                  "lost": self.lost_names}
        self.latencies, self.calls, self.counts, self.lost_names = [], 0, {}, []
        self.mismatch_count, self.mismatches = 0, []
        sys.stdout.write(json.dumps(result, default=repr) + "\n")
        sys.stdout.flush()


def client_main(address, client, seed):
    """One client process: calls until told to stop; "report" on its standard
    input makes it print what it did since the last report."""
    soak = SoakClient(address, client, seed)
    print("ready", flush=True)
    sys.stdin.readline()
    i = 0
    while True:
        soak.one_call(i)
        i += 1
        # The pause between calls is also the time to listen to the parent.
        ready, _, _ = select.select([sys.stdin], [], [],
                                    soak.rng.uniform(*PAUSE_MS) / 1000.0)
        if ready:
            command = sys.stdin.readline().strip()
            soak.report()
            if command != "report":
                return 0


# ---- the run -------------------------------------------------------------------


def anonymous_kib(pid):
    """RssAnon of /proc/PID/status: the part of the resident size that is the
    process's own memory (heap, stacks), not pages of files."""
    return status_kb(pid, "RssAnon", Failure)


def open_descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def file_mappings(pid):
    """The mappings of /proc/PID/maps backed by a file (their path starts with /)."""
    count = 0
    with open(f"/proc/{pid}/maps") as f:
        for line in f:
            fields = line.split(maxsplit=5)
            if len(fields) == 6 and fields[5].startswith("/"):
                count += 1
    return count


class Failure(Exception):
    pass


class Soak:
    def __init__(self, root):
        self.bus = PrivateBus(os.path.join(root, "bus"))
        self.daemon = Daemon(os.path.join(root, "root"), self.bus)
        self.panel = Panel(self.daemon.panel)
        self.clients = []
        self.lost = []
        self.counts = {}
        self.mismatches = 0
        self.first_mismatches = []

    def start(self, clients, seed):
        """Starts the daemon, takes the probe's pictures, then starts the clients."""
        self.daemon.install_example()
        try:
            self.daemon.start()
        except AssertionError as error:
            raise Failure(str(error)) from None
        self.pid = self.daemon.process.pid
        # The sandbox, unshare and the panel launcher all exec their successor.
        if not is_daemon_process(self.pid):
            raise Failure(f"process {self.pid} is not the daemon")
        self.connection = self.bus.connection()
        self.rng = random.Random(f"{seed}-probe")
        self.pictures = self.probe_pictures()
        self.next_probe = 0
        for n in range(clients):
            self.clients.append(self.start_client(n, seed))
        for client in self.clients:
            if client.stdout.readline() != b"ready\n":
                raise Failure("a client did not start")
        for client in self.clients:
            client.stdin.write(b"go\n")
            client.stdin.flush()

    def start_client(self, n, seed):
        env = dict(os.environ, PYTHONPATH=os.pathsep.join(
            filter(None, [SYSTEM_TESTS, HERE, os.environ.get("PYTHONPATH")])))
        return subprocess.Popen(
            [sys.executable, os.path.abspath(__file__), "--client", self.bus.address, str(n),
             str(seed)], env=env, stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def show(self, screen):
        request = dbus.Dictionary(PROBE_SCREENS[screen], signature="sv")
        try:
            reply = unwrap(self.connection.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE,
                                                         "ShowSimpleScreen", "a{sv}", (request,),
                                                         timeout=30))
        except dbus.DBusException as error:
            self.check_alive()
            raise Failure(f"the probe's call failed: {error.get_dbus_name()}") from None
        if reply.get("statusCode") != 0:
            raise Failure(f"the probe's screen {screen} was refused: {reply}")

    def probe_pictures(self):
        """The panel's bytes for each probe screen, taken before the clients start."""
        pictures = []
        for screen in range(len(PROBE_SCREENS)):
            self.show(screen)
            time.sleep(0.5)
            first = self.panel.frame()
            time.sleep(0.1)
            if first is None or self.panel.frame() != first:
                raise Failure(f"the probe's screen {screen} does not stand still on the panel")
            pictures.append(first)
        if pictures[0] == pictures[1] or any(p == bytes(len(p)) for p in pictures):
            raise Failure("the probe's screens do not draw two different pictures")
        return pictures

    def probe(self):
        """Shows the next probe screen; returns the milliseconds from the call until
        the panel holds its picture, or None when it did not within the timeout
        (another client's screen replaced it before it was drawn)."""
        screen = self.next_probe
        self.next_probe = 1 - screen
        picture = self.pictures[screen]
        start = time.perf_counter()
        self.show(screen)
        while True:
            if self.panel.frame() == picture:
                return (time.perf_counter() - start) * 1e3
            if time.perf_counter() - start > PROBE_TIMEOUT_S:
                return None
            time.sleep(POLL_S)

    def check_alive(self):
        if self.daemon.process.poll() is not None:
            raise Failure(f"the daemon exited with status {self.daemon.process.returncode}")
        for n, client in enumerate(self.clients):
            if client.poll() is not None:
                raise Failure(f"client {n} exited with status {client.returncode}")

    def reports(self, command=b"report\n"):
        """Each client's report since the last; returns their answer times and calls."""
        for client in self.clients:
            client.stdin.write(command)
            client.stdin.flush()
        latencies, calls = [], 0
        for n, client in enumerate(self.clients):
            line = client.stdout.readline()
            if not line:
                raise Failure(f"client {n} ended without its report")
            report = json.loads(line)
            latencies += report["latencies"]
            calls += report["calls"]
            self.lost += report["lost"]
            self.mismatches += report["mismatches"]
            self.first_mismatches += report["first_mismatches"][:5]
            for kind, count in report["counts"].items():
                self.counts[kind] = self.counts.get(kind, 0) + count
        if self.mismatches:
            raise Failure(f"{self.mismatches} wrong answers, the first: "
                          f"{self.first_mismatches[:5]}")
        return latencies, calls

    def process_figures(self):
        return {"rss_kib": resident_kb(self.pid), "anon_kib": anonymous_kib(self.pid),
                "fds": open_descriptors(self.pid), "maps": file_mappings(self.pid)}

    def run_for(self, seconds):
        """Probes about twice a second for `seconds`; returns the probes' times and
        the number of probes whose picture never came."""
        pixels, missed = [], 0
        end = time.monotonic() + seconds
        while True:
            self.check_alive()
            now = time.monotonic()
            if now >= end:
                return pixels, missed
            wait = self.rng.uniform(*PROBE_EVERY_S)
            if now + wait >= end:
                time.sleep(end - now)
                continue
            time.sleep(wait)
            ms = self.probe()
            if ms is None:
                missed += 1
            else:
                pixels.append(ms)

    def finish(self):
        """Stops the clients, checks that every call sent without a reply was
        served, and stops the daemon."""
        self.check_alive()
        self.reports(b"stop\n")
        for n, client in enumerate(self.clients):
            if client.wait(30) != 0:
                raise Failure(f"client {n} exited with status {client.returncode}")
        self.clients = []
        if not self.lost:
            raise Failure("no call sent without a reply could be traced in the log")
        pattern = re.compile(r"Could not find gui id '(lost-c[0-9]+-[0-9]+)'")
        wanted = set(self.lost)
        deadline = time.monotonic() + 30
        while True:
            missing = wanted - set(pattern.findall(self.daemon.log()))
            if not missing or time.monotonic() > deadline:
                break
            time.sleep(0.2)
        if missing:
            raise Failure(f"{len(missing)} of {len(wanted)} calls sent without a reply were "
                          f"not served, e.g. {sorted(missing)[:3]}")
        status = self.daemon.stop()
        if status != 0:
            raise Failure(f"the daemon exited with status {status} on SIGTERM")

    def close(self):
        for client in self.clients:
            if client.poll() is None:
                client.kill()
                client.wait()
        self.panel.close()
        self.daemon.kill()
        self.bus.stop()


def minute_line(label, f):
    line = (f"{label}: rss {f['rss_kib']} KiB ({f['rss_kib'] / 1024:.1f} MiB, anon "
            f"{f['anon_kib']} KiB), fds {f['fds']}, maps {f['maps']}")
    if "latency_p50_ms" in f:
        line += (f", latency p50 {f['latency_p50_ms']:.2f} ms p99 {f['latency_p99_ms']:.2f} ms"
                 f", pixels p99 {f['pixels_p99_ms']:.1f} ms ({f['calls']} calls, "
                 f"{f['pixel_samples']} pixel samples, {f['pixel_missed']} missed)")
    return line


FIGURES = ["rss_kib", "fds", "maps", "latency_p50_ms", "latency_p99_ms", "pixels_p99_ms"]


def final_lines(minutes):
    first, last = minutes[0], minutes[-1]
    lines = []
    for name in FIGURES:
        if name.endswith("_ms"):
            lines.append(f"soak {name} {first[name]:.2f} {last[name]:.2f}")
        else:
            lines.append(f"soak {name} {first[name]} {last[name]}")
    return lines


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("minutes", nargs="?", type=int, default=30,
                        help="minutes to run after the warm-up (default 30)")
    parser.add_argument("--bin-dir", help="directory of the built programs")
    parser.add_argument("--clients", type=int, default=3, help="client processes (default 3)")
    parser.add_argument("--seed", type=int, default=1, help="seed of the calls' choices")
    parser.add_argument("--warm-up", type=float, default=10.0,
                        help="seconds of load before the first minute (default 10)")
    if len(sys.argv) > 1 and sys.argv[1] == "--client":
        return client_main(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
    args = parser.parse_args()
    if args.minutes < 1 or args.clients < 1:
        parser.error("MINUTES and --clients must be at least 1")
    if args.bin_dir:
        os.environ["DRAVIK_BIN_DIR"] = os.path.abspath(args.bin_dir)
    signal.signal(signal.SIGTERM, signal.default_int_handler)

    minutes = []
    status = 0
    with tempfile.TemporaryDirectory(prefix="dravik_soak_") as root:
        soak = None
        try:
            soak = Soak(root)
            soak.start(args.clients, args.seed)
            print(f"{args.clients} clients, one call every {PAUSE_MS[0]}-{PAUSE_MS[1]} ms each;"
                  f" a pixel probe about twice a second; {args.warm_up:.0f} s of warm-up",
                  flush=True)
            soak.run_for(args.warm_up)
            soak.reports()  # the warm-up's answers are not figures
            print(minute_line("start", soak.process_figures()), flush=True)
            for minute in range(1, args.minutes + 1):
                pixels, missed = soak.run_for(SECONDS_PER_MINUTE)
                latencies, calls = soak.reports()
                figures = soak.process_figures()
                if not latencies or not pixels:
                    raise Failure(f"minute {minute} has no figures: {len(latencies)} answers, "
                                  f"{len(pixels)} pixel samples")
                figures.update(latency_p50_ms=percentile(latencies, 0.50),
                               latency_p99_ms=percentile(latencies, 0.99),
                               pixels_p99_ms=percentile(pixels, 0.99), calls=calls,
                               pixel_samples=len(pixels), pixel_missed=missed)
                minutes.append(figures)
                print(minute_line(f"minute {minute}", figures), flush=True)
            soak.finish()
            kinds = ", ".join(f"{k} {v}" for k, v in sorted(soak.counts.items()))
            print(f"calls in all, every answer as expected: {kinds}; {len(soak.lost)} calls "
                  "without a reply traced in the log", flush=True)
        except (Failure, KeyboardInterrupt) as error:
            if soak is not None and os.path.exists(soak.daemon.stderr_path):
                print("the daemon's log ends with:\n" + soak.daemon.log()[-3000:],
                      file=sys.stderr)
            print(f"soak: FAILED: {error or 'interrupted'}", file=sys.stderr)
            status = 1
        finally:
            if soak is not None:
                soak.close()
    if minutes:
        print("\n".join(final_lines(minutes)))
    else:
        print("soak: no figures were taken", file=sys.stderr)
        status = 1
    return status


if __name__ == "__main__":
    sys.exit(main())
