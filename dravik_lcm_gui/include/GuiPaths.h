#pragma once

#include <string>

namespace dravik::lcmgui {

// The directories that hold the screens files and their images, in the order
// in which they are searched. Only root can write there on a device.
inline constexpr const char* kGuiDirectories[] = {"/usr/etc/gui/", "/etc/gui/"};

// Normalises `path` lexically (".", ".." and repeated "/" are folded, nothing
// on disk is read) into `contained`, and tells whether the result lies below
// one of kGuiDirectories. A path that climbs out with ".." is outside however
// it is spelled; ".." that stays inside is kept working. Symbolic links below
// those directories are not looked at here: whoever may write there placed
// them, and opening the path follows them.
[[nodiscard]] bool containGuiPath(const std::string& path, std::string& contained);

}  // namespace dravik::lcmgui
