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

}  // namespace dravik::utils
