#include "LcmGuiTestAccess.h"

#include <sys/mman.h>

namespace dravik::lcmgui {

bool LcmGuiTestAccess::setMemoryPanel(LcmGui& gui, unsigned width, unsigned height,
                                      unsigned lineLength) {
    if (gui.fbMem != nullptr) {
        return false;
    }
    gui.fbVar.xres = width;
    gui.fbVar.yres = height;
    gui.fbVar.bits_per_pixel = 24;
    gui.fbFix.line_length = lineLength != 0 ? lineLength : width * 3;
    gui.fbSize = uint64_t{height} * gui.fbFix.line_length;
    void* mem =
        mmap(nullptr, gui.fbSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        return false;
    }
    gui.fbMem = static_cast<unsigned char*>(mem);
    gui.displayBuf = cv::Mat::zeros(static_cast<int>(height), static_cast<int>(width), CV_8UC3);
    return true;
}

}  // namespace dravik::lcmgui
