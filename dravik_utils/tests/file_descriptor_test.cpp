#include "dravik_utils/file_descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

using dravik::utils::FileDescriptor;

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

int openDevNull() {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    return fd;
}

TEST(FileDescriptor, closes_what_it_owns_when_destroyed) {
    int raw = -1;
    {
        const FileDescriptor fd(openDevNull());
        raw = fd.get();
        EXPECT_TRUE(fd.valid());
        EXPECT_TRUE(isOpen(raw));
    }
    EXPECT_FALSE(isOpen(raw));
}

TEST(FileDescriptor, owns_none_by_default_or_for_a_failed_open) {
    const FileDescriptor empty;
    EXPECT_FALSE(empty.valid());
    EXPECT_EQ(empty.get(), -1);
    const FileDescriptor failed(open("/nonexistent/dir/file", O_RDONLY));
    EXPECT_FALSE(failed.valid());
}

TEST(FileDescriptor, a_move_hands_the_descriptor_over) {
    FileDescriptor first(openDevNull());
    const int raw = first.get();
    FileDescriptor second(std::move(first));
    EXPECT_EQ(second.get(), raw);
    EXPECT_FALSE(first.valid());  // NOLINT: a moved-from owner holds none

    FileDescriptor third(openDevNull());
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_EQ(third.get(), raw);
    EXPECT_FALSE(isOpen(replaced)) << "the descriptor held before the assignment is closed";
    EXPECT_TRUE(isOpen(raw));
}

TEST(FileDescriptor, release_gives_up_ownership_without_closing) {
    int raw = -1;
    {
        FileDescriptor fd(openDevNull());
        raw = fd.release();
        EXPECT_FALSE(fd.valid());
    }
    EXPECT_TRUE(isOpen(raw));
    EXPECT_EQ(close(raw), 0);
}

TEST(FileDescriptor, reset_closes_the_old_descriptor_and_keeps_errno) {
    FileDescriptor fd(openDevNull());
    const int old = fd.get();
    const int next = openDevNull();
    errno = ENOENT;
    fd.reset(next);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(isOpen(old));
    EXPECT_EQ(fd.get(), next);
    fd.reset();
    EXPECT_FALSE(isOpen(next));
    EXPECT_FALSE(fd.valid());
}

}  // namespace
