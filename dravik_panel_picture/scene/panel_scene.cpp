#include "panel_scene.h"

#include "dravik_utils/utils.h"

namespace dravik::panel {

namespace {

// The main loop services the engine about every 30 ms when no request arrives.
constexpr uint64_t kTickMs = 30;

uint64_t gSceneNow = 0;

uint64_t sceneNow() {
    return gSceneNow;
}

// Where the ticks before `atMs` start. A cycling animation clears and redraws
// its image's rectangle whole at every change of level, and changes level
// within any one cycle that has more than one level: ticks before its last two
// cycles cannot change the picture, and are skipped so that a late time costs
// no more than an early one.
uint64_t firstTick(const lcmgui::GuiImgConf& img, uint64_t atMs) {
    const bool cycles =
        img.animation == lcmgui::kAnimSlideshow || img.animation == lcmgui::kAnimBreathing;
    const uint64_t keep = 2 * uint64_t{img.duration};
    if (!cycles || img.duration == 0 || atMs <= keep + kTickMs) {
        return kTickMs;
    }
    return (atMs - keep) / kTickMs * kTickMs;
}

ChannelLayout channel(const fb_bitfield& field) {
    return {field.offset, field.length};
}

}  // namespace

lcmgui::GuiScreenDesc imageScreen(const char* file, lcmgui::AnimType animation, uint32_t duration,
                                  uint16_t count) {
    lcmgui::GuiScreenDesc desc;
    desc.img.file = file;
    desc.img.animation = animation;
    desc.img.duration = duration;
    desc.img.count = count;
    return desc;
}

lcmgui::GuiScreenDesc textScreen(const char* text, uint16_t size, uint16_t x, uint16_t y) {
    lcmgui::GuiScreenDesc desc;
    desc.text.text = text;
    desc.text.size = size;
    desc.text.x = x;
    desc.text.y = y;
    return desc;
}

SceneClock::SceneClock(uint64_t startMs)
    : startMs_(startMs), previous_(utils::setMsClock(sceneNow)) {
    gSceneNow = startMs_;
}

SceneClock::~SceneClock() {
    (void)utils::setMsClock(previous_);  // returns this clock's own reading function
}

bool SceneClock::show(lcmgui::LcmGui& gui, const lcmgui::GuiScreenDesc& screen, uint64_t atMs) {
    gSceneNow = startMs_;
    if (!gui.setState(screen, gSceneNow)) {
        return false;
    }
    (void)gui.service();  // the full redraw
    for (uint64_t t = firstTick(screen.img, atMs); t < atMs; t += kTickMs) {
        gSceneNow = startMs_ + t;
        (void)gui.service();
    }
    if (atMs > 0) {
        gSceneNow = startMs_ + atMs;
        (void)gui.service();
    }
    return true;
}

PanelMemoryFormat memoryFormat(const fb_var_screeninfo& var, std::size_t lineLength) {
    return {var.xres,           var.yres,          var.bits_per_pixel, channel(var.red),
            channel(var.green), channel(var.blue), lineLength,         PixelLookup::direct};
}

cv::Mat enginePicture(const lcmgui::LcmGui& gui) {
    return panelPicture(memoryFormat(gui.panelFormat(), gui.panelLineLength()), gui.panelMemory());
}

}  // namespace dravik::panel
