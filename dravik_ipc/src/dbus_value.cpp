#include "dravik_ipc/dbus_value.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "dravik_utils/utils.h"

namespace dravik::ipc {

using dravik::utils::format;
using dravik::variant::Variant;
using dravik::variant::VariantType;

namespace {

// Names where in the value a failure happened: "member 'payload/text': ...",
// one step per object key or array index, outermost first.
void prefixPath(std::string& error, const std::string& step) {
    static const std::string kPrefix = "member '";
    if (error.compare(0, kPrefix.size(), kPrefix) == 0) {
        error.insert(kPrefix.size(), step + "/");
    } else {
        error = kPrefix + step + "': " + error;
    }
}

// ---- Sending ---------------------------------------------------------------

// A basic D-Bus value read out of the Variant with the Variant's own conversion.
template <char kType, typename Wire>
int appendNumber(sd_bus_message* message, const Variant& value) {
    const Wire wire = static_cast<Wire>(value);
    return sd_bus_message_append_basic(message, kType, &wire);
}

int appendBool(sd_bus_message* message, const Variant& value) {
    const int wire = value.AsBool() ? 1 : 0;  // D-Bus booleans are 32-bit on the wire
    return sd_bus_message_append_basic(message, 'b', &wire);
}

struct ScalarRule {
    VariantType type;
    const char* signature;
    int (*append)(sd_bus_message*, const Variant&);
};

// int8 has no D-Bus type of its own: it travels widened to int16.
const ScalarRule kScalarRules[] = {
    {dravik::variant::kBool, "b", appendBool},
    {dravik::variant::kUInt8, "y", appendNumber<'y', uint8_t>},
    {dravik::variant::kInt8, "n", appendNumber<'n', int16_t>},
    {dravik::variant::kInt16, "n", appendNumber<'n', int16_t>},
    {dravik::variant::kUInt16, "q", appendNumber<'q', uint16_t>},
    {dravik::variant::kInt32, "i", appendNumber<'i', int32_t>},
    {dravik::variant::kUInt32, "u", appendNumber<'u', uint32_t>},
    {dravik::variant::kInt64, "x", appendNumber<'x', int64_t>},
    {dravik::variant::kUInt64, "t", appendNumber<'t', uint64_t>},
    {dravik::variant::kDouble, "d", appendNumber<'d', double>},
};

const ScalarRule* findScalarRule(VariantType type) {
    for (const auto& rule : kScalarRules) {
        if (rule.type == type) {
            return &rule;
        }
    }
    return nullptr;
}

class Encoder {
public:
    Encoder(sd_bus_message* message, std::string& error) : message_(message), error_(error) {}

    bool variant(const Variant& value) {
        switch (value.Type()) {
            case dravik::variant::kNull:
                return null();
            case dravik::variant::kString:
                return inVariant("s", [&] { return string(value.AsString()); });
            case dravik::variant::kTime:
                return inVariant("(xx)", [&] { return time(value.AsTime()); });
            case dravik::variant::kObject:
                return inVariant("a{sv}", [&] { return dictionary(value); });
            case dravik::variant::kArray:
                return inVariant("av", [&] { return array(value); });
            default:
                return scalar(value);
        }
    }

    bool dictionary(const Variant& object) {
        if (!open('a', "{sv}")) {
            return false;
        }
        for (auto it = object.str_begin(); it != object.str_end(); ++it) {
            if (!member(it->first, it->second)) {
                return false;
            }
        }
        for (auto it = object.num_begin(); it != object.num_end(); ++it) {
            if (!member(std::to_string(it->first), it->second)) {
                return false;
            }
        }
        return close();
    }

private:
    bool check(int result, const char* step) {
        if (result >= 0) {
            return true;
        }
        error_ = format("cannot %s: %s", step, strerror(-result));
        return false;
    }

    // The bus daemon disconnects a sender whose message nests deeper than it
    // allows, which would cost the endpoint its connection: refuse it here.
    bool open(char type, const char* contents) {
        if (++openContainers_ > kMaxWireDepth) {
            error_ = format("value nested deeper than the bus allows (%zu D-Bus containers)",
                            kMaxWireDepth);
            return false;
        }
        return check(sd_bus_message_open_container(message_, type, contents), "open a container");
    }

