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

// Removes a directory tree made with makeTempDir() when it goes out of scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace fakefb::test
