#include "dravik_ipc_messages/messages.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "dravik_utils/utils.h"

namespace {

using dravik::ipc::messages::BaseMessage;
using dravik::ipc::messages::BaseRequestMessage;
using dravik::ipc::messages::BaseResponseMessage;
using dravik::ipc::messages::LcmGuiBasePosSettings;
using dravik::ipc::messages::LcmGuiBaseSettings;
using dravik::ipc::messages::LcmGuiImgSettingsElement;
using dravik::ipc::messages::LcmGuiTextSettingsElement;
using dravik::ipc::messages::MakeMessageId;
using dravik::ipc::messages::ShowGui;
using dravik::ipc::messages::ShowSimpleScreen;
using dravik::variant::BaseVariantContainer;
using dravik::variant::Variant;
using dravik::variant::VariantType;

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

uint64_t PidBits() {
    return static_cast<uint64_t>(getpid()) & 0xFFFFu;
}

Variant EmptyObject() {
    return Variant::MakeContainer(dravik::variant::kObject);
}

// The value moved into `Message`, normalised there, and moved back out.
template <typename Message>
Variant Normalized(Variant value) {
    Message message(std::move(value));
    EXPECT_TRUE(message.NormalizeFields());
    return Variant(std::move(message));
}

std::set<std::string> StringKeys(const Variant& value) {
    std::set<std::string> keys;
    for (auto it = value.str_begin(); it != value.str_end(); ++it) {
        keys.insert(it->first);
    }
    return keys;
}

const Variant& Child(const Variant& parent, const std::string& key) {
    static const Variant kMissing;
    const Variant* child = parent.Find(key);
    EXPECT_NE(child, nullptr) << "key \"" << key << "\" missing";
    return child != nullptr ? *child : kMissing;
}

uint16_t TagOf(const Variant& parent, const std::string& key) {
    const Variant* child = parent.Find(key);
    return child != nullptr ? static_cast<uint16_t>(child->Type()) : 0;
}

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

FieldExpectation Keep(const char* key, uint16_t tag, Variant defaultValue) {
    return {key, tag, Rule::kKeep, std::move(defaultValue), {}};
}
FieldExpectation Fold(const char* key, std::vector<std::string> values) {
    return {key, kTagString, Rule::kFold, Variant(values.front()), std::move(values)};
}
FieldExpectation Clamped(const char* key, uint16_t tag, Variant defaultValue, long low, long high) {
    return {key, tag, Rule::kClamp, std::move(defaultValue), {}, low, high};
}
FieldExpectation Fresh(const char* key, uint16_t tag) {
    return {key, tag, Rule::kFresh, {}, {}};
}
FieldExpectation AnyValue(const char* key) {
    return {key, 0, Rule::kAnyValue, Variant(), {}};
}

using Expectations = std::vector<FieldExpectation>;

// Own fields first, ancestors after: the first declaration of a key decides
// its final state.
Expectations Merge(std::initializer_list<Expectations> levels) {
    Expectations merged;
    for (const Expectations& level : levels) {
        for (const FieldExpectation& field : level) {
            const bool seen =
                std::any_of(merged.begin(), merged.end(),
                            [&](const FieldExpectation& other) { return other.key == field.key; });
            if (!seen) {
                merged.push_back(field);
            }
        }
    }
    return merged;
}

const Expectations kEnvelope = {
    Fresh("id", kTagUInt64),
    Fresh("timeStamp", kTagTime),
    Keep("from", kTagString, Variant("")),
    Keep("to", kTagString, Variant("")),
    Keep("functionName", kTagString, Variant("")),
    Keep("queueIfDestUnavailable", kTagBool, Variant(true)),
};
const Expectations kRequest = {
    Keep("responseExpected", kTagBool, Variant(false)),
    Keep("transactionId", kTagInt64, Variant(-1L)),
    Keep("isBroadcast", kTagBool, Variant(false)),
};
const Expectations kResponse = {
    Fold("functionName", {"__response__"}),
    Keep("requestId", kTagUInt64, Variant(0UL)),
    Keep("statusCode", kTagUInt64, Variant(0UL)),
    AnyValue("payload"),
};
const Expectations kBaseSettings = {
    Clamped("brightness", kTagInt8, Variant(static_cast<signed char>(-1)), -1, 100),
};
const Expectations kShowGui = {
    Fold("functionName", {"ShowGui"}),
    Keep("responseExpected", kTagBool, Variant(false)),
    Keep("guiId", kTagString, Variant("")),
};
const Expectations kPosition = {
    Keep("x", kTagUInt16, Variant(static_cast<unsigned short>(0))),
    Keep("y", kTagUInt16, Variant(static_cast<unsigned short>(0))),
    Fold("alignHor", {"left", "center", "right"}),
    Fold("alignVert", {"top", "middle", "bottom"}),
};
const Expectations kImg = {
    Keep("file", kTagString, Variant("")),
    Fold("animation", {"static", "slideshow", "breathing", "progressbar"}),
    Keep("duration", kTagUInt32, Variant(0U)),
    Keep("count", kTagUInt16, Variant(static_cast<unsigned short>(0))),
};
const Expectations kText = {
    Clamped("size", kTagUInt16, Variant(static_cast<unsigned short>(6)), 3, 100),
    Keep("str", kTagString, Variant("")),
};

// One class under test: how to normalise a value as it, and which fields its
// NormalizeFields must leave in order.
struct ClassCase {
    const char* name;
    Variant (*normalize)(Variant value);
    Expectations fields;
};

const std::vector<ClassCase>& AllClasses() {
    static const std::vector<ClassCase> kClasses = {
        {"BaseMessage", &Normalized<BaseMessage>, Merge({kEnvelope})},
        {"BaseRequestMessage", &Normalized<BaseRequestMessage>, Merge({kRequest, kEnvelope})},
        {"BaseResponseMessage", &Normalized<BaseResponseMessage>, Merge({kResponse, kEnvelope})},
        {"LcmGuiBaseSettings", &Normalized<LcmGuiBaseSettings>,
         Merge({kBaseSettings, kRequest, kEnvelope})},
        {"ShowGui", &Normalized<ShowGui>, Merge({kShowGui, kBaseSettings, kRequest, kEnvelope})},
        // "text" and "img" are left to their getters.
        {"ShowSimpleScreen", &Normalized<ShowSimpleScreen>,
         Merge({kBaseSettings, kRequest, kEnvelope})},
        {"LcmGuiBasePosSettings", &Normalized<LcmGuiBasePosSettings>, Merge({kPosition})},
        {"LcmGuiImgSettingsElement", &Normalized<LcmGuiImgSettingsElement>,
         Merge({kImg, kPosition})},
        {"LcmGuiTextSettingsElement", &Normalized<LcmGuiTextSettingsElement>,
         Merge({kText, kPosition})},
    };
    return kClasses;
}

bool AllBits(uint16_t tag, uint16_t mask) {
    return (tag & mask) == mask;
}

// Whether a stored value passes the acceptance test of a field of `fieldTag`.
bool Acceptable(uint16_t fieldTag, const Variant* stored) {
    if (stored == nullptr) {
        return false;
    }
    const auto tag = static_cast<uint16_t>(stored->Type());
    switch (fieldTag) {
        case kTagString:
            return AllBits(tag, kTagString);
        case kTagTime:
            return AllBits(tag, kTagTime);
        case kTagBool:
            return AllBits(tag, kTagBool);
        default:
            return (tag & 0x4000) != 0;
    }
}

// `stored` converted to the width of an integer field of `fieldTag`.
Variant ConvertedInteger(uint16_t fieldTag, const Variant& stored) {
    switch (fieldTag) {
        case kTagInt8:
            return Variant(static_cast<signed char>(stored));
        case kTagUInt16:
            return Variant(static_cast<unsigned short>(stored));
        case kTagUInt32:
            return Variant(static_cast<unsigned int>(stored));
        case kTagInt64:
            return Variant(static_cast<long>(stored));
        default:
            return Variant(static_cast<unsigned long>(stored));
    }
}

// What an acceptable stored value becomes in a field of `fieldTag`.
Variant Kept(uint16_t fieldTag, const Variant& stored) {
    switch (fieldTag) {
        case kTagString:
            return Variant(stored.AsString());
        case kTagTime:
            return Variant(stored.AsTime());
        case kTagBool:
            return Variant(stored.AsBool());
        default:
            return ConvertedInteger(fieldTag, stored);
    }
}

std::string Folded(const Variant* stored, const std::vector<std::string>& values) {
    if (Acceptable(kTagString, stored)) {
        const std::string& word = stored->AsString();
        for (const std::string& entry : values) {
            const bool same =
                entry.size() == word.size() &&
                std::equal(entry.begin(), entry.end(), word.begin(), [](char a, char b) {
                    return std::tolower(static_cast<unsigned char>(a)) ==
                           std::tolower(static_cast<unsigned char>(b));
                });
            if (same) {
                return entry;
            }
        }
    }
    return values.front();
}

// Deep equality under which a NaN double equals a NaN double.
bool SameValue(const Variant& a, const Variant& b) {
    if (a.Type() != b.Type()) {
        return false;
    }
    if (a.Type() == dravik::variant::kDouble) {
        const double x = a.AsDouble();
        const double y = b.AsDouble();
        return (std::isnan(x) && std::isnan(y)) || x == y;
    }
    if (!a.IsContainer()) {
        return a == b;
    }
    if (a.StringKeysCount() != b.StringKeysCount() ||
        a.NumericKeysCount() != b.NumericKeysCount()) {
        return false;
    }
    for (auto it = a.str_begin(); it != a.str_end(); ++it) {
        const Variant* other = b.Find(it->first);
        if (other == nullptr || !SameValue(it->second, *other)) {
            return false;
        }
    }
    for (auto it = a.num_begin(); it != a.num_end(); ++it) {
        const Variant* other = b.Find(it->first);
        if (other == nullptr || !SameValue(it->second, *other)) {
            return false;
        }
    }
    return true;
}

struct TimeWindow {
    timeval earliest;
    timeval latest;
};

bool NotBefore(const timeval& a, const timeval& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec >= b.tv_usec);
}

