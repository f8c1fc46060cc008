"""One client of the load test: a fixed, seeded mix of calls on its own bus connection.

    load_client.py ADDRESS CLIENT ROUND CALLS

The client connects, writes "ready" on a line of its own and waits for a line
on its standard input before it starts, so that all clients start together.
Every call that expects a reply is checked against what the daemon must answer;
calls flagged NO_REPLY_EXPECTED are only sent. Prints one JSON object: the
number of calls of each kind, the unknown screen names sent without a reply
(each one must show up in the daemon's log), and the first mismatches found.
"""
import json
import random
import sys
import time

import dbus
import dbus.lowlevel

from daemon import BUS_NAME, INTERFACE, OBJECT_PATH, unwrap

SCREENS = ["hello", "logo", "spinner", "standby", "update", "boot"]
INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
REJECTED = "dravik.ipc.Error.Rejected"

# Bodies that are not one dictionary with string keys; each must be refused.
NOT_A_DICTIONARY = [
    ("s", ("not a dict",)),
    ("a{iv}", (dbus.Dictionary({1: "x"}, signature="iv"),)),
    ("a{sv}i", (dbus.Dictionary({"guiId": "logo"}, signature="sv"), 1)),
    ("i", (7,)),
    ("as", (["guiId", "logo"],)),
]

# One dictionary whose values have the wrong types: repaired to the defaults,
# which leave the screen and the backlight as they are.
WRONG_VALUE_TYPES = [
    {"guiId": dbus.Int32(7), "brightness": "high"},
    {"guiId": dbus.Array([1, 2], signature="i"), "brightness": dbus.Double(0.5)},
    {"guiId": dbus.Boolean(True), "brightness": dbus.Array(["50"], signature="s")},
]


def text_record(rng):
    return dbus.Dictionary({"str": rng.choice(["Ready", "Busy", "Saving", "42 %"]),
                            "size": dbus.Int32(rng.choice([12, 18, 24, 30])),
                            "alignHor": rng.choice(["left", "center", "right"]),
                            "alignVert": rng.choice(["top", "middle", "bottom"])},
                           signature="sv")