    bool close() {
        --openContainers_;
        return check(sd_bus_message_close_container(message_), "close a container");
    }

    template <typename Body>
    bool inVariant(const char* signature, Body body) {
        return open('v', signature) && body() && close();
    }

    bool null() {
        return inVariant("g", [&] {
            return check(sd_bus_message_append_basic(message_, 'g', ""), "append a null");
        });
    }

    bool scalar(const Variant& value) {
        const ScalarRule* rule = findScalarRule(value.Type());
        if (rule == nullptr) {
            error_ = format("no D-Bus type for value tag 0x%04x", unsigned(value.Type()));
            return false;
        }
        return inVariant(rule->signature,
                         [&] { return check(rule->append(message_, value), "append a number"); });
    }

    bool string(const std::string& text) {
        // sd-bus takes C strings: an embedded NUL would cut the text short unnoticed.
        if (text.find('\0') != std::string::npos) {
            error_ = "a string contains a NUL byte";
            return false;
        }
        const int result = sd_bus_message_append_basic(message_, 's', text.c_str());
        if (result == -EINVAL) {
            error_ = "a string is not valid UTF-8";
            return false;
        }
        return check(result, "append a string");
    }

    bool time(const timeval& value) {
        const int64_t seconds = value.tv_sec;
        const int64_t micros = value.tv_usec;
        return open('r', "xx") &&
               check(sd_bus_message_append_basic(message_, 'x', &seconds), "append seconds") &&
               check(sd_bus_message_append_basic(message_, 'x', &micros), "append microseconds") &&
               close();
    }

    bool member(const std::string& key, const Variant& value) {
        if (value.IsNull()) {
            return true;
        }
        if (!open('e', "sv")) {
            return false;
        }
        if (!string(key)) {
            error_ = "member name: " + error_;
            return false;
        }
        if (!variant(value)) {
            prefixPath(error_, key);
            return false;
        }
        return close();
    }

    // Elements go out in index order; gaps between indices are not kept, and
    // string keys of an array value have no place in "av".
    bool array(const Variant& array) {
        if (!open('a', "v")) {
            return false;
        }
        for (auto it = array.num_begin(); it != array.num_end(); ++it) {
            if (!variant(it->second)) {
                prefixPath(error_, std::to_string(it->first));
                return false;
            }
        }
        return close();
    }

    sd_bus_message* message_;
    std::string& error_;
    size_t openContainers_ = 0;
};

// ---- Receiving -------------------------------------------------------------

class Decoder;
using BasicReader = bool (Decoder::*)(char type, Variant& out);

class Decoder {
public:
    Decoder(sd_bus_message* message, std::string& error) : message_(message), error_(error) {}

    // `depth` counts the containers above the value; `insideVariant` is true
    // when the value is the content of a variant (a variant there is nesting).
    bool value(Variant& out, size_t depth, bool insideVariant) {
        char type = 0;
        const char* contents = nullptr;
        const int result = sd_bus_message_peek_type(message_, &type, &contents);
        if (!check(result, "read the type")) {
            return false;
        }
        if (result == 0) {
            error_ = "a value is missing";
            return false;
        }
        switch (type) {
            case 'v':
                return variant(out, contents, insideVariant ? depth + 1 : depth);
            case 'a':
                return contents[0] == '{' ? dictionary(out, contents, depth + 1)
                                          : array(out, contents, depth + 1);
            case 'r':
                return structure(out, contents, depth + 1);
            default:
                return basic(type, out);
        }
    }

private:
    struct BasicRule {
        char type;
        BasicReader read;
    };

    bool check(int result, const char* step) {
        if (result >= 0) {
            return true;
        }
        error_ = format("cannot %s: %s", step, strerror(-result));
        return false;
    }

    bool enter(size_t depth, size_t cost) {
        if (depth > kMaxValueDepth) {
            error_ = format("value nested deeper than %zu containers", kMaxValueDepth);
            return false;
        }
        return charge(cost);
    }

    bool charge(size_t cost) {
        used_ += cost;
        if (used_ <= kMaxDecodedSize) {
            return true;
        }
        error_ = format("value larger than %zu bytes", kMaxDecodedSize);
        return false;
    }

