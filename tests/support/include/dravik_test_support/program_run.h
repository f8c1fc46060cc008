#pragma once

// Runs one of the project's programs as a child process, as a user would, and
// collects what it said: the tests of the tools' command lines.

#include <string>
#include <utility>
#include <vector>

namespace dravik::testsupport {

struct ProgramRun {
    int status = -1;  // exit status, or -1 when the child did not exit normally
    std::string out;
    std::string err;
};

// Variables to set (value) or remove (empty value) in the child only.
using Environment = std::vector<std::pair<std::string, std::string>>;

// Runs args[0] with args. A cross build's programs run under its emulator
// (DRAVIK_EMULATOR, the words that start it).
ProgramRun runProgram(const std::vector<std::string>& args, const Environment& env = {});

// Runs `program` (make_example_images) to write the example screens' pictures
// into `imagesDir`, made first if missing.
ProgramRun writeExampleImages(const std::string& program, const std::string& imagesDir);

}  // namespace dravik::testsupport
