#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace dravik::testsupport {

class TempDir;

// A dbus-daemon of the test's own, listening on a socket in a temporary
// directory, configured from tests/support/private-bus.conf.in: anyone may own
// every name and send and receive everything. Start() points
// DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS at it; the destructor
// stops it and removes the directory.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // False with the reason when the daemon is missing or does not come up.
    bool Start(std::string& why);
    // Stops the daemon at once (SIGKILL), as a crash of the bus would.
    void Kill();

    const std::string& address() const { return address_; }

    static bool DaemonInstalled();

private:
    bool writeConfig(std::string& why);
    bool spawn(std::string& why);
    bool readAddress(int fd, std::string& why);

    std::unique_ptr<TempDir> dir_;
    std::string config_;
    std::string address_;
    pid_t pid_ = -1;
};

}  // namespace dravik::testsupport
