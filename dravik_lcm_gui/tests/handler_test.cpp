#include "LcmGuiHandler.h"

#include <gtest/gtest.h>

#include "GuiConfig.h"
#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/log_capture.h"

namespace {

using dravik::ipc::messages::BaseRequestMessage;
using dravik::logger::LogCapture;
using namespace dravik::lcmgui;
using dravik::variant::Variant;

// The handler over an engine that has no panel: requests reach the show
// commands, whose screen part only records the new screen.
class LcmGuiHandlerTest : public ::testing::Test {
protected:
    GuiConfig config;
    LcmGui gui{config};
    LcmGuiHandler handler{gui};
    bool flag = false;

    BaseRequestMessage request(const char* functionName) {
        BaseRequestMessage r;
        r["functionName"] = functionName;
        return r;
    }
};

TEST_F(LcmGuiHandlerTest, show_gui_without_response_expected_is_served_and_not_answered) {
    BaseRequestMessage r = request("ShowGui");
    r["guiId"] = "";
    r["brightness"] = -1;
    EXPECT_TRUE(handler.HandleRequest(r, flag));
    const Variant* expected = r.Find("responseExpected");
    ASSERT_NE(expected, nullptr);
    EXPECT_EQ(expected->Type(), dravik::variant::kBool);
    EXPECT_FALSE(expected->AsBool());
    EXPECT_EQ(r.Find("functionName")->AsString(), "ShowGui");
    EXPECT_FALSE(flag);
}

TEST_F(LcmGuiHandlerTest, request_is_served_as_its_function_class) {
    // ShowGui's normalisation ran on the request: the brightness was clamped.
    BaseRequestMessage r = request("ShowGui");
    r["brightness"] = 120;
    EXPECT_TRUE(handler.HandleRequest(r, flag));
    EXPECT_EQ(r.Find("brightness")->Type(), dravik::variant::kInt8);
    EXPECT_EQ(r.Find("brightness")->AsInt64(), 100);
    EXPECT_EQ(r.Find("guiId")->AsString(), "");
}

TEST_F(LcmGuiHandlerTest, show_simple_screen_is_served_as_show_simple_screen) {
    BaseRequestMessage r = request("ShowSimpleScreen");
    r["text"]["str"] = "Hi";
    EXPECT_TRUE(handler.HandleRequest(r, flag));
    // The show command read the records through their getters: "size" now holds its default.
    EXPECT_EQ(r.Find("text")->Find("size")->AsInt64(), 6);
    EXPECT_EQ(r.Find("img")->Find("duration")->AsInt64(), 0);
    EXPECT_TRUE(LcmGuiTestAccess::state(gui).stateChanged);
    EXPECT_EQ(LcmGuiTestAccess::state(gui).textConf.text, "Hi");
}

TEST_F(LcmGuiHandlerTest, show_gui_of_an_unknown_name_is_still_handled) {
    BaseRequestMessage r = request("ShowGui");
    r["guiId"] = "nosuch";
    LogCapture capture;
    EXPECT_TRUE(handler.HandleRequest(r, flag));  // a failed display operation is still handled
    EXPECT_TRUE(capture.has(4, "Could not find gui id 'nosuch'"));
}

TEST_F(LcmGuiHandlerTest, response_expected_as_string_counts_as_false_and_is_overwritten) {
    BaseRequestMessage r = request("ShowGui");
    r["responseExpected"] = "yes";
    EXPECT_TRUE(handler.HandleRequest(r, flag));
    EXPECT_EQ(r.Find("responseExpected")->Type(), dravik::variant::kBool);
    EXPECT_FALSE(r.Find("responseExpected")->AsBool());
}

TEST_F(LcmGuiHandlerTest, lower_case_function_name_is_rejected_with_a_log_line) {
    BaseRequestMessage r = request("showgui");
    r["responseExpected"] = true;
    LogCapture capture;
    EXPECT_FALSE(handler.HandleRequest(r, flag));
    EXPECT_TRUE(capture.has(3, "Invalid function name showgui"));
    const auto* record = capture.find("Invalid function name showgui");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->function, "HandleRequest");
    EXPECT_NE(record->sourceFile.find("dravik_lcm_gui/src/LcmGuiHandler"), std::string::npos);
    // Rejected before any display operation: no screen was set.
    EXPECT_FALSE(LcmGuiTestAccess::state(gui).stateChanged);
}

TEST_F(LcmGuiHandlerTest, missing_or_mistyped_function_name_is_rejected_and_repaired) {
    BaseRequestMessage missing;
    LogCapture capture;
    EXPECT_FALSE(handler.HandleRequest(missing, flag));
    EXPECT_TRUE(capture.has(3, "Invalid function name "));
    EXPECT_EQ(missing.Find("functionName")->AsString(), "");

    BaseRequestMessage number;
    number["functionName"] = 7;
    EXPECT_FALSE(handler.HandleRequest(number, flag));
    EXPECT_EQ(number.Find("functionName")->Type(), dravik::variant::kString);
}

TEST_F(LcmGuiHandlerTest, response_handling_and_sent_notifications_do_nothing) {
    dravik::ipc::messages::BaseRequestMessage r;
    dravik::ipc::messages::BaseResponseMessage response;
    EXPECT_TRUE(handler.HandleResponse(r, response, flag));
    dravik::ipc::messages::BaseMessage m;
    handler.MessageSentSuccessfully(m, flag);
    EXPECT_FALSE(flag);
    EXPECT_EQ(handler.Name(), "LcmGuiHandler");
}

}  // namespace
