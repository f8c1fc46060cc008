#include "dravik_variant/cmdline.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "dravik_test_support/command_line.h"

namespace {

using dravik::variant::AddParameter;
using dravik::variant::ParseCommandLine;
using dravik::variant::PrintHelp;
using dravik::variant::Variant;
namespace vt = dravik::variant;

// The daemon's own parameters.
Variant daemonDefinitions() {
    Variant definitions;
    AddParameter(definitions, 'h', "help", "Outputs this help", Variant(true));
    AddParameter(definitions, 'd', "device", "Frame buffer device", Variant("/dev/fb2"));
    AddParameter(definitions, 'c', "configFile", "Screens config file", Variant(""));
    AddParameter(definitions, 's', "startupScreen", "Start-up screen", Variant(""));
    AddParameter(definitions, 'b', "brightness", "Brightness", Variant(-1));
    return definitions;
}

struct Parse {
    bool ok = false;
    Variant result;
    std::string errors;  // what the parser wrote to standard error
};

Parse parse(const std::vector<const char*>& words) {
    dravik::testsupport::Argv argv("dravik_lcm_gui", words);
    Variant definitions = daemonDefinitions();
    Parse outcome;
    ::testing::internal::CaptureStderr();
    outcome.ok = ParseCommandLine(argv.argc(), argv.constArgv(), definitions, outcome.result);
    outcome.errors = ::testing::internal::GetCapturedStderr();
    return outcome;
}

const Variant* param(const Parse& p, const char* name, vt::VariantType pattern = vt::kAny) {
    return p.result.GetKeyChain(pattern, (std::string("parameters/") + name).c_str(), false);
}

TEST(AddParameter, stores_short_name_description_and_default) {
    Variant definitions = daemonDefinitions();
    EXPECT_EQ(definitions.StringKeysCount(), 5u);
    const Variant* device = definitions.Find("device");
    ASSERT_NE(device, nullptr);
    EXPECT_EQ(device->Find("short")->AsString(), "d");
    EXPECT_EQ(device->Find("description")->AsString(), "Frame buffer device");
    EXPECT_EQ(device->Find("default")->AsString(), "/dev/fb2");
    EXPECT_EQ(definitions.Find("brightness")->Find("default")->Type(), vt::kInt32);
    EXPECT_EQ(definitions.Find("help")->Find("default")->Type(), vt::kBool);
}

TEST(ParseCommandLine, string_option_in_every_form) {
    const std::vector<std::vector<const char*>> forms = {
        {"-d", "/dev/fb0"},
        {"-d/dev/fb0"},
        {"--device", "/dev/fb0"},
        {"--device=/dev/fb0"},
    };
    for (const auto& form : forms) {
        SCOPED_TRACE(form[0]);
        std::vector<const char*> argv{"prog"};
        argv.insert(argv.end(), form.begin(), form.end());
        Variant definitions = daemonDefinitions();
        Variant result;
        EXPECT_TRUE(
            ParseCommandLine(static_cast<int>(argv.size()), argv.data(), definitions, result));
        const Variant* device = result.GetKeyChain(vt::kString, "parameters/device", false);
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->AsString(), "/dev/fb0");
    }
}

TEST(ParseCommandLine, flags_are_true_in_short_and_long_form) {
    for (const char* word : {"-h", "--help"}) {
        SCOPED_TRACE(word);
        const Parse p = parse({word});
        EXPECT_TRUE(p.ok);
        const Variant* help = param(p, "help");
        ASSERT_NE(help, nullptr);
        EXPECT_EQ(help->Type(), vt::kBool);
        EXPECT_TRUE(help->AsBool());
    }
}