// Checks one declared field of `result`, normalised from `original`.
void ExpectField(const FieldExpectation& field, const Variant& original, const Variant& result,
                 const TimeWindow& window) {
    SCOPED_TRACE("field \"" + field.key + "\"");
    const Variant* before = original.IsContainer() ? original.Find(field.key) : nullptr;
    const Variant* after = result.Find(field.key);
    ASSERT_NE(after, nullptr);
    if (field.rule == Rule::kAnyValue) {
        EXPECT_TRUE(before != nullptr ? SameValue(*after, *before) : after->IsNull());
        return;
    }
    ASSERT_EQ(after->Type(), field.tag);
    const bool acceptable = Acceptable(field.tag, before);
    switch (field.rule) {
        case Rule::kKeep:
            EXPECT_EQ(*after, acceptable ? Kept(field.tag, *before) : field.defaultValue);
            break;
        case Rule::kFold:
            EXPECT_EQ(after->AsString(), Folded(before, field.values));
            break;
        case Rule::kClamp: {
            const Variant& raw = acceptable ? Kept(field.tag, *before) : field.defaultValue;
            EXPECT_EQ(after->AsInt64(), std::clamp<int64_t>(raw.AsInt64(), field.low, field.high));
            break;
        }
        case Rule::kFresh:
            if (acceptable) {
                EXPECT_EQ(*after, Kept(field.tag, *before));
            } else if (field.tag == kTagUInt64) {
                EXPECT_EQ(after->AsUInt64() >> 48, PidBits());
            } else {
                EXPECT_TRUE(NotBefore(after->AsTime(), window.earliest));
                EXPECT_TRUE(NotBefore(window.latest, after->AsTime()));
            }
            break;
        case Rule::kAnyValue:
            break;
    }
}

