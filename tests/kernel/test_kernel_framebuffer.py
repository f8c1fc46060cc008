"""The aarch64 daemon on a real kernel's display drivers, compared pixel for
pixel with the host's daemon on the simulated panel.

Debian's arm64 kernel boots under qemu-system-aarch64 (TCG) with an initramfs
holding the installed aarch64 build, its libraries from the sysroot, busybox and
a bus daemon. Inside, the daemon draws on /dev/fb0: the built-in
simple-framebuffer driver at four pixel formats (a device-tree node over
reserved RAM, read back with the monitor's pmemsave), once more at 16 bits with
the panel turned a quarter ("rotation" in the screens file), and the bochs DRM
driver's fbdev emulation (modules from the kernel package, read back with
screendump).
It also draws on /dev/dri/card0 through KMS, with fbdev emulation off: the bochs
driver (scanned out from memory) and the virtio-gpu driver (the host sees only
the rectangles flushed with damage clips), read back with screendump. The
host's daemon draws the same screens on fakefb at the geometry the guest
reported, and every frame must match.

Environment: DRAVIK_BUILD_DIR (the aarch64 build), DRAVIK_SYSROOT,
DRAVIK_HOST_BIN_DIR (a native build's bin/), and DRAVIK_KERNEL_TREE (made by
`scripts/sysroot --kernel` when unset).
"""
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import time

import pytest

import guest as g

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))
from daemon import PrivateBus, bus_config, source_dir, wait_for  # noqa: E402
from pngs import write_png  # noqa: E402

WIDTH, HEIGHT = 320, 240
# Screens whose frame at capture time does not depend on time: a text, a static
# picture, and a progress bar that has filled (100 ms) before the capture.
SCREENS = {
    "imgPath": "/etc/gui/images",
    "screens": [
        {"name": "text",
         "text": {"str": "Hello, Dravik", "size": 24, "horizontal": "center",
                  "vertical": "middle"}},
        {"name": "picture",
         "img": {"file": "logo.png", "horizontal": "center", "vertical": "middle"}},
        {"name": "progress",
         "text": {"str": "Updating firmware", "size": 18, "x": 0, "y": 40,
                  "horizontal": "center", "vertical": "top"},
         "img": {"file": "progress.png", "y": 40, "horizontal": "center", "vertical": "middle",
                 "animation": "progressbar", "duration": 100}},
    ],
}
SCREEN_NAMES = [s["name"] for s in SCREENS["screens"]]

# simple-framebuffer cases: (device-tree format, bits per pixel, fakefb --rgb,
# the screens file's "rotation"; 0: the file has no such key). The turned panel
# takes one boot: its turn is made in the conversion to the panel's pixels, the
# same code at every depth.
SIMPLEFB_FORMATS = [
    ("r5g6b5", 16, "11/5,5/6,0/5", 0),
    ("x1r5g5b5", 16, "10/5,5/5,0/5", 0),
    ("r8g8b8", 24, "16/8,8/8,0/8", 0),
    ("x8r8g8b8", 32, "16/8,8/8,0/8", 0),
    ("r5g6b5", 16, "11/5,5/6,0/5", 90),
]
ROTATIONS = sorted({case[3] for case in SIMPLEFB_FORMATS if case[3]})
BOOT_TIMEOUT = 120
STEP_TIMEOUT = 120

# The modules of each display the guest may load ("dravik.modules=SET"), from
# the kernel package, each with its dependencies. virtio-gpu depends on no
# transport: the PCI one that finds its device is named as well.
MODULE_SETS = {
    "bochs": ["bochs"],
    "virtio-gpu": ["virtio_pci", "virtio_gpu"],
}
# DRM displays: (name, qemu device, module set). Both give an EDID whose
# preferred mode is xres x yres.
DRM_DISPLAYS = [
    ("bochs", f"bochs-display,romfile=,xres={WIDTH},yres={HEIGHT}", "bochs"),
    ("virtio-gpu", f"virtio-gpu-pci,xres={WIDTH},yres={HEIGHT}", "virtio-gpu"),
]
DRM_DEVICE = "/dev/dri/card0"
XRGB8888 = "16/8,8/8,0/8"


def screens_config(backlight, rotation=0):
    """The screens file's contents, with the panel turned by `rotation`."""
    config = dict(SCREENS, backLightPath=backlight)
    if rotation:
        config["rotation"] = rotation
    return config


def guest_screens_file(rotation):
    return f"/etc/gui/screens-turned-{rotation}.json" if rotation else "/etc/gui/screens.json"


