#pragma once

#include <cstdint>

namespace dravik::lcmgui {

// systemd's watchdog, kept from the main loop: when the service manager asks
// for it (WatchdogSec= in the unit sets WATCHDOG_USEC), kick() sends
// "WATCHDOG=1" through sd_notify at half the interval, no more often. A loop
// that stops calling kick() misses its pings and systemd restarts the daemon.
class Watchdog {
public:
    // Reads the interval from the environment (sd_watchdog_enabled).
    Watchdog();

    // Whether the service manager watches this process.
    bool enabled() const { return intervalMs_ != 0; }
    // The interval between pings, in milliseconds (half systemd's timeout).
    uint64_t intervalMs() const { return intervalMs_; }

    // Called on every turn of the main loop: pings when the interval has
    // passed since the last ping (the first call always pings).
    void kick();

private:
    uint64_t intervalMs_ = 0;
    uint64_t lastPingMs_ = 0;
    bool pinged_ = false;
};

}  // namespace dravik::lcmgui
