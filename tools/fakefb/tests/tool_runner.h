// What the tests of the fakefb tools share: running a tool as a child process
// and reading the files it writes.
#pragma once

#include <string>

#include "dravik_test_support/program_run.h"

namespace fakefb::testsupport {

using ToolResult = dravik::testsupport::ProgramRun;
using dravik::testsupport::runProgram;

// The whole file at path; empty when it cannot be read.
std::string readAll(const std::string& path);

}  // namespace fakefb::testsupport
