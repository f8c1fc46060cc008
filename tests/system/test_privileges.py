"""The packaged bus policy on a system-like bus, with real accounts: who may own
the daemon's name and who may call it.

The accounts are made for the test and removed afterwards: the daemon's own
account from the packaged sysusers.d file, a member of group video and a user
outside it. A uid without a passwd entry would be disconnected by the bus
whatever its policy says, so they must be real."""
import grp
import json
import os
import pwd
import shutil
import subprocess
import sys
import tempfile

import dbus
import pytest

from daemon import BUS_NAME, Daemon, PrivateBus, bin_dir, source_dir

ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied"
PACKAGING = os.path.join(source_dir(), "packaging")
DAEMON_ACCOUNT = "dravik-lcm"

# The default policy of Debian's system bus: nobody owns a name or calls a
# method unless a policy file allows it; the bus's own interface stays open.
SYSTEM_POLICY = """
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
  </policy>
  <include>{policy}</include>
""".format(policy=os.path.join(PACKAGING, "dravik.ipc.dravik_lcm_gui.conf"))

# Run as another account: connects to the bus at argv[1], then either owns the
# name or calls ShowGui, and prints what happened as JSON.
CLIENT = r"""
import json, sys
import dbus
address, action = sys.argv[1], sys.argv[2]
try:
    bus = dbus.bus.BusConnection(address)
    if action == "own":
        result = bus.request_name("dravik.ipc.dravik_lcm_gui", dbus.bus.NAME_FLAG_DO_NOT_QUEUE)
        print(json.dumps({"owned": result == dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER}))
    else:
        reply = bus.call_blocking("dravik.ipc.dravik_lcm_gui", "/dravik/ipc/dravik_lcm_gui",
                                  "dravik.ipc.Endpoint", "ShowGui", "a{sv}",
                                  ({"guiId": "logo"},), timeout=10)
        print(json.dumps({"statusCode": int(reply["statusCode"])}))
except dbus.DBusException as error:
    print(json.dumps({"error": error.get_dbus_name()}))
"""


def run(*args):
    return subprocess.run(list(args), capture_output=True, text=True)


def account_exists(name):
    try:
        pwd.getpwnam(name)
        return True
    except KeyError:
        return False


@pytest.fixture(scope="module")
def accounts():
    if os.getuid() != 0:
        pytest.skip("making real accounts needs root, and this test does not run as root")
    for tool in ("useradd", "userdel", "systemd-sysusers", "setpriv"):
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed: this machine cannot make or use accounts")
    suffix = str(os.getpid())
    made = []
    try:
        if not account_exists(DAEMON_ACCOUNT):
            result = run("systemd-sysusers", os.path.join(PACKAGING, "dravik_lcm_gui.sysusers"))
            assert result.returncode == 0, result.stderr
            made.append(DAEMON_ACCOUNT)
        names = {"daemon": DAEMON_ACCOUNT, "video": "dvk-video-" + suffix,
                 "other": "dvk-other-" + suffix}
        for role, groups in (("video", ["-G", "video"]), ("other", [])):
            result = run("useradd", "--system", "--no-create-home", "--shell",
                         "/usr/sbin/nologin", *groups, names[role])
            assert result.returncode == 0, result.stderr
            made.append(names[role])
        assert DAEMON_ACCOUNT in grp.getgrnam("video").gr_mem, "sysusers did not add it to video"
        yield names
    finally:
        for name in reversed(made):
            run("userdel", name)


def as_user(user, bus, action):
    """Runs the client as `user` (its own groups), or as root for "root"."""
    command = [sys.executable, "-c", CLIENT, bus.address, action]
    if user != "root":
        command = ["setpriv", "--reuid", user, "--regid", str(pwd.getpwnam(user).pw_gid),
                   "--init-groups"] + command
    result = subprocess.run(command, capture_output=True, text=True, timeout=30)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


@pytest.fixture
def system_bus():
    # Other accounts must reach the socket: a directory they can enter.
    directory = tempfile.mkdtemp(prefix="dravik-bus-")
    os.chmod(directory, 0o755)
    bus = PrivateBus(directory, SYSTEM_POLICY)
    yield bus
    bus.stop()
    shutil.rmtree(directory, ignore_errors=True)


def test_root_and_the_daemon_account_may_own_the_name_and_nobody_else(accounts, system_bus):
    assert as_user("root", system_bus, "own") == {"owned": True}
    assert as_user(accounts["daemon"], system_bus, "own") == {"owned": True}
    assert as_user(accounts["video"], system_bus, "own") == {"error": ACCESS_DENIED}
    assert as_user(accounts["other"], system_bus, "own") == {"error": ACCESS_DENIED}


def test_members_of_video_may_call_and_others_are_denied(accounts, system_bus, tmp_path):
    if not os.path.exists(os.path.join(bin_dir(), "dravik_lcm_gui")):
        pytest.skip("dravik_lcm_gui is not built")
    daemon = Daemon(tmp_path / "root", system_bus)
    try:
        daemon.install_example()
        daemon.start()  # as root, which may own the name
        assert as_user(accounts["video"], system_bus, "call") == {"statusCode": 0}
        assert as_user(accounts["other"], system_bus, "call") == {"error": ACCESS_DENIED}
        assert "Could not find gui id" not in daemon.log()
    finally:
        daemon.kill()
