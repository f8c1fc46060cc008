#include "dravik_logger/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "dravik_logger/log_capture.h"

namespace {

using dravik::logger::LogCapture;

// Runs `fn` with standard error redirected to a temporary file and returns what it wrote.
template <typename Fn>
std::string captureStderr(Fn fn) {
    char path[] = "/tmp/dravik_logger_XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    fn();
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string out;
    FILE* f = fopen(path, "r");
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        out.append(buf, n);
    }
    fclose(f);
    close(fd);
    unlink(path);
    return out;
}

TEST(logInternal, writes_one_line_with_level_tag_file_line_function_and_message) {
    unsetenv("JOURNAL_STREAM");
    const std::string out = captureStderr([] {
        logInternal("dravik_lcm_gui", "/src/dravik_lcm_gui/src/main.cpp", "main", 42, 3, 0, 0,
                    "Failed to initialize %s", "IPC");
    });
    EXPECT_NE(out.find("ERROR"), std::string::npos) << out;
    EXPECT_NE(out.find("dravik_lcm_gui["), std::string::npos) << out;
    EXPECT_NE(out.find("main.cpp:42 main: Failed to initialize IPC\n"), std::string::npos) << out;
    EXPECT_EQ(out.find('\n'), out.size() - 1) << "exactly one line";
}

TEST(logInternal, shows_the_system_text_for_a_non_zero_errnum) {
    const std::string out = captureStderr([] {
        logInternal("t", "f.cpp", "service", 1, 3, ENOSPC, 0,
                    "Failed to write '%s' to proc entry 0x%x", "127", 5);
    });
    EXPECT_NE(
        out.find("Failed to write '127' to proc entry 0x5: No space left on device (errno 28)"),
        std::string::npos)
        << out;
}

TEST(logInternal, names_each_level) {
    struct Row {
        int level;
        const char* name;
    } rows[] = {{3, "ERROR"}, {4, "WARN"}, {6, "INFO"}, {7, "DEBUG"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.level);
        const std::string out =
            captureStderr([&] { logInternal("t", "f", "fn", 1, row.level, 0, 0, "m"); });
        EXPECT_NE(out.find(row.name), std::string::npos) << out;
    }
}

TEST(logInternal, hands_every_record_to_the_hook) {
    LogCapture capture;
    (void)captureStderr([] {
        DRAVIK_LOG(7, 0, "Looking file '%s'...", "/etc/gui/a.json");
        DRAVIK_LOG(4, 0, "Screen[%d] with name '%s' already present, skipping", 1, "boot");
    });
    ASSERT_EQ(capture.records.size(), 2u);
    EXPECT_TRUE(capture.has(7, "Looking file '/etc/gui/a.json'..."));
    EXPECT_TRUE(capture.has(4, "Screen[1] with name 'boot' already present, skipping"));
    const auto& r = capture.records[0];
    EXPECT_EQ(r.tag, "dravik_lcm_gui");
    EXPECT_EQ(r.function, "operator()");  // logged from inside the lambda
    EXPECT_NE(r.sourceFile.find("dravik_logger/tests/logger_test"), std::string::npos);
    EXPECT_GT(r.line, 0);
}

TEST(logInternal, keeps_errno_unchanged) {
    LogCapture capture;
    errno = EAGAIN;
    (void)captureStderr([] { logInternal("t", "f", "fn", 1, 6, 0, 0, "%s", "x"); });
    EXPECT_EQ(errno, EAGAIN);
}

TEST(logInternal, keeps_long_messages_whole) {
    LogCapture capture;
    const std::string big(20000, 'y');
    (void)captureStderr([&] { logInternal("t", "f", "fn", 1, 6, 0, 0, "%s", big.c_str()); });
    ASSERT_EQ(capture.records.size(), 1u);
    EXPECT_EQ(capture.records[0].message, big);
}

TEST(logInternal, a_sink_takes_the_records_instead_of_standard_error) {
    unsetenv("JOURNAL_STREAM");
    std::vector<std::string> sunk;
    dravik::logger::setSink([&](const dravik::logger::Record& r) { sunk.push_back(r.message); });
    const std::string quiet = captureStderr([] { logInternal("t", "f", "fn", 1, 4, 0, 0, "one"); });
    dravik::logger::setSink(nullptr);
    const std::string written =
        captureStderr([] { logInternal("t", "f", "fn", 1, 4, 0, 0, "two"); });
    EXPECT_EQ(quiet, "");
    EXPECT_EQ(sunk, std::vector<std::string>{"one"});
    EXPECT_NE(written.find("fn: two\n"), std::string::npos) << written;
}

TEST(LogCapture, a_quiet_capture_collects_records_off_standard_error_while_it_lives) {
    unsetenv("JOURNAL_STREAM");
    std::string during;
    {
        LogCapture capture(LogCapture::kQuiet);
        during = captureStderr([] { logInternal("t", "f", "fn", 1, 3, 0, 0, "held back"); });
        EXPECT_TRUE(capture.has(3, "held back"));
    }
    const std::string after = captureStderr([] { logInternal("t", "f", "fn", 1, 3, 0, 0, "out"); });
    EXPECT_EQ(during, "");
    EXPECT_NE(after.find("fn: out\n"), std::string::npos) << after;
}

TEST(forceCrash, aborts_the_process) {
    EXPECT_DEATH(forceCrash(), "");
}

}  // namespace