// Checks the whole of `result`: container kind, every declared field, and
// every other key exactly as it was.
void ExpectNormalized(const ClassCase& messageClass, const Variant& original, const Variant& result,
                      const TimeWindow& window) {
    SCOPED_TRACE(messageClass.name);
    const uint16_t expectedTag =
        original.IsContainer() ? static_cast<uint16_t>(original.Type()) : kTagObject;
    ASSERT_EQ(result.Type(), expectedTag);
    std::set<std::string> declared;
    for (const FieldExpectation& field : messageClass.fields) {
        ExpectField(field, original, result, window);
        declared.insert(field.key);
    }
    std::set<std::string> expectedKeys = declared;
    if (original.IsContainer()) {
        for (auto it = original.str_begin(); it != original.str_end(); ++it) {
            expectedKeys.insert(it->first);
            if (declared.count(it->first) == 0) {
                const Variant* kept = result.Find(it->first);
                EXPECT_TRUE(kept != nullptr && SameValue(*kept, it->second))
                    << "undeclared key \"" << it->first << "\" changed";
            }
        }
        ASSERT_EQ(result.NumericKeysCount(), original.NumericKeysCount());
        for (auto it = original.num_begin(); it != original.num_end(); ++it) {
            const Variant* kept = result.Find(it->first);
            EXPECT_TRUE(kept != nullptr && SameValue(*kept, it->second))
                << "element " << it->first << " changed";
        }
    } else {
        EXPECT_EQ(result.NumericKeysCount(), 0u);
    }
    EXPECT_EQ(StringKeys(result), expectedKeys);
}

TimeWindow WindowAround(const timeval& earliest) {
    return {earliest, dravik::utils::now()};
}

// ---------------------------------------------------------------------------
// Empty objects and non-objects

TEST(MessageNormalize, empty_object_gains_exactly_the_declared_fields_for_every_class) {
    for (const ClassCase& messageClass : AllClasses()) {
        const timeval before = dravik::utils::now();
        const Variant result = messageClass.normalize(EmptyObject());
        ExpectNormalized(messageClass, EmptyObject(), result, WindowAround(before));
    }
}

TEST(MessageNormalize, empty_response_gains_response_defaults_and_envelope) {
    const timeval before = dravik::utils::now();
    BaseResponseMessage response;
    ASSERT_TRUE(response.NormalizeFields());
    const timeval after = dravik::utils::now();

    EXPECT_EQ(Child(response, "functionName"), Variant("__response__"));
    EXPECT_EQ(Child(response, "requestId"), Variant(0UL));
    EXPECT_EQ(Child(response, "statusCode"), Variant(0UL));
    EXPECT_TRUE(Child(response, "payload").IsNull());
    EXPECT_EQ(TagOf(response, "id"), kTagUInt64);
    EXPECT_EQ(response.id() >> 48, PidBits());
    EXPECT_TRUE(NotBefore(response.timeStamp(), before));
    EXPECT_TRUE(NotBefore(after, response.timeStamp()));
    EXPECT_EQ(Child(response, "from"), Variant(""));
    EXPECT_EQ(Child(response, "to"), Variant(""));
    EXPECT_EQ(Child(response, "queueIfDestUnavailable"), Variant(true));
    EXPECT_EQ(StringKeys(response),
              (std::set<std::string>{"functionName", "requestId", "statusCode", "payload", "id",
                                     "timeStamp", "from", "to", "queueIfDestUnavailable"}));
}

TEST(MessageNormalize, non_object_message_becomes_object_with_defaults) {
    const timeval zero{};
    const std::vector<std::pair<const char*, Variant>> rows = {
        {"string", Variant("hello")}, {"null", Variant()},      {"int", Variant(42)},
        {"bool", Variant(true)},      {"double", Variant(2.5)}, {"time", Variant(zero)},
        {"uint64", Variant(~0UL)},
    };
    for (const auto& [what, value] : rows) {
        SCOPED_TRACE(what);
        for (const ClassCase& messageClass : AllClasses()) {
            const timeval before = dravik::utils::now();
            const Variant result = messageClass.normalize(value);
            ExpectNormalized(messageClass, value, result, WindowAround(before));
        }
    }
}

TEST(MessageAccessors, getter_on_non_object_message_makes_it_an_object_holding_the_field) {
    ShowGui gui{Variant("not an object")};
    EXPECT_EQ(gui.guiId(), "");
    EXPECT_EQ(gui.Type(), kTagObject);
    EXPECT_EQ(StringKeys(gui), std::set<std::string>{"guiId"});
}

TEST(MessageAccessors, setter_on_non_object_message_makes_it_an_object_first) {
    LcmGuiTextSettingsElement text{Variant(17)};
    text.str("hello");
    EXPECT_EQ(text.Type(), kTagObject);
    EXPECT_EQ(StringKeys(text), std::set<std::string>{"str"});
    EXPECT_EQ(Child(text, "str"), Variant("hello"));
}

