"""The daemon on a DRM device: the simulated panel presents /dev/dri/card0, shows
only what was flushed to it (as virtio-gpu and SPI panels do) and records every
mode set, page flip and damage clip in panel.raw.damage."""
import json
import os
import time

import pytest

from daemon import Daemon, HEIGHT, WIDTH, settled, wait_for

FRAME = (0, 0, WIDTH, HEIGHT)
STATIC_SCREENS = ["hello", "logo", "boot"]


def clips(record):
    """The rectangles (x1, y1, x2, y2) of a "dirty" record."""
    return [tuple(int(n) for n in word.split(",")) for word in record[2:]]


def dirty_records(daemon):
    return [r for r in daemon.damage() if r[0] == "dirty"]


def area(clip):
    x1, y1, x2, y2 = clip
    return (x2 - x1) * (y2 - y1)


def frames_of(daemon, screens):
    """{screen: the panel's bytes once it shows it}."""
    daemon.start()
    frames = {}
    for screen in screens:
        before = daemon.panel_bytes()
        assert daemon.call("ShowGui", {"guiId": screen})["statusCode"] == 0
        frames[screen] = settled(daemon, before)
    assert daemon.stop() == 0, daemon.log()
    return frames


@pytest.fixture
def framebuffer(tmp_path, bus):
    """A second daemon on a framebuffer panel, to compare with."""
    d = Daemon(tmp_path / "fb-root", bus)
    d.install_example()
    yield d
    d.kill()


@pytest.mark.parametrize("bpp", [16, 32])
def test_drm_panel_shows_what_a_framebuffer_of_its_format_shows(daemon, framebuffer, bpp):
    daemon.use_drm(bpp=bpp).install_example()
    framebuffer.bpp = bpp
    drm = frames_of(daemon, STATIC_SCREENS)
    fb = frames_of(framebuffer, STATIC_SCREENS)
    for screen in STATIC_SCREENS:
        assert drm[screen] == fb[screen], screen
        assert any(drm[screen]), f"{screen}: the panel is black"
    assert f"FB: {WIDTH}x{HEIGHT}, bits_per_pixel {bpp}" in daemon.log()
    assert "DRM device /dev/dri/card0: connector Virtual-1" in daemon.log()


def test_start_up_sets_the_mode_with_a_whole_frame(daemon):
    daemon.use_drm().install_example()
    daemon.start()
    records = daemon.damage()
    assert records[0][0] == "setcrtc", records
    assert records[0][-1] == ",".join(str(n) for n in FRAME), records
    # The black frame and then the start-up screen (none here) go out as clips
    # of the whole frame.
    assert clips(dirty_records(daemon)[0]) == [FRAME]


def test_an_animation_tick_flushes_its_image_rectangle_only(daemon):
    daemon.use_drm().install_example()
    daemon.start()
    assert daemon.call("ShowGui", {"guiId": "spinner"})["statusCode"] == 0
    time.sleep(1.0)
    records = dirty_records(daemon)
    full = [i for i, r in enumerate(records) if clips(r) == [FRAME]]
    assert len(full) >= 2, records  # the black start and the spinner's redraw
    after = records[full[-1] + 1:]
    assert len(after) >= 5, "the spinner did not tick:\n" + daemon.log()
    rects = {tuple(clips(r)) for r in after}
    assert len(rects) == 1, rects  # every tick the same rectangle: the image's
    (rect,) = rects.pop()
    assert area(rect) * 20 <= WIDTH * HEIGHT, rect  # at most 5 % of the frame


def install_quick_progress_bar(daemon):
    """The example screens, with a progress bar that fills in 0.5 s."""
    daemon.set_sysid(0x1A2)
    daemon.make_images()
    config = daemon.example_config()
    for screen in config["screens"]:
        if screen["name"] == "update":
            screen["img"]["duration"] = 500
    daemon.write(os.path.join(daemon.etc_gui, "dravik_lcm_gui.json"), json.dumps(config))


@pytest.mark.parametrize("options", [[], ["--vblank"]], ids=["one-buffer", "page-flips"])
def test_a_progress_bar_reaches_the_panel_by_its_rectangles(daemon, framebuffer, options):
    # Only the bar's rectangle is flushed on each step; the panel must end as
    # the framebuffer's, where every step is written in place. With page flips
    # each buffer must also catch up on the steps drawn into the other one.
    daemon.use_drm(*options)
    install_quick_progress_bar(daemon)
    install_quick_progress_bar(framebuffer)
    drm = frames_of(daemon, ["update"])
    fb = frames_of(framebuffer, ["update"])
    assert drm["update"] == fb["update"]
    steps = [r for r in dirty_records(daemon) if clips(r) != [FRAME]]
    assert len(steps) >= 3, daemon.damage()


