#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "dravik_test_support/temp_dir.h"
#include "dravik_utils/utils.h"

namespace {

using dravik::testsupport::TempDir;
using dravik::utils::ReadError;
using dravik::utils::ReadFailure;
using dravik::utils::readFileBounded;

constexpr size_t kLimit = 100;

class ReadBounded : public ::testing::Test {
protected:
    TempDir dir_{"dravik_read_bounded_"};
};

TEST_F(ReadBounded, reads_a_file_of_exactly_the_limit) {
    const std::string bytes(kLimit, 'a');
    std::string out = "left over";
    ReadError error;
    ASSERT_TRUE(readFileBounded(dir_.write("limit", bytes), kLimit, out, error)) << error.message;
    EXPECT_EQ(out, bytes);
    EXPECT_EQ(error.failure, ReadFailure::kNone);
    EXPECT_EQ(error.message, "");
}

TEST_F(ReadBounded, reads_an_empty_file) {
    std::string out = "left over";
    ReadError error;
    ASSERT_TRUE(readFileBounded(dir_.write("empty", ""), kLimit, out, error)) << error.message;
    EXPECT_EQ(out, "");
}

TEST_F(ReadBounded, refuses_one_byte_over_the_limit) {
    std::string out;
    ReadError error;
    EXPECT_FALSE(
        readFileBounded(dir_.write("over", std::string(kLimit + 1, 'a')), kLimit, out, error));
    EXPECT_EQ(error.failure, ReadFailure::kTooLarge);
    EXPECT_EQ(error.message, "file is larger than 100 bytes");
}

TEST_F(ReadBounded, refuses_a_missing_file_with_the_system_reason) {
    std::string out;
    ReadError error;
    EXPECT_FALSE(readFileBounded(dir_.file("absent"), kLimit, out, error));
    EXPECT_EQ(error.failure, ReadFailure::kOpen);
    EXPECT_EQ(error.errnum, ENOENT);
    EXPECT_EQ(error.message, "cannot open file: No such file or directory");
}

// Nothing but a regular file is read, and nothing else holds the caller: the
// FIFO has no writer, so a blocking open would wait for ever.
TEST_F(ReadBounded, refuses_anything_but_a_regular_file_at_once) {
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const struct {
        std::string path;
        mode_t type;
        const char* message;
    } rows[] = {
        {dir_.path(), S_IFDIR, "is a directory"},
        {fifo, S_IFIFO, "is a FIFO"},
        {"/dev/zero", S_IFCHR, "is a character device"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        std::string out;
        ReadError error;
        EXPECT_FALSE(readFileBounded(row.path, kLimit, out, error));
        EXPECT_EQ(error.failure, ReadFailure::kNotRegular);
        EXPECT_EQ(error.mode & S_IFMT, row.type);
        EXPECT_EQ(error.message, row.message);
    }
}

TEST_F(ReadBounded, a_later_success_clears_the_earlier_failure) {
    std::string out;
    ReadError error;
    EXPECT_FALSE(readFileBounded(dir_.file("absent"), kLimit, out, error));
    ASSERT_TRUE(readFileBounded(dir_.write("small", "{}"), kLimit, out, error));
    EXPECT_EQ(error.failure, ReadFailure::kNone);
    EXPECT_EQ(error.errnum, 0);
    EXPECT_EQ(error.message, "");
    EXPECT_EQ(out, "{}");
}

}  // namespace
