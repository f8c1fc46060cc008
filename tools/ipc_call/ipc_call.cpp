// ipc_call: calls a function of a process on the IPC bus with a JSON request and
// prints the response as JSON. See --help.
#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "dravik_ipc/dbus_value.h"
#include "dravik_ipc/ipc.h"
#include "dravik_ipc/sdbus_handles.h"
#include "dravik_variant/variant.h"
#include "invocation.h"

using dravik::ipc::BusError;
using dravik::ipc::BusHandle;
using dravik::ipc::MessageHandle;
using dravik::variant::Variant;

namespace dravik::ipccall {
namespace {

void usage(FILE* out, const char* prog) {
    fprintf(
        out,
        "Usage: %1$s [OPTIONS] PROCESS FUNCTION [REQUEST]\n"
        "       %1$s [OPTIONS] --list PROCESS\n"
        "       %1$s [OPTIONS] --show-gui NAME [--brightness PERCENT]\n"
        "       %1$s [OPTIONS] --show-text TEXT [--size PIXELS] [--brightness PERCENT]\n"
        "\n"
        "Calls FUNCTION of the process registered on the IPC bus as PROCESS with REQUEST, a\n"
        "JSON object (default {}), and prints the response object as JSON.\n"
        "\n"
        "Options:\n"
        "  -y, --system           use the system bus (default; honours DBUS_SYSTEM_BUS_ADDRESS)\n"
        "  -u, --session          use the user's session bus\n"
        "  -a, --address ADDRESS  use the bus at ADDRESS (e.g. unix:path=/run/bus.socket)\n"
        "  -n, --no-reply         send the request without waiting for a response\n"
        "  -t, --timeout MS       wait at most MS milliseconds for the response (default %3$ld)\n"
        "  -l, --list             list the functions that PROCESS serves\n"
        "  -i, --indent N         indent the printed JSON by N (default 2; -1: one line)\n"
        "  -h, --help             show this help\n"
        "\n"
        "Short forms for the LCD panel daemon (PROCESS %2$s):\n"
        "  -g, --show-gui NAME    ShowGui of the configured screen NAME (\"\" keeps the screen)\n"
        "  -s, --show-text TEXT   ShowSimpleScreen of TEXT, centred on the panel\n"
        "  -S, --size PIXELS      font size for --show-text (default %4$d)\n"
        "  -b, --brightness PCT   backlight percentage for either short form\n"
        "\n"
        "JSON integers travel as 32-bit (or 64-bit) integers, fractions as doubles, objects\n"
        "as a{sv}, arrays as av. The process name maps to the bus name dravik.ipc.PROCESS and\n"
        "the object path /dravik/ipc/PROCESS.\n"
        "\n"
        "Exit status: 0 response with \"statusCode\" 0 (or sent without reply); 1 response\n"
        "with another \"statusCode\"; 2 bad usage or request; 3 the call failed with a D-Bus\n"
        "error (printed); 4 the bus cannot be reached.\n"
        "\n"
        "Examples:\n"
        "  %1$s %2$s ShowGui '{\"guiId\": \"boot\", \"brightness\": 80}'\n"
        "  %1$s -g update -b 100\n"
        "  %1$s --no-reply %2$s ShowSimpleScreen '{\"text\": {\"str\": \"Hi\", \"size\": 30}}'\n",
        prog, kDaemon, kDefaultTimeoutMs, kDefaultShowTextSize);
}

int reportBusError(const BusError& error, int result) {
    fprintf(stderr, "ipc_call: %s: %s\n", *error.name() != '\0' ? error.name() : "error",
            *error.message() != '\0' ? error.message() : strerror(-result));
    return kBusError;
}

// Opens the bus at an address given on the command line, as a client.
int openAddress(const std::string& address, sd_bus** bus) {
    int r = sd_bus_new(bus);
    if (r >= 0) {
        r = sd_bus_set_address(*bus, address.c_str());
    }
    if (r >= 0) {
        r = sd_bus_set_bus_client(*bus, 1);
    }
    if (r >= 0) {
        r = sd_bus_start(*bus);
    }
    return r;
}

BusHandle connect(const Invocation& o) {
    sd_bus* raw = nullptr;
    int r = 0;
    switch (o.bus) {
        case Invocation::Bus::kSystem:
            r = sd_bus_open_system(&raw);
            break;
        case Invocation::Bus::kSession:
            r = sd_bus_open_user(&raw);
            break;
        case Invocation::Bus::kAddress:
            r = openAddress(o.address, &raw);
            break;
    }
    BusHandle bus(raw);  // also a half-built one, so that it is released
    if (r < 0) {
        fprintf(stderr, "ipc_call: cannot connect to the bus: %s\n", strerror(-r));
        return nullptr;
    }
    return bus;
}

int listFunctions(sd_bus* bus, const std::string& process) {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(
        bus, Ipc::BusNameFor(process).c_str(), Ipc::ObjectPathFor(process).c_str(),
        "org.freedesktop.DBus.Introspectable", "Introspect", error.get(), &raw, "");
    const MessageHandle reply(raw);
    if (r < 0) {
        return reportBusError(error, r);
    }
    const char* xml = nullptr;
    if (sd_bus_message_read(reply.get(), "s", &xml) < 0 || xml == nullptr) {
        fprintf(stderr, "ipc_call: the introspection reply holds no XML\n");
        return kBusError;
    }
    for (const auto& name : FunctionsIn(xml, Ipc::kInterface)) {
        printf("%s\n", name.c_str());
    }
    return kOk;
}

// The method call carrying the request, or none (reported).
MessageHandle buildCall(sd_bus* bus, const Invocation& o) {
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_message_new_method_call(bus, &raw, Ipc::BusNameFor(o.process).c_str(),
                                                 Ipc::ObjectPathFor(o.process).c_str(),
                                                 Ipc::kInterface, o.function.c_str());
    MessageHandle message(raw);
    if (r < 0) {
        fprintf(stderr, "ipc_call: cannot build a call of '%s': %s\n", o.function.c_str(),
                strerror(-r));
        return nullptr;
    }
    std::string why;
    if (!dravik::ipc::AppendObject(message.get(), o.request, why)) {
        fprintf(stderr, "ipc_call: the request cannot be sent: %s\n", why.c_str());
        return nullptr;
    }
    return message;
}

int sendWithoutReply(sd_bus* bus, sd_bus_message* message) {
    (void)sd_bus_message_set_expect_reply(message, 0);  // cannot fail on a new call
    int r = sd_bus_send(bus, message, nullptr);
    if (r >= 0) {
        r = sd_bus_flush(bus);
    }
    if (r < 0) {
        fprintf(stderr, "ipc_call: cannot send: %s\n", strerror(-r));
        return kBusError;
    }
    return kOk;
}

int callAndPrint(sd_bus* bus, sd_bus_message* message, const Invocation& o) {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call(bus, message, o.timeoutUs, error.get(), &raw);
    const MessageHandle reply(raw);
    if (r < 0) {
        return reportBusError(error, r);
    }
    Variant response;
    std::string why;
    if (!dravik::ipc::ReadObjectBody(reply.get(), response, why)) {
        fprintf(stderr, "ipc_call: the response cannot be read: %s\n", why.c_str());
        return kBusError;
    }
    printf("%s\n", response.ToJSON(o.indent).c_str());
    return ExitStatusOf(response);
}

int call(sd_bus* bus, const Invocation& o) {
    const MessageHandle message = buildCall(bus, o);
    if (!message) {
        return kUsage;
    }
    return o.noReply ? sendWithoutReply(bus, message.get()) : callAndPrint(bus, message.get(), o);
}

int run(const Invocation& invocation) {
    const BusHandle bus = connect(invocation);
    if (!bus) {
        return kNoBus;
    }
    return invocation.list ? listFunctions(bus.get(), invocation.process)
                           : call(bus.get(), invocation);
}

}  // namespace
}  // namespace dravik::ipccall

int main(int argc, char** argv) {
    namespace ipccall = dravik::ipccall;
    return dravik::utils::toolMain<ipccall::Invocation>(
        {"ipc_call", ipccall::usage, true}, argc, argv, ipccall::ParseCommandLine, ipccall::run);
}
