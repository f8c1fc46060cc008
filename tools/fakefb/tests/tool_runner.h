// Runs one of the fakefb tools as a child process and collects what it said.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace fakefb::test {

struct ToolResult {
    int status = -1;  // exit status, or -1 when the child did not exit normally
    std::string out;
    std::string err;
};

// The whole file at path; empty when it cannot be read.
std::string readAll(const std::string& path);

// env: variables to set (value) or remove (empty value) in the child only.
ToolResult runTool(const std::vector<std::string>& args,
                   const std::vector<std::pair<std::string, std::string>>& env = {});

}  // namespace fakefb::test
