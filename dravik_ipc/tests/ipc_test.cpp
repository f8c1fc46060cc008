#include "dravik_ipc/ipc.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "dravik_ipc/dbus_value.h"
#include "dravik_ipc/sdbus_handles.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/log_capture.h"
#include "dravik_test_support/private_bus.h"

using dravik::ipc::AppendObject;
using dravik::ipc::BusError;
using dravik::ipc::BusHandle;
using dravik::ipc::MessageHandle;
using dravik::ipc::ReadObjectBody;
using dravik::ipc::messages::BaseMessage;
using dravik::ipc::messages::BaseRequestMessage;
using dravik::ipc::messages::BaseResponseMessage;
using dravik::logger::LogCapture;
using dravik::testsupport::PrivateBus;
using dravik::variant::Variant;

namespace {

constexpr const char* kName = "test_endpoint";
constexpr const char* kBusName = "dravik.ipc.test_endpoint";
constexpr const char* kPath = "/dravik/ipc/test_endpoint";
constexpr uint64_t kCallTimeoutUs = 5'000'000;

Variant object() {
    return Variant::MakeContainer(dravik::variant::kObject);
}

// ---- The client side, run on a thread of its own with its own connection ----

using BodyBuilder = std::function<int(sd_bus_message*)>;

BodyBuilder objectBody(const Variant& value) {
    return [value](sd_bus_message* m) {
        std::string error;
        return AppendObject(m, value, error) ? 0 : -EINVAL;
    };
}

BodyBuilder emptyObjectBody() {
    return objectBody(object());
}

struct Reply {
    bool ok = false;
    std::string errorName;
    std::string errorMessage;
    Variant body;
    std::string clientName;  // unique bus name of the calling connection
    std::string introspection;
};

BusHandle connect(Reply& reply) {
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) {
        reply.errorName = "client: cannot connect";
        return nullptr;
    }
    BusHandle bus(raw);
    const char* unique = nullptr;
    (void)sd_bus_get_unique_name(bus.get(), &unique);
    reply.clientName = unique != nullptr ? unique : "";
    return bus;
}

MessageHandle newCall(sd_bus* bus, const std::string& member, const char* interface) {
    sd_bus_message* raw = nullptr;
    (void)sd_bus_message_new_method_call(bus, &raw, kBusName, kPath, interface, member.c_str());
    return MessageHandle(raw);
}

void call(sd_bus* bus, sd_bus_message* message, Reply& reply) {
    BusError error;
    sd_bus_message* raw = nullptr;
    const int result = sd_bus_call(bus, message, kCallTimeoutUs, error.get(), &raw);
    MessageHandle answer(raw);
    if (result < 0) {
        reply.errorName = error.name();
        reply.errorMessage = error.message();
        return;
    }
    std::string readError;
    reply.ok = ReadObjectBody(answer.get(), reply.body, readError);
    if (!reply.ok) {
        reply.errorName = "client: " + readError;
    }
}

Reply callFunction(const std::string& member, const BodyBuilder& body,
                   const char* interface = Ipc::kInterface) {
    Reply reply;
    BusHandle bus = connect(reply);
    if (!bus) {
        return reply;
    }
    MessageHandle message = newCall(bus.get(), member, interface);
    if (!message || body(message.get()) < 0) {
        reply.errorName = "client: cannot build the call";
        return reply;
    }
    call(bus.get(), message.get(), reply);
    return reply;
}

// Sends `member` flagged NO_REPLY_EXPECTED, then calls "Echo" and waits for
// its answer: the endpoint serves one caller's calls in order, so the first
// call has been handled by then.
Reply callWithoutReplyThenEcho(const std::string& member) {
    Reply reply;
    BusHandle bus = connect(reply);
    if (!bus) {
        return reply;
    }
    MessageHandle first = newCall(bus.get(), member, Ipc::kInterface);
    (void)emptyObjectBody()(first.get());
    (void)sd_bus_message_set_expect_reply(first.get(), 0);
    if (sd_bus_send(bus.get(), first.get(), nullptr) < 0) {
        reply.errorName = "client: cannot send";
        return reply;
    }
    MessageHandle echo = newCall(bus.get(), "Echo", Ipc::kInterface);
    (void)emptyObjectBody()(echo.get());
    call(bus.get(), echo.get(), reply);
    return reply;
}

