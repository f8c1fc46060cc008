#pragma once

#include <gtest/gtest.h>

#include <string>

namespace dravik::lcmgui::testsupport {

// The image directories the engine accepts (/usr/etc/gui/ and /etc/gui/) made
// writable for a test program without touching the host: the program enters a
// private mount namespace in which /usr and /etc are overlays whose upper layers
// live in a temporary directory. Everything written there disappears with the
// temporary directory when the program ends.
//
// Entering must happen while the process is single-threaded; register the
// environment before the tests run:
//   static auto* const gPaths = PrivateGuiPaths::registerEnvironment();
class PrivateGuiPaths : public ::testing::Environment {
public:
    static PrivateGuiPaths* registerEnvironment();

    void SetUp() override;
    void TearDown() override;

    // True once the namespace is entered and both directories exist in it.
    static bool ready();
    // Why the namespace could not be set up (empty when ready).
    static const std::string& reason();
    // The temporary directory that holds the upper layers.
    static const std::string& tempDir();
};

// Skips the current test when the private directories are not available.
#define REQUIRE_PRIVATE_GUI_PATHS()                                                   \
    do {                                                                              \
        if (!::dravik::lcmgui::testsupport::PrivateGuiPaths::ready()) {               \
            GTEST_SKIP() << "no private /usr/etc/gui and /etc/gui: "                  \
                         << ::dravik::lcmgui::testsupport::PrivateGuiPaths::reason(); \
        }                                                                             \
    } while (0)

}  // namespace dravik::lcmgui::testsupport
