// Arbitrary method-call bodies of arbitrary signature, built through sd-bus's
// own API from the fuzz bytes (containers, variants, nesting, every basic
// type), decoded as the endpoint decodes a request, and every decoded request
// encoded back and read again.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzBytes.h"
#include "dravik_ipc/dbus_value.h"
#include "dravik_ipc/sdbus_handles.h"
#include "dravik_variant/variant.h"

using dravik::ipc::MessageHandle;
using dravik::variant::Variant;

namespace {

using Bytes = dravik::fuzz::FuzzBytes;

constexpr char kBasic[] = "ybnqiuxtdsog";
constexpr int kMaxDepth = 40;  // beyond what the decoder accepts (32), within sd-bus's own limits

// A complete type: basic, variant, array (of any type or of dictionary
// entries with a basic key) or structure.
std::string makeType(Bytes& in, int depth) {
    const uint8_t pick = in.byte();
    if (depth >= kMaxDepth || pick % 8 < 4) {
        return std::string(1, kBasic[pick % (sizeof kBasic - 1)]);
    }
    switch (pick % 8) {
        case 4:
            return "v";
        case 5:
            return "a" + makeType(in, depth + 1);
        case 6:
            return "a{" + std::string(1, kBasic[in.byte() % (sizeof kBasic - 1)]) +
                   makeType(in, depth + 1) + "}";
        default: {
            std::string fields;
            const int count = 1 + in.byte() % 3;
            for (int i = 0; i < count; ++i) {
                fields += makeType(in, depth + 1);
            }
            return "(" + fields + ")";
        }
    }
}

// Length of the complete type at the start of `t`.
size_t typeLength(const char* t) {
    switch (t[0]) {
        case 'a':
            return 1 + typeLength(t + 1);
        case '(':
        case '{': {
            const char close = t[0] == '(' ? ')' : '}';
            size_t i = 1;
            while (t[i] != close) {
                i += typeLength(t + i);
            }
            return i + 1;
        }
        default:
            return 1;
    }
}

// One fixed-size basic value, appended as `type`.
template <typename T>
int appendFixed(sd_bus_message* m, char type, T v) {
    return sd_bus_message_append_basic(m, type, &v);
}

// One value of type T from the next sizeof(T) bytes, appended as `type`.
template <typename T>
int appendWhole(sd_bus_message* m, char type, Bytes& in) {
    return appendFixed(m, type, in.value<T>());
}

// The basic types whose bytes are taken whole, each with its reader.
constexpr char kWhole[] = "nqiuxtd";
int (*const kAppendWhole[])(sd_bus_message*, char, Bytes&) = {
    &appendWhole<int16_t>, &appendWhole<uint16_t>, &appendWhole<int32_t>, &appendWhole<uint32_t>,
    &appendWhole<int64_t>, &appendWhole<uint64_t>, &appendWhole<double>};

int appendBasic(sd_bus_message* m, char type, Bytes& in) {
    const char* whole = type != '\0' ? std::strchr(kWhole, type) : nullptr;
    if (whole != nullptr) {
        return kAppendWhole[whole - kWhole](m, type, in);
    }
    switch (type) {
        case 'y':
            return appendFixed<uint8_t>(m, type, in.byte());
        case 'b':
            return appendFixed<int>(m, type, in.byte() & 1);
        case 'o': {
            const std::string path = "/" + std::to_string(in.byte());
            return sd_bus_message_append_basic(m, type, path.c_str());
        }
        case 'g': {
            const std::string signature = in.byte() & 1 ? makeType(in, kMaxDepth - 2) : "";
            return sd_bus_message_append_basic(m, type, signature.c_str());
        }
        default: {  // 's': any bytes; sd-bus refuses what is not UTF-8
            const std::string text = in.text(24);
            return sd_bus_message_append_basic(m, type, text.c_str());
        }
    }
}

// Appends one value of complete type `t` (its first typeLength(t) characters).
int appendValue(sd_bus_message* m, const char* t, Bytes& in, int depth) {
    const size_t length = typeLength(t);
    if (t[0] == 'v') {
        const std::string inner = makeType(in, depth + 1);
        int r = sd_bus_message_open_container(m, 'v', inner.c_str());
        r = r < 0 ? r : appendValue(m, inner.c_str(), in, depth + 1);
        return r < 0 ? r : sd_bus_message_close_container(m);
    }
    if (t[0] == 'a') {
        const std::string element(t + 1, length - 1);
        int r = sd_bus_message_open_container(m, 'a', element.c_str());
        const int count = in.byte() % 4;
        for (int i = 0; i < count && r >= 0; ++i) {
            r = appendValue(m, element.c_str(), in, depth + 1);
        }
        return r < 0 ? r : sd_bus_message_close_container(m);
    }
    if (t[0] == '(' || t[0] == '{') {
        const std::string contents(t + 1, length - 2);
        int r = sd_bus_message_open_container(m, t[0] == '(' ? 'r' : 'e', contents.c_str());
        for (size_t i = 0; i < contents.size() && r >= 0; i += typeLength(contents.c_str() + i)) {
            r = appendValue(m, contents.c_str() + i, in, depth + 1);
        }
        return r < 0 ? r : sd_bus_message_close_container(m);
    }
    return appendBasic(m, t[0], in);
}

// sd-bus makes messages only on a started connection; one over a socket pair
// that nobody answers is enough, and nothing is ever sent on it.
sd_bus* connection() {
    static sd_bus* bus = [] {
        int pair[2];
        sd_bus* b = nullptr;
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0 || sd_bus_new(&b) < 0 ||
            sd_bus_set_fd(b, pair[0], pair[0]) < 0 || sd_bus_start(b) < 0) {
            abort();
        }
        return b;
    }();
    return bus;
}

