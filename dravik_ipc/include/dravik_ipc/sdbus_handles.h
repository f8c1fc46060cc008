#pragma once

#include <systemd/sd-bus.h>

#include <memory>

// Owning handles for sd-bus objects: each releases its reference on every path
// out of a scope, so a half-built connection or message never leaks.
namespace dravik::ipc {

struct BusCloser {
    // Flushes what is queued (a reply sent just before shut-down still leaves)
    // and closes the connection before dropping the reference.
    void operator()(sd_bus* bus) const { (void)sd_bus_flush_close_unref(bus); }
};
struct SlotReleaser {
    void operator()(sd_bus_slot* slot) const { (void)sd_bus_slot_unref(slot); }
};
struct MessageReleaser {
    void operator()(sd_bus_message* message) const { (void)sd_bus_message_unref(message); }
};

using BusHandle = std::unique_ptr<sd_bus, BusCloser>;
using SlotHandle = std::unique_ptr<sd_bus_slot, SlotReleaser>;
using MessageHandle = std::unique_ptr<sd_bus_message, MessageReleaser>;

// Takes a new reference on `message` (sd-bus hands callbacks a borrowed one).
inline MessageHandle RefMessage(sd_bus_message* message) {
    return MessageHandle(sd_bus_message_ref(message));
}

// Frees the name and message of an sd_bus_error when the scope ends.
class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* get() { return &error_; }
    const char* name() const { return error_.name ? error_.name : ""; }
    const char* message() const { return error_.message ? error_.message : ""; }

private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

}  // namespace dravik::ipc