    template <typename Wire, typename Stored>
    bool number(char type, Variant& out) {
        Wire wire{};
        if (!check(sd_bus_message_read_basic(message_, type, &wire), "read a number")) {
            return false;
        }
        out = static_cast<Stored>(wire);
        return charge(sizeof(Wire));
    }

    bool boolean(char /*type*/, Variant& out) {
        int wire = 0;
        if (!check(sd_bus_message_read_basic(message_, 'b', &wire), "read a boolean")) {
            return false;
        }
        out = wire != 0;
        return charge(sizeof(wire));
    }

    // s, o, and g: an empty signature is how a null travels.
    bool text(char type, Variant& out) {
        const char* wire = nullptr;
        if (!check(sd_bus_message_read_basic(message_, type, &wire), "read a string")) {
            return false;
        }
        const size_t length = strlen(wire);
        if (type == 'g' && length == 0) {
            out.Free();
        } else {
            out = std::string(wire, length);
        }
        return charge(length + 1);
    }

    bool refuseDescriptor(char /*type*/, Variant& /*out*/) {
        error_ = "file descriptors (h) are not accepted";
        return false;
    }

    bool basic(char type, Variant& out) {
        static const BasicRule kBasicRules[] = {
            {'y', &Decoder::number<uint8_t, unsigned char>},
            {'b', &Decoder::boolean},
            {'n', &Decoder::number<int16_t, short>},
            {'q', &Decoder::number<uint16_t, unsigned short>},
            {'i', &Decoder::number<int32_t, int>},
            {'u', &Decoder::number<uint32_t, unsigned int>},
            {'x', &Decoder::number<int64_t, long long>},
            {'t', &Decoder::number<uint64_t, unsigned long long>},
            {'d', &Decoder::number<double, double>},
            {'s', &Decoder::text},
            {'o', &Decoder::text},
            {'g', &Decoder::text},
            {'h', &Decoder::refuseDescriptor},
        };
        for (const auto& rule : kBasicRules) {
            if (rule.type == type) {
                return (this->*rule.read)(type, out);
            }
        }
        error_ = format("unsupported D-Bus type '%c'", type);
        return false;
    }

    bool variant(Variant& out, const char* contents, size_t depth) {
        return enter(depth, 1) &&
               check(sd_bus_message_enter_container(message_, 'v', contents), "open a variant") &&
               value(out, depth, true) &&
               check(sd_bus_message_exit_container(message_), "close a variant");
    }

    // An array of anything but dictionary entries becomes a Variant array.
    bool array(Variant& out, const char* contents, size_t depth) {
        if (!enter(depth, 8) ||
            !check(sd_bus_message_enter_container(message_, 'a', contents), "open an array")) {
            return false;
        }
        Variant result = Variant::MakeContainer(dravik::variant::kArray);
        int64_t index = 0;
        for (;;) {
            const int more = sd_bus_message_peek_type(message_, nullptr, nullptr);
            if (!check(more, "read an array")) {
                return false;
            }
            if (more == 0) {
                break;
            }
            if (!value(result[index], depth, false)) {
                prefixPath(error_, std::to_string(index));
                return false;
            }
            ++index;
        }
        out = std::move(result);
        return check(sd_bus_message_exit_container(message_), "close an array");
    }

    // a{s*} is an object; a dictionary keyed by anything else becomes an
    // array of [key, value] pairs.
    bool dictionary(Variant& out, const char* contents, size_t depth) {
        const std::string entry(contents + 1, strlen(contents) - 2);
        const bool stringKeys = entry[0] == 's';
        if (!enter(depth, 8) ||
            !check(sd_bus_message_enter_container(message_, 'a', contents), "open a dictionary")) {
            return false;
        }
        Variant result =
            Variant::MakeContainer(stringKeys ? dravik::variant::kObject : dravik::variant::kArray);
        for (int64_t index = 0;; ++index) {
            const int more = sd_bus_message_enter_container(message_, 'e', entry.c_str());
            if (!check(more, "open a dictionary entry")) {
                return false;
            }
            if (more == 0) {
                break;
            }
            const bool ok = stringKeys ? namedMember(result, depth) : pair(result[index], depth);
            if (!ok || !check(sd_bus_message_exit_container(message_), "close an entry")) {
                return false;
            }
        }
        out = std::move(result);
        return check(sd_bus_message_exit_container(message_), "close a dictionary");
    }

