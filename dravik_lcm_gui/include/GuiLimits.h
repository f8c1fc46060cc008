#pragma once

#include <cstdint>

#include "dravik_ipc_messages/element_values.h"

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

}  // namespace dravik::lcmgui