def test_with_vertical_blanking_frames_are_flipped_between_two_buffers(daemon, framebuffer):
    daemon.use_drm("--vblank").install_example()
    drm = frames_of(daemon, STATIC_SCREENS)
    fb = frames_of(framebuffer, STATIC_SCREENS)
    for screen in STATIC_SCREENS:
        assert drm[screen] == fb[screen], screen
    flips = [r[1] for r in daemon.damage() if r[0] == "flip"]
    assert len(flips) >= 4, daemon.damage()
    assert len(set(flips)) == 2, flips  # two framebuffers, taking turns
    assert all(a != b for a, b in zip(flips, flips[1:])), flips
    assert "page flips" in daemon.log()


def test_a_flip_that_never_completes_does_not_freeze_the_daemon(daemon, framebuffer):
    daemon.use_drm("--vblank", "--flip", "never").install_example()
    daemon.start()
    started = time.monotonic()
    for screen in STATIC_SCREENS:
        assert daemon.call("ShowGui", {"guiId": screen}, timeout=2)["statusCode"] == 0
    assert time.monotonic() - started < 2
    assert wait_for(lambda: "did not complete in time" in daemon.log()), daemon.log()
    assert daemon.log().count("did not complete in time") == 1
    # From then on the daemon draws into the frame on show, and it shows.
    before = settled(daemon, None)
    assert daemon.call("ShowGui", {"guiId": "logo"})["statusCode"] == 0
    shown = settled(daemon, before)
    assert daemon.stop() == 0
    assert shown == frames_of(framebuffer, ["logo"])["logo"]


@pytest.mark.parametrize("options,reason", [
    (["--connectors", "Virtual-1:disconnected"], "DRM device /dev/dri/card0: no connected connector"),
    (["--no-master"], "DRM device /dev/dri/card0: not DRM master, another program holds the display"),
    (["--no-dumb"], "DRM device /dev/dri/card0: no dumb buffers"),
], ids=["no-connector", "not-master", "no-dumb-buffers"])
def test_a_drm_device_that_cannot_be_driven_ends_start_up(daemon, options, reason):
    daemon.use_drm(*options).install_example()
    assert daemon.run() == 255
    log = daemon.log()
    assert reason in log
    assert "Failed to initialize lcmGui" in log
    assert log.index(reason) < log.index("Failed to initialize lcmGui")


def connector_of_mode_set(daemon):
    (record,) = [r for r in daemon.damage() if r[0] == "setcrtc"]
    return next(w for w in record if w.startswith("conn="))


def test_the_connector_named_after_the_device_is_driven(daemon):
    daemon.use_drm("--connectors", "HDMI-A-1:connected,DSI-1:connected").install_example()
    daemon.start("-d", "/dev/dri/card0:DSI-1")
    assert "connector DSI-1" in daemon.log()
    first = connector_of_mode_set(daemon)
    assert daemon.stop() == 0
    os.unlink(daemon.panel + ".damage")
    daemon.start()  # without a name: the first connected one
    assert "connector HDMI-A-1" in daemon.log()
    assert connector_of_mode_set(daemon) != first


@pytest.mark.parametrize("device,reason", [
    ("/dev/dri/card0:HDMI-A-1", "DRM device /dev/dri/card0: connector HDMI-A-1 is not connected"),
    ("/dev/dri/card0:LVDS-7", "DRM device /dev/dri/card0: no connector LVDS-7"),
])
def test_a_connector_that_cannot_be_driven_ends_start_up(daemon, device, reason):
    daemon.use_drm("--connectors", "HDMI-A-1:disconnected,DSI-1:connected").install_example()
    assert daemon.run("-d", device) == 255
    assert reason in daemon.log()
    assert "Failed to initialize lcmGui" in daemon.log()


def test_on_exit_the_last_screen_stays(daemon):
    daemon.use_drm().install_example()
    daemon.start()
    assert daemon.call("ShowGui", {"guiId": "logo"})["statusCode"] == 0
    shown = settled(daemon, None)
    assert daemon.stop() == 0
    assert daemon.panel_bytes() == shown
    kinds = [r[0] for r in daemon.damage()]
    assert "closefb" in kinds, kinds


def test_on_exit_a_kernel_without_closefb_turns_the_panel_off(daemon):
    daemon.use_drm("--no-closefb").install_example()
    daemon.start()
    assert daemon.call("ShowGui", {"guiId": "logo"})["statusCode"] == 0
    assert any(settled(daemon, None))
    assert daemon.stop() == 0
    assert not any(daemon.panel_bytes())
    assert "the kernel cannot keep the last frame; the panel turns off" in daemon.log()


def test_a_framebuffer_device_is_not_driven_through_drm(daemon):
    daemon.install_example()
    daemon.start()
    assert daemon.call("ShowGui", {"guiId": "logo"})["statusCode"] == 0
    assert daemon.stop() == 0
    assert "DRM device" not in daemon.log()
    assert not os.path.exists(daemon.panel + ".damage")
