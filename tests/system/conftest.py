"""Fixtures for the daemon's black-box tests.

Each test gets a private dbus-daemon, a simulated 16-bit panel, a temporary
backlight directory and a private mount namespace (scripts/sandbox) in which
/usr/etc/gui, /etc/gui and /etc/dravik are temporary directories. The daemon is
then driven as a real client would: over the bus, reading the panel's pixels,
the backlight file, the log and the exit status.
"""
import os
import shutil
import subprocess

import pytest

from daemon import Daemon, PrivateBus, bin_dir, source_dir


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: takes a few seconds")


@pytest.fixture
def bus(tmp_path):
    if shutil.which("dbus-daemon") is None:
        pytest.skip("dbus-daemon is not installed")
    b = PrivateBus(tmp_path / "bus")
    yield b
    b.stop()


@pytest.fixture
def daemon(tmp_path, bus):
    if not os.path.exists(os.path.join(bin_dir(), "dravik_lcm_gui")):
        pytest.skip("dravik_lcm_gui is not built")
    if subprocess.run(["unshare", "--mount", "--user", "--map-root-user", "true"]
                      if os.getuid() != 0 else ["unshare", "--mount", "true"],
                      capture_output=True).returncode != 0:
        pytest.skip("this machine cannot make a private mount namespace")
    d = Daemon(tmp_path / "root", bus)
    yield d
    d.kill()