// ---- Handlers ----------------------------------------------------------------

class RecordingHandler : public BaseHandler {
public:
    using Action = std::function<void(RecordingHandler&, BaseRequestMessage&)>;
    explicit RecordingHandler(Action action = {})
        : BaseHandler("RecordingHandler"), action_(std::move(action)) {}

    void MessageSentSuccessfully(BaseMessage& /*message*/, bool& /*flag*/) override {}
    bool HandleResponse(BaseRequestMessage& /*request*/, BaseResponseMessage& /*response*/,
                        bool& /*flag*/) override {
        return true;
    }
    bool HandleRequest(BaseRequestMessage& request, bool& /*flag*/) override {
        requests.emplace_back(request);
        if (action_) {
            action_(*this, request);
        }
        return true;
    }

    std::vector<Variant> requests;
    std::vector<bool> sendResults;
    uint64_t idSeen = 0;

private:
    Action action_;
};

// Answers with status 0 and the request itself as the payload.
void echo(RecordingHandler& handler, BaseRequestMessage& request) {
    BaseResponseMessage response;
    response.statusCode(0);
    response.payload(request);
    handler.sendResults.push_back(handler.Endpoint()->SendResponse(request, response));
    handler.idSeen = request.id();
}

// ---- Fixture -----------------------------------------------------------------

class IpcEndpoint : public ::testing::Test {
protected:
    void SetUp() override {
        if (!PrivateBus::DaemonInstalled()) {
            GTEST_SKIP() << "dbus-daemon is not installed: these tests need a private bus";
        }
        std::string why;
        ASSERT_TRUE(bus_.Start(why)) << why;
    }

    void TearDown() override { Ipc::FreeInstance(); }

    Ipc* initEndpoint() {
        Ipc* ipc = Ipc::GetInstance();
        EXPECT_TRUE(ipc->Init(kName, false, nullptr));
        return ipc;
    }

    // Runs `client` on a thread of its own while this thread serves the
    // endpoint, as the daemon's main loop does.
    Reply serveWhile(const std::function<Reply()>& client) {
        return pumpWhile(client, [] { return Ipc::GetInstance()->Service(10); });
    }

    Reply pumpWhile(const std::function<Reply()>& client, const std::function<bool()>& pump) {
        std::atomic<bool> done{false};
        Reply reply;
        std::thread thread([&] {
            reply = client();
            done = true;
        });
        bool pumping = true;
        while (!done && pumping) {
            pumping = pump();
        }
        thread.join();
        EXPECT_TRUE(pumping) << "serving failed while the client was running";
        return reply;
    }

    PrivateBus bus_;
};

// ---- Start-up and names ------------------------------------------------------------

TEST_F(IpcEndpoint, init_owns_the_well_known_name_on_the_bus) {
    initEndpoint();
    Reply reply;
    BusHandle bus = connect(reply);
    ASSERT_TRUE(bus);
    BusError error;
    sd_bus_message* raw = nullptr;
    ASSERT_GE(sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "NameHasOwner", error.get(), &raw, "s",
                                 kBusName),
              0)
        << error.message();
    MessageHandle answer(raw);
    int owned = 0;
    ASSERT_GE(sd_bus_message_read(answer.get(), "b", &owned), 0);
    EXPECT_TRUE(owned);
    EXPECT_EQ(Ipc::GetInstance()->Name(), kName);
}

TEST_F(IpcEndpoint, init_on_the_session_bus_uses_its_address) {
    EXPECT_TRUE(Ipc::GetInstance()->Init(kName, true, nullptr));
    RecordingHandler handler(echo);
    Ipc::GetInstance()->AddHandler("Echo", &handler);
    const Reply reply = serveWhile([] { return callFunction("Echo", emptyObjectBody()); });
    EXPECT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
}

