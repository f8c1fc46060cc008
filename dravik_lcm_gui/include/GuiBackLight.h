#pragma once

#include <string>

namespace dravik::lcmgui {

// Drives the panel's backlight through a kernel backlight directory holding the
// text files "brightness" and "max_brightness". Percentages are converted to the
// device's raw scale and written from service(), only when they change.
class GuiBackLight {
public:
    GuiBackLight() = default;
    ~GuiBackLight();
    GuiBackLight(const GuiBackLight&) = delete;
    GuiBackLight& operator=(const GuiBackLight&) = delete;

    // Opens "brightness" and reads "max_brightness" under `backLightPath`; an
    // empty path disables backlight management and succeeds.
    [[nodiscard]] bool init(const std::string& backLightPath);

    // Records a new percentage (negative: keep the current brightness); writes
    // nothing. False whenever backlight management is off.
    bool setBrightness(signed char percent);

    // Writes a pending raw value to "brightness".
    bool service();

    // The last accepted percentage; -1 when none was ever accepted.
    signed char getBrightness() const { return brightness; }
    // The device's maximum; 0 when backlight management is off.
    int getMaxBrightness() const { return maxBrightness; }

private:
    int fd = 0;  // 0 means none
    bool pending = false;
    signed char brightness = -1;
    int value = -1;
    int maxBrightness = 0;
};

}  // namespace dravik::lcmgui
