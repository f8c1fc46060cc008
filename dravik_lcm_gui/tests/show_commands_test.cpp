// The show commands: ShowGui by name and ShowSimpleScreen from a request, what
// they leave in the request, the response and the screen state, and what the
// next tick puts on the panel and into the backlight file.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "EngineTest.h"
#include "LcmGui.h"
#include "PrivateGuiPaths.h"
#include "ScreenExpectations.h"
#include "TestImages.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/log_capture.h"
#include "dravik_test_support/clock_guard.h"
#include "dravik_test_support/temp_dir.h"

using dravik::ipc::messages::ShowGui;
using dravik::ipc::messages::ShowSimpleScreen;
using dravik::logger::LogCapture;
using dravik::testsupport::ClockGuard;
using dravik::testsupport::TempDir;
using dravik::variant::Variant;
using dravik::variant::VariantType;
using namespace dravik::lcmgui;
using namespace dravik::lcmgui::testsupport;
namespace vt = dravik::variant;

namespace {

auto* const gPaths = PrivateGuiPaths::registerEnvironment();

constexpr uint64_t kStart = 7'000'000;

const cv::Scalar kBootColour(30, 160, 220);
const cv::Scalar kSlideColours[] = {{10, 20, 30}, {40, 50, 60}, {70, 80, 90}, {100, 110, 120}};

// The screens every test can ask for. "boot" is one solid image at (100, 10);
// "spinner" a slideshow of four 10 x 10 slides at (0, 0); "broken" a slideshow
// that setState refuses.
constexpr char kScreens[] = R"("screens": [
    {"name": "boot", "img": {"file": "boot.png", "x": 100, "y": 10}},
    {"name": "spinner", "img": {"file": "spinner.png", "animation": "slideshow",
                                "duration": 1000, "count": 4}},
    {"name": "broken", "img": {"file": "spinner.png", "animation": "slideshow",
                               "duration": 1000, "count": 0}},
    {"name": "hello", "text": {"str": "Hello", "size": 20}}
])";

// A temporary kernel-like backlight directory whose maximum is 255.
class BacklightDir {
public:
    BacklightDir() { dir_.write("max_brightness", "255\n"); }

    const std::string& path() const { return dir_.path(); }
    // What the engine wrote: the raw value and its terminating zero byte.
    std::string written() const { return dir_.read("brightness"); }

private:
    TempDir dir_{"lcm_gui_show_backlight_"};
};

bool loadConfig(GuiConfig& config, const std::string& backLightPath) {
    const TempDir dir("lcm_gui_show_screens_");
    return config.fromJSONFile(
        dir.write("screens.json", R"({"imgPath": "/usr/etc/gui", "backLightPath": ")" +
                                      backLightPath + R"(", )" + kScreens + "}"));
}

Variant json(const std::string& text) {
    Variant value;
    EXPECT_TRUE(value.FromJSONString(text)) << text;
    return value;
}

std::string raw(const char* digits) {
    return std::string(digits) + '\0';
}

std::set<std::string> keysOf(const Variant& value) {
    std::set<std::string> keys;
    for (auto it = value.str_begin(); it != value.str_end(); ++it) {
        keys.insert(it->first);
    }
    return keys;
}

// One stored member: its tag and value.
void expectMember(const Variant& record, const std::string& key, VariantType type,
                  const Variant& value) {
    SCOPED_TRACE(key);
    const Variant* member = record.Find(key);
    ASSERT_NE(member, nullptr);
    EXPECT_EQ(member->Type(), type);
    EXPECT_EQ(*member, value);
}

class ShowCommands : public ::testing::Test {
protected:
    void SetUp() override {
        gNow = kStart;
        REQUIRE_PRIVATE_GUI_PATHS();
        ASSERT_FALSE(writeGuiImage("boot.png", solid(20, 10, kBootColour)).empty());
        cv::Mat slides(10, 40, CV_8UC3);
        for (int i = 0; i < 4; ++i) {
            slides.colRange(i * 10, i * 10 + 10).setTo(kSlideColours[i]);
        }
        ASSERT_FALSE(writeGuiImage("spinner.png", slides).empty());
        ASSERT_FALSE(backlight.path().empty());
        ASSERT_TRUE(loadConfig(config, backlight.path()));
        ASSERT_TRUE(loadConfig(configWithoutBacklight, ""));
        gui = makeEngine(config, true);
        ASSERT_NE(gui, nullptr);
    }