def screen_size(rotation):
    """The screen on the WIDTH x HEIGHT panel turned by `rotation`."""
    return (HEIGHT, WIDTH) if rotation in (90, 270) else (WIDTH, HEIGHT)


def require_env(name):
    value = os.environ.get(name)
    if not value:
        pytest.fail(f"{name} is not set: run this test through ctest of the aarch64 build")
    return value


@pytest.fixture(scope="module")
def work(tmp_path_factory):
    for tool in ("qemu-system-aarch64", "dtc", "cpio", "readelf"):
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed (scripts/deps --cross installs it)")
    return str(tmp_path_factory.mktemp("kernel"))


@pytest.fixture(scope="module")
def kernel_tree():
    tree = os.environ.get("DRAVIK_KERNEL_TREE")
    if not tree:
        out = subprocess.run([os.path.join(source_dir(), "scripts", "sysroot"), "--kernel"],
                             capture_output=True, text=True, check=True).stdout
        tree = out.strip().splitlines()[-1]
    kernels = sorted(glob.glob(os.path.join(tree, "boot", "vmlinuz-*")))
    assert kernels, f"no kernel in {tree}"
    return tree, kernels[-1]


@pytest.fixture(scope="module")
def images(work):
    """The example pictures, drawn by the native build."""
    directory = os.path.join(work, "images")
    os.makedirs(directory)
    host_bin = require_env("DRAVIK_HOST_BIN_DIR")
    if not os.path.exists(os.path.join(host_bin, "make_example_images")):
        pytest.fail(f"no native build in {host_bin}: build the default preset first "
                    "(its daemon draws the reference frames), or set DRAVIK_HOST_BIN_DIR")
    subprocess.run([os.path.join(host_bin, "make_example_images"),
                    directory], check=True, capture_output=True)
    return directory


@pytest.fixture(scope="module")
def initrd(work, kernel_tree, images):
    tree, kernel = kernel_tree
    sysroot = require_env("DRAVIK_SYSROOT")
    stage = os.path.join(work, "stage")
    env = dict(os.environ, DESTDIR=stage)
    subprocess.run(["cmake", "--install", require_env("DRAVIK_BUILD_DIR"), "--prefix", "/usr"],
                   env=env, check=True, capture_output=True)
    for path, target in [("bin/busybox", "bin/busybox"),
                         ("usr/bin/dbus-daemon", "usr/bin/dbus-daemon"),
                         ("lib/ld-linux-aarch64.so.1", "lib/ld-linux-aarch64.so.1"),
                         ("usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
                          "usr/share/fonts/truetype/dejavu/DejaVuSans.ttf")]:
        os.makedirs(os.path.dirname(os.path.join(stage, target)), exist_ok=True)
        shutil.copyfile(os.path.realpath(os.path.join(sysroot, path)), os.path.join(stage, target))
        g.executable(os.path.join(stage, target))
    g.copy_library_closure(sysroot, stage)

    modules_dir = glob.glob(os.path.join(tree, "lib", "modules", "*"))[0]
    for module_set, roots in MODULE_SETS.items():
        order = []
        for root in roots:
            order += [(n, p) for n, p in g.module_order(modules_dir, root) if (n, p) not in order]
        for name, path in order:
            target = os.path.join(stage, "lib", "modules", name + ".ko")
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copyfile(path, target)
        g.write_file(os.path.join(stage, "etc", "dravik-modules-" + module_set),
                     " ".join(n for n, _ in order))
    g.write_file(os.path.join(stage, "etc", "dravik-screens"), " ".join(SCREEN_NAMES))
    g.write_file(os.path.join(stage, "etc", "dravik-bus.conf"),
                 bus_config("unix:path=/run/bus"))
    # The bus daemon looks its user up; the daemon needs the device properties.
    g.write_file(os.path.join(stage, "etc", "passwd"), "root:x:0:0:root:/root:/bin/sh\n")
    g.write_file(os.path.join(stage, "etc", "group"), "root:x:0:\n")
    g.write_file(os.path.join(stage, "etc", "dravik", "camerainfo.json"), '{"sysid": 418}\n')
    for rotation in [0] + ROTATIONS:
        g.write_file(stage + guest_screens_file(rotation),
                     json.dumps(screens_config(g.BACKLIGHT, rotation)))
    shutil.copytree(images, os.path.join(stage, "etc", "gui", "images"))
    g.write_file(os.path.join(stage, "init"), g.INIT, 0o755)
    out = os.path.join(work, "initrd.cpio")
    g.make_cpio(stage, out)
    return kernel, out