TEST(MessageNormalize, array_message_passes_the_object_guard_unchanged) {
    Variant array = Variant::MakeContainer(dravik::variant::kArray);
    array[int64_t{0}] = 5;
    array[int64_t{1}] = "element";
    for (const ClassCase& messageClass : AllClasses()) {
        const timeval before = dravik::utils::now();
        const Variant result = messageClass.normalize(array);
        ExpectNormalized(messageClass, array, result, WindowAround(before));
        EXPECT_EQ(result.Type(), kTagArray);
    }
    BaseMessage message(array);
    EXPECT_EQ(message.from(), "");
    EXPECT_EQ(message.Type(), kTagArray);
    EXPECT_EQ(message.NumericKeysCount(), 2u);
}

// ---------------------------------------------------------------------------
// Envelope

TEST(MessageEnvelope, id_of_every_integer_type_is_kept_as_unsigned_64_bit) {
    const std::vector<std::pair<Variant, uint64_t>> rows = {
        {Variant(static_cast<signed char>(100)), 100},
        {Variant(static_cast<unsigned char>(200)), 200},
        {Variant(static_cast<short>(30000)), 30000},
        {Variant(static_cast<unsigned short>(60000)), 60000},
        {Variant(2000000000), 2000000000},
        {Variant(4000000000U), 4000000000U},
        {Variant(1000000000000000L), 1000000000000000ULL},
        {Variant(std::numeric_limits<unsigned long>::max()), std::numeric_limits<uint64_t>::max()},
    };
    for (const auto& [stored, expected] : rows) {
        SCOPED_TRACE(stored.ToJSON());
        BaseMessage message;
        message["id"] = stored;
        ASSERT_TRUE(message.NormalizeFields());
        EXPECT_EQ(TagOf(message, "id"), kTagUInt64);
        EXPECT_EQ(message.id(), expected);
    }
}

TEST(MessageEnvelope, id_of_non_integer_type_is_replaced_by_fresh_id) {
    const std::vector<Variant> rows = {Variant("12345"), Variant(12345.0), Variant(true), Variant(),
                                       EmptyObject()};
    for (const Variant& stored : rows) {
        SCOPED_TRACE(stored.ToJSON());
        BaseRequestMessage message;
        message["id"] = stored;
        ASSERT_TRUE(message.NormalizeFields());
        EXPECT_EQ(TagOf(message, "id"), kTagUInt64);
        EXPECT_EQ(message.id() >> 48, PidBits());
    }
}

uint64_t MonotonicLow48() {
    timespec now{};
    EXPECT_EQ(clock_gettime(CLOCK_MONOTONIC, &now), 0);
    const uint64_t ns = static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + now.tv_nsec;
    return ns & ((1ULL << 48) - 1);
}

TEST(MessageEnvelope, fresh_id_holds_pid_on_top_and_monotonic_nanoseconds_below) {
    const uint64_t before = MonotonicLow48();
    const uint64_t id = MakeMessageId();
    const uint64_t after = MonotonicLow48();
    EXPECT_EQ(id >> 48, PidBits());
    const uint64_t low = id & ((1ULL << 48) - 1);
    // The 48-bit nanosecond counter wraps every 78 hours; a wrap in between
    // would show as before > after, and the range check is then skipped.
    if (before <= after) {
        EXPECT_LE(before, low);
        EXPECT_LE(low, after);
    }
}

TEST(MessageEnvelope, fresh_ids_rise_with_time) {
    const uint64_t first = MakeMessageId();
    uint64_t next = first;
    for (int i = 0; i < 1000000 && next == first; ++i) {
        next = MakeMessageId();
    }
    EXPECT_GT(next, first);
}

TEST(MessageEnvelope, id_is_built_once_per_normalisation_and_kept_afterwards) {
    BaseMessage message;
    ASSERT_TRUE(message.NormalizeFields());
    const uint64_t id = message.id();
    ASSERT_TRUE(message.NormalizeFields());
    EXPECT_EQ(message.id(), id);
}

TEST(MessageEnvelope, response_expected_given_as_string_reads_false_and_is_stored_as_bool) {
    BaseRequestMessage request;
    request["responseExpected"] = "yes";
    EXPECT_FALSE(request.responseExpected());
    EXPECT_EQ(Child(request, "responseExpected"), Variant(false));

    ShowGui gui;
    gui["responseExpected"] = "true";
    ASSERT_TRUE(gui.NormalizeFields());
    EXPECT_EQ(Child(gui, "responseExpected"), Variant(false));
}

TEST(MessageEnvelope, response_function_name_is_always_response) {
    const std::vector<Variant> rows = {
        Variant("__RESPONSE__"), Variant("ShowGui"), Variant(""), Variant(3),
        Variant("__response"),   Variant()};
    for (const Variant& stored : rows) {
        SCOPED_TRACE(stored.ToJSON());
        BaseResponseMessage response;
        response["functionName"] = stored;
        ASSERT_TRUE(response.NormalizeFields());
        EXPECT_EQ(Child(response, "functionName"), Variant("__response__"));
    }
}

TEST(MessageEnvelope, fields_of_the_right_type_are_kept) {
    const timeval stamp{1700000000, 250000};
    BaseRequestMessage request;
    request["timeStamp"] = stamp;
    request["from"] = ":1.42";
    request["to"] = "dravik_lcm_gui";
    request["functionName"] = "ShowGui";
    request["queueIfDestUnavailable"] = false;
    request["transactionId"] = 7;
    request["isBroadcast"] = true;
    ASSERT_TRUE(request.NormalizeFields());
    EXPECT_EQ(request.timeStamp().tv_sec, stamp.tv_sec);
    EXPECT_EQ(request.timeStamp().tv_usec, stamp.tv_usec);
    EXPECT_EQ(request.from(), ":1.42");
    EXPECT_EQ(request.to(), "dravik_lcm_gui");
    EXPECT_EQ(request.functionName(), "ShowGui");
    EXPECT_FALSE(request.queueIfDestUnavailable());
    EXPECT_EQ(Child(request, "transactionId"), Variant(7L));
    EXPECT_TRUE(request.isBroadcast());
}

