#pragma once

#include <cstdint>
#include <iterator>
#include <string>

#include "dravik_ipc_messages/element_values.h"

namespace dravik::lcmgui {

// Text forms: "left", "center", "right".
enum AlignHor : uint8_t { kAlignLeft = 0, kAlignCenter = 1, kAlignRight = 2 };
// Text forms: "top", "middle", "bottom".
enum AlignVert : uint8_t { kAlignTop = 0, kAlignMiddle = 1, kAlignBottom = 2 };
// Text forms: "static", "slideshow", "breathing", "progressbar".
enum AnimType : uint8_t {
    kAnimStatic = 0,
    kAnimSlideshow = 1,
    kAnimBreathing = 2,
    kAnimProgressbar = 3
};

// Text forms in the order of the enumerations' values (0 first): one list,
// shared with the request fields.
using ipc::messages::kAlignHorWords;
using ipc::messages::kAlignVertWords;
using ipc::messages::kAnimationWords;
static_assert(std::size(kAlignHorWords) == kAlignRight + 1);
static_assert(std::size(kAlignVertWords) == kAlignBottom + 1);
static_assert(std::size(kAnimationWords) == kAnimProgressbar + 1);

// The value whose text form equals `s` exactly (case-sensitive, no trimming);
// `def` for any other string, the empty one included.
AlignHor parseAlignHor(const std::string& s, AlignHor def);
AlignVert parseAlignVert(const std::string& s, AlignVert def);
AnimType parseAnimType(const std::string& s, AnimType def);

// The text element of a screen; an empty `text` means no text element.
struct GuiTextConf {
    std::string text;
    uint16_t x = 0;
    uint16_t y = 0;
    uint16_t size = 0;
    AlignHor alignHor = kAlignLeft;
    AlignVert alignVert = kAlignTop;
};

// The image element of a screen; an empty `file` means no image element.
struct GuiImgConf {
    std::string file;  // relative to the configured image directory
    uint16_t x = 0;
    uint16_t y = 0;
    AlignHor alignHor = kAlignLeft;
    AlignVert alignVert = kAlignTop;
    AnimType animation = kAnimStatic;
    uint32_t duration = 0;  // milliseconds
    uint16_t count = 0;     // slides of a slideshow
};

// One screen: a text element followed by an image element.
struct GuiScreenDesc {
    GuiTextConf text;
    GuiImgConf img;
};

}  // namespace dravik::lcmgui