def capture_guest(work, initrd, name, extra_args, append, read_frame):
    """Boots, and returns (geometry line fields, {screen: frame}) and the console."""
    kernel, cpio = initrd
    run_dir = os.path.join(work, name)
    os.makedirs(run_dir)
    guest = g.Guest(run_dir, kernel, cpio, extra_args, append)
    try:
        fb = guest.wait_for_line("DRAVIK-FB", BOOT_TIMEOUT).split()
        size, bpp, stride = fb[1].split(","), int(fb[2]), int(fb[3])
        geometry = (int(size[0]), int(size[1]), bpp, stride)
        frames = {}
        for screen in SCREEN_NAMES:
            guest.wait_for_line(f"DRAVIK-READY {screen}", STEP_TIMEOUT)
            frames[screen] = read_frame(guest, geometry, screen)
            guest.answer()
        guest.wait_for_line("DRAVIK-DONE", STEP_TIMEOUT)
        return geometry, frames, guest.log()
    finally:
        guest.stop()


def capture_drm_guest(work, initrd, name, device, module_set):
    """Boots with the qemu `device` and the daemon on its DRM device, and
    returns ((connector status, preferred mode), the daemon's panel line,
    {screen: (width, height, RGB)}, the console). The guest cannot read the
    daemon's buffers, so the host settles each frame on screendumps."""
    kernel, cpio = initrd
    run_dir = os.path.join(work, name)
    os.makedirs(run_dir)
    # Without the fbdev emulation no framebuffer and no text console share the
    # display with the daemon.
    append = (f"dravik.modules={module_set} dravik.device={DRM_DEVICE} "
              "drm_kms_helper.fbdev_emulation=0")
    guest = g.Guest(run_dir, kernel, cpio, ["-device", device], append)
    try:
        drm = guest.wait_for_line("DRAVIK-DRM", BOOT_TIMEOUT).split() + [""]
        connector = (drm[2], drm[3])
        panel = guest.wait_for_line("DRAVIK-PANEL", STEP_TIMEOUT)
        frames = {}
        for screen in SCREEN_NAMES:
            guest.wait_for_line(f"DRAVIK-SHOW {screen}", STEP_TIMEOUT)
            before = guest.screendump(screen + "-before.ppm")
            guest.answer()
            guest.wait_for_line(f"DRAVIK-READY {screen}", STEP_TIMEOUT)
            frames[screen] = settled_screendump(guest, screen, before)
            guest.answer()
        guest.wait_for_line("DRAVIK-DONE", STEP_TIMEOUT)
        return connector, panel, frames, guest.log()
    finally:
        guest.stop()


def settled_screendump(guest, screen, before, timeout=120):
    """The display's frame once it differs from `before` and has stayed the
    same for a second (the guest's rule for framebuffers). The first picture
    loads the image codecs, which takes seconds under TCG."""
    deadline = time.monotonic() + timeout
    last, still = before, 0
    path = os.path.join(guest.work, screen + ".ppm")
    while still < 4:
        assert time.monotonic() < deadline, f"{screen}: the display did not settle:\n" + guest.log()
        time.sleep(0.25)
        # Moved away after each dump: the next one is read once qemu has made it.
        now = guest.screendump(screen + "-next.ppm")
        os.replace(os.path.join(guest.work, screen + "-next.ppm"), path)
        still = still + 1 if now == last and now != before else 0
        last = now
    return last


