#include "tool_support.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fakefb {

bool readWholeFile(const std::string& path, std::string& data) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

bool storePath(char (&field)[kPathMax], const std::string& path) {
    if (path.size() >= kPathMax) {
        return false;
    }
    memcpy(field, path.c_str(), path.size() + 1);
    return true;
}

bool writeDescFile(const PanelDesc& panelDesc, const std::string& path) {
    char text[kDescTextMax];
    const int n = formatDesc(panelDesc, text, sizeof text);
    if (n < 0) {
        return false;
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text, n);
    return static_cast<bool>(out.flush());
}

std::string joinedWithVariable(const char* name, const std::string& value, Join where) {
    const char* old = getenv(name);
    if (old == nullptr || old[0] == '\0') {
        return value;
    }
    return where == Join::prepend ? value + ":" + old : std::string(old) + ":" + value;
}

void joinIntoVariable(const char* name, const std::string& value, Join where) {
    const std::string joined = joinedWithVariable(name, value, where);
    (void)setenv(name, joined.c_str(), 1);  // only fails on ENOMEM
}

std::vector<std::string> emulatorWords(const char* emulator,
                                       const std::vector<std::string>& variables) {
    std::vector<std::string> words;
    std::istringstream split(emulator);
    for (std::string word; split >> word;) {
        words.push_back(word);
    }
    for (const std::string& variable : variables) {
        words.push_back("-E");
        words.push_back(variable);
    }
    return words;
}

std::vector<char*> execArguments(std::vector<std::string>& words, const std::vector<char*>& rest) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + rest.size());
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    return arguments;
}

}  // namespace fakefb