TEST_F(IpcEndpoint, init_fails_when_another_connection_owns_the_name) {
    Reply unused;
    BusHandle other = connect(unused);
    ASSERT_TRUE(other);
    ASSERT_GE(sd_bus_request_name(other.get(), kBusName, 0), 0);
    LogCapture capture;
    EXPECT_FALSE(Ipc::GetInstance()->Init(kName, false, nullptr));
    EXPECT_TRUE(
        capture.has(3, "The bus name dravik.ipc.test_endpoint is owned by another process"));
    EXPECT_FALSE(Ipc::GetInstance()->Service(0));
}

TEST_F(IpcEndpoint, init_twice_is_refused) {
    initEndpoint();
    LogCapture capture;
    EXPECT_FALSE(Ipc::GetInstance()->Init("other", false, nullptr));
    EXPECT_TRUE(capture.has(3, "IPC endpoint is already initialised as 'test_endpoint'"));
}

TEST_F(IpcEndpoint, init_fails_without_a_reachable_bus) {
    bus_.Kill();
    EXPECT_FALSE(Ipc::GetInstance()->Init(kName, false, nullptr));
}

TEST_F(IpcEndpoint, names_replace_every_character_outside_letters_digits_and_underscore) {
    EXPECT_EQ(Ipc::BusNameFor("dravik_lcm_gui"), "dravik.ipc.dravik_lcm_gui");
    EXPECT_EQ(Ipc::ObjectPathFor("dravik_lcm_gui"), "/dravik/ipc/dravik_lcm_gui");
    EXPECT_EQ(Ipc::BusNameFor("my-app.v2/x"), "dravik.ipc.my_app_v2_x");
    EXPECT_EQ(Ipc::ObjectPathFor("my-app.v2/x"), "/dravik/ipc/my_app_v2_x");
    ASSERT_TRUE(Ipc::GetInstance()->Init("my-app.v2", false, nullptr));
    EXPECT_EQ(Ipc::GetInstance()->BusName(), "dravik.ipc.my_app_v2");
    EXPECT_EQ(Ipc::GetInstance()->ObjectPath(), "/dravik/ipc/my_app_v2");
}

TEST_F(IpcEndpoint, service_before_init_fails) {
    LogCapture capture;
    EXPECT_FALSE(Ipc::GetInstance()->Service(0));
    EXPECT_TRUE(capture.has(3, "IPC endpoint is not initialised"));
}

// ---- Registration ---------------------------------------------------------------------

TEST_F(IpcEndpoint, add_handler_refuses_names_that_are_not_dbus_method_names) {
    RecordingHandler handler;
    const char* bad[] = {"Bad-Name", "9lives", "dotted.name", "sp ace"};
    for (const char* name : bad) {
        SCOPED_TRACE(name);
        LogCapture capture;
        EXPECT_FALSE(Ipc::GetInstance()->AddHandler(name, &handler));
        EXPECT_TRUE(capture.has(
            3, std::string("Function name '") + name + "' is not a valid D-Bus method name"));
    }
    const char* good[] = {"ShowGui", "_private", "a1", ""};
    for (const char* name : good) {
        SCOPED_TRACE(name);
        EXPECT_TRUE(Ipc::GetInstance()->AddHandler(name, &handler));
    }
    EXPECT_FALSE(Ipc::GetInstance()->AddHandler("Null", nullptr));
}

TEST_F(IpcEndpoint, add_handler_makes_the_endpoint_the_handlers_endpoint) {
    RecordingHandler handler;
    EXPECT_EQ(handler.Endpoint(), Ipc::GetInstance());
    handler.SetEndpoint(nullptr);
    ASSERT_TRUE(Ipc::GetInstance()->AddHandler("Echo", &handler));
    EXPECT_EQ(handler.Endpoint(), Ipc::GetInstance());
    EXPECT_EQ(handler.Name(), "RecordingHandler");
}

// ---- Dispatch -------------------------------------------------------------------------

