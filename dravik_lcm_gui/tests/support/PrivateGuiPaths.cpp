#include "PrivateGuiPaths.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "dravik_test_support/temp_dir.h"

namespace dravik::lcmgui::testsupport {

using ::dravik::testsupport::TempDir;

namespace {

struct State {
    bool entered = false;
    bool ready = false;
    std::string reason;
    std::unique_ptr<TempDir> tempDir;
    std::vector<std::string> mounts;
};

State& state() {
    static State s;
    return s;
}

std::string errorText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

bool writeFile(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

bool makeDirs(const std::string& path) {
    for (size_t pos = 1; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        const std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

// A private mount namespace: as root directly, otherwise inside a new user
// namespace that maps the caller to root.
bool enterNamespace(std::string& reason) {
    if (geteuid() == 0) {
        if (unshare(CLONE_NEWNS) != 0) {
            reason = errorText("unshare(CLONE_NEWNS)");
            return false;
        }
    } else {
        const uid_t uid = geteuid();
        const gid_t gid = getegid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            reason = errorText("unshare(CLONE_NEWUSER | CLONE_NEWNS)");
            return false;
        }
        if (!writeFile("/proc/self/setgroups", "deny") ||
            !writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
            !writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
            reason = errorText("user namespace id maps");
            return false;
        }
    }
    // Nothing mounted from here on may propagate back to the host.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        reason = errorText("making / private");
        return false;
    }
    return true;
}

bool mountOverlay(State& s, const std::string& target, const std::string& name) {
    const std::string upper = s.tempDir->file(name + "-upper");
    const std::string work = s.tempDir->file(name + "-work");
    if (!makeDirs(upper) || !makeDirs(work)) {
        return false;
    }
    const std::string options = "lowerdir=" + target + ",upperdir=" + upper + ",workdir=" + work;
    if (mount("overlay", target.c_str(), "overlay", 0, options.c_str()) != 0) {
        return false;
    }
    s.mounts.push_back(target);
    return true;
}

// Where no overlay can be made, an empty tmpfs over an existing directory on
// the way to `dir` still keeps the writes private.
bool mountTmpfsOnWayTo(State& s, const std::string& dir) {
    for (std::string candidate = dir; candidate.size() > 1;
         candidate = candidate.substr(0, candidate.rfind('/'))) {
        struct stat info {};
        if (stat(candidate.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && candidate != "/etc" &&
            candidate != "/usr") {
            if (mount("tmpfs", candidate.c_str(), "tmpfs", 0, "mode=0755") != 0) {
                return false;
            }
            s.mounts.push_back(candidate);
            return true;
        }
    }
    return false;
}

bool privateDirectory(State& s, const std::string& root, const std::string& name,
                      const std::string& dir) {
    if (!mountOverlay(s, root, name) && !mountTmpfsOnWayTo(s, dir)) {
        s.reason = errorText("neither an overlay on " + root + " nor a tmpfs towards " + dir);
        return false;
    }
    if (!makeDirs(dir)) {
        s.reason = errorText("creating " + dir);
        return false;
    }
    return true;
}

}  // namespace

PrivateGuiPaths* PrivateGuiPaths::registerEnvironment() {
    auto* env = new PrivateGuiPaths;
    ::testing::AddGlobalTestEnvironment(env);  // gtest owns it
    return env;
}

void PrivateGuiPaths::SetUp() {
    State& s = state();
    if (s.entered) {
        return;
    }
    s.entered = true;
    try {
        s.tempDir = std::make_unique<TempDir>("dravik_gui_paths_");
    } catch (const std::runtime_error& e) {
        s.reason = e.what();
        return;
    }
    if (!enterNamespace(s.reason)) {
        return;
    }
    s.ready = privateDirectory(s, "/usr", "usr", "/usr/etc/gui") &&
              privateDirectory(s, "/etc", "etc", "/etc/gui");
}

void PrivateGuiPaths::TearDown() {
    State& s = state();
    for (auto it = s.mounts.rbegin(); it != s.mounts.rend(); ++it) {
        (void)umount2(it->c_str(), MNT_DETACH);  // the namespace ends with the process anyway
    }
    s.mounts.clear();
    s.ready = false;
    s.tempDir.reset();
}

bool PrivateGuiPaths::ready() {
    return state().ready;
}

const std::string& PrivateGuiPaths::reason() {
    return state().reason;
}

const std::string& PrivateGuiPaths::tempDir() {
    static const std::string none;
    const State& s = state();
    return s.tempDir ? s.tempDir->path() : none;
}

}  // namespace dravik::lcmgui::testsupport
