#include <cstdint>
#include <iterator>
#include <string>

#include "GuiConfig.h"
#include "GuiScreen.h"
#include "dravik_ipc_messages/element_values.h"
#include "dravik_logger/logger.h"
#include "dravik_variant/variant.h"

namespace dravik::lcmgui {

namespace {

using dravik::variant::IsInteger;
using dravik::variant::Variant;
using dravik::variant::VariantType;

template <typename Enum, size_t N>
Enum parseWord(const char* const (&words)[N], const std::string& s, Enum def) {
    for (size_t i = 0; i < N; ++i) {
        if (s == words[i]) {
            return static_cast<Enum>(i);
        }
    }
    return def;
}

// Every read below goes through GetKeyChain with empty path steps skipped, as
// all configuration reads do. `obj` may be null (element absent).
const Variant* lookup(const Variant* obj, VariantType pattern, const char* key) {
    return obj != nullptr ? obj->GetKeyChain(pattern, key, true) : nullptr;
}

// The string under `key`; "" when absent or of another type.
std::string readString(const Variant* obj, const char* key) {
    const Variant* v = lookup(obj, dravik::variant::kString, key);
    return v != nullptr ? v->AsString() : std::string();
}

// The integer under `key` through Variant's conversion to `T` (which saturates
// at T's limits); `current` when absent or not an integer (a JSON string of
// digits or a number with a fraction count as absent).
template <typename T>
T readInteger(const Variant* obj, const char* key, T current) {
    const Variant* v = lookup(obj, dravik::variant::kAny, key);
    if (v == nullptr || !IsInteger(v->Type())) {
        return current;
    }
    return static_cast<T>(*v);
}

// "x", "y", "horizontal" and "vertical", shared by the text and image elements.
template <typename Conf>
void readPosition(const Variant* obj, Conf& conf) {
    conf.x = readInteger<uint16_t>(obj, key::kX, conf.x);
    conf.y = readInteger<uint16_t>(obj, key::kY, conf.y);
    conf.alignHor = parseAlignHor(readString(obj, key::kHorizontal), conf.alignHor);
    conf.alignVert = parseAlignVert(readString(obj, key::kVertical), conf.alignVert);
}

// The other keys of a text element only count when it has something to show.
GuiTextConf readText(const Variant* obj) {
    GuiTextConf conf;
    conf.text = readString(obj, key::kStr);
    if (conf.text.empty()) {
        return conf;
    }
    conf.size = readInteger<uint16_t>(obj, key::kSize, conf.size);
    readPosition(obj, conf);
    return conf;
}

// Likewise for an image element without a file; "duration" and "count" are
// read whenever "animation" is a non-empty string, even one that is not a known
// kind (and so leaves the animation static).
GuiImgConf readImg(const Variant* obj) {
    GuiImgConf conf;
    conf.file = readString(obj, key::kFile);
    if (conf.file.empty()) {
        return conf;
    }
    readPosition(obj, conf);
    const std::string animation = readString(obj, key::kAnimation);
    conf.animation = parseAnimType(animation, conf.animation);
    if (!animation.empty()) {
        conf.duration = readInteger<uint32_t>(obj, key::kDuration, conf.duration);
        conf.count = readInteger<uint16_t>(obj, key::kCount, conf.count);
    }
    return conf;
}

// "rotation": kRotationUnset when absent; 0 after a log line when it is not
// one of kRotations (the screens stay usable, unturned).
int readRotationKey(const Variant& root) {
    const Variant* value = lookup(&root, dravik::variant::kAny, key::kRotation);
    if (value == nullptr) {
        return kRotationUnset;
    }
    if (IsInteger(value->Type())) {
        const auto degrees = static_cast<int64_t>(*value);
        for (const unsigned rotation : kRotations) {
            if (degrees == rotation) {
                return static_cast<int>(rotation);
            }
        }
        DRAVIK_LOG(logger::kError, 0,
                   "Wrong 'rotation' %lld: 0, 90, 180 or 270 expected; the panel is not turned",
                   static_cast<long long>(degrees));
        return 0;
    }
    DRAVIK_LOG(logger::kError, 0,
               "Wrong 'rotation': a number 0, 90, 180 or 270 expected; the panel is not turned");
    return 0;
}

GuiScreenDesc readScreenDesc(const Variant& screen) {
    GuiScreenDesc desc;
    desc.text = readText(lookup(&screen, dravik::variant::kAny, key::kText));
    desc.img = readImg(lookup(&screen, dravik::variant::kAny, key::kImg));
    return desc;
}

}  // namespace

AlignHor parseAlignHor(const std::string& s, AlignHor def) {
    return parseWord(kAlignHorWords, s, def);
}

AlignVert parseAlignVert(const std::string& s, AlignVert def) {
    return parseWord(kAlignVertWords, s, def);
}

AnimType parseAnimType(const std::string& s, AnimType def) {
    return parseWord(kAnimationWords, s, def);
}

int GuiConfig::readRotation(const Variant& root) {
    return readRotationKey(root);
}

GuiScreenDesc GuiConfig::readScreen(const Variant& screen) {
    return readScreenDesc(screen);
}

bool GuiConfig::fromJSONFile(const std::string& path) {
    screens.clear();
    if (path.empty()) {
        return false;
    }

    Variant root;
    if (!root.FromJSONFile(path)) {
        DRAVIK_LOG(logger::kError, 0, "Could not read configuration from file '%s'", path.c_str());
        return false;
    }
    DRAVIK_LOG(logger::kDebug, 0, "Looking file '%s'...", path.c_str());

    imgPath = readString(&root, key::kImgPath);
    if (imgPath.empty()) {
        DRAVIK_LOG(logger::kError, 0, "Could not find key 'imgPath' in JSON file");
        return false;
    }
    backLightPath = readString(&root, key::kBackLightPath);
    rotation = readRotationKey(root);

    // Looked up with the object pattern, which arrays match as well; a value of
    // any other type, null included, counts as missing.
    const Variant* list = root.GetKeyChain(dravik::variant::kObject, key::kScreens, true);
    if (list == nullptr || list->IsNull()) {
        DRAVIK_LOG(logger::kError, 0, "Could not find key 'screens'");
        return false;
    }
    if (!list->IsArray()) {
        DRAVIK_LOG(logger::kError, 0, "'screens' key should be defined as array in JSON file");
        return false;
    }
    if (list->NumericKeysCount() == 0) {
        DRAVIK_LOG(logger::kError, 0, "Could not find items 'screens' in JSON file");
        return false;
    }

    for (auto it = list->num_begin(); it != list->num_end(); ++it) {
        const int index = static_cast<int>(it->first);
        const std::string name = readString(&it->second, key::kName);
        if (name.empty()) {
            // Screens read before this one stay in the table.
            DRAVIK_LOG(logger::kError, 0, "Screen[%d]: could not find key 'name'", index);
            return false;
        }
        if (screens.count(name) != 0) {
            DRAVIK_LOG(logger::kWarning, 0, "Screen[%d] with name '%s' already present, skipping",
                       index, name.c_str());
            continue;
        }
        screens.emplace(name, readScreenDesc(it->second));
    }

    if (screens.empty()) {
        DRAVIK_LOG(logger::kError, 0, "At least one screen should be present in JSON file");
        return false;
    }
    return true;
}

const GuiScreenDesc& GuiConfig::getScreenDesc(const std::string& name, bool& found) const {
    // One shared all-default description, built on first use and never changed.
    static const GuiScreenDesc kDefault;
    const auto it = screens.find(name);
    found = it != screens.end();
    return found ? it->second : kDefault;
}

}  // namespace dravik::lcmgui
