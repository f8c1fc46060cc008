#include <algorithm>
#include <array>

#include "GuiLimits.h"
#include "GuiPaths.h"
#include "LcmGui.h"
#include "PixelKernels.h"
#include "dravik_image/image_file.h"
#include "dravik_logger/logger.h"
#include "dravik_utils/utils.h"

namespace dravik::lcmgui {

namespace {

// Ordered-dither (Bayer) thresholds 0 .. 63.
constexpr std::array<int32_t, 64> kBayer8x8 = {
    0,  32, 8,  40, 2,  34, 10, 42,  //
    48, 16, 56, 24, 50, 18, 58, 26,  //
    12, 44, 4,  36, 14, 46, 6,  38,  //
    60, 28, 52, 20, 62, 30, 54, 22,  //
    3,  35, 11, 43, 1,  33, 9,  41,  //
    51, 19, 59, 27, 49, 17, 57, 25,  //
    15, 47, 7,  39, 13, 45, 5,  37,  //
    63, 31, 55, 23, 61, 29, 53, 21,  //
};

bool isUsableImage(const cv::Mat& img) {
    return img.data != nullptr && !img.empty() && img.total() != 0 && img.depth() == CV_8U &&
           img.channels() == 3 && img.rows != 0 && img.cols != 0;
}

// Adds columns [srcX, srcX + w) of rows [srcY, srcY + h) of `img` into columns
// [dstX, dstX + w) of `target`, saturating.
void addColumns(cv::Mat& target, unsigned dstX, const cv::Mat& img, unsigned srcX, unsigned srcY,
                unsigned w, unsigned h) {
    if (w == 0) {
        return;
    }
    cv::Mat to =
        target(cv::Rect(static_cast<int>(dstX), 0, static_cast<int>(w), static_cast<int>(h)));
    const cv::Mat from = img(cv::Rect(static_cast<int>(srcX), static_cast<int>(srcY),
                                      static_cast<int>(w), static_cast<int>(h)));
    cv::add(to, from, to);
}

// The filled part is taken from both ends of the full picture so that its caps
// stay intact while it grows; the rest comes from the empty picture below it.
void addProgressBar(cv::Mat& target, const cv::Mat& img, unsigned width, unsigned height,
                    unsigned level) {
    const unsigned filled = std::min(width, level);
    const unsigned left = filled / 2;
    const unsigned right = filled - left;
    addColumns(target, 0, img, 0, 0, left, height);
    addColumns(target, left, img, width - right, 0, right, height);
    addColumns(target, filled, img, filled, height, width - filled, height);
}

}  // namespace

std::array<int32_t, 64> LcmGui::ditherMatrix = kBayer8x8;
uint32_t LcmGui::ditherMatrixVersion = 0;

void LcmGui::resetDitherMatrix() {
    ditherMatrix = kBayer8x8;
    ++ditherMatrixVersion;
}

// ---- Dithering for 8-bit panels ----

void LcmGui::initDither(int shadesR, int shadesG, int shadesB, int shadesGray) {
    forgetFastLine();  // chosen again from the new tables by init
    redMult = shadesG * shadesB;
    greenMult = shadesB;
    struct Channel {
        int32_t* table;
        int shades;
        int32_t multiplier;
    };
    const Channel channels[] = {
        {redDither, shadesR, redMult},
        {greenDither, shadesG, greenMult},
        {blueDither, shadesB, 1},
        {grayDither, shadesGray, 1},
    };
    // Scaled on every call (the unsigned product wraps as the device firmware's
    // did): the matrix is valid for exactly one call.
    for (auto& entry : ditherMatrix) {
        entry = static_cast<int32_t>(static_cast<uint32_t>(entry) * 65536U);
    }
    ++ditherMatrixVersion;
    for (const auto& channel : channels) {
        const auto coloursPerShade = static_cast<float>(256.0 / (channel.shades - 1));
        for (int i = 0; i < 256; ++i) {
            const auto low = static_cast<uint8_t>(static_cast<unsigned>(i / coloursPerShade));
            const auto index = static_cast<uint32_t>(
                ((static_cast<float>(i) - static_cast<float>(low) * coloursPerShade) /
                 coloursPerShade) *
                65.0F);
            const uint32_t lowShade =
                (uint32_t{low} * static_cast<uint32_t>(channel.multiplier)) % 256;
            const uint32_t highShade = (uint32_t{low} * static_cast<uint32_t>(channel.multiplier) +
                                        static_cast<uint32_t>(channel.multiplier)) %
                                       256;
            channel.table[i] = static_cast<int32_t>((index << 16) + (highShade << 8) + lowShade);
        }
    }
}

int64_t LcmGui::ditherThreshold(unsigned row, unsigned column) {
    // Two consecutive entries, counted row by row, make one 64-bit threshold;
    // for columns 4 .. 7 they lie in the next row. Past the end of the matrix
    // (last row, columns 4 .. 7) the threshold is above every table value, as
    // it is everywhere else, so the low shade is taken there too.
    const unsigned flat = row * kDitherSize + 2 * column;
    if (flat + 1 >= kDitherSize * kDitherSize) {
        return INT64_MAX;
    }
    const uint64_t low = static_cast<uint32_t>(ditherMatrix[flat]);
    const uint64_t high = static_cast<uint32_t>(ditherMatrix[flat + 1]);
    return static_cast<int64_t>((high << 32) | low);
}

// Whether every threshold of the matrix lies above every value of the three
// colour tables, so that ditherLine takes the low shade of every channel of
// every pixel. This holds after the one scaling that start-up makes.
bool LcmGui::ditherTakesLowShades() const {
    const auto largest = [](const int32_t* table) { return *std::max_element(table, table + 256); };
    const int64_t highest =
        std::max({largest(redDither), largest(greenDither), largest(blueDither)});
    for (unsigned row = 0; row < kDitherSize; ++row) {
        for (unsigned column = 0; column < kDitherSize; ++column) {
            if (ditherThreshold(row, column) < highest) {
                return false;
            }
        }
    }
    return true;
}

// Whether the low shades of the colour tables (the bytes that ditherLine adds)
// are the truncated levels of the 8 x 8 x 4 palette that
// pixels::toPaletteIndex884 computes.
bool LcmGui::lowShadesArePaletteIndex884() const {
    std::array<uint8_t, 3> src = {};
    for (unsigned v = 0; v < 256; ++v) {
        const struct {
            const int32_t* table;
            unsigned byte;
        } channels[] = {{redDither, 0}, {greenDither, 1}, {blueDither, 2}};
        for (const auto& channel : channels) {
            src = {};
            src[channel.byte] = static_cast<uint8_t>(v);
            uint8_t index = 0;
            pixels::toPaletteIndex884(src.data(), &index, 1);
            if (index != static_cast<uint8_t>(channel.table[v] & 0xFF)) {
                return false;
            }
        }
    }
    return true;
}

void LcmGui::ditherLine(const unsigned char* src, unsigned char* dst, unsigned line,
                        unsigned width) {
    const unsigned row = line % kDitherSize;
    for (unsigned k = 0; k < width; ++k, src += 3) {
        const int64_t threshold = ditherThreshold(row, (width - 1 - k) % kDitherSize);
        const auto shade = [threshold](int32_t value) {
            return value > threshold ? value >> 8 : value;
        };
        // Byte 0 (blue in the drawing buffer) goes through the red table: on
        // 8-bit panels red and blue come out exchanged, as the firmware always had it.
        const int32_t sum =
            shade(redDither[src[0]]) + shade(greenDither[src[1]]) + shade(blueDither[src[2]]);
        dst[k] = static_cast<unsigned char>(sum & 0xFF);
    }
}

void LcmGui::ditherLineGray(const unsigned char* src, unsigned char* dst, unsigned line,
                            unsigned width) {
    const unsigned row = line % kDitherSize;
    for (unsigned k = 0; k < width; ++k) {
        const int64_t threshold = ditherThreshold(row, (width - 1 - k) % kDitherSize);
        const int32_t value = grayDither[src[k]];
        dst[k] = static_cast<unsigned char>((value > threshold ? value >> 8 : value) & 0xFF);
    }
}

// ---- Image elements ----

ElementPlace placementOf(unsigned screenW, unsigned screenH, unsigned x, unsigned y, unsigned w,
                         unsigned h, AlignHor alignHor, AlignVert alignVert) {
    ElementPlace place;
    place.beyondRight = uint64_t{x} + w > screenW;  // summed without wrapping
    place.fits = !place.beyondRight && uint64_t{y} + h <= screenH;
    if (!place.fits) {
        return place;
    }
    // The fit is checked on the given position; the given offsets then count
    // half for centre/middle and not at all for right/bottom. Kept as it is:
    // screen files are laid out against exactly this rule.
    place.x = alignHor == kAlignCenter ? (screenW - w + x) >> 1
              : alignHor != kAlignLeft ? screenW - w
                                       : x;
    place.y = alignVert == kAlignMiddle ? (y - h + screenH) >> 1
              : alignVert != kAlignTop  ? screenH - h
                                        : y;
    return place;
}

void usedSizeOf(unsigned cols, unsigned rows, AnimType type, unsigned count, unsigned& w,
                unsigned& h) {
    w = cols;
    h = rows;
    if (type == kAnimSlideshow && count > 1) {
        w /= count;  // columns left over by the division are never shown
    } else if (type == kAnimProgressbar) {
        h /= 2;  // full picture above, empty picture below; an odd last row is unused
    }
}

ImageVerdict imageFitOf(unsigned screenW, unsigned screenH, unsigned cols, unsigned rows,
                        const GuiImgConf& conf) {
    ImageVerdict verdict;
    usedSizeOf(cols, rows, conf.animation, conf.count, verdict.w, verdict.h);
    if (verdict.w == 0 || verdict.h == 0) {
        verdict.fit = ImageFit::kNothingShown;
    } else if (verdict.w > screenW || verdict.h > screenH) {
        verdict.fit = ImageFit::kLargerThanScreen;
    } else {
        verdict.place = placementOf(screenW, screenH, conf.x, conf.y, verdict.w, verdict.h,
                                    conf.alignHor, conf.alignVert);
        verdict.fit = verdict.place.fits ? ImageFit::kFits : ImageFit::kOutOfScreen;
    }
    return verdict;
}

bool LcmGui::loadImage(const std::string& path, cv::Mat& img, const GuiImgConf& conf) {
    // The prefix test is made on the lexically normalised path, so that ".."
    // cannot climb out of the image directories; messages show the path as given.
    std::string contained;
    if (!containGuiPath(path, contained)) {
        DRAVIK_LOG(logger::kWarning, 0, "Image path should start with next prefixes:");
        for (const char* prefix : kGuiDirectories) {
            DRAVIK_LOG(logger::kWarning, 0, "\t\t%s", prefix);
        }
        return false;
    }
    std::string resolved;
    bool isDirectory = false;  // not used: a directory fails to decode below
    if (!resolvePath((guiRoot + contained).c_str(), resolved, isDirectory, nullptr)) {
        DRAVIK_LOG(logger::kWarning, 0, "Image '%s' not found", path.c_str());
        return false;
    }
    img = image::readImage(resolved);
    if (!isUsableImage(img)) {
        DRAVIK_LOG(logger::kWarning, 0, "Failed to read UI image from %s", path.c_str());
        img.release();
        return false;
    }
    const ImageVerdict verdict =
        imageFitOf(screenWidth(), screenHeight(), static_cast<unsigned>(img.cols),
                   static_cast<unsigned>(img.rows), conf);
    if (verdict.fit == ImageFit::kNothingShown) {
        DRAVIK_LOG(logger::kWarning, 0, "UI image '%s' used size (%dx%d) should be non zero",
                   path.c_str(), verdict.w, verdict.h);
        img.release();
        return false;
    }
    if (verdict.fit == ImageFit::kLargerThanScreen) {
        DRAVIK_LOG(logger::kWarning, 0,
                   "UI image '%s' used size %dx%d (anim %d, slides %d) larger than screen %dx%d",
                   path.c_str(), verdict.w, verdict.h, conf.animation, conf.count, screenWidth(),
                   screenHeight());
        img.release();
        return false;
    }
    return true;  // the position is checked where the image is drawn
}

void LcmGui::getImgUsedSize(const cv::Mat& img, AnimType type, unsigned count, unsigned& width,
                            unsigned& height) {
    usedSizeOf(static_cast<unsigned>(img.cols), static_cast<unsigned>(img.rows), type, count, width,
               height);
}

bool LcmGui::renderImage(const cv::Mat& img, const GuiImgConf& conf, unsigned level, bool clear,
                         bool show) {
    unsigned width = 0;
    unsigned height = 0;
    getImgUsedSize(img, conf.animation, conf.count, width, height);
    const ElementPlace place = placementOf(screenWidth(), screenHeight(), conf.x, conf.y, width,
                                           height, conf.alignHor, conf.alignVert);
    if (!place.fits) {
        DRAVIK_LOG(logger::kError, 0,
                   "UI image parameters are out of screen: %dx%d at (%d, %d) -> %dx%d", width,
                   height, conf.x, conf.y, screenWidth(), screenHeight());
        return false;
    }
    const unsigned x = place.x;
    const unsigned y = place.y;
    // Nothing to draw into or from (no drawing buffer yet, or an empty picture).
    if (displayBuf.empty() || width == 0 || height == 0) {
        return false;
    }
    cv::Mat target = displayBuf(cv::Rect(static_cast<int>(x), static_cast<int>(y),
                                         static_cast<int>(width), static_cast<int>(height)));
    if (clear) {
        target.setTo(cv::Scalar::all(0));
    }
    switch (conf.animation) {
        case kAnimStatic:
            cv::add(target, img, target);
            break;
        case kAnimSlideshow: {
            const unsigned slide = level < conf.count ? level : 0;
            addColumns(target, 0, img, slide * width, 0, width, height);
            break;
        }
        case kAnimBreathing:
            target += img * (std::min(level, 100U) * 0.01);
            break;
        case kAnimProgressbar:
            addProgressBar(target, img, width, height, level);
            break;
        default:
            return false;
    }
    if (show) {
        (void)showBuf(x, y, width, height);  // the rectangle was checked above
    }
    return true;
}

}  // namespace dravik::lcmgui
