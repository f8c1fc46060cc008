#include "dravik_ipc/ipc.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <map>
#include <string>
#include <utility>

#include "dravik_ipc/dbus_value.h"
#include "dravik_ipc/sdbus_handles.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_logger/logger.h"
#include "dravik_utils/utils.h"

using dravik::ipc::BusHandle;
using dravik::ipc::MessageHandle;
using dravik::ipc::SlotHandle;
using dravik::ipc::messages::BaseRequestMessage;
using dravik::ipc::messages::BaseResponseMessage;
using dravik::utils::format;
using dravik::variant::Variant;

namespace {

Ipc* gInstance = nullptr;

constexpr const char* kIntrospectable = "org.freedesktop.DBus.Introspectable";
constexpr const char* kErrorFailed = "org.freedesktop.DBus.Error.Failed";
// sd_bus_process handles one message per call; a bound on one drain keeps a
// flood of traffic from starving the caller's display tick.
constexpr int kMaxMessagesPerDrain = 256;

bool isNameChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

std::string sanitized(const std::string& name) {
    std::string result = name;
    for (char& c : result) {
        if (!isNameChar(c)) {
            c = '_';
        }
    }
    return result;
}

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

bool expectsReply(sd_bus_message* call) {
    return sd_bus_message_get_expect_reply(call) > 0;
}

}  // namespace

struct Ipc::Impl {
    // The call being dispatched: SendResponse and SendError answer it, and
    // the endpoint answers it itself if the handler did not.
    struct DispatchedCall {
        MessageHandle message;
        std::string functionName;
        bool answered = false;
        std::string sendFailure;  // why an attempted answer could not be sent
    };

    std::string name;
    TransactionsHandler* transactions = nullptr;
    std::map<std::string, BaseHandler*> handlers;
    BusHandle bus;
    // Declared after the bus so that it is released first: a slot keeps its
    // connection alive.
    SlotHandle objectSlot;
    DispatchedCall* current = nullptr;
    size_t dispatched = 0;

    static int onMethodCall(sd_bus_message* call, void* userdata, sd_bus_error* error);
    int serve(sd_bus_message* call);
    int answerIntrospect(sd_bus_message* call) const;
    std::string introspectionXml() const;
    BaseHandler* route(const std::string& functionName) const;
    bool readRequest(sd_bus_message* call, Variant& request, std::string& error) const;
    int dispatch(sd_bus_message* call, BaseHandler* handler, const std::string& functionName);
    void answerIfHandlerDidNot(DispatchedCall& dispatchedCall) const;

    bool openBus(bool sessionBus);
    bool serveObject(const std::string& path, Ipc* owner);
    bool requestName(const std::string& busName);
    bool due() const;
    bool drain();
    bool wait(int ms, bool& traffic);
    DispatchedCall* callToAnswer(const char* operation) const;
};

// ---- Handlers ---------------------------------------------------------------

TransactionsHandler::~TransactionsHandler() = default;

BaseHandler::BaseHandler(const std::string& name) : name_(name), endpoint_(Ipc::GetInstance()) {}

BaseHandler::~BaseHandler() {
    // A handler that dies before the endpoint must not stay reachable from it.
    if (endpoint_ != nullptr && endpoint_ == gInstance) {
        endpoint_->RemoveHandler(this);
    }
}

// ---- Singleton --------------------------------------------------------------

Ipc::Ipc() : impl_(std::make_unique<Impl>()) {}
Ipc::~Ipc() = default;

Ipc* Ipc::GetInstance() {
    if (gInstance == nullptr) {
        gInstance = new Ipc();
    }
    return gInstance;
}

void Ipc::FreeInstance() {
    delete gInstance;
    gInstance = nullptr;
}

// ---- Names ------------------------------------------------------------------

std::string Ipc::BusNameFor(const std::string& name) {
    return "dravik.ipc." + sanitized(name);
}

