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

#include "GuiConfig.h"
#include "GuiLimits.h"
#include "GuiPaths.h"
#include "ImageCodecs.h"
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

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
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

struct Rect {
    unsigned x = 0, y = 0, w = 0, h = 0;
};

// ---- The checks ----

class Checks {
public:
    Checks(const std::string& path, const std::string& text, const CheckOptions& options)
        : path_(path), text_(text), options_(options), engine_(config_) {}

    std::vector<Finding> run();

private:
    void error(size_t offset, std::string message, std::string hint) {
        problems_.push_back({offset, true, std::move(message), std::move(hint)});
    }
    void warning(size_t offset, std::string message, std::string hint) {
        problems_.push_back({offset, false, std::move(message), std::move(hint)});
    }

    std::vector<Finding> findings();
    void checkDaemonVerdict();
    bool checkSyntax(Variant& root);
    void checkFile(const JsonNode& root, const Variant& variantRoot);
    template <size_t N>
    void checkKeys(const JsonNode& object, const char* const (&known)[N], const std::string& what);
    bool checkScreensList(const JsonNode& root, const JsonMember* screens);
    void checkScreen(size_t index, const JsonNode& screen, const GuiScreenDesc& desc);
    void checkName(size_t index, const JsonNode& screen);
    const JsonNode* element(const JsonNode& screen, const char* name, const char* missingMeans);
    void checkText(const JsonNode& text, const GuiTextConf& conf);
    void checkImgKeys(const JsonNode& img, const GuiImgConf& conf);
    void checkIgnored(const JsonNode& object, const char* const* keys, size_t count,
                      const std::string& why);
    template <typename T>
    void checkInteger(const JsonNode& object, const char* name, T taken, const std::string& use);
    template <size_t N>
    void checkWord(const JsonNode& object, const char* name, const char* const (&words)[N],
                   const std::string& fallback);
    void checkAnimation(const JsonNode& img, const GuiImgConf& conf);
    std::optional<Rect> checkImage(const JsonNode& img, const GuiImgConf& conf);
    std::optional<Rect> checkTextGeometry(const JsonNode& text, const GuiTextConf& conf);
    void checkOverlap(const JsonNode& screen, const Rect& text, const Rect& image,
                      const GuiImgConf& img);

    size_t at(const JsonNode& object, const char* name) const {
        const JsonMember* m = object.member(name);
        return m != nullptr ? m->value.offset : object.offset;
    }
    unsigned panelWidth() const { return options_.panel.var.xres; }
    unsigned panelHeight() const { return options_.panel.var.yres; }
    std::string panelSize() const {
        return std::to_string(panelWidth()) + "x" + std::to_string(panelHeight());
    }

    struct Problem {
        size_t offset;
        bool error;
        std::string message;
        std::string hint;
    };

    const std::string& path_;
    const std::string& text_;
    const CheckOptions& options_;
    lcmgui::GuiConfig config_;
    lcmgui::LcmGui engine_;
    FontRenderer fonts_;
    bool fontsReady_ = false;
    std::string imgPath_;
    std::vector<Problem> problems_;
};