namespace {

using dravik::logger::oneLine;

std::string lineOf(const std::string& message, int errnum = 0) {
    unsetenv("JOURNAL_STREAM");
    return captureStderr(
        [&] { logInternal("t", "f.cpp", "fn", 1, 4, errnum, 0, "%s", message.c_str()); });
}

TEST(logInternal, a_line_break_in_a_message_cannot_start_a_record) {
    LogCapture capture;
    const std::string forged =
        "boot\n2026-01-01 00:00:00.000 ERROR dravik_lcm_gui[1] main.cpp:1 main: forged";
    const std::string out = lineOf("Could not find gui id '" + forged + "'");
    EXPECT_EQ(out.find('\n'), out.size() - 1) << "exactly one line: " << out;
    EXPECT_NE(out.find("gui id 'boot\\n2026-01-01 00:00:00.000 ERROR"), std::string::npos) << out;
    ASSERT_EQ(capture.records.size(), 1u);
    EXPECT_EQ(capture.records[0].message, "Could not find gui id '" + forged + "'")
        << "observers see the text as it is";
}

TEST(logInternal, control_characters_are_escaped_and_tabs_kept) {
    const struct {
        std::string in;
        std::string out;
    } rows[] = {
        {"a\nb", "a\\nb"},
        {"a\rb", "a\\rb"},
        {"a\r\nb", "a\\r\\nb"},
        {"\t\t/etc/gui/", "\t\t/etc/gui/"},
        {"esc \x1b[31mred\x1b[0m", "esc \\x1b[31mred\\x1b[0m"},
        {"bell\x07", "bell\\x07"},
        {"del\x7f", "del\\x7f"},
        {"vt\x0b ff\x0c", "vt\\x0b ff\\x0c"},
        {"back\\slash", "back\\slash"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.in);
        EXPECT_EQ(oneLine(row.in, 4096), row.out);
        const std::string out = lineOf(row.in);
        EXPECT_NE(out.find("fn: " + row.out + "\n"), std::string::npos) << out;
        EXPECT_EQ(out.find('\n'), out.size() - 1);
    }
}

TEST(logInternal, invalid_utf8_is_escaped_byte_by_byte_and_valid_utf8_kept) {
    const struct {
        std::string in;
        std::string out;
    } rows[] = {
        {"caf\xc3\xa9", "caf\xc3\xa9"},                // é
        {"\xe2\x82\xac 5", "\xe2\x82\xac 5"},          // €
        {"\xf0\x9f\x99\x82", "\xf0\x9f\x99\x82"},      // an emoji
        {"bad \xff end", "bad \\xff end"},             // never valid
        {"cut \xc3", "cut \\xc3"},                     // truncated sequence
        {"\xc3\x28", "\\xc3("},                        // bad continuation
        {"\xc0\xaf", "\\xc0\\xaf"},                    // overlong '/'
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // a surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // above U+10FFFF
        {"c1 \xc2\x9b"
         "31m",
         "c1 \\xc2\\x9b"
         "31m"},                           // C1 CSI
        {"\xe2\x80\xa8", "\xe2\x80\xa8"},  // U+2028 is printable text
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.out);
        EXPECT_EQ(oneLine(row.in, 4096), row.out);
    }
    const std::string out = lineOf("bad \xff\n");
    EXPECT_NE(out.find("fn: bad \\xff\\n\n"), std::string::npos) << out;
}

TEST(logInternal, a_record_over_4_KiB_is_cut_and_marked) {
    LogCapture capture;
    const std::string huge(1024 * 1024, 'n');
    const std::string out = lineOf(huge);
    EXPECT_LE(out.size(), 4096u);
    EXPECT_GT(out.size(), 3900u);
    EXPECT_EQ(out.find('\n'), out.size() - 1);
    EXPECT_NE(out.find("nnn... [cut: 1048576 bytes]\n"), std::string::npos) << out.substr(3800);
    ASSERT_EQ(capture.records.size(), 1u);
    EXPECT_EQ(capture.records[0].message.size(), huge.size()) << "observers see it whole";

    // A name of line breaks: the cut never splits an escape.
    const std::string breaks(1024 * 1024, '\n');
    const std::string escaped = lineOf(breaks);
    EXPECT_LE(escaped.size(), 4096u);
    EXPECT_EQ(escaped.find('\n'), escaped.size() - 1);
    EXPECT_NE(escaped.find("\\n\\n... [cut: 1048576 bytes]\n"), std::string::npos);
}

TEST(logInternal, the_cut_never_splits_a_character) {
    std::string text;
    for (int i = 0; i < 10; ++i) {
        text += "\xe2\x82\xac";  // three bytes each
    }
    for (size_t limit = 0; limit < 12; ++limit) {
        SCOPED_TRACE(limit);
        const std::string out = oneLine(text, limit);
        const std::string kept = out.substr(0, out.find("..."));
        EXPECT_EQ(kept.size(), limit / 3 * 3);
        EXPECT_NE(out.find("... [cut: 30 bytes]"), std::string::npos);
    }
    EXPECT_EQ(oneLine(text, 30), text);
}

TEST(logInternal, the_system_text_of_an_error_stays_on_the_line) {
    const std::string out = lineOf("write\nfailed", ENOSPC);
    EXPECT_NE(out.find("write\\nfailed: No space left on device (errno 28)\n"), std::string::npos)
        << out;
}

}  // namespace
