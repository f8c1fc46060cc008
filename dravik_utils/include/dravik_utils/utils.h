#pragma once

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace dravik::utils {

// printf-style formatting into a new string of whatever length is needed.
std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same for an argument list that the caller has started (and ends).
std::string vformat(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

// Removes leading and trailing blanks, tabs, carriage returns and line feeds in place.
void trim(std::string& s);

// Current wall-clock time (seconds and microseconds since the Unix epoch).
timeval now();

// Source of nowMs(). Tests install their own to drive animations without sleeping.
using MsClock = uint64_t (*)();

// Installs `clock` as the source of nowMs() and returns the previous source;
// nullptr restores the monotonic clock.
MsClock setMsClock(MsClock clock);

// Why readFileBounded refused a file.
enum class ReadFailure : uint8_t {
    kNone,
    kOpen,        // the file could not be opened (`errnum`)
    kStatus,      // its status could not be read (`errnum`)
    kNotRegular,  // a directory, FIFO, socket or device (`mode`)
    kTooLarge,    // more than the limit, by its size or by what was read
    kRead,        // a read failed (`errnum`)
};

struct ReadError {
    ReadFailure failure = ReadFailure::kNone;
    int errnum = 0;
    mode_t mode = 0;
    // The reason in words: "cannot open file: <system text>", "is a directory",
    // "file is larger than <limit> bytes", ...
    std::string message;
};

// Reads the whole regular file `path` into `out`, refusing anything larger
// than `maxBytes` before reading it (and a file that grows past it while it
// is read). The file is opened without blocking, so that a FIFO under the
// name (whose open would wait for a writer) or a device is refused at once
// instead of holding the caller. False with the reason in `error`.
bool readFileBounded(const std::string& path, size_t maxBytes, std::string& out, ReadError& error);

}  // namespace dravik::utils

// Milliseconds of a monotonic clock (never steps back when the wall clock is set).
uint64_t nowMs();

// True when `path` names an existing file system entry: `resolved` receives its
// absolute path with every symbolic link, "." and ".." resolved; `isDirectory`
// tells whether it is a directory; `info`, when not null, receives its status.
bool resolvePath(const char* path, std::string& resolved, bool& isDirectory, struct stat* info);
