#include "dravik_utils/utils.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace dravik::utils {
namespace {

uint64_t monotonicMs() {
    timespec ts{};
    (void)clock_gettime(CLOCK_MONOTONIC, &ts);  // cannot fail for CLOCK_MONOTONIC
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

MsClock gMsClock = monotonicMs;

}  // namespace

std::string vformat(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    // The caller has started `args`; the analyzer cannot see that.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    const int length = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string out;
    if (length > 0) {
        out.resize(static_cast<size_t>(length));
        (void)vsnprintf(out.data(), out.size() + 1, format, args);  // length measured above
    }
    return out;
}

std::string format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string out = vformat(format, args);
    va_end(args);
    return out;
}

void trim(std::string& s) {
    static constexpr const char* kBlank = " \t\r\n";
    const auto last = s.find_last_not_of(kBlank);
    if (last == std::string::npos) {
        s.clear();
        return;
    }
    s.erase(last + 1);
    s.erase(0, s.find_first_not_of(kBlank));
}

timeval now() {
    timeval tv{};
    (void)gettimeofday(&tv, nullptr);  // cannot fail with a valid pointer
    return tv;
}

MsClock setMsClock(MsClock clock) {
    MsClock previous = gMsClock;
    gMsClock = clock ? clock : monotonicMs;
    return previous;
}

}  // namespace dravik::utils

uint64_t nowMs() {
    return dravik::utils::gMsClock();
}

bool resolvePath(const char* path, std::string& resolved, bool& isDirectory, struct stat* info) {
    if (path == nullptr || *path == '\0') {
        return false;
    }
    char buffer[PATH_MAX];
    if (realpath(path, buffer) == nullptr) {
        return false;
    }
    struct stat st {};
    if (stat(buffer, &st) != 0) {
        return false;
    }
    resolved = buffer;
    isDirectory = S_ISDIR(st.st_mode);
    if (info != nullptr) {
        *info = st;
    }
    return true;
}
