#include "dravik_test_support/clock_guard.h"

namespace dravik::testsupport {

ClockGuard::ClockGuard(utils::MsClock clock) : previous_(utils::setMsClock(clock)) {}

ClockGuard::~ClockGuard() {
    (void)utils::setMsClock(previous_);  // returns this guard's own clock
}

}  // namespace dravik::testsupport
