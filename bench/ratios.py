#!/usr/bin/python3
"""The daemon's costs, each as a ratio to the plain operation it is compared with.

Every pair is measured side by side in one run, so that both sides share the
machine's load, and repeated; the figures are medians of the repeats.

  conv15, conv16,    showBuf() of a whole 240x240 screen at that depth, against
  conv24, conv32     memcpy of the same output bytes line by line
  dither8            the 8-bit conversion (dither) of the same screen, against
                     memcpy of its output bytes
  turn90_15 .. 32,   showBuf() of the whole screen on a panel turned 90 (180,
  turn180_16, _32,   270) degrees, against the unturned showBuf() at that depth
  turn270_16, _32
  breathing          one service() tick of a breathing 120x120 picture, against
                     one saturating add (cv::add) of the same picture
  idle_cpu           CPU time of the daemon on a still screen, against a bare
                     loop of poll(NULL, 0, 30) running at the same time
  startup_png        the daemon's exec to its start-up screen (a PNG) complete
                     on the panel, against the same for a bare program that
                     decodes that PNG with libpng alone and writes it to the
                     panel, plus the main loop's first 30 ms wait; both start
                     from the same launcher in the same sandbox, timed from the
                     launcher's exec
  rss_png            the daemon's resident size (VmRSS) with that screen on the
                     panel, against the bare program's with its picture written
  first_image        request to pixels of the first request that shows an
                     image (the daemon started on a screen of text only),
                     against a later request of the same screen

  drm_tick_bytes,    the DRM output's figures on the simulated devices
  drm_pixels_p50,    (bench/drm.py says what each is)
  drm_pixels_p99

After the ratios, one line gives the shared objects each of the two programs
maps and whether the daemon maps the image library's codecs.

The engine's ratios come from dravik_lcm_gui_bench (Google Benchmark, random
interleaving of the repetitions); the others start the programs the way the
system tests do (private dbus-daemon, simulated 16-bit panel, private mount
namespace holding the example screens). Prints a table, then one line
"ratio NAME VALUE" per ratio, then the shared-object line.
"""
import argparse
import json
import mmap
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # leave no __pycache__ in the source tree
SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "system"))

import dbus  # noqa: E402
from daemon import HEIGHT, WIDTH, Daemon, PrivateBus, bin_dir, status_kb  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import drm  # noqa: E402

# The main loop waits up to 30 ms for the bus before its first display tick,
# which draws the start-up screen.
FIRST_WAIT_MS = 30.0
# The picture of the start-up screen ("logo"), as the sandbox shows it.
STARTUP_PICTURE = "/etc/gui/images/logo.png"
# The simulated panel: 16 bits per pixel.
FRAME_BYTES = WIDTH * HEIGHT * 2
BLANK = bytes(FRAME_BYTES)
# How often the panel is read while a picture is awaited, and for how long.
POLL_S = 0.0002
TIMEOUT_S = 20.0
# Time left to a program with its picture shown before its memory and maps are
# read, so that what follows the drawing (a reply, freed buffers) is done.
SETTLE_S = 0.3
# A shared object's file name: lib.so, lib.so.6, ld-linux-x86-64.so.2.
SHARED_OBJECT = re.compile(r"\.so(\.[0-9.]+)?$")

