"""The Debian packages installed in a minimal Debian 12 root.

scripts/package makes the four amd64 packages from the build tree. mmdebstrap
makes a bare minbase Debian 12 root, and then, inside it and in this order:

1. apt installs the daemon's package alone (without Recommends, as mmdebstrap
   itself installs). dpkg's database before and after gives what it adds: the
   packages its Depends pull in and their installed size.
2. The daemon and the client answer --help.
3. The installed daemon shows a PNG on a simulated panel. The tools package is
   not installed: the simulator (fakefb-run and its preload library) is
   unpacked from it into /check, for this check only and after the
   measurement, so dpkg does not know it and it adds no dependency. Everything
   else is what apt installed: the daemon, its libraries and their PNG
   decoder, the client, and dbus-daemon (from the Depends; a private bus
   serves as the system bus).
   The client shows a screen holding a 64x48 PNG of four colours that a
   16-bit panel represents exactly; the panel's pixels must equal the picture
   placed where the screen says, and black elsewhere. The module for other
   formats must not be in the root at that point: the same picture as a BMP
   is not shown, and the daemon says why.
4. apt installs the other formats' package; dpkg's database gives what the
   daemon's package and it add together: what the single package pulled in
   before the split (the daemon's Depends plus OpenCV's image codecs). The
   daemon then shows the same picture from a BMP file, which only that
   package's module decodes.
5. apt installs systemd, and systemd-analyze verifies the installed unit.

The footprint (packages and installed size that the Depends add, before and
after the split) is printed and written to package-footprint.txt in the build
tree.

Environment: DRAVIK_BUILD_DIR (a built host build tree).
"""
import os
import shutil
import struct
import subprocess
import sys

import pytest

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "system"))
from pngs import write_png  # noqa: E402

UNIT = "/usr/lib/systemd/system/dravik_lcm_gui.service"
MODULE = "/usr/lib/libdravik_image_other_formats.so"
IMAGES = "/etc/gui/check"  # the daemon reads images under /etc/gui or /usr/etc/gui only
DAEMON_PACKAGE = "dravik-lcm-gui"
CODECS_PACKAGE = "libopencv-imgcodecs406"
CHECKS = {
    "daemon-help": "dravik_lcm_gui --help",
    "client-help": "ipc_call --help",
}

# The panel and the picture: four quarters whose colours RGB565 holds exactly.
WIDTH, HEIGHT = 240, 240
PICTURE_W, PICTURE_H = 64, 48
PICTURE_X, PICTURE_Y = 16, 24
QUARTERS = [((255, 0, 0), 0xF800), ((0, 255, 0), 0x07E0),
            ((0, 0, 255), 0x001F), ((255, 255, 255), 0xFFFF)]

APT_INSTALL = "env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends"
INSTALLED = r"dpkg-query -W -f='${db:Status-Abbrev}\t${Package}\t${Installed-Size}\n'"

# Runs the installed daemon on a simulated panel with a private system bus,
# shows a screen with the installed client, and keeps the panel as it was once
# it showed the expected picture (or after 10 s), the daemon's log and each
# step's exit status in /check/out-NAME.
SHOW_SCRIPT = r"""#!/bin/sh
name=$1 screens=$2 screen=$3 expected=$4
out=/check/out-$name
mkdir -p "$out"
cd /check || exit 1
dbus-daemon --config-file=/check/bus.conf --nofork --nopidfile --print-address=3 \
  3>"$out/bus.address" 2>"$out/bus.log" &
bus=$!
for _ in $(seq 100); do [ -s "$out/bus.address" ] && break; sleep 0.1; done
DBUS_SYSTEM_BUS_ADDRESS=$(head -n 1 "$out/bus.address")
export DBUS_SYSTEM_BUS_ADDRESS
rm -f "$out/panel.raw"
/check/tools/usr/bin/fakefb-run --device /dev/fb2 --size 240x240 --bpp 16 \
  --file "$out/panel.raw" -- \
  dravik_lcm_gui --device /dev/fb2 --configFile "$screens" >"$out/daemon.log" 2>&1 &
daemon=$!
for _ in $(seq 100); do
  kill -0 "$daemon" 2>/dev/null || break
  ipc_call --timeout 500 --list dravik_lcm_gui >/dev/null 2>&1 && break
  sleep 0.1
done
ipc_call --indent -1 --show-gui "$screen" --brightness 100 >"$out/show.out" 2>&1
echo $? >"$out/show.rc"
# The screen is drawn after the response is sent.
for _ in $(seq 100); do cmp -s "$out/panel.raw" "$expected" && break; sleep 0.1; done
cp "$out/panel.raw" "$out/shown.raw"
kill -TERM "$daemon" 2>/dev/null
wait "$daemon"
echo $? >"$out/daemon.rc"
kill -TERM "$bus"
wait "$bus"
"""

