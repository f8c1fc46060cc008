// main() for test programs that need the simulated panel in their own process.
#include <gtest/gtest.h>

#include "fakefb/fakefb.h"

int main(int argc, char** argv) {
    if (!fakefb::ensurePreloaded(argc, argv)) {
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