std::string Ipc::ObjectPathFor(const std::string& name) {
    return "/dravik/ipc/" + sanitized(name);
}

bool Ipc::IsValidFunctionName(const std::string& functionName) {
    if (functionName.empty() || (functionName[0] >= '0' && functionName[0] <= '9')) {
        return false;
    }
    for (char c : functionName) {
        if (!isNameChar(c)) {
            return false;
        }
    }
    return true;
}

const std::string& Ipc::Name() const {
    return impl_->name;
}
std::string Ipc::BusName() const {
    return BusNameFor(impl_->name);
}
std::string Ipc::ObjectPath() const {
    return ObjectPathFor(impl_->name);
}

// ---- Start-up ---------------------------------------------------------------

bool Ipc::Init(const std::string& name, bool sessionBus, TransactionsHandler* transactions) {
    if (impl_->bus) {
        DRAVIK_LOG(dravik::logger::kError, 0, "IPC endpoint is already initialised as '%s'",
                   impl_->name.c_str());
        return false;
    }
    if (name.empty()) {
        DRAVIK_LOG(dravik::logger::kError, 0, "IPC endpoint needs a name");
        return false;
    }
    if (!impl_->openBus(sessionBus) || !impl_->serveObject(ObjectPathFor(name), this) ||
        !impl_->requestName(BusNameFor(name))) {
        impl_->objectSlot.reset();
        impl_->bus.reset();
        return false;
    }
    impl_->name = name;
    impl_->transactions = transactions;
    DRAVIK_LOG(dravik::logger::kInfo, 0, "IPC endpoint '%s' serves %s on the %s bus", name.c_str(),
               ObjectPathFor(name).c_str(), sessionBus ? "session" : "system");
    return true;
}

bool Ipc::Impl::openBus(bool sessionBus) {
    sd_bus* raw = nullptr;
    const int result = sessionBus ? sd_bus_open_user(&raw) : sd_bus_open_system(&raw);
    if (result < 0) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Could not connect to the %s bus",
                   sessionBus ? "session" : "system");
        return false;
    }
    bus.reset(raw);
    return true;
}

bool Ipc::Impl::serveObject(const std::string& path, Ipc* owner) {
    sd_bus_slot* raw = nullptr;
    const int result = sd_bus_add_object(bus.get(), &raw, path.c_str(), &Impl::onMethodCall, owner);
    if (result < 0) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Could not serve the object path %s",
                   path.c_str());
        return false;
    }
    objectSlot.reset(raw);
    return true;
}

// Flags 0: no queueing and no replacement, so a name owned by another
// connection makes the request fail instead of waiting in line for it.
bool Ipc::Impl::requestName(const std::string& busName) {
    const int result = sd_bus_request_name(bus.get(), busName.c_str(), 0);
    if (result == -EEXIST) {
        DRAVIK_LOG(dravik::logger::kError, 0, "The bus name %s is owned by another process",
                   busName.c_str());
        return false;
    }
    if (result < 0) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Could not own the bus name %s",
                   busName.c_str());
        return false;
    }
    return true;
}

// ---- Registration -----------------------------------------------------------

bool Ipc::AddHandler(const std::string& functionName, BaseHandler* handler) {
    if (handler == nullptr) {
        DRAVIK_LOG(dravik::logger::kError, 0, "No handler given for function '%s'",
                   functionName.c_str());
        return false;
    }
    if (!functionName.empty() && !IsValidFunctionName(functionName)) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Function name '%s' is not a valid D-Bus method name",
                   functionName.c_str());
        return false;
    }
    impl_->handlers[functionName] = handler;
    handler->SetEndpoint(this);
    return true;
}

void Ipc::RemoveHandler(const BaseHandler* handler) {
    for (auto it = impl_->handlers.begin(); it != impl_->handlers.end();) {
        it = it->second == handler ? impl_->handlers.erase(it) : std::next(it);
    }
}

