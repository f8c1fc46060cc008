#include "preview/Renderer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "dravik_utils/utils.h"

namespace dravik::preview {

namespace {

using lcmgui::GuiScreenDesc;

// The main loop services the engine about every 30 ms when no request arrives.
constexpr uint64_t kTickMs = 30;
// Where the preview's clock starts; any value above 0 serves, since an
// animation start of 0 means "nothing animates".
constexpr uint64_t kClockStart = 1000000;

uint64_t gNow = kClockStart;

uint64_t previewClock() {
    return gNow;
}

// The engine's reasons, as plain lines.
std::vector<std::string> texts(const std::vector<logger::Record>& records) {
    std::vector<std::string> lines;
    for (const auto& record : records) {
        lines.push_back(record.message);
    }
    return lines;
}

bool imageLoaded(const std::vector<logger::Record>& records) {
    return std::none_of(records.begin(), records.end(),
                        [](const logger::Record& r) { return r.function == "loadImage"; });
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

}  // namespace

EngineMessages::EngineMessages() {
    logger::setHook([this](const logger::Record& r) { records_.push_back(r); });
    (void)fflush(stderr);
    savedStderr_ = dup(STDERR_FILENO);
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (devNull >= 0) {
        (void)dup2(devNull, STDERR_FILENO);
        close(devNull);
    }
}

EngineMessages::~EngineMessages() {
    (void)fflush(stderr);
    if (savedStderr_ >= 0) {
        (void)dup2(savedStderr_, STDERR_FILENO);
        close(savedStderr_);
    }
    logger::setHook(nullptr);
}

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

Renderer::Renderer(lcmgui::GuiConfig& config) : gui_(config) {
    (void)utils::setMsClock(previewClock);  // the system clock is put back on destruction
}

Renderer::~Renderer() {
    (void)utils::setMsClock(nullptr);
}

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
    gNow = kClockStart;
    if (!gui_.setState(screen, gNow)) {
        messages = texts(log.records());
        return false;
    }
    (void)gui_.service();  // the full redraw
    for (uint64_t t = firstTick(screen.img, atMs); t < atMs; t += kTickMs) {
        gNow = kClockStart + t;
        (void)gui_.service();
    }
    if (atMs > 0) {
        gNow = kClockStart + atMs;
        (void)gui_.service();
    }
    picture =
        asMounted(panelPicture(gui_.panelFormat(), gui_.panelMemory(), gui_.panelLineLength()),
                  gui_.screenRotation());
    messages = texts(log.records());
    imageLoaded_ = imageLoaded(log.records());
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
        screen.img.animation != lcmgui::kAnimStatic && !screen.img.file.empty() && imageLoaded_;
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
