#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "dravik_logger/logger.h"

namespace dravik::logger {

// Collects the records written while it lives: tests check them, and tools
// that run the display engine report them in their own words.
class LogCapture {
public:
    // kQuiet keeps the records off standard error and the journal while the
    // capture lives; kWritten writes them as usual.
    enum Output { kWritten, kQuiet };

    explicit LogCapture(Output output = kWritten) : quiet_(output == kQuiet) {
        setHook([this](const Record& r) { records.push_back(r); });
        if (quiet_) {
            setSink([](const Record& /*record*/) {});  // the hook above keeps it
        }
    }
    ~LogCapture() {
        if (quiet_) {
            setSink(nullptr);
        }
        setHook(nullptr);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // True when a record with exactly this level and message was written.
    bool has(int level, const std::string& message) const {
        return std::any_of(records.begin(), records.end(), [&](const Record& r) {
            return r.level == level && r.message == message;
        });
    }
    // The first record with this message, or nullptr.
    const Record* find(const std::string& message) const {
        for (const auto& r : records) {
            if (r.message == message) {
                return &r;
            }
        }
        return nullptr;
    }
    void clear() { records.clear(); }

    std::vector<Record> records;

private:
    bool quiet_;
};

}  // namespace dravik::logger
