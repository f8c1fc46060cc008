#pragma once

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdarg>
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

}  // namespace dravik::utils

// Milliseconds of a monotonic clock (never steps back when the wall clock is set).
uint64_t nowMs();

// True when `path` names an existing file system entry: `resolved` receives its
// absolute path with every symbolic link, "." and ".." resolved; `isDirectory`
// tells whether it is a directory; `info`, when not null, receives its status.
bool resolvePath(const char* path, std::string& resolved, bool& isDirectory, struct stat* info);
