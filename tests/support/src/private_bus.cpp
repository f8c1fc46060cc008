#include "dravik_test_support/private_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "dravik_test_support/temp_dir.h"

namespace dravik::testsupport {

namespace {

constexpr const char* kDaemon = "/usr/bin/dbus-daemon";
constexpr int kAddressFd = 3;
constexpr int kStartTimeoutMs = 10000;

// The placeholder of the template that the listening address replaces.
constexpr std::string_view kAddressPlaceholder = "@ADDRESS@";

}  // namespace

PrivateBus::PrivateBus() = default;

bool PrivateBus::DaemonInstalled() {
    return access(kDaemon, X_OK) == 0;
}

PrivateBus::~PrivateBus() {
    Kill();  // before the directory with its socket goes
}

void PrivateBus::Kill() {
    if (pid_ <= 0) {
        return;
    }
    (void)kill(pid_, SIGKILL);
    int status = 0;
    (void)waitpid(pid_, &status, 0);
    pid_ = -1;
}

bool PrivateBus::Start(std::string& why) {
    if (!DaemonInstalled()) {
        why = std::string(kDaemon) + " is not installed";
        return false;
    }
    try {
        dir_ = std::make_unique<TempDir>("dravik-ipc-test-");
    } catch (const std::runtime_error& e) {
        why = e.what();
        return false;
    }
    if (!writeConfig(why) || !spawn(why)) {
        return false;
    }
    (void)setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    (void)setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    return true;
}

bool PrivateBus::writeConfig(std::string& why) {
    std::ifstream in(DRAVIK_PRIVATE_BUS_TEMPLATE);
    std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const size_t at = text.find(kAddressPlaceholder);
    if (at == std::string::npos) {
        why = std::string("cannot read the bus configuration ") + DRAVIK_PRIVATE_BUS_TEMPLATE;
        return false;
    }
    text.replace(at, kAddressPlaceholder.size(), "unix:path=" + dir_->file("bus"));
    try {
        config_ = dir_->write("bus.conf", text);
    } catch (const std::runtime_error& e) {
        why = e.what();
        return false;
    }
    return true;
}

bool PrivateBus::spawn(std::string& why) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        why = std::string("pipe: ") + strerror(errno);
        return false;
    }
    const std::string configArg = "--config-file=" + config_;
    const std::string addressArg = "--print-address=" + std::to_string(kAddressFd);
    const char* argv[] = {kDaemon, configArg.c_str(), addressArg.c_str(), "--nofork", nullptr};
    pid_ = fork();
    if (pid_ == 0) {
        // dup2 onto another number clears close-on-exec; onto itself it would not.
        if (fds[1] == kAddressFd) {
            (void)fcntl(kAddressFd, F_SETFD, 0);
        } else {
            (void)dup2(fds[1], kAddressFd);
        }
        execv(kDaemon, const_cast<char* const*>(argv));
        _exit(127);
    }
    close(fds[1]);
    const bool ok = pid_ > 0 && readAddress(fds[0], why);
    close(fds[0]);
    if (pid_ < 0) {
        why = std::string("fork: ") + strerror(errno);
    }
    return ok;
}

bool PrivateBus::readAddress(int fd, std::string& why) {
    std::string line;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, kStartTimeoutMs) <= 0) {
            why = "dbus-daemon did not print its address in time";
            return false;
        }
        char c = 0;
        const ssize_t n = read(fd, &c, 1);
        if (n <= 0) {
            why = "dbus-daemon exited before printing its address";
            return false;
        }
        if (c == '\n') {
            break;
        }
        line += c;
    }
    address_ = line;
    return !address_.empty();
}

}  // namespace dravik::testsupport