TEST_F(IpcEndpoint, requests_reach_the_handler_registered_under_their_name) {
    Ipc* ipc = initEndpoint();
    RecordingHandler first(echo);
    RecordingHandler second(echo);
    ipc->AddHandler("First", &first);
    ipc->AddHandler("Second", &second);
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
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
    const Reply reply = serveWhile([] { return callFunction("Echo", emptyObjectBody(), nullptr); });
    EXPECT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    EXPECT_EQ(handler.requests.size(), 1u);
}

TEST_F(IpcEndpoint, the_reply_is_the_normalised_response_tied_to_the_request_id) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
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
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
    const Reply reply = serveWhile([] { return callFunction("Echo", emptyObjectBody()); });
    ASSERT_TRUE(reply.ok) << reply.errorName << ": " << reply.errorMessage;
    EXPECT_NE(handler.idSeen, 0u);
    Variant response = reply.body;
    EXPECT_EQ(response["requestId"].AsUInt64(), handler.idSeen);
}

TEST_F(IpcEndpoint, the_catch_all_rejector_names_the_function_in_its_error) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    CatchAllHandlerRejector rejector;
    ipc->AddHandler("Echo", &handler);
    ipc->AddHandler("", &rejector);
    const Reply reply = serveWhile([] { return callFunction("Foo", emptyObjectBody()); });
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.errorName, "dravik.ipc.Error.Rejected");
    EXPECT_EQ(reply.errorMessage, "Function 'Foo' is not served by test_endpoint");
    EXPECT_TRUE(handler.requests.empty());
}

TEST_F(IpcEndpoint, an_unknown_function_without_catch_all_is_an_unknown_method) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
    const Reply reply = serveWhile([] { return callFunction("Foo", emptyObjectBody()); });
    EXPECT_EQ(reply.errorName, "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_TRUE(handler.requests.empty());
}

TEST_F(IpcEndpoint, another_interface_is_an_unknown_method_even_with_a_catch_all) {
    Ipc* ipc = initEndpoint();
    CatchAllHandlerRejector rejector;
    ipc->AddHandler("", &rejector);
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
    Ipc* ipc = initEndpoint();
    RecordingHandler silent;
    ipc->AddHandler("Silent", &silent);
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
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
    ipc->AddHandler("Quiet", &handler);
    const Reply reply = serveWhile([] { return callWithoutReplyThenEcho("Quiet"); });
    ASSERT_TRUE(reply.ok) << reply.errorName;
    ASSERT_EQ(handler.requests.size(), 2u);
    EXPECT_EQ(handler.requests[0]["functionName"].AsString(), "Quiet");
    EXPECT_EQ(handler.requests[0]["responseExpected"].Type(), dravik::variant::kBool);
    EXPECT_FALSE(handler.requests[0]["responseExpected"].AsBool());
    EXPECT_EQ(handler.sendResults, (std::vector<bool>{true, true}));
}

TEST_F(IpcEndpoint, a_no_reply_call_that_is_not_answered_gets_no_error_either) {
    Ipc* ipc = initEndpoint();
    RecordingHandler silent;
    RecordingHandler handler(echo);
    ipc->AddHandler("Silent", &silent);
    ipc->AddHandler("Echo", &handler);
    const Reply reply = serveWhile([] { return callWithoutReplyThenEcho("Silent"); });
    ASSERT_TRUE(reply.ok) << reply.errorName;
    EXPECT_EQ(silent.requests.size(), 1u);
}

TEST_F(IpcEndpoint, a_rejected_no_reply_call_gets_no_error) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    CatchAllHandlerRejector rejector;
    ipc->AddHandler("Echo", &handler);
    ipc->AddHandler("", &rejector);
    const Reply reply = serveWhile([] { return callWithoutReplyThenEcho("Foo"); });
    ASSERT_TRUE(reply.ok) << reply.errorName;
}

// ---- Introspection -----------------------------------------------------------------------------

TEST_F(IpcEndpoint, introspection_lists_the_registered_function_names) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    CatchAllHandlerRejector rejector;
    ipc->AddHandler("ShowGui", &handler);
    ipc->AddHandler("ShowSimpleScreen", &handler);
    ipc->AddHandler("", &rejector);
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

