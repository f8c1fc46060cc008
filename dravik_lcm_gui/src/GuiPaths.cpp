#include "GuiPaths.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace dravik::lcmgui {

bool containGuiPath(const std::string& path, std::string& contained) {
    // A name with a zero byte cannot be opened as written: it names no file.
    if (path.find('\0') != std::string::npos) {
        return false;
    }
    contained = std::filesystem::path(path).lexically_normal().string();
    return std::any_of(std::begin(kGuiDirectories), std::end(kGuiDirectories),
                       [&](const char* directory) { return contained.rfind(directory, 0) == 0; });
}

}  // namespace dravik::lcmgui