    // An engine on a 24-bit panel in memory, with fonts and, when asked, the
    // backlight of the configuration (as init would set them up).
    static std::unique_ptr<LcmGui> makeEngine(GuiConfig& conf, bool withBacklight) {
        auto engine = std::make_unique<LcmGui>(conf);
        if (!Access::setMemoryPanel(*engine, kPanelWidth, kPanelHeight) ||
            !Access::initFonts(*engine)) {
            return nullptr;
        }
        if (withBacklight && !Access::backLight(*engine).init(conf.getBackLightPath())) {
            return nullptr;
        }
        Access::fillPanel(*engine, kSentinel);
        return engine;
    }

    GuiAnimStateDesc& state() { return Access::state(*gui); }

    void tickAt(uint64_t ms) {
        gNow = kStart + ms;
        EXPECT_TRUE(gui->service());
    }

    bool showGui(const std::string& request, ShowGui* response = nullptr) {
        ShowGui message(json(request));
        return gui->showGui(message, response);
    }

    // Shows a configured screen and runs its full redraw at the start time.
    void showAndDraw(const std::string& name) {
        ASSERT_TRUE(showGui(R"({"guiId": ")" + name + R"("})"));
        tickAt(0);
        ASSERT_FALSE(state().stateChanged);
    }

    cv::Vec3b panelPixel(int x, int y) const {
        const std::vector<uint8_t> bytes = Access::panelBytes(*gui);
        const size_t at = (static_cast<size_t>(y) * kPanelWidth + x) * 3;
        return {bytes[at], bytes[at + 1], bytes[at + 2]};
    }

    bool panelIsSentinel() const {
        for (const uint8_t byte : Access::panelBytes(*gui)) {
            if (byte != kSentinel) {
                return false;
            }
        }
        return true;
    }

    // The boot screen exactly: black everywhere but its image.
    void expectBootOnPanel() const {
        const cv::Rect image(100, 10, 20, 10);
        const cv::Vec3b colour(30, 160, 220);
        for (int y = 0; y < kPanelHeight; ++y) {
            for (int x = 0; x < kPanelWidth; ++x) {
                const bool inside = image.contains(cv::Point(x, y));
                ASSERT_EQ(panelPixel(x, y), inside ? colour : cv::Vec3b(0, 0, 0))
                    << "pixel (" << x << ", " << y << ")";
            }
        }
    }

    ClockGuard clock{testClock};
    BacklightDir backlight;
    GuiConfig config;
    GuiConfig configWithoutBacklight;
    std::unique_ptr<LcmGui> gui;
};

cv::Vec3b colour(const cv::Scalar& s) {
    return {static_cast<uint8_t>(s[0]), static_cast<uint8_t>(s[1]), static_cast<uint8_t>(s[2])};
}

}  // namespace

TEST_F(ShowCommands, show_gui_draws_screen_at_next_tick_and_writes_raw_brightness) {
    ShowGui response;
    EXPECT_TRUE(showGui(R"({"guiId": "boot", "brightness": 80})", &response));
    EXPECT_EQ(state().guiId, "boot");
    EXPECT_TRUE(state().stateChanged);
    // Nothing is drawn or written before the tick.
    EXPECT_TRUE(panelIsSentinel());
    EXPECT_EQ(backlight.written(), "");

    tickAt(0);
    expectBootOnPanel();
    EXPECT_EQ(backlight.written(), raw("204"));  // 80 % of 255

    EXPECT_EQ(keysOf(response), (std::set<std::string>{"brightness", "guiId"}));
    expectMember(response, "guiId", vt::kString, Variant("boot"));
    expectMember(response, "brightness", vt::kInt8, Variant(static_cast<signed char>(80)));
}

TEST_F(ShowCommands, show_gui_normalises_the_request_by_its_own_class) {
    ShowGui request(json(R"({"guiId": "boot", "brightness": 300, "functionName": "showgui"})"));
    EXPECT_TRUE(gui->showGui(request, nullptr));
    expectMember(request, "brightness", vt::kInt8, Variant(static_cast<signed char>(100)));
    expectMember(request, "functionName", vt::kString, Variant("ShowGui"));
    expectMember(request, "responseExpected", vt::kBool, Variant(false));
}

TEST_F(ShowCommands, empty_gui_id_sets_only_the_brightness) {
    showAndDraw("boot");
    Access::fillPanel(*gui, kSentinel);
    ShowGui response;
    EXPECT_TRUE(showGui(R"({"guiId": "", "brightness": 40})", &response));
    EXPECT_FALSE(state().stateChanged);
    EXPECT_EQ(state().guiId, "boot");
    tickAt(30);
    EXPECT_TRUE(panelIsSentinel());              // the screen stays as drawn
    EXPECT_EQ(backlight.written(), raw("102"));  // 40 % of 255
    expectMember(response, "guiId", vt::kString, Variant("boot"));
    expectMember(response, "brightness", vt::kInt8, Variant(static_cast<signed char>(40)));
}

