#include "invocation.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "dravik_test_support/command_line.h"

namespace {

using dravik::ipccall::Invocation;
using dravik::utils::ParseOutcome;
using dravik::variant::Variant;
namespace ipc_call = dravik::ipccall;

// What the program does with a command line: kBadUsage shows the usage,
// kBadValue prints the message.
enum class Parsed { kRun, kHelp, kBadUsage, kBadValue };

Parsed kindOf(const ParseOutcome& outcome) {
    switch (outcome.kind) {
        case ParseOutcome::kRun:
            return Parsed::kRun;
        case ParseOutcome::kHelp:
            return Parsed::kHelp;
        case ParseOutcome::kUsageError:
            break;
    }
    return outcome.message.empty() ? Parsed::kBadUsage : Parsed::kBadValue;
}

// One command line, with argv[0] "ipc_call" in front of `words`.
struct CommandLine {
    explicit CommandLine(std::initializer_list<const char*> words) : argv("ipc_call", {words}) {}

    Parsed parse(Invocation& invocation, std::string& error) {
        const ParseOutcome outcome =
            ipc_call::ParseCommandLine(argv.argc(), argv.argv(), invocation);
        error = outcome.message;
        return kindOf(outcome);
    }

    dravik::testsupport::Argv argv;
};

Parsed parse(std::initializer_list<const char*> words, Invocation& invocation) {
    std::string error;
    return CommandLine(words).parse(invocation, error);
}

Variant json(const char* text) {
    Variant value;
    EXPECT_TRUE(value.FromJSONString(text)) << text;
    return value;
}

TEST(ParseCommandLine, a_call_with_defaults) {
    Invocation o;
    ASSERT_EQ(parse({"dravik_lcm_gui", "ShowGui"}, o), Parsed::kRun);
    EXPECT_EQ(o.process, "dravik_lcm_gui");
    EXPECT_EQ(o.function, "ShowGui");
    EXPECT_TRUE(o.request == json("{}"));
    EXPECT_EQ(o.bus, Invocation::Bus::kSystem);
    EXPECT_EQ(o.timeoutUs, 5000000U);
    EXPECT_EQ(o.indent, 2);
    EXPECT_FALSE(o.noReply);
    EXPECT_FALSE(o.list);
}

TEST(ParseCommandLine, options_in_long_and_short_form) {
    Invocation longForm;
    ASSERT_EQ(parse({"--address", "unix:path=/run/b", "--no-reply", "--timeout", "250", "--indent",
                     "-1", "p", "F"},
                    longForm),
              Parsed::kRun);
    Invocation shortForm;
    ASSERT_EQ(parse({"-a", "unix:path=/run/b", "-n", "-t", "250", "-i", "-1", "p", "F"}, shortForm),
              Parsed::kRun);
    for (const Invocation* o : {&longForm, &shortForm}) {
        EXPECT_EQ(o->bus, Invocation::Bus::kAddress);
        EXPECT_EQ(o->address, "unix:path=/run/b");
        EXPECT_TRUE(o->noReply);
        EXPECT_EQ(o->timeoutUs, 250000U);
        EXPECT_EQ(o->indent, -1);
    }
}

TEST(ParseCommandLine, the_last_bus_option_wins) {
    Invocation o;
    ASSERT_EQ(parse({"-a", "unix:path=/x", "--session", "p", "F"}, o), Parsed::kRun);
    EXPECT_EQ(o.bus, Invocation::Bus::kSession);
    ASSERT_EQ(parse({"-u", "--system", "p", "F"}, o), Parsed::kRun);
    EXPECT_EQ(o.bus, Invocation::Bus::kSystem);
}

TEST(ParseCommandLine, a_timeout_below_one_millisecond_waits_one) {
    for (const char* ms : {"0", "-5"}) {
        SCOPED_TRACE(ms);
        Invocation o;
        ASSERT_EQ(parse({"-t", ms, "p", "F"}, o), Parsed::kRun);
        EXPECT_EQ(o.timeoutUs, 1000U);
    }
}

TEST(ParseCommandLine, numbers_must_be_whole_decimal_numbers) {
    for (const char* option : {"-t", "-i", "-S", "-b"}) {
        for (const char* value : {"", "12x", "1.5", "ten", "99999999999999999999"}) {
            SCOPED_TRACE(std::string(option) + " '" + value + "'");
            Invocation o;
            std::string error;
            EXPECT_EQ(CommandLine({option, value, "p", "F"}).parse(o, error), Parsed::kBadValue);
            EXPECT_EQ(error, std::string("'") + value + "' is not a number");
        }
    }
}

TEST(ParseCommandLine, help_ends_the_parse_wherever_it_stands) {
    Invocation o;
    EXPECT_EQ(parse({"--help"}, o), Parsed::kHelp);
    EXPECT_EQ(parse({"-h", "-t", "bad"}, o), Parsed::kHelp);
    EXPECT_EQ(parse({"p", "F", "{}", "extra", "-h"}, o), Parsed::kHelp);
}

TEST(ParseCommandLine, wrong_operand_counts_and_unknown_options_are_bad_usage) {
    const std::initializer_list<const char*> lines[] = {
        {},
        {"p"},
        {"p", "F", "{}", "extra"},
        {"--list"},
        {"--list", "p", "F"},
        {"--show-gui", "boot", "p"},
        {"--show-gui", "boot", "--show-text", "hi"},
        {"--show-gui", "boot", "--list"},
        {"--frobnicate", "p", "F"},
        {"p", "F", "-t"},
    };
    opterr = 0;  // getopt's own complaints are not part of this test
    for (const auto& words : lines) {
        Invocation o;
        EXPECT_EQ(parse(words, o), Parsed::kBadUsage) << words.size() << " words";
    }
    opterr = 1;
}

TEST(ParseCommandLine, list_names_only_the_process) {
    Invocation o;
    ASSERT_EQ(parse({"-l", "dravik_lcm_gui"}, o), Parsed::kRun);
    EXPECT_TRUE(o.list);
    EXPECT_EQ(o.process, "dravik_lcm_gui");
    EXPECT_TRUE(o.function.empty());
}

TEST(ParseCommandLine, show_gui_asks_the_daemon_for_a_screen) {
    Invocation o;
    ASSERT_EQ(parse({"--show-gui", "update", "--brightness", "100"}, o), Parsed::kRun);
    EXPECT_EQ(o.process, "dravik_lcm_gui");
    EXPECT_EQ(o.function, "ShowGui");
    EXPECT_TRUE(o.request == json(R"({"guiId": "update", "brightness": 100})"))
        << o.request.ToJSON();

    Invocation keep;
    ASSERT_EQ(parse({"-g", ""}, keep), Parsed::kRun);
    EXPECT_TRUE(keep.request == json(R"({"guiId": ""})")) << keep.request.ToJSON();
}

TEST(ParseCommandLine, show_text_centres_the_text_at_the_given_or_default_size) {
    Invocation sized;
    ASSERT_EQ(parse({"-s", "Hello", "-S", "30", "-b", "20"}, sized), Parsed::kRun);
    EXPECT_EQ(sized.function, "ShowSimpleScreen");
    EXPECT_TRUE(sized.request == json(R"({"text": {"str": "Hello", "size": 30,
        "alignHor": "center", "alignVert": "middle"}, "brightness": 20})"))
        << sized.request.ToJSON();

