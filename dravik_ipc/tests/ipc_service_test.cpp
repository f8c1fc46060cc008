// Service: waiting for calls, dispatching what has arrived, and the bus going away.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "dravik_ipc/ipc.h"
#include "dravik_ipc/sdbus_handles.h"
#include "ipc_endpoint_fixture.h"

namespace {

using namespace dravik::ipc::test;

// ---- Service ---------------------------------------------------------------------------------

// Sends `count` calls of "Quiet" that expect no reply from a client of its
// own, and returns once the bus has passed them all on: the bus answers GetId
// only after every message the client sent before it.
void sendQuietCalls(size_t count) {
    std::thread client([count] {
        Reply reply;
        BusHandle bus = connect(reply);
        for (size_t i = 0; i < count; ++i) {
            MessageHandle quiet = newCall(bus.get(), "Quiet", Ipc::kInterface);
            (void)emptyObjectBody()(quiet.get());
            (void)sd_bus_message_set_expect_reply(quiet.get(), 0);
            (void)sd_bus_send(bus.get(), quiet.get(), nullptr);
        }
        BusError error;
        sd_bus_message* raw = nullptr;
        (void)sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus", "GetId", error.get(), &raw, "");
        MessageHandle answer(raw);
    });
    client.join();
}

TEST_F(IpcEndpoint, service_returns_true_without_dispatching_when_idle) {
    RecordingHandler handler(echo);
    Ipc* ipc = initEndpoint({{"Echo", &handler}});
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_TRUE(ipc->Service(1));
    }
    EXPECT_TRUE(handler.requests.empty());
}

TEST_F(IpcEndpoint, service_dispatches_a_call_that_arrives_during_its_wait) {
    RecordingHandler handler(echo);
    Ipc* ipc = initEndpoint({{"Echo", &handler}});
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
    RecordingHandler handler(echo);
    Ipc* ipc = initEndpoint({{"Quiet", &handler}});
    // The bus answers GetId only after it has passed on the caller's earlier
    // message, so the call is waiting in the endpoint's socket afterwards.
    sendQuietCalls(1);
    // A generous bound: an endpoint that waited out its time after
    // dispatching would take the whole minute.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(ipc->Service(60000));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(handler.requests.size(), 1u);
}

TEST_F(IpcEndpoint, service_serves_a_burst_longer_than_one_drain_without_waiting) {
    RecordingHandler handler(echo);
    Ipc* ipc = initEndpoint({{"Quiet", &handler}});
    constexpr size_t kBurst = 300;  // more than one call of Service takes in
    sendQuietCalls(kBurst);
    // Every call is sent: each call of Service takes what the bus has passed on
    // so far (a turn may find only part of the burst, as the bus daemon
    // forwards it), and none may wait out its minute while a call is left.
    const auto start = std::chrono::steady_clock::now();
    for (size_t turn = 0; turn < kBurst && handler.requests.size() < kBurst; ++turn) {
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

}  // namespace