def reference_frames(work, name, images, device, panel_options, rotation=0):
    """The host's daemon on the simulated `device` (fakefb-run with
    `panel_options`), the screens file turning the panel by `rotation`:
    {screen: backing file bytes}."""
    host_bin = require_env("DRAVIK_HOST_BIN_DIR")
    root = os.path.join(work, name + "-reference")
    os.makedirs(os.path.join(root, "etc-gui"))
    g.write_file(os.path.join(root, "etc-dravik", "camerainfo.json"), '{"sysid": 418}\n')
    shutil.copytree(images, os.path.join(root, "etc-gui", "images"))
    backlight = os.path.join(root, "backlight")
    g.write_file(os.path.join(backlight, "max_brightness"), "255\n")
    with open(os.path.join(root, "etc-gui", "screens.json"), "w") as f:
        json.dump(screens_config(backlight, rotation), f)
    panel = os.path.join(root, "panel.raw")
    bus = PrivateBus(os.path.join(root, "bus"))
    env = {k: v for k, v in os.environ.items() if k not in ("DRAVIK_EMULATOR", "LD_PRELOAD")}
    env["DBUS_SYSTEM_BUS_ADDRESS"] = bus.address
    log = open(os.path.join(root, "daemon.log"), "w")
    daemon = subprocess.Popen(
        [os.path.join(source_dir(), "scripts", "sandbox"), "--root", root, "--",
         os.path.join(host_bin, "fakefb-run"), "--device", device] + panel_options +
        ["--file", panel, "--",
         os.path.join(host_bin, "dravik_lcm_gui"), "-d", device,
         "-c", "/etc/gui/screens.json"], env=env, stdout=log, stderr=log)

    def ipc_call(*args):
        return subprocess.run([os.path.join(host_bin, "ipc_call"), "--address", bus.address]
                              + list(args), env=env, capture_output=True, text=True, timeout=20)

    try:
        assert wait_for(lambda: ipc_call("--list", "dravik_lcm_gui").returncode == 0), \
            "the host's daemon is not on the bus"
        frames = {}
        for screen in SCREEN_NAMES:
            before = read_panel(panel)
            shown = ipc_call("--show-gui", screen)
            assert shown.returncode == 0, shown.stdout + shown.stderr
            frames[screen] = settled_frame(panel, before)
        return frames
    finally:
        daemon.terminate()
        daemon.wait(10)
        log.close()
        bus.stop()


def read_panel(path):
    with open(path, "rb") as f:
        return f.read()


def settled_frame(path, before, timeout=60):
    """The frame once it differs from `before` and has stayed the same for a
    second (the same rule as the guest's)."""
    deadline = time.monotonic() + timeout
    last, still = before, 0
    while still < 4:
        assert time.monotonic() < deadline, "the host's frame did not settle"
        time.sleep(0.25)
        now = read_panel(path)
        still = still + 1 if now == last and now != before else 0
        last = now
    return last


