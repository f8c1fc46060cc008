#include "dravik_utils/utils.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "dravik_utils/file_descriptor.h"

namespace dravik::utils {
namespace {

uint64_t monotonicMs() {
    timespec ts{};
    (void)clock_gettime(CLOCK_MONOTONIC, &ts);  // cannot fail for CLOCK_MONOTONIC
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

MsClock gMsClock = monotonicMs;

// What a file that is not a regular file is, for the refusal's message.
const char* kindOf(mode_t mode) {
    struct Kind {
        mode_t type;
        const char* what;
    };
    static const Kind kKinds[] = {
        {S_IFDIR, "is a directory"},    {S_IFIFO, "is a FIFO"},
        {S_IFSOCK, "is a socket"},      {S_IFCHR, "is a character device"},
        {S_IFBLK, "is a block device"},
    };
    for (const Kind& kind : kKinds) {
        if ((mode & S_IFMT) == kind.type) {
            return kind.what;
        }
    }
    return "is not a regular file";
}

bool refuse(ReadError& error, ReadFailure failure, int errnum, std::string message) {
    error.failure = failure;
    error.errnum = errnum;
    error.message = std::move(message);
    return false;
}

bool refuseForErrno(ReadError& error, ReadFailure failure, const char* what) {
    const int errnum = errno;
    return refuse(error, failure, errnum, std::string(what) + ": " + std::strerror(errnum));
}

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

bool readFileBounded(const std::string& path, size_t maxBytes, std::string& out, ReadError& error) {
    error = ReadError{};
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        return refuseForErrno(error, ReadFailure::kOpen, "cannot open file");
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) {
        return refuseForErrno(error, ReadFailure::kStatus, "cannot read file status");
    }
    if (!S_ISREG(info.st_mode)) {
        error.mode = info.st_mode;
        return refuse(error, ReadFailure::kNotRegular, 0, kindOf(info.st_mode));
    }
    const std::string tooLarge = "file is larger than " + std::to_string(maxBytes) + " bytes";
    if (static_cast<uint64_t>(info.st_size) > maxBytes) {
        return refuse(error, ReadFailure::kTooLarge, 0, tooLarge);
    }
    std::vector<char> buffer(size_t{64} * 1024);
    out.clear();
    for (;;) {
        const ssize_t got = ::read(fd.get(), buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return refuseForErrno(error, ReadFailure::kRead, "cannot read file");
        }
        if (got == 0) {
            return true;
        }
        if (out.size() + static_cast<size_t>(got) > maxBytes) {
            return refuse(error, ReadFailure::kTooLarge, 0, tooLarge);
        }
        out.append(buffer.data(), static_cast<size_t>(got));
    }
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
