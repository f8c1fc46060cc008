"""Hostile callers: bodies of the wrong shape and names that try to forge log records."""
import dbus
import pytest

from daemon import BUS_NAME, INTERFACE, OBJECT_PATH, wait_for

INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"

WRONG_SHAPES = [
    ("an empty body", "", ()),
    ("a bare string", "s", ("logo",)),
    ("two arguments", "a{sv}s", ({"guiId": "logo"}, "x")),
    ("two dictionaries", "a{sv}a{sv}", ({"guiId": "logo"}, {})),
    ("integer keys", "a{iv}", ({1: dbus.String("logo", variant_level=1)},)),
    ("byte keys", "a{ys}", ({dbus.Byte(1): "logo"},)),
]


@pytest.mark.parametrize("what,signature,args", WRONG_SHAPES, ids=[w[0] for w in WRONG_SHAPES])
def test_a_body_of_the_wrong_shape_is_invalid_args_and_changes_nothing(daemon, what, signature,
                                                                      args):
    daemon.install_example()
    daemon.start()
    daemon.call("ShowGui", {"guiId": "hello", "brightness": dbus.Int32(20)})
    assert wait_for(lambda: daemon.lit_pixels() > 0 and daemon.brightness_value() == "51")
    panel = daemon.panel_bytes()
    for name in ("ShowGui", "ShowSimpleScreen"):
        with pytest.raises(dbus.DBusException) as raised:
            daemon.bus.connection().call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, name,
                                                  signature, args, timeout=10)
        assert raised.value.get_dbus_name() == INVALID_ARGS
        assert "a{sv}" in raised.value.get_dbus_message()
    # The next well-formed call is served, and nothing changed before it.
    assert daemon.call("ShowGui", {"guiId": "hello"})["statusCode"] == 0
    assert daemon.panel_bytes() == panel
    assert daemon.brightness_value() == "51"


def test_a_name_with_line_breaks_cannot_forge_log_records(daemon):
    daemon.install_example()
    daemon.start()
    forged = "x\n2026-01-01 00:00:00.000 ERROR dravik_lcm_gui[1] main.cpp:1 main: Gracefully shut down"
    reply = daemon.call("ShowGui", {"guiId": forged})
    assert reply["statusCode"] == 1
    assert wait_for(lambda: "Could not find gui id" in daemon.log())
    lines = daemon.log().splitlines()
    assert not any(line.startswith("2026-01-01") for line in lines), daemon.log()
    assert any(line.endswith("Could not find gui id 'x\\n2026-01-01 00:00:00.000 ERROR "
                             "dravik_lcm_gui[1] main.cpp:1 main: Gracefully shut down'")
               for line in lines), daemon.log()
