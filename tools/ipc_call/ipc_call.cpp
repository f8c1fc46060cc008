// ipc_call: calls a function of a process on the IPC bus with a JSON request and
// prints the response as JSON. See --help.
#include <getopt.h>
#include <systemd/sd-bus.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "dravik_ipc/dbus_value.h"
#include "dravik_variant/variant.h"

using dravik::variant::Variant;

namespace {

// Exit statuses, documented in --help.
enum Exit {
    kOk = 0,
    kStatusNotZero = 1,
    kUsage = 2,
    kBusError = 3,
    kNoBus = 4,
};

const char kInterface[] = "dravik.ipc.Endpoint";
const char kDaemon[] = "dravik_lcm_gui";

struct Options {
    enum class Bus { kSystem, kSession, kAddress } bus = Bus::kSystem;
    std::string address;
    bool noReply = false;
    bool list = false;
    uint64_t timeoutUs = 5000000;
    int indent = 2;
    std::string showGui;
    std::string showText;
    bool hasShowGui = false;
    bool hasShowText = false;
    long brightness = -1000;
    long size = -1;
};

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
        "  -t, --timeout MS       wait at most MS milliseconds for the response (default 5000)\n"
        "  -l, --list             list the functions that PROCESS serves\n"
        "  -i, --indent N         indent the printed JSON by N (default 2; -1: one line)\n"
        "  -h, --help             show this help\n"
        "\n"
        "Short forms for the LCD panel daemon (PROCESS %2$s):\n"
        "  -g, --show-gui NAME    ShowGui of the configured screen NAME (\"\" keeps the screen)\n"
        "  -s, --show-text TEXT   ShowSimpleScreen of TEXT, centred on the panel\n"
        "  -S, --size PIXELS      font size for --show-text (default 24)\n"
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
        prog, kDaemon);
}

// The bus name and object path of a process: each character outside
// [A-Za-z0-9_] becomes '_'.
std::string escaped(const std::string& name) {
    std::string out = name;
    for (char& c : out) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_') {
            c = '_';
        }
    }
    return out;
}

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using BusPtr = std::unique_ptr<sd_bus, BusDeleter>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageDeleter>;

struct BusError {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    ~BusError() { sd_bus_error_free(&error); }
};

BusPtr connect(const Options& o) {
    sd_bus* bus = nullptr;
    int r = 0;
    switch (o.bus) {
        case Options::Bus::kSystem:
            r = sd_bus_open_system(&bus);
            break;
        case Options::Bus::kSession:
            r = sd_bus_open_user(&bus);
            break;
        case Options::Bus::kAddress:
            r = sd_bus_new(&bus);
            if (r >= 0) {
                r = sd_bus_set_address(bus, o.address.c_str());
            }
            if (r >= 0) {
                r = sd_bus_set_bus_client(bus, 1);
            }
            if (r >= 0) {
                r = sd_bus_start(bus);
            }
            break;
    }
    if (r < 0) {
        fprintf(stderr, "ipc_call: cannot connect to the bus: %s\n", strerror(-r));
        sd_bus_unref(bus);
        return nullptr;
    }
    return BusPtr(bus);
}

bool parseLong(const char* text, long& value) {
    char* end = nullptr;
    errno = 0;
    value = strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0';
}

int listFunctions(sd_bus* bus, const std::string& process) {
    const std::string id = escaped(process);
    BusError error;
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call_method(
        bus, ("dravik.ipc." + id).c_str(), ("/dravik/ipc/" + id).c_str(),
        "org.freedesktop.DBus.Introspectable", "Introspect", &error.error, &reply, "");
    MessagePtr owned(reply);
    if (r < 0) {
        fprintf(stderr, "ipc_call: %s: %s\n", error.error.name ? error.error.name : "error",
                error.error.message ? error.error.message : strerror(-r));
        return kBusError;
    }
    const char* xml = nullptr;
    if (sd_bus_message_read(reply, "s", &xml) < 0 || xml == nullptr) {
        fprintf(stderr, "ipc_call: the introspection reply holds no XML\n");
        return kBusError;
    }
    // The endpoint's introspection data lists each function as <method name="...">
    // inside <interface name="dravik.ipc.Endpoint">; that is all we need of it.
    const std::string text = xml;
    const std::string start = std::string("<interface name=\"") + kInterface + "\"";
    size_t pos = text.find(start);
    const size_t stop = pos == std::string::npos ? pos : text.find("</interface>", pos);
    std::set<std::string> names;
    while (pos != std::string::npos && (pos = text.find("<method name=\"", pos)) < stop) {
        pos += strlen("<method name=\"");
        names.insert(text.substr(pos, text.find('"', pos) - pos));
    }
    for (const auto& name : names) {
        printf("%s\n", name.c_str());
    }
    return kOk;
}

