// Screens shown through the daemon's own display engine at a chosen time, and
// the engine's panel as a picture: what the preview draws and what the
// reference-picture tests compare. Not installed: it needs the engine's
// headers, which are the daemon's own.
#pragma once

#include <linux/fb.h>

#include <cstddef>
#include <cstdint>
#include <opencv2/core.hpp>

#include "GuiConfig.h"
#include "LcmGui.h"
#include "dravik_panel_picture/picture.h"

namespace dravik::panel {

// The engine's clock while it lives (utils::nowMs reads it), standing still
// until a scene moves it; the clock that was there before comes back when it
// goes. One lives at a time.
class SceneClock {
public:
    // `startMs` above 0: an animation start of 0 means "nothing animates".
    explicit SceneClock(uint64_t startMs);
    ~SceneClock();
    SceneClock(const SceneClock&) = delete;
    SceneClock& operator=(const SceneClock&) = delete;

    // Shows `screen` as the daemon would `atMs` milliseconds after it was set:
    // the full redraw, then the main loop's ticks every 30 ms up to atMs and
    // one at atMs. False when the engine refuses the screen.
    bool show(lcmgui::LcmGui& gui, const lcmgui::GuiScreenDesc& screen, uint64_t atMs);

private:
    uint64_t startMs_;
    uint64_t (*previous_)();
};

// A screen of one image, or of one line of text at (x, y): the scenes that
// the tests of the engine and of the preview show.
lcmgui::GuiScreenDesc imageScreen(const char* file,
                                  lcmgui::AnimType animation = lcmgui::kAnimStatic,
                                  uint32_t duration = 0, uint16_t count = 0);
lcmgui::GuiScreenDesc textScreen(const char* text, uint16_t size, uint16_t x = 0, uint16_t y = 0);

// A panel format as its driver reports it, with lines of `lineLength` bytes.
PanelMemoryFormat memoryFormat(const fb_var_screeninfo& var, std::size_t lineLength);

// What the engine's panel memory shows, as the memory holds it (not turned).
cv::Mat enginePicture(const lcmgui::LcmGui& gui);

}  // namespace dravik::panel
