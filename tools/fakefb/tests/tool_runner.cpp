#include "tool_runner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "dravik_test_support/temp_dir.h"

namespace fakefb::test {
namespace {

[[noreturn]] void execChild(const std::vector<std::string>& args,
                            const std::vector<std::pair<std::string, std::string>>& env,
                            const std::string& outPath, const std::string& errPath) {
    if (freopen(outPath.c_str(), "w", stdout) == nullptr ||
        freopen(errPath.c_str(), "w", stderr) == nullptr) {
        _exit(126);
    }
    for (const auto& [name, value] : env) {
        if (value.empty()) {
            unsetenv(name.c_str());
        } else {
            setenv(name.c_str(), value.c_str(), 1);
        }
    }
    // A cross build's tools run under its emulator (DRAVIK_EMULATOR).
    std::vector<std::string> words;
    std::istringstream split(getenv("DRAVIK_EMULATOR") != nullptr ? getenv("DRAVIK_EMULATOR") : "");
    for (std::string word; split >> word;) {
        words.push_back(word);
    }
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (auto& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
}

}  // namespace

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

ToolResult runTool(const std::vector<std::string>& args,
                   const std::vector<std::pair<std::string, std::string>>& env) {
    const dravik::testsupport::TempDir dir("fakefb-test-");
    const std::string outPath = dir.path() + "/out";
    const std::string errPath = dir.path() + "/err";
    const pid_t pid = fork();
    if (pid == 0) {
        execChild(args, env, outPath, errPath);
    }
    ToolResult result;
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        return result;
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = readAll(outPath);
    result.err = readAll(errPath);
    return result;
}

}  // namespace fakefb::test