# (ratio name, measured case, floor case) of dravik_lcm_gui_bench.
ENGINE_PAIRS = [
    ("conv15", "BM_ShowBuf_FullScreen/bpp:15", "BM_Memcpy_FullScreen/bytes:2"),
    ("conv16", "BM_ShowBuf_FullScreen/bpp:16", "BM_Memcpy_FullScreen/bytes:2"),
    ("conv24", "BM_ShowBuf_FullScreen/bpp:24", "BM_Memcpy_FullScreen/bytes:3"),
    ("conv32", "BM_ShowBuf_FullScreen/bpp:32", "BM_Memcpy_FullScreen/bytes:4"),
    ("dither8", "BM_ConvertLine8_FullScreen", "BM_Memcpy_FullScreen/bytes:1"),
    ("turn90_15", "BM_ShowBuf_FullScreenTurned/bpp:15/deg:90", "BM_ShowBuf_FullScreen/bpp:15"),
    ("turn90_16", "BM_ShowBuf_FullScreenTurned/bpp:16/deg:90", "BM_ShowBuf_FullScreen/bpp:16"),
    ("turn90_24", "BM_ShowBuf_FullScreenTurned/bpp:24/deg:90", "BM_ShowBuf_FullScreen/bpp:24"),
    ("turn90_32", "BM_ShowBuf_FullScreenTurned/bpp:32/deg:90", "BM_ShowBuf_FullScreen/bpp:32"),
    ("turn180_16", "BM_ShowBuf_FullScreenTurned/bpp:16/deg:180", "BM_ShowBuf_FullScreen/bpp:16"),
    ("turn180_32", "BM_ShowBuf_FullScreenTurned/bpp:32/deg:180", "BM_ShowBuf_FullScreen/bpp:32"),
    ("turn270_16", "BM_ShowBuf_FullScreenTurned/bpp:16/deg:270", "BM_ShowBuf_FullScreen/bpp:16"),
    ("turn270_32", "BM_ShowBuf_FullScreenTurned/bpp:32/deg:270", "BM_ShowBuf_FullScreen/bpp:32"),
    ("breathing", "BM_Service_BreathingTick", "BM_Add_Breathing120"),
]


def program(name):
    return os.path.join(bin_dir(), name)


