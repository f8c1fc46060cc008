#include <algorithm>
#include <cstring>

#include "Checks.h"
#include "GuiConfig.h"
#include "GuiLimits.h"
#include "LcmGui.h"
#include "dravik_utils/utils.h"
#include "preview/Checker.h"
#include "preview/Renderer.h"

// Reading the file as the daemon reads it, its JSON, and the daemon's own
// verdict on it.

namespace dravik::preview {

namespace {

// The file's bytes, like the daemon reads them: a regular file of at most
// lcmgui::kMaxScreensFileBytes bytes. False with the reason in `error`.
bool readScreensFile(const std::string& path, std::string& text, std::string& error) {
    utils::ReadError failure;
    if (utils::readFileBounded(path, lcmgui::kMaxScreensFileBytes, text, failure)) {
        return true;
    }
    switch (failure.failure) {
        case utils::ReadFailure::kTooLarge:
            error =
                "the file is larger than the daemon reads (" + lcmgui::screensFileLimitText() + ")";
            break;
        case utils::ReadFailure::kStatus:
        case utils::ReadFailure::kNotRegular:
            error = "not a regular file";
            break;
        default:
            error = std::string("cannot read the file: ") + std::strerror(failure.errnum);
            break;
    }
    return false;
}

}  // namespace

namespace checker {

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

}  // namespace checker

std::vector<Finding> checkScreensFile(const std::string& path, const CheckOptions& options) {
    std::string text;
    std::string error;
    if (!readScreensFile(path, text, error)) {
        return {
            {path, 0, 0, true, error,
             "Give the path of a screens file of at most " + lcmgui::screensFileLimitText() + "."}};
    }
    checker::Checks checks(path, text, options);
    return checks.run();
}

}  // namespace dravik::preview