def to_rgb(frame, width, height, stride, bpp, channels):
    """8-bit R, G, B bytes of a little-endian framebuffer frame."""
    step = bpp // 8
    out = bytearray()
    for y in range(height):
        row = frame[y * stride:y * stride + width * step]
        for x in range(0, width * step, step):
            value = int.from_bytes(row[x:x + step], "little")
            for offset, length in channels:
                level = (value >> offset) & ((1 << length) - 1)
                out.append(level * 255 // ((1 << length) - 1))
    return bytes(out)


def compare(name, screen, expected_rgb, actual_rgb, width, height, out_dir):
    """Fails on a difference, after writing expected, actual and difference
    pictures and naming the first differing pixels."""
    if expected_rgb == actual_rgb:
        return
    diff = bytearray(len(expected_rgb))
    wrong = []
    for i in range(0, len(expected_rgb), 3):
        if expected_rgb[i:i + 3] != actual_rgb[i:i + 3]:
            diff[i:i + 3] = b"\xff\xff\xff"
            wrong.append((i // 3 % width, i // 3 // width))
    paths = []
    for kind, data in (("expected", expected_rgb), ("actual", actual_rgb), ("diff", diff)):
        path = os.path.join(out_dir, f"{name}-{screen}_{kind}.png")
        write_png(path, width, height, lambda y, d=data: bytes(d[y * 3 * width:(y + 1) * 3 * width]))
        paths.append(path)
    pytest.fail(f"{name}/{screen}: {len(wrong)} of {width * height} pixels differ, first "
                f"{wrong[:5]}; pictures: {', '.join(paths)}")


def channels_of(rgb):
    return [tuple(int(n) for n in c.split("/")) for c in rgb.split(",")]


def fb_options(geometry, rgb):
    """fakefb-run's options for a framebuffer of `geometry`."""
    width, height, bpp, stride = geometry
    return ["--size", f"{width}x{height}", "--bpp", str(bpp), "--rgb", rgb,
            "--line-length", str(stride)]


def simplefb_id(case):
    fmt, _, _, rotation = case
    return f"{fmt}-turned{rotation}" if rotation else fmt


@pytest.mark.parametrize("fmt,bpp,rgb,rotation", SIMPLEFB_FORMATS,
                         ids=[simplefb_id(c) for c in SIMPLEFB_FORMATS])
def test_simple_framebuffer(work, initrd, images, fmt, bpp, rgb, rotation):
    stride = WIDTH * bpp // 8
    dtb = g.simplefb_dtb(work, WIDTH, HEIGHT, stride, fmt)

    def read_frame(guest, geometry, screen):
        return guest.save_memory(g.FB_BASE, geometry[3] * geometry[1], screen + ".raw")

    name = "simplefb-" + simplefb_id((fmt, bpp, rgb, rotation))
    # The text console stays off the framebuffer: its cursor and redraws would
    # overwrite the daemon's pixels.
    append = f"fbcon=map:1 dravik.screens={guest_screens_file(rotation)}"
    geometry, frames, console = capture_guest(work, initrd, name, ["-dtb", dtb], append,
                                              read_frame)
    assert geometry == (WIDTH, HEIGHT, bpp, stride), console
    check_screen_of_log(g.daemon_log(console), rotation, console)
    reference = reference_frames(work, name, images, "/dev/fb0", fb_options(geometry, rgb),
                                 rotation)
    for screen in SCREEN_NAMES:
        expected = to_rgb(reference[screen], WIDTH, HEIGHT, stride, bpp, channels_of(rgb))
        assert any(expected), f"{name}/{screen}: the reference frame is black"
        if frames[screen] != reference[screen]:
            actual = to_rgb(frames[screen], WIDTH, HEIGHT, stride, bpp, channels_of(rgb))
            compare(name, screen, expected, actual, WIDTH, HEIGHT, work)
            pytest.fail(f"{name}/{screen}: the frames differ in their padding bits")


def check_screen_of_log(log, rotation, console):
    """The guest's daemon drew on the panel, on a screen turned by `rotation`,
    and every screen it showed fitted that screen."""
    assert f"FB: {WIDTH}x{HEIGHT}," in log, "no daemon's log from the guest:\n" + console
    turned = "the panel turned"
    if rotation:
        width, height = screen_size(rotation)
        assert f"Screen: {width}x{height}, {turned} {rotation} degrees" in log, log
    else:
        assert turned not in log, log
    assert "out of screen" not in log, log


def test_bochs_display(work, initrd, images):
    def read_frame(guest, geometry, screen):
        return guest.screendump(screen + ".ppm")

    # DRM's fbdev emulation sets the display mode when the text console takes
    # the framebuffer (nothing else here would: the daemon only reads the
    # geometry), so the console keeps it, without its logo and with its cursor
    # hidden; no text is written to it, so it never draws after that. The
    # option ROM is for PC firmware and of no use to this machine.
    name = "bochs"
    geometry, frames, console = capture_guest(
        work, initrd, name, ["-device", "bochs-display,romfile="],
        "dravik.modules=bochs logo.nologo vt.global_cursor_default=0", read_frame)
    width, height, bpp, stride = geometry
    assert bpp == 32, console
    rgb = XRGB8888
    reference = reference_frames(work, name, images, "/dev/fb0", fb_options(geometry, rgb))
    for screen in SCREEN_NAMES:
        dump_width, dump_height, actual = frames[screen]
        assert (dump_width, dump_height) == (width, height), console
        expected = to_rgb(reference[screen], width, height, stride, bpp, channels_of(rgb))
        assert any(expected), f"{name}/{screen}: the reference frame is black"
        compare(name, screen, expected, actual, width, height, work)


@pytest.mark.parametrize("display,device,module_set", DRM_DISPLAYS, ids=[d[0] for d in DRM_DISPLAYS])
def test_drm_display(work, initrd, images, display, device, module_set):
    name = "drm-" + display
    connector, panel, frames, console = capture_drm_guest(work, initrd, name, device, module_set)
    assert connector == ("connected", f"{WIDTH}x{HEIGHT}"), console
    # "FB: 320x240, bits_per_pixel 32, fbSize: 307200": the daemon's own view of
    # the mode and the format it chose (XRGB8888: neither driver prefers 16 bits).
    geometry = re.search(r"FB: (\d+)x(\d+), bits_per_pixel (\d+)", panel)
    assert geometry, console
    assert tuple(int(n) for n in geometry.groups()) == (WIDTH, HEIGHT, 32), console
    stride = WIDTH * 4
    reference = reference_frames(work, name, images, DRM_DEVICE,
                                 ["--drm", "--size", f"{WIDTH}x{HEIGHT}", "--bpp", "32"])
    for screen in SCREEN_NAMES:
        assert len(reference[screen]) == stride * HEIGHT, \
            f"{name}/{screen}: the simulated panel holds {len(reference[screen])} bytes"
        dump_width, dump_height, actual = frames[screen]
        assert (dump_width, dump_height) == (WIDTH, HEIGHT), console
        expected = to_rgb(reference[screen], WIDTH, HEIGHT, stride, 32, channels_of(XRGB8888))
        assert any(expected), f"{name}/{screen}: the reference frame is black"
        compare(name, screen, expected, actual, WIDTH, HEIGHT, work)
