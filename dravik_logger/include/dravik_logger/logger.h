#pragma once

#include <functional>
#include <string>

// One log record. Levels are syslog severities (3 error, 4 warning, 6 info,
// 7 debug); `errnum` is errno after a failed system call or 0; `reserved` is 0.
// Records go to standard error, one line each, or natively to the systemd
// journal when standard error is connected to it.
void logInternal(const char* tag, const char* sourceFile, const char* function, int line, int level,
                 int errnum, int reserved, const char* format, ...)
    __attribute__((format(printf, 8, 9)));

// Ends the process abnormally (abort), so that the failure leaves a crash record.
void forceCrash();

// The daemon's logging call: tag "dravik_lcm_gui", this source file, function and line.
#define DRAVIK_LOG(level, errnum, ...) \
    logInternal("dravik_lcm_gui", __FILE__, __func__, __LINE__, (level), (errnum), 0, __VA_ARGS__)

namespace dravik::logger {

enum Level { kError = 3, kWarning = 4, kInfo = 6, kDebug = 7 };

struct Record {
    std::string tag;
    std::string sourceFile;
    std::string function;
    int line = 0;
    int level = 0;
    int errnum = 0;
    std::string message;
};

// The text of `text` as it is written on one line of standard error: line
// breaks (\n, \r), other control characters, DEL, C1 controls and bytes that
// are not valid UTF-8 become escapes (\n, \r, \xHH); tabs, printable ASCII
// and valid UTF-8 stay as they are. Output beyond `limit` bytes is cut, never
// inside an escape or a character, and marked "... [cut: N bytes]" with the
// size of the whole text.
std::string oneLine(const std::string& text, size_t limit);

// Observer that sees every record after it is written. Tests use it to check
// message texts and levels; nullptr removes it.
using Hook = std::function<void(const Record&)>;
void setHook(Hook hook);

// Receives every record instead of standard error (or the journal) while it is
// set; nullptr writes records there again. The hook sees them either way.
void setSink(Hook sink);

}  // namespace dravik::logger
