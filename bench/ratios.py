#!/usr/bin/python3
"""The daemon's costs, each as a ratio to the plain operation it is compared with.

Every pair is measured side by side in one run, so that both sides share the
machine's load, and repeated; the figures are medians of the repeats.

  conv15, conv16,    showBuf() of a whole 240x240 screen at that depth, against
  conv24, conv32     memcpy of the same output bytes line by line
  dither8            the 8-bit conversion (dither) of the same screen, against
                     memcpy of its output bytes
  breathing          one service() tick of a breathing 120x120 picture, against
                     one saturating add (cv::add) of the same picture
  idle_cpu           CPU time of the daemon on a still screen, against a bare
                     loop of poll(NULL, 0, 30) running at the same time
  startup            the daemon's exec-to-first-pixels time less the main
                     loop's first 30 ms wait, against exec-to-exit of a bare
                     program that loads the same OpenCV modules and decodes
                     one PNG; both start from the same launcher in the same
                     sandbox, timed from the launcher's exec
  memory             the daemon's peak resident size against that program's

The engine's ratios come from dravik_lcm_gui_bench (Google Benchmark, random
interleaving of the repetitions); the others start the programs the way the
system tests do (private dbus-daemon, simulated 16-bit panel, private mount
namespace holding the example screens). Prints a table, then one line
"ratio NAME VALUE" per ratio.
"""
import argparse
import json
import mmap
import os
import statistics
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True  # leave no __pycache__ in the source tree
SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "system"))

from daemon import HEIGHT, WIDTH, Daemon, PrivateBus, bin_dir  # noqa: E402

# The main loop waits up to 30 ms for the bus before its first display tick,
# which draws the start-up screen.
FIRST_WAIT_MS = 30.0

# (ratio name, measured case, floor case) of dravik_lcm_gui_bench.
ENGINE_PAIRS = [
    ("conv15", "BM_ShowBuf_FullScreen/bpp:15", "BM_Memcpy_FullScreen/bytes:2"),
    ("conv16", "BM_ShowBuf_FullScreen/bpp:16", "BM_Memcpy_FullScreen/bytes:2"),
    ("conv24", "BM_ShowBuf_FullScreen/bpp:24", "BM_Memcpy_FullScreen/bytes:3"),
    ("conv32", "BM_ShowBuf_FullScreen/bpp:32", "BM_Memcpy_FullScreen/bytes:4"),
    ("dither8", "BM_ConvertLine8_FullScreen", "BM_Memcpy_FullScreen/bytes:1"),
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


def peak_resident_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    raise RuntimeError(f"no VmHWM for process {pid}")


class Run:
    """A private bus and one sandbox with the example screens, for several starts."""

    def __init__(self, root):
        self.root = root
        self.bus = PrivateBus(os.path.join(root, "bus"))
        self.daemon = Daemon(os.path.join(root, "root"), self.bus)
        self.daemon.install_example()

    def close(self):
        self.stop_daemon()
        self.bus.stop()

    def stop_daemon(self):
        if self.daemon.process is not None and self.daemon.process.poll() is None:
            self.daemon.stop()
        self.daemon.kill()

    def panel_is_lit(self):
        """Whether any byte of the simulated panel is non-zero yet."""
        try:
            fd = os.open(self.daemon.panel, os.O_RDONLY)
        except FileNotFoundError:
            return False
        try:
            size = WIDTH * HEIGHT * 2
            if os.fstat(fd).st_size < size:
                return False
            with mmap.mmap(fd, size, prot=mmap.PROT_READ) as m:
                return m[:].count(0) != size
        finally:
            os.close(fd)

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

    def start_daemon(self):
        """Starts the daemon on the still "logo" screen; returns exec-to-first-pixels in ms."""
        if os.path.exists(self.daemon.panel):
            os.unlink(self.daemon.panel)
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.bus.address)
        self.daemon.process, release = self.gated(
            [program("dravik_lcm_gui"), "-s", "logo"], env=env,
            stdout=open(self.daemon.stdout_path, "w"), stderr=open(self.daemon.stderr_path, "w"))
        start = release()
        while not self.panel_is_lit():
            if self.daemon.process.poll() is not None:
                raise RuntimeError("the daemon exited:\n" + self.daemon.log())
            if time.perf_counter() - start > 20:
                raise RuntimeError("the start-up screen did not appear:\n" + self.daemon.log())
            time.sleep(0.0005)
        elapsed = (time.perf_counter() - start) * 1e3
        if not self.daemon.answers() or self.daemon.process.poll() is not None:
            raise RuntimeError("the daemon does not answer:\n" + self.daemon.log())
        return elapsed

    def bare_opencv(self):
        """Exec-to-exit time in ms and peak resident kB of the bare OpenCV program."""
        process, release = self.gated(
            [program("dravik_bench_bare_opencv"), "/etc/gui/images/logo.png"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        start = release()
        out, err = process.communicate(timeout=60)
        elapsed = (time.perf_counter() - start) * 1e3
        if process.returncode != 0:
            raise RuntimeError("bare OpenCV program failed: " + err.decode(errors="replace"))
        kb = [int(line.split()[1]) for line in out.decode().splitlines()
              if line.startswith("VmHWM")]
        return elapsed, kb[0]


def start_up_and_memory(run, repeats):
    daemon_ms, daemon_kb, bare_ms, bare_kb = [], [], [], []
    for _ in range(repeats):
        ms, kb = run.bare_opencv()
        bare_ms.append(ms)
        bare_kb.append(kb)
        daemon_ms.append(run.start_daemon())
        time.sleep(0.5)  # a still screen: nothing more is drawn or allocated
        daemon_kb.append(peak_resident_kb(run.daemon.process.pid))
        run.stop_daemon()
    d_ms, b_ms = statistics.median(daemon_ms), statistics.median(bare_ms)
    d_kb, b_kb = statistics.median(daemon_kb), statistics.median(bare_kb)
    return [
        ("startup", f"daemon to first pixels {d_ms:.1f} ms (less {FIRST_WAIT_MS:.0f} ms wait)",
         f"bare OpenCV exec to exit {b_ms:.1f} ms", (d_ms - FIRST_WAIT_MS) / b_ms),
        ("memory", f"daemon peak RSS {d_kb / 1024:.1f} MiB",
         f"bare OpenCV peak RSS {b_kb / 1024:.1f} MiB", d_kb / b_kb),
    ]


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
            rows += start_up_and_memory(run, args.repeats)
            rows += idle_cpu(run, args.repeats, args.idle_seconds)
        finally:
            run.close()

    load = os.getloadavg()
    print(f"medians of {args.repeats} repeats; load average {load[0]:.1f} {load[1]:.1f} "
          f"{load[2]:.1f}")
    print(f"{'ratio':<10} {'measured':<48} {'against':<40} {'value':>7}")
    for name, measured, floor, value in rows:
        print(f"{name:<10} {measured:<48} {floor:<40} {value:>7.2f}")
    for name, _, _, value in rows:
        print(f"ratio {name} {value:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