    for (const char* size : {"0", "-3"}) {
        SCOPED_TRACE(size);
        Invocation o;
        ASSERT_EQ(parse({"--show-text", "Hi", "--size", size}, o), Parsed::kRun);
        EXPECT_TRUE(o.request == json(R"({"text": {"str": "Hi", "size": 24,
            "alignHor": "center", "alignVert": "middle"}})"))
            << o.request.ToJSON();
    }
}

TEST(ParseCommandLine, the_request_is_read_as_json) {
    Invocation o;
    ASSERT_EQ(parse({"p", "F", R"({"guiId": "boot", "n": 3000000000, "f": 0.5,
                                 "list": [1, "a"], "nested": {"on": true}})"},
                    o),
              Parsed::kRun);
    EXPECT_EQ(o.request["guiId"].AsString(), "boot");
    EXPECT_EQ(o.request["n"].Type(), dravik::variant::kInt64);
    EXPECT_EQ(o.request["f"].Type(), dravik::variant::kDouble);
    EXPECT_EQ(o.request["list"][1].AsString(), "a");
    EXPECT_TRUE(o.request["nested"]["on"].AsBool());
}

TEST(ParseCommandLine, a_request_that_is_not_a_json_object_is_refused) {
    const dravik::testsupport::TextCase rows[] = {
        {"[1, 2]", "REQUEST must be a JSON object"},
        {"418", "REQUEST must be a JSON object"},
        {"{\"a\": }", "REQUEST is not JSON: 1:"},
        {"{\n\"a\" 1}", "REQUEST is not JSON: 2:"},
    };
    dravik::testsupport::forEachCase(rows, [](const char* text, const char* expected) {
        Invocation o;
        std::string error;
        EXPECT_EQ(CommandLine({"p", "F", text}).parse(o, error), Parsed::kBadValue);
        EXPECT_EQ(error.rfind(expected, 0), 0U) << error;
    });
}

TEST(ExitStatusOf, zero_or_missing_status_is_success) {
    EXPECT_EQ(ipc_call::ExitStatusOf(json(R"({"statusCode": 0, "payload": {}})")), ipc_call::kOk);
    EXPECT_EQ(ipc_call::ExitStatusOf(json("{}")), ipc_call::kOk);
    EXPECT_EQ(ipc_call::ExitStatusOf(json(R"({"statusCode": 1})")), ipc_call::kStatusNotZero);
    EXPECT_EQ(ipc_call::ExitStatusOf(json(R"({"statusCode": 7})")), ipc_call::kStatusNotZero);
}

TEST(FunctionsIn, lists_the_methods_of_the_named_interface_only) {
    const std::string xml = R"(<node>
 <interface name="org.freedesktop.DBus.Peer"><method name="Ping"/></interface>
 <interface name="dravik.ipc.Endpoint">
  <method name="ShowSimpleScreen"><arg type="a{sv}" direction="in"/></method>
  <method name="ShowGui"><arg type="a{sv}" direction="in"/></method>
 </interface>
 <interface name="org.freedesktop.DBus.Introspectable"><method name="Introspect"/></interface>
</node>)";
    EXPECT_EQ(ipc_call::FunctionsIn(xml, "dravik.ipc.Endpoint"),
              (std::set<std::string>{"ShowGui", "ShowSimpleScreen"}));
    EXPECT_TRUE(ipc_call::FunctionsIn(xml, "dravik.ipc.Other").empty());
    EXPECT_TRUE(ipc_call::FunctionsIn("", "dravik.ipc.Endpoint").empty());
}

}  // namespace
