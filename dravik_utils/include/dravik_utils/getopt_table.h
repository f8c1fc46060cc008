#pragma once

// Header-only, like file_descriptor.h, for the tools that link nothing of the
// project.

#include <getopt.h>

#include <cstddef>
#include <string>
#include <vector>

namespace dravik::utils {

// getopt_long's view of a program's table of options.
struct GetoptTables {
    std::string shortOptions;
    std::vector<option> longOptions;  // ends with the all-zero entry
};

// The short option string (after `prefix`, e.g. "+") and the long options of
// `rows`, each of which has `name`, `letter` and `takesArgument`; getopt_long
// returns a row's letter for either spelling.
template <typename Row, std::size_t N>
GetoptTables getoptTables(const Row (&rows)[N], const char* prefix = "") {
    GetoptTables tables{prefix, {}};
    for (const Row& row : rows) {
        tables.shortOptions += row.letter;
        tables.shortOptions += row.takesArgument ? ":" : "";
        tables.longOptions.push_back(
            {row.name, row.takesArgument ? required_argument : no_argument, nullptr, row.letter});
    }
    tables.longOptions.push_back({nullptr, 0, nullptr, 0});
    return tables;
}

// One row of an option table whose options each set one thing of `Target`. A
// row without `apply` (--help, say) is left to the program.
template <typename Target>
struct OptionRow {
    const char* name;
    char letter;
    bool takesArgument;
    void (*apply)(const char* arg, Target& target);
};

enum class OptionOutcome {
    kApplied,  // the row's apply has set its value
    kOwnRow,   // a row without apply: the program acts on it itself
    kUnknown,  // not in the table: getopt_long has described the problem
};

// Applies the row of the letter that getopt_long returned.
template <typename Target, std::size_t N>
OptionOutcome applyOptionRow(const OptionRow<Target> (&rows)[N], int letter, const char* arg,
                             Target& target) {
    for (const OptionRow<Target>& row : rows) {
        if (row.letter != letter) {
            continue;
        }
        if (row.apply == nullptr) {
            return OptionOutcome::kOwnRow;
        }
        row.apply(arg, target);
        return OptionOutcome::kApplied;
    }
    return OptionOutcome::kUnknown;
}

}  // namespace dravik::utils
