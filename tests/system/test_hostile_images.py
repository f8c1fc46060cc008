"""Hostile image names and image files: paths that climb out of the image
directories, decompression bombs, and the largest pictures a screen may use."""
import os
import time

import dbus
import pytest

from daemon import HEIGHT, WIDTH, is_daemon_process, status_kb, wait_for
from pngs import solid_png

PREFIX_LINES = ("Image path should start with next prefixes:", "\t\t/usr/etc/gui/", "\t\t/etc/gui/")
# The largest picture any screen may use: 100 slides of the panel's size.
BOUND = 100 * WIDTH * HEIGHT


@pytest.fixture(scope="session")
def bomb(tmp_path_factory):
    """A 20000 x 20000 black PNG of about 1 MB: 1.2 GB once decoded."""
    path = tmp_path_factory.mktemp("bomb") / "bomb.png"
    solid_png(path, 20000, 20000, (0, 0, 0))
    return path


def daemon_pid(daemon):
    """The daemon's process: the launchers exec one another down to it."""
    pid = daemon.process.pid
    assert is_daemon_process(pid)
    return pid


def image_screen(name, **img):
    record = {"file": name}
    record.update(img)
    return {"img": dbus.Dictionary(record, signature="sv")}


def started(daemon):
    daemon.install_example()
    return daemon.start()


def test_image_name_that_climbs_out_is_refused_by_prefix_without_reading(daemon, tmp_path):
    # A real, decodable picture outside the image directories, reachable by "..".
    outside = "/tmp/dravik-escape-%d.png" % os.getpid()
    solid_png(outside, 20, 20)
    try:
        started(daemon)
        name = "../../../.." + outside
        reply = daemon.call("ShowSimpleScreen", image_screen(name))
        assert reply["statusCode"] == 0  # the screen is set; its image is left out
        assert wait_for(lambda: PREFIX_LINES[0] in daemon.log()), daemon.log()
        log = daemon.log()
        assert all("loadImage: " + line + "\n" in log for line in PREFIX_LINES), log
        assert "not found" not in log and "Failed to read UI image" not in log
        time.sleep(0.1)
        assert daemon.lit_pixels() == 0
    finally:
        os.unlink(outside)


def test_dot_dot_that_stays_inside_still_finds_the_image(daemon):
    started(daemon)
    reply = daemon.call("ShowSimpleScreen", image_screen("../images/./nowhere/../logo.png"))
    assert reply["statusCode"] == 0
    assert wait_for(lambda: daemon.lit_pixels() > 1000), daemon.log()


@pytest.mark.slow
def test_bomb_is_refused_before_decoding_and_the_bus_keeps_answering(daemon, bomb):
    started(daemon)
    # Placed by a link, which the daemon follows inside its image directories.
    os.symlink(bomb, os.path.join(daemon.etc_gui, "images", "bomb.png"))
    # The codecs are loaded by the first picture; measure from there.
    daemon.call("ShowGui", {"guiId": "logo"})
    assert wait_for(lambda: daemon.lit_pixels() > 1000)
    pid = daemon_pid(daemon)
    peak_before = status_kb(pid, "VmHWM")

    # The picture is read on the display tick that follows the answer; a call
    # made a moment later arrives while the daemon is at it.
    daemon.call("ShowSimpleScreen", image_screen("bomb.png"))
    time.sleep(0.05)
    start = time.monotonic()
    reply = daemon.call("ShowGui", {"guiId": "logo"}, timeout=30)
    latency = time.monotonic() - start
    peak_after = status_kb(pid, "VmHWM")
    print(f"bomb: call answered after {latency * 1000:.1f} ms; "
          f"peak memory {peak_before} kB -> {peak_after} kB (+{peak_after - peak_before} kB)")

    assert reply["statusCode"] == 0
    assert "Failed to read UI image from /etc/gui/images/bomb.png" in daemon.log()
    assert peak_after - peak_before < 10 * 1024, "the bomb cost more than 10 MB"
    # Decoding the bomb takes seconds and 1.2 GB; refusing it from its header
    # takes about a millisecond. A second is a bound that a busy machine meets.
    assert latency < 1.0


@pytest.mark.slow
def test_the_largest_legal_pictures_still_load(daemon):
    started(daemon)
    images = os.path.join(daemon.etc_gui, "images")
    # 100 panel-wide slides side by side: exactly the bound.
    solid_png(os.path.join(images, "strip.png"), 100 * WIDTH, HEIGHT, (0, 255, 0))
    # A progress bar of two panel heights and an odd last row.
    solid_png(os.path.join(images, "bar.png"), WIDTH, 2 * HEIGHT + 1, (0, 0, 255))
    # One column more than the bound: refused before decoding.
    solid_png(os.path.join(images, "over.png"), 100 * WIDTH + 1, HEIGHT, (255, 0, 0))

    reply = daemon.call("ShowSimpleScreen", image_screen(
        "strip.png", animation="slideshow", count=dbus.UInt16(100), duration=dbus.UInt32(10000)))
    assert reply["statusCode"] == 0
    assert wait_for(lambda: daemon.pixel(WIDTH // 2, HEIGHT // 2) == (0, 252, 0)), daemon.log()

    reply = daemon.call("ShowSimpleScreen", image_screen(
        "bar.png", animation="progressbar", duration=dbus.UInt32(100000)))
    assert reply["statusCode"] == 0
    assert wait_for(lambda: daemon.pixel(WIDTH // 2, HEIGHT // 2) == (0, 0, 248)), daemon.log()

    reply = daemon.call("ShowSimpleScreen", image_screen(
        "over.png", animation="slideshow", count=dbus.UInt16(100), duration=dbus.UInt32(10000)))
    assert reply["statusCode"] == 0
    assert wait_for(lambda: "Failed to read UI image from /etc/gui/images/over.png" in daemon.log())
    assert wait_for(lambda: daemon.lit_pixels() == 0)
    log = daemon.log()
    for name in ("strip.png", "bar.png"):
        assert "Failed to read UI image from /etc/gui/images/" + name not in log


@pytest.mark.parametrize("kind", ["fifo", "directory", "device", "socket"])
def test_an_image_that_is_not_a_regular_file_is_refused_without_holding_the_daemon(
        daemon, tmp_path, kind):
    # A FIFO named like an image would hold a reader until some writer came:
    # the daemon refuses it at once, and other clients are answered as usual.
    started(daemon)
    special = os.path.join(daemon.etc_gui, "images", "special.png")
    listener = None
    if kind == "fifo":
        os.mkfifo(special)
    elif kind == "directory":
        os.mkdir(special)
    elif kind == "device":
        os.symlink("/dev/zero", special)
    else:
        import socket
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(special)
    try:
        reply = daemon.call("ShowSimpleScreen", image_screen("special.png"))
        assert reply["statusCode"] == 0
        line = "Failed to read UI image from /etc/gui/images/special.png"
        assert wait_for(lambda: line in daemon.log(), timeout=5), daemon.log()
        asked = time.monotonic()
        assert daemon.call("ShowGui", {"guiId": "hello"}, timeout=1)["statusCode"] == 0
        assert time.monotonic() - asked < 1
    finally:
        if listener is not None:
            listener.close()
