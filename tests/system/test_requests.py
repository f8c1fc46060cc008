"""Requests over the bus: ShowGui, ShowSimpleScreen, rejection, robustness."""
import json
import os
import subprocess
import time

import dbus
import dbus.lowlevel
import pytest

from daemon import BUS_NAME, INTERFACE, OBJECT_PATH, bin_dir, wait_for, program

# The example "logo" screen: a 120 x 80 picture centred on the 240 x 240 panel.
LOGO_BOX = (60, 80, 180, 160)


def started(daemon, *args, backlight=True):
    daemon.install_example(backlight=backlight)
    return daemon.start(*args)


def test_show_gui_with_reply_draws_the_screen_and_sets_the_backlight(daemon):
    started(daemon)
    assert daemon.lit_pixels() == 0
    reply = daemon.call("ShowGui", {"guiId": "logo", "brightness": dbus.Int32(80)})
    assert reply["statusCode"] == 0
    assert reply["functionName"] == "__response__"
    assert reply["payload"] == {"guiId": "logo", "brightness": 80}
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)
    assert daemon.lit_pixels() == daemon.lit_pixels(LOGO_BOX)
    assert wait_for(lambda: daemon.brightness_file() == b"204\0"), daemon.brightness_file()


def test_response_request_id_matches_the_request_id(daemon):
    started(daemon)
    reply = daemon.call("ShowGui", {"guiId": "logo", "id": dbus.UInt64(12345)})
    assert reply["requestId"] == 12345


def test_show_gui_without_reply_is_shown_and_not_answered(daemon):
    started(daemon)
    daemon.call("ShowGui", {"guiId": "logo"}, reply=False)
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)


def test_show_gui_of_unknown_name_reports_1_and_still_sets_brightness(daemon):
    started(daemon)
    daemon.call("ShowGui", {"guiId": "logo"})
    reply = daemon.call("ShowGui", {"guiId": "nosuch", "brightness": dbus.Int32(10)})
    assert reply["statusCode"] == 1
    assert reply["payload"] == {"guiId": "logo", "brightness": 10}
    assert "Could not find gui id 'nosuch'" in daemon.log()
    assert wait_for(lambda: daemon.brightness_file() == b"25\0")


def test_brightness_above_100_is_clamped_before_the_backlight(daemon):
    started(daemon)
    reply = daemon.call("ShowGui", {"guiId": "", "brightness": dbus.Int32(120)})
    assert reply["statusCode"] == 0
    assert reply["payload"]["brightness"] == 100
    assert wait_for(lambda: daemon.brightness_file() == b"255\0")


def test_show_simple_screen_reply_has_status_and_no_payload(daemon):
    started(daemon)
    reply = daemon.call("ShowSimpleScreen", {
        "text": dbus.Dictionary({"str": "Hi", "size": dbus.Int32(30), "alignHor": "center",
                                 "alignVert": "middle"}, signature="sv"),
        "brightness": dbus.Int32(40)})
    assert reply["statusCode"] == 0
    assert "payload" not in reply  # a null payload is left out of the a{sv}
    assert wait_for(lambda: daemon.lit_pixels() > 20)


def test_without_backlight_every_show_reports_failure(daemon):
    started(daemon, backlight=False)
    reply = daemon.call("ShowGui", {"guiId": "logo"})
    assert reply["statusCode"] == 1
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)  # but the screen is shown
    reply = daemon.call("ShowSimpleScreen", {})
    assert reply["statusCode"] == 1


def test_show_simple_screen_then_show_gui_of_the_earlier_name_redraws_it(daemon):
    started(daemon)
    daemon.call("ShowGui", {"guiId": "logo"})
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)
    daemon.call("ShowSimpleScreen", {})
    assert wait_for(lambda: daemon.lit_pixels() == 0)
    reply = daemon.call("ShowGui", {"guiId": "logo"})
    assert reply["statusCode"] == 0
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)


def test_response_expected_string_counts_as_no_reply_wanted(daemon):
    # Over the bus "responseExpected" comes from the call's header flag, whatever the body says.
    started(daemon)
    reply = daemon.call("ShowGui", {"guiId": "logo", "responseExpected": "no"})
    assert reply["statusCode"] == 0


def test_unknown_function_is_rejected(daemon):
    started(daemon)
    with pytest.raises(dbus.DBusException) as error:
        daemon.call("ShowSomething", {})
    assert error.value.get_dbus_name() == "dravik.ipc.Error.Rejected"
    assert "ShowSomething" in error.value.get_dbus_message()
    with pytest.raises(dbus.DBusException) as error:
        daemon.call("showgui", {"guiId": "logo"})
    assert error.value.get_dbus_name() == "dravik.ipc.Error.Rejected"


def test_introspection_lists_the_functions(daemon):
    started(daemon)
    out = subprocess.run(["busctl", "--address=" + daemon.bus.address, "introspect",
                          BUS_NAME, OBJECT_PATH], capture_output=True, text=True, timeout=10)
    assert out.returncode == 0, out.stderr
    assert "ShowGui" in out.stdout and "ShowSimpleScreen" in out.stdout


def test_busctl_as_client(daemon):
    started(daemon)
    out = subprocess.run(["busctl", "--address=" + daemon.bus.address, "--json=short", "call",
                          BUS_NAME, OBJECT_PATH, INTERFACE, "ShowGui", "a{sv}", "2",
                          "guiId", "s", "logo", "brightness", "i", "80"],
                         capture_output=True, text=True, timeout=10)
    assert out.returncode == 0, out.stderr
    assert '"statusCode"' in out.stdout
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)
    assert wait_for(lambda: daemon.brightness_file() == b"204\0")


