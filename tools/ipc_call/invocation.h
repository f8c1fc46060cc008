#pragma once

// What one run of ipc_call is asked to do, read from its command line, and the
// JSON side of its work; everything here is free of the bus, so that the tests
// can run it without one.

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "dravik_utils/command_line.h"
#include "dravik_variant/variant.h"

namespace dravik::ipccall {

// Exit statuses, documented in --help.
enum Exit {
    kOk = 0,
    kStatusNotZero = 1,
    kUsage = dravik::utils::kExitUsage,
    kBusError = 3,
    kNoBus = 4,
};

// The process that the short forms --show-gui and --show-text address.
inline constexpr const char kDaemon[] = "dravik_lcm_gui";
inline constexpr long kDefaultTimeoutMs = 5000;
inline constexpr int kDefaultShowTextSize = 24;

struct Invocation {
    enum class Bus { kSystem, kSession, kAddress } bus = Bus::kSystem;
    std::string address;
    bool noReply = false;
    bool list = false;
    uint64_t timeoutUs = kDefaultTimeoutMs * 1000;
    int indent = 2;
    // The short forms and their settings, as given.
    std::optional<std::string> showGui;
    std::optional<std::string> showText;
    std::optional<long> size;
    std::optional<long> brightness;
    // The call: for --list only `process` counts.
    std::string process;
    std::string function;
    dravik::variant::Variant request =
        dravik::variant::Variant::MakeContainer(dravik::variant::kObject);
};

// Reads the options and operands of a whole command line (argv[0] is the
// program). A usage error without a message means that getopt_long has named a
// bad option or that the operands do not fit the form, for which ipc_call shows
// its usage. getopt_long's state is reset first, so it may be called again.
dravik::utils::ParseOutcome ParseCommandLine(int argc, char* const argv[], Invocation& invocation);

// The exit status for a response: kOk when "statusCode" is 0 or absent.
int ExitStatusOf(const dravik::variant::Variant& response);

// The function names of `interfaceName` in an endpoint's introspection XML,
// sorted; none when the interface is not there.
std::set<std::string> FunctionsIn(const std::string& xml, const std::string& interfaceName);

}  // namespace dravik::ipccall
