"""The preview tool draws each example screen exactly as the daemon shows it on
the simulated panel, pixel for pixel, at 16 and 32 bits per pixel."""
import os
import subprocess
import time

import pytest

from daemon import WIDTH, HEIGHT, program
from pngs import read_png

# Each example screen, a time (ms after it was set) inside a plateau of its
# animation, so that the picture does not depend on when the daemon's tick
# falls, and the animation's period (0: the picture then stays): the spinner's
# fourth slide (300..399 ms of 800), the heart's brightest level (99, held from
# about 437 to 563 ms of 2000), the full progress bar (from 10000 ms on).
SCREENS = [("hello", 0, 0), ("logo", 0, 0), ("boot", 0, 0),
           ("spinner", 350, 800), ("standby", 500, 2000), ("update", 10000, 0)]
# How long a still picture is waited for before the panel is compared as it is.
STILL_WAIT_S = 10


def expected_panel_bytes(rgb, bpp):
    """The panel memory whose picture is `rgb` (8-bit channels as the simulated
    panel's snapshot scales them): every value must be one that the panel's
    channel lengths can give, or there is no such memory."""
    def levels(bits):
        top = (1 << bits) - 1
        return {(v * 255 + top // 2) // top: v for v in range(top + 1)}
    out = bytearray()
    if bpp == 32:
        for i in range(0, len(rgb), 3):
            out += bytes((rgb[i + 2], rgb[i + 1], rgb[i], 0))
        return bytes(out)
    five, six = levels(5), levels(6)
    for i in range(0, len(rgb), 3):
        r, g, b = rgb[i], rgb[i + 1], rgb[i + 2]
        assert r in five and g in six and b in five, f"({r}, {g}, {b}) is no RGB565 colour"
        word = (five[r] << 11) | (six[g] << 5) | five[b]
        out += word.to_bytes(2, "little")
    return bytes(out)


def preview(tmp_path, config, bpp, name, at):
    """The preview tool's picture of one screen, as (path, RGB bytes)."""
    root = tmp_path / "preview-root"
    out = tmp_path / f"preview-{bpp}"
    result = subprocess.run(program("dravik_lcm_gui_preview") + [
        "--panel", f"{WIDTH}x{HEIGHT}x{bpp}", "--root", str(root), "--screen", name,
        "--at", str(at), "--out", str(out), config], capture_output=True, text=True)
    assert result.returncode == 0, result.stderr
    path = out / f"{name}@{at}.png"
    width, height, channels, pixels = read_png(path)
    assert (width, height, channels) == (WIDTH, HEIGHT, 3)
    return path, pixels


def snapshot(daemon, memory, directory, name):
    """The simulator's PNG of a copy of the panel's memory."""
    frame = os.path.join(directory, f"{name}.raw")
    with open(frame, "wb") as f:
        f.write(memory)
    png = os.path.join(directory, f"{name}-panel.png")
    subprocess.run(program("fakefb-snapshot") + ["--geometry", daemon.panel + ".geom",
                                                  frame, png], check=True)
    width, height, channels, pixels = read_png(png)
    assert (width, height, channels) == (WIDTH, HEIGHT, 3)
    return png, pixels


def differing_pixels(a, b):
    return sum(1 for i in range(0, len(a), 3) if a[i:i + 3] != b[i:i + 3])


@pytest.mark.slow
@pytest.mark.parametrize("bpp", [16, 32])
def test_preview_equals_the_daemon_on_the_simulated_panel(daemon, tmp_path, bpp):
    daemon.bpp = bpp
    config = daemon.install_example()
    (tmp_path / "preview-root" / "etc").mkdir(parents=True)
    os.symlink(daemon.etc_gui, tmp_path / "preview-root" / "etc" / "gui")
    daemon.start()
    for name, at, period in SCREENS:
        preview_png, expected = preview(tmp_path, config, bpp, name, at)
        wanted = expected_panel_bytes(expected, bpp)
        start = time.monotonic()
        reply = daemon.call("ShowGui", {"guiId": name})
        assert reply["payload"]["guiId"] == name
        memory = panel_at(daemon, wanted, start, at, period)
        panel_png, shown = snapshot(daemon, memory, str(tmp_path), f"{name}-{bpp}")
        assert shown == expected, (
            f"{name} at {at} ms, {bpp} bpp: {differing_pixels(shown, expected)} pixels differ "
            f"between the preview {preview_png} and the panel {panel_png}")


def panel_at(daemon, wanted, start, at, period, attempts=3):
    """The panel's memory at `at` ms after `start`, the moment the screen was
    asked for; an animation is looked at again a period later when the machine
    was too busy to be on time. A still picture or the end of a progress bar
    stays, so it is waited for."""
    def sleep_until(ms):
        time.sleep(max(0.0, start + ms / 1000 - time.monotonic()))
    if period == 0:
        sleep_until(at)
        # Nothing changes a still picture once drawn, so a busy machine (a
        # sanitized daemon beside other builds) may take its time: the wait
        # ends as soon as the picture is there.
        deadline = time.monotonic() + STILL_WAIT_S
        memory = daemon.panel_bytes()
        while memory != wanted and time.monotonic() < deadline:
            time.sleep(0.005)
            memory = daemon.panel_bytes()
        return memory
    for attempt in range(attempts):
        sleep_until(at + attempt * period)
        memory = daemon.panel_bytes()
        if memory == wanted:
            break
    return memory