// ---- Request bodies ----------------------------------------------------------------------------

TEST_F(IpcEndpoint, every_value_type_survives_the_trip_through_the_bus) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
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
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("ShowGui", &handler);
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
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
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
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
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

// ---- Service ---------------------------------------------------------------------------------

TEST_F(IpcEndpoint, service_returns_true_without_dispatching_when_idle) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_TRUE(ipc->Service(1));
    }
    EXPECT_TRUE(handler.requests.empty());
}

TEST_F(IpcEndpoint, service_dispatches_a_call_that_arrives_during_its_wait) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Echo", &handler);
    EXPECT_TRUE(ipc->Service(0));  // takes in what Init left (NameAcquired)
    std::thread client([] { (void)callFunction("Echo", emptyObjectBody()); });
    bool served = true;
    for (int turn = 0; turn < 100 && handler.requests.empty() && served; ++turn) {
        served = ipc->Service(10000);
    }
    client.join();
    EXPECT_TRUE(served);
    EXPECT_EQ(handler.requests.size(), 1u);
}

TEST_F(IpcEndpoint, service_returns_right_after_dispatching_what_has_arrived) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Quiet", &handler);
    // The bus answers GetId only after it has passed on the caller's earlier
    // message, so the call is waiting in the endpoint's socket afterwards.
    std::thread client([] {
        Reply reply;
        BusHandle bus = connect(reply);
        MessageHandle quiet = newCall(bus.get(), "Quiet", Ipc::kInterface);
        (void)emptyObjectBody()(quiet.get());
        (void)sd_bus_message_set_expect_reply(quiet.get(), 0);
        (void)sd_bus_send(bus.get(), quiet.get(), nullptr);
        BusError error;
        sd_bus_message* raw = nullptr;
        (void)sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", error.get(), &raw, "");
        MessageHandle answer(raw);
    });
    client.join();
    // A generous bound: an endpoint that waited out its time after
    // dispatching would take the whole minute.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(ipc->Service(60000));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(handler.requests.size(), 1u);
}

TEST_F(IpcEndpoint, service_serves_a_burst_longer_than_one_drain_without_waiting) {
    Ipc* ipc = initEndpoint();
    RecordingHandler handler(echo);
    ipc->AddHandler("Quiet", &handler);
    constexpr size_t kBurst = 300;  // more than one call of Service takes in
    std::thread client([] {
        Reply reply;
        BusHandle bus = connect(reply);
        for (size_t i = 0; i < kBurst; ++i) {
            MessageHandle quiet = newCall(bus.get(), "Quiet", Ipc::kInterface);
            (void)emptyObjectBody()(quiet.get());
            (void)sd_bus_message_set_expect_reply(quiet.get(), 0);
            (void)sd_bus_send(bus.get(), quiet.get(), nullptr);
        }
        // Answered only after the bus has passed on every call before it.
        BusError error;
        sd_bus_message* raw = nullptr;
        (void)sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", error.get(), &raw, "");
        MessageHandle answer(raw);
    });
    client.join();
    // Every call is waiting, in the socket or already read: no call of
    // Service may wait out its minute while any is left.
    const auto start = std::chrono::steady_clock::now();
    for (int turn = 0; turn < 10 && handler.requests.size() < kBurst; ++turn) {
        ASSERT_TRUE(ipc->Service(60000));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(handler.requests.size(), kBurst);
}

TEST_F(IpcEndpoint, service_fails_when_the_bus_goes_away) {
    Ipc* ipc = initEndpoint();
    EXPECT_TRUE(ipc->Service(0));
    bus_.Kill();
    bool served = true;
    for (int turn = 0; turn < 100 && served; ++turn) {
        served = ipc->Service(10);
    }
    EXPECT_FALSE(served);
}

TEST_F(IpcEndpoint, free_instance_gives_the_name_back) {
    initEndpoint();
    Ipc::FreeInstance();
    EXPECT_TRUE(Ipc::GetInstance()->Init(kName, false, nullptr));
}

}  // namespace
