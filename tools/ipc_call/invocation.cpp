#include "invocation.h"

#include <getopt.h>

#include <string>

#include "dravik_utils/command_line.h"
#include "dravik_utils/decimal.h"

namespace dravik::ipccall {

namespace {

using dravik::utils::ParseOutcome;
using dravik::utils::UsageError;
using dravik::variant::Variant;

// A whole decimal number, as every number option takes.
long number(const char* text) {
    long value = 0;
    if (!dravik::utils::isDecimal(text, value)) {
        throw UsageError{std::string("'") + text + "' is not a number"};
    }
    return value;
}

using OptionRow = dravik::utils::OptionRow<Invocation>;

// clang-format off
const OptionRow kOptionRows[] = {
    {"system",     'y', false, [](const char*, Invocation& o) { o.bus = Invocation::Bus::kSystem; }},
    {"session",    'u', false, [](const char*, Invocation& o) { o.bus = Invocation::Bus::kSession; }},
    {"address",    'a', true,  [](const char* a, Invocation& o) { o.bus = Invocation::Bus::kAddress; o.address = a; }},
    {"no-reply",   'n', false, [](const char*, Invocation& o) { o.noReply = true; }},
    {"timeout",    't', true,  [](const char* a, Invocation& o) { const long ms = number(a); o.timeoutUs = static_cast<uint64_t>(ms > 0 ? ms : 1) * 1000U; }},
    {"list",       'l', false, [](const char*, Invocation& o) { o.list = true; }},
    {"indent",     'i', true,  [](const char* a, Invocation& o) { o.indent = static_cast<int>(number(a)); }},
    {"help",       'h', false, nullptr},
    {"show-gui",   'g', true,  [](const char* a, Invocation& o) { o.showGui = a; }},
    {"show-text",  's', true,  [](const char* a, Invocation& o) { o.showText = a; }},
    {"size",       'S', true,  [](const char* a, Invocation& o) { o.size = number(a); }},
    {"brightness", 'b', true,  [](const char* a, Invocation& o) { o.brightness = number(a); }},
};
// clang-format on

// --show-gui NAME or --show-text TEXT: a request to the daemon, no operands.
void readShortForm(int operands, Invocation& invocation) {
    if (operands != 0 || (invocation.showGui && invocation.showText) || invocation.list) {
        throw UsageError{};
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
}

// PROCESS FUNCTION [REQUEST]: the request, when given, must be a JSON object.
void readCall(int operands, char* const operand[], Invocation& invocation) {
    if (operands < 2 || operands > 3) {
        throw UsageError{};
    }
    invocation.process = operand[0];
    invocation.function = operand[1];
    if (operands == 3 && !invocation.request.FromJSONString(operand[2])) {
        const auto& e = Variant::LastJsonError();
        throw UsageError{"REQUEST is not JSON: " + std::to_string(e.line) + ":" +
                         std::to_string(e.column) + ": " + e.message};
    }
    if (invocation.request.Type() != dravik::variant::kObject) {
        throw UsageError{"REQUEST must be a JSON object"};
    }
}

// The operands, by the form of the command line that the options chose.
void readOperands(int operands, char* const operand[], Invocation& invocation) {
    if (invocation.showGui || invocation.showText) {
        readShortForm(operands, invocation);
    } else if (invocation.list) {
        if (operands != 1) {
            throw UsageError{};
        }
        invocation.process = operand[0];
    } else {
        readCall(operands, operand, invocation);
    }
}

}  // namespace

ParseOutcome ParseCommandLine(int argc, char* const argv[], Invocation& invocation) {
    return dravik::utils::catchUsageError([&] {
        if (dravik::utils::readOptions(argc, argv, kOptionRows, invocation) ==
            ParseOutcome::kHelp) {
            return ParseOutcome::kHelp;
        }
        readOperands(argc - optind, argv + optind, invocation);
        return ParseOutcome::kRun;
    });
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

}  // namespace dravik::ipccall
