"""systemd's watchdog: the daemon's main loop pings the notify socket at half the
interval the service manager asks for, and a loop that stalls stops pinging and
is restarted. A stand-in for systemd reads a notify socket of the test's own and,
like systemd, ends a daemon that missed its pings with SIGABRT and starts it
again. The stall comes from the tests' copy of the daemon, whose loop SIGUSR1
hangs for good (dravik_lcm_gui_stallable, never installed)."""
import configparser
import os
import resource
import signal
import socket
import time

import pytest

from daemon import source_dir, wait_for

INTERVAL_S = 1.0  # the stand-in's WatchdogSec
UNIT = os.path.join(source_dir(), "packaging", "dravik_lcm_gui.service")


class NotifySocket:
    """The service manager's end: a datagram socket named by NOTIFY_SOCKET."""

    def __init__(self, path):
        self.path = str(path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)

    def environment(self):
        return {"NOTIFY_SOCKET": self.path, "WATCHDOG_USEC": str(int(INTERVAL_S * 1e6))}

    def messages(self, seconds):
        """What arrives within `seconds`, with the time each arrived."""
        received = []
        deadline = time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            self.sock.settimeout(left)
            try:
                received.append((time.monotonic(), self.sock.recv(256).decode()))
            except socket.timeout:
                break
        return received

    def next_ping(self, seconds):
        """The time of the next WATCHDOG=1 within `seconds`, or None."""
        for when, message in self.messages(seconds):
            if message == "WATCHDOG=1":
                return when
        return None

    def close(self):
        self.sock.close()


@pytest.fixture
def notify(tmp_path):
    n = NotifySocket(tmp_path / "notify")
    yield n
    n.close()


def test_the_unit_asks_for_the_watchdog_and_lets_the_daemon_answer():
    unit = configparser.ConfigParser(strict=False, interpolation=None)
    unit.read(UNIT)
    assert unit["Service"]["WatchdogSec"] == "5s"
    assert unit["Service"]["NotifyAccess"] == "main"
    assert unit["Service"]["Restart"] == "on-failure"
    # Readiness is still the bus name, not a READY=1 on the notify socket.
    assert unit["Service"]["Type"] == "dbus"


def test_the_loop_pings_at_half_the_interval_and_no_more_often(daemon, notify):
    daemon.install_example()
    daemon.start(env_extra=notify.environment())
    assert notify.next_ping(5) is not None, daemon.log()
    messages = notify.messages(2.0)
    pings = [m for _, m in messages if m == "WATCHDOG=1"]
    # Every 0.5 s: about 4 in 2 s; a ping on every 30 ms turn would be 60.
    assert 2 <= len(pings) <= 6, messages
    assert all(m == "WATCHDOG=1" for _, m in messages), messages
    assert daemon.stop() == 0


def test_without_a_watchdog_nothing_is_sent(daemon, notify):
    daemon.install_example()
    env = notify.environment()
    del env["WATCHDOG_USEC"]
    daemon.start(env_extra=env)
    assert notify.messages(1.5) == [], daemon.log()
    assert daemon.stop() == 0


def test_a_stalled_loop_misses_its_pings_and_is_restarted(daemon, notify):
    # The daemon ends by SIGABRT below: the core it would dump is of no use here.
    resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))
    daemon.program = "dravik_lcm_gui_stallable"
    daemon.install_example()
    daemon.start(env_extra=notify.environment())
    assert notify.next_ping(5) is not None, daemon.log()
    assert daemon.call("ShowGui", {"guiId": "hello"})["statusCode"] == 0

    daemon.process.send_signal(signal.SIGUSR1)
    stalled = time.monotonic()
    # The stand-in waits as systemd does: no ping for a whole interval.
    last = stalled
    while (when := notify.next_ping(INTERVAL_S)) is not None:
        last = when
        assert when - stalled < 2 * INTERVAL_S, "the stalled loop kept pinging"
    missed = time.monotonic()
    assert missed - last >= INTERVAL_S
    assert daemon.process.poll() is None  # hung, not gone: only the watchdog sees it

    daemon.process.send_signal(signal.SIGABRT)  # systemd's WatchdogSignal
    assert daemon.process.wait(10) == -signal.SIGABRT

    daemon.start(env_extra=notify.environment())  # Restart=on-failure
    assert notify.next_ping(5) is not None, daemon.log()
    assert daemon.call("ShowGui", {"guiId": "logo"})["statusCode"] == 0
    assert wait_for(lambda: daemon.lit_pixels() > 1000), daemon.log()
    assert daemon.stop() == 0
