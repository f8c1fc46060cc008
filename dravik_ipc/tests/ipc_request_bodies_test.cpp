// Request bodies through the bus: every value type, other dictionaries, malformed
// bodies and responses nested too deep.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "dravik_ipc/ipc.h"
#include "dravik_logger/log_capture.h"
#include "ipc_endpoint_fixture.h"

namespace {

using dravik::logger::LogCapture;
using namespace dravik::ipc::test;

// ---- Request bodies ----------------------------------------------------------------------------

TEST_F(IpcEndpoint, every_value_type_survives_the_trip_through_the_bus) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}});
    timeval when{};
    when.tv_sec = 1700000000;
    when.tv_usec = 250000;
    Variant body = object();
    body["b"] = true;
    body["y"] = static_cast<unsigned char>(7);
    body["n"] = static_cast<short>(-7);
    body["q"] = static_cast<unsigned short>(7);
    body["i"] = -70000;
    body["u"] = 70000u;
    body["x"] = -7000000000L;
    body["t"] = 7000000000UL;
    body["d"] = 0.125;
    body["s"] = "text";
    body["time"] = when;
    body["object"]["inner"] = "value";
    body["array"][int64_t{0}] = 1;
    body["array"][int64_t{1}]["k"] = "v";
    body["array"][int64_t{2}];  // a null element
    const Reply reply = serveWhile([&] { return callFunction("Echo", objectBody(body)); });
    ASSERT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    ASSERT_EQ(handler.requests.size(), 1u);
    const Variant* payloadFound = reply.body.Find("payload");
    ASSERT_NE(payloadFound, nullptr);
    const Variant& payload = *payloadFound;
    for (auto it = body.str_begin(); it != body.str_end(); ++it) {
        SCOPED_TRACE(it->first);
        ASSERT_NE(handler.requests[0].Find(it->first), nullptr);
        EXPECT_TRUE(*handler.requests[0].Find(it->first) == it->second);
        ASSERT_NE(payload.Find(it->first), nullptr);
        EXPECT_TRUE(*payload.Find(it->first) == it->second) << payload.Find(it->first)->ToJSON();
        EXPECT_EQ(payload.Find(it->first)->Type(), it->second.Type());
    }
}

TEST_F(IpcEndpoint, a_dbus_send_style_string_to_int32_dictionary_is_a_request) {
    RecordingHandler handler(echo);
    initEndpoint({{"ShowGui", &handler}});
    const Reply reply = serveWhile([] {
        return callFunction("ShowGui", [](sd_bus_message* m) {
            return sd_bus_message_append(m, "a{si}", 1, "brightness", 80);
        });
    });
    ASSERT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    ASSERT_EQ(handler.requests.size(), 1u);
    EXPECT_EQ(handler.requests[0]["brightness"].Type(), dravik::variant::kInt32);
    EXPECT_EQ(handler.requests[0]["brightness"].AsInt64(), 80);
}

struct MalformedRow {
    const char* name;
    BodyBuilder body;
    const char* message;
};

TEST_F(IpcEndpoint, malformed_requests_get_invalid_args_and_serving_goes_on) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}});
    const MalformedRow rows[] = {
        {"a string body", [](sd_bus_message* m) { return sd_bus_message_append(m, "s", "x"); },
         "Invalid request for 'Echo': the body must be one a{sv} dictionary, not 's'"},
        {"an empty body", [](sd_bus_message*) { return 0; },
         "Invalid request for 'Echo': the body must be one a{sv} dictionary, not an empty body"},
        {"two arguments",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}s", 0, "x"); },
         "Invalid request for 'Echo': the body must be one a{sv} dictionary, not 'a{sv}s'"},
        {"an int-keyed dictionary",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{iv}", 1, 1, "i", 2); },
         "Invalid request for 'Echo': the body must be one a{sv} dictionary, not 'a{iv}'"},
        {"a file descriptor",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 1, "fd", "h", 0); },
         "Invalid request for 'Echo': member 'fd': file descriptors (h) are not accepted"},
        {"arrays nested too deep",
         [](sd_bus_message* m) {
             const std::string signature = std::string(32, 'a') + "i";
             int r = sd_bus_message_open_container(m, 'a', "{sv}");
             r = r < 0 ? r : sd_bus_message_open_container(m, 'e', "sv");
             r = r < 0 ? r : sd_bus_message_append_basic(m, 's', "in");
             r = r < 0 ? r : sd_bus_message_open_container(m, 'v', signature.c_str());
             for (size_t level = 1; level < 32 && r >= 0; ++level) {
                 r = sd_bus_message_open_container(m, 'a', signature.c_str() + level);
             }
             r = r < 0 ? r : sd_bus_message_append(m, "ai", 0);
             for (size_t level = 1; level < 32 + 3 && r >= 0; ++level) {
                 r = sd_bus_message_close_container(m);
             }
             return r;
         },
         "Invalid request for 'Echo': member "
         "'in/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0/0': "
         "value nested deeper than 32 containers"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture capture;
        const Reply bad = serveWhile([&] { return callFunction("Echo", row.body); });
        EXPECT_EQ(bad.errorName, "org.freedesktop.DBus.Error.InvalidArgs");
        EXPECT_EQ(bad.errorMessage, row.message);
        EXPECT_TRUE(handler.requests.empty());
        const Reply good = serveWhile([] { return callFunction("Echo", emptyObjectBody()); });
        EXPECT_TRUE(good.ok) << good.errorName << ": " << good.errorMessage;
        EXPECT_EQ(handler.requests.size(), 1u);
        handler.requests.clear();
    }
}

// Echoing a request nested as deep as the bus carries needs one level more
// than the bus allows: the endpoint must refuse to send it rather than be
// disconnected by the bus daemon.
TEST_F(IpcEndpoint, a_response_nested_deeper_than_the_bus_allows_is_not_sent) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}});
    Variant deep = object();
    deep["leaf"] = 1;
    for (int level = 1; level < 21; ++level) {
        Variant outer = object();
        outer["inner"] = std::move(deep);
        deep = std::move(outer);
    }
    LogCapture capture;
    const Reply reply = serveWhile([&] { return callFunction("Echo", objectBody(deep)); });
    ASSERT_EQ(handler.requests.size(), 1u);
    EXPECT_EQ(handler.sendResults, std::vector<bool>{false});
    EXPECT_EQ(reply.errorName, "dravik.ipc.Error.NoResponse");
    EXPECT_NE(reply.errorMessage.find("value nested deeper than the bus allows"), std::string::npos)
        << reply.errorMessage;
    const Reply next = serveWhile([] { return callFunction("Echo", emptyObjectBody()); });
    EXPECT_TRUE(next.ok) << next.errorName << ": " << next.errorMessage;
}

}  // namespace
