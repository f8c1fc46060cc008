#include "dravik_utils/command_line.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "dravik_test_support/command_line.h"

namespace {

using dravik::testsupport::Argv;
using dravik::utils::ParseOutcome;
using dravik::utils::UsageError;

struct Settings {
    std::string name;
    bool verbose = false;
    std::vector<std::string> marks;  // the own rows met, in order
};

using OptionRow = dravik::utils::OptionRow<Settings>;

const OptionRow kRows[] = {
    {"name", 'n', true,
     [](const char* arg, Settings& s) {
         if (*arg == '\0') {
             throw UsageError{"bad --name: empty"};
         }
         s.name = arg;
     }},
    {"verbose", 'v', false, [](const char*, Settings& s) { s.verbose = true; }},
    {"mark", 'm', false, nullptr},
    {"help", 'h', false, nullptr},
};

ParseOutcome parse(Argv& argv, Settings& settings) {
    return dravik::utils::catchUsageError([&] {
        return dravik::utils::readOptions(
            argv.argc(), argv.argv(), kRows, settings, [&](int letter) {
                settings.marks.push_back(std::string(1, static_cast<char>(letter)));
            });
    });
}

TEST(ReadOptions, applies_rows_and_hands_own_rows_to_the_program) {
    Argv argv("prog", {"-v", "operand", "--mark", "--name", "x", "-m"});
    Settings settings;
    const ParseOutcome outcome = parse(argv, settings);
    EXPECT_EQ(outcome.kind, ParseOutcome::kRun);
    EXPECT_EQ(settings.name, "x");
    EXPECT_TRUE(settings.verbose);
    EXPECT_EQ(settings.marks, (std::vector<std::string>{"m", "m"}));
    ASSERT_EQ(optind, 6);  // GNU moves the operand behind the options
    EXPECT_STREQ(argv.argv()[optind], "operand");
}

TEST(ReadOptions, help_ends_the_reading_where_it_stands) {
    Argv argv("prog", {"-v", "-h", "--name", ""});
    Settings settings;
    EXPECT_EQ(parse(argv, settings).kind, ParseOutcome::kHelp);
    EXPECT_TRUE(settings.verbose);
}

TEST(ReadOptions, a_value_refused_by_its_row_is_a_usage_error_with_the_reason) {
    Argv argv("prog", {"--name", "", "-h"});
    Settings settings;
    const ParseOutcome outcome = parse(argv, settings);
    EXPECT_EQ(outcome.kind, ParseOutcome::kUsageError);
    EXPECT_EQ(outcome.message, "bad --name: empty");
}

TEST(ReadOptions, an_option_refused_by_getopt_is_a_usage_error_without_a_reason) {
    opterr = 0;  // getopt's own complaint is not part of this test
    for (const std::vector<const char*>& words :
         {std::vector<const char*>{"--bogus"}, {"-x"}, {"--name"}}) {
        Argv argv("prog", words);
        Settings settings;
        const ParseOutcome outcome = parse(argv, settings);
        EXPECT_EQ(outcome.kind, ParseOutcome::kUsageError) << words[0];
        EXPECT_EQ(outcome.message, "") << words[0];
    }
    opterr = 1;
}

TEST(ReadOptions, a_second_command_line_is_read_afresh) {
    Settings settings;
    Argv first("prog", {"-v", "one"});
    ASSERT_EQ(parse(first, settings).kind, ParseOutcome::kRun);
    Argv second("prog", {"-n", "b", "two", "three"});
    ASSERT_EQ(parse(second, settings).kind, ParseOutcome::kRun);
    EXPECT_EQ(settings.name, "b");
    EXPECT_EQ(optind, 3);
}

// What a tool's main wrote and returned.
struct MainRun {
    int status = -1;
    std::string out;
    std::string err;
    int runs = 0;  // how often the tool itself ran
};

ParseOutcome parseArgs(int argc, char** argv, Settings& settings) {
    return dravik::utils::catchUsageError(
        [&] { return dravik::utils::readOptions(argc, argv, kRows, settings, [](int) {}); });
}

void printUsage(std::FILE* out, const char* argv0) {
    std::fprintf(out, "Usage: %s [-v] [-n NAME]\n", argv0);
}

MainRun runMain(const dravik::utils::Tool& tool, const std::vector<const char*>& words) {
    Argv argv("/bin/prog", words);
    MainRun run;
    opterr = 0;  // getopt's own complaint is not part of these tests
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    run.status = dravik::utils::toolMain<Settings>(tool, argv.argc(), argv.argv(), parseArgs,
                                                   [&run](const Settings& settings) {
                                                       ++run.runs;
                                                       return settings.verbose ? 7 : 0;
                                                   });
    run.err = ::testing::internal::GetCapturedStderr();
    run.out = ::testing::internal::GetCapturedStdout();
    opterr = 1;
    return run;
}

const dravik::utils::Tool kTool{"prog", printUsage};

TEST(ToolMain, runs_the_tool_and_returns_its_status) {
    const MainRun run = runMain(kTool, {"-v"});
    EXPECT_EQ(run.status, 7);
    EXPECT_EQ(run.runs, 1);
    EXPECT_EQ(run.out + run.err, "");
}

TEST(ToolMain, help_goes_to_standard_output_with_status_0) {
    const MainRun run = runMain(kTool, {"-v", "--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.runs, 0);
    EXPECT_EQ(run.out, "Usage: /bin/prog [-v] [-n NAME]\n");
    EXPECT_EQ(run.err, "");
}

TEST(ToolMain, a_usage_error_gives_the_reason_the_pointer_to_help_and_status_2) {
    const MainRun run = runMain(kTool, {"--name", ""});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.status, dravik::utils::kExitUsage);
    EXPECT_EQ(run.runs, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "prog: bad --name: empty\nTry 'prog --help' for more information.\n");
}

TEST(ToolMain, a_tool_without_a_name_is_called_by_its_argv0) {
    const MainRun run = runMain({nullptr, printUsage}, {"--bogus"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "Try '/bin/prog --help' for more information.\n");
}

TEST(ToolMain, a_bare_usage_error_may_show_the_help_on_standard_error) {
    const dravik::utils::Tool helpful{"prog", printUsage, true};
    const MainRun bare = runMain(helpful, {"--bogus"});
    EXPECT_EQ(bare.status, 2);
    EXPECT_EQ(bare.err, "Usage: /bin/prog [-v] [-n NAME]\n");
    const MainRun reasoned = runMain(helpful, {"--name", ""});
    EXPECT_EQ(reasoned.status, 2);
    EXPECT_EQ(reasoned.err, "prog: bad --name: empty\nTry 'prog --help' for more information.\n");
}

}  // namespace
