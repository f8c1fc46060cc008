#include "Checks.h"
#include "GuiLimits.h"

// The limits of an animated image: the display engine refuses a screen whose
// animation breaks one.

namespace dravik::preview::checker {

namespace key = lcmgui::key;

void Checks::checkAnimation(const JsonNode& img, const GuiImgConf& conf) {
    if (conf.file.empty()) {
        return;
    }
    const std::string kind = lcmgui::kAnimationWords[conf.animation];
    for (const lcmgui::AnimationBreach& breach : lcmgui::animationBreaches(conf)) {
        const bool duration = breach.limit == lcmgui::AnimationLimit::kDuration;
        const char* name = duration ? key::kDuration : key::kCount;
        const std::string unit = duration ? " ms" : "";
        warning(at(img, img.member(name) != nullptr ? name : key::kAnimation),
                kind + " " + name + " " + std::to_string(breach.value) + unit + " is outside " +
                    std::to_string(breach.min) + ".." + std::to_string(breach.max) + unit +
                    ": the daemon refuses this screen",
                "A refused screen is never shown: the request to show it fails and the screen on "
                "show stays. A missing or mistyped value counts as 0.");
    }
}

}  // namespace dravik::preview::checker
