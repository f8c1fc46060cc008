#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "preview/Checker.h"

// The checker's verdict and its two ways of printing the findings.

namespace dravik::preview {

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
