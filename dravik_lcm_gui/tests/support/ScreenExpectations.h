// Field-by-field expectations on the elements of a screen, for the tests of
// the screens file, the screen model and the show commands.
#pragma once

#include "GuiScreen.h"

namespace dravik::lcmgui::testsupport {

// Every field of `actual` equals the one of `expected` (written out by the
// test as a braced list in the order of GuiTextConf: text, x, y, size,
// alignHor, alignVert).
void expectTextConf(const GuiTextConf& actual, const GuiTextConf& expected);
// The same for an image element: file, x, y, alignHor, alignVert, animation,
// duration, count.
void expectImgConf(const GuiImgConf& actual, const GuiImgConf& expected);

}  // namespace dravik::lcmgui::testsupport
