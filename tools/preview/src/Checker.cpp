#include "preview/Checker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "Checks.h"
#include "GuiConfig.h"
#include "GuiLimits.h"
#include "GuiPaths.h"
#include "LcmGui.h"
#include "dravik_fontrenderer/FontRenderer.h"
#include "dravik_utils/utils.h"
#include "dravik_variant/variant.h"
#include "preview/JsonPositions.h"
#include "preview/Renderer.h"

namespace dravik::preview {

namespace {

namespace key = lcmgui::key;
using lcmgui::GuiImgConf;
using lcmgui::GuiScreenDesc;
using lcmgui::GuiTextConf;
using variant::Variant;

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
template <size_t N>
std::string nearest(const std::string& word, const char* const (&known)[N]) {
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

template <size_t N>
bool isKnown(const std::string& word, const char* const (&known)[N]) {
    return std::any_of(std::begin(known), std::end(known),
                       [&](const char* candidate) { return word == candidate; });
}

template <size_t N>
std::string wordList(const char* const (&words)[N]) {
    std::string list;
    for (size_t i = 0; i < N; ++i) {
        list += (i == 0 ? "" : i + 1 == N ? " or " : ", ");
        list += std::string("\"") + words[i] + "\"";
    }
    return list;
}

// The file's bytes, like the daemon reads them: a regular file of at most
// Variant::kMaxJsonFileSize bytes. False with the reason in `error`.
bool readScreensFile(const std::string& path, std::string& text, std::string& error) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = std::string("cannot read the file: ") + std::strerror(errno);
        return false;
    }
    struct stat info = {};
    bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    error = ok ? "" : "not a regular file";
    char buffer[65536];
    while (ok) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            error = std::string("cannot read the file: ") + std::strerror(errno);
            ok = false;
        } else if (n == 0) {
            break;
        } else if (text.size() + static_cast<size_t>(n) > Variant::kMaxJsonFileSize) {
            error = "the file is larger than the daemon reads (16 MiB)";
            ok = false;
        } else {
            text.append(buffer, static_cast<size_t>(n));
        }
    }
    close(fd);
    return ok;
}

}  // namespace

