#include "invocation.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "dravik_utils/getopt_table.h"

namespace ipc_call {

namespace {

using dravik::utils::GetoptTables;
using dravik::utils::getoptTables;
using dravik::variant::Variant;

// Takes a checked number into the invocation.
using NumberSetter = void (*)(Invocation&, long);
// Takes a string argument (or none) into the invocation.
using TextSetter = void (*)(Invocation&, const char*);

// One option: its names, and what it sets. A number option has `number`, every
// other one `text`; `help` ends the parse.
struct OptionRow {
    const char* name;
    char letter;
    bool takesArgument;
    TextSetter text;
    NumberSetter number;
};

// clang-format off
const OptionRow kOptionRows[] = {
    {"system",     'y', false, [](Invocation& o, const char*) { o.bus = Invocation::Bus::kSystem; }, nullptr},
    {"session",    'u', false, [](Invocation& o, const char*) { o.bus = Invocation::Bus::kSession; }, nullptr},
    {"address",    'a', true,  [](Invocation& o, const char* a) { o.bus = Invocation::Bus::kAddress; o.address = a; }, nullptr},
    {"no-reply",   'n', false, [](Invocation& o, const char*) { o.noReply = true; }, nullptr},
    {"timeout",    't', true,  nullptr, [](Invocation& o, long ms) { o.timeoutUs = static_cast<uint64_t>(ms > 0 ? ms : 1) * 1000U; }},
    {"list",       'l', false, [](Invocation& o, const char*) { o.list = true; }, nullptr},
    {"indent",     'i', true,  nullptr, [](Invocation& o, long n) { o.indent = static_cast<int>(n); }},
    {"help",       'h', false, nullptr, nullptr},
    {"show-gui",   'g', true,  [](Invocation& o, const char* a) { o.showGui = a; }, nullptr},
    {"show-text",  's', true,  [](Invocation& o, const char* a) { o.showText = a; }, nullptr},
    {"size",       'S', true,  nullptr, [](Invocation& o, long n) { o.size = n; }},
    {"brightness", 'b', true,  nullptr, [](Invocation& o, long n) { o.brightness = n; }},
};
// clang-format on

bool parseLong(const char* text, long& value) {
    char* end = nullptr;
    errno = 0;
    value = strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0';
}

const OptionRow* rowFor(int letter) {
    for (const OptionRow& row : kOptionRows) {
        if (row.letter == letter) {
            return &row;
        }
    }
    return nullptr;
}

// Applies one option found by getopt_long.
Parsed applyOption(int letter, const char* argument, Invocation& invocation, std::string& error) {
    const OptionRow* row = rowFor(letter);
    if (row == nullptr) {
        return Parsed::kBadUsage;
    }
    if (row->number != nullptr) {
        long number = 0;
        if (!parseLong(argument, number)) {
            error = std::string("'") + argument + "' is not a number";
            return Parsed::kBadValue;
        }
        row->number(invocation, number);
        return Parsed::kRun;
    }
    if (row->text == nullptr) {
        return Parsed::kHelp;
    }
    row->text(invocation, argument);
    return Parsed::kRun;
}

Parsed readOptions(int argc, char* const argv[], Invocation& invocation, std::string& error) {
    const GetoptTables tables = getoptTables(kOptionRows);
    optind = 0;  // GNU: a full reset, so that a second parse starts afresh
    int letter = 0;
    while ((letter = getopt_long(argc, argv, tables.shortOptions.c_str(), tables.longOptions.data(),
                                 nullptr)) != -1) {
        const Parsed parsed = applyOption(letter, optarg, invocation, error);
        if (parsed != Parsed::kRun) {
            return parsed;
        }
    }
    return Parsed::kRun;
}

// --show-gui NAME or --show-text TEXT: a request to the daemon, no operands.
Parsed readShortForm(int operands, Invocation& invocation) {
    if (operands != 0 || (invocation.showGui && invocation.showText) || invocation.list) {
        return Parsed::kBadUsage;
    }
    invocation.process = kDaemon;
    Variant& request = invocation.request;
    if (invocation.showGui) {
        invocation.function = "ShowGui";
        request["guiId"] = *invocation.showGui;
    } else {
        invocation.function = "ShowSimpleScreen";
        Variant& text = request["text"];
        text["str"] = *invocation.showText;
        const long size = invocation.size.value_or(0);
        text["size"] = size > 0 ? static_cast<int>(size) : kDefaultShowTextSize;
        text["alignHor"] = "center";
        text["alignVert"] = "middle";
    }
    if (invocation.brightness) {
        request["brightness"] = static_cast<int>(*invocation.brightness);
    }
    return Parsed::kRun;
}

// PROCESS FUNCTION [REQUEST]: the request, when given, must be a JSON object.
Parsed readCall(int operands, char* const operand[], Invocation& invocation, std::string& error) {
    if (operands < 2 || operands > 3) {
        return Parsed::kBadUsage;
    }
    invocation.process = operand[0];
    invocation.function = operand[1];
    if (operands == 3 && !invocation.request.FromJSONString(operand[2])) {
        const auto& e = Variant::LastJsonError();
        error = "REQUEST is not JSON: " + std::to_string(e.line) + ":" + std::to_string(e.column) +
                ": " + e.message;
        return Parsed::kBadValue;
    }
    if (invocation.request.Type() != dravik::variant::kObject) {
        error = "REQUEST must be a JSON object";
        return Parsed::kBadValue;
    }
    return Parsed::kRun;
}

}  // namespace

Parsed ParseCommandLine(int argc, char* const argv[], Invocation& invocation, std::string& error) {
    const Parsed parsed = readOptions(argc, argv, invocation, error);
    if (parsed != Parsed::kRun) {
        return parsed;
    }
    const int operands = argc - optind;
    if (invocation.showGui || invocation.showText) {
        return readShortForm(operands, invocation);
    }
    if (invocation.list) {
        if (operands != 1) {
            return Parsed::kBadUsage;
        }
        invocation.process = argv[optind];
        return Parsed::kRun;
    }
    return readCall(operands, argv + optind, invocation, error);
}

int ExitStatusOf(const Variant& response) {
    const Variant* status = response.Find("statusCode");
    return (status == nullptr || status->AsUInt64() == 0) ? kOk : kStatusNotZero;
}

std::set<std::string> FunctionsIn(const std::string& xml, const std::string& interfaceName) {
    // The endpoint lists each function as <method name="..."> inside
    // <interface name="...">; that is all we need of the XML.
    static const std::string kMethod = "<method name=\"";
    size_t pos = xml.find("<interface name=\"" + interfaceName + "\"");
    const size_t stop = pos == std::string::npos ? pos : xml.find("</interface>", pos);
    std::set<std::string> names;
    while (pos != std::string::npos && (pos = xml.find(kMethod, pos)) < stop) {
        pos += kMethod.size();
        names.insert(xml.substr(pos, xml.find('"', pos) - pos));
    }
    return names;
}

}  // namespace ipc_call