// ---- Service ----------------------------------------------------------------

bool Ipc::Service(int ms) {
    if (!impl_->bus) {
        DRAVIK_LOG(dravik::logger::kError, 0, "IPC endpoint is not initialised");
        return false;
    }
    if (impl_->current != nullptr) {
        DRAVIK_LOG(dravik::logger::kError, 0, "IPC Service called from inside a handler");
        return false;
    }
    // What sd-bus already holds (messages read during a call, a timeout that
    // has passed) is served at once. Otherwise the socket is read only when
    // the wait reports traffic: an idle tick costs one wait and nothing else.
    const size_t before = impl_->dispatched;
    if (impl_->due() && !impl_->drain()) {
        return false;
    }
    if (impl_->dispatched != before) {
        return true;
    }
    bool traffic = false;
    if (!impl_->wait(ms, traffic)) {
        return false;
    }
    return !(traffic || impl_->due()) || impl_->drain();
}

// Whether sd_bus_process has work that needs nothing from the socket: messages
// sd-bus has already read and queued (sd_bus_wait returns at once for those,
// reporting no traffic), or a timeout of its own that has passed.
bool Ipc::Impl::due() const {
    uint64_t deadline = 0;
    const int result = sd_bus_get_timeout(bus.get(), &deadline);
    if (result < 0) {
        return true;  // sd_bus_process reports what is wrong
    }
    if (result == 0) {
        return false;  // nothing queued and no timeout pending
    }
    if (deadline == 0) {
        return true;
    }
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
    const uint64_t nowUs =
        static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
    return deadline <= nowUs;
}

// Runs sd_bus_process until nothing is left; only method calls served by
// onMethodCall count as dispatches (bus signals such as NameAcquired do not).
bool Ipc::Impl::drain() {
    for (int round = 0; round < kMaxMessagesPerDrain; ++round) {
        const int result = sd_bus_process(bus.get(), nullptr);
        if (result == 0) {
            break;
        }
        if (result < 0 && result != -EINTR) {
            DRAVIK_LOG(dravik::logger::kError, -result, "Processing the bus connection failed");
            return false;
        }
    }
    if (sd_bus_is_open(bus.get()) <= 0) {
        DRAVIK_LOG(dravik::logger::kError, 0, "The bus connection is closed");
        return false;
    }
    return true;
}

// Waits at most `ms` for the socket (or a timeout of sd-bus); `traffic` tells
// whether it has something to read or can take what sd-bus has to write.
bool Ipc::Impl::wait(int ms, bool& traffic) {
    const uint64_t timeout = ms > 0 ? static_cast<uint64_t>(ms) * 1000u : 0u;
    const int result = sd_bus_wait(bus.get(), timeout);
    if (result < 0 && result != -EINTR) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Waiting for bus traffic failed");
        return false;
    }
    traffic = result > 0;
    return true;
}

// ---- Dispatch -----------------------------------------------------------------

int Ipc::Impl::onMethodCall(sd_bus_message* call, void* userdata, sd_bus_error* /*error*/) {
    // No exception may cross sd-bus's C frames.
    try {
        return static_cast<Ipc*>(userdata)->impl_->serve(call);
    } catch (const std::exception& e) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Serving %s failed: %s",
                   orEmpty(sd_bus_message_get_member(call)), e.what());
    } catch (...) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Serving %s failed",
                   orEmpty(sd_bus_message_get_member(call)));
    }
    (void)sd_bus_reply_method_errorf(call, kErrorFailed, "Internal error");
    return 1;
}

