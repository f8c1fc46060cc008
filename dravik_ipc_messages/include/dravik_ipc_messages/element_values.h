#pragma once

// The words and ranges that the screen fields accept. The message tables of
// messages.h fold and clamp to them, and the display engine reads screens files
// and checks requests against the same lists, so both sides agree by
// construction. Each word list starts with the value that replaces an unknown
// word.

#include <cstdint>

namespace dravik::ipc::messages {

inline constexpr const char* kAlignHorWords[] = {"left", "center", "right"};
inline constexpr const char* kAlignVertWords[] = {"top", "middle", "bottom"};
inline constexpr const char* kAnimationWords[] = {"static", "slideshow", "breathing",
                                                  "progressbar"};

// Brightness in percent; every negative value means "leave the backlight
// alone", and the field clamps them all to kBrightnessKeep.
inline constexpr int8_t kBrightnessKeep = -1;
inline constexpr int8_t kBrightnessMax = 100;

// Font size in pixels.
inline constexpr uint16_t kFontSizeMin = 3;
inline constexpr uint16_t kFontSizeMax = 100;

}  // namespace dravik::ipc::messages
