#include "dravik_logger/logger.h"

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "dravik_utils/utf8.h"
#include "dravik_utils/utils.h"

namespace {

dravik::logger::Hook& hook() {
    static dravik::logger::Hook h;
    return h;
}

dravik::logger::Hook& sink() {
    static dravik::logger::Hook s;
    return s;
}

const char* levelName(int level) {
    static const char* const kNames[] = {"EMERG", "ALERT",  "CRIT", "ERROR",
                                         "WARN",  "NOTICE", "INFO", "DEBUG"};
    return (level >= 0 && level <= 7) ? kNames[level] : "LOG";
}

const char* baseName(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

// systemd sets JOURNAL_STREAM to "device:inode" of the stream it connected to
// standard error; only when that stream is still fd 2 do records go to the
// journal natively (a redirected stderr keeps getting plain lines).
bool stderrIsJournal() {
    static const bool isJournal = [] {
        const char* env = getenv("JOURNAL_STREAM");
        if (env == nullptr) {
            return false;
        }
        uintmax_t dev = 0;
        uintmax_t ino = 0;
        if (sscanf(env, "%ju:%ju", &dev, &ino) != 2) {
            return false;
        }
        struct stat st {};
        return fstat(STDERR_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
    }();
    return isJournal;
}

void writeJournal(const dravik::logger::Record& r) {
    const std::string errText = r.errnum ? std::string(": ") + strerror(r.errnum) : "";
    const int rc = sd_journal_send(
        "MESSAGE=%s%s", r.message.c_str(), errText.c_str(), "PRIORITY=%d", r.level, "CODE_FILE=%s",
        r.sourceFile.c_str(), "CODE_LINE=%d", r.line, "CODE_FUNC=%s", r.function.c_str(),
        "ERRNO=%d", r.errnum, "SYSLOG_IDENTIFIER=%s", r.tag.c_str(), nullptr);
    if (rc < 0) {
        // The journal refused the record: keep it on standard error instead.
        fprintf(stderr, "<%d>%s: %s%s\n", r.level, r.tag.c_str(), r.message.c_str(),
                errText.c_str());
    }
}

// A record on standard error is one line of at most kMaxLine bytes, whatever
// its message holds: a caller's text (a screen name from the bus, say) must not
// be able to start a record of its own, nor drive the terminal that shows it.
constexpr size_t kMaxLine = 4096;
constexpr size_t kCutMarkerRoom = 48;

// Length of the valid UTF-8 sequence at `text[pos]`, 0 if the bytes there are
// not one. C1 controls (U+0080 .. U+009F) count as not valid: they are escaped.
size_t utf8Length(const std::string& text, size_t pos) {
    size_t end = pos;
    uint32_t cp = 0;
    const bool valid = dravik::utils::decodeUtf8(text, end, cp);
    return valid && !(cp >= 0x80 && cp <= 0x9F) ? end - pos : 0;
}

// Appends byte `c` in its escaped form.
void appendEscaped(std::string& out, unsigned char c) {
    switch (c) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        default: {
            static const char kHex[] = "0123456789abcdef";
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
        }
    }
}

}  // namespace

namespace dravik::logger {

std::string oneLine(const std::string& text, size_t limit) {
    std::string out;
    out.reserve(std::min(text.size(), limit) + 8);
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t size = text.size();
    size_t i = 0;
    std::string piece;
    while (i < size) {
        piece.clear();
        const unsigned char c = p[i];
        size_t used = 1;
        if (c == '\t' || (c >= 0x20 && c < 0x7F)) {
            piece += static_cast<char>(c);
        } else if (c < 0x80) {
            appendEscaped(piece, c);  // other control characters and DEL
        } else if (const size_t length = utf8Length(text, i)) {
            piece.append(text, i, length);
            used = length;
        } else {
            appendEscaped(piece, c);  // invalid UTF-8 or a C1 control, byte by byte
        }
        if (out.size() + piece.size() > limit) {
            out += "... [cut: " + std::to_string(size) + " bytes]";
            return out;
        }
        out += piece;
        i += used;
    }
    return out;
}

}  // namespace dravik::logger

namespace {

void writeLine(const dravik::logger::Record& r) {
    timespec ts{};
    (void)clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    (void)localtime_r(&ts.tv_sec, &tm);
    char when[32];
    (void)strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm);

    char prefix[512];
    // A prefix longer than its buffer (an absurd function name) is cut.
    (void)snprintf(prefix, sizeof prefix, "%s.%03ld %-5s %s[%d] %s:%d %s: ", when,
                   ts.tv_nsec / 1000000L, levelName(r.level), r.tag.c_str(),
                   static_cast<int>(getpid()), baseName(r.sourceFile.c_str()), r.line,
                   r.function.c_str());
    std::string line = dravik::logger::oneLine(prefix, sizeof prefix);
    std::string message = r.message;
    if (r.errnum != 0) {
        message +=
            std::string(": ") + strerror(r.errnum) + " (errno " + std::to_string(r.errnum) + ")";
    }
    const size_t room =
        line.size() + kCutMarkerRoom < kMaxLine ? kMaxLine - line.size() - kCutMarkerRoom : 0;
    line += dravik::logger::oneLine(message, room);
    line += '\n';
    // One write per record keeps the line whole when several processes share stderr.
    (void)fwrite(line.data(), 1, line.size(), stderr);
    fflush(stderr);
}

}  // namespace

void logInternal(const char* tag, const char* sourceFile, const char* function, int line, int level,
                 int errnum, int reserved, const char* format, ...) {
    (void)reserved;  // always 0: kept for the platform's call signature
    const int savedErrno = errno;
    dravik::logger::Record r;
    r.tag = tag ? tag : "";
    r.sourceFile = sourceFile ? sourceFile : "";
    r.function = function ? function : "";
    r.line = line;
    r.level = level;
    r.errnum = errnum;
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        r.message = dravik::utils::vformat(format, args);
        va_end(args);
    }
    if (sink()) {
        sink()(r);
    } else if (stderrIsJournal()) {
        writeJournal(r);
    } else {
        writeLine(r);
    }
    if (hook()) {
        hook()(r);
    }
    errno = savedErrno;
}

void forceCrash() {
    abort();
}

namespace dravik::logger {

void setHook(Hook h) {
    hook() = std::move(h);
}

void setSink(Hook s) {
    sink() = std::move(s);
}

}  // namespace dravik::logger
