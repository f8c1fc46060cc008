// The watchdog's pings: only when the service manager asks for them, at half
// its interval, never more often, read from a notify socket of the test's own.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Watchdog.h"
#include "dravik_test_support/clock_guard.h"
#include "dravik_test_support/temp_dir.h"

using dravik::lcmgui::Watchdog;
using dravik::testsupport::ClockGuard;
using dravik::testsupport::TempDir;

namespace {

uint64_t gNow = 0;
uint64_t testClock() {
    return gNow;
}

// A datagram socket standing in for systemd's notify socket, named by the
// environment while it lives.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path) : path_(path) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~NotifySocket() {
        unsetenv("NOTIFY_SOCKET");
        close(fd_);
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    bool bound() const { return bound_; }

    // The messages that arrived since the last call.
    std::vector<std::string> received() {
        std::vector<std::string> messages;
        char buffer[256];
        for (;;) {
            const ssize_t got = recv(fd_, buffer, sizeof(buffer), 0);
            if (got < 0) {
                return messages;
            }
            messages.emplace_back(buffer, static_cast<size_t>(got));
        }
    }

private:
    std::string path_;
    int fd_ = -1;
    bool bound_ = false;
};

class WatchdogTest : public ::testing::Test {
protected:
    void TearDown() override {
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
    }
    TempDir dir_{"watchdog_"};
    ClockGuard clock_{testClock};
};

}  // namespace

TEST_F(WatchdogTest, without_the_service_managers_request_nothing_is_sent) {
    NotifySocket notify(dir_.file("notify"));
    ASSERT_TRUE(notify.bound());
    unsetenv("WATCHDOG_USEC");
    Watchdog watchdog;
    EXPECT_FALSE(watchdog.enabled());
    for (gNow = 0; gNow < 5000; gNow += 30) {
        watchdog.kick();
    }
    EXPECT_TRUE(notify.received().empty());
}

TEST_F(WatchdogTest, pings_at_half_the_interval_and_no_more_often) {
    NotifySocket notify(dir_.file("notify"));
    ASSERT_TRUE(notify.bound());
    setenv("WATCHDOG_USEC", "1000000", 1);  // systemd's WatchdogSec=1s
    gNow = 10000;
    Watchdog watchdog;
    ASSERT_TRUE(watchdog.enabled());
    EXPECT_EQ(watchdog.intervalMs(), 500U);
    watchdog.kick();  // the first turn pings at once
    EXPECT_EQ(notify.received(), std::vector<std::string>{"WATCHDOG=1"});
    for (gNow = 10030; gNow < 10500; gNow += 30) {
        watchdog.kick();
    }
    EXPECT_TRUE(notify.received().empty());
    gNow = 10500;
    watchdog.kick();
    EXPECT_EQ(notify.received(), std::vector<std::string>{"WATCHDOG=1"});
    // A loop that turns every 30 ms for 3 more seconds pings 5 more times (at
    // 11010, 11520, 12030, 12540 and 13050 ms), not 100.
    size_t pings = 0;
    for (gNow = 10530; gNow <= 13500; gNow += 30) {
        watchdog.kick();
        pings += notify.received().size();
    }
    EXPECT_EQ(pings, 5U);
}

TEST_F(WatchdogTest, a_watchdog_meant_for_another_process_is_left_off) {
    NotifySocket notify(dir_.file("notify"));
    setenv("WATCHDOG_USEC", "1000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
    Watchdog watchdog;
    EXPECT_FALSE(watchdog.enabled());
    watchdog.kick();
    EXPECT_TRUE(notify.received().empty());
}
