#pragma once

// The command-line skeleton of every tool, header-only like getopt_table.h for
// the tools that link nothing of the project: a table of OptionRow read by
// readOptions, UsageError for a command line that cannot run, and toolMain,
// which shows the help, reports a usage error or runs the tool.

#include <getopt.h>

#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>

#include "dravik_utils/getopt_table.h"

namespace dravik::utils {

// The exit status of every tool for a command line that it cannot run, as
// getopt-style programs have it.
inline constexpr int kExitUsage = 2;

// A command line that cannot run. The option rows throw it for a value they
// cannot take; `message` says why, or is empty when getopt_long has said it.
struct UsageError {
    std::string message;
};

// What a tool's parser made of its command line; the tool's main acts on it.
struct ParseOutcome {
    enum Kind { kRun, kHelp, kUsageError };
    // Implicit, so that a parser may return a bare Kind.
    ParseOutcome(Kind kind = kRun, std::string message = {})
        : kind(kind), message(std::move(message)) {}

    Kind kind;
    std::string message;  // kUsageError: why ("" when getopt_long has said it)
};

// The outcome of read(), which returns one, or a Kind, or throws UsageError.
template <typename Read>
ParseOutcome catchUsageError(Read read) {
    try {
        return read();
    } catch (const UsageError& error) {
        return {ParseOutcome::kUsageError, error.message};
    }
}

// Reads the options of argv with getopt_long, whose state is reset first so
// that a second command line reads afresh. Each row's apply sets its value in
// `target`; the rows without apply, but for --help ('h'), go to ownRow(letter).
// Returns kHelp at --help, else kRun once the options end; throws UsageError
// for an option that getopt_long refused. `prefix` starts the short options
// ("+": the first operand ends the options).
template <typename Target, std::size_t N, typename OwnRow>
ParseOutcome::Kind readOptions(int argc, char* const argv[], const OptionRow<Target> (&rows)[N],
                               Target& target, OwnRow ownRow, const char* prefix = "") {
    const GetoptTables tables = getoptTables(rows, prefix);
    optind = 0;  // GNU: a full reset, with the prefix read again
    int letter = 0;
    while ((letter = getopt_long(argc, argv, tables.shortOptions.c_str(), tables.longOptions.data(),
                                 nullptr)) != -1) {
        switch (applyOptionRow(rows, letter, optarg, target)) {
            case OptionOutcome::kApplied:
                break;
            case OptionOutcome::kOwnRow:
                if (letter == 'h') {
                    return ParseOutcome::kHelp;
                }
                ownRow(letter);
                break;
            case OptionOutcome::kUnknown:
                throw UsageError{};  // getopt_long has described the problem
        }
    }
    return ParseOutcome::kRun;
}

// readOptions for a table whose only row without apply is --help.
template <typename Target, std::size_t N>
ParseOutcome::Kind readOptions(int argc, char* const argv[], const OptionRow<Target> (&rows)[N],
                               Target& target) {
    return readOptions(argc, argv, rows, target, [](int) {});
}

// How a tool shows itself in its messages.
struct Tool {
    const char* name;  // starts its messages; nullptr: argv[0]
    void (*printHelp)(std::FILE* out, const char* argv0);
    // A usage error without a reason shows the help on standard error, rather
    // than the pointer to --help (ipc_call, whose operands vary by form).
    bool helpForBareUsageError = false;
};

// Tool::printHelp of a help that is one fixed text.
template <const char* kText>
void printText(std::FILE* out, const char* /*argv0*/) {
    std::fputs(kText, out);
}

// "PROG: MESSAGE" (when there is one), then the pointer to --help.
inline void reportUsageError(const Tool& tool, const char* argv0, const std::string& message) {
    const char* prog = tool.name != nullptr ? tool.name : argv0;
    if (!message.empty()) {
        std::fprintf(stderr, "%s: %s\n", prog, message.c_str());
    }
    if (message.empty() && tool.helpForBareUsageError) {
        tool.printHelp(stderr, argv0);
        return;
    }
    std::fprintf(stderr, "Try '%s --help' for more information.\n", prog);
}

// The main of every tool: parse(argc, argv, options) reads the command line,
// returning a ParseOutcome or a Kind, or throwing UsageError; --help prints the
// help and exits 0, a usage error is reported and exits kExitUsage, and
// otherwise the exit status is run(options)'s.
template <typename Options, typename Parse, typename Run>
int toolMain(const Tool& tool, int argc, char** argv, Parse parse, Run run) {
    Options options;
    const ParseOutcome outcome =
        catchUsageError([&]() -> ParseOutcome { return parse(argc, argv, options); });
    switch (outcome.kind) {
        case ParseOutcome::kRun:
            break;
        case ParseOutcome::kHelp:
            tool.printHelp(stdout, argv[0]);
            return 0;
        case ParseOutcome::kUsageError:
            reportUsageError(tool, argv[0], outcome.message);
            return kExitUsage;
    }
    return run(options);
}

}  // namespace dravik::utils
