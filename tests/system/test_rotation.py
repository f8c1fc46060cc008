"""A panel mounted turned: "rotation" in the screens file (or a DRM connector's
panel orientation) turns the picture on the panel, and the screen takes the
turned size."""
import json
import os
import time

import dbus
import pytest

from daemon import HEIGHT, WIDTH, Daemon, settled

TURNS = [90, 180, 270]


def turned(frame, width, height, degrees, bytes_per_pixel=2):
    """`frame` (width x height pixels) turned clockwise by `degrees`."""
    px = [[frame[(y * width + x) * bytes_per_pixel:(y * width + x + 1) * bytes_per_pixel]
           for x in range(width)] for y in range(height)]
    for _ in range(degrees // 90):
        px = [[px[len(px) - 1 - c][r] for c in range(len(px))] for r in range(len(px[0]))]
    return b"".join(b"".join(row) for row in px)


def install(daemon, rotation=None, name="dravik_lcm_gui.json"):
    daemon.set_sysid(0x1A2)
    daemon.make_images()
    config = daemon.example_config()
    if rotation is not None:
        config["rotation"] = rotation
    daemon.write(os.path.join(daemon.etc_gui, name), json.dumps(config))


def picture(daemon, screen):
    daemon.start()
    assert daemon.call("ShowGui", {"guiId": screen})["statusCode"] == 0
    frame = settled(daemon)
    assert daemon.stop() == 0
    return frame


@pytest.mark.parametrize("degrees", TURNS)
def test_a_turned_panel_shows_the_screen_turned(daemon, degrees):
    install(daemon)
    upright = {s: picture(daemon, s) for s in ("logo", "hello")}
    install(daemon, degrees)
    for screen, frame in upright.items():
        assert any(frame)
        assert picture(daemon, screen) == turned(frame, WIDTH, HEIGHT, degrees), screen
    assert f"Screen: 240x240, the panel turned {degrees} degrees" in daemon.log()


def test_rotation_0_is_the_unturned_panel(daemon):
    install(daemon)
    unturned = picture(daemon, "logo")
    install(daemon, 0)
    assert picture(daemon, "logo") == unturned
    assert "the panel turned" not in daemon.log()


def test_a_portrait_panel_turned_a_quarter_is_a_landscape_screen(daemon):
    daemon.size = (240, 320)
    text = {"text": dbus.Dictionary({"str": "wide", "size": dbus.Int32(16), "x": dbus.Int32(280),
                                     "y": dbus.Int32(10)}, signature="sv")}
    install(daemon)
    daemon.start()
    daemon.call("ShowSimpleScreen", text)
    assert daemon.stop() == 0
    assert "Text pos (280, 10) is out of screen 240x320" in daemon.log()
    install(daemon, 90)
    daemon.start()
    assert daemon.call("ShowSimpleScreen", text)["statusCode"] == 0
    assert daemon.stop() == 0
    assert "Screen: 320x240, the panel turned 90 degrees" in daemon.log()
    assert "out of screen" not in daemon.log()
    assert any(daemon.panel_bytes())


def test_a_wrong_rotation_leaves_the_panel_unturned_and_says_so(daemon):
    install(daemon)
    unturned = picture(daemon, "logo")
    install(daemon, 45)
    assert picture(daemon, "logo") == unturned
    assert "Wrong 'rotation' 45: 0, 90, 180 or 270 expected; the panel is not turned" in \
        daemon.log()


def test_a_turned_drm_panel_flushes_the_turned_rectangle(daemon):
    # A 240x320 panel turned a quarter: the 320x240 screen's spinner, 48x48 in
    # the middle at (136, 96), lands at (96, 136) of the panel.
    daemon.size = (240, 320)
    daemon.use_drm()
    install(daemon, 90)
    daemon.start()
    assert daemon.call("ShowGui", {"guiId": "spinner"})["statusCode"] == 0
    time.sleep(1.0)
    ticks = {tuple(r[2:]) for r in daemon.damage() if r[0] == "dirty"}
    assert ticks == {("0,0,240,320",), ("96,136,144,184",)}, ticks


@pytest.mark.parametrize("orientation,degrees", [
    ("normal", 0), ("upside_down", 180), ("left_up", 270), ("right_up", 90)])
def test_a_drm_panel_orientation_turns_the_screen_without_the_key(daemon, orientation,
                                                                   degrees):
    daemon.use_drm("--orientation", orientation)
    install(daemon)
    daemon.start()
    assert daemon.stop() == 0
    if degrees:
        assert f"the panel turned {degrees} degrees" in daemon.log()
    else:
        assert "the panel turned" not in daemon.log()


def test_the_key_wins_over_the_panel_orientation(daemon):
    daemon.use_drm("--orientation", "upside_down")
    install(daemon, 90)
    daemon.start()
    assert daemon.stop() == 0
    assert "the panel turned 90 degrees" in daemon.log()