TEST_F(ShowCommands, screen_already_shown_is_not_redrawn_and_keeps_animating) {
    showAndDraw("spinner");
    EXPECT_EQ(panelPixel(5, 5), colour(kSlideColours[0]));
    Access::fillPanel(*gui, kSentinel);

    gNow = kStart + 100;
    EXPECT_TRUE(showGui(R"({"guiId": "spinner", "brightness": 50})"));
    EXPECT_FALSE(state().stateChanged);
    EXPECT_EQ(state().animStart, kStart);
    tickAt(200);  // still slide 0 of the cycle started at kStart
    EXPECT_TRUE(panelIsSentinel());
    EXPECT_EQ(backlight.written(), raw("127"));

    // Slide 1 begins 250 ms after the original start; a restarted animation
    // would still be on slide 0 here.
    tickAt(300);
    EXPECT_EQ(panelPixel(5, 5), colour(kSlideColours[1]));
    EXPECT_EQ(panelPixel(15, 5), cv::Vec3b(kSentinel, kSentinel, kSentinel));
}

TEST_F(ShowCommands, unknown_name_fails_and_still_sets_the_brightness) {
    showAndDraw("boot");
    LogCapture capture;
    ShowGui response;
    EXPECT_FALSE(showGui(R"({"guiId": "nosuch", "brightness": 10})", &response));
    EXPECT_TRUE(capture.has(4, "Could not find gui id 'nosuch'"));
    const auto* record = capture.find("Could not find gui id 'nosuch'");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->function, "showGui");
    EXPECT_EQ(state().guiId, "boot");
    EXPECT_FALSE(state().stateChanged);
    expectMember(response, "guiId", vt::kString, Variant("boot"));
    expectMember(response, "brightness", vt::kInt8, Variant(static_cast<signed char>(10)));
    tickAt(30);
    EXPECT_EQ(backlight.written(), raw("25"));  // 10 % of 255, truncated
}

TEST_F(ShowCommands, refused_screen_keeps_the_name_on_show) {
    showAndDraw("boot");
    LogCapture capture;
    EXPECT_FALSE(showGui(R"({"guiId": "broken", "brightness": 60})"));
    EXPECT_TRUE(capture.has(3, "Invalid slideshow count (0)"));
    EXPECT_EQ(state().guiId, "boot");
    EXPECT_FALSE(state().stateChanged);
    tickAt(30);
    EXPECT_EQ(backlight.written(), raw("153"));
}

TEST_F(ShowCommands, simple_screen_clears_the_name_so_the_earlier_screen_is_drawn_again) {
    showAndDraw("boot");
    ShowSimpleScreen simple(json(R"({"text": {"str": "Hi", "size": 20}})"));
    EXPECT_TRUE(gui->showSimpleScreen(simple));
    EXPECT_EQ(state().guiId, "");
    tickAt(30);
    EXPECT_EQ(panelPixel(110, 15), cv::Vec3b(0, 0, 0));  // boot's image is gone

    EXPECT_TRUE(showGui(R"({"guiId": "boot"})"));
    EXPECT_TRUE(state().stateChanged);
    EXPECT_EQ(state().guiId, "boot");
    tickAt(60);
    expectBootOnPanel();
}

