#pragma once

#include <map>
#include <string>

#include "GuiScreen.h"

namespace dravik::variant {
class Variant;
}

namespace dravik::lcmgui {

// The keys of the screens file that the daemon reads; every other key is ignored.
namespace key {
inline constexpr const char kImgPath[] = "imgPath";
inline constexpr const char kBackLightPath[] = "backLightPath";
inline constexpr const char kScreens[] = "screens";
inline constexpr const char kRotation[] = "rotation";
inline constexpr const char kName[] = "name";
inline constexpr const char kText[] = "text";
inline constexpr const char kImg[] = "img";
inline constexpr const char kStr[] = "str";
inline constexpr const char kSize[] = "size";
inline constexpr const char kFile[] = "file";
inline constexpr const char kX[] = "x";
inline constexpr const char kY[] = "y";
inline constexpr const char kHorizontal[] = "horizontal";
inline constexpr const char kVertical[] = "vertical";
inline constexpr const char kAnimation[] = "animation";
inline constexpr const char kDuration[] = "duration";
inline constexpr const char kCount[] = "count";
}  // namespace key

// The keys read from each kind of object, in the order the format lists them.
inline constexpr const char* kFileKeys[] = {key::kImgPath, key::kBackLightPath, key::kScreens,
                                            key::kRotation};

// The turns of the panel that "rotation" takes, clockwise in degrees, and what
// getRotation() gives when the file has no such key.
inline constexpr unsigned kRotations[] = {0, 90, 180, 270};
inline constexpr int kRotationUnset = -1;
inline constexpr const char* kScreenKeys[] = {key::kName, key::kText, key::kImg};
inline constexpr const char* kTextKeys[] = {key::kStr, key::kSize,       key::kX,
                                            key::kY,   key::kHorizontal, key::kVertical};
inline constexpr const char* kImgKeys[] = {key::kFile,       key::kX,        key::kY,
                                           key::kHorizontal, key::kVertical, key::kAnimation,
                                           key::kDuration,   key::kCount};

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

    // One element of "screens" as the daemon reads it into a description: the
    // keys each element reads, their types and the words, with the defaults
    // for whatever is missing or of another type. The name is not read here.
    static GuiScreenDesc readScreen(const variant::Variant& screen);
    // The file's "rotation" as the daemon reads it (getRotation()), with its
    // log line for a wrong value.
    static int readRotation(const variant::Variant& root);

    const std::string& getImgPath() const { return imgPath; }
    // How far the panel's picture is turned clockwise from the screen, in
    // degrees: 0, 90, 180 or 270; kRotationUnset without the key. A value not
    // in that list counts as 0, after a log line.
    int getRotation() const { return rotation; }
    const std::string& getBackLightPath() const { return backLightPath; }

    // Screen names in file order are not kept; the table is ordered by name.
    const std::map<std::string, GuiScreenDesc>& getScreens() const { return screens; }

private:
    std::map<std::string, GuiScreenDesc> screens;
    std::string imgPath;
    std::string backLightPath;
    int rotation = kRotationUnset;
};

}  // namespace dravik::lcmgui
