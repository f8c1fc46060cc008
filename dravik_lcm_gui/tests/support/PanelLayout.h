// A panel's colour layout as the kernel reports it, for the tests that
// prepare the engine's colour path without a device.
#pragma once

#include <linux/fb.h>

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"

namespace dravik::lcmgui::testsupport {

struct PanelLayout {
    const char* name;
    unsigned depth;
    fb_bitfield red, green, blue;  // offset, length
};

// Makes the engine's screen information describe a true-colour panel of
// `layout`, as the kernel would report it.
inline void setPanelLayout(LcmGui& gui, const PanelLayout& layout) {
    fb_var_screeninfo& var = LcmGuiTestAccess::fbVar(gui);
    var.bits_per_pixel = layout.depth;
    var.red = layout.red;
    var.green = layout.green;
    var.blue = layout.blue;
    LcmGuiTestAccess::fbFix(gui).visual = FB_VISUAL_TRUECOLOR;
}

}  // namespace dravik::lcmgui::testsupport
