#pragma once

// The machinery behind the message accessors of messages.h: field kinds (what a
// stored value must look like and what the accessors hand out) and the
// generator macro that turns one row of a class's field table into its getter
// and setter. Users of the messages need only messages.h.

#include <sys/time.h>

#include <cstdint>
#include <string>

#include "dravik_variant/variant.h"

namespace dravik::ipc::messages {

class LcmGuiTextSettingsElementRef;
class LcmGuiImgSettingsElementRef;

// A fresh message id: nanoseconds of the monotonic clock modulo 2^48, with the
// low 16 bits of the process id in the top 16 bits.
uint64_t MakeMessageId();

namespace detail {

using variant::Variant;
using variant::VariantType;

// The object guard: a value that is neither an object nor an array loses its
// content and becomes an empty object. Runs before every field access.
void EnsureContainer(Variant& message);

// The child under `key` after the getter's repair: inserted with
// `makeDefault()` when missing, overwritten with it when its tag fails `accepts`.
Variant& RepairField(Variant& message, const char* key, bool (*accepts)(uint16_t),
                     Variant (*makeDefault)());

// The setter: the object guard, then `value` stored under `key` as it is.
void AssignField(Variant& message, const char* key, Variant value);

timeval Now();          // default of "timeStamp"
Variant EmptyObject();  // default of the element records "text" and "img"

}  // namespace detail

// Field kinds. Each says which stored tags a field accepts, the type a getter
// returns (`Get`) and a setter takes (`Set`), the width it is stored in
// (`Value`), and how a value is read from and stored into a Variant.
namespace field {

using variant::Variant;

struct String {
    using Value = std::string;
    using Get = std::string;
    using Set = const std::string&;
    static bool Accepts(uint16_t tag) { return variant::Matches(tag, variant::kString); }
    static Value Read(const Variant& stored) { return stored.AsString(); }
    static Get Out(Variant& stored) { return Read(stored); }
    static Variant Store(const Value& value) { return Variant(value); }
};

struct Time {
    using Value = timeval;
    using Get = timeval;
    using Set = const timeval&;
    static bool Accepts(uint16_t tag) { return variant::Matches(tag, variant::kTime); }
    static Value Read(const Variant& stored) { return stored.AsTime(); }
    static Get Out(Variant& stored) { return Read(stored); }
    static Variant Store(const Value& value) { return Variant(value); }
};

struct Bool {
    using Value = bool;
    using Get = bool;
    using Set = bool;
    static bool Accepts(uint16_t tag) { return variant::Matches(tag, variant::kBool); }
    static Value Read(const Variant& stored) { return stored.AsBool(); }
    static Get Out(Variant& stored) { return Read(stored); }
    static Variant Store(Value value) { return Variant(value); }
};

// Integer fields accept every integer width and store their own width; the
// variant library's conversion saturates a value that does not fit.
template <typename T, typename Returned = T>
struct Integer {
    using Value = T;
    using Get = Returned;
    using Set = T;
    static bool Accepts(uint16_t tag) { return variant::IsInteger(tag); }
    static Value Read(const Variant& stored) { return static_cast<T>(stored); }
    static Get Out(Variant& stored) { return Read(stored); }
    static Variant Store(Value value) { return Variant(value); }
};

// A signed 8-bit field is handed out sign-extended to int.
using Int8 = Integer<signed char, int>;
using UInt16 = Integer<unsigned short>;
using UInt32 = Integer<unsigned int>;
using UInt64 = Integer<unsigned long>;
using Int64 = Integer<long>;

// An element record under a key: only a value whose tag is exactly the object
// tag passes; the getter hands out a view of the stored record in place.
template <typename View>
struct Record {
    using Get = View;
    using Set = const Variant&;
    static bool Accepts(uint16_t tag) { return tag == variant::kObject; }
    static Get Out(Variant& stored) { return View(stored); }
    static Variant Store(const Variant& value) { return value; }
};

using TextRecord = Record<LcmGuiTextSettingsElementRef>;
using ImgRecord = Record<LcmGuiImgSettingsElementRef>;

// Any value at all ("payload"); the getter hands out the stored value in place.
struct Any {
    using Get = Variant&;
    using Set = const Variant&;
    static bool Accepts(uint16_t /*tag*/) { return true; }
    static Get Out(Variant& stored) { return stored; }
    static Variant Store(const Variant& value) { return value; }
};

}  // namespace field
}  // namespace dravik::ipc::messages

// Generates the getter and the setter of one field-table row
// FIELD(name, key, Kind, default, possible values, clamp). The class provides
// `Variant& FieldsTarget()`, the object the fields live in. Possible values and
// clamps belong to NormalizeFields and are read from the same rows there.
#define DRAVIK_FIELD_ACCESSORS(name, key, Kind, defaultValue, values, clamp)          \
    ::dravik::ipc::messages::field::Kind::Get name() {                                \
        using KindOf_##name = ::dravik::ipc::messages::field::Kind;                   \
        return KindOf_##name::Out(::dravik::ipc::messages::detail::RepairField(       \
            FieldsTarget(), key, &KindOf_##name::Accepts,                             \
            [] { return KindOf_##name::Store(defaultValue); }));                      \
    }                                                                                 \
    void name(::dravik::ipc::messages::field::Kind::Set value) {                      \
        ::dravik::ipc::messages::detail::AssignField(                                 \
            FieldsTarget(), key, ::dravik::ipc::messages::field::Kind::Store(value)); \
    }
