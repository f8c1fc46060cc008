"""The arm64 Debian packages of the cross build: made from the build tree by
scripts/package, each one's Depends computed by dpkg-shlibdeps from its own
binaries against the sysroot's packages. The daemon's package must not depend
on OpenCV's image codecs: only the package of the module for other formats
does.

Environment: DRAVIK_BUILD_DIR (the aarch64 build tree), DRAVIK_SYSROOT.
"""
import os
import subprocess

import pytest

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
DAEMON = "dravik-lcm-gui"
OTHER_FORMATS = DAEMON + "-other-formats"
TOOLS = DAEMON + "-tools"
DEV = DAEMON + "-dev"
MODULE = "./usr/lib/libdravik_image_other_formats.so"


def field(deb, name):
    return subprocess.run(["dpkg-deb", "-f", deb, name], capture_output=True, text=True,
                          check=True).stdout.strip()


def names(relations):
    """The package names of a Depends or Suggests line."""
    return [r.strip().split(" ")[0] for r in relations.split(",") if r.strip()]


def listing(deb):
    lines = subprocess.run(["dpkg-deb", "-c", deb], capture_output=True, text=True,
                           check=True).stdout.splitlines()
    # "mode owner size date time path[ -> target]"
    return [line.split()[5] for line in lines]


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    work = tmp_path_factory.mktemp("package")
    made = subprocess.run(
        [os.path.join(SOURCE_DIR, "scripts", "package"), "--arch", "arm64", "--build-dir",
         os.environ["DRAVIK_BUILD_DIR"], "--out", str(work)],
        capture_output=True, text=True)
    assert made.returncode == 0, made.stderr
    debs = made.stdout.strip().splitlines()
    by_name = {field(deb, "Package"): deb for deb in debs}
    assert sorted(by_name) == sorted([DAEMON, OTHER_FORMATS, TOOLS, DEV]), debs
    assert debs[-1] == by_name[DAEMON], "the daemon's package is not printed last"
    return by_name


def test_every_package_is_for_arm64(packages):
    for deb in packages.values():
        assert field(deb, "Architecture") == "arm64", deb


def test_the_daemons_depends_come_from_its_binaries_without_the_image_codecs(packages):
    depends = names(field(packages[DAEMON], "Depends"))
    for library_package in ("libc6", "libstdc++6", "libopencv-core406", "libopencv-imgproc406",
                            "libpng16-16", "libjpeg62-turbo", "libfreetype6", "libharfbuzz0b",
                            "libsystemd0", "dbus", "fonts-dejavu-core"):
        assert library_package in depends, depends
    assert not [d for d in depends if d.startswith("libopencv-imgcodecs")], depends
    assert OTHER_FORMATS in names(field(packages[DAEMON], "Suggests"))


def test_the_module_for_other_formats_is_in_its_own_package(packages):
    assert listing(packages[OTHER_FORMATS]) == ["./", "./usr/", "./usr/lib/", MODULE]
    for deb in (packages[DAEMON], packages[TOOLS], packages[DEV]):
        assert MODULE not in listing(deb), deb
    depends = field(packages[OTHER_FORMATS], "Depends")
    version = field(packages[DAEMON], "Version")
    assert f"{DAEMON} (= {version})" in depends, depends
    assert "libopencv-imgcodecs406" in names(depends), depends


def test_the_daemons_package_holds_aarch64_programs_unit_policy_and_examples(packages):
    deb = packages[DAEMON]
    files = listing(deb)
    for path in ("./usr/bin/dravik_lcm_gui", "./usr/bin/ipc_call",
                 "./usr/lib/libdravik_ipc.so.0.1.0", "./usr/lib/libdravik_image.so.0.1.0",
                 "./usr/lib/systemd/system/dravik_lcm_gui.service",
                 "./usr/lib/sysusers.d/dravik_lcm_gui.conf",
                 "./usr/lib/udev/rules.d/70-dravik-backlight.rules",
                 "./usr/lib/udev/rules.d/70-dravik-drm.rules",
                 "./usr/share/dbus-1/system.d/dravik.ipc.dravik_lcm_gui.conf",
                 "./usr/share/dravik_lcm_gui/examples/dravik_lcm_gui.json"):
        assert path in files, path
    for path in ("./usr/bin/fakefb-run", "./usr/lib/libfakefb.so", "./usr/lib/libdravik_ipc.so"):
        assert path not in files, path
    assert not [f for f in files if f.startswith("./usr/include/")], files
    extract = os.path.join(os.path.dirname(deb), "extract")
    subprocess.run(["dpkg-deb", "-x", deb, extract], check=True)
    machine = subprocess.run(["readelf", "-h", os.path.join(extract, "usr/bin/dravik_lcm_gui")],
                             capture_output=True, text=True, check=True).stdout
    assert "AArch64" in machine, machine


def test_the_tools_and_the_headers_depend_on_the_daemons_package(packages):
    version = field(packages[DAEMON], "Version")
    tools = listing(packages[TOOLS])
    for path in ("./usr/bin/fakefb-run", "./usr/bin/fakefb-snapshot", "./usr/lib/libfakefb.so",
                 "./usr/bin/dravik_lcm_gui_preview"):
        assert path in tools, path
    dev = listing(packages[DEV])
    for path in ("./usr/include/dravik_ipc/ipc.h", "./usr/lib/cmake/Dravik/DravikConfig.cmake",
                 "./usr/lib/libdravik_ipc.so"):
        assert path in dev, path
    for deb in (packages[TOOLS], packages[DEV]):
        assert f"{DAEMON} (= {version})" in field(deb, "Depends"), deb
