#pragma once

#include "dravik_variant/variant.h"

namespace dravik::variant {

// Declares option --name (and -shortName, when not 0) in `definitions`. The
// default's tag fixes how the option is read: bool = a flag without argument,
// string = takes a text argument, integer = takes a decimal number.
void AddParameter(Variant& definitions, char shortName, const char* name, const char* description,
                  const Variant& defaultValue);

// Parses argv with getopt_long. For each option given, `result` receives
// "parameters/<name>" with its value (true for a flag); an option not given
// never appears. Unknown options, missing arguments, numbers that do not parse
// and stray arguments are reported on standard error and make the result false;
// every option that did parse is still in `result`.
bool ParseCommandLine(int argc, const char** argv, Variant& definitions, Variant& result);

// Prints usage: each option's short form, name, argument, description and default.
void PrintHelp(const char* programName, Variant& definitions);

}  // namespace dravik::variant
