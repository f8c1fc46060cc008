#include <algorithm>
#include <cstdint>
#include <string>

#include "Checks.h"
#include "GuiLimits.h"
#include "GuiPaths.h"
#include "dravik_image/image_file.h"
#include "dravik_utils/utils.h"

// Where a screen's elements land on the panel: the image's file, size and
// place, the text's size and place, and where the two overlap.

namespace dravik::preview::checker {

namespace key = lcmgui::key;

namespace {

constexpr char kShownWithout[] = "The screen is shown without its image.";
constexpr char kLeftOut[] = "The screen is shown without its text.";

}  // namespace

std::optional<Rect> Checks::checkImage(const JsonNode& img, const GuiImgConf& conf) {
    if (conf.file.empty() || imgPath_.empty()) {
        return std::nullopt;
    }
    const std::string path = imgPath_ + "/" + conf.file;
    const cv::Mat colour = readImage(img, path);
    if (colour.empty()) {
        return std::nullopt;
    }
    return placeImage(img, conf, path, colour);
}

// The image as the daemon decodes it; empty, with the reason told, when the
// daemon would not read it.
cv::Mat Checks::readImage(const JsonNode& img, const std::string& path) {
    const size_t fileAt = at(img, key::kFile);
    std::string contained;
    if (!lcmgui::containGuiPath(path, contained)) {
        warning(fileAt,
                "image " + quoted(path) + " lies outside " + lcmgui::kGuiDirectories[0] + " and " +
                    lcmgui::kGuiDirectories[1] + ": the daemon does not read it",
                "Images must lie below one of those directories (\"..\" cannot leave them). " +
                    std::string(kShownWithout));
        return cv::Mat();
    }
    const std::string onDisk = options_.root + contained;
    std::string resolved;
    bool isDirectory = false;
    if (!resolvePath(onDisk.c_str(), resolved, isDirectory, nullptr)) {
        warning(fileAt,
                "image " + quoted(path) + " is not found" +
                    (options_.root.empty() ? "" : " (looked up as " + onDisk + ")"),
                "File names are case-sensitive. " + std::string(kShownWithout));
        return cv::Mat();
    }
    const cv::Mat stored = image::readImage(resolved, image::ReadMode::kAsStored);
    cv::Mat colour = stored.empty() ? cv::Mat() : image::readImage(resolved);
    if (stored.empty() || colour.empty()) {
        warning(fileAt, "image " + quoted(path) + " cannot be decoded",
                "The daemon reads what OpenCV reads (PNG, JPEG, BMP, ...), up to about 100 "
                "panels' worth of pixels. " +
                    std::string(kShownWithout));
        return cv::Mat();
    }
    warnOfImageFormat(fileAt, path, stored);
    return colour;
}

// What the daemon changes of an image's format before it shows it.
void Checks::warnOfImageFormat(size_t fileAt, const std::string& path, const cv::Mat& stored) {
    if (stored.depth() != CV_8U) {
        warning(fileAt,
                "image " + quoted(path) + " is not 8 bits per channel: the daemon reduces it",
                "Save it with 8 bits per channel to see exactly what the panel shows.");
    }
    if (stored.channels() == 4 || stored.channels() == 2) {
        warning(fileAt, "image " + quoted(path) + " has an alpha channel, which the daemon drops",
                "Transparent pixels show the colour stored under them (often black): the image "
                "is added onto the screen, not blended. Save it without alpha.");
    } else if (stored.channels() == 1) {
        warning(fileAt,
                "image " + quoted(path) + " is grey, not colour: the daemon makes it colour",
                "It shows as intended; save it as 8-bit colour to silence this.");
    }
}

// Whether the image, as its animation shows it, fits the panel at its place;
// the rectangle it covers when it does.
std::optional<Rect> Checks::placeImage(const JsonNode& img, const GuiImgConf& conf,
                                       const std::string& path, const cv::Mat& colour) {
    const size_t fileAt = at(img, key::kFile);
    const lcmgui::ImageVerdict verdict =
        lcmgui::imageFitOf(panelWidth(), panelHeight(), static_cast<unsigned>(colour.cols),
                           static_cast<unsigned>(colour.rows), conf);
    const unsigned w = verdict.w;
    const unsigned h = verdict.h;
    if (verdict.fit == lcmgui::ImageFit::kNothingShown) {
        const bool slides = conf.animation == lcmgui::kAnimSlideshow;
        warning(slides ? at(img, key::kCount) : fileAt,
                slides ? "slideshow count " + std::to_string(conf.count) +
                             " is larger than the image's width of " + std::to_string(colour.cols) +
                             " pixels: the daemon does not show the image"
                       : "image " + quoted(path) + " has no rows to show",
                slides ? "The slides lie side by side in the image, so it must be at least one "
                         "pixel wide per slide."
                       : "A progress bar image holds the full bar above the empty one.");
        return std::nullopt;
    }
    if (verdict.fit == lcmgui::ImageFit::kLargerThanScreen) {
        const std::string per = conf.animation == lcmgui::kAnimSlideshow     ? " per slide"
                                : conf.animation == lcmgui::kAnimProgressbar ? " per half"
                                                                             : "";
        warning(fileAt,
                "image " + quoted(path) + " shows " + std::to_string(w) + "x" + std::to_string(h) +
                    per + ", more than the panel's " + panelSize() +
                    ": the daemon does not show it",
                "A slideshow shows one slide (image width / count) at a time, a progress bar "
                "one half (image height / 2); a still or breathing image shows whole. " +
                    std::string(kShownWithout));
        return std::nullopt;
    }
    if (verdict.fit == lcmgui::ImageFit::kOutOfScreen) {
        const bool aligned =
            conf.alignHor != lcmgui::kAlignLeft || conf.alignVert != lcmgui::kAlignTop;
        warning(at(img, verdict.place.beyondRight ? key::kX : key::kY),
                "the image (" + std::to_string(w) + "x" + std::to_string(h) + ") at (" +
                    std::to_string(conf.x) + ", " + std::to_string(conf.y) +
                    ") reaches off the panel " + panelSize() + ": the daemon does not draw it",
                aligned ? "The position is checked before the alignment moves the image: with "
                          "\"center\" or \"middle\" it counts half, with \"right\" or \"bottom\" "
                          "not at all, yet it must still fit. Use 0 with those alignments."
                        : "Move it so that it fits on the panel. " + std::string(kShownWithout));
        return std::nullopt;
    }
    return Rect{verdict.place.x, verdict.place.y, w, h};
}

std::optional<Rect> Checks::checkTextGeometry(const JsonNode& text, const GuiTextConf& conf) {
    if (conf.text.empty()) {
        return std::nullopt;
    }
    unsigned lineHeight = 0;
    if (!checkFontSize(text, conf, lineHeight)) {
        return std::nullopt;
    }
    return placeText(text, conf, lineHeight);
}

// Whether the daemon takes the font size; `lineHeight` is then the height of
// its lines.
bool Checks::checkFontSize(const JsonNode& text, const GuiTextConf& conf, unsigned& lineHeight) {
    const std::string leftOut = kLeftOut;
    if (lcmgui::fontSizeFitOf(conf.size) != lcmgui::TextFit::kFits) {
        warning(at(text, text.member(key::kSize) != nullptr ? key::kSize : key::kStr),
                "font size " + std::to_string(conf.size) + " is outside " +
                    std::to_string(lcmgui::kMinFontSize) + ".." +
                    std::to_string(lcmgui::kMaxFontSize) + ": the daemon leaves the text out",
                (text.member(key::kSize) == nullptr ? "Without \"size\" the size is 0. " : "") +
                    leftOut);
        return false;
    }
    if (!fontsReady_ || !fonts_.maxLineHeight(conf.size, lineHeight)) {
        return false;
    }
    if (lcmgui::lineHeightFitOf(lineHeight, panelHeight()) != lcmgui::TextFit::kFits) {
        warning(at(text, key::kSize),
                "a line of font size " + std::to_string(conf.size) + " is " +
                    std::to_string(lineHeight) + " pixels tall, more than the panel's " +
                    std::to_string(panelHeight()) + ": the daemon leaves the text out",
                "Use a smaller size. " + leftOut);
        return false;
    }
    return true;
}

// Whether the line fits at its place; the rectangle it covers when it does.
std::optional<Rect> Checks::placeText(const JsonNode& text, const GuiTextConf& conf,
                                      unsigned lineHeight) {
    const std::string leftOut = kLeftOut;
    unsigned x = conf.x;
    unsigned y = conf.y;
    const lcmgui::TextRoom room = lcmgui::textRoomOf(panelWidth(), panelHeight(), x, y);
    if (room.fit != lcmgui::TextFit::kFits) {
        warning(at(text, room.beyondRight ? key::kX : key::kY),
                "the text position (" + std::to_string(x) + ", " + std::to_string(y) +
                    ") is off the panel " + panelSize() + ": the daemon leaves the text out",
                "Positions count from the panel's top left corner, 0 .. width - 1 and "
                "0 .. height - 1. " +
                    leftOut);
        return std::nullopt;
    }
    unsigned w = 0;
    unsigned h = 0;
    if (!fonts_.lineRender(conf.text, conf.size, nullptr, room.w, lineHeight, room.w, true, w, h)) {
        warning(at(text, key::kStr), "the text cannot be measured: the daemon leaves it out",
                leftOut);
        return std::nullopt;
    }
    if (lcmgui::lineFitOf(h, room) != lcmgui::TextFit::kFits) {
        warning(at(text, text.member(key::kY) != nullptr ? key::kY : key::kStr),
                "a line " + std::to_string(h) +
                    " pixels tall does not fit below y = " + std::to_string(y) + " (" +
                    std::to_string(room.h) + " pixels are left): the daemon leaves the text out",
                "The space below y must hold a whole line, whatever the vertical alignment. " +
                    leftOut);
        return std::nullopt;
    }
    checkCut(text, conf, lineHeight, x, room.w);
    w = std::min(w, room.w);
    if (!engine_.getOffsetXY(x, y, w, h, conf.alignHor, conf.alignVert)) {
        return std::nullopt;
    }
    return Rect{x, y, w, h};
}

// A line is never wrapped: what does not fit right of x is cut off.
void Checks::checkCut(const JsonNode& text, const GuiTextConf& conf, unsigned lineHeight,
                      unsigned x, unsigned availW) {
    constexpr unsigned kUnbounded = 1U << 20;
    unsigned fullW = 0;
    unsigned fullH = 0;
    if (fonts_.lineRender(conf.text, conf.size, nullptr, kUnbounded, lineHeight, kUnbounded, true,
                          fullW, fullH) &&
        fullW > availW) {
        warning(at(text, key::kStr),
                "the text is " + std::to_string(fullW) + " pixels wide, but only " +
                    std::to_string(availW) + " fit right of x = " + std::to_string(x) +
                    ": it is cut at the panel's right edge",
                "A line is never wrapped. Use a smaller size or a shorter text; with \"center\", "
                "x = 0 leaves the panel's whole width.");
    }
}

void Checks::checkOverlap(const JsonNode& screen, const Rect& text, const Rect& image,
                          const GuiImgConf& img) {
    const unsigned left = std::max(text.x, image.x);
    const unsigned top = std::max(text.y, image.y);
    const unsigned right = std::min(text.x + text.w, image.x + image.w);
    const unsigned bottom = std::min(text.y + text.h, image.y + image.h);
    if (left >= right || top >= bottom) {
        return;
    }
    const auto box = [](const Rect& r) {
        return std::to_string(r.w) + "x" + std::to_string(r.h) + " at (" + std::to_string(r.x) +
               ", " + std::to_string(r.y) + ")";
    };
    const JsonMember* m = screen.member(key::kImg);
    warning(m != nullptr ? m->keyOffset : screen.offset,
            "the text (" + box(text) + ") and the image (" + box(image) +
                ") overlap: their pixels add up there",
            std::string("Where both have colour they add up and saturate towards white.") +
                (img.animation != lcmgui::kAnimStatic
                     ? " The animation clears the image's rectangle at its first step, so the "
                       "text inside it disappears then."
                     : ""));
}

}  // namespace dravik::preview::checker
