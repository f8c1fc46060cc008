"""The arm64 Debian package of the cross build: made from the build tree by
scripts/package, its Depends computed by dpkg-shlibdeps against the sysroot's
packages.

Environment: DRAVIK_BUILD_DIR (the aarch64 build tree), DRAVIK_SYSROOT.
"""
import os
import subprocess

import pytest

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))


@pytest.fixture(scope="module")
def package(tmp_path_factory):
    work = tmp_path_factory.mktemp("package")
    made = subprocess.run(
        [os.path.join(SOURCE_DIR, "scripts", "package"), "--arch", "arm64", "--build-dir",
         os.environ["DRAVIK_BUILD_DIR"], "--out", str(work)],
        capture_output=True, text=True)
    assert made.returncode == 0, made.stderr
    return made.stdout.strip().splitlines()[-1]


def field(deb, name):
    return subprocess.run(["dpkg-deb", "-f", deb, name], capture_output=True, text=True,
                          check=True).stdout.strip()


def test_the_package_is_for_arm64(package):
    assert field(package, "Architecture") == "arm64"


def test_its_depends_come_from_the_libraries_the_binaries_link(package):
    depends = [d.split(" ")[0] for d in field(package, "Depends").split(", ")]
    for library_package in ("libc6", "libstdc++6", "libopencv-core406", "libopencv-imgcodecs406",
                            "libfreetype6", "libharfbuzz0b", "libsystemd0"):
        assert library_package in depends, depends


def test_it_holds_aarch64_programs_unit_policy_and_examples(package):
    listing = subprocess.run(["dpkg-deb", "-c", package], capture_output=True, text=True,
                             check=True).stdout
    for path in ("./usr/bin/dravik_lcm_gui", "./usr/bin/ipc_call",
                 "./usr/lib/libdravik_ipc.so.0.1.0",
                 "./usr/lib/systemd/system/dravik_lcm_gui.service",
                 "./usr/share/dbus-1/system.d/dravik.ipc.dravik_lcm_gui.conf",
                 "./usr/share/dravik_lcm_gui/examples/dravik_lcm_gui.json"):
        assert path in listing, path
    extract = os.path.join(os.path.dirname(package), "extract")
    subprocess.run(["dpkg-deb", "-x", package, extract], check=True)
    machine = subprocess.run(["readelf", "-h", os.path.join(extract, "usr/bin/dravik_lcm_gui")],
                             capture_output=True, text=True, check=True).stdout
    assert "AArch64" in machine, machine
