#include "dravik_logger/logger.h"

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

dravik::logger::Hook& hook() {
    static dravik::logger::Hook h;
    return h;
}

const char* levelName(int level) {
    static const char* const kNames[] = {"EMERG", "ALERT", "CRIT",   "ERROR",
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

std::string formatMessage(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    const int length = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string out;
    if (length > 0) {
        out.resize(static_cast<size_t>(length));
        (void)vsnprintf(out.data(), out.size() + 1, format, args);  // sized above
    }
    return out;
}

void writeJournal(const dravik::logger::Record& r) {
    const std::string errText = r.errnum ? std::string(": ") + strerror(r.errnum) : "";
    const int rc = sd_journal_send("MESSAGE=%s%s", r.message.c_str(), errText.c_str(),
                                   "PRIORITY=%d", r.level, "CODE_FILE=%s", r.sourceFile.c_str(),
                                   "CODE_LINE=%d", r.line, "CODE_FUNC=%s", r.function.c_str(),
                                   "ERRNO=%d", r.errnum, "SYSLOG_IDENTIFIER=%s", r.tag.c_str(),
                                   nullptr);
    if (rc < 0) {
        // The journal refused the record: keep it on standard error instead.
        fprintf(stderr, "<%d>%s: %s%s\n", r.level, r.tag.c_str(), r.message.c_str(),
                errText.c_str());
    }
}

void writeLine(const dravik::logger::Record& r) {
    timespec ts{};
    (void)clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm {};
    (void)localtime_r(&ts.tv_sec, &tm);
    char when[32];
    (void)strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm);

    // One fprintf per record keeps the line whole when several processes share stderr.
    if (r.errnum != 0) {
        fprintf(stderr, "%s.%03ld %-5s %s[%d] %s:%d %s: %s: %s (errno %d)\n", when,
                ts.tv_nsec / 1000000L, levelName(r.level), r.tag.c_str(), static_cast<int>(getpid()),
                baseName(r.sourceFile.c_str()), r.line, r.function.c_str(), r.message.c_str(),
                strerror(r.errnum), r.errnum);
    } else {
        fprintf(stderr, "%s.%03ld %-5s %s[%d] %s:%d %s: %s\n", when, ts.tv_nsec / 1000000L,
                levelName(r.level), r.tag.c_str(), static_cast<int>(getpid()),
                baseName(r.sourceFile.c_str()), r.line, r.function.c_str(), r.message.c_str());
    }
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
        r.message = formatMessage(format, args);
        va_end(args);
    }
    if (stderrIsJournal()) {
        writeJournal(r);
    } else {
        writeLine(r);
    }
    if (hook()) {
        hook()(r);
    }
    errno = savedErrno;
}

void forceCrash() { abort(); }

namespace dravik::logger {

void setHook(Hook h) { hook() = std::move(h); }

}  // namespace dravik::logger
