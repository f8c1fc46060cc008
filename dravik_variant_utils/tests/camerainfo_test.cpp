#include "dravik_variant_utils/camerainfo.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "dravik_logger/log_capture.h"
#include "dravik_test_support/temp_dir.h"

namespace {

using dravik::testsupport::TempDir;
using dravik::variant::CameraInfo;
namespace vt = dravik::variant;

class CameraInfoTest : public ::testing::Test {
protected:
    std::string write(const std::string& name, const std::string& content) const {
        return dir_.write(name, content);
    }

    TempDir dir_{"camerainfo_"};
};

TEST_F(CameraInfoTest, reads_an_object_file) {
    CameraInfo info;
    ASSERT_TRUE(info.Init(write("camerainfo.json", R"({"sysid": 418, "model": "x1"})")));
    EXPECT_EQ(info.Type(), vt::kObject);
    EXPECT_EQ(info.sysid(), 418u);
    EXPECT_EQ(info["model"].AsString(), "x1");
}

TEST_F(CameraInfoTest, sysid_of_any_integer_width) {
    CameraInfo info;
    ASSERT_TRUE(info.Init(write("wide.json", R"({"sysid": 18446744073709551615})")));
    EXPECT_EQ(info.sysid(), 18446744073709551615UL);
}

TEST_F(CameraInfoTest, missing_file_fails_and_leaves_null) {
    dravik::logger::LogCapture capture;
    CameraInfo info;
    EXPECT_FALSE(info.Init(dir_.file("absent.json")));
    EXPECT_TRUE(info.IsNull());
    EXPECT_TRUE(
        capture.has(3, dir_.file("absent.json") + ": cannot open file: No such file or directory"));
}

TEST_F(CameraInfoTest, directory_fails) {
    CameraInfo info;
    EXPECT_FALSE(info.Init(dir_.path()));
    EXPECT_TRUE(info.IsNull());
}

TEST_F(CameraInfoTest, non_object_files_fail) {
    const char* texts[] = {"[1, 2]", "418", "\"sysid\"", "null"};
    int n = 0;
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        dravik::logger::LogCapture capture;
        const std::string file = write("value" + std::to_string(n++) + ".json", text);
        CameraInfo info;
        EXPECT_FALSE(info.Init(file));
        EXPECT_TRUE(info.IsNull());
        EXPECT_TRUE(capture.has(3, file + ": the device properties must be a JSON object"));
    }
}

TEST_F(CameraInfoTest, invalid_json_fails_with_its_position) {
    dravik::logger::LogCapture capture;
    const std::string file = write("bad.json", "{\n  \"sysid\": 1,\n  oops\n}");
    CameraInfo info;
    EXPECT_FALSE(info.Init(file));
    EXPECT_TRUE(info.IsNull());
    ASSERT_FALSE(capture.records.empty());
    const std::string& message = capture.records.back().message;
    EXPECT_EQ(message.rfind(file + ":3:3: ", 0), 0u) << message;
}

TEST_F(CameraInfoTest, failed_init_drops_earlier_properties) {
    CameraInfo info;
    ASSERT_TRUE(info.Init(write("good.json", R"({"sysid": 1})")));
    EXPECT_FALSE(info.Init(write("bad.json", "[")));
    EXPECT_TRUE(info.IsNull());
}

TEST_F(CameraInfoTest, default_init_reads_the_configured_file) {
    // The build points the default path at a file that does not exist in the
    // test environment, or at the device's file: either way the result is
    // that of reading it by path.
    CameraInfo byDefault;
    CameraInfo byPath;
    EXPECT_EQ(byDefault.Init(), byPath.Init(DRAVIK_TEST_CAMERAINFO_FILE));
    EXPECT_TRUE(byDefault == byPath);
}

using CameraInfoDeathTest = CameraInfoTest;

// Prints where each record came from, so the death tests can check the
// source file and function of the record written before the crash.
void reportRecordOrigin() {
    dravik::logger::setHook([](const dravik::logger::Record& r) {
        std::fprintf(stderr, "origin: %s %s\n", r.function.c_str(), r.sourceFile.c_str());
    });
}

TEST_F(CameraInfoDeathTest, sysid_of_a_non_container_crashes) {
    CameraInfo info;  // null
    EXPECT_DEATH(
        {
            reportRecordOrigin();
            (void)info.sysid();
        },
        "Invalid variant type detected(.|\n)*origin: sysid "
        ".*dravik_variant_utils/include/dravik_variant_utils/camerainfo\\.h");
    CameraInfo text;
    text = "418";
    EXPECT_DEATH((void)text.sysid(), "Invalid variant type detected");
}

TEST_F(CameraInfoDeathTest, sysid_missing_crashes) {
    CameraInfo info;
    ASSERT_TRUE(info.Init(write("nosysid.json", R"({"model": "x1"})")));
    EXPECT_DEATH((void)info.sysid(), "Key \"sysid\" not available");
}

TEST_F(CameraInfoDeathTest, sysid_of_another_type_crashes) {
    const char* texts[] = {R"({"sysid": "418"})", R"({"sysid": 4.5})", R"({"sysid": null})",
                           R"({"sysid": true})"};
    int n = 0;
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        CameraInfo info;
        ASSERT_TRUE(info.Init(write("typed" + std::to_string(n++) + ".json", text)));
        EXPECT_DEATH((void)info.sysid(), "Key \"sysid\" has a different type than expected");
    }
}

TEST_F(CameraInfoDeathTest, array_passes_the_type_check) {
    CameraInfo info;
    info.IsArray(true);
    EXPECT_DEATH((void)info.sysid(), "Key \"sysid\" not available");
}

}  // namespace