TEST(MessageEnvelope, payload_keeps_any_value_and_defaults_to_null) {
    BaseResponseMessage response;
    EXPECT_TRUE(response.payload().IsNull());
    Variant payload = EmptyObject();
    payload["guiId"] = "boot";
    response.payload(payload);
    response.statusCode(1);
    ASSERT_TRUE(response.NormalizeFields());
    EXPECT_EQ(Child(response, "payload"), payload);
    EXPECT_EQ(Child(response, "statusCode"), Variant(1UL));
    response.payload() = "in place";
    EXPECT_EQ(Child(response, "payload"), Variant("in place"));
}

TEST(MessageEnvelope, undeclared_keys_are_left_untouched) {
    ShowGui gui;
    gui["custom"] = 12;
    gui["nested"]["deep"] = "value";
    const Variant original = gui;
    ASSERT_TRUE(gui.NormalizeFields());
    EXPECT_EQ(Child(gui, "custom"), Child(original, "custom"));
    EXPECT_EQ(Child(gui, "nested"), Child(original, "nested"));
}

// ---------------------------------------------------------------------------
// Display messages

TEST(ShowGuiMessage, brightness_is_clamped_to_minus_one_to_one_hundred) {
    const std::vector<std::pair<Variant, int>> rows = {
        {Variant(-50), -1},
        {Variant(120), 100},
        {Variant("80"), -1},
        {Variant(0), 0},
        {Variant(100), 100},
        {Variant(101), 100},
        {Variant(-1), -1},
        {Variant(static_cast<signed char>(-128)), -1},
        {Variant(300), 100},
        {Variant(-300), -1},
        {Variant(std::numeric_limits<unsigned long>::max()), 100},
        {Variant(55.0), -1},
        {Variant(), -1},
    };
    for (const auto& [stored, expected] : rows) {
        SCOPED_TRACE(stored.ToJSON());
        ShowGui gui;
        gui["brightness"] = stored;
        ASSERT_TRUE(gui.NormalizeFields());
        EXPECT_EQ(TagOf(gui, "brightness"), kTagInt8);
        EXPECT_EQ(gui.brightness(), expected);
    }
}

TEST(ShowGuiMessage, brightness_getter_alone_returns_stored_value_sign_extended) {
    ShowGui gui;
    gui["brightness"] = 120;
    EXPECT_EQ(gui.brightness(), 120);
    gui["brightness"] = static_cast<signed char>(-5);
    EXPECT_EQ(gui.brightness(), -5);
    gui.Erase("brightness");
    EXPECT_EQ(gui.brightness(), -1);
    EXPECT_EQ(TagOf(gui, "brightness"), kTagInt8);
}

TEST(ShowGuiMessage, function_name_folds_to_show_gui) {
    const std::vector<Variant> rows = {Variant("showgui"), Variant("SHOWGUI"),
                                       Variant("ShowSimpleScreen"), Variant(5)};
    for (const Variant& stored : rows) {
        SCOPED_TRACE(stored.ToJSON());
        ShowGui gui;
        gui["functionName"] = stored;
        ASSERT_TRUE(gui.NormalizeFields());
        EXPECT_EQ(Child(gui, "functionName"), Variant("ShowGui"));
    }
}

TEST(ShowGuiMessage, getter_returns_stored_function_name_without_folding) {
    ShowGui gui;
    gui["functionName"] = "showgui";
    EXPECT_EQ(gui.functionName(), "showgui");
    gui.Erase("functionName");
    EXPECT_EQ(gui.functionName(), "ShowGui");
}

TEST(ShowGuiMessage, gui_id_is_kept_and_its_setter_stores_it) {
    ShowGui gui;
    gui.guiId("boot");
    gui.brightness(80);
    ASSERT_TRUE(gui.NormalizeFields());
    EXPECT_EQ(gui.guiId(), "boot");
    EXPECT_EQ(gui.brightness(), 80);
    EXPECT_EQ(gui.functionName(), "ShowGui");
}

TEST(ShowGuiMessage, normalises_by_its_own_rules_when_called_through_a_base_reference) {
    ShowGui gui;
    gui["brightness"] = 150;
    gui["functionName"] = "other";
    BaseVariantContainer& base = gui;
    ASSERT_TRUE(base.NormalizeFields());
    EXPECT_EQ(gui.brightness(), 100);
    EXPECT_EQ(gui.functionName(), "ShowGui");
}

TEST(ShowGuiMessage, request_moves_in_and_out_without_copying_its_content) {
    BaseRequestMessage request;
    request["guiId"] = std::string(1000, 'g');
    request["brightness"] = 500;
    const Variant* guiIdBefore = request.Find("guiId");

    ShowGui gui(std::move(request));
    EXPECT_EQ(gui.Find("guiId"), guiIdBefore);
    ASSERT_TRUE(gui.NormalizeFields());
    request = std::move(gui);

    EXPECT_EQ(request.Find("guiId"), guiIdBefore);
    EXPECT_EQ(Child(request, "brightness"), Variant(static_cast<signed char>(100)));
    EXPECT_EQ(Child(request, "functionName"), Variant("ShowGui"));
}

