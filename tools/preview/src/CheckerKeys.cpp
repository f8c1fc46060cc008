#include <algorithm>
#include <cctype>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "Checks.h"
#include "GuiConfig.h"
#include "preview/JsonPositions.h"

// The keys and values of the file, its screens and their elements: what the
// daemon reads, what it passes over, and what it makes of a mistyped value.

namespace dravik::preview {

namespace {

namespace key = lcmgui::key;
using checker::Words;

// ---- Words and spelling ----

size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

// The known word that `word` most likely meant: one that differs only in case,
// else the closest within a few edits; "" when none is close.
std::string nearest(const std::string& word, Words known) {
    for (const char* candidate : known) {
        if (lower(word) == lower(candidate)) {
            return candidate;
        }
    }
    const size_t limit = std::max<size_t>(2, word.size() / 3);
    std::string best;
    size_t bestDistance = limit + 1;
    for (const char* candidate : known) {
        const size_t distance = editDistance(lower(word), lower(candidate));
        if (distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

bool isKnown(const std::string& word, Words known) {
    return std::any_of(known.begin(), known.end(),
                       [&](const char* candidate) { return word == candidate; });
}

std::string wordList(Words words) {
    std::string list;
    const size_t n = words.size();
    for (size_t i = 0; i < n; ++i) {
        list += (i == 0 ? "" : i + 1 == n ? " or " : ", ");
        list += std::string("\"") + words.begin()[i] + "\"";
    }
    return list;
}

}  // namespace

namespace checker {

// What the daemon reads of an element: the key that holds what it shows, and
// the keys it passes over when that is missing.
struct ElementRules {
    const char* what;  // "a text element"
    Words known;
    const char* content;      // the key of what it shows, a string
    const char* missing;      // what a missing content means: "no text"
    const char* contentHint;  // how to write the content
    Words others;             // read only when there is content
    const char* without;      // why they are ignored then
};

constexpr const char kRotationHint[] =
    "Write 0, 90, 180 or 270: how many degrees clockwise the picture is turned on the panel, "
    "for a panel mounted turned the other way.";

void Checks::checkFile(const JsonNode& root, const Variant& variantRoot) {
    if (!root.isObject()) {
        error(root.offset, "the file holds " + describeType(root) + ", not an object",
              "A screens file is one JSON object with \"imgPath\" and \"screens\".");
        return;
    }
    checkKeys(root, lcmgui::kFileKeys, "the file");
    checkImgPath(root);
    checkBackLight(root);
    checkRotation(root);
    const JsonMember* screens = root.member(key::kScreens);
    if (checkScreensList(root, screens)) {
        checkScreens(screens->value, variantRoot);
    }
}

void Checks::checkRotation(const JsonNode& root) {
    const JsonMember* rotation = root.member(key::kRotation);
    if (rotation == nullptr) {
        return;
    }
    const JsonNode& value = rotation->value;
    if (value.isInteger()) {
        const std::string number = value.scalar.dump();
        for (const unsigned degrees : lcmgui::kRotations) {
            if (number == std::to_string(degrees)) {
                return;
            }
        }
        warning(value.offset,
                "\"rotation\" is " + number + ": the daemon leaves the panel unturned",
                kRotationHint);
        return;
    }
    warning(value.offset,
            "\"rotation\" is " + describeType(value) + ": the daemon leaves the panel unturned",
            kRotationHint);
}

void Checks::checkImgPath(const JsonNode& root) {
    const JsonMember* imgPath = root.member(key::kImgPath);
    if (imgPath == nullptr) {
        error(root.offset, "required key \"imgPath\" is missing",
              "Give the directory of the images, such as \"/etc/gui/images\"; without it the "
              "daemon refuses the file.");
    } else if (!imgPath->value.isString()) {
        error(imgPath->value.offset,
              "\"imgPath\" is " + describeType(imgPath->value) + ", which counts as missing",
              "Write the directory as a string, such as \"/etc/gui/images\".");
    } else if (imgPath->value.text().empty()) {
        error(imgPath->value.offset, "\"imgPath\" is empty",
              "Give the directory of the images, such as \"/etc/gui/images\".");
    }
    imgPath_ = imgPath != nullptr ? imgPath->value.text() : "";
}

void Checks::checkBackLight(const JsonNode& root) {
    const JsonMember* backLight = root.member(key::kBackLightPath);
    if (backLight == nullptr || !backLight->value.isString() || backLight->value.text().empty()) {
        const std::string what = backLight == nullptr ? "there is no \"backLightPath\""
                                 : !backLight->value.isString()
                                     ? "\"backLightPath\" is " + describeType(backLight->value) +
                                           ", which counts as missing"
                                     : "\"backLightPath\" is empty";
        warning(backLight == nullptr ? root.offset : backLight->value.offset,
                what + ": the daemon manages no backlight",
                "Without a backlight every ShowGui and ShowSimpleScreen request is answered "
                "with failure, although its screen is shown. Give the backlight's directory, "
                "such as \"/sys/class/backlight/lcd-backlight\".");
    }
}

// Each screen, read by the daemon's own reader beside its JSON positions, and
// the names taken twice.
void Checks::checkScreens(const JsonNode& screens, const Variant& variantRoot) {
    const Variant* list = variantRoot.GetKeyChain(variant::kObject, key::kScreens, true);
    const auto& elements = screens.elements;
    std::map<std::string, size_t> firstOffset;
    size_t index = 0;
    for (auto it = list->num_begin(); it != list->num_end() && index < elements.size();
         ++it, ++index) {
        const JsonNode& screen = elements[index];
        checkScreen(index, screen, lcmgui::GuiConfig::readScreen(it->second));
        const JsonMember* name = screen.isObject() ? screen.member(key::kName) : nullptr;
        if (name == nullptr || name->value.text().empty()) {
            continue;
        }
        const auto [first, isNew] = firstOffset.emplace(name->value.text(), name->value.offset);
        if (!isNew) {
            warning(name->value.offset,
                    "screen name " + quoted(name->value.text()) + " is taken already (line " +
                        std::to_string(locate(text_, first->second).line) +
                        "): the daemon skips this screen",
                    "The first screen of a name wins; give this one a name of its own.");
        }
    }
}

void Checks::checkKeys(const JsonNode& object, Words known, const std::string& what) {
    for (const JsonMember& m : object.members) {
        if (isKnown(m.key, known)) {
            if (object.member(m.key) != &m) {
                warning(m.keyOffset, "key " + quoted(m.key) + " is given again further on",
                        "The daemon keeps only the last value of a key; remove the one you "
                        "do not mean.");
            }
            continue;
        }
        const std::string guess = nearest(m.key, known);
        warning(m.keyOffset,
                "the daemon does not read key " + quoted(m.key) + " of " + what +
                    (guess.empty() ? "" : "; did you mean " + quoted(guess) + "?"),
                "Unknown keys are ignored without a word, so a misspelt key leaves its setting "
                "at the default. Keys are case-sensitive; " +
                    what + " reads " + wordList(known) + ".");
    }
}

bool Checks::checkScreensList(const JsonNode& root, const JsonMember* screens) {
    if (screens == nullptr || (!screens->value.isArray() && !screens->value.isObject())) {
        error(screens == nullptr ? root.offset : screens->value.offset,
              screens == nullptr
                  ? "required key \"screens\" is missing"
                  : "\"screens\" is " + describeType(screens->value) + ", which counts as missing",
              "List the screens as an array of objects: \"screens\": [{\"name\": ...}].");
        return false;
    }
    if (!screens->value.isArray()) {
        error(screens->value.offset, "\"screens\" is an object, not an array",
              "Write the screens in square brackets: \"screens\": [{...}, {...}].");
        return false;
    }
    if (screens->value.elements.empty()) {
        error(screens->value.offset, "\"screens\" is empty",
              "The daemon needs at least one screen.");
        return false;
    }
    return true;
}

void Checks::checkName(size_t index, const JsonNode& screen) {
    const std::string which = "screen " + std::to_string(index);
    const JsonMember* name = screen.isObject() ? screen.member(key::kName) : nullptr;
    if (!screen.isObject()) {
        error(screen.offset, which + " is " + describeType(screen) + ", not an object",
              "Each screen is an object with a \"name\"; the daemon refuses the file at the "
              "first screen without one.");
    } else if (name == nullptr) {
        error(screen.offset, which + " has no \"name\"",
              "Each screen needs a non-empty \"name\"; the daemon refuses the file at the first "
              "screen without one.");
    } else if (!name->value.isString()) {
        error(name->value.offset,
              "the name of " + which + " is " + describeType(name->value) +
                  ", which counts as missing",
              "Write the name as a string; the daemon refuses the file at the first screen "
              "without one.");
    } else if (name->value.text().empty()) {
        error(name->value.offset, "the name of " + which + " is empty",
              "Each screen needs a non-empty \"name\".");
    }
}

void Checks::checkScreen(size_t index, const JsonNode& screen, const GuiScreenDesc& desc) {
    checkName(index, screen);
    if (!screen.isObject()) {
        return;
    }
    checkKeys(screen, lcmgui::kScreenKeys, "a screen");
    const JsonNode* text = element(screen, key::kText, "no text");
    const JsonNode* img = element(screen, key::kImg, "no image");
    std::optional<Rect> textRect;
    std::optional<Rect> imageRect;
    if (text != nullptr) {
        checkText(*text, desc.text);
        textRect = checkTextGeometry(*text, desc.text);
    }
    if (img != nullptr) {
        checkImgKeys(*img, desc.img);
        checkAnimation(*img, desc.img);
        imageRect = checkImage(*img, desc.img);
    }
    if (textRect && imageRect) {
        checkOverlap(screen, *textRect, *imageRect, desc.img);
    }
}

const JsonNode* Checks::element(const JsonNode& screen, const char* name,
                                const char* missingMeans) {
    const JsonMember* m = memberOfType(
        screen, name, &JsonNode::isObject,
        std::string(", which counts as missing: ") + missingMeans,
        "Write the element as an object, such as {\"str\": \"Hello\", \"size\": 24} or "
        "{\"file\": \"logo.png\"}.");
    return m != nullptr ? &m->value : nullptr;
}

void Checks::checkIgnored(const JsonNode& object, Words keys, const std::string& why) {
    for (const char* name : keys) {
        const JsonMember* m = object.member(name);
        if (m != nullptr) {
            warning(m->keyOffset, quoted(name) + " is ignored: " + why,
                    "The daemon reads the other keys of an element only when it has something "
                    "to show, and \"duration\" and \"count\" only with an \"animation\".");
        }
    }
}

// The member `name` of `object` when it is there and of the type the daemon
// reads; null otherwise, with a warning when it is of another type.
const JsonMember* Checks::memberOfType(const JsonNode& object, const char* name,
                                       bool (JsonNode::*isType)() const,
                                       const std::string& mistyped, const std::string& hint) {
    const JsonMember* m = object.member(name);
    if (m == nullptr || (m->value.*isType)()) {
        return m;
    }
    warning(m->value.offset, quoted(name) + " is " + describeType(m->value) + mistyped, hint);
    return nullptr;
}

template <typename T>
void Checks::checkInteger(const JsonNode& object, const char* name, T taken,
                          const std::string& use) {
    const JsonMember* m =
        memberOfType(object, name, &JsonNode::isInteger,
                     ", which counts as missing: the " + use + " is " + std::to_string(taken),
                     "Write a whole number without quotes, such as 20.");
    if (m == nullptr) {
        return;
    }
    const bool same = m->value.type == nlohmann::json::value_t::number_unsigned
                          ? m->value.scalar.get<uint64_t>() == taken
                          : m->value.scalar.get<int64_t>() == static_cast<int64_t>(taken);
    if (!same) {
        warning(m->value.offset,
                quoted(name) + " " + m->value.scalar.dump() + " is outside 0.." +
                    std::to_string(std::numeric_limits<T>::max()) + ": the daemon takes it as " +
                    std::to_string(taken),
                "Give a value within 0.." + std::to_string(std::numeric_limits<T>::max()) + ".");
    }
}

void Checks::checkWord(const JsonNode& object, const char* name, Words words,
                       const std::string& fallback) {
    const JsonMember* m =
        memberOfType(object, name, &JsonNode::isString, ": the daemon uses " + quoted(fallback),
                     "Write one of " + wordList(words) + ", in quotes.");
    if (m == nullptr) {
        return;
    }
    const std::string word = m->value.text();
    if (isKnown(word, words)) {
        return;
    }
    const std::string guess = nearest(word, words);
    warning(m->value.offset,
            quoted(word) + " is not one of " + wordList(words) + ": the daemon uses " +
                quoted(fallback) + (guess.empty() ? "" : "; did you mean " + quoted(guess) + "?"),
            "The words are compared exactly, lower case only.");
}

// The key that holds what the element shows must be a string; the others
// count only when it is not empty. False when there is nothing to show.
bool Checks::checkContent(const JsonNode& element, const ElementRules& rules, bool shows) {
    checkKeys(element, rules.known, rules.what);
    (void)memberOfType(element, rules.content, &JsonNode::isString,
                       std::string(", which counts as missing: ") + rules.missing,
                       rules.contentHint);  // the text itself is in the element's conf
    if (!shows) {
        checkIgnored(element, rules.others, rules.without);
    }
    return shows;
}

template <typename Conf>
void Checks::checkPosition(const JsonNode& element, const Conf& conf) {
    checkInteger<uint16_t>(element, key::kX, conf.x, "position x");
    checkInteger<uint16_t>(element, key::kY, conf.y, "position y");
    checkWord(element, key::kHorizontal, lcmgui::kAlignHorWords, "left");
    checkWord(element, key::kVertical, lcmgui::kAlignVertWords, "top");
}

void Checks::checkText(const JsonNode& text, const GuiTextConf& conf) {
    static const char* const kOthers[] = {key::kSize, key::kX, key::kY, key::kHorizontal,
                                          key::kVertical};
    static const ElementRules kRules = {"a text element",
                                        lcmgui::kTextKeys,
                                        key::kStr,
                                        "no text",
                                        "Write the text in quotes.",
                                        kOthers,
                                        "the text element has no \"str\""};
    if (checkContent(text, kRules, !conf.text.empty())) {
        checkInteger<uint16_t>(text, key::kSize, conf.size, "font size");
        checkPosition(text, conf);
    }
}

void Checks::checkImgKeys(const JsonNode& img, const GuiImgConf& conf) {
    static const char* const kOthers[] = {key::kX,        key::kY,         key::kHorizontal,
                                          key::kVertical, key::kAnimation, key::kDuration,
                                          key::kCount};
    static const ElementRules kRules = {"an image element",
                                        lcmgui::kImgKeys,
                                        key::kFile,
                                        "no image",
                                        "Write the file name in quotes, relative to \"imgPath\".",
                                        kOthers,
                                        "the image element has no \"file\""};
    if (checkContent(img, kRules, !conf.file.empty())) {
        checkPosition(img, conf);
        checkWord(img, key::kAnimation, lcmgui::kAnimationWords, "static");
        checkTiming(img, conf);
    }
}

// "duration" and "count" are read with an "animation", and used by some.
void Checks::checkTiming(const JsonNode& img, const GuiImgConf& conf) {
    const JsonMember* animation = img.member(key::kAnimation);
    if (animation == nullptr || animation->value.text().empty()) {
        static const char* const kTiming[] = {key::kDuration, key::kCount};
        checkIgnored(img, kTiming, "the image element has no \"animation\"");
        return;
    }
    checkInteger<uint32_t>(img, key::kDuration, conf.duration, "duration");
    checkInteger<uint16_t>(img, key::kCount, conf.count, "slide count");
    const JsonMember* count = img.member(key::kCount);
    if (count != nullptr && conf.animation != lcmgui::kAnimSlideshow) {
        warning(count->keyOffset,
                "\"count\" is ignored: only a slideshow uses it, this animation is " +
                    quoted(lcmgui::kAnimationWords[conf.animation]),
                "Remove it, or make the animation \"slideshow\".");
    }
    const JsonMember* duration = img.member(key::kDuration);
    if (duration != nullptr && conf.animation == lcmgui::kAnimStatic) {
        warning(duration->keyOffset, "\"duration\" is ignored: a static image does not animate",
                "Remove it, or choose an animation: " + wordList(lcmgui::kAnimationWords) + ".");
    }
}

}  // namespace checker

}  // namespace dravik::preview
