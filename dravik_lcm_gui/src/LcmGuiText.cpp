#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "GuiLimits.h"
#include "LcmGui.h"
#include "dravik_ipc_messages/element_values.h"
#include "dravik_logger/logger.h"

namespace dravik::lcmgui {

TextFit fontSizeFitOf(unsigned size) {
    return size - kMinFontSize > kMaxFontSize - kMinFontSize ? TextFit::kSizeOutOfRange
                                                             : TextFit::kFits;
}

TextFit lineHeightFitOf(unsigned lineHeight, unsigned screenH) {
    return lineHeight > screenH ? TextFit::kLineTallerThanScreen : TextFit::kFits;
}

TextRoom textRoomOf(unsigned screenW, unsigned screenH, unsigned x, unsigned y) {
    TextRoom room;
    room.beyondRight = x >= screenW;
    if (room.beyondRight || y >= screenH) {
        room.fit = TextFit::kPositionOutOfScreen;
        return room;
    }
    room.w = screenW - x;
    room.h = screenH - y;
    return room;
}

TextFit lineFitOf(unsigned lineH, const TextRoom& room) {
    return room.fit != TextFit::kFits ? room.fit
           : lineH > room.h           ? TextFit::kLineTallerThanRoom
                                      : TextFit::kFits;
}

bool LcmGui::setFontGeometry(unsigned size) {
    if (fontSizeFitOf(size) != TextFit::kFits) {
        DRAVIK_LOG(logger::kError, 0, "Font size %d if out of range [%d..%d]", size, kMinFontSize,
                   kMaxFontSize);
        return false;
    }
    fontSize = size;
    if (!fontRenderer.maxLineHeight(size, lineHeight)) {
        DRAVIK_LOG(logger::kError, 0, "Failed to calculate font height");
        return false;
    }
    if (lineHeightFitOf(lineHeight, screenHeight()) != TextFit::kFits) {
        DRAVIK_LOG(logger::kError, 0, "maxLineHeight (%d) is out of screen height (%d)", lineHeight,
                   screenHeight());
        return false;
    }
    lineGap = lineHeight < 8 ? 1 : lineHeight / 8;
    return true;
}

bool LcmGui::renderText(const GuiTextConf& conf, bool clear, bool show) {
    unsigned x = conf.x;
    unsigned y = conf.y;
    if (textRoomOf(screenWidth(), screenHeight(), x, y).fit != TextFit::kFits) {
        DRAVIK_LOG(logger::kError, 0, "Text pos (%d, %d) is out of screen %dx%d", x, y,
                   screenWidth(), screenHeight());
        return false;
    }
    cv::Mat coverage;
    unsigned drawnW = 0;
    unsigned drawnH = 0;
    if (!drawTextCoverage(conf, x, y, coverage, drawnW, drawnH)) {
        return false;
    }
    // Aligned by the size actually drawn, not by the space available.
    if (!getOffsetXY(x, y, drawnW, drawnH, conf.alignHor, conf.alignVert)) {
        return false;
    }
    if (!addTextCoverage(coverage, x, y, drawnW, drawnH, clear)) {
        return false;
    }
    if (show) {
        (void)showBuf(x, y, drawnW, drawnH);  // the rectangle was checked by getOffsetXY
    }
    return true;
}

bool LcmGui::drawTextCoverage(const GuiTextConf& conf, unsigned x, unsigned y, cv::Mat& coverage,
                              unsigned& drawnW, unsigned& drawnH) {
    const TextRoom room = textRoomOf(screenWidth(), screenHeight(), x, y);
    const unsigned availW = room.w;
    const unsigned availH = room.h;
    unsigned width = 0;
    unsigned height = 0;
    // Measured within one line height, drawn with the whole height below the
    // position: the line must fit both.
    if (!fontRenderer.lineRender(conf.text, fontSize, nullptr, availW, lineHeight, availW, true,
                                 width, height)) {
        DRAVIK_LOG(logger::kError, 0, "Failed to evaluate text dims");
        return false;
    }
    if (lineFitOf(height, room) != TextFit::kFits) {
        DRAVIK_LOG(logger::kError, 0, "Can not render line '%s'", conf.text.c_str());
        return false;
    }
    width = std::min(width, availW);  // cut at the right edge, never wrapped
    coverage = cv::Mat::zeros(static_cast<int>(height), static_cast<int>(width), CV_8UC1);
    if (coverage.data == nullptr || coverage.total() == 0) {
        DRAVIK_LOG(logger::kError, 0, "Failed to create text buffer");
        return false;
    }
    if (!fontRenderer.lineRender(conf.text, fontSize, coverage.data, availW, availH,
                                 static_cast<unsigned>(coverage.cols), false, drawnW, drawnH)) {
        DRAVIK_LOG(logger::kError, 0, "Failed to render text");
        return false;
    }
    if (drawnW > static_cast<unsigned>(coverage.cols) ||
        drawnH > static_cast<unsigned>(coverage.rows)) {
        DRAVIK_LOG(logger::kError, 0, "Something wrong with FontRenderer");
        return false;
    }
    return true;
}

// Text and image pixels add up, saturating: a text over an image brightens it.
bool LcmGui::addTextCoverage(const cv::Mat& coverage, unsigned x, unsigned y, unsigned drawnW,
                             unsigned drawnH, bool clear) {
    cv::Mat colour;
    cv::cvtColor(coverage, colour, cv::COLOR_GRAY2BGR);
    if (colour.empty()) {
        DRAVIK_LOG(logger::kError, 0, "Failed to convert text buffer");
        return false;
    }
    if (displayBuf.empty()) {
        return false;  // no drawing buffer: the panel was never brought up
    }
    if (drawnW != 0 && drawnH != 0) {
        const cv::Rect drawn(0, 0, static_cast<int>(drawnW), static_cast<int>(drawnH));
        cv::Mat target = displayBuf(
            cv::Rect(static_cast<int>(x), static_cast<int>(y), drawn.width, drawn.height));
        if (clear) {
            target.setTo(cv::Scalar::all(0));
        }
        cv::add(target, colour(drawn), target);
    }
    return true;
}

}  // namespace dravik::lcmgui
