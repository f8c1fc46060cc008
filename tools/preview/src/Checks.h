#pragma once

// The checks of a screens file, shared by the sources of the checker: the file
// and its screens (Checker.cpp), and where the elements land on the panel
// (CheckerGeometry.cpp).

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
