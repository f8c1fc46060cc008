// Calls reaching their handlers, the replies and errors they get, calls that expect no
// reply, and introspection.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dravik_ipc/ipc.h"
#include "dravik_ipc/sdbus_handles.h"
#include "dravik_logger/log_capture.h"
#include "ipc_endpoint_fixture.h"

namespace {

using dravik::logger::LogCapture;
using namespace dravik::ipc::test;

// ---- Dispatch -------------------------------------------------------------------------

TEST_F(IpcEndpoint, requests_reach_the_handler_registered_under_their_name) {
    RecordingHandler first(echo);
    RecordingHandler second(echo);
    initEndpoint({{"First", &first}, {"Second", &second}});
    Variant body = object();
    body["guiId"] = "boot";
    const Reply reply = serveWhile([&] { return callFunction("Second", objectBody(body)); });
    ASSERT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    EXPECT_TRUE(first.requests.empty());
    ASSERT_EQ(second.requests.size(), 1u);
    Variant& request = second.requests[0];
    EXPECT_EQ(request["guiId"].AsString(), "boot");
    EXPECT_EQ(request["functionName"].AsString(), "Second");
    EXPECT_EQ(request["from"].AsString(), reply.clientName);
    EXPECT_EQ(request["to"].AsString(), kName);
    EXPECT_EQ(request["responseExpected"].Type(), dravik::variant::kBool);
    EXPECT_TRUE(request["responseExpected"].AsBool());
}

TEST_F(IpcEndpoint, a_call_without_interface_is_dispatched_too) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}});
    const Reply reply = serveWhile([] { return callFunction("Echo", emptyObjectBody(), nullptr); });
    EXPECT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    EXPECT_EQ(handler.requests.size(), 1u);
}

TEST_F(IpcEndpoint, the_reply_is_the_normalised_response_tied_to_the_request_id) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}});
    Variant body = object();
    body["id"] = 123456789012ULL;
    const Reply reply = serveWhile([&] { return callFunction("Echo", objectBody(body)); });
    ASSERT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    ASSERT_EQ(handler.sendResults, std::vector<bool>{true});
    Variant response = reply.body;
    EXPECT_EQ(response["requestId"].AsUInt64(), 123456789012ULL);
    EXPECT_EQ(response["functionName"].AsString(), "__response__");
    EXPECT_EQ(response["statusCode"].AsUInt64(), 0u);
    EXPECT_EQ(response["to"].AsString(), reply.clientName);
    EXPECT_EQ(response["from"].AsString(), kName);
    EXPECT_NE(response["id"].AsUInt64(), 0u);
    EXPECT_EQ(response["timeStamp"].Type(), dravik::variant::kTime);
    EXPECT_EQ(response["payload"]["functionName"].AsString(), "Echo");
}

TEST_F(IpcEndpoint, a_request_without_id_gets_one_and_the_reply_carries_it) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}});
    const Reply reply = serveWhile([] { return callFunction("Echo", emptyObjectBody()); });
    ASSERT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    EXPECT_NE(handler.idSeen, 0u);
    Variant response = reply.body;
    EXPECT_EQ(response["requestId"].AsUInt64(), handler.idSeen);
}

TEST_F(IpcEndpoint, the_catch_all_rejector_names_the_function_in_its_error) {
    RecordingHandler handler(echo);
    CatchAllHandlerRejector rejector;
    initEndpoint({{"Echo", &handler}, {"", &rejector}});
    const Reply reply = serveWhile([] { return callFunction("Foo", emptyObjectBody()); });
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.errorName, "dravik.ipc.Error.Rejected");
    EXPECT_EQ(reply.errorMessage, "Function 'Foo' is not served by test_endpoint");
    EXPECT_TRUE(handler.requests.empty());
}

TEST_F(IpcEndpoint, an_unknown_function_without_catch_all_is_an_unknown_method) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}});
    const Reply reply = serveWhile([] { return callFunction("Foo", emptyObjectBody()); });
    EXPECT_EQ(reply.errorName, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_TRUE(handler.requests.empty());
}

TEST_F(IpcEndpoint, another_interface_is_an_unknown_method_even_with_a_catch_all) {
    CatchAllHandlerRejector rejector;
    initEndpoint({{"", &rejector}});
    const Reply reply =
        serveWhile([] { return callFunction("Get", emptyObjectBody(), "org.example.Other"); });
    EXPECT_EQ(reply.errorName, "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(IpcEndpoint, a_destroyed_handler_is_no_longer_called) {
    Ipc* ipc = initEndpoint();
    {
        RecordingHandler handler(echo);
        ipc->AddHandler("Echo", &handler);
    }
    const Reply reply = serveWhile([] { return callFunction("Echo", emptyObjectBody()); });
    EXPECT_EQ(reply.errorName, "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(IpcEndpoint, a_handler_that_does_not_answer_yields_the_no_response_error) {
    RecordingHandler silent;
    initEndpoint({{"Silent", &silent}});
    const Reply reply = serveWhile([] { return callFunction("Silent", emptyObjectBody()); });
    EXPECT_EQ(reply.errorName, "dravik.ipc.Error.NoResponse");
    EXPECT_EQ(reply.errorMessage, "Function 'Silent' of test_endpoint sent no response");
    EXPECT_EQ(silent.requests.size(), 1u);
}

TEST_F(IpcEndpoint, a_response_that_cannot_be_encoded_becomes_a_no_response_error) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler([](RecordingHandler& self, BaseRequestMessage& request) {
        BaseResponseMessage response;
        Variant payload = object();
        payload["text"] = "bad \xff bytes";
        response.payload(payload);
        self.sendResults.push_back(self.Endpoint()->SendResponse(request, response));
    });
    ipc->AddHandler("Broken", &handler);
    LogCapture capture;
    const Reply reply = serveWhile([] { return callFunction("Broken", emptyObjectBody()); });
    EXPECT_EQ(handler.sendResults, std::vector<bool>{false});
    EXPECT_EQ(reply.errorName, "dravik.ipc.Error.NoResponse");
    EXPECT_EQ(reply.errorMessage,
              "Function 'Broken' of test_endpoint sent no response (the response could not be "
              "encoded: member 'payload/text': a string is not valid UTF-8)");
    EXPECT_TRUE(capture.has(3,
                            "Could not encode the response to 'Broken': member 'payload/text': a "
                            "string is not valid UTF-8"));
}

TEST_F(IpcEndpoint, a_second_answer_to_the_same_call_is_refused) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler([](RecordingHandler& self, BaseRequestMessage& request) {
        echo(self, request);
        echo(self, request);
    });
    ipc->AddHandler("Twice", &handler);
    LogCapture capture;
    const Reply reply = serveWhile([] { return callFunction("Twice", emptyObjectBody()); });
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(handler.sendResults, (std::vector<bool>{true, false}));
    EXPECT_TRUE(capture.has(3, "SendResponse: the call of 'Twice' has already been answered"));
}

