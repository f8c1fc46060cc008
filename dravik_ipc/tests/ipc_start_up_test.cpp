// The endpoint's start-up: the names it takes on the bus and the handlers it registers.
#include <gtest/gtest.h>

#include <string>

#include "dravik_ipc/ipc.h"
#include "dravik_ipc/sdbus_handles.h"
#include "dravik_logger/log_capture.h"
#include "ipc_endpoint_fixture.h"

namespace {

using dravik::logger::LogCapture;
using namespace dravik::ipc::test;

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

TEST_F(IpcEndpoint, free_instance_gives_the_name_back) {
    initEndpoint();
    Ipc::FreeInstance();
    EXPECT_TRUE(Ipc::GetInstance()->Init(kName, false, nullptr));
}

}  // namespace