int call(sd_bus* bus, const Options& o, const std::string& process, const std::string& function,
         const Variant& request) {
    const std::string id = escaped(process);
    sd_bus_message* raw = nullptr;
    int r =
        sd_bus_message_new_method_call(bus, &raw, ("dravik.ipc." + id).c_str(),
                                       ("/dravik/ipc/" + id).c_str(), kInterface, function.c_str());
    MessagePtr message(raw);
    if (r < 0) {
        fprintf(stderr, "ipc_call: cannot build a call of '%s': %s\n", function.c_str(),
                strerror(-r));
        return kUsage;
    }
    std::string why;
    if (!dravik::ipc::AppendObject(message.get(), request, why)) {
        fprintf(stderr, "ipc_call: the request cannot be sent: %s\n", why.c_str());
        return kUsage;
    }
    if (o.noReply) {
        (void)sd_bus_message_set_expect_reply(message.get(), 0);  // cannot fail on a new call
        r = sd_bus_send(bus, message.get(), nullptr);
        if (r >= 0) {
            r = sd_bus_flush(bus);
        }
        if (r < 0) {
            fprintf(stderr, "ipc_call: cannot send: %s\n", strerror(-r));
            return kBusError;
        }
        return kOk;
    }
    BusError error;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call(bus, message.get(), o.timeoutUs, &error.error, &reply);
    MessagePtr ownedReply(reply);
    if (r < 0) {
        fprintf(stderr, "ipc_call: %s: %s\n", error.error.name ? error.error.name : "error",
                error.error.message ? error.error.message : strerror(-r));
        return kBusError;
    }
    Variant response;
    if (!dravik::ipc::ReadObjectBody(reply, response, why)) {
        fprintf(stderr, "ipc_call: the response cannot be read: %s\n", why.c_str());
        return kBusError;
    }
    printf("%s\n", response.ToJSON(o.indent).c_str());
    const Variant* status = response.Find("statusCode");
    return (status == nullptr || status->AsUInt64() == 0) ? kOk : kStatusNotZero;
}

}  // namespace

int main(int argc, char** argv) {
    static const option kOptions[] = {
        {"system", no_argument, nullptr, 'y'},
        {"session", no_argument, nullptr, 'u'},
        {"address", required_argument, nullptr, 'a'},
        {"no-reply", no_argument, nullptr, 'n'},
        {"timeout", required_argument, nullptr, 't'},
        {"list", no_argument, nullptr, 'l'},
        {"indent", required_argument, nullptr, 'i'},
        {"help", no_argument, nullptr, 'h'},
        {"show-gui", required_argument, nullptr, 'g'},
        {"show-text", required_argument, nullptr, 's'},
        {"size", required_argument, nullptr, 'S'},
        {"brightness", required_argument, nullptr, 'b'},
        {nullptr, 0, nullptr, 0},
    };
    Options o;
    long number = 0;
    int c;
    while ((c = getopt_long(argc, argv, "yua:nt:li:hg:s:S:b:", kOptions, nullptr)) != -1) {
        switch (c) {
            case 'y':
                o.bus = Options::Bus::kSystem;
                break;
            case 'u':
                o.bus = Options::Bus::kSession;
                break;
            case 'a':
                o.bus = Options::Bus::kAddress;
                o.address = optarg;
                break;
            case 'n':
                o.noReply = true;
                break;
            case 'l':
                o.list = true;
                break;
            case 'h':
                usage(stdout, argv[0]);
                return kOk;
            case 'g':
                o.showGui = optarg;
                o.hasShowGui = true;
                break;
            case 's':
                o.showText = optarg;
                o.hasShowText = true;
                break;
            case 't':
            case 'i':
            case 'S':
            case 'b':
                if (!parseLong(optarg, number)) {
                    fprintf(stderr, "ipc_call: '%s' is not a number\n", optarg);
                    return kUsage;
                }
                if (c == 't')
                    o.timeoutUs = static_cast<uint64_t>(number > 0 ? number : 1) * 1000u;
                if (c == 'i')
                    o.indent = static_cast<int>(number);
                if (c == 'S')
                    o.size = number;
                if (c == 'b')
                    o.brightness = number;
                break;
            default:
                usage(stderr, argv[0]);
                return kUsage;
        }
    }
    const int rest = argc - optind;
    std::string process;
    std::string function;
    Variant request = Variant::MakeContainer(dravik::variant::kObject);
    if (o.hasShowGui || o.hasShowText) {
        if (rest != 0 || (o.hasShowGui && o.hasShowText) || o.list) {
            usage(stderr, argv[0]);
            return kUsage;
        }
        process = kDaemon;
        if (o.hasShowGui) {
            function = "ShowGui";
            request["guiId"] = o.showGui;
        } else {
            function = "ShowSimpleScreen";
            Variant& text = request["text"];
            text["str"] = o.showText;
            text["size"] = static_cast<int>(o.size > 0 ? o.size : 24);
            text["alignHor"] = "center";
            text["alignVert"] = "middle";
        }
        if (o.brightness != -1000) {
            request["brightness"] = static_cast<int>(o.brightness);
        }
    } else if (o.list) {
        if (rest != 1) {
            usage(stderr, argv[0]);
            return kUsage;
        }
        process = argv[optind];
    } else {
        if (rest < 2 || rest > 3) {
            usage(stderr, argv[0]);
            return kUsage;
        }
        process = argv[optind];
        function = argv[optind + 1];
        if (rest == 3 && !request.FromJSONString(argv[optind + 2])) {
            const auto& e = Variant::LastJsonError();
            fprintf(stderr, "ipc_call: REQUEST is not JSON: %zu:%zu: %s\n", e.line, e.column,
                    e.message.c_str());
            return kUsage;
        }
        if (request.Type() != dravik::variant::kObject) {
            fprintf(stderr, "ipc_call: REQUEST must be a JSON object\n");
            return kUsage;
        }
    }

    BusPtr bus = connect(o);
    if (!bus) {
        return kNoBus;
    }
    return o.list ? listFunctions(bus.get(), process)
                  : call(bus.get(), o, process, function, request);
}
