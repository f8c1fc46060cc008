#pragma once

#include "dravik_utils/utils.h"

namespace dravik::testsupport {

// Makes `clock` the source of dravik::utils::nowMs() while it lives and puts
// back the clock that was there before when it goes, so a test that drives
// time never leaves its clock behind for the next one, whichever way it ends.
class ClockGuard {
public:
    explicit ClockGuard(utils::MsClock clock);
    ~ClockGuard();
    ClockGuard(const ClockGuard&) = delete;
    ClockGuard& operator=(const ClockGuard&) = delete;

private:
    utils::MsClock previous_;
};

}  // namespace dravik::testsupport