class Client:
    def __init__(self, address, client, round_number):
        self.connection = dbus.bus.BusConnection(address)
        self.client = client
        self.round = round_number
        self.rng = random.Random(client)  # the same calls in every round
        self.counts = {}
        self.lost_names = []
        self.mismatches = []
        self.next_id = client * 1_000_000 + 1

    def count(self, kind):
        self.counts[kind] = self.counts.get(kind, 0) + 1

    def mismatch(self, what):
        if len(self.mismatches) < 20:
            self.mismatches.append(what)

    def call(self, function, signature, args):
        return self.connection.call_blocking(BUS_NAME, OBJECT_PATH, INTERFACE, function,
                                             signature, args, timeout=30)

    def send_without_reply(self, function, request):
        message = dbus.lowlevel.MethodCallMessage(BUS_NAME, OBJECT_PATH, INTERFACE, function)
        message.append(dbus.Dictionary(request, signature="sv"), signature="a{sv}")
        message.set_no_reply(True)
        self.connection.send_message(message)

    def expect_reply(self, kind, function, request, status, payload=None):
        request_id = self.next_id
        self.next_id += 1
        request = dict(request, id=dbus.UInt64(request_id))
        try:
            reply = unwrap(self.call(function, "a{sv}", (dbus.Dictionary(request,
                                                                        signature="sv"),)))
        except dbus.DBusException as error:
            self.mismatch([kind, repr(request), "error " + error.get_dbus_name()])
            return
        if reply.get("statusCode") != status or reply.get("requestId") != request_id:
            self.mismatch([kind, repr(request), reply])
        elif payload is not None and reply.get("payload") != payload:
            self.mismatch([kind, repr(request), reply])
        self.count(kind)

    def expect_error(self, kind, function, signature, args, names):
        try:
            reply = self.call(function, signature, args)
        except dbus.DBusException as error:
            if error.get_dbus_name() in names:
                self.count(kind)
            else:
                self.mismatch([kind, signature, error.get_dbus_name()])
            return
        self.mismatch([kind, signature, "answered " + repr(unwrap(reply))])

    def show_gui(self):
        rng = self.rng
        name = rng.choice(SCREENS + ["nosuch"])
        request = {"guiId": name}
        brightness = None
        if rng.random() < 0.5:
            brightness = rng.randrange(0, 101)
            request["brightness"] = dbus.Int32(brightness)
        if name == "nosuch":
            self.expect_reply("ShowGui unknown", "ShowGui", request, 1)
        elif brightness is None:
            self.expect_reply("ShowGui", "ShowGui", request, 0)
        else:
            # The call is served as a whole before the next one, so its
            # payload is its own screen and brightness whatever the others do.
            self.expect_reply("ShowGui", "ShowGui", request, 0,
                              {"guiId": name, "brightness": brightness})

    def empty_body(self):
        # Not a request at all: refused before the daemon sees it.
        try:
            reply = unwrap(self.call("ShowGui", "", ()))
        except dbus.DBusException as error:
            if error.get_dbus_name() == INVALID_ARGS:
                self.count("empty body")
            else:
                self.mismatch(["empty body", error.get_dbus_name()])
            return
        self.mismatch(["empty body", reply])

    def unknown_function(self, functions):
        """A call of one of `functions`, which the daemon does not have."""
        function = self.rng.choice(functions)
        self.expect_error("unknown function", function, "a{sv}",
                          (dbus.Dictionary({"guiId": "logo"}, signature="sv"),), {REJECTED})

    def not_a_request(self):
        """A body that is empty or not one dictionary with string keys."""
        rng = self.rng
        if rng.random() < 0.2:
            self.empty_body()
        else:
            signature, args = rng.choice(NOT_A_DICTIONARY)
            self.expect_error("not a dictionary", rng.choice(["ShowGui", "ShowSimpleScreen"]),
                              signature, args, {INVALID_ARGS})

    def wrong_value_types(self):
        self.expect_reply("wrong value types", "ShowGui", self.rng.choice(WRONG_VALUE_TYPES), 0)

    def one_call(self, i):
        rng = self.rng
        pick = rng.random()
        if pick < 0.30:
            self.show_gui()
        elif pick < 0.45:
            request = {"text": text_record(rng)}
            if rng.random() < 0.5:
                request["brightness"] = dbus.Int32(rng.randrange(0, 101))
            self.expect_reply("ShowSimpleScreen", "ShowSimpleScreen", request, 0)
        elif pick < 0.65:
            if rng.random() < 0.25:
                # A name seen nowhere else: its log line proves the call was served.
                name = f"lost-r{self.round}-c{self.client}-{i}"
                self.lost_names.append(name)
            else:
                name = rng.choice(SCREENS)
            self.send_without_reply("ShowGui", {"guiId": name,
                                                "brightness": dbus.Int32(rng.randrange(0, 101))})
            self.count("ShowGui no reply")
        elif pick < 0.75:
            self.send_without_reply("ShowSimpleScreen", {"text": text_record(rng)})
            self.count("ShowSimpleScreen no reply")
        elif pick < 0.83:
            self.unknown_function(["ShowSomething", "Reboot", "showgui"])
        elif pick < 0.93:
            self.not_a_request()
        else:
            self.wrong_value_types()

    def run(self, calls):
        start = time.monotonic()
        for i in range(calls):
            self.one_call(i)
        self.connection.flush()
        return {"counts": self.counts, "lost": self.lost_names, "mismatches": self.mismatches,
                "seconds": time.monotonic() - start}


def main():
    address, client, round_number, calls = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), \
        int(sys.argv[4])
    load = Client(address, client, round_number)
    print("ready", flush=True)
    sys.stdin.readline()
    result = load.run(calls)
    json.dump(result, sys.stdout, default=repr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
