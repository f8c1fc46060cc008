#include "message_expectations.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <initializer_list>

#include "dravik_ipc_messages/messages.h"
#include "dravik_utils/utils.h"

namespace dravik::ipc::messages::test {

uint64_t PidBits() {
    return static_cast<uint64_t>(getpid()) & 0xFFFFu;
}

Variant EmptyObject() {
    return Variant::MakeContainer(dravik::variant::kObject);
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

namespace {

// The value moved into `Message`, normalised there, and moved back out.
template <typename Message>
Variant Normalized(Variant value) {
    Message message(std::move(value));
    EXPECT_TRUE(message.NormalizeFields());
    return Variant(std::move(message));
}

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

}  // namespace

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

bool NotBefore(const timeval& a, const timeval& b) {
    return a.tv_sec > b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_usec >= b.tv_usec);
}

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

}  // namespace dravik::ipc::messages::test
