// What the endpoint tests share: a client that calls the endpoint from a
// thread of its own with its own connection, a handler that records what it
// gets, and the fixture that starts a private bus for each test.
#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dravik_ipc/ipc.h"
#include "dravik_ipc/sdbus_handles.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_test_support/private_bus_test.h"

namespace dravik::ipc::test {

using dravik::ipc::BusError;
using dravik::ipc::BusHandle;
using dravik::ipc::MessageHandle;
using dravik::ipc::messages::BaseMessage;
using dravik::ipc::messages::BaseRequestMessage;
using dravik::ipc::messages::BaseResponseMessage;
using dravik::testsupport::PrivateBusTest;
using dravik::variant::Variant;

constexpr const char* kName = "test_endpoint";
constexpr const char* kBusName = "dravik.ipc.test_endpoint";
constexpr const char* kPath = "/dravik/ipc/test_endpoint";

Variant object();

// ---- The client side, run on a thread of its own with its own connection ----

using BodyBuilder = std::function<int(sd_bus_message*)>;

BodyBuilder objectBody(const Variant& value);
BodyBuilder emptyObjectBody();

struct Reply {
    bool ok = false;
    std::string errorName;
    std::string errorMessage;
    Variant body;
    std::string clientName;  // unique bus name of the calling connection
    std::string introspection;
};

// A connection of its own to the system bus; null (and the reason in
// `reply`) when there is none.
BusHandle connect(Reply& reply);
MessageHandle newCall(sd_bus* bus, const std::string& member, const char* interface);
// Sends `message` and waits for its answer, read into `reply`.
void call(sd_bus* bus, sd_bus_message* message, Reply& reply);
// Calls `member` of the endpoint with the body `body` builds.
Reply callFunction(const std::string& member, const BodyBuilder& body,
                   const char* interface = Ipc::kInterface);
// Sends `member` flagged NO_REPLY_EXPECTED, then calls "Echo" and waits for
// its answer: the endpoint serves one caller's calls in order, so the first
// call has been handled by then.
Reply callWithoutReplyThenEcho(const std::string& member);

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
void echo(RecordingHandler& handler, BaseRequestMessage& request);

// ---- Fixture -----------------------------------------------------------------

class IpcEndpoint : public PrivateBusTest {
protected:
    void TearDown() override { Ipc::FreeInstance(); }

    Ipc* initEndpoint() {
        Ipc* ipc = Ipc::GetInstance();
        EXPECT_TRUE(ipc->Init(kName, false, nullptr));
        return ipc;
    }

    // Starts the endpoint and registers each handler under its function name
    // ("" for the catch-all), in the order given.
    Ipc* initEndpoint(std::initializer_list<std::pair<const char*, BaseHandler*>> handlers) {
        Ipc* ipc = initEndpoint();
        for (const auto& [functionName, handler] : handlers) {
            ipc->AddHandler(functionName, handler);
        }
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
};

}  // namespace dravik::ipc::test
