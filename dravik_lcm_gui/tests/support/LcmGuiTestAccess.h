#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "LcmGui.h"

namespace dravik::lcmgui {

// The engine's fields as the tests see them: the tables, the screen
// information, the drawing buffer, the screen state and the font geometry.
class LcmGuiTestAccess {
public:
    static uint32_t* lutRed(LcmGui& gui) { return gui.lutRed; }
    static uint32_t* lutGreen(LcmGui& gui) { return gui.lutGreen; }
    static uint32_t* lutBlue(LcmGui& gui) { return gui.lutBlue; }
    static uint16_t* palRed(LcmGui& gui) { return gui.palRed; }
    static uint16_t* palGreen(LcmGui& gui) { return gui.palGreen; }
    static uint16_t* palBlue(LcmGui& gui) { return gui.palBlue; }
    static const fb_cmap& cmap(LcmGui& gui) { return gui.cmap; }
    static int32_t redMult(LcmGui& gui) { return gui.redMult; }
    static int32_t greenMult(LcmGui& gui) { return gui.greenMult; }
    static int32_t* redDither(LcmGui& gui) { return gui.redDither; }
    static int32_t* greenDither(LcmGui& gui) { return gui.greenDither; }
    static int32_t* blueDither(LcmGui& gui) { return gui.blueDither; }
    static int32_t* grayDither(LcmGui& gui) { return gui.grayDither; }
    static float gamma(LcmGui& gui) { return gui.gamma; }
    static unsigned char* fbMem(LcmGui& gui) { return gui.fbMem; }
    static uint64_t fbSize(LcmGui& gui) { return gui.fbSize; }
    static int fbFd(LcmGui& gui) { return gui.fbFd; }
    static fb_fix_screeninfo& fbFix(LcmGui& gui) { return gui.fbFix; }
    static fb_var_screeninfo& fbVar(LcmGui& gui) { return gui.fbVar; }
    static const std::string& devicePath(LcmGui& gui) { return gui.devicePath; }
    static cv::Mat& displayBuf(LcmGui& gui) { return gui.displayBuf; }
    static GuiAnimStateDesc& state(LcmGui& gui) { return gui.state; }
    static uint32_t fontSize(LcmGui& gui) { return gui.fontSize; }
    static uint32_t lineHeight(LcmGui& gui) { return gui.lineHeight; }
    static uint32_t lineGap(LcmGui& gui) { return gui.lineGap; }
    static const std::array<int32_t, 64>& ditherMatrix() { return LcmGui::ditherMatrix; }
    static bool prepareToService(LcmGui& gui) { return gui.prepareToService(); }
    // The colour path as init prepares it from fbVar and fbFix.
    static bool prepareColourPath(LcmGui& gui) { return gui.prepareColourPath(); }
    // Whether init chose a dedicated line conversion for the panel's layout.
    static bool hasFastLine(LcmGui& gui) { return gui.fastLine != nullptr; }
    // The line conversion through the lookup and dither tables alone.
    static unsigned char* convertLineByTables(LcmGui& gui, unsigned depth, unsigned line,
                                              unsigned width, unsigned char* dst,
                                              unsigned char* src) {
        return gui.convertLineByTables(depth, line, width, dst, src);
    }
    static uint32_t animationLevel(const LcmGui& gui, uint64_t now) {
        return gui.animationLevel(now);
    }
    static GuiBackLight& backLight(LcmGui& gui) { return gui.backLight; }
    static FontRenderer& fontRenderer(LcmGui& gui) { return gui.fontRenderer; }
    // The panel's memory as showBuf leaves it.
    static std::vector<uint8_t> panelBytes(LcmGui& gui) {
        return {gui.fbMem, gui.fbMem + gui.fbSize};
    }
    static void fillPanel(LcmGui& gui, uint8_t value) {
        std::fill(gui.fbMem, gui.fbMem + gui.fbSize, value);
    }

    static bool initFonts(LcmGui& gui) { return gui.fontRenderer.init(); }
    // The turn from the screen to the panel, set without start-up.
    static void setRotation(LcmGui& gui, unsigned degrees) { gui.rotation = degrees; }
    // Points the engine at panel memory the test owns (never unmapped by it:
    // clear it with nullptr before the engine goes).
    static void setPanelMemory(LcmGui& gui, unsigned char* memory, unsigned lineLength) {
        gui.fbMem = memory;
        gui.fbFix.line_length = lineLength;
    }

    // A 24-bit panel in anonymous memory instead of a device: the screen size
    // that the drawing operations check against, a drawing buffer and a mapping
    // that showBuf writes to and the destructor unmaps. Rows are `lineLength`
    // bytes long (0: exactly three bytes per pixel).
    static bool setMemoryPanel(LcmGui& gui, unsigned width, unsigned height,
                               unsigned lineLength = 0);
};

}  // namespace dravik::lcmgui
