#include "private_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace {

constexpr const char* kDaemon = "/usr/bin/dbus-daemon";
constexpr int kAddressFd = 3;
constexpr int kStartTimeoutMs = 10000;

const char* kConfigTemplate =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=@DIR@/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
)";

}  // namespace

bool PrivateBus::DaemonInstalled() {
    return access(kDaemon, X_OK) == 0;
}

PrivateBus::~PrivateBus() {
    Kill();
    if (!dir_.empty()) {
        (void)unlink((dir_ + "/bus").c_str());
        (void)unlink(config_.c_str());
        (void)rmdir(dir_.c_str());
    }
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
    char pattern[] = "/tmp/dravik-ipc-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        why = std::string("mkdtemp: ") + strerror(errno);
        return false;
    }
    dir_ = pattern;
    if (!writeConfig(why) || !spawn(why)) {
        return false;
    }
    (void)setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
    (void)setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
    return true;
}

bool PrivateBus::writeConfig(std::string& why) {
    std::string text = kConfigTemplate;
    text.replace(text.find("@DIR@"), 5, dir_);
    config_ = dir_ + "/bus.conf";
    std::ofstream file(config_);
    file << text;
    file.close();
    if (!file) {
        why = "cannot write " + config_;
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
