#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "GuiConfig.h"
#include "LcmGui.h"
#include "dravik_logger/log_capture.h"
#include "panel_scene.h"
#include "preview/Panel.h"

namespace dravik::preview {

// The display engine's log records while it lives, kept off standard error:
// the tools report them in their own words.
class EngineMessages {
public:
    const std::vector<logger::Record>& records() const { return capture_.records; }

private:
    logger::LogCapture capture_{logger::LogCapture::kQuiet};
};

// One picture of a contact sheet and what it shows.
struct Frame {
    std::string label;
    cv::Mat picture;
};

// Shows screens on a panel held in memory through the daemon's own display
// engine, as the daemon would show them, and reads the panel back as a picture.
class Renderer {
public:
    explicit Renderer(lcmgui::GuiConfig& config);
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    // Brings the engine up on the panel; image files are looked up below
    // `root` (empty: the real directories). False with the reason in `error`.
    bool start(const PanelFormat& format, const std::string& root, std::string& error);

    // The panel as it shows `screen` `atMs` milliseconds after the screen was
    // set: the full redraw, then the main loop's ticks every 30 ms up to atMs
    // and one at atMs. False when the engine refuses the screen; its reasons
    // are in `messages` either way.
    bool render(const lcmgui::GuiScreenDesc& screen, uint64_t atMs, cv::Mat& picture,
                std::vector<std::string>& messages);

    // One period of an animated screen: every slide of a slideshow, eight
    // phases of breathing, a progress bar at 0, 25, 50, 75 and 100 %; a still
    // screen gives one frame.
    bool renderPeriod(const lcmgui::GuiScreenDesc& screen, std::vector<Frame>& frames,
                      std::vector<std::string>& messages);

    lcmgui::LcmGui& engine() { return gui_; }
    // Whether the last render showed its screen's image (false when the image
    // did not load, or the screen has none).
    bool imageShown() const { return gui_.imageShown(); }

private:
    panel::SceneClock clock_;
    lcmgui::LcmGui gui_;
};

// The picture of a panel turned `rotation` degrees clockwise from the screen,
// turned back as a viewer sees the panel mounted: the screen upright.
cv::Mat asMounted(const cv::Mat& panel, unsigned rotation);

// The frames side by side, each enlarged `scale` times, with its label below.
cv::Mat contactSheet(const std::vector<Frame>& frames, int scale);

// `picture` enlarged `scale` times, pixels kept sharp.
cv::Mat enlarge(const cv::Mat& picture, int scale);

}  // namespace dravik::preview