def test_full_round(daemon):
    started(daemon, "-s", "boot", "-b", "30")
    assert wait_for(lambda: daemon.brightness_file() == b"76\0")
    assert wait_for(lambda: daemon.lit_pixels() > 1000)
    boot = daemon.panel_bytes()

    reply = daemon.call("ShowGui", {"guiId": "spinner", "brightness": dbus.Int32(100)})
    assert reply == {**reply, "statusCode": 0, "payload": {"guiId": "spinner", "brightness": 100}}
    assert wait_for(lambda: daemon.panel_bytes() != boot)
    first = daemon.panel_bytes()
    assert wait_for(lambda: daemon.panel_bytes() != first), "the slideshow does not move"
    assert wait_for(lambda: daemon.brightness_file() == b"255\0")

    reply = daemon.call("ShowSimpleScreen", {
        "text": dbus.Dictionary({"str": "Done", "size": dbus.Int32(40)}, signature="sv")})
    assert reply["statusCode"] == 0
    assert wait_for(lambda: daemon.lit_pixels((0, 60, 240, 240)) == 0)
    assert daemon.lit_pixels((0, 0, 120, 60)) > 50

    assert daemon.stop() == 0
    assert "Gracefully shut down" in daemon.log()


@pytest.mark.slow
def test_survives_a_burst_and_malformed_calls(daemon):
    started(daemon)
    connection = daemon.bus.connection()
    names = ["logo", "hello", "spinner", "standby", "update", "boot", "nosuch"]
    # A burst of 1,000 requests flagged NO_REPLY_EXPECTED, all queued at once
    # (requests that wait for replies would hit the bus's limit of pending
    # replies per connection first), then one that waits: it is answered only
    # after the daemon has worked through the whole burst.
    for i in range(1000):
        message = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, "ShowGui")
        message.append(dbus.Dictionary({"guiId": names[i % len(names)]}, signature="sv"),
                       signature="a{sv}")
        message.set_no_reply(True)
        connection.send_message(message)
    assert daemon.call("ShowGui", {"guiId": "logo"}, timeout=60)["statusCode"] == 0
    assert daemon.process.poll() is None
    assert daemon.log().count("Could not find gui id 'nosuch'") == 142  # every 7th of 1,000
    proxy = connection.get_object(BUS_NAME, OBJECT_PATH, introspect=False)
    malformed = [
        ("ShowGui", "s", ("not a dict",)),
        ("ShowGui", "", ()),
        ("ShowGui", "a{sv}i", ({}, 1)),
        ("ShowSimpleScreen", "a{si}", ({"brightness": 5},)),
        ("ShowSimpleScreen", "a{sv}", ({"text": dbus.Array([1, 2], signature="i"),
                                        "img": "nonsense",
                                        "brightness": dbus.String("x" * 10000)},)),
    ]
    refused = {"s", "", "a{sv}i"}  # not exactly one dictionary
    for name, signature, args in malformed * 20:
        try:
            connection.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, name, signature, args,
                                     timeout=10)
            assert signature not in refused, signature
        except dbus.DBusException as error:
            assert signature in refused, (signature, error)
            assert error.get_dbus_name() == "org.freedesktop.DBus.Error.InvalidArgs"
    reply = daemon.call("ShowGui", {"guiId": "logo", "brightness": dbus.Int32(60)})
    assert reply["statusCode"] == 0
    assert daemon.process.poll() is None
    assert daemon.stop() == 0


def ipc_call(daemon, *args):
    return subprocess.run(program("ipc_call") + ["--address", daemon.bus.address]
                          + list(args), capture_output=True, text=True, timeout=20)


def test_ipc_call_client(daemon):
    started(daemon)
    listed = ipc_call(daemon, "--list", "dravik_lcm_gui")
    assert listed.returncode == 0, listed.stderr
    assert listed.stdout.split() == ["ShowGui", "ShowSimpleScreen"]

    shown = ipc_call(daemon, "dravik_lcm_gui", "ShowGui", '{"guiId": "logo", "brightness": 80}')
    assert shown.returncode == 0, shown.stderr
    response = json.loads(shown.stdout)
    assert response["statusCode"] == 0
    assert response["payload"] == {"guiId": "logo", "brightness": 80}
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)

    failed = ipc_call(daemon, "--show-gui", "nosuch")
    assert failed.returncode == 1
    assert json.loads(failed.stdout)["statusCode"] == 1

    text = ipc_call(daemon, "--show-text", "Hello", "--size", "30", "--brightness", "20")
    assert text.returncode == 0, text.stderr
    assert wait_for(lambda: daemon.brightness_value() == "51"), daemon.brightness_file()

    quiet = ipc_call(daemon, "--no-reply", "dravik_lcm_gui", "ShowGui", '{"guiId": "logo"}')
    assert quiet.returncode == 0 and quiet.stdout == ""
    assert wait_for(lambda: daemon.lit_pixels(LOGO_BOX) > 1000)

    rejected = ipc_call(daemon, "dravik_lcm_gui", "Reboot")
    assert rejected.returncode == 3
    assert "dravik.ipc.Error.Rejected" in rejected.stderr

    bad = ipc_call(daemon, "dravik_lcm_gui", "ShowGui", "[1, 2]")
    assert bad.returncode == 2
    assert "must be a JSON object" in bad.stderr
