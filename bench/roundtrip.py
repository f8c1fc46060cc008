#!/usr/bin/python3
"""Round-trip time of requests to the running daemon over a private bus.

Starts build/bin/dravik_lcm_gui the way the system tests do (private
dbus-daemon, simulated 16-bit panel, private mount namespace with the example
screens file), then times N blocking calls of each kind and prints min, p50,
p90, p99 and max in milliseconds:

  bus Ping          org.freedesktop.DBus.Peer.Ping answered by dbus-daemon itself
  Ping              the same, answered by the daemon (sd-bus answers it)
  Introspect        answered by the daemon's endpoint from its registered names
  ShowGui same      ShowGui of the screen on show: normalise, reply, no redraw
  ShowGui alternate ShowGui alternating "logo" and "hello": every call redraws,
                    and the redraw runs in the tick after the reply, so a call
                    can wait for the previous call's redraw

Each figure includes dbus-python's own marshalling in this process. Needs
/usr/bin/python3 with python3-dbus, dbus-daemon, and the daemon, fakefb-run
and make_example_images in the binary directory (--bin-dir, else
$DRAVIK_BIN_DIR, else build/bin of the source tree).
"""
import argparse
import math
import os
import shutil
import sys
import tempfile
import time

import dbus

sys.dont_write_bytecode = True  # leave no __pycache__ in the source tree
SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(SOURCE_DIR, "tests", "system"))

from daemon import BUS_NAME, INTERFACE, OBJECT_PATH, Daemon, PrivateBus, bin_dir  # noqa: E402

REQUIRED_PROGRAMS = ("dravik_lcm_gui", "fakefb-run", "make_example_images")


def percentile(sorted_values, p):
    """Nearest-rank percentile of an ascending list."""
    rank = max(1, math.ceil(p / 100.0 * len(sorted_values)))
    return sorted_values[rank - 1]


def attempt(call, failures):
    """One call; a D-Bus error or a falsy result is recorded in failures."""
    try:
        if not call():
            failures.append("unexpected reply")
    except dbus.DBusException as e:
        failures.append(e.get_dbus_message() or e.get_dbus_name() or str(e))


def time_calls(call, count, warmup):
    """Runs call() warmup + count times; returns the timed durations (ms) and failures."""
    failures = []
    for _ in range(warmup):
        attempt(call, failures)
    durations = []
    for _ in range(count):
        start = time.perf_counter_ns()
        attempt(call, failures)
        durations.append((time.perf_counter_ns() - start) / 1e6)
    return durations, failures


def report_line(name, durations, failures):
    values = sorted(durations)
    stats = [values[0], percentile(values, 50), percentile(values, 90), percentile(values, 99),
             values[-1]]
    return f"{name:<18} {len(values):>6} " + " ".join(f"{v:>8.3f}" for v in stats) + \
        f" {len(failures):>8}"


def checked_show_gui(method, gui_id):
    """A ShowGui call that counts only a reply with statusCode 0 as success."""
    body = dbus.Dictionary({"guiId": gui_id}, signature="sv")

    def call():
        reply = method(body, timeout=10)
        if int(reply["statusCode"]) != 0:
            raise dbus.DBusException(f"statusCode {int(reply['statusCode'])}")
        return True
    return call


def alternating_show_gui(method, names):
    calls = [checked_show_gui(method, name) for name in names]
    state = {"next": 0}

    def call():
        index = state["next"]
        state["next"] = (index + 1) % len(calls)
        return calls[index]()
    return call


def series(bus):
    connection = bus.connection()
    daemon_obj = connection.get_object(BUS_NAME, OBJECT_PATH, introspect=False)
    bus_obj = connection.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                    introspect=False)
    bus_ping = bus_obj.get_dbus_method("Ping", "org.freedesktop.DBus.Peer")
    ping = daemon_obj.get_dbus_method("Ping", "org.freedesktop.DBus.Peer")
    introspect = daemon_obj.get_dbus_method("Introspect", "org.freedesktop.DBus.Introspectable")
    show_gui = daemon_obj.get_dbus_method("ShowGui", INTERFACE)

    def introspect_call():
        xml = introspect(timeout=10)
        if "ShowGui" not in xml:
            raise dbus.DBusException("ShowGui missing from the introspection data")
        return True

    return [
        ("bus Ping", lambda: bus_ping(timeout=10) is None),
        ("Ping", lambda: ping(timeout=10) is None),
        ("Introspect", introspect_call),
        ("ShowGui same", checked_show_gui(show_gui, "logo")),
        ("ShowGui alternate", alternating_show_gui(show_gui, ["hello", "logo"])),
    ]


def missing_prerequisites():
    missing = [] if shutil.which("dbus-daemon") else ["dbus-daemon (not on PATH)"]
    missing += [os.path.join(bin_dir(), p) for p in REQUIRED_PROGRAMS
                if not os.path.exists(os.path.join(bin_dir(), p))]
    return missing


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("-n", "--calls", type=int, default=1000, help="timed calls per kind")
    parser.add_argument("--warmup", type=int, default=50, help="untimed calls before each kind")
    parser.add_argument("--bin-dir", help="directory of the built programs")
    args = parser.parse_args()
    if args.calls < 1 or args.warmup < 0:
        parser.error("--calls must be at least 1 and --warmup not negative")
    if args.bin_dir:
        os.environ["DRAVIK_BIN_DIR"] = os.path.abspath(args.bin_dir)
    missing = missing_prerequisites()
    if missing:
        print("roundtrip: missing " + ", ".join(missing), file=sys.stderr)
        return 2

    failed = False
    with tempfile.TemporaryDirectory(prefix="dravik_roundtrip_") as root:
        bus = PrivateBus(os.path.join(root, "bus"))
        daemon = Daemon(os.path.join(root, "root"), bus)
        try:
            daemon.install_example()
            daemon.start()
            print(f"{args.calls} calls each after {args.warmup} untimed; times in ms")
            print(f"{'call':<18} {'n':>6} {'min':>8} {'p50':>8} {'p90':>8} {'p99':>8} "
                  f"{'max':>8} {'failures':>8}")
            for name, call in series(bus):
                durations, failures = time_calls(call, args.calls, args.warmup)
                print(report_line(name, durations, failures), flush=True)
                if failures:
                    failed = True
                    print(f"  first failure: {failures[0]}", file=sys.stderr)
            if daemon.process.poll() is not None:
                print("roundtrip: the daemon exited during the run:\n" + daemon.log(),
                      file=sys.stderr)
                failed = True
        finally:
            if daemon.process is not None and daemon.process.poll() is None:
                daemon.stop()
            daemon.kill()
            bus.stop()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
