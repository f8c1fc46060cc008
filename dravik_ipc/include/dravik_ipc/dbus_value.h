#pragma once

#include <cstddef>
#include <string>

#include "dravik_variant/variant.h"

// Declared by <systemd/sd-bus.h>; users of these functions include it themselves.
struct sd_bus_message;

// How a Variant travels on D-Bus, shared by the endpoint and the command-line
// client so that both speak exactly the same mapping.
//
// Sending:  bool b, uint8 y, int8 and int16 n, uint16 q, int32 i, uint32 u,
//           int64 x, uint64 t, double d, string s, time (xx) as (seconds,
//           microseconds), object a{sv} (null members left out), array av (a
//           null element as the empty signature g ""), a lone null as g "".
// Receiving: the same, and also: o and non-empty g as strings, empty g as null,
//           any dictionary with string keys (a{s*}) as an object, a struct of
//           exactly (xx) whose second member is 0 .. 999999 as a time value, any
//           other array, dictionary or struct as an array (a dictionary entry
//           with a non-string key becomes a [key, value] array), nested
//           variants unwrapped; file descriptors (h) are refused.
//
// Every function returns false with a one-line reason in `error` and leaves
// the message in a state that must not be sent (sd-bus poisons a message after
// a failed append). They never log: the caller knows what the value was for.
namespace dravik::ipc {

// Decoding: containers (objects, arrays, structs, and variants wrapped
// directly in a variant) allowed on any path from the top-level value down;
// the top-level request or response object counts as the first.
constexpr size_t kMaxValueDepth = 32;
// Encoding: D-Bus containers (each variant, array, dictionary entry and
// struct) allowed on any path through the body. dbus-daemon disconnects a
// sender whose message nests deeper, so a value needing more is refused.
// An object member takes three (entry, variant, dictionary): about 21 levels
// of objects fit.
constexpr size_t kMaxWireDepth = 64;
// Budget of one decoded value: every scalar, container and string byte counts.
constexpr size_t kMaxDecodedSize = size_t{16} * 1024 * 1024;

// Appends `value` as one D-Bus variant (signature "v").
[[nodiscard]] bool AppendVariant(sd_bus_message* message, const dravik::variant::Variant& value,
                                 std::string& error);

// Appends `object` as a dictionary "a{sv}": its string keys in key order, then
// its integer keys as decimal strings; null members are left out. The value
// must be a container (an object, or an array whose keys become members as
// above); a scalar or null is refused: a body is always an object.
[[nodiscard]] bool AppendObject(sd_bus_message* message, const dravik::variant::Variant& object,
                                std::string& error);

// Reads the next complete value of any type at the read position into `value`.
[[nodiscard]] bool ReadVariant(sd_bus_message* message, dravik::variant::Variant& value,
                               std::string& error);

// Reads a whole request or response body: one dictionary with string keys
// gives the object. An empty body is refused ("not an empty body"), and any
// other signature with a reason that names it.
[[nodiscard]] bool ReadObjectBody(sd_bus_message* message, dravik::variant::Variant& object,
                                  std::string& error);

}  // namespace dravik::ipc