def engine_ratios(repeats, min_time):
    """Medians of the CPU time per iteration of each case, in microseconds."""
    cases = sorted({c for _, a, b in ENGINE_PAIRS for c in (a, b)})
    pattern = "^(" + "|".join(c.replace("/", "/") for c in cases) + ")$"
    result = subprocess.run(
        [program("dravik_lcm_gui_bench"), f"--benchmark_filter={pattern}",
         f"--benchmark_repetitions={repeats}", f"--benchmark_min_time={min_time}",
         "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True, text=True)
    runs = {}
    for entry in json.loads(result.stdout)["benchmarks"]:
        if entry.get("run_type") != "iteration":
            continue
        if entry.get("error_occurred"):
            raise RuntimeError(f"{entry['name']}: {entry.get('error_message')}")
        scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3}[entry["time_unit"]]
        runs.setdefault(entry["run_name"], []).append(entry["cpu_time"] * scale)
    missing = [c for c in cases if c not in runs]
    if missing:
        raise RuntimeError("dravik_lcm_gui_bench did not run " + ", ".join(missing))
    rows = []
    for name, measured, floor in ENGINE_PAIRS:
        a, b = statistics.median(runs[measured]), statistics.median(runs[floor])
        rows.append((name, f"{measured} {a:.2f} us", f"{floor} {b:.2f} us", a / b))
    return rows


def cpu_ns(pid):
    """Time the process has run on a CPU, in nanoseconds (/proc/PID/schedstat)."""
    with open(f"/proc/{pid}/schedstat") as f:
        return int(f.read().split()[0])


def resident_kb(pid):
    """VmRSS of a running process, in kB."""
    return status_kb(pid, "VmRSS", RuntimeError)


def shared_objects(pid):
    """The distinct shared-object files a running process maps."""
    paths = set()
    with open(f"/proc/{pid}/maps") as f:
        for line in f:
            fields = line.split(maxsplit=5)
            if len(fields) < 6:
                continue  # anonymous memory
            path = fields[5].strip().removesuffix(" (deleted)")
            if SHARED_OBJECT.search(os.path.basename(path)):
                paths.add(path)
    return paths


def maps_image_codecs(paths):
    return any("libopencv_imgcodecs" in os.path.basename(p) for p in paths)


class Panel:
    """The simulated panel's backing file, mapped for reading once it is there at
    its full size. fakefb-run makes a new file for every start."""

    def __init__(self, path):
        self.path = path
        self.map = None

    def frame(self):
        """The panel's bytes; None while the file is missing or short."""
        if self.map is None:
            try:
                fd = os.open(self.path, os.O_RDONLY)
            except FileNotFoundError:
                return None
            try:
                if os.fstat(fd).st_size < FRAME_BYTES:
                    return None
                self.map = mmap.mmap(fd, FRAME_BYTES, prot=mmap.PROT_READ)
            finally:
                os.close(fd)
        return self.map[:]

    def close(self):
        if self.map is not None:
            self.map.close()
            self.map = None


def is_lit(frame):
    return frame != BLANK


def equals(picture):
    return lambda frame: frame == picture


class Run:
    """A private bus and one sandbox with the example screens, for several starts."""

    def __init__(self, root):
        self.root = root
        self.bus = PrivateBus(os.path.join(root, "bus"))
        self.daemon = Daemon(os.path.join(root, "root"), self.bus)
        self.daemon.install_example()
        self.panel = None

    def close(self):
        self.stop_daemon()
        self.bus.stop()

    def stop_daemon(self):
        if self.daemon.process is not None and self.daemon.process.poll() is None:
            self.daemon.stop()
        self.daemon.kill()
        if self.panel is not None:
            self.panel.close()
            self.panel = None

    def black_panel(self):
        """A new, black panel for the next start: fakefb-run makes the file anew."""
        if os.path.exists(self.daemon.panel):
            os.unlink(self.daemon.panel)
        return Panel(self.daemon.panel)

    @staticmethod
    def await_picture(panel, process, start, done, who):
        """Polls the panel until done(frame); returns the milliseconds since start."""
        while True:
            frame = panel.frame()
            if frame is not None and done(frame):
                return (time.perf_counter() - start) * 1e3
            if process.poll() is not None:
                raise RuntimeError(f"{who} exited before its picture was complete")
            if time.perf_counter() - start > TIMEOUT_S:
                raise RuntimeError(f"{who} did not show the expected picture in {TIMEOUT_S} s")
            time.sleep(POLL_S)

    def gated(self, command, **popen_args):
        """Starts `command` in the daemon's sandbox and on its simulated panel, held
        just before its launcher's exec until released. Setting up the sandbox
        (namespace, mounts) is not part of either program's start-up, so the
        clock runs from the release. Returns the process and its release."""
        ready_read, ready_write = os.pipe()
        gate = ["/bin/sh", "-c", f'echo ready >&{ready_write}; exec {ready_write}>&-; '
                'read -r _; exec "$@"', "sh"]
        launch = self.daemon.command([])[:-1]  # sandbox ... -- fakefb-run ... --
        at = launch.index("--") + 1
        process = subprocess.Popen(launch[:at] + gate + launch[at:] + command,
                                   stdin=subprocess.PIPE, pass_fds=(ready_write,), **popen_args)
        os.close(ready_write)
        with os.fdopen(ready_read) as ready:
            if ready.readline().strip() != "ready":
                process.kill()
                raise RuntimeError("the sandbox did not come up")

        def release():
            start = time.perf_counter()
            process.stdin.write(b"go\n")
            process.stdin.close()
            process.stdin = None  # nothing more to send
            return start
        return process, release

    def start_daemon(self, screen="logo", done=is_lit):
        """Starts the daemon on `screen`; returns the milliseconds from exec until
        done(panel) holds (by default: any pixel is lit), once it answers calls."""
        self.panel = self.black_panel()
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus.address)
        self.daemon.process, release = self.gated(
            [program("dravik_lcm_gui"), "-s", screen], env=env,
            stdout=open(self.daemon.stdout_path, "w"), stderr=open(self.daemon.stderr_path, "w"))
        start = release()
        try:
            elapsed = self.await_picture(self.panel, self.daemon.process, start, done,
                                         "the daemon")
        except RuntimeError as e:
            raise RuntimeError(f"{e}:\n{self.daemon.log()}") from None
        if not self.daemon.answers() or self.daemon.process.poll() is not None:
            raise RuntimeError("the daemon does not answer:\n" + self.daemon.log())
        return elapsed

    def bare_libpng(self, done=is_lit):
        """Runs the bare libpng program on a black panel, held once its picture is
        written. Returns its milliseconds from exec until done(panel), its VmRSS
        in kB, the shared objects it maps and the picture it wrote."""
        panel = self.black_panel()
        process, release = self.gated(
            [program("dravik_bench_bare_libpng"), "--hold", self.daemon.panel_device,
             STARTUP_PICTURE], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            start = release()
            elapsed = self.await_picture(panel, process, start, done, "the bare libpng program")
            if not process.stdout.readline().startswith(b"wrote "):  # printed once it is done
                raise RuntimeError("the bare libpng program did not write its picture")
            time.sleep(SETTLE_S)
            kb, objects, picture = resident_kb(process.pid), shared_objects(process.pid), \
                panel.frame()
            process.terminate()
            _, err = process.communicate(timeout=10)
            if process.returncode != 0:
                raise RuntimeError("the bare libpng program failed: " +
                                   err.decode(errors="replace"))
        finally:
            if process.poll() is None:
                process.kill()
                process.wait()
            panel.close()
        return elapsed, kb, objects, picture

    def request_picture(self, show_gui, gui_id, done):
        """Sends ShowGui(gui_id) and waits until done(panel); returns the
        milliseconds from the call until its reply and until the picture."""
        start = time.perf_counter()
        reply = show_gui(dbus.Dictionary({"guiId": gui_id}, signature="sv"), timeout=10)
        replied = (time.perf_counter() - start) * 1e3
        if int(reply["statusCode"]) != 0:
            raise RuntimeError(f"ShowGui {gui_id}: statusCode {int(reply['statusCode'])}")
        return replied, self.await_picture(self.panel, self.daemon.process, start, done,
                                           "the daemon")


class SharedObjects:
    """The largest counts of shared objects seen in each program, and whether the
    daemon ever mapped the image library's codecs."""

    def __init__(self):
        self.daemon = 0
        self.bare = 0
        self.codecs = False

    def note_daemon(self, pid):
        paths = shared_objects(pid)
        self.daemon = max(self.daemon, len(paths))
        self.codecs = self.codecs or maps_image_codecs(paths)

    def line(self):
        return (f"shared objects mapped: daemon {self.daemon}, bare libpng program "
                f"{self.bare} (both count the simulator's libfakefb.so); daemon maps "
                f"libopencv_imgcodecs: {'yes' if self.codecs else 'no'}")


def start_up_and_memory(run, repeats, objects):
    """The daemon started on the "logo" screen and the bare program with the same
    picture, one after the other in every repeat. Both are timed until the panel
    holds the picture the bare program wrote in an untimed first run, so the
    daemon's figure also shows that it drew the same pixels."""
    _, _, _, picture = run.bare_libpng()
    run.start_daemon("logo", equals(picture))  # untimed too: both sides' files are read once
    run.stop_daemon()
    daemon_ms, daemon_kb, bare_ms, bare_kb = [], [], [], []
    for _ in range(repeats):
        ms, kb, paths, _ = run.bare_libpng(equals(picture))
        bare_ms.append(ms)
        bare_kb.append(kb)
        objects.bare = max(objects.bare, len(paths))
        daemon_ms.append(run.start_daemon("logo", equals(picture)))
        time.sleep(SETTLE_S)
        daemon_kb.append(resident_kb(run.daemon.process.pid))
        objects.note_daemon(run.daemon.process.pid)
        run.stop_daemon()
    d_ms, b_ms = statistics.median(daemon_ms), statistics.median(bare_ms)
    d_kb, b_kb = statistics.median(daemon_kb), statistics.median(bare_kb)
    return picture, [
        ("startup_png", f"daemon exec to start-up screen {d_ms:.1f} ms",
         f"bare libpng {b_ms:.1f} ms + {FIRST_WAIT_MS:.0f} ms wait",
         d_ms / (b_ms + FIRST_WAIT_MS)),
        ("rss_png", f"daemon VmRSS, start-up screen shown {d_kb / 1024:.1f} MiB",
         f"bare libpng VmRSS {b_kb / 1024:.1f} MiB", d_kb / b_kb),
    ]


def first_image(run, repeats, picture, objects):
    """A daemon started on the text-only "hello" screen is asked for "logo" (the
    first image it decodes), then "hello", then "logo" again; each "logo" is timed
    from the call until the panel holds its picture. A new daemon per repeat."""
    first_ms, later_ms, after_reply = [], [], []
    for _ in range(repeats):
        run.start_daemon("hello")
        time.sleep(SETTLE_S)  # idle in its main loop, as a device waits for requests
        show_gui = run.daemon.method("ShowGui")
        replied, ms = run.request_picture(show_gui, "logo", equals(picture))
        first_ms.append(ms)
        after_reply.append(ms - replied)
        run.request_picture(show_gui, "hello", lambda f: is_lit(f) and f != picture)
        time.sleep(SETTLE_S)
        later_ms.append(run.request_picture(show_gui, "logo", equals(picture))[1])
        objects.note_daemon(run.daemon.process.pid)
        run.stop_daemon()
    first, later = statistics.median(first_ms), statistics.median(later_ms)
    return [("first_image",
             f"first image request to pixels {first:.2f} ms "
             f"({statistics.median(after_reply):.2f} after reply)",
             f"later request to pixels {later:.2f} ms", first / later)]


def idle_cpu(run, repeats, seconds):
    """The daemon on a still screen and the bare poll loop, sampled over the same window."""
    ratios, daemon_pct, bare_pct = [], [], []
    run.start_daemon()
    bare = subprocess.Popen([program("dravik_bench_idle_poll")])
    try:
        time.sleep(1.0)  # past start-up and the first ticks
        for _ in range(repeats):
            d0, b0, t0 = cpu_ns(run.daemon.process.pid), cpu_ns(bare.pid), time.monotonic()
            time.sleep(seconds)
            d1, b1, t1 = cpu_ns(run.daemon.process.pid), cpu_ns(bare.pid), time.monotonic()
            if run.daemon.process.poll() is not None:
                raise RuntimeError("the daemon exited:\n" + run.daemon.log())
            wall_ns = (t1 - t0) * 1e9
            daemon_pct.append(100.0 * (d1 - d0) / wall_ns)
            bare_pct.append(100.0 * (b1 - b0) / wall_ns)
            ratios.append((d1 - d0) / (b1 - b0))
    finally:
        bare.kill()
        bare.wait()
        run.stop_daemon()
    return [("idle_cpu", f"daemon {statistics.median(daemon_pct):.3f} % of a core",
             f"bare poll loop {statistics.median(bare_pct):.3f} % of a core",
             statistics.median(ratios))]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--bin-dir", help="directory of the built programs")
    parser.add_argument("--repeats", type=int, default=5, help="repeats of every measurement")
    parser.add_argument("--min-time", type=float, default=0.2,
                        help="seconds per engine benchmark repetition")
    parser.add_argument("--idle-seconds", type=float, default=20.0,
                        help="length of one idle CPU sample")
    args = parser.parse_args()
    if args.bin_dir:
        os.environ["DRAVIK_BIN_DIR"] = os.path.abspath(args.bin_dir)

    rows = engine_ratios(args.repeats, args.min_time)
    with tempfile.TemporaryDirectory(prefix="dravik_bench_") as root:
        run = Run(root)
        try:
            objects = SharedObjects()
            picture, startup_rows = start_up_and_memory(run, args.repeats, objects)
            rows += startup_rows
            rows += first_image(run, args.repeats, picture, objects)
            rows += idle_cpu(run, args.repeats, args.idle_seconds)
        finally:
            run.close()
        rows += drm.ratios(root, args.repeats)

    load = os.getloadavg()
    print(f"medians of {args.repeats} repeats; load average {load[0]:.1f} {load[1]:.1f} "
          f"{load[2]:.1f}")
    print(f"{'ratio':<12} {'measured':<56} {'against':<40} {'value':>7}")
    for name, measured, floor, value in rows:
        print(f"{name:<12} {measured:<56} {floor:<40} {value:>7.2f}")
    for name, _, _, value in rows:
        print(f"ratio {name} {value:.2f}")
    print(objects.line())
    return 0


if __name__ == "__main__":
    sys.exit(main())