namespace checker {

constexpr const char kRotationHint[] =
    "Write 0, 90, 180 or 270: how many degrees clockwise the picture is turned on the panel, "
    "for a panel mounted turned the other way.";

// ---- The checks ----

std::vector<Finding> Checks::run() {
    {
        EngineMessages quiet;
        Variant probe;  // the turn sets the screen's size for every later rule
        const int rotation = options_.rotation != lcmgui::kRotationUnset ? options_.rotation
                             : probe.FromJSONString(text_) ? lcmgui::GuiConfig::readRotation(probe)
                                                           : lcmgui::kRotationUnset;
        if (rotation != lcmgui::kRotationUnset) {
            engine_.overrideRotation(static_cast<unsigned>(rotation));
        }
        if (!engine_.initInMemory(options_.panel.var)) {
            error(0, "the display engine cannot draw on a " + describe(options_.panel) + " panel",
                  "Choose a panel of 15, 16, 24 or 32 bits per pixel.");
            return findings();
        }
    }
    fontsReady_ = fonts_.init();
    if (!fontsReady_) {
        warning(0, "no font could be loaded, so text sizes are not checked",
                "Install the font the daemon uses (DejaVu Sans, package fonts-dejavu-core).");
    }
    Variant variantRoot;
    if (checkSyntax(variantRoot)) {
        JsonNode root;
        if (!parseWithPositions(text_, root)) {
            error(0, "the file is not JSON that this checker can read",
                  "Check the file with a JSON validator.");
        } else {
            checkFile(root, variantRoot);
            checkDaemonVerdict();
        }
    }
    return findings();
}

// The daemon's own loader has the last word on the file: a refusal that the
// checks above did not explain is reported as it is.
void Checks::checkDaemonVerdict() {
    if (std::any_of(problems_.begin(), problems_.end(), [](const Problem& p) { return p.error; })) {
        return;
    }
    EngineMessages log;
    lcmgui::GuiConfig config;
    if (config.fromJSONFile(path_)) {
        return;
    }
    std::string reason;
    for (const auto& record : log.records()) {
        if (record.level <= logger::kError) {
            reason += (reason.empty() ? "" : "; ") + record.message;
        }
    }
    error(0, "the daemon refuses this file: " + reason,
          "Run the daemon with this file to see its log.");
}

std::vector<Finding> Checks::findings() {
    std::stable_sort(problems_.begin(), problems_.end(),
                     [](const Problem& a, const Problem& b) { return a.offset < b.offset; });
    std::vector<Finding> findings;
    for (const Problem& p : problems_) {
        const TextPosition position = locate(text_, p.offset);
        findings.push_back({path_, position.line, position.column, p.error, p.message, p.hint});
    }
    return findings;
}

// The daemon's own reader decides what is JSON; it also bounds the nesting and
// the size of integers.
bool Checks::checkSyntax(Variant& root) {
    if (root.FromJSONString(text_)) {
        return true;
    }
    const variant::JsonError& failure = Variant::LastJsonError();
    error(failure.byteOffset, "JSON syntax: " + failure.message,
          "The daemon cannot read the file at all and does not start with it. A missing "
          "comma, quote or bracket just before this place is the usual cause.");
    return false;
}

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

template <size_t N>
void Checks::checkKeys(const JsonNode& object, const char* const (&known)[N],
                       const std::string& what) {
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
    const JsonMember* m = screen.member(name);
    if (m == nullptr) {
        return nullptr;
    }
    if (!m->value.isObject()) {
        warning(m->value.offset,
                quoted(name) + " is " + describeType(m->value) +
                    ", which counts as missing: " + missingMeans,
                "Write the element as an object, such as {\"str\": \"Hello\", \"size\": 24} or "
                "{\"file\": \"logo.png\"}.");
        return nullptr;
    }
    return &m->value;
}

void Checks::checkIgnored(const JsonNode& object, const char* const* keys, size_t count,
                          const std::string& why) {
    for (size_t i = 0; i < count; ++i) {
        const JsonMember* m = object.member(keys[i]);
        if (m != nullptr) {
            warning(m->keyOffset, quoted(keys[i]) + " is ignored: " + why,
                    "The daemon reads the other keys of an element only when it has something "
                    "to show, and \"duration\" and \"count\" only with an \"animation\".");
        }
    }
}

template <typename T>
void Checks::checkInteger(const JsonNode& object, const char* name, T taken,
                          const std::string& use) {
    const JsonMember* m = object.member(name);
    if (m == nullptr) {
        return;
    }
    if (!m->value.isInteger()) {
        warning(m->value.offset,
                quoted(name) + " is " + describeType(m->value) + ", which counts as missing: the " +
                    use + " is " + std::to_string(taken),
                "Write a whole number without quotes, such as 20.");
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

template <size_t N>
void Checks::checkWord(const JsonNode& object, const char* name, const char* const (&words)[N],
                       const std::string& fallback) {
    const JsonMember* m = object.member(name);
    if (m == nullptr) {
        return;
    }
    if (!m->value.isString()) {
        warning(m->value.offset,
                quoted(name) + " is " + describeType(m->value) + ": the daemon uses " +
                    quoted(fallback),
                "Write one of " + wordList(words) + ", in quotes.");
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

void Checks::checkText(const JsonNode& text, const GuiTextConf& conf) {
    checkKeys(text, lcmgui::kTextKeys, "a text element");
    const JsonMember* str = text.member(key::kStr);
    if (str != nullptr && !str->value.isString()) {
        warning(str->value.offset,
                "\"str\" is " + describeType(str->value) + ", which counts as missing: no text",
                "Write the text in quotes.");
    }
    if (conf.text.empty()) {
        static const char* const kOthers[] = {key::kSize, key::kX, key::kY, key::kHorizontal,
                                              key::kVertical};
        checkIgnored(text, kOthers, std::size(kOthers), "the text element has no \"str\"");
        return;
    }
    checkInteger<uint16_t>(text, key::kSize, conf.size, "font size");
    checkInteger<uint16_t>(text, key::kX, conf.x, "position x");
    checkInteger<uint16_t>(text, key::kY, conf.y, "position y");
    checkWord(text, key::kHorizontal, lcmgui::kAlignHorWords, "left");
    checkWord(text, key::kVertical, lcmgui::kAlignVertWords, "top");
}

void Checks::checkImgKeys(const JsonNode& img, const GuiImgConf& conf) {
    checkKeys(img, lcmgui::kImgKeys, "an image element");
    const JsonMember* file = img.member(key::kFile);
    if (file != nullptr && !file->value.isString()) {
        warning(file->value.offset,
                "\"file\" is " + describeType(file->value) + ", which counts as missing: no image",
                "Write the file name in quotes, relative to \"imgPath\".");
    }
    if (conf.file.empty()) {
        static const char* const kOthers[] = {key::kX,        key::kY,         key::kHorizontal,
                                              key::kVertical, key::kAnimation, key::kDuration,
                                              key::kCount};
        checkIgnored(img, kOthers, std::size(kOthers), "the image element has no \"file\"");
        return;
    }
    checkInteger<uint16_t>(img, key::kX, conf.x, "position x");
    checkInteger<uint16_t>(img, key::kY, conf.y, "position y");
    checkWord(img, key::kHorizontal, lcmgui::kAlignHorWords, "left");
    checkWord(img, key::kVertical, lcmgui::kAlignVertWords, "top");
    checkWord(img, key::kAnimation, lcmgui::kAnimationWords, "static");
    const JsonMember* animation = img.member(key::kAnimation);
    if (animation == nullptr || animation->value.text().empty()) {
        static const char* const kTiming[] = {key::kDuration, key::kCount};
        checkIgnored(img, kTiming, std::size(kTiming), "the image element has no \"animation\"");
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

void Checks::checkAnimation(const JsonNode& img, const GuiImgConf& conf) {
    if (conf.file.empty() || conf.animation == lcmgui::kAnimStatic) {
        return;
    }
    const std::string refused =
        "A refused screen is never shown: the request to show it fails and the screen on show "
        "stays. A missing or mistyped value counts as 0.";
    const std::string kind = lcmgui::kAnimationWords[conf.animation];
    const uint32_t maxMs =
        conf.animation == lcmgui::kAnimProgressbar ? lcmgui::kMaxProgressMs : lcmgui::kMaxCycleMs;
    if (conf.duration < lcmgui::kMinPeriodMs || conf.duration > maxMs) {
        const size_t offset = img.member(key::kDuration) != nullptr ? at(img, key::kDuration)
                                                                    : at(img, key::kAnimation);
        warning(offset,
                kind + " duration " + std::to_string(conf.duration) + " ms is outside " +
                    std::to_string(lcmgui::kMinPeriodMs) + ".." + std::to_string(maxMs) +
                    " ms: the daemon refuses this screen",
                refused);
    }
    if (conf.animation == lcmgui::kAnimSlideshow &&
        (conf.count < 1 || conf.count > lcmgui::kMaxSlides)) {
        const size_t offset =
            img.member(key::kCount) != nullptr ? at(img, key::kCount) : at(img, key::kAnimation);
        warning(offset,
                "slideshow count " + std::to_string(conf.count) + " is outside 1.." +
                    std::to_string(lcmgui::kMaxSlides) + ": the daemon refuses this screen",
                refused);
    }
}

}  // namespace checker

std::vector<Finding> checkScreensFile(const std::string& path, const CheckOptions& options) {
    std::string text;
    std::string error;
    if (!readScreensFile(path, text, error)) {
        return {{path, 0, 0, true, error, "Give the path of a screens file of at most 16 MiB."}};
    }
    checker::Checks checks(path, text, options);
    return checks.run();
}

}  // namespace dravik::preview
