#pragma once

// Header-only, so that the simulated panel's preload library can use it
// without linking anything into the programs it is loaded into.

#include <unistd.h>

#include <cerrno>

namespace dravik::utils {

// Owns one file descriptor: closes it when destroyed or reset, moves but never
// copies. A negative value means none. The close is a tidy-up, never a check:
// its result is ignored and errno is left as it was, so that a caller reporting
// an earlier failure still sees that failure's errno.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }

    // Hands the descriptor over to the caller; this object then owns none.
    int release() noexcept {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

    // Closes the descriptor owned so far and takes `fd` instead.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            const int savedErrno = errno;
            (void)::close(fd_);
            errno = savedErrno;
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace dravik::utils