int Ipc::Impl::serve(sd_bus_message* call) {
    if (sd_bus_message_is_method_call(call, nullptr, nullptr) <= 0) {
        return 0;
    }
    ++dispatched;
    const std::string interface = orEmpty(sd_bus_message_get_interface(call));
    const std::string member = orEmpty(sd_bus_message_get_member(call));
    if (interface == kIntrospectable && member == "Introspect") {
        return answerIntrospect(call);
    }
    BaseHandler* handler = route(member);
    if ((!interface.empty() && interface != kInterface) || handler == nullptr) {
        (void)sd_bus_reply_method_errorf(call, kErrorUnknownMethod,
                                         "Unknown method '%s' or interface '%s'", member.c_str(),
                                         interface.c_str());
        return 1;
    }
    return dispatch(call, handler, member);
}

BaseHandler* Ipc::Impl::route(const std::string& functionName) const {
    auto it = handlers.find(functionName);
    if (it == handlers.end()) {
        it = handlers.find("");
    }
    return it != handlers.end() ? it->second : nullptr;
}

int Ipc::Impl::dispatch(sd_bus_message* call, BaseHandler* handler,
                        const std::string& functionName) {
    Variant value;
    std::string error;
    if (!readRequest(call, value, error)) {
        DRAVIK_LOG(dravik::logger::kWarning, 0, "Refused a malformed call of '%s' from %s: %s",
                   functionName.c_str(), orEmpty(sd_bus_message_get_sender(call)), error.c_str());
        (void)sd_bus_reply_method_errorf(call, kErrorInvalidArgs, "Invalid request for '%s': %s",
                                         functionName.c_str(), error.c_str());
        return 1;
    }
    BaseRequestMessage request(std::move(value));
    DispatchedCall dispatchedCall{dravik::ipc::RefMessage(call), functionName, false, {}};
    current = &dispatchedCall;
    bool flag = false;
    try {
        (void)handler->HandleRequest(request, flag);  // answering is the handler's business
    } catch (...) {
        current = nullptr;
        throw;
    }
    current = nullptr;
    answerIfHandlerDidNot(dispatchedCall);
    return 1;
}

// The request object with the envelope fields that only the call itself knows.
bool Ipc::Impl::readRequest(sd_bus_message* call, Variant& request, std::string& error) const {
    if (!dravik::ipc::ReadObjectBody(call, request, error)) {
        return false;
    }
    request["responseExpected"] = expectsReply(call);
    request["functionName"] = orEmpty(sd_bus_message_get_member(call));
    request["from"] = orEmpty(sd_bus_message_get_sender(call));
    request["to"] = name;
    return true;
}

// A caller that waits for a reply always gets one, so it never runs into its
// own timeout because a handler forgot to answer.
void Ipc::Impl::answerIfHandlerDidNot(DispatchedCall& dispatchedCall) const {
    sd_bus_message* call = dispatchedCall.message.get();
    if (dispatchedCall.answered || !expectsReply(call)) {
        return;
    }
    const std::string reason =
        dispatchedCall.sendFailure.empty() ? "" : " (" + dispatchedCall.sendFailure + ")";
    const int result = sd_bus_reply_method_errorf(
        call, kErrorNoResponse, "Function '%s' of %s sent no response%s",
        dispatchedCall.functionName.c_str(), name.c_str(), reason.c_str());
    if (result < 0) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Could not answer '%s' with an error",
                   dispatchedCall.functionName.c_str());
    }
}

int Ipc::Impl::answerIntrospect(sd_bus_message* call) const {
    const int result = sd_bus_reply_method_return(call, "s", introspectionXml().c_str());
    if (result < 0) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Could not answer Introspect");
    }
    return 1;
}

