#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "GuiBackLight.h"
#include "dravik_logger/log_capture.h"
#include "dravik_test_support/temp_dir.h"
#include "dravik_utils/utils.h"

using dravik::lcmgui::GuiBackLight;
using dravik::logger::LogCapture;
using dravik::testsupport::TempDir;
using dravik::utils::format;

namespace {

// The descriptor numbers that the next two opens will get: the lowest free ones.
std::pair<int, int> nextTwoDescriptors() {
    const int first = ::open("/dev/null", O_RDONLY);
    const int second = ::open("/dev/null", O_RDONLY);
    ::close(first);
    ::close(second);
    return {first, second};
}

bool descriptorIsOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

// Exactly one record was written, from the backlight's source file, with these
// level, function, errnum and text.
void expectOnlyRecord(const LogCapture& capture, int level, const std::string& function, int errnum,
                      const std::string& message) {
    ASSERT_EQ(capture.records.size(), 1u);
    const auto& r = capture.records.front();
    EXPECT_EQ(r.level, level);
    EXPECT_EQ(r.function, function);
    EXPECT_EQ(r.errnum, errnum);
    EXPECT_EQ(r.message, message);
    EXPECT_EQ(r.tag, "dravik_lcm_gui");
    EXPECT_NE(r.sourceFile.find("dravik_lcm_gui/src/LcmGuiBackLight"), std::string::npos)
        << r.sourceFile;
}

const std::string kMarker = "MARK";

// A backlight directory whose max_brightness holds `maxText`.
class BacklightDir : public TempDir {
public:
    explicit BacklightDir(const std::string& maxText) : TempDir("backlight_test.") {
        write("max_brightness", maxText);
    }
};

// A backlight started on a BacklightDir, with the records its start-up wrote.
struct StartedBacklight {
    explicit StartedBacklight(const std::string& maxText) : dir(maxText) {
        ok = backlight.init(dir.path());
    }

    BacklightDir dir;
    GuiBackLight backlight;
    LogCapture capture;
    bool ok = false;
};

// Fixture with a backlight directory whose max_brightness holds `maxText`.
class BacklightTest : public ::testing::Test {
protected:
    void initWithMax(const std::string& maxText) {
        dir.write("max_brightness", maxText);
        ASSERT_TRUE(backlight.init(dir.path()));
    }
    // Overwrites "brightness" with a marker, so that a later write shows.
    void markBrightnessFile() const { dir.write("brightness", kMarker); }
    // Sets `percent` and services the backlight, both successfully.
    void setAndService(int percent) {
        EXPECT_TRUE(backlight.setBrightness(percent));
        EXPECT_TRUE(backlight.service());
    }
    // Sets `percent` and services; the brightness file then holds `content`.
    void expectWritten(int percent, const std::string& content) {
        setAndService(percent);
        EXPECT_EQ(dir.read("brightness"), content);
    }

    TempDir dir{"backlight_test."};
    GuiBackLight backlight;
};

}  // namespace

TEST(GuiBackLight, starts_with_no_brightness_and_management_off) {
    const GuiBackLight backlight;
    EXPECT_EQ(backlight.getBrightness(), -1);
    EXPECT_EQ(backlight.getMaxBrightness(), 0);
}

TEST(GuiBackLight, set_brightness_before_init_reports_false) {
    GuiBackLight backlight;
    EXPECT_FALSE(backlight.setBrightness(50));
    EXPECT_EQ(backlight.getBrightness(), -1);
}

TEST_F(BacklightTest, writes_raw_value_and_terminating_zero) {
    dir.write("max_brightness", "255\n");
    LogCapture capture;
    ASSERT_TRUE(backlight.init(dir.path()));
    expectOnlyRecord(capture, 7, "init", 0, "Using BackLight device at '" + dir.path() + "'");
    EXPECT_EQ(backlight.getMaxBrightness(), 255);

    EXPECT_TRUE(backlight.setBrightness(50));
    EXPECT_EQ(backlight.getBrightness(), 50);
    EXPECT_EQ(dir.read("brightness"), "") << "setBrightness must not write";
    EXPECT_TRUE(backlight.service());
    EXPECT_EQ(dir.read("brightness"), std::string("127\0", 4));
}