    bool namedMember(Variant& object, size_t depth) {
        const char* key = nullptr;
        if (!check(sd_bus_message_read_basic(message_, 's', &key), "read a member name") ||
            !charge(strlen(key) + 1)) {
            return false;
        }
        if (!value(object[std::string(key)], depth, false)) {
            prefixPath(error_, key);
            return false;
        }
        return true;
    }

    bool pair(Variant& out, size_t depth) {
        if (!enter(depth + 1, 8)) {
            return false;
        }
        Variant result = Variant::MakeContainer(dravik::variant::kArray);
        if (!value(result[int64_t{0}], depth + 1, false) ||
            !value(result[int64_t{1}], depth + 1, false)) {
            return false;
        }
        out = std::move(result);
        return true;
    }

    // (xx) with a microsecond part in range is how a time value travels; any
    // other struct becomes an array of its members.
    bool structure(Variant& out, const char* contents, size_t depth) {
        if (!enter(depth, 8) ||
            !check(sd_bus_message_enter_container(message_, 'r', contents), "open a struct")) {
            return false;
        }
        Variant members = Variant::MakeContainer(dravik::variant::kArray);
        for (int64_t index = 0;; ++index) {
            const int more = sd_bus_message_peek_type(message_, nullptr, nullptr);
            if (!check(more, "read a struct")) {
                return false;
            }
            if (more == 0) {
                break;
            }
            if (!value(members[index], depth, false)) {
                prefixPath(error_, std::to_string(index));
                return false;
            }
        }
        if (!check(sd_bus_message_exit_container(message_), "close a struct")) {
            return false;
        }
        out = strcmp(contents, "xx") == 0 ? asTime(std::move(members)) : std::move(members);
        return true;
    }

    static Variant asTime(Variant members) {
        const int64_t seconds = members.Find(int64_t{0})->AsInt64();
        const int64_t micros = members.Find(int64_t{1})->AsInt64();
        if (micros < 0 || micros > 999999) {
            return members;
        }
        timeval time{};
        time.tv_sec = static_cast<time_t>(seconds);
        time.tv_usec = static_cast<suseconds_t>(micros);
        return Variant(time);
    }

    sd_bus_message* message_;
    std::string& error_;
    size_t used_ = 0;
};

// The next argument is a dictionary with string keys.
bool atObject(sd_bus_message* message) {
    char type = 0;
    const char* contents = nullptr;
    return sd_bus_message_peek_type(message, &type, &contents) > 0 && type == 'a' &&
           contents[0] == '{' && contents[1] == 's';
}

}  // namespace

bool AppendVariant(sd_bus_message* message, const Variant& value, std::string& error) {
    return Encoder(message, error).variant(value);
}

bool AppendObject(sd_bus_message* message, const Variant& object, std::string& error) {
    if (!object.IsContainer()) {
        error = format("a message body must be an object, not value tag 0x%04x",
                       unsigned(object.Type()));
        return false;
    }
    return Encoder(message, error).dictionary(object);
}

bool ReadVariant(sd_bus_message* message, Variant& value, std::string& error) {
    Variant result;
    if (!Decoder(message, error).value(result, 0, false)) {
        return false;
    }
    value = std::move(result);
    return true;
}

bool ReadObjectBody(sd_bus_message* message, Variant& object, std::string& error) {
    const char* signature = sd_bus_message_get_signature(message, 1);
    if (signature == nullptr || signature[0] == '\0') {
        error = "the body must be one a{sv} dictionary, not an empty body";
        return false;
    }
    if (!atObject(message)) {
        error = format("the body must be one a{sv} dictionary, not '%s'", signature);
        return false;
    }
    Variant result;
    if (!Decoder(message, error).value(result, 0, false)) {
        return false;
    }
    const int more = sd_bus_message_peek_type(message, nullptr, nullptr);
    if (more != 0) {
        error = format("the body must be one a{sv} dictionary, not '%s'", signature);
        return false;
    }
    object = std::move(result);
    return true;
}

}  // namespace dravik::ipc