std::vector<Finding> Checks::run() {
    {
        EngineMessages quiet;
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

    const JsonMember* screens = root.member(key::kScreens);
    if (!checkScreensList(root, screens)) {
        return;
    }
    const Variant* list = variantRoot.GetKeyChain(variant::kObject, key::kScreens, true);
    const auto& elements = screens->value.elements;
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

std::optional<Rect> Checks::checkImage(const JsonNode& img, const GuiImgConf& conf) {
    if (conf.file.empty() || imgPath_.empty()) {
        return std::nullopt;
    }
    const std::string path = imgPath_ + "/" + conf.file;
    const size_t fileAt = at(img, key::kFile);
    const std::string shownWithout = "The screen is shown without its image.";
    std::string contained;
    if (!lcmgui::containGuiPath(path, contained)) {
        warning(fileAt,
                "image " + quoted(path) + " lies outside " + lcmgui::kGuiDirectories[0] + " and " +
                    lcmgui::kGuiDirectories[1] + ": the daemon does not read it",
                "Images must lie below one of those directories (\"..\" cannot leave them). " +
                    shownWithout);
        return std::nullopt;
    }
    const std::string onDisk = options_.root + contained;
    std::string resolved;
    bool isDirectory = false;
    if (!resolvePath(onDisk.c_str(), resolved, isDirectory, nullptr)) {
        warning(fileAt,
                "image " + quoted(path) + " is not found" +
                    (options_.root.empty() ? "" : " (looked up as " + onDisk + ")"),
                "File names are case-sensitive. " + shownWithout);
        return std::nullopt;
    }
    const cv::Mat stored = lcmgui::decodeImageFileAsStored(resolved);
    const cv::Mat colour = stored.empty() ? cv::Mat() : lcmgui::decodeImageFile(resolved);
    if (stored.empty() || colour.empty()) {
        warning(fileAt, "image " + quoted(path) + " cannot be decoded",
                "The daemon reads what OpenCV reads (PNG, JPEG, BMP, ...), up to about 100 "
                "panels' worth of pixels. " +
                    shownWithout);
        return std::nullopt;
    }
    if (stored.depth() != CV_8U) {
        warning(fileAt,
                "image " + quoted(path) + " is not 8 bits per channel: the daemon reduces it",
                "Save it with 8 bits per channel to see exactly what the panel shows.");
    }
    if (stored.channels() == 4 || stored.channels() == 2) {
        warning(fileAt, "image " + quoted(path) + " has an alpha channel, which the daemon drops",
                "Transparent pixels show the colour stored under them (often black): the image "
                "is added onto the screen, not blended. Save it without alpha.");
    } else if (stored.channels() == 1) {
        warning(fileAt,
                "image " + quoted(path) + " is grey, not colour: the daemon makes it colour",
                "It shows as intended; save it as 8-bit colour to silence this.");
    }
    unsigned w = 0;
    unsigned h = 0;
    engine_.getImgUsedSize(colour, conf.animation, conf.count, w, h);
    if (w == 0 || h == 0) {
        const bool slides = conf.animation == lcmgui::kAnimSlideshow;
        warning(slides ? at(img, key::kCount) : fileAt,
                slides ? "slideshow count " + std::to_string(conf.count) +
                             " is larger than the image's width of " + std::to_string(colour.cols) +
                             " pixels: the daemon does not show the image"
                       : "image " + quoted(path) + " has no rows to show",
                slides ? "The slides lie side by side in the image, so it must be at least one "
                         "pixel wide per slide."
                       : "A progress bar image holds the full bar above the empty one.");
        return std::nullopt;
    }
    if (w > panelWidth() || h > panelHeight()) {
        const std::string per = conf.animation == lcmgui::kAnimSlideshow     ? " per slide"
                                : conf.animation == lcmgui::kAnimProgressbar ? " per half"
                                                                             : "";
        warning(fileAt,
                "image " + quoted(path) + " shows " + std::to_string(w) + "x" + std::to_string(h) +
                    per + ", more than the panel's " + panelSize() +
                    ": the daemon does not show it",
                "A slideshow shows one slide (image width / count) at a time, a progress bar "
                "one half (image height / 2); a still or breathing image shows whole. " +
                    shownWithout);
        return std::nullopt;
    }
    unsigned x = conf.x;
    unsigned y = conf.y;
    if (uint64_t{x} + w > panelWidth() || uint64_t{y} + h > panelHeight()) {
        const bool aligned =
            conf.alignHor != lcmgui::kAlignLeft || conf.alignVert != lcmgui::kAlignTop;
        warning(at(img, uint64_t{x} + w > panelWidth() ? key::kX : key::kY),
                "the image (" + std::to_string(w) + "x" + std::to_string(h) + ") at (" +
                    std::to_string(x) + ", " + std::to_string(y) + ") reaches off the panel " +
                    panelSize() + ": the daemon does not draw it",
                aligned ? "The position is checked before the alignment moves the image: with "
                          "\"center\" or \"middle\" it counts half, with \"right\" or \"bottom\" "
                          "not at all, yet it must still fit. Use 0 with those alignments."
                        : "Move it so that it fits on the panel. " + shownWithout);
        return std::nullopt;
    }
    if (!engine_.getOffsetXY(x, y, w, h, conf.alignHor, conf.alignVert)) {
        return std::nullopt;
    }
    return Rect{x, y, w, h};
}

std::optional<Rect> Checks::checkTextGeometry(const JsonNode& text, const GuiTextConf& conf) {
    if (conf.text.empty()) {
        return std::nullopt;
    }
    const std::string leftOut = "The screen is shown without its text.";
    if (conf.size < lcmgui::kMinFontSize || conf.size > lcmgui::kMaxFontSize) {
        warning(at(text, text.member(key::kSize) != nullptr ? key::kSize : key::kStr),
                "font size " + std::to_string(conf.size) + " is outside " +
                    std::to_string(lcmgui::kMinFontSize) + ".." +
                    std::to_string(lcmgui::kMaxFontSize) + ": the daemon leaves the text out",
                (text.member(key::kSize) == nullptr ? "Without \"size\" the size is 0. " : "") +
                    leftOut);
        return std::nullopt;
    }
    unsigned lineHeight = 0;
    if (!fontsReady_ || !fonts_.maxLineHeight(conf.size, lineHeight)) {
        return std::nullopt;
    }
    if (lineHeight > panelHeight()) {
        warning(at(text, key::kSize),
                "a line of font size " + std::to_string(conf.size) + " is " +
                    std::to_string(lineHeight) + " pixels tall, more than the panel's " +
                    std::to_string(panelHeight()) + ": the daemon leaves the text out",
                "Use a smaller size. " + leftOut);
        return std::nullopt;
    }
    unsigned x = conf.x;
    unsigned y = conf.y;
    if (x >= panelWidth() || y >= panelHeight()) {
        warning(at(text, x >= panelWidth() ? key::kX : key::kY),
                "the text position (" + std::to_string(x) + ", " + std::to_string(y) +
                    ") is off the panel " + panelSize() + ": the daemon leaves the text out",
                "Positions count from the panel's top left corner, 0 .. width - 1 and "
                "0 .. height - 1. " +
                    leftOut);
        return std::nullopt;
    }
    const unsigned availW = panelWidth() - x;
    const unsigned availH = panelHeight() - y;
    unsigned w = 0;
    unsigned h = 0;
    if (!fonts_.lineRender(conf.text, conf.size, nullptr, availW, lineHeight, availW, true, w, h)) {
        warning(at(text, key::kStr), "the text cannot be measured: the daemon leaves it out",
                leftOut);
        return std::nullopt;
    }
    if (h > availH) {
        warning(at(text, text.member(key::kY) != nullptr ? key::kY : key::kStr),
                "a line " + std::to_string(h) +
                    " pixels tall does not fit below y = " + std::to_string(y) + " (" +
                    std::to_string(availH) + " pixels are left): the daemon leaves the text out",
                "The space below y must hold a whole line, whatever the vertical alignment. " +
                    leftOut);
        return std::nullopt;
    }
    constexpr unsigned kUnbounded = 1U << 20;
    unsigned fullW = 0;
    unsigned fullH = 0;
    if (fonts_.lineRender(conf.text, conf.size, nullptr, kUnbounded, lineHeight, kUnbounded, true,
                          fullW, fullH) &&
        fullW > availW) {
        warning(at(text, key::kStr),
                "the text is " + std::to_string(fullW) + " pixels wide, but only " +
                    std::to_string(availW) + " fit right of x = " + std::to_string(x) +
                    ": it is cut at the panel's right edge",
                "A line is never wrapped. Use a smaller size or a shorter text; with \"center\", "
                "x = 0 leaves the panel's whole width.");
    }
    w = std::min(w, availW);
    if (!engine_.getOffsetXY(x, y, w, h, conf.alignHor, conf.alignVert)) {
        return std::nullopt;
    }
    return Rect{x, y, w, h};
}

void Checks::checkOverlap(const JsonNode& screen, const Rect& text, const Rect& image,
                          const GuiImgConf& img) {
    const unsigned left = std::max(text.x, image.x);
    const unsigned top = std::max(text.y, image.y);
    const unsigned right = std::min(text.x + text.w, image.x + image.w);
    const unsigned bottom = std::min(text.y + text.h, image.y + image.h);
    if (left >= right || top >= bottom) {
        return;
    }
    const auto box = [](const Rect& r) {
        return std::to_string(r.w) + "x" + std::to_string(r.h) + " at (" + std::to_string(r.x) +
               ", " + std::to_string(r.y) + ")";
    };
    const JsonMember* m = screen.member(key::kImg);
    warning(m != nullptr ? m->keyOffset : screen.offset,
            "the text (" + box(text) + ") and the image (" + box(image) +
                ") overlap: their pixels add up there",
            std::string("Where both have colour they add up and saturate towards white.") +
                (img.animation != lcmgui::kAnimStatic
                     ? " The animation clears the image's rectangle at its first step, so the "
                       "text inside it disappears then."
                     : ""));
}

}  // namespace

std::vector<Finding> checkScreensFile(const std::string& path, const CheckOptions& options) {
    std::string text;
    std::string error;
    if (!readScreensFile(path, text, error)) {
        return {{path, 0, 0, true, error, "Give the path of a screens file of at most 16 MiB."}};
    }
    Checks checks(path, text, options);
    return checks.run();
}

int checkStatus(const std::vector<Finding>& findings) {
    if (std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.error; })) {
        return 2;
    }
    return findings.empty() ? 0 : 1;
}

std::string formatFindings(const std::vector<Finding>& findings) {
    std::ostringstream out;
    for (const Finding& f : findings) {
        out << f.file;
        if (f.line != 0) {
            out << ':' << f.line << ':' << f.column;
        }
        out << ": " << (f.error ? "error" : "warning") << ": " << f.message << '\n'
            << "    hint: " << f.hint << '\n';
    }
    return out.str();
}

std::string formatFindingsJson(const std::vector<Finding>& findings) {
    nlohmann::json list = nlohmann::json::array();
    for (const Finding& f : findings) {
        list.push_back({{"file", f.file},
                        {"line", f.line},
                        {"column", f.column},
                        {"severity", f.error ? "error" : "warning"},
                        {"message", f.message},
                        {"hint", f.hint}});
    }
    // Replaced rather than refused: messages quote the file, which need not be UTF-8.
    return list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace dravik::preview
