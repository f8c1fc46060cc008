#include "dravik_logger/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

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
        logInternal("t", "f.cpp", "service", 1, 3, ENOSPC, 0, "Failed to write '%s' to proc entry 0x%x",
                    "127", 5);
    });
    EXPECT_NE(out.find("Failed to write '127' to proc entry 0x5: No space left on device (errno 28)"),
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

TEST(forceCrash, aborts_the_process) {
    EXPECT_DEATH(forceCrash(), "");
}

}  // namespace
