#pragma once

// Fixtures of the tests of command lines: an argv to hand to a parser, and
// tables of one text in and the message or value expected of it. Header-only,
// so that the library itself needs no GoogleTest.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace dravik::testsupport {

// argv as main receives it: `program`, then `words`, then a null.
class Argv {
public:
    Argv(const char* program, const std::vector<const char*>& words) : words_{program} {
        words_.insert(words_.end(), words.begin(), words.end());
        for (std::string& word : words_) {
            pointers_.push_back(word.data());
            constPointers_.push_back(word.c_str());
        }
        pointers_.push_back(nullptr);
        constPointers_.push_back(nullptr);
    }
    Argv(const Argv&) = delete;
    Argv& operator=(const Argv&) = delete;

    int argc() const { return static_cast<int>(words_.size()); }
    char** argv() { return pointers_.data(); }
    const char** constArgv() { return constPointers_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> pointers_;
    std::vector<const char*> constPointers_;
};

// One row of a table-driven test: a text given, and what is expected of it.
struct TextCase {
    const char* given;
    const char* expected;
};

// check(given, expected) for every row, each failure naming the text given.
template <std::size_t N, typename Check>
void forEachCase(const TextCase (&rows)[N], Check check) {
    for (const TextCase& row : rows) {
        SCOPED_TRACE(row.given);
        check(row.given, row.expected);
    }
}

}  // namespace dravik::testsupport