TEST(TextElement, size_is_clamped_to_three_to_one_hundred_by_normalize_only) {
    const std::vector<std::pair<Variant, unsigned>> rows = {
        {Variant(1), 3},  {Variant(500), 100},   {Variant(2), 3},
        {Variant(3), 3},  {Variant(100), 100},   {Variant(50), 50},
        {Variant(-7), 3}, {Variant(70000), 100}, {Variant("12"), 6},
    };
    for (const auto& [stored, expected] : rows) {
        SCOPED_TRACE(stored.ToJSON());
        LcmGuiTextSettingsElement text;
        text["size"] = stored;
        ASSERT_TRUE(text.NormalizeFields());
        EXPECT_EQ(TagOf(text, "size"), kTagUInt16);
        EXPECT_EQ(text.size(), expected);
    }
}

TEST(TextElement, size_getter_returns_stored_value_unclamped_or_six) {
    LcmGuiTextSettingsElement text;
    EXPECT_EQ(text.size(), 6);
    EXPECT_EQ(Child(text, "size"), Variant(static_cast<unsigned short>(6)));
    text["size"] = 1;
    EXPECT_EQ(text.size(), 1);
    text["size"] = 500;
    EXPECT_EQ(text.size(), 500);
}

TEST(PositionFields, alignment_words_fold_ignoring_case) {
    const std::vector<std::tuple<const char*, Variant, const char*>> rows = {
        {"alignHor", Variant("CENTER"), "center"},  {"alignHor", Variant("Right"), "right"},
        {"alignHor", Variant("middle"), "left"},    {"alignHor", Variant("centre"), "left"},
        {"alignHor", Variant("left "), "left"},     {"alignHor", Variant(1), "left"},
        {"alignVert", Variant("Bottom"), "bottom"}, {"alignVert", Variant("MIDDLE"), "middle"},
        {"alignVert", Variant("center"), "top"},    {"alignVert", Variant(""), "top"},
    };
    for (const auto& [key, stored, expected] : rows) {
        SCOPED_TRACE(std::string(key) + " " + stored.ToJSON());
        LcmGuiBasePosSettings position;
        position[key] = stored;
        ASSERT_TRUE(position.NormalizeFields());
        EXPECT_EQ(Child(position, key), Variant(expected));
    }
}

TEST(PositionFields, alignment_getter_returns_stored_word_as_it_stands) {
    LcmGuiImgSettingsElement img;
    img["alignHor"] = "CENTER";
    img["animation"] = "fade";
    EXPECT_EQ(img.alignHor(), "CENTER");
    EXPECT_EQ(img.animation(), "fade");
    img.alignVert("diagonal");
    EXPECT_EQ(Child(img, "alignVert"), Variant("diagonal"));
}

TEST(PositionFields, coordinates_are_stored_as_unsigned_16_bit) {
    LcmGuiBasePosSettings position;
    position["x"] = 320;
    position["y"] = 70000;
    ASSERT_TRUE(position.NormalizeFields());
    EXPECT_EQ(Child(position, "x"), Variant(static_cast<unsigned short>(320)));
    EXPECT_EQ(TagOf(position, "y"), kTagUInt16);
    EXPECT_EQ(position.y(), static_cast<unsigned short>(Variant(70000)));
}

TEST(ImgElement, animation_folds_to_listed_word_or_static) {
    const std::vector<std::pair<Variant, const char*>> rows = {
        {Variant("Breathing"), "breathing"}, {Variant("fade"), "static"},
        {Variant("SLIDESHOW"), "slideshow"}, {Variant("progressBar"), "progressbar"},
        {Variant("breathingx"), "static"},   {Variant(true), "static"},
    };
    for (const auto& [stored, expected] : rows) {
        SCOPED_TRACE(stored.ToJSON());
        LcmGuiImgSettingsElement img;
        img["animation"] = stored;
        ASSERT_TRUE(img.NormalizeFields());
        EXPECT_EQ(Child(img, "animation"), Variant(expected));
    }
}

TEST(ImgElement, duration_and_count_are_stored_in_their_own_widths) {
    LcmGuiImgSettingsElement img;
    img["duration"] = static_cast<signed char>(40);
    img["count"] = 4000000000U;
    ASSERT_TRUE(img.NormalizeFields());
    EXPECT_EQ(Child(img, "duration"), Variant(40U));
    EXPECT_EQ(TagOf(img, "count"), kTagUInt16);
    EXPECT_EQ(img.count(), static_cast<unsigned short>(Variant(4000000000U)));
}

void ExpectEmptyImageRecordDefaults(ShowSimpleScreen& screen) {
    auto img = screen.img();
    EXPECT_EQ(img.file(), "");
    EXPECT_EQ(img.animation(), "static");
    EXPECT_EQ(img.duration(), 0u);
    EXPECT_EQ(img.count(), 0u);
    EXPECT_EQ(img.x(), 0u);
    EXPECT_EQ(img.y(), 0u);
    EXPECT_EQ(img.alignHor(), "left");
    EXPECT_EQ(img.alignVert(), "top");
}

TEST(ShowSimpleScreenMessage, element_that_is_not_exactly_an_object_is_replaced_by_empty_record) {
    Variant array = Variant::MakeContainer(dravik::variant::kArray);
    array[int64_t{0}] = "file.png";
    const std::vector<std::pair<const char*, Variant>> rows = {
        {"array", array},       {"string", Variant("logo.png")}, {"null", Variant()},
        {"number", Variant(3)}, {"bool", Variant(true)},
    };
    for (const auto& [what, stored] : rows) {
        SCOPED_TRACE(what);
        ShowSimpleScreen screen;
        screen["img"] = stored;
        screen["text"] = stored;
        ExpectEmptyImageRecordDefaults(screen);
        EXPECT_EQ(TagOf(screen, "img"), kTagObject);
        EXPECT_EQ(screen.text().str(), "");
        EXPECT_EQ(TagOf(screen, "text"), kTagObject);
    }
}