TEST(ParseCommandLine, options_not_given_are_absent) {
    const Parse none = parse({});
    EXPECT_TRUE(none.ok);
    EXPECT_EQ(param(none, "help"), nullptr);
    EXPECT_EQ(param(none, "device"), nullptr);
    EXPECT_EQ(param(none, "brightness"), nullptr);

    const Parse some = parse({"-d", "/dev/fb1"});
    EXPECT_TRUE(some.ok);
    EXPECT_EQ(param(some, "help"), nullptr);
    EXPECT_EQ(param(some, "configFile"), nullptr);
    EXPECT_EQ(param(some, "brightness"), nullptr);
    EXPECT_NE(param(some, "device"), nullptr);
    EXPECT_EQ(some.result.Find("parameters")->StringKeysCount(), 1u);
}

TEST(ParseCommandLine, help_is_present_only_when_given) {
    EXPECT_EQ(param(parse({"-b", "5"}), "help"), nullptr);
    EXPECT_NE(param(parse({"-b", "5", "--help"}), "help"), nullptr);
}

TEST(ParseCommandLine, integers_are_parsed_strictly) {
    struct Row {
        std::vector<const char*> words;
        long long value;
        vt::VariantType tag;
    } rows[] = {
        {{"-b", "50"}, 50, vt::kInt32},
        {{"-b", "-1"}, -1, vt::kInt32},
        {{"--brightness=-100"}, -100, vt::kInt32},
        {{"--brightness", "+7"}, 7, vt::kInt32},
        {{"-b", "5000000000"}, 5000000000LL, vt::kInt64},
        {{"-b", "-9223372036854775808"}, std::numeric_limits<long long>::min(), vt::kInt64},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.words.back());
        const Parse p = parse(row.words);
        EXPECT_TRUE(p.ok);
        const Variant* value = param(p, "brightness", vt::kNumericPattern);
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(value->Type(), row.tag);
        EXPECT_EQ(value->AsInt64(), row.value);
    }
}

TEST(ParseCommandLine, bad_integers_are_reported_and_left_out) {
    const dravik::testsupport::TextCase rows[] = {
        {"abc", "is not a decimal integer"},
        {"12x", "is not a decimal integer"},
        {"", "is not a decimal integer"},
        {" 5", "is not a decimal integer"},
        {"0x10", "is not a decimal integer"},
        {"1.5", "is not a decimal integer"},
        {"-", "is not a decimal integer"},
        {"99999999999999999999", "is out of range"},
        {"-99999999999999999999", "is out of range"},
    };
    dravik::testsupport::forEachCase(rows, [](const char* text, const char* reason) {
        const Parse p = parse({"-d", "/dev/fb0", "-b", text});
        EXPECT_FALSE(p.ok);
        EXPECT_EQ(param(p, "brightness"), nullptr);
        EXPECT_NE(param(p, "device"), nullptr);  // what did parse is kept
        EXPECT_NE(p.errors.find(std::string("option '--brightness': '") + text + "' " + reason),
                  std::string::npos)
            << p.errors;
    });
}

