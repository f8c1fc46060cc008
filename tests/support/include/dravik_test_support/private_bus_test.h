#pragma once

#include <gtest/gtest.h>

#include <string>

#include "dravik_test_support/private_bus.h"

namespace dravik::testsupport {

// A test with a private bus of its own (PrivateBus, open policy), skipped
// where dbus-daemon is not installed. A fixture that sets up more calls
// PrivateBusTest::SetUp() first and stops when the test was skipped or failed.
class PrivateBusTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!PrivateBus::DaemonInstalled()) {
            GTEST_SKIP() << "dbus-daemon is not installed: these tests need a private bus";
        }
        std::string why;
        ASSERT_TRUE(bus_.Start(why)) << why;
    }

    PrivateBus bus_;
};

}  // namespace dravik::testsupport