TEST(ShowSimpleScreenMessage, element_object_is_kept_and_read_in_place) {
    ShowSimpleScreen screen;
    screen["text"]["str"] = "Hello";
    screen["text"]["size"] = 1;
    screen["img"]["file"] = "logo.png";
    EXPECT_EQ(screen.text().str(), "Hello");
    EXPECT_EQ(screen.text().size(), 1);
    EXPECT_EQ(screen.img().file(), "logo.png");

    screen.img().count(5);
    screen.text().alignHor("right");
    EXPECT_EQ(Child(Child(screen, "img"), "count"), Variant(static_cast<unsigned short>(5)));
    EXPECT_EQ(Child(Child(screen, "text"), "alignHor"), Variant("right"));
}

TEST(ShowSimpleScreenMessage, normalize_covers_brightness_and_envelope_but_not_the_elements) {
    ShowSimpleScreen screen;
    screen["brightness"] = 250;
    screen["text"]["size"] = 1;
    screen["img"] = "not a record";
    ASSERT_TRUE(screen.NormalizeFields());
    EXPECT_EQ(screen.brightness(), 100);
    EXPECT_EQ(TagOf(screen, "id"), kTagUInt64);
    EXPECT_EQ(Child(screen, "functionName"), Variant(""));
    EXPECT_EQ(Child(Child(screen, "text"), "size"), Variant(1));
    EXPECT_EQ(StringKeys(Child(screen, "text")), std::set<std::string>{"size"});
    EXPECT_EQ(Child(screen, "img"), Variant("not a record"));
}

TEST(ShowSimpleScreenMessage, element_view_normalizes_the_stored_record) {
    ShowSimpleScreen screen;
    screen["text"]["size"] = 1;
    screen["text"]["alignVert"] = "BOTTOM";
    ASSERT_TRUE(screen.text().NormalizeFields());
    const Variant& text = Child(screen, "text");
    EXPECT_EQ(Child(text, "size"), Variant(static_cast<unsigned short>(3)));
    EXPECT_EQ(Child(text, "alignVert"), Variant("bottom"));
    EXPECT_EQ(StringKeys(text),
              (std::set<std::string>{"size", "str", "x", "y", "alignHor", "alignVert"}));
}

TEST(ShowSimpleScreenMessage, element_record_can_be_set_from_a_record_object) {
    LcmGuiImgSettingsElement img;
    img.file("anim.png");
    img.animation("slideshow");
    ShowSimpleScreen screen;
    screen.img(img);
    EXPECT_EQ(screen.img().file(), "anim.png");
    EXPECT_EQ(screen.img().animation(), "slideshow");
    EXPECT_EQ(Child(screen, "img"), static_cast<const Variant&>(img));
}

// The reads the display engine makes of a ShowSimpleScreen request.
void ReadAsShowCommandDoes(ShowSimpleScreen& request) {
    ASSERT_TRUE(request.NormalizeFields());
    auto text = request.text();
    auto img = request.img();
    (void)text.str();
    (void)text.x();
    (void)text.y();
    (void)text.size();
    (void)text.alignHor();
    (void)text.alignVert();
    (void)img.file();
    (void)img.x();
    (void)img.y();
    (void)img.alignHor();
    (void)img.alignVert();
    (void)img.animation();
    (void)img.duration();
    (void)img.count();
    (void)request.brightness();
}

TEST(ShowSimpleScreenMessage, request_without_elements_holds_default_records_after_show_reads) {
    ShowSimpleScreen request;
    ReadAsShowCommandDoes(request);

    const Variant& text = Child(request, "text");
    EXPECT_EQ(Child(text, "size"), Variant(static_cast<unsigned short>(6)));
    EXPECT_EQ(Child(text, "str"), Variant(""));
    EXPECT_EQ(Child(text, "x"), Variant(static_cast<unsigned short>(0)));
    EXPECT_EQ(Child(text, "alignHor"), Variant("left"));
    EXPECT_EQ(Child(text, "alignVert"), Variant("top"));

    const Variant& img = Child(request, "img");
    EXPECT_EQ(Child(img, "duration"), Variant(0U));
    EXPECT_EQ(Child(img, "count"), Variant(static_cast<unsigned short>(0)));
    EXPECT_EQ(Child(img, "file"), Variant(""));
    EXPECT_EQ(Child(img, "animation"), Variant("static"));
    EXPECT_EQ(Child(img, "y"), Variant(static_cast<unsigned short>(0)));
    EXPECT_EQ(Child(request, "brightness"), Variant(static_cast<signed char>(-1)));
}

TEST(ShowSimpleScreenMessage, size_given_as_string_is_replaced_by_six_before_use) {
    ShowSimpleScreen request;
    request["text"]["size"] = "big";
    request["text"]["str"] = "Hi";
    ReadAsShowCommandDoes(request);
    EXPECT_EQ(request.text().size(), 6);
    EXPECT_EQ(Child(Child(request, "text"), "size"), Variant(static_cast<unsigned short>(6)));
    EXPECT_EQ(request.text().str(), "Hi");
}

TEST(ShowSimpleScreenMessage, size_below_three_reaches_the_reader_as_sent) {
    ShowSimpleScreen request;
    request["text"]["size"] = 1;
    ReadAsShowCommandDoes(request);
    EXPECT_EQ(request.text().size(), 1);
}

// ---------------------------------------------------------------------------
// Property test: random values of every shape, normalised as every class.

class RandomValues {
public:
    explicit RandomValues(uint64_t seed) : rng_(seed) {}