TEST_F(IpcEndpoint, send_response_outside_a_handler_is_refused) {
    Ipc* ipc = initEndpoint();
    BaseRequestMessage request;
    BaseResponseMessage response;
    LogCapture capture;
    EXPECT_FALSE(ipc->SendResponse(request, response));
    EXPECT_TRUE(capture.has(3, "SendResponse called outside of a request handler"));
}

// ---- Calls that expect no reply --------------------------------------------------------------

TEST_F(IpcEndpoint, a_no_reply_call_is_handled_and_gets_nothing_back) {
    RecordingHandler handler(echo);
    initEndpoint({{"Echo", &handler}, {"Quiet", &handler}});
    const Reply reply = serveWhile([] { return callWithoutReplyThenEcho("Quiet"); });
    ASSERT_TRUE(reply.ok) << reply.errorName;
    ASSERT_EQ(handler.requests.size(), 2u);
    EXPECT_EQ(handler.requests[0]["functionName"].AsString(), "Quiet");
    EXPECT_EQ(handler.requests[0]["responseExpected"].Type(), dravik::variant::kBool);
    EXPECT_FALSE(handler.requests[0]["responseExpected"].AsBool());
    EXPECT_EQ(handler.sendResults, (std::vector<bool>{true, true}));
}

TEST_F(IpcEndpoint, a_no_reply_call_that_is_not_answered_gets_no_error_either) {
    RecordingHandler silent;
    RecordingHandler handler(echo);
    initEndpoint({{"Silent", &silent}, {"Echo", &handler}});
    const Reply reply = serveWhile([] { return callWithoutReplyThenEcho("Silent"); });
    ASSERT_TRUE(reply.ok) << reply.errorName;
    EXPECT_EQ(silent.requests.size(), 1u);
}

TEST_F(IpcEndpoint, a_rejected_no_reply_call_gets_no_error) {
    RecordingHandler handler(echo);
    CatchAllHandlerRejector rejector;
    initEndpoint({{"Echo", &handler}, {"", &rejector}});
    const Reply reply = serveWhile([] { return callWithoutReplyThenEcho("Foo"); });
    ASSERT_TRUE(reply.ok) << reply.errorName;
}

// ---- Introspection -----------------------------------------------------------------------------

TEST_F(IpcEndpoint, introspection_lists_the_registered_function_names) {
    RecordingHandler handler(echo);
    CatchAllHandlerRejector rejector;
    initEndpoint({{"ShowGui", &handler}, {"ShowSimpleScreen", &handler}, {"", &rejector}});
    const Reply reply = serveWhile([] {
        Reply r;
        BusHandle bus = connect(r);
        BusError error;
        sd_bus_message* raw = nullptr;
        if (sd_bus_call_method(bus.get(), kBusName, kPath, "org.freedesktop.DBus.Introspectable",
                               "Introspect", error.get(), &raw, "") < 0) {
            r.errorName = error.name();
            return r;
        }
        MessageHandle answer(raw);
        const char* xml = nullptr;
        r.ok = sd_bus_message_read(answer.get(), "s", &xml) >= 0;
        r.introspection = xml != nullptr ? xml : "";
        return r;
    });
    ASSERT_TRUE(reply.ok) << reply.errorName;
    const std::string& xml = reply.introspection;
    EXPECT_NE(xml.find("<interface name=\"dravik.ipc.Endpoint\">"), std::string::npos) << xml;
    EXPECT_NE(xml.find("<interface name=\"org.freedesktop.DBus.Introspectable\">"),
              std::string::npos);
    for (const char* name : {"ShowGui", "ShowSimpleScreen"}) {
        SCOPED_TRACE(name);
        EXPECT_NE(xml.find(std::string("<method name=\"") + name +
                           "\">\n"
                           "   <arg name=\"request\" type=\"a{sv}\" direction=\"in\"/>\n"
                           "   <arg name=\"response\" type=\"a{sv}\" direction=\"out\"/>\n"),
                  std::string::npos)
            << xml;
    }
    EXPECT_EQ(xml.find("<method name=\"\">"), std::string::npos);
}

}  // namespace
