// What the tests of the engine on a panel in memory share: their access to
// the engine's internals, the byte a panel is filled with to see what a tick
// wrote, the panel's size, and a clock the test sets by hand.
#pragma once

#include <cstdint>

#include "LcmGuiTestAccess.h"

namespace dravik::lcmgui::testsupport {

using Access = LcmGuiTestAccess;

// A byte the drawing never writes by chance: a panel filled with it shows
// what the next tick wrote.
inline constexpr uint8_t kSentinel = 0x5A;

// The memory panel that the screen tests draw on.
inline constexpr int kPanelWidth = 240;
inline constexpr int kPanelHeight = 64;

// The time testClock() reads: a ClockGuard over testClock makes it the source
// of dravik::utils::nowMs(), and the test moves it by hand.
inline uint64_t gNow = 0;
inline uint64_t testClock() {
    return gNow;
}

}  // namespace dravik::lcmgui::testsupport
