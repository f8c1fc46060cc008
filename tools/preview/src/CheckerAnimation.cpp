#include "Checks.h"
#include "GuiLimits.h"

// The limits of an animated image: the display engine refuses a screen whose
// animation breaks one.

namespace dravik::preview::checker {

namespace key = lcmgui::key;

namespace {

// "slideshow duration 40000 ms is outside 100..30000 ms: ..."
std::string describe(const std::string& kind, const char* name, const lcmgui::AnimationBreach& b) {
    const std::string unit = b.limit == lcmgui::AnimationLimit::kDuration ? " ms" : "";
    return kind + " " + name + " " + std::to_string(b.value) + unit + " is outside " +
           std::to_string(b.min) + ".." + std::to_string(b.max) + unit +
           ": the daemon refuses this screen";
}

}  // namespace

void Checks::checkAnimation(const JsonNode& img, const GuiImgConf& conf) {
    if (conf.file.empty()) {
        return;
    }
    const std::string kind = lcmgui::kAnimationWords[conf.animation];
    for (const lcmgui::AnimationBreach& breach : lcmgui::animationBreaches(conf)) {
        const char* name =
            breach.limit == lcmgui::AnimationLimit::kDuration ? key::kDuration : key::kCount;
        warning(at(img, img.member(name) != nullptr ? name : key::kAnimation),
                describe(kind, name, breach),
                "A refused screen is never shown: the request to show it fails and the screen on "
                "show stays. A missing or mistyped value counts as 0.");
    }
}

}  // namespace dravik::preview::checker
