#include "dravik_utils/utils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <string>

#include "dravik_test_support/temp_dir.h"
#include "dravik_utils/utf8.h"

namespace {

using dravik::testsupport::TempDir;
using dravik::utils::format;
using dravik::utils::trim;

TEST(format, formats_like_printf) {
    EXPECT_EQ(format("%d", 127), "127");
    EXPECT_EQ(format("dravik_lcm_gui_sysid_%04x.json", 0x1A2u), "dravik_lcm_gui_sysid_01a2.json");
    EXPECT_EQ(format("dravik_lcm_gui_sysid_%04x.json", 0x12345u),
              "dravik_lcm_gui_sysid_12345.json");
    EXPECT_EQ(format("%s", ""), "");
}

TEST(format, grows_to_any_length) {
    const std::string big(10000, 'x');
    EXPECT_EQ(format("<%s>", big.c_str()), "<" + big + ">");
}

// A caller with an argument list of its own, as the logger is.
std::string formatThrough(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string formatThrough(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string out = dravik::utils::vformat(fmt, args);
    va_end(args);
    return out;
}

TEST(vformat, formats_a_started_argument_list_of_any_length) {
    EXPECT_EQ(formatThrough("%s=%d", "brightness", -1), "brightness=-1");
    EXPECT_EQ(formatThrough("%s", ""), "");
    const std::string big(10000, 'y');
    EXPECT_EQ(formatThrough("[%s]", big.c_str()), "[" + big + "]");
}

TEST(trim, removes_surrounding_white_space_only) {
    struct Row {
        const char* in;
        const char* out;
    } rows[] = {
        {"255\n", "255"}, {" \t255 \r\n", "255"}, {"", ""},   {" \n\t\r", ""},
        {"a b", "a b"},   {"  a b  ", "a b"},     {"x", "x"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.in);
        std::string s = row.in;
        trim(s);
        EXPECT_EQ(s, row.out);
    }
}

TEST(now, is_close_to_the_wall_clock) {
    const timeval tv = dravik::utils::now();
    const time_t wall = time(nullptr);
    EXPECT_LE(std::labs(static_cast<long>(tv.tv_sec - wall)), 2);
    EXPECT_GE(tv.tv_usec, 0);
    EXPECT_LT(tv.tv_usec, 1000000);
}

uint64_t fakeTime = 0;
uint64_t fakeClock() {
    return fakeTime;
}

TEST(nowMs, is_monotonic) {
    const uint64_t a = nowMs();
    const uint64_t b = nowMs();
    EXPECT_LE(a, b);
}

TEST(nowMs, follows_an_installed_clock_until_restored) {
    fakeTime = 1234;
    auto previous = dravik::utils::setMsClock(fakeClock);
    EXPECT_EQ(nowMs(), 1234u);
    fakeTime = 99999;
    EXPECT_EQ(nowMs(), 99999u);
    dravik::utils::setMsClock(previous);
    EXPECT_NE(nowMs(), 99999u);
}

TEST(resolvePath, resolves_existing_files_and_refuses_missing_ones) {
    const TempDir dir("dravik_utils_");
    const std::string file = dir.write("a.png", "x");
    ASSERT_EQ(symlink(file.c_str(), dir.file("link.png").c_str()), 0);

    std::string resolved;
    bool isDir = true;
    struct stat st {};
    EXPECT_TRUE(resolvePath((dir.path() + "/./sub/../a.png").c_str(), resolved, isDir,
                            nullptr) == false);  // "sub" does not exist
    EXPECT_TRUE(resolvePath(dir.file("link.png").c_str(), resolved, isDir, &st));
    EXPECT_EQ(resolved, file);
    EXPECT_FALSE(isDir);
    EXPECT_EQ(st.st_size, 1);
    EXPECT_TRUE(resolvePath(dir.path().c_str(), resolved, isDir, nullptr));
    EXPECT_TRUE(isDir);
    EXPECT_FALSE(resolvePath(dir.file("missing.png").c_str(), resolved, isDir, nullptr));
    EXPECT_FALSE(resolvePath("", resolved, isDir, nullptr));
    EXPECT_FALSE(resolvePath(nullptr, resolved, isDir, nullptr));
}

TEST(decodeUtf8, well_formed_sequences_of_one_to_four_bytes_decode) {
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const uint32_t expected[] = {0x61, 0xE9, 0x20AC, 0x1F600};
    std::size_t pos = 0;
    for (const uint32_t want : expected) {
        uint32_t cp = 0;
        ASSERT_TRUE(dravik::utils::decodeUtf8(text, pos, cp));
        EXPECT_EQ(cp, want);
    }
    EXPECT_EQ(pos, text.size());
}

TEST(decodeUtf8, malformed_sequences_fail_and_skip_what_cannot_continue) {
    struct Row {
        const char* bytes;
        std::size_t skipped;
    } rows[] = {
        {"\xC0\xAF", 1},          // overlong lead
        {"\xE0\x80\x80", 1},      // overlong three-byte form
        {"\xED\xA0\x80", 1},      // surrogate
        {"\xF4\x90\x80\x80", 1},  // above U+10FFFF
        {"\xE2\x82", 2},          // cut short
        {"\xE2\x82x", 2},         // broken by an ASCII byte
        {"\x80", 1},              // lone continuation byte
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.bytes);
        std::size_t pos = 0;
        uint32_t cp = 0;
        EXPECT_FALSE(dravik::utils::decodeUtf8(row.bytes, pos, cp));
        EXPECT_EQ(pos, row.skipped);
    }
}

}  // namespace