    size_t Below(size_t n) { return static_cast<size_t>(rng_() % n); }
    bool Chance(unsigned percent) { return Below(100) < percent; }

    Variant Any(int depth) {
        switch (Below(depth > 0 ? 12 : 10)) {
            case 0:
                return Variant();
            case 1:
                return Variant(Chance(50));
            case 2:
            case 3:
                return Integer();
            case 4:
                return Double();
            case 5:
            case 6:
                return String();
            case 7:
                return Time();
            case 8:
                return Word();
            case 9:
                return Variant(static_cast<long>(rng_()));
            case 10:
                return Container(dravik::variant::kObject, depth - 1);
            default:
                return Container(dravik::variant::kArray, depth - 1);
        }
    }

    // A message: mostly an object holding some of every class's keys with
    // random values, sometimes an array, sometimes no container at all.
    Variant Message() {
        if (Chance(5)) {
            return Any(0);
        }
        Variant message =
            Variant::MakeContainer(Chance(5) ? dravik::variant::kArray : dravik::variant::kObject);
        for (const char* key : kKeys) {
            if (Chance(50)) {
                message[key] = Any(2);
            }
        }
        if (Chance(30)) {
            message[int64_t{0}] = Any(1);
        }
        return message;
    }

private:
    Variant Integer() {
        static const int64_t kEdges[] = {0,
                                         1,
                                         -1,
                                         2,
                                         3,
                                         6,
                                         99,
                                         100,
                                         101,
                                         127,
                                         128,
                                         -128,
                                         -129,
                                         255,
                                         256,
                                         32767,
                                         32768,
                                         -32768,
                                         -32769,
                                         65535,
                                         65536,
                                         2147483647LL,
                                         2147483648LL,
                                         -2147483648LL,
                                         -2147483649LL,
                                         4294967295LL,
                                         4294967296LL,
                                         std::numeric_limits<int64_t>::max(),
                                         std::numeric_limits<int64_t>::min()};
        const int64_t edge = kEdges[Below(std::size(kEdges))];
        switch (Below(9)) {
            case 0:
                return Variant(static_cast<signed char>(edge));
            case 1:
                return Variant(static_cast<unsigned char>(edge));
            case 2:
                return Variant(static_cast<short>(edge));
            case 3:
                return Variant(static_cast<unsigned short>(edge));
            case 4:
                return Variant(static_cast<int>(edge));
            case 5:
                return Variant(static_cast<unsigned int>(edge));
            case 6:
                return Variant(static_cast<long>(edge));
            case 7:
                return Variant(static_cast<unsigned long>(edge));
            default:
                return Variant(std::numeric_limits<unsigned long>::max() - Below(3));
        }
    }

    Variant Double() {
        static const double kDoubles[] = {0.0,
                                          -0.5,
                                          99.9,
                                          1e300,
                                          -1e300,
                                          std::numeric_limits<double>::infinity(),
                                          std::numeric_limits<double>::quiet_NaN()};
        return Variant(kDoubles[Below(std::size(kDoubles))]);
    }

    Variant String() {
        const size_t length = Chance(1) ? 10000 : Below(12);
        std::string text(length, ' ');
        for (char& c : text) {
            c = static_cast<char>(Below(256));
        }
        return Variant(text);
    }

    // A word from the possible-value lists in random letter case.
    Variant Word() {
        static const char* const kWords[] = {
            "left",      "center",    "right",       "top",          "middle",  "bottom", "static",
            "slideshow", "breathing", "progressbar", "__response__", "ShowGui", "fade"};
        std::string word = kWords[Below(std::size(kWords))];
        for (char& c : word) {
            if (Chance(50)) {
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
        }
        return Variant(word);
    }

    Variant Time() {
        timeval value{static_cast<time_t>(rng_() % 4000000000ULL),
                      static_cast<suseconds_t>(Below(1000000))};
        return Variant(value);
    }

    Variant Container(VariantType type, int depth) {
        Variant container = Variant::MakeContainer(type);
        const size_t count = Below(4);
        for (size_t i = 0; i < count; ++i) {
            if (type == dravik::variant::kArray) {
                container[static_cast<int64_t>(i)] = Any(depth);
            } else {
                container[kKeys[Below(std::size(kKeys))]] = Any(depth);
            }
        }
        return container;
    }

    static constexpr const char* kKeys[] = {"id",
                                            "timeStamp",
                                            "from",
                                            "to",
                                            "functionName",
                                            "queueIfDestUnavailable",
                                            "responseExpected",
                                            "transactionId",
                                            "isBroadcast",
                                            "requestId",
                                            "statusCode",
                                            "payload",
                                            "brightness",
                                            "guiId",
                                            "text",
                                            "img",
                                            "x",
                                            "y",
                                            "alignHor",
                                            "alignVert",
                                            "file",
                                            "animation",
                                            "duration",
                                            "count",
                                            "size",
                                            "str",
                                            "junk",
                                            ""};

    std::mt19937_64 rng_;
};

TEST(MessageProperty, random_values_normalise_to_declared_fields_for_every_class) {
    constexpr int kMessages = 20000;
    RandomValues random(0x5eed2024);
    const timeval start = dravik::utils::now();
    for (int i = 0; i < kMessages && !::testing::Test::HasFailure(); ++i) {
        const Variant original = random.Message();
        for (const ClassCase& messageClass : AllClasses()) {
            const Variant result = messageClass.normalize(original);
            const TimeWindow window{start, dravik::utils::now()};
            if (::testing::Test::HasFailure()) {
                break;
            }
            SCOPED_TRACE("message " + std::to_string(i));
            ExpectNormalized(messageClass, original, result, window);
        }
    }
}

}  // namespace
