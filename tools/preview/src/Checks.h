#pragma once

// The checks of a screens file, one family of rules in each source of the
// checker: reading the file and the daemon's verdict on it (CheckerFile.cpp),
// its keys and values (CheckerKeys.cpp), the limits of animations
// (CheckerAnimation.cpp), and where the elements land on the panel
// (CheckerGeometry.cpp). The rules themselves are the display engine's: the
// checker asks it and words its answers.

#include <optional>
#include <string>
#include <vector>

#include "GuiConfig.h"
#include "LcmGui.h"
#include "dravik_fontrenderer/FontRenderer.h"
#include "dravik_variant/variant.h"
#include "preview/Checker.h"
#include "preview/JsonPositions.h"

namespace dravik::preview::checker {

using lcmgui::GuiImgConf;
using lcmgui::GuiScreenDesc;
using lcmgui::GuiTextConf;
using variant::Variant;

inline std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

struct Rect {
    unsigned x = 0, y = 0, w = 0, h = 0;
};

// A list of the keys or words that the daemon knows, in its order.
class Words {
public:
    // Implicit: the engine's tables of keys and words are passed as they are.
    template <size_t N>
    Words(const char* const (&list)[N]) : list_(list), size_(N) {}
    const char* const* begin() const { return list_; }
    const char* const* end() const { return list_ + size_; }
    size_t size() const { return size_; }

private:
    const char* const* list_;
    size_t size_;
};

struct ElementRules;  // CheckerKeys.cpp

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
    void checkImgPath(const JsonNode& root);
    void checkRotation(const JsonNode& root);
    void checkBackLight(const JsonNode& root);
    void checkScreens(const JsonNode& screens, const Variant& variantRoot);
    void checkKeys(const JsonNode& object, Words known, const std::string& what);
    bool checkScreensList(const JsonNode& root, const JsonMember* screens);
    void checkScreen(size_t index, const JsonNode& screen, const GuiScreenDesc& desc);
    void checkName(size_t index, const JsonNode& screen);
    const JsonNode* element(const JsonNode& screen, const char* name, const char* missingMeans);
    void checkText(const JsonNode& text, const GuiTextConf& conf);
    void checkImgKeys(const JsonNode& img, const GuiImgConf& conf);
    bool checkContent(const JsonNode& element, const ElementRules& rules, bool shows);
    template <typename Conf>
    void checkPosition(const JsonNode& element, const Conf& conf);
    void checkTiming(const JsonNode& img, const GuiImgConf& conf);
    void checkIgnored(const JsonNode& object, Words keys, const std::string& why);
    const JsonMember* memberOfType(const JsonNode& object, const char* name,
                                   bool (JsonNode::*isType)() const, const std::string& mistyped,
                                   const std::string& hint);
    template <typename T>
    void checkInteger(const JsonNode& object, const char* name, T taken, const std::string& use);
    void checkWord(const JsonNode& object, const char* name, Words words,
                   const std::string& fallback);
    void checkAnimation(const JsonNode& img, const GuiImgConf& conf);
    std::optional<Rect> checkImage(const JsonNode& img, const GuiImgConf& conf);
    cv::Mat readImage(const JsonNode& img, const std::string& path);
    void warnOfImageFormat(size_t fileAt, const std::string& path, const cv::Mat& stored);
    std::optional<Rect> placeImage(const JsonNode& img, const GuiImgConf& conf,
                                   const std::string& path, const cv::Mat& colour);
    std::optional<Rect> checkTextGeometry(const JsonNode& text, const GuiTextConf& conf);
    bool checkFontSize(const JsonNode& text, const GuiTextConf& conf, unsigned& lineHeight);
    std::optional<Rect> placeText(const JsonNode& text, const GuiTextConf& conf,
                                  unsigned lineHeight);
    void checkCut(const JsonNode& text, const GuiTextConf& conf, unsigned lineHeight, unsigned x,
                  unsigned availW);
    void checkOverlap(const JsonNode& screen, const Rect& text, const Rect& image,
                      const GuiImgConf& img);

    size_t at(const JsonNode& object, const char* name) const {
        const JsonMember* m = object.member(name);
        return m != nullptr ? m->value.offset : object.offset;
    }
    // The screen: the panel as the file's "rotation" turns it.
    unsigned panelWidth() const { return engine_.screenWidth(); }
    unsigned panelHeight() const { return engine_.screenHeight(); }
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

}  // namespace dravik::preview::checker
