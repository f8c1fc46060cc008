#pragma once

#include <string>
#include <vector>

#include "GuiConfig.h"
#include "preview/Panel.h"

namespace dravik::preview {

// One problem of a screens file, placed in it.
struct Finding {
    std::string file;
    size_t line = 0;  // 1-based; 0 when the file could not be read at all
    size_t column = 0;
    bool error = false;  // the daemon refuses the file; otherwise a warning
    std::string message;
    std::string hint;
};

struct CheckOptions {
    PanelFormat panel;
    std::string root;  // image directories looked up below it; empty: the real ones
    // The panel's turn, whatever the file's "rotation" says; unset: the file's.
    int rotation = lcmgui::kRotationUnset;
};

// Checks the screens file at `path` against the panel and the daemon's rules,
// and returns every problem found, in the order of the file.
std::vector<Finding> checkScreensFile(const std::string& path, const CheckOptions& options);

// 0 when there is no problem, 1 when there are only warnings, 2 with errors.
int checkStatus(const std::vector<Finding>& findings);

// "FILE:LINE:COLUMN: error|warning: message" and an indented hint line per problem.
std::string formatFindings(const std::vector<Finding>& findings);
// A JSON array of {file, line, column, severity, message, hint}.
std::string formatFindingsJson(const std::vector<Finding>& findings);

}  // namespace dravik::preview
