// Arbitrary bytes as a screens file, loaded as the daemon loads it, then every
// screen looked up.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "GuiConfig.h"

using dravik::lcmgui::GuiConfig;

namespace {

// One in-memory file, rewritten for every input.
const std::string& filePath() {
    static const std::string path = [] {
        const int fd = memfd_create("screens.json", 0);
        if (fd < 0) {
            abort();
        }
        return "/proc/self/fd/" + std::to_string(fd);
    }();
    return path;
}

int fileDescriptor() {
    return std::stoi(filePath().substr(filePath().rfind('/') + 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int fd = fileDescriptor();
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
        abort();
    }
    GuiConfig config;
    if (!config.fromJSONFile(filePath())) {
        return 0;
    }
    bool found = false;
    for (const char* name : {"boot", "logo", "", "update", "a"}) {
        (void)config.getScreenDesc(name, found);
    }
    (void)config.getImgPath();
    (void)config.getBackLightPath();
    return 0;
}
