#pragma once

#include <map>
#include <string>

#include "GuiScreen.h"

namespace dravik::lcmgui {

// The screens file: named screens, the image directory and the backlight path.
// Filled once by fromJSONFile, then only read.
class GuiConfig {
public:
    GuiConfig() = default;

    // Loads the screens file at `path`; false (with one log line saying why)
    // when it cannot be read or lacks a required key.
    [[nodiscard]] bool fromJSONFile(const std::string& path);

    // The screen of that exact name with `found` true; otherwise one shared,
    // never-modified all-default description with `found` false.
    const GuiScreenDesc& getScreenDesc(const std::string& name, bool& found) const;

    const std::string& getImgPath() const { return imgPath; }
    const std::string& getBackLightPath() const { return backLightPath; }

    // Screen names in file order are not kept; the table is ordered by name.
    const std::map<std::string, GuiScreenDesc>& getScreens() const { return screens; }

private:
    std::map<std::string, GuiScreenDesc> screens;
    std::string imgPath;
    std::string backLightPath;
};

}  // namespace dravik::lcmgui
