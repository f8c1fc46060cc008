#include "Watchdog.h"

#include <systemd/sd-daemon.h>

#include "dravik_logger/logger.h"
#include "dravik_utils/utils.h"

namespace dravik::lcmgui {

Watchdog::Watchdog() {
    uint64_t timeoutUsec = 0;
    // Keeps the variables for children; a WATCHDOG_PID that names another
    // process leaves the watchdog off.
    const int watched = sd_watchdog_enabled(0, &timeoutUsec);
    if (watched < 0) {
        DRAVIK_LOG(logger::kWarning, -watched, "Ignoring the watchdog settings");
        return;
    }
    if (watched > 0) {
        intervalMs_ = timeoutUsec / 2000;  // half the timeout, as systemd advises
        intervalMs_ = intervalMs_ == 0 ? 1 : intervalMs_;
        DRAVIK_LOG(logger::kDebug, 0, "Watchdog: pinging every %llu ms",
                   static_cast<unsigned long long>(intervalMs_));
    }
}

void Watchdog::kick() {
    if (intervalMs_ == 0) {
        return;
    }
    const uint64_t now = nowMs();
    if (pinged_ && now - lastPingMs_ < intervalMs_) {
        return;
    }
    // A ping that cannot be sent is not worth a line per turn: the service
    // manager that misses it restarts the daemon, which is the point.
    (void)sd_notify(0, "WATCHDOG=1");
    lastPingMs_ = now;
    pinged_ = true;
}

}  // namespace dravik::lcmgui
