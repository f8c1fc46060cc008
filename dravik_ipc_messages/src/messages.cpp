#include "dravik_ipc_messages/messages.h"

#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <type_traits>

#include "dravik_utils/utils.h"

namespace dravik::ipc::messages {

uint64_t MakeMessageId() {
    timespec monotonic{};
    // CLOCK_MONOTONIC cannot fail on Linux; a zero reading would still give a valid id.
    (void)clock_gettime(CLOCK_MONOTONIC, &monotonic);
    const uint64_t nanoseconds = static_cast<uint64_t>(monotonic.tv_sec) * 1000000000ULL +
                                 static_cast<uint64_t>(monotonic.tv_nsec);
    constexpr uint64_t kLow48Bits = (1ULL << 48) - 1;
    const uint64_t processBits = static_cast<uint64_t>(getpid()) & 0xFFFFULL;
    return (nanoseconds & kLow48Bits) | (processBits << 48);
}

namespace detail {

void EnsureContainer(Variant& message) {
    const VariantType tag = message.Type();
    if (tag != variant::kObject && tag != variant::kArray) {
        message.Free();
        message.IsArray(false);
    }
}

Variant& RepairField(Variant& message, const char* key, bool (*accepts)(uint16_t),
                     Variant (*makeDefault)()) {
    EnsureContainer(message);
    Variant* stored = message.Find(key);
    if (stored == nullptr) {
        stored = &message[key];
        *stored = makeDefault();
    } else if (!accepts(stored->Type())) {
        *stored = makeDefault();
    }
    return *stored;
}

void AssignField(Variant& message, const char* key, Variant value) {
    EnsureContainer(message);
    message[key] = std::move(value);
}

timeval Now() {
    return utils::now();
}

Variant EmptyObject() {
    return Variant::MakeContainer(variant::kObject);
}

}  // namespace detail

namespace {

using PossibleValues = std::array<const char*, 4>;

struct Clamp {
    bool enabled = false;
    long low = 0;
    long high = 0;
};

// The normalisation rules of one field-table row.
struct FieldRow {
    const char* key;
    void (*normalize)(Variant& message, const FieldRow& row);
    Variant (*makeDefault)();
    PossibleValues values;  // unused entries are null; none at all: no list
    Clamp clamp;
};

// A word list of element_values.h as a row's possible values.
template <size_t N>
constexpr PossibleValues PossibleValuesOf(const char* const (&words)[N]) {
    static_assert(N <= std::tuple_size_v<PossibleValues>, "a field lists at most four words");
    PossibleValues values{};
    for (size_t i = 0; i < N; ++i) {
        values[i] = words[i];
    }
    return values;
}

// The first listed value of the same length that equals `value` ignoring
// letter case, in the list's own spelling; else the list's first entry.
std::string FoldToPossibleValue(const std::string& value, const PossibleValues& values) {
    for (const char* entry : values) {
        if (entry != nullptr && std::strlen(entry) == value.size() &&
            strncasecmp(entry, value.c_str(), value.size()) == 0) {
            return entry;
        }
    }
    return values[0];
}

// The bounds of a clamp are chosen to fit the field's own width.
template <typename T>
T ApplyClamp(T value, const Clamp& clamp) {
    if (!clamp.enabled) {
        return value;
    }
    return std::clamp(value, static_cast<T>(clamp.low), static_cast<T>(clamp.high));
}

// Reads the field through the getter's repair, folds or clamps it, and stores
// it back in the field's own width so that its tag is the declared one.
template <typename Kind>
void NormalizeField(Variant& message, const FieldRow& row) {
    const Variant& stored = detail::RepairField(message, row.key, &Kind::Accepts, row.makeDefault);
    typename Kind::Value value = Kind::Read(stored);
    if constexpr (std::is_same_v<typename Kind::Value, std::string>) {
        if (row.values[0] != nullptr) {
            value = FoldToPossibleValue(value, row.values);
        }
    } else if constexpr (std::is_integral_v<typename Kind::Value>) {
        value = ApplyClamp(value, row.clamp);
    }
    detail::AssignField(message, row.key, Kind::Store(value));
}

// "payload" takes any value as it is: it only has to be present.
template <>
void NormalizeField<field::Any>(Variant& message, const FieldRow& row) {
    (void)detail::RepairField(message, row.key, &field::Any::Accepts, row.makeDefault);
}

// The table tokens of messages.h, as parts of a FieldRow.
// clang-format off
#define VALUES(...)      PossibleValues{__VA_ARGS__}
#define WORDS(list)      PossibleValuesOf(list)
#define NO_VALUES        PossibleValues{}
#define CLAMP(low, high) Clamp{true, low, high}
#define NO_CLAMP         Clamp{}
// clang-format on
#define DRAVIK_FIELD_ROW(name, key, Kind, defaultValue, values, clamp)                           \
    FieldRow{key, &NormalizeField<field::Kind>, [] { return field::Kind::Store(defaultValue); }, \
             values, clamp},

constexpr FieldRow kBaseMessageFields[] = {DRAVIK_BASE_MESSAGE_FIELDS(DRAVIK_FIELD_ROW)};
constexpr FieldRow kBaseRequestMessageFields[] = {
    DRAVIK_BASE_REQUEST_MESSAGE_FIELDS(DRAVIK_FIELD_ROW)};
constexpr FieldRow kBaseResponseMessageFields[] = {
    DRAVIK_BASE_RESPONSE_MESSAGE_FIELDS(DRAVIK_FIELD_ROW)};
constexpr FieldRow kLcmGuiBaseSettingsFields[] = {
    DRAVIK_LCM_GUI_BASE_SETTINGS_FIELDS(DRAVIK_FIELD_ROW)};
constexpr FieldRow kShowGuiFields[] = {DRAVIK_SHOW_GUI_FIELDS(DRAVIK_FIELD_ROW)};
constexpr FieldRow kLcmGuiBasePosSettingsFields[] = {
    DRAVIK_LCM_GUI_BASE_POS_SETTINGS_FIELDS(DRAVIK_FIELD_ROW)};
constexpr FieldRow kLcmGuiImgSettingsElementFields[] = {
    DRAVIK_LCM_GUI_IMG_SETTINGS_ELEMENT_FIELDS(DRAVIK_FIELD_ROW)};
constexpr FieldRow kLcmGuiTextSettingsElementFields[] = {
    DRAVIK_LCM_GUI_TEXT_SETTINGS_ELEMENT_FIELDS(DRAVIK_FIELD_ROW)};

#undef DRAVIK_FIELD_ROW
#undef NO_CLAMP
#undef CLAMP
#undef NO_VALUES
#undef WORDS
#undef VALUES

struct FieldTable {
    const FieldRow* begin;
    const FieldRow* end;
};

template <size_t N>
constexpr FieldTable Table(const FieldRow (&rows)[N]) {
    return {rows, rows + N};
}

// Normalises the fields of `tables` in order (a class's own table first, its
// ancestors' after it), then lets the variant library finish.
bool NormalizeTables(variant::BaseVariantContainer& message,
                     std::initializer_list<FieldTable> tables) {
    for (const FieldTable& table : tables) {
        for (const FieldRow* row = table.begin; row != table.end; ++row) {
            row->normalize(message, *row);
        }
    }
    return message.BaseVariantContainer::NormalizeFields();
}

}  // namespace

bool LcmGuiBasePosSettings::NormalizeFields() {
    return NormalizeTables(*this, {Table(kLcmGuiBasePosSettingsFields)});
}

bool LcmGuiImgSettingsElement::NormalizeFields() {
    return NormalizeTables(
        *this, {Table(kLcmGuiImgSettingsElementFields), Table(kLcmGuiBasePosSettingsFields)});
}

bool LcmGuiTextSettingsElement::NormalizeFields() {
    return NormalizeTables(
        *this, {Table(kLcmGuiTextSettingsElementFields), Table(kLcmGuiBasePosSettingsFields)});
}

bool LcmGuiImgSettingsElementRef::NormalizeFields() {
    return NormalizeAs<LcmGuiImgSettingsElement>();
}

bool LcmGuiTextSettingsElementRef::NormalizeFields() {
    return NormalizeAs<LcmGuiTextSettingsElement>();
}

bool BaseMessage::NormalizeFields() {
    return NormalizeTables(*this, {Table(kBaseMessageFields)});
}

bool BaseRequestMessage::NormalizeFields() {
    return NormalizeTables(*this, {Table(kBaseRequestMessageFields), Table(kBaseMessageFields)});
}

bool BaseResponseMessage::NormalizeFields() {
    return NormalizeTables(*this, {Table(kBaseResponseMessageFields), Table(kBaseMessageFields)});
}

bool LcmGuiBaseSettings::NormalizeFields() {
    return NormalizeTables(*this, {Table(kLcmGuiBaseSettingsFields),
                                   Table(kBaseRequestMessageFields), Table(kBaseMessageFields)});
}

bool ShowGui::NormalizeFields() {
    return NormalizeTables(*this, {Table(kShowGuiFields), Table(kLcmGuiBaseSettingsFields),
                                   Table(kBaseRequestMessageFields), Table(kBaseMessageFields)});
}

// "text" and "img" are deliberately left out: the display engine reads the
// records through their getters, and an element's size must reach it as sent.
bool ShowSimpleScreen::NormalizeFields() {
    return NormalizeTables(*this, {Table(kLcmGuiBaseSettingsFields),
                                   Table(kBaseRequestMessageFields), Table(kBaseMessageFields)});
}

}  // namespace dravik::ipc::messages
