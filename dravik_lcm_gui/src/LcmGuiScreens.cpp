// The screens the engine shows: the show commands of the request handler, the
// screen being shown and its animation.
#include <algorithm>

#include "GuiLimits.h"
#include "LcmGui.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/logger.h"
#include "dravik_utils/utils.h"

namespace dravik::lcmgui {

using ipc::messages::kBrightnessKeep;
using ipc::messages::kBrightnessMax;
using ipc::messages::LcmGuiImgSettingsElementRef;
using ipc::messages::LcmGuiTextSettingsElementRef;
using ipc::messages::ShowGui;
using ipc::messages::ShowSimpleScreen;

namespace {

bool inRange(uint32_t value, uint32_t low, uint32_t high) {
    return value >= low && value <= high;
}

// What an animated image must keep to; a count range of 0 .. 0 is not checked.
struct AnimationLimits {
    AnimType kind;
    uint32_t minDurationMs;
    uint32_t maxDurationMs;
    const char* durationMessage;  // a format of one number, the duration
    uint16_t minCount;
    uint16_t maxCount;
    const char* countMessage;  // a format of one number, the count
};

constexpr AnimationLimits kAnimationLimits[] = {
    {kAnimBreathing, kMinPeriodMs, kMaxCycleMs, "Invalid breathe period (%d)", 0, 0, nullptr},
    {kAnimSlideshow, kMinPeriodMs, kMaxCycleMs, "Invalid slideshow duration (%d)", 1, kMaxSlides,
     "Invalid slideshow count (%d)"},
    {kAnimProgressbar, kMinPeriodMs, kMaxProgressMs, "Invalid progressbar duration (%d)", 0, 0,
     nullptr},
};

}  // namespace

std::vector<AnimationBreach> animationBreaches(const GuiImgConf& img) {
    std::vector<AnimationBreach> breaches;
    for (const AnimationLimits& limits : kAnimationLimits) {
        if (limits.kind != img.animation) {
            continue;
        }
        if (!inRange(img.duration, limits.minDurationMs, limits.maxDurationMs)) {
            breaches.push_back({AnimationLimit::kDuration, img.duration, limits.minDurationMs,
                                limits.maxDurationMs, limits.durationMessage});
        }
        if (limits.countMessage != nullptr &&
            !inRange(img.count, limits.minCount, limits.maxCount)) {
            breaches.push_back({AnimationLimit::kCount, img.count, limits.minCount, limits.maxCount,
                                limits.countMessage});
        }
    }
    return breaches;
}

// ---- Show commands ----

bool LcmGui::showGui(ShowGui& request, ShowGui* response) {
    // The rules of the request's own class run here (for a request from the bus,
    // the class it is served as), so "brightness" arrives clamped to -1 .. 100.
    (void)request.NormalizeFields();  // repairs in place; there is nothing to refuse
    const std::string name = request.guiId();
    bool screenOk = true;
    // An empty name changes only the brightness; the name on show is not set
    // again, so its animation runs on undisturbed.
    if (!name.empty() && name != state.guiId) {
        const uint64_t now = nowMs();
        bool found = false;
        const GuiScreenDesc& desc = config.getScreenDesc(name, found);
        if (!found) {
            DRAVIK_LOG(logger::kWarning, 0, "Could not find gui id '%s'", name.c_str());
            screenOk = false;
        } else {
            screenOk = setState(desc, now);
            if (screenOk) {
                state.guiId = name;
            }
        }
    }
    // Applied whatever became of the screen: a request for an unknown screen
    // still sets the brightness.
    const bool brightnessOk = applyBrightness(request.brightness());
    if (response != nullptr) {
        fillShowGuiResponse(*response);
    }
    return screenOk && brightnessOk;
}

bool LcmGui::showSimpleScreen(ShowSimpleScreen& request) {
    // Covers the brightness and the envelope; the element records are repaired
    // by their getters below, so their values reach the screen as sent.
    (void)request.NormalizeFields();  // repairs in place; there is nothing to refuse
    const uint64_t now = nowMs();
    LcmGuiTextSettingsElementRef text = request.text();
    LcmGuiImgSettingsElementRef img = request.img();
    GuiScreenDesc desc{textConfFrom(text), imgConfFrom(img)};
    const bool screenOk = setState(std::move(desc), now);
    if (screenOk) {
        // A screen from a request has no name, so a following ShowGui of any
        // name, the last one shown included, switches screens again.
        state.guiId.clear();
    }
    const bool brightnessOk = applyBrightness(request.brightness());
    return screenOk && brightnessOk;
}

bool LcmGui::applyBrightness(int percent) {
    // Without backlight management every call fails, a negative percentage
    // included: on such a device every show command reports failure, although
    // its screen is shown. Requesters rely on that status.
    return backLight.setBrightness(static_cast<signed char>(percent));
}

void LcmGui::fillShowGuiResponse(ShowGui& response) const {
    if (response.Type() != variant::kObject) {
        response.Free();
        response.IsArray(false);
    }
    response.guiId(state.guiId);
    // Every negative percentage means "never set" or "keep"; it is reported as -1.
    response.brightness(std::clamp(backLight.getBrightness(), kBrightnessKeep, kBrightnessMax));
}

GuiTextConf LcmGui::textConfFrom(LcmGuiTextSettingsElementRef element) {
    GuiTextConf conf;
    conf.text = element.str();
    conf.x = element.x();
    conf.y = element.y();
    conf.size = element.size();  // a missing or non-integer size is stored as 6 first
    conf.alignHor = parseAlignHor(element.alignHor(), kAlignLeft);
    conf.alignVert = parseAlignVert(element.alignVert(), kAlignTop);
    return conf;
}

GuiImgConf LcmGui::imgConfFrom(LcmGuiImgSettingsElementRef element) {
    GuiImgConf conf;
    conf.file = element.file();
    conf.x = element.x();
    conf.y = element.y();
    conf.alignHor = parseAlignHor(element.alignHor(), kAlignLeft);
    conf.alignVert = parseAlignVert(element.alignVert(), kAlignTop);
    conf.animation = parseAnimType(element.animation(), kAnimStatic);
    conf.duration = element.duration();  // missing or non-integer: 0 is stored first
    conf.count = element.count();
    return conf;
}

// ---- Screen state and animation ----

bool LcmGui::setState(GuiScreenDesc screen, unsigned long now) {
    const GuiImgConf& img = screen.img;
    const std::vector<AnimationBreach> breaches = animationBreaches(img);
    if (!breaches.empty()) {
        DRAVIK_LOG(logger::kError, 0, breaches[0].logFormat, breaches[0].value);
        return false;
    }
    state.lastLevel = 0;
    state.animStart = img.animation == kAnimStatic ? 0 : now;
    state.textConf = std::move(screen.text);
    state.imgConf = std::move(screen.img);
    state.stateChanged = true;
    return true;
}

bool LcmGui::prepareToService() {
    clearBuf();
    if (!state.textConf.text.empty() && setFontGeometry(state.textConf.size)) {
        (void)renderText(state.textConf, false, false);  // a failed text is left out
    }
    state.img.release();
    if (!state.imgConf.file.empty()) {
        const std::string path = config.getImgPath() + "/" + state.imgConf.file;
        if (loadImage(path, state.img, state.imgConf)) {
            (void)renderImage(state.img, state.imgConf, 0, false, false);  // it logs its failure
        }
        if (!state.img.empty()) {
            return showBuf();
        }
    }
    state.animStart = 0;
    return showBuf();
}

uint32_t LcmGui::animationLevel(uint64_t now) const {
    const GuiImgConf& conf = state.imgConf;
    const uint64_t elapsed = now - state.animStart;
    const uint64_t phase = elapsed % conf.duration;
    switch (conf.animation) {
        case kAnimSlideshow:
            return static_cast<uint32_t>(uint64_t{conf.count} * phase / conf.duration);
        case kAnimBreathing: {
            const float angle = static_cast<float>(static_cast<int64_t>(phase)) * 6.2831855F /
                                static_cast<float>(static_cast<uint32_t>(conf.duration - 1));
            return static_cast<uint32_t>((sinf(angle) + 1.0F) * 50.0F);
        }
        case kAnimProgressbar: {
            const auto cols = static_cast<uint64_t>(static_cast<int64_t>(state.img.cols));
            return static_cast<uint32_t>(elapsed <= conf.duration ? cols * elapsed / conf.duration
                                                                  : cols);
        }
        default:
            return 0;
    }
}

bool LcmGui::service() {
    const uint64_t now = nowMs();
    (void)backLight.service();  // logs its own failure; the tick goes on
    if (state.stateChanged) {
        (void)prepareToService();  // drawing failures are logged where they happen
        state.stateChanged = false;
        return true;
    }
    if (state.animStart == 0 || state.imgConf.duration < 2) {
        return true;
    }
    const uint32_t level = animationLevel(now);
    if (level == state.lastLevel) {
        return true;
    }
    state.lastLevel = level;
    (void)renderImage(state.img, state.imgConf, level, true, true);  // not retried at this level
    return true;
}

}  // namespace dravik::lcmgui