TEST(ParseCommandLine, unknown_options_are_reported) {
    struct Row {
        std::vector<const char*> words;
        const char* message;
    } rows[] = {
        {{"--bogus"}, "unknown option '--bogus'"},
        {{"--bogus=1"}, "unknown option '--bogus=1'"},
        {{"-x"}, "unknown option '-x'"},
        {{"-hx"}, "unknown option '-x'"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        const Parse p = parse(row.words);
        EXPECT_FALSE(p.ok);
        EXPECT_NE(p.errors.find(row.message), std::string::npos) << p.errors;
    }
}

TEST(ParseCommandLine, missing_argument_is_reported) {
    const Parse shortForm = parse({"-d"});
    EXPECT_FALSE(shortForm.ok);
    EXPECT_NE(shortForm.errors.find("option '--device' requires an argument"), std::string::npos)
        << shortForm.errors;
    EXPECT_EQ(param(shortForm, "device"), nullptr);

    const Parse longForm = parse({"-h", "--brightness"});
    EXPECT_FALSE(longForm.ok);
    EXPECT_NE(longForm.errors.find("option '--brightness' requires an argument"), std::string::npos)
        << longForm.errors;
    EXPECT_NE(param(longForm, "help"), nullptr);
}

TEST(ParseCommandLine, flag_with_a_value_is_reported) {
    const Parse p = parse({"--help=yes"});
    EXPECT_FALSE(p.ok);
    EXPECT_NE(p.errors.find("option '--help' does not take an argument"), std::string::npos)
        << p.errors;
}

TEST(ParseCommandLine, stray_arguments_are_reported) {
    const Parse p = parse({"extra", "-d", "/dev/fb0"});
    EXPECT_FALSE(p.ok);
    EXPECT_NE(p.errors.find("unexpected argument 'extra'"), std::string::npos) << p.errors;
    EXPECT_NE(param(p, "device"), nullptr);
}

TEST(ParseCommandLine, caller_argv_is_not_reordered) {
    std::vector<const char*> argv{"prog", "extra", "-d", "/dev/fb0"};
    const std::vector<const char*> before = argv;
    Variant definitions = daemonDefinitions();
    Variant result;
    ::testing::internal::CaptureStderr();
    (void)ParseCommandLine(static_cast<int>(argv.size()), argv.data(), definitions, result);
    (void)::testing::internal::GetCapturedStderr();  // the stray argument is reported
    EXPECT_EQ(argv, before);
}

TEST(ParseCommandLine, can_run_twice) {
    const Parse first = parse({"-d", "/dev/fb0", "-b", "10"});
    const Parse second = parse({"--device", "/dev/fb1", "-s", "boot"});
    EXPECT_TRUE(first.ok);
    EXPECT_TRUE(second.ok);
    EXPECT_EQ(param(first, "device")->AsString(), "/dev/fb0");
    EXPECT_EQ(param(second, "device")->AsString(), "/dev/fb1");
    EXPECT_EQ(param(second, "startupScreen")->AsString(), "boot");
    EXPECT_EQ(param(second, "brightness"), nullptr);
}

TEST(ParseCommandLine, last_occurrence_wins) {
    const Parse p = parse({"-b", "1", "--brightness=2"});
    EXPECT_TRUE(p.ok);
    EXPECT_EQ(param(p, "brightness")->AsInt64(), 2);
}

TEST(ParseCommandLine, long_only_option) {
    Variant definitions;
    AddParameter(definitions, 0, "verbose", "More output", Variant(false));
    AddParameter(definitions, 0, "level", "Level", Variant(3));
    const char* argv[] = {"prog", "--verbose", "--level", "4"};
    Variant result;
    EXPECT_TRUE(ParseCommandLine(4, argv, definitions, result));
    EXPECT_TRUE(result.GetKeyChain(vt::kBool, "parameters/verbose", false)->AsBool());
    EXPECT_EQ(result.GetKeyChain(vt::kIntegerBit, "parameters/level", false)->AsInt64(), 4);
}

TEST(PrintHelp, lists_every_option_in_declaration_order) {
    Variant definitions = daemonDefinitions();
    ::testing::internal::CaptureStdout();
    PrintHelp("dravik_lcm_gui", definitions);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "Usage: dravik_lcm_gui [options]\n"
              "  -h, --help                     Outputs this help\n"
              "  -d, --device <string>          Frame buffer device (default: /dev/fb2)\n"
              "  -c, --configFile <string>      Screens config file\n"
              "  -s, --startupScreen <string>   Start-up screen\n"
              "  -b, --brightness <int>         Brightness (default: -1)\n");
}

TEST(PrintHelp, long_only_option_is_aligned) {
    Variant definitions;
    AddParameter(definitions, 0, "level", "Level", Variant(3));
    AddParameter(definitions, 'q', "quiet", "Less output", Variant(false));
    ::testing::internal::CaptureStdout();
    PrintHelp("tool", definitions);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Usage: tool [options]\n"
              "      --level <int>   Level (default: 3)\n"
              "  -q, --quiet         Less output\n");
}

}  // namespace