MessageHandle newCall() {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(connection(), &raw, "dravik.ipc.dravik_lcm_gui",
                                       "/dravik/ipc/dravik_lcm_gui", "dravik.ipc.Endpoint",
                                       "ShowGui") < 0) {
        abort();
    }
    return MessageHandle(raw);
}

bool seal(sd_bus_message* m) {
    static uint64_t cookie = 0;
    return sd_bus_message_seal(m, ++cookie, 0) >= 0 && sd_bus_message_rewind(m, 1) >= 0;
}

// What an encoded request must read back as: a null member of an object is
// left out of its dictionary (a null element of an array travels as g "").
Variant withoutNullMembers(const Variant& value) {
    if (!value.IsContainer()) {
        return value;
    }
    Variant out = Variant::MakeContainer(static_cast<dravik::variant::VariantType>(value.Type()));
    for (auto it = value.str_begin(); it != value.str_end(); ++it) {
        if (!it->second.IsNull()) {
            out[it->first] = withoutNullMembers(it->second);
        }
    }
    for (auto it = value.num_begin(); it != value.num_end(); ++it) {
        out[static_cast<int64_t>(it->first)] = withoutNullMembers(it->second);
    }
    return out;
}

// Equality in which a NaN equals a NaN: a double travels bit for bit, and NaN
// is a value a caller may send.
bool sameValue(const Variant& a, const Variant& b) {
    if (a.Type() == dravik::variant::kDouble && b.Type() == dravik::variant::kDouble &&
        std::isnan(a.AsDouble()) && std::isnan(b.AsDouble())) {
        return true;
    }
    if (!a.IsContainer() || !b.IsContainer()) {
        return a == b;
    }
    if (a.Type() != b.Type() || a.StringKeysCount() != b.StringKeysCount() ||
        a.NumericKeysCount() != b.NumericKeysCount()) {
        return false;
    }
    for (auto it = a.str_begin(); it != a.str_end(); ++it) {
        const Variant* other = b.Find(it->first);
        if (other == nullptr || !sameValue(it->second, *other)) {
            return false;
        }
    }
    for (auto it = a.num_begin(), jt = b.num_begin(); it != a.num_end(); ++it, ++jt) {
        if (it->first != jt->first || !sameValue(it->second, jt->second)) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    MessageHandle call = newCall();
    const int arguments = in.byte() % 4;
    for (int i = 0; i < arguments; ++i) {
        // Mostly dictionaries with string keys, as a request is.
        const std::string type = in.byte() % 2 ? "a{s" + makeType(in, 2) + "}" : makeType(in, 0);
        if (appendValue(call.get(), type.c_str(), in, 0) < 0) {
            return 0;  // sd-bus itself refused the value: no such message can arrive
        }
    }
    if (!seal(call.get())) {
        return 0;
    }
    Variant request;
    std::string error;
    if (!dravik::ipc::ReadObjectBody(call.get(), request, error)) {
        if (error.empty()) {
            fprintf(stderr, "a refused body carries no reason\n");
            abort();
        }
        return 0;
    }
    MessageHandle echo = newCall();
    if (!dravik::ipc::AppendObject(echo.get(), request, error)) {
        // Allowed, with its reason: a value may need more D-Bus containers as
        // a{sv}/av than it came in (a structure becomes an array of variants),
        // and the encoder refuses to go beyond what the bus carries.
        if (error.empty()) {
            fprintf(stderr, "a refused encoding carries no reason\n");
            abort();
        }
        return 0;
    }
    Variant again;
    if (!seal(echo.get()) || !dravik::ipc::ReadObjectBody(echo.get(), again, error)) {
        fprintf(stderr, "an encoded request does not decode: %s\n", error.c_str());
        abort();
    }
    if (!sameValue(again, withoutNullMembers(request))) {
        fprintf(stderr, "a request changed on its way back: %s -> %s\n", request.ToJSON().c_str(),
                again.ToJSON().c_str());
        abort();
    }
    return 0;
}