def quarter(x, y):
    return (y >= PICTURE_H // 2) * 2 + (x >= PICTURE_W // 2)


def write_bmp(path):
    """The picture as a 24-bit BMP (bottom-up rows of blue, green, red)."""
    rows = []
    for y in reversed(range(PICTURE_H)):
        rows.append(b"".join(bytes(reversed(QUARTERS[quarter(x, y)][0]))
                             for x in range(PICTURE_W)))
    pixels = b"".join(rows)  # 64 * 3 bytes a row: no padding
    header = struct.pack("<IiiHHIIiiII", 40, PICTURE_W, PICTURE_H, 1, 24, 0, len(pixels),
                         2835, 2835, 0, 0)
    with open(path, "wb") as f:
        f.write(b"BM" + struct.pack("<IHHI", 14 + len(header) + len(pixels), 0, 0, 14 + 40))
        f.write(header + pixels)


def expected_panel():
    """The panel's bytes: the picture at its place, black elsewhere."""
    panel = bytearray(WIDTH * HEIGHT * 2)
    for y in range(PICTURE_H):
        for x in range(PICTURE_W):
            offset = ((PICTURE_Y + y) * WIDTH + PICTURE_X + x) * 2
            panel[offset:offset + 2] = struct.pack("<H", QUARTERS[quarter(x, y)][1])
    return bytes(panel)


def prepare_check(check, tools_deb):
    """Everything the daemon's check needs, copied into the root as /check."""
    os.makedirs(os.path.join(check, "backlight"))
    with open(os.path.join(check, "backlight", "max_brightness"), "w") as f:
        f.write("255\n")
    write_png(os.path.join(check, "quarters.png"), PICTURE_W, PICTURE_H,
              lambda y: b"".join(bytes(QUARTERS[quarter(x, y)][0]) for x in range(PICTURE_W)))
    write_bmp(os.path.join(check, "quarters.bmp"))
    for name, image in (("png", "quarters.png"), ("bmp", "quarters.bmp")):
        with open(os.path.join(check, f"screens-{name}.json"), "w") as f:
            f.write(f'{{"imgPath": "{IMAGES}", "backLightPath": "/check/backlight", "screens": ['
                    f'{{"name": "picture", "img": {{"file": "{image}", '
                    f'"x": {PICTURE_X}, "y": {PICTURE_Y}}}}}]}}\n')
    with open(os.path.join(check, "expected.raw"), "wb") as f:
        f.write(expected_panel())
    with open(os.path.join(SOURCE_DIR, "tests", "support", "private-bus.conf.in")) as f:
        template = f.read()
    with open(os.path.join(check, "bus.conf"), "w") as f:
        f.write(template.replace("@ADDRESS@", "unix:path=/check/bus.socket"))
    with open(os.path.join(check, "show.sh"), "w") as f:
        f.write(SHOW_SCRIPT)
    os.chmod(os.path.join(check, "show.sh"), 0o755)
    subprocess.run(["dpkg-deb", "-x", tools_deb, os.path.join(check, "tools")], check=True)


def run_in_root(name, command):
    """A customize hook that runs `command` in the root and keeps its output and
    exit status in /results."""
    return (f'chroot "$1" sh -c "{command}" >"$1/results/{name}.out" 2>&1; '
            f'echo $? >"$1/results/{name}.rc"')


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    if shutil.which("mmdebstrap") is None:
        pytest.skip("mmdebstrap is not installed (scripts/deps installs it)")
    work = tmp_path_factory.mktemp("package")
    made = subprocess.run(
        [os.path.join(SOURCE_DIR, "scripts", "package"), "--build-dir",
         os.environ["DRAVIK_BUILD_DIR"], "--out", str(work)],
        capture_output=True, text=True)
    assert made.returncode == 0, made.stderr
    debs = made.stdout.strip().splitlines()
    by_name = {subprocess.run(["dpkg-deb", "-f", deb, "Package"], capture_output=True,
                              text=True, check=True).stdout.strip(): deb for deb in debs}
    assert debs[-1] == by_name[DAEMON_PACKAGE], debs
    return work, by_name


@pytest.fixture(scope="module")
def installed(packages):
    work, debs = packages
    daemon = debs[DAEMON_PACKAGE]
    other_formats = debs[DAEMON_PACKAGE + "-other-formats"]
    check = work / "check"
    prepare_check(str(check), debs[DAEMON_PACKAGE + "-tools"])
    results = work / "results"
    results.mkdir()
    # apt inside the root reads the packages at the paths they have outside.
    setup = [f'mkdir -p "$1{work}" && cp "{daemon}" "{other_formats}" "$1{work}/"']
    customize = [
        'mkdir -p "$1/results"',
        f'chroot "$1" {INSTALLED} >"$1/results/bare.status"',
        f'chroot "$1" {APT_INSTALL} "{daemon}" >"$1/results/install-daemon.log" 2>&1',
        f'chroot "$1" {INSTALLED} >"$1/results/daemon.status"',
    ]
    customize += [run_in_root(name, command) for name, command in CHECKS.items()]
    customize += [
        f'cp -a "{check}" "$1/check"',
        'mkdir -p "$1/etc/dravik" && '
        'cp "$1/usr/share/dravik_lcm_gui/examples/camerainfo.json" "$1/etc/dravik/"',
        f'mkdir -p "$1{IMAGES}" && '
        f'cp "$1/check/quarters.png" "$1/check/quarters.bmp" "$1{IMAGES}/"',
        run_in_root("module-before", f"test -e {MODULE}"),
        run_in_root("show-png", "/check/show.sh png /check/screens-png.json picture "
                                "/check/expected.raw"),
        run_in_root("show-bmp-alone", "/check/show.sh bmp-alone /check/screens-bmp.json "
                                      "picture /check/expected.raw"),
        f'chroot "$1" {APT_INSTALL} "{other_formats}" >"$1/results/install-other.log" 2>&1',
        f'chroot "$1" {INSTALLED} >"$1/results/other.status"',
        run_in_root("show-bmp", "/check/show.sh bmp /check/screens-bmp.json picture "
                                "/check/expected.raw"),
        'cp -a "$1"/check/out-* "$1/results/" || true',
        f'chroot "$1" {APT_INSTALL} systemd >"$1/results/install-systemd.log" 2>&1',
        run_in_root("unit", f"systemd-analyze verify {UNIT}"),
        f"sync-out /results {results}",
    ]
    argv = ["mmdebstrap", "--variant=minbase"]
    argv += [f"--setup-hook={h}" for h in setup]
    argv += [f"--customize-hook={h}" for h in customize]
    argv += ["bookworm", "/dev/null"]
    root = subprocess.run(argv, capture_output=True, text=True, timeout=1200)
    assert root.returncode == 0, root.stdout + root.stderr
    return results


def check(results, name):
    rc = (results / f"{name}.rc").read_text().strip()
    out = (results / f"{name}.out").read_text()
    return rc, out


def status(results, name):
    """The installed packages recorded in NAME.status: {package: installed kB}."""
    packages = {}
    for line in (results / f"{name}.status").read_text().splitlines():
        state, package, size = line.split("\t")
        if state.strip() == "ii":
            packages[package] = int(size or 0)
    return packages


def added(results, before, after):
    """The packages other than this project's that `after` has and `before`
    has not, and their installed size in kB."""
    base = status(results, before)
    new = {p: s for p, s in status(results, after).items()
           if p not in base and not p.startswith(DAEMON_PACKAGE)}
    return new, sum(new.values())


def size(kilobytes):
    """dpkg's Installed-Size (KiB), in MiB and in MB when it is large enough."""
    if kilobytes < 1024:
        return f"{kilobytes} KiB"
    return f"{kilobytes / 1024:.1f} MiB ({kilobytes * 1024 / 1e6:.1f} MB)"


def test_the_installed_daemon_prints_its_help(installed):
    rc, out = check(installed, "daemon-help")
    assert rc == "0", out
    assert "dravik_lcm_gui" in out and "--help" in out, out


def test_the_installed_client_prints_its_help(installed):
    rc, out = check(installed, "client-help")
    assert rc == "0", out
    assert "ipc_call" in out and "--show-gui" in out, out


def test_the_daemon_package_alone_does_not_pull_in_the_image_codecs(installed):
    new, _ = added(installed, "bare", "daemon")
    assert DAEMON_PACKAGE in status(installed, "daemon")
    assert CODECS_PACKAGE not in new, sorted(new)
    assert not any(p.startswith("libopencv-imgcodecs") for p in new), sorted(new)
    rc, _ = check(installed, "module-before")
    assert rc == "1", f"{MODULE} is in the root with the daemon's package alone"


def shown(results, name):
    out = results / f"out-{name}"
    log = (out / "daemon.log").read_text(errors="replace")
    assert (out / "show.rc").read_text().strip() == "0", \
        (out / "show.out").read_text() + log
    assert '"statusCode":0' in (out / "show.out").read_text().replace(" ", ""), \
        (out / "show.out").read_text()
    panel = (out / "shown.raw").read_bytes()
    expected = expected_panel()
    assert len(panel) == len(expected), log
    wrong = [(i // 2 % WIDTH, i // 2 // WIDTH) for i in range(0, len(panel), 2)
             if panel[i:i + 2] != expected[i:i + 2]]
    assert not wrong, f"{len(wrong)} pixels differ, the first at {wrong[:5]}\n{log}"
    assert (out / "daemon.rc").read_text().strip() == "0", log
    return log


def test_the_installed_daemon_shows_a_png_without_the_module_for_other_formats(installed):
    log = shown(installed, "png")
    assert "Failed to load the image codecs" not in log, log


def test_without_the_module_a_bmp_is_refused_and_said_so(installed):
    out = installed / "out-bmp-alone"
    log = (out / "daemon.log").read_text(errors="replace")
    assert "Failed to load the image codecs for formats other than PNG and JPEG" in log, log
    assert (out / "shown.raw").read_bytes() != expected_panel()
    assert (out / "daemon.rc").read_text().strip() == "0", log


def test_with_the_other_formats_package_the_daemon_shows_a_bmp(installed):
    assert CODECS_PACKAGE in status(installed, "other")
    shown(installed, "bmp")


def test_the_footprint_is_smaller_without_the_image_codecs(installed, capsys):
    after, after_kb = added(installed, "bare", "daemon")
    before, before_kb = added(installed, "bare", "other")
    own_kb = status(installed, "daemon")[DAEMON_PACKAGE]
    other_kb = status(installed, "other")[DAEMON_PACKAGE + "-other-formats"]
    lines = [
        "Packages and installed size (dpkg's Installed-Size) that the Depends add to a",
        "minbase Debian 12 root, without Recommends:",
        f"  before the split, the daemon's Depends plus {CODECS_PACKAGE}: "
        f"{len(before)} packages, {size(before_kb)}",
        f"  {DAEMON_PACKAGE} alone: {len(after)} packages, {size(after_kb)}",
        f"  the packages themselves: {DAEMON_PACKAGE} {size(own_kb)}, "
        f"{DAEMON_PACKAGE}-other-formats {size(other_kb)}",
        f"  left out by the split: {', '.join(sorted(set(before) - set(after)))}",
    ]
    with open(os.path.join(os.environ["DRAVIK_BUILD_DIR"], "package-footprint.txt"), "w") as f:
        f.write("\n".join(lines) + "\n")
    with capsys.disabled():
        print("\n" + "\n".join(lines))
    assert set(after) < set(before), sorted(set(after) - set(before))
    assert after_kb < before_kb


def test_systemd_analyze_accepts_the_installed_unit(installed):
    rc, out = check(installed, "unit")
    assert rc == "0", out
    assert out.strip() == "", out
