#include "dravik_test_support/program_run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "dravik_test_support/temp_dir.h"

namespace dravik::testsupport {
namespace {

[[noreturn]] void execChild(const std::vector<std::string>& args, const Environment& env,
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
    std::vector<std::string> words;
    const char* emulator = getenv("DRAVIK_EMULATOR");
    std::istringstream split(emulator != nullptr ? emulator : "");
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

ProgramRun runProgram(const std::vector<std::string>& args, const Environment& env) {
    const TempDir dir("program-run-");
    const pid_t pid = fork();
    if (pid == 0) {
        execChild(args, env, dir.file("out"), dir.file("err"));
    }
    ProgramRun result;
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        return result;
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = dir.read("out");
    result.err = dir.read("err");
    return result;
}

ProgramRun writeExampleImages(const std::string& program, const std::string& imagesDir) {
    std::filesystem::create_directories(imagesDir);
    return runProgram({program, imagesDir});
}

}  // namespace dravik::testsupport
