#include "preview/Renderer.h"

#include <algorithm>
#include <opencv2/imgproc.hpp>

namespace dravik::preview {

namespace {

using lcmgui::GuiScreenDesc;

// Where the preview's clock starts; any value above 0 serves, since an
// animation start of 0 means "nothing animates".
constexpr uint64_t kClockStart = 1000000;

// The engine's reasons, as plain lines.
std::vector<std::string> texts(const std::vector<logger::Record>& records) {
    std::vector<std::string> lines;
    for (const auto& record : records) {
        lines.push_back(record.message);
    }
    return lines;
}

}  // namespace

cv::Mat asMounted(const cv::Mat& panel, unsigned rotation) {
    static const std::pair<unsigned, cv::RotateFlags> kBack[] = {
        {90, cv::ROTATE_90_COUNTERCLOCKWISE},
        {180, cv::ROTATE_180},
        {270, cv::ROTATE_90_CLOCKWISE},
    };
    for (const auto& [degrees, flag] : kBack) {
        if (degrees == rotation) {
            cv::Mat upright;
            cv::rotate(panel, upright, flag);
            return upright;
        }
    }
    return panel;
}

Renderer::Renderer(lcmgui::GuiConfig& config) : clock_(kClockStart), gui_(config) {}

Renderer::~Renderer() = default;

bool Renderer::start(const PanelFormat& format, const std::string& root, std::string& error) {
    gui_.setGuiRoot(root);
    EngineMessages log;
    if (gui_.initInMemory(format.var)) {
        return true;
    }
    error = "the display engine cannot draw on a " + describe(format) + " panel";
    for (const auto& line : texts(log.records())) {
        error += ": " + line;
    }
    return false;
}

bool Renderer::render(const GuiScreenDesc& screen, uint64_t atMs, cv::Mat& picture,
                      std::vector<std::string>& messages) {
    EngineMessages log;
    if (!clock_.show(gui_, screen, atMs)) {
        messages = texts(log.records());
        return false;
    }
    picture = asMounted(panel::enginePicture(gui_), gui_.screenRotation());
    messages = texts(log.records());
    return true;
}

namespace {

struct FramePlan {
    uint64_t atMs;
    std::string label;
};

std::vector<FramePlan> periodPlan(const lcmgui::GuiImgConf& img) {
    std::vector<FramePlan> plan;
    const uint64_t d = img.duration;
    switch (img.animation) {
        case lcmgui::kAnimSlideshow:
            // The middle of each slide's share of the cycle.
            for (uint64_t i = 0; i < img.count; ++i) {
                const uint64_t at = (2 * i + 1) * d / (2 * uint64_t{img.count});
                plan.push_back({at, "slide " + std::to_string(i + 1) + "/" +
                                        std::to_string(img.count) + " @" + std::to_string(at)});
            }
            break;
        case lcmgui::kAnimBreathing:
            // The second period: the first one starts from the black full redraw.
            for (uint64_t k = 0; k < 8; ++k) {
                const uint64_t at = d + k * d / 8;
                plan.push_back({at, "phase " + std::to_string(k) + "/8 @" + std::to_string(at)});
            }
            break;
        case lcmgui::kAnimProgressbar:
            for (uint64_t percent = 0; percent <= 100; percent += 25) {
                const uint64_t at = d * percent / 100;
                plan.push_back({at, std::to_string(percent) + "% @" + std::to_string(at)});
            }
            break;
        default:
            plan.push_back({0, ""});
            break;
    }
    return plan;
}

}  // namespace

bool Renderer::renderPeriod(const GuiScreenDesc& screen, std::vector<Frame>& frames,
                            std::vector<std::string>& messages) {
    frames.clear();
    cv::Mat first;
    if (!render(screen, 0, first, messages)) {
        return false;
    }
    // An image that does not load leaves the screen still, as on the device.
    const bool animated =
        screen.img.animation != lcmgui::kAnimStatic && !screen.img.file.empty() && imageShown();
    if (!animated) {
        frames.push_back({"", first});
        return true;
    }
    for (const FramePlan& step : periodPlan(screen.img)) {
        Frame frame{step.label + " ms", {}};
        std::vector<std::string> stepMessages;
        if (!render(screen, step.atMs, frame.picture, stepMessages)) {
            messages = stepMessages;
            return false;
        }
        frames.push_back(std::move(frame));
    }
    return true;
}

cv::Mat enlarge(const cv::Mat& picture, int scale) {
    if (scale <= 1) {
        return picture;
    }
    cv::Mat large;
    cv::resize(picture, large, {}, scale, scale, cv::INTER_NEAREST);
    return large;
}

cv::Mat contactSheet(const std::vector<Frame>& frames, int scale) {
    constexpr int kGap = 6;
    constexpr int kLabelHeight = 20;
    constexpr double kFontScale = 0.4;
    const cv::Scalar background(48, 48, 48);
    const cv::Scalar ink(230, 230, 230);
    if (frames.empty()) {
        return {};
    }
    const int frameW = frames.front().picture.cols * scale;
    const int frameH = frames.front().picture.rows * scale;
    int cellW = frameW;
    for (const Frame& frame : frames) {
        int baseline = 0;
        const cv::Size text =
            cv::getTextSize(frame.label, cv::FONT_HERSHEY_SIMPLEX, kFontScale, 1, &baseline);
        cellW = std::max(cellW, text.width + 4);
    }
    const int count = static_cast<int>(frames.size());
    cv::Mat sheet(frameH + kLabelHeight + 2 * kGap, count * (cellW + kGap) + kGap, CV_8UC3,
                  background);
    for (int i = 0; i < count; ++i) {
        const int left = kGap + i * (cellW + kGap);
        enlarge(frames[i].picture, scale)
            .copyTo(sheet(cv::Rect(left + (cellW - frameW) / 2, kGap, frameW, frameH)));
        cv::putText(sheet, frames[i].label, {left + 2, kGap + frameH + kLabelHeight - 6},
                    cv::FONT_HERSHEY_SIMPLEX, kFontScale, ink, 1, cv::LINE_AA);
    }
    return sheet;
}

}  // namespace dravik::preview