TEST_F(BacklightTest, init_creates_the_brightness_file_with_mode_0666_under_umask) {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    initWithMax("255\n");
    struct stat info {};
    ASSERT_EQ(::stat(dir.file("brightness").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666 & ~mask);
    EXPECT_EQ(info.st_size, 0);
}

TEST_F(BacklightTest, init_truncates_an_existing_brightness_file) {
    dir.write("brightness", "200\n");
    initWithMax("255");
    EXPECT_EQ(dir.read("brightness"), "");
}

TEST_F(BacklightTest, same_percentage_twice_writes_once) {
    initWithMax("255\n");
    expectWritten(50, std::string("127\0", 4));

    markBrightnessFile();
    expectWritten(50, kMarker);
}

TEST_F(BacklightTest, latest_percentage_before_service_is_the_one_written) {
    initWithMax("255\n");
    EXPECT_TRUE(backlight.setBrightness(50));
    EXPECT_TRUE(backlight.setBrightness(51));
    EXPECT_TRUE(backlight.service());
    EXPECT_EQ(dir.read("brightness"), std::string("130\0", 4));

    markBrightnessFile();
    EXPECT_TRUE(backlight.service());
    EXPECT_EQ(dir.read("brightness"), kMarker) << "one set, one write";
}

TEST_F(BacklightTest, percentages_with_equal_raw_value_write_nothing_new) {
    initWithMax("7");
    expectWritten(10, std::string("0\0", 2));

    markBrightnessFile();
    EXPECT_TRUE(backlight.setBrightness(14));
    EXPECT_EQ(backlight.getBrightness(), 14) << "the percentage is still accepted";
    EXPECT_TRUE(backlight.service());
    EXPECT_EQ(dir.read("brightness"), kMarker);
}

TEST_F(BacklightTest, negative_percentage_keeps_everything) {
    initWithMax("255\n");
    EXPECT_TRUE(backlight.setBrightness(-1));
    EXPECT_EQ(backlight.getBrightness(), -1);
    EXPECT_TRUE(backlight.service());
    EXPECT_EQ(dir.read("brightness"), "");

    setAndService(40);
    markBrightnessFile();
    EXPECT_TRUE(backlight.setBrightness(-128));
    EXPECT_EQ(backlight.getBrightness(), 40);
    EXPECT_TRUE(backlight.service());
    EXPECT_EQ(dir.read("brightness"), kMarker);
}

TEST_F(BacklightTest, percentage_above_100_is_not_clamped) {
    initWithMax("255\n");
    expectWritten(127, std::string("323\0", 4));
}

TEST_F(BacklightTest, shorter_value_overwrites_in_place_without_truncating) {
    initWithMax("255\n");
    setAndService(51);
    expectWritten(5, std::string("12\0\0", 4));
}

TEST_F(BacklightTest, computes_raw_value_in_32_bits_for_the_largest_maximum) {
    initWithMax("16777214");
    expectWritten(100, std::string("16777214\0", 9));
    // 33 * 16777214 / 100 = 5536480.62, truncated; the longer value written
    // before leaves its last zero behind.
    expectWritten(33, std::string("5536480\0\0", 9));
}

TEST(GuiBackLight, empty_path_disables_management) {
    GuiBackLight backlight;
    LogCapture capture;
    EXPECT_TRUE(backlight.init(""));
    expectOnlyRecord(capture, 7, "init", 0,
                     "Disable BackLight management. BackLight device is not defined");
    EXPECT_EQ(backlight.getMaxBrightness(), 0);

    capture.clear();
    EXPECT_FALSE(backlight.setBrightness(50));
    EXPECT_FALSE(backlight.setBrightness(0));
    EXPECT_FALSE(backlight.setBrightness(-1)) << "reported false even for keep-as-is";
    EXPECT_EQ(backlight.getBrightness(), -1);
    EXPECT_TRUE(backlight.service());
    EXPECT_TRUE(capture.records.empty());
}

TEST(GuiBackLight, accepted_maximum_values) {
    const struct {
        const char* text;
        int expected;
    } rows[] = {
        {"255\n", 255},
        {"1", 1},
        {"16777214", 16777214},
        {" \t 42 \r\n", 42},
        {"  12abc", 12},            // strtol stops at the first non-digit
        {"0000000000001000", 100},  // 16 bytes: only the first 15 are read
        {"4294967297", 1},          // taken as 32 bits: 2^32 + 1 wraps to 1
        {"+77\n", 77},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const StartedBacklight started(row.text);
        EXPECT_TRUE(started.ok);
        EXPECT_EQ(started.backlight.getMaxBrightness(), row.expected);
        expectOnlyRecord(started.capture, 7, "init", 0,
                         "Using BackLight device at '" + started.dir.path() + "'");
    }
}

TEST(GuiBackLight, refused_maximum_values) {
    const struct {
        const char* text;
        int logged;
    } rows[] = {
        {"0\n", 0},
        {"16777215", 16777215},
        {"-5", -5},
        {"abc", 0},
        {"\n", 0},
        {"1234567890123456", -2045911175},  // first 15 digits, wrapped to 32 bits
        {"2147483648", -2147483647 - 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        StartedBacklight started(row.text);
        EXPECT_FALSE(started.ok);
        expectOnlyRecord(started.capture, 3, "init", 0,
                         format("Wrong max brightness value (%d)", row.logged));
        EXPECT_EQ(started.backlight.getMaxBrightness(), 0);
        EXPECT_FALSE(started.backlight.setBrightness(50));
    }
}

TEST(GuiBackLight, empty_max_brightness_fails_with_read_count_0) {
    BacklightDir dir{""};
    GuiBackLight backlight;
    const auto [brightnessFd, maxFd] = nextTwoDescriptors();
    LogCapture capture;
    EXPECT_FALSE(backlight.init(dir.path()));
    expectOnlyRecord(capture, 3, "init", 0,
                     format("Failed to read from proc entry 0x%x, num bytes read %d", maxFd, 0));
    EXPECT_FALSE(descriptorIsOpen(maxFd)) << "max_brightness is closed after the failure";
    EXPECT_TRUE(descriptorIsOpen(brightnessFd)) << "brightness stays open until destruction";
    EXPECT_EQ(backlight.getMaxBrightness(), 0);
}

TEST(GuiBackLight, unreadable_max_brightness_logs_the_error_number) {
    TempDir dir{"backlight_test."};
    // A directory opens read-only but refuses pread with EISDIR.
    ASSERT_EQ(::mkdir(dir.file("max_brightness").c_str(), 0755), 0);
    GuiBackLight backlight;
    const auto maxFd = nextTwoDescriptors().second;
    LogCapture capture;
    EXPECT_FALSE(backlight.init(dir.path()));
    expectOnlyRecord(capture, 3, "init", EISDIR,
                     format("Failed to read from proc entry 0x%x, num bytes read %d", maxFd, -1));
}

TEST(GuiBackLight, missing_max_brightness_fails_but_brightness_was_created) {
    TempDir dir{"backlight_test."};
    GuiBackLight backlight;
    LogCapture capture;
    EXPECT_FALSE(backlight.init(dir.path()));
    expectOnlyRecord(capture, 3, "init", 0,
                     "Failed to open proc entry '" + dir.file("max_brightness") + "'");
    EXPECT_TRUE(std::filesystem::exists(dir.file("brightness")));
    EXPECT_FALSE(backlight.setBrightness(50));
}

TEST(GuiBackLight, missing_directory_fails_on_brightness) {
    TempDir dir{"backlight_test."};
    const std::string missing = dir.file("no/such/dir");
    GuiBackLight backlight;
    LogCapture capture;
    EXPECT_FALSE(backlight.init(missing));
    expectOnlyRecord(capture, 3, "init", 0,
                     "Failed to open proc entry '" + missing + "/brightness'");
    EXPECT_EQ(backlight.getMaxBrightness(), 0);
}

TEST(GuiBackLight, descriptor_0_counts_as_failure) {
    BacklightDir dir{"255\n"};
    const int savedStdin = ::dup(STDIN_FILENO);
    ASSERT_GE(savedStdin, 0);
    ::close(STDIN_FILENO);  // the next open gets descriptor 0
    bool ok = true;
    LogCapture capture;
    {
        GuiBackLight backlight;
        ok = backlight.init(dir.path());
    }
    // The backlight keeps descriptor 0 as "none" and never closes it.
    const bool zeroStillOpen = descriptorIsOpen(STDIN_FILENO);
    ASSERT_EQ(::dup2(savedStdin, STDIN_FILENO), STDIN_FILENO);
    ::close(savedStdin);

    EXPECT_FALSE(ok);
    EXPECT_TRUE(zeroStillOpen);
    expectOnlyRecord(capture, 3, "init", 0,
                     "Failed to open proc entry '" + dir.file("brightness") + "'");
}

TEST(GuiBackLight, refused_write_is_logged_with_errno_and_not_retried) {
    BacklightDir dir{"255\n"};
    ASSERT_EQ(::symlink("/dev/full", dir.file("brightness").c_str()), 0);
    GuiBackLight backlight;
    const int brightnessFd = nextTwoDescriptors().first;
    ASSERT_TRUE(backlight.init(dir.path()));
    EXPECT_TRUE(backlight.setBrightness(50));

    LogCapture capture;
    EXPECT_FALSE(backlight.service());
    expectOnlyRecord(capture, 3, "service", ENOSPC,
                     format("Failed to write '%s' to proc entry 0x%x", "127", brightnessFd));

    capture.clear();
    EXPECT_TRUE(backlight.service()) << "nothing pending after a failed write";
    EXPECT_TRUE(capture.records.empty());
}

TEST(GuiBackLight, destructor_closes_the_brightness_file) {
    BacklightDir dir{"255\n"};
    const auto [brightnessFd, maxFd] = nextTwoDescriptors();
    {
        GuiBackLight backlight;
        ASSERT_TRUE(backlight.init(dir.path()));
        EXPECT_TRUE(descriptorIsOpen(brightnessFd));
        EXPECT_FALSE(descriptorIsOpen(maxFd)) << "max_brightness is read once and closed";
    }
    EXPECT_FALSE(descriptorIsOpen(brightnessFd));
}
