#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "GuiScreen.h"
#include "dravik_ipc_messages/element_values.h"
#include "dravik_variant/variant.h"

namespace dravik::lcmgui {

// What the display engine accepts of a screen. Screens outside these limits are
// refused when they are shown (animations) or drawn without the element (text).

// Breathing and slideshow cycles are capped at 30 s, a progress bar may run
// for ten minutes.
inline constexpr uint32_t kMinPeriodMs = 100;
inline constexpr uint32_t kMaxCycleMs = 30000;
inline constexpr uint32_t kMaxProgressMs = 600000;
// Slides of a slideshow: 1 .. kMaxSlides.
inline constexpr uint16_t kMaxSlides = 100;

// Font sizes in pixels.
inline constexpr unsigned kMinFontSize = ipc::messages::kFontSizeMin;
inline constexpr unsigned kMaxFontSize = ipc::messages::kFontSizeMax;

// The screens file is read through Variant::FromJSONFile, so no more of it
// than this; a whole number of MiB, as messages name it.
inline constexpr size_t kMaxScreensFileBytes = variant::Variant::kMaxJsonFileSize;
inline constexpr size_t kMiB = size_t{1} << 20;
static_assert(kMaxScreensFileBytes % kMiB == 0);
// "16 MiB".
inline std::string screensFileLimitText() {
    return std::to_string(kMaxScreensFileBytes / kMiB) + " MiB";
}

// ---- Verdicts: whether the engine takes an element, and why not ----
// Pure functions of the screen's size and the element, which the engine acts
// on (and logs) and which the screens-file checker reports from.

// A limit of an animated image that the engine refuses its screen for.
enum class AnimationLimit : uint8_t { kDuration, kCount };
struct AnimationBreach {
    AnimationLimit limit;
    uint32_t value;  // the image's duration (ms) or slide count
    uint32_t min;    // the range the value must keep to
    uint32_t max;
    const char* logFormat;  // the engine's log line, a format of the one number
};
// Every limit that `img` breaks, the duration's first; none for a static image.
// The engine refuses a screen with any and logs the first.
std::vector<AnimationBreach> animationBreaches(const GuiImgConf& img);

// Where an element of w x h asked for at (x, y) lands. It must fit the screen
// at the position as given; the alignment then moves it, the given position
// counting half for centre and middle and not at all for right and bottom.
struct ElementPlace {
    bool fits = false;
    bool beyondRight = false;  // not fitting: past the right edge, else past the bottom
    unsigned x = 0;            // fitting: the top left corner after the alignment
    unsigned y = 0;
};
ElementPlace placementOf(unsigned screenW, unsigned screenH, unsigned x, unsigned y, unsigned w,
                         unsigned h, AlignHor alignHor, AlignVert alignVert);

// The part of a cols x rows image that its animation shows at a time: one
// slide of a slideshow, one half of a progress bar, else the whole image.
void usedSizeOf(unsigned cols, unsigned rows, AnimType type, unsigned count, unsigned& w,
                unsigned& h);

enum class ImageFit : uint8_t {
    kFits,
    kNothingShown,      // the used size is zero: more slides than columns, or one row of a bar
    kLargerThanScreen,  // the used size alone exceeds the screen
    kOutOfScreen,       // it reaches off the screen at its position
};
struct ImageVerdict {
    ImageFit fit = ImageFit::kFits;
    unsigned w = 0;  // the used size
    unsigned h = 0;
    ElementPlace place;  // from kOutOfScreen on
};
// The engine refuses to load an image that shows nothing or is larger than
// the screen, and does not draw one out of the screen.
ImageVerdict imageFitOf(unsigned screenW, unsigned screenH, unsigned cols, unsigned rows,
                        const GuiImgConf& conf);

// Why the engine leaves a text out, in the order it finds out.
enum class TextFit : uint8_t {
    kFits,
    kSizeOutOfRange,        // the size is outside kMinFontSize .. kMaxFontSize
    kLineTallerThanScreen,  // a line of the size is taller than the screen
    kPositionOutOfScreen,   // the position lies off the screen
    kLineTallerThanRoom,    // the line is taller than the room below the position
};
TextFit fontSizeFitOf(unsigned size);
TextFit lineHeightFitOf(unsigned lineHeight, unsigned screenH);
// The room a text has right of and below its position; a line is cut at the
// right edge, never wrapped, but must fit below whatever the alignment.
struct TextRoom {
    TextFit fit = TextFit::kFits;  // kFits or kPositionOutOfScreen
    bool beyondRight = false;      // off the screen: at or past the right edge, else the bottom
    unsigned w = 0;
    unsigned h = 0;
};
TextRoom textRoomOf(unsigned screenW, unsigned screenH, unsigned x, unsigned y);
TextFit lineFitOf(unsigned lineH, const TextRoom& room);

}  // namespace dravik::lcmgui
