// What the simulated DRM device needs of the preload library around it: the C
// library's own entry points, never the wrapped ones (those would come back into
// the device while it holds its lock), and the library's one way of reporting.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace fakefb::host {

int open(const char* path, int flags, mode_t mode = 0);
int close(int fd);
int fstat(int fd, struct stat* st);

// Prints "fakefb: ..." on stderr; the same message twice in a row only once.
void report(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Owns a descriptor opened with host::open.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            (void)close(fd_);  // nothing useful to do about a failed close here
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

}  // namespace fakefb::host