// Function names are checked by AddHandler, so they need no XML escaping.
std::string Ipc::Impl::introspectionXml() const {
    std::string xml =
        "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n"
        "<node>\n"
        " <interface name=\"org.freedesktop.DBus.Introspectable\">\n"
        "  <method name=\"Introspect\">\n"
        "   <arg name=\"xml_data\" type=\"s\" direction=\"out\"/>\n"
        "  </method>\n"
        " </interface>\n"
        " <interface name=\"org.freedesktop.DBus.Peer\">\n"
        "  <method name=\"Ping\"/>\n"
        "  <method name=\"GetMachineId\">\n"
        "   <arg name=\"machine_uuid\" type=\"s\" direction=\"out\"/>\n"
        "  </method>\n"
        " </interface>\n";
    xml += format(" <interface name=\"%s\">\n", kInterface);
    for (const auto& entry : handlers) {
        if (entry.first.empty()) {
            continue;
        }
        xml += format(
            "  <method name=\"%s\">\n"
            "   <arg name=\"request\" type=\"a{sv}\" direction=\"in\"/>\n"
            "   <arg name=\"response\" type=\"a{sv}\" direction=\"out\"/>\n"
            "  </method>\n",
            entry.first.c_str());
    }
    xml += " </interface>\n</node>\n";
    return xml;
}

// ---- Answers ------------------------------------------------------------------

Ipc::Impl::DispatchedCall* Ipc::Impl::callToAnswer(const char* operation) const {
    if (current == nullptr) {
        DRAVIK_LOG(dravik::logger::kError, 0, "%s called outside of a request handler", operation);
        return nullptr;
    }
    if (current->answered) {
        DRAVIK_LOG(dravik::logger::kError, 0, "%s: the call of '%s' has already been answered",
                   operation, current->functionName.c_str());
        return nullptr;
    }
    return current;
}

bool Ipc::SendResponse(BaseRequestMessage& request, BaseResponseMessage& response) {
    auto* dispatchedCall = impl_->callToAnswer("SendResponse");
    if (dispatchedCall == nullptr) {
        return false;
    }
    sd_bus_message* call = dispatchedCall->message.get();
    response.requestId(request.id());
    response.to(orEmpty(sd_bus_message_get_sender(call)));
    response.from(impl_->name);
    (void)response.NormalizeFields();  // repairs fields; it cannot fail on an object
    // sd-bus reports a reply to a call flagged NO_REPLY_EXPECTED as sent, but
    // the bus never delivers it: such a call is done without sending anything.
    if (!expectsReply(call)) {
        dispatchedCall->answered = true;
        return true;
    }
    sd_bus_message* raw = nullptr;
    int result = sd_bus_message_new_method_return(call, &raw);
    MessageHandle reply(raw);
    std::string error;
    if (result >= 0 && !dravik::ipc::AppendObject(reply.get(), response, error)) {
        DRAVIK_LOG(dravik::logger::kError, 0, "Could not encode the response to '%s': %s",
                   dispatchedCall->functionName.c_str(), error.c_str());
        dispatchedCall->sendFailure = "the response could not be encoded: " + error;
        return false;
    }
    if (result >= 0) {
        result = sd_bus_send(nullptr, reply.get(), nullptr);
    }
    if (result < 0) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Could not send the response to '%s'",
                   dispatchedCall->functionName.c_str());
        dispatchedCall->sendFailure = "the response could not be sent";
        return false;
    }
    dispatchedCall->answered = true;
    return true;
}

bool Ipc::SendError(BaseRequestMessage& /*request*/, const std::string& errorName,
                    const std::string& message) {
    auto* dispatchedCall = impl_->callToAnswer("SendError");
    if (dispatchedCall == nullptr) {
        return false;
    }
    sd_bus_message* call = dispatchedCall->message.get();
    if (!expectsReply(call)) {
        dispatchedCall->answered = true;
        return true;
    }
    const int result = sd_bus_reply_method_errorf(call, errorName.c_str(), "%s", message.c_str());
    if (result < 0) {
        DRAVIK_LOG(dravik::logger::kError, -result, "Could not send the error %s to '%s'",
                   errorName.c_str(), dispatchedCall->functionName.c_str());
        dispatchedCall->sendFailure = "the error " + errorName + " could not be sent";
        return false;
    }
    dispatchedCall->answered = true;
    return true;
}
