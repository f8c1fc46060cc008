// What the message tests share: the wire format's tags, what each message
// class must hold after NormalizeFields, and small readers of stored values.
#pragma once

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "dravik_variant/variant.h"

namespace dravik::ipc::messages::test {

using dravik::variant::Variant;

// Tags as the wire format defines them, written out here so that the tests do
// not take them from the code under test.
constexpr uint16_t kTagNull = 0x8001;
constexpr uint16_t kTagBool = 0x8003;
constexpr uint16_t kTagString = 0x100E;
constexpr uint16_t kTagTime = 0x100D;
constexpr uint16_t kTagObject = 0x1010;
constexpr uint16_t kTagArray = 0x1011;
constexpr uint16_t kTagInt8 = 0xE104;
constexpr uint16_t kTagInt64 = 0xE804;
constexpr uint16_t kTagUInt16 = 0xE214;
constexpr uint16_t kTagUInt32 = 0xE414;
constexpr uint16_t kTagUInt64 = 0xE814;

// The process id's low 16 bits, as fresh message ids carry them on top.
uint64_t PidBits();
Variant EmptyObject();
std::set<std::string> StringKeys(const Variant& value);
// The member `key` of `parent`; a failure and a null value when it is missing.
const Variant& Child(const Variant& parent, const std::string& key);
// The tag of the member `key` of `parent`; 0 when it is missing.
uint16_t TagOf(const Variant& parent, const std::string& key);

// ---------------------------------------------------------------------------
// Field expectations: what every declared field must look like after
// NormalizeFields, given what the message held before. Written from the
// message tables, independently of the code's own field tables.

enum class Rule {
    kKeep,     // an acceptable value is kept (converted), anything else becomes the default
    kFold,     // the possible-values rule
    kClamp,    // kept or default, then clamped
    kFresh,    // "id" / "timeStamp": kept if acceptable, else a fresh value
    kAnyValue  // "payload": anything is kept, missing becomes null
};

struct FieldExpectation {
    std::string key;
    uint16_t tag;  // exact tag after normalisation
    Rule rule;
    Variant defaultValue;
    std::vector<std::string> values;  // kFold
    long low = 0;                     // kClamp
    long high = 0;
};

using Expectations = std::vector<FieldExpectation>;

// One class under test: how to normalise a value as it, and which fields its
// NormalizeFields must leave in order.
struct ClassCase {
    const char* name;
    Variant (*normalize)(Variant value);
    Expectations fields;
};

// Every message class with the fields its NormalizeFields must leave.
const std::vector<ClassCase>& AllClasses();

struct TimeWindow {
    timeval earliest;
    timeval latest;
};

bool NotBefore(const timeval& a, const timeval& b);

// Checks the whole of `result`, normalised as `messageClass` from `original`
// within `window`: container kind, every declared field, and every other key
// exactly as it was.
void ExpectNormalized(const ClassCase& messageClass, const Variant& original, const Variant& result,
                      const TimeWindow& window);

// From `earliest` to now.
TimeWindow WindowAround(const timeval& earliest);

// For each of `values`: a new M holding it under `key` normalises, and
// `check` examines the message.
template <typename M, typename Check>
void ExpectEachNormalized(const std::vector<Variant>& values, const std::string& key, Check check) {
    for (const Variant& stored : values) {
        SCOPED_TRACE(stored.ToJSON());
        M message;
        message[key] = stored;
        ASSERT_TRUE(message.NormalizeFields());
        check(message);
    }
}

// The same for rows of a stored value and what `check` expects of the
// message that held it; the first fatal failure ends the rows.
template <typename M, typename T, typename Check>
void ExpectEachNormalized(const std::vector<std::pair<Variant, T>>& rows, const std::string& key,
                          Check check) {
    for (const auto& row : rows) {
        ExpectEachNormalized<M>({row.first}, key, [&](M& message) { check(message, row.second); });
        if (::testing::Test::HasFatalFailure()) {
            return;
        }
    }
}

}  // namespace dravik::ipc::messages::test
