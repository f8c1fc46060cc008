#include "ipc_endpoint_fixture.h"

#include <cerrno>

#include "dravik_ipc/dbus_value.h"

namespace dravik::ipc::test {

namespace {

constexpr uint64_t kCallTimeoutUs = 5'000'000;

}  // namespace

Variant object() {
    return Variant::MakeContainer(dravik::variant::kObject);
}

BodyBuilder objectBody(const Variant& value) {
    return [value](sd_bus_message* m) {
        std::string error;
        return AppendObject(m, value, error) ? 0 : -EINVAL;
    };
}

BodyBuilder emptyObjectBody() {
    return objectBody(object());
}

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

Reply callFunction(const std::string& member, const BodyBuilder& body, const char* interface) {
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

void echo(RecordingHandler& handler, BaseRequestMessage& request) {
    BaseResponseMessage response;
    response.statusCode(0);
    response.payload(request);
    handler.sendResults.push_back(handler.Endpoint()->SendResponse(request, response));
    handler.idSeen = request.id();
}

}  // namespace dravik::ipc::test