TEST_F(ShowCommands, simple_screen_without_elements_gets_empty_records_with_defaults) {
    showAndDraw("boot");
    const struct {
        const char* name;
        const char* request;
    } rows[] = {
        {"missing", "{}"},
        {"null", R"({"text": null, "img": null})"},
        {"arrays", R"({"text": [1, 2], "img": []})"},  // an array is no object here
        {"string and number", R"({"text": "Hi", "img": 5})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ShowSimpleScreen request(json(row.request));
        gNow = kStart + 1000;
        EXPECT_TRUE(gui->showSimpleScreen(request));

        expectTextConf(state().textConf, {"", 0, 0, 6, kAlignLeft, kAlignTop});
        expectImgConf(state().imgConf, {"", 0, 0, kAlignLeft, kAlignTop, kAnimStatic, 0, 0});
        EXPECT_TRUE(state().stateChanged);
        EXPECT_EQ(state().animStart, 0U);
        EXPECT_EQ(state().guiId, "");

        const Variant* textRecord = request.Find("text");
        ASSERT_NE(textRecord, nullptr);
        EXPECT_EQ(textRecord->Type(), vt::kObject);
        EXPECT_EQ(keysOf(*textRecord),
                  (std::set<std::string>{"alignHor", "alignVert", "size", "str", "x", "y"}));
        expectMember(*textRecord, "size", vt::kUInt16, Variant(static_cast<unsigned short>(6)));
        expectMember(*textRecord, "str", vt::kString, Variant(""));
        expectMember(*textRecord, "x", vt::kUInt16, Variant(static_cast<unsigned short>(0)));
        expectMember(*textRecord, "y", vt::kUInt16, Variant(static_cast<unsigned short>(0)));
        expectMember(*textRecord, "alignHor", vt::kString, Variant("left"));
        expectMember(*textRecord, "alignVert", vt::kString, Variant("top"));

        const Variant* imgRecord = request.Find("img");
        ASSERT_NE(imgRecord, nullptr);
        EXPECT_EQ(imgRecord->Type(), vt::kObject);
        EXPECT_EQ(keysOf(*imgRecord),
                  (std::set<std::string>{"alignHor", "alignVert", "animation", "count", "duration",
                                         "file", "x", "y"}));
        expectMember(*imgRecord, "duration", vt::kUInt32, Variant(0U));
        expectMember(*imgRecord, "count", vt::kUInt16, Variant(static_cast<unsigned short>(0)));
        expectMember(*imgRecord, "file", vt::kString, Variant(""));
        expectMember(*imgRecord, "animation", vt::kString, Variant("static"));
        expectMember(*imgRecord, "x", vt::kUInt16, Variant(static_cast<unsigned short>(0)));
        expectMember(*imgRecord, "y", vt::kUInt16, Variant(static_cast<unsigned short>(0)));
        expectMember(*imgRecord, "alignHor", vt::kString, Variant("left"));
        expectMember(*imgRecord, "alignVert", vt::kString, Variant("top"));
    }
    // The empty screen is drawn black.
    Access::fillPanel(*gui, kSentinel);
    tickAt(2000);
    for (const uint8_t byte : Access::panelBytes(*gui)) {
        ASSERT_EQ(byte, 0);
    }
}

TEST_F(ShowCommands, element_values_count_only_when_integer_tagged) {
    const struct {
        const char* name;
        const char* text;
        const char* img;
        uint16_t size;
        uint32_t duration;
        uint16_t count;
    } rows[] = {
        {"size as a string", R"({"str": "Hi", "size": "20"})", "{}", 6, 0, 0},
        {"size as a fraction", R"({"str": "Hi", "size": 20.5})", "{}", 6, 0, 0},
        {"size as a bool", R"({"str": "Hi", "size": true})", "{}", 6, 0, 0},
        {"size 20", R"({"str": "Hi", "size": 20})", "{}", 20, 0, 0},
        // The request's normalisation leaves the records alone: no clamp to 3.
        {"size 1 kept", R"({"str": "Hi", "size": 1})", "{}", 1, 0, 0},
        {"duration and count as strings", "{}",
         R"({"file": "spinner.png", "duration": "1000", "count": "4"})", 6, 0, 0},
        {"duration and count", "{}", R"({"file": "spinner.png", "duration": 1000, "count": 4})", 6,
         1000, 4},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ShowSimpleScreen request;
        request["text"] = json(row.text);
        request["img"] = json(row.img);
        EXPECT_TRUE(gui->showSimpleScreen(request));
        EXPECT_EQ(state().textConf.size, row.size);
        EXPECT_EQ(state().imgConf.duration, row.duration);
        EXPECT_EQ(state().imgConf.count, row.count);
        const Variant* size = request.GetKeyChain(vt::kAny, "text/size", false);
        ASSERT_NE(size, nullptr);
        EXPECT_TRUE(vt::IsInteger(size->Type()));
        EXPECT_EQ(static_cast<unsigned short>(*size), row.size);
        const Variant* duration = request.GetKeyChain(vt::kAny, "img/duration", false);
        ASSERT_NE(duration, nullptr);
        EXPECT_TRUE(vt::IsInteger(duration->Type()));
        EXPECT_EQ(static_cast<unsigned int>(*duration), row.duration);
    }
}

TEST_F(ShowCommands, simple_screen_takes_every_element_field) {
    ShowSimpleScreen request(json(R"({
        "text": {"str": "Hi", "x": 3, "y": 4, "size": 20, "alignHor": "center",
                 "alignVert": "bottom"},
        "img": {"file": "spinner.png", "x": 5, "y": 6, "alignHor": "right",
                "alignVert": "middle", "animation": "slideshow", "duration": 1000, "count": 4},
        "brightness": 70})"));
    gNow = kStart + 42;
    EXPECT_TRUE(gui->showSimpleScreen(request));
    expectTextConf(state().textConf, {"Hi", 3, 4, 20, kAlignCenter, kAlignBottom});
    expectImgConf(state().imgConf,
                  {"spinner.png", 5, 6, kAlignRight, kAlignMiddle, kAnimSlideshow, 1000, 4});
    EXPECT_EQ(state().animStart, kStart + 42);  // the time of the request
    tickAt(100);
    EXPECT_EQ(backlight.written(), raw("178"));
}

TEST_F(ShowCommands, simple_screen_words_fall_back_to_defaults) {
    ShowSimpleScreen request(json(R"({
        "text": {"str": "Hi", "size": 20, "alignHor": "Center", "alignVert": 2},
        "img": {"file": "boot.png", "alignHor": "centre", "animation": "Slideshow",
                "duration": 1000, "count": 4}})"));
    EXPECT_TRUE(gui->showSimpleScreen(request));
    EXPECT_EQ(state().textConf.alignHor, kAlignLeft);
    EXPECT_EQ(state().textConf.alignVert, kAlignTop);
    EXPECT_EQ(state().imgConf.alignHor, kAlignLeft);
    EXPECT_EQ(state().imgConf.animation, kAnimStatic);
    EXPECT_EQ(state().animStart, 0U);
}

TEST_F(ShowCommands, refused_simple_screen_keeps_the_name_on_show) {
    showAndDraw("boot");
    ShowSimpleScreen request(
        json(R"({"img": {"file": "spinner.png", "animation": "breathing", "duration": 99}})"));
    LogCapture capture;
    EXPECT_FALSE(gui->showSimpleScreen(request));
    EXPECT_TRUE(capture.has(3, "Invalid breathe period (99)"));
    EXPECT_EQ(state().guiId, "boot");
    EXPECT_FALSE(state().stateChanged);
}

TEST_F(ShowCommands, device_without_backlight_reports_failure_but_shows_the_screen) {
    gui = makeEngine(configWithoutBacklight, false);
    ASSERT_NE(gui, nullptr);
    ShowGui response;
    EXPECT_FALSE(showGui(R"({"guiId": "boot"})", &response));
    EXPECT_EQ(state().guiId, "boot");
    expectMember(response, "brightness", vt::kInt8, Variant(static_cast<signed char>(-1)));
    tickAt(0);
    expectBootOnPanel();

    ShowSimpleScreen simple(json(R"({"text": {"str": "Hi", "size": 20}, "brightness": 50})"));
    EXPECT_FALSE(gui->showSimpleScreen(simple));
    EXPECT_EQ(state().guiId, "");
    EXPECT_TRUE(state().stateChanged);
    EXPECT_EQ(state().textConf.text, "Hi");
}

TEST_F(ShowCommands, brightness_outside_the_percentage_range_is_normalised) {
    const struct {
        int requested;
        int reported;
        std::string written;
    } rows[] = {
        {120, 100, raw("255")},  // never above the panel's maximum
        {-50, -1, ""},           // nothing is written
        {100, 100, raw("255")},
        {0, 0, raw("0")},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.requested);
        BacklightDir dir;
        GuiConfig conf;
        ASSERT_TRUE(loadConfig(conf, dir.path()));
        auto engine = makeEngine(conf, true);
        ASSERT_NE(engine, nullptr);
        ShowGui request(
            json(R"({"guiId": "boot", "brightness": )" + std::to_string(row.requested) + "}"));
        ShowGui response;
        EXPECT_TRUE(engine->showGui(request, &response));
        expectMember(request, "brightness", vt::kInt8,
                     Variant(static_cast<signed char>(row.reported)));
        expectMember(response, "brightness", vt::kInt8,
                     Variant(static_cast<signed char>(row.reported)));
        EXPECT_TRUE(engine->service());
        EXPECT_EQ(dir.written(), row.written);
    }
}

TEST_F(ShowCommands, response_that_is_no_object_becomes_one) {
    for (const char* stored : {R"("junk")", "[1, 2]", "null", "17"}) {
        SCOPED_TRACE(stored);
        ShowGui response(json(stored));
        EXPECT_TRUE(showGui(R"({"guiId": "", "brightness": 30})", &response));
        EXPECT_EQ(response.Type(), vt::kObject);
        EXPECT_EQ(response.NumericKeysCount(), 0U);
        EXPECT_EQ(keysOf(response), (std::set<std::string>{"brightness", "guiId"}));
        expectMember(response, "guiId", vt::kString, Variant(""));
        expectMember(response, "brightness", vt::kInt8, Variant(static_cast<signed char>(30)));
    }
}
