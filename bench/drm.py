"""The DRM output's figures for bench/ratios.py, on the simulated devices.

  drm_tick_bytes     bytes flushed to the panel per animation tick of the
                     example spinner on a 240x240 16-bit DRM panel (the damage
                     clips the simulator recorded), against a whole frame
  drm_pixels_p50,    request to pixels on the DRM path (the simulated DRM
  drm_pixels_p99     device, which shows what the damage clips flush), against
                     the framebuffer path; both daemons run at once, each on its
                     own bus, and the requests alternate between them
"""
import mmap
import os
import statistics
import time

from daemon import HEIGHT, WIDTH, Daemon, PrivateBus

FRAME_BYTES = WIDTH * HEIGHT * 2
POLL_S = 0.0002
TIMEOUT_S = 20.0
SETTLE_S = 0.3
# The two still screens that the latency requests switch between.
SCREENS = ("logo", "hello")


class Side:
    """One daemon (framebuffer or DRM) on its own bus and panel."""

    def __init__(self, root, name, drm):
        self.bus = PrivateBus(os.path.join(root, name + "-bus"))
        self.daemon = Daemon(os.path.join(root, name), self.bus)
        if drm:
            self.daemon.use_drm()
        self.daemon.install_example()
        self.map = None
        self.show_gui = None

    def start(self):
        self.daemon.start()
        self.show_gui = self.daemon.method("ShowGui")

    def frame(self):
        if self.map is None:
            fd = os.open(self.daemon.panel, os.O_RDONLY)
            try:
                self.map = mmap.mmap(fd, FRAME_BYTES, prot=mmap.PROT_READ)
            finally:
                os.close(fd)
        return self.map[:]

    def request(self, screen, picture=None):
        """Shows `screen`; returns the milliseconds from the call until the panel
        holds `picture` (or, without one, until it has settled, and the picture)."""
        start = time.perf_counter()
        reply = self.show_gui({"guiId": screen}, timeout=10)
        if int(reply["statusCode"]) != 0:
            raise RuntimeError(f"ShowGui {screen}: statusCode {int(reply['statusCode'])}")
        if picture is None:
            time.sleep(SETTLE_S)
            return None, self.frame()
        while self.frame() != picture:
            if time.perf_counter() - start > TIMEOUT_S:
                raise RuntimeError(f"{screen} did not reach the panel:\n" + self.daemon.log())
            time.sleep(POLL_S)
        return (time.perf_counter() - start) * 1e3, picture

    def close(self):
        if self.map is not None:
            self.map.close()
        if self.daemon.process is not None and self.daemon.process.poll() is None:
            self.daemon.stop()
        self.daemon.kill()
        self.bus.stop()


def tick_bytes(root):
    """Bytes per spinner tick and per frame, from the simulator's damage record."""
    side = Side(root, "drm-spinner", drm=True)
    try:
        side.start()
        side.request("spinner")
        time.sleep(1.0)
        records = side.daemon.damage()
    finally:
        side.close()
    sizes = []
    for record in records:
        if record[0] != "dirty":
            continue
        pixels = 0
        for word in record[2:]:
            x1, y1, x2, y2 = (int(n) for n in word.split(","))
            pixels += (x2 - x1) * (y2 - y1)
        sizes.append(pixels * 2)
    ticks = [s for s in sizes if s < FRAME_BYTES]
    if len(ticks) < 5:
        raise RuntimeError(f"the spinner flushed {len(ticks)} ticks: {records}")
    return statistics.median(ticks)


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(share * (len(ordered) - 1))))]


def request_to_pixels(root, requests):
    """(fb p50, fb p99, drm p50, drm p99) in milliseconds."""
    sides = {"fb": Side(root, "fb", drm=False), "drm": Side(root, "drm", drm=True)}
    try:
        pictures = {}
        for name, side in sides.items():
            side.start()
            pictures[name] = {s: side.request(s)[1] for s in SCREENS}
        if pictures["fb"] != pictures["drm"]:
            raise RuntimeError("the two panels do not show the same pictures")
        times = {"fb": [], "drm": []}
        for i in range(requests):
            screen = SCREENS[i % 2]
            for name in (("fb", "drm") if i % 4 < 2 else ("drm", "fb")):
                times[name].append(sides[name].request(screen, pictures[name][screen])[0])
    finally:
        for side in sides.values():
            side.close()
    return [f(times[n]) for n in ("fb", "drm")
            for f in (statistics.median, lambda v: percentile(v, 0.99))]


def ratios(root, repeats):
    """The rows of bench/ratios.py: (name, measured, against, value)."""
    tick = tick_bytes(root)
    fb50, fb99, drm50, drm99 = request_to_pixels(root, 100 * repeats)
    return [
        ("drm_tick_bytes", f"spinner tick flushes {tick:.0f} bytes",
         f"a whole frame {FRAME_BYTES} bytes", tick / FRAME_BYTES),
        ("drm_pixels_p50", f"DRM request to pixels p50 {drm50:.2f} ms",
         f"framebuffer p50 {fb50:.2f} ms", drm50 / fb50),
        ("drm_pixels_p99", f"DRM request to pixels p99 {drm99:.2f} ms",
         f"framebuffer p99 {fb99:.2f} ms", drm99 / fb99),
    ]
