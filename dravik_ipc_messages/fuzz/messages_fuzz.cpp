// Arbitrary values normalised as every message class, every getter called:
// afterwards every declared field is present with its declared type.
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "../tests/message_keys.h"
#include "FuzzBytes.h"
#include "dravik_ipc_messages/messages.h"
#include "dravik_variant/variant.h"

using namespace dravik::ipc::messages;
using dravik::variant::Variant;

namespace {

using Bytes = dravik::fuzz::FuzzBytes;

// Mostly the words and keys the messages know, sometimes any bytes.
std::string wordOrText(Bytes& in) {
    static const char* const kWords[] = {"ShowGui",     "ShowSimpleScreen", "__response__",
                                         "left",        "center",           "right",
                                         "top",         "middle",           "bottom",
                                         "static",      "slideshow",        "breathing",
                                         "progressbar", "Center",           ""};
    const uint8_t pick = in.byte();
    if (pick % 4 != 0) {
        return kWords[pick % (sizeof kWords / sizeof *kWords)];
    }
    return in.text(15);
}

// Every key any message class declares, so that generated objects hit them,
// and one that none declares.
const char* const kExtraKeys[] = {"other"};
constexpr size_t kKeyCount = std::size(test::kMessageKeys) + std::size(kExtraKeys);

// A number of type T from the next sizeof(T) bytes.
template <typename T>
Variant number(Bytes& in) {
    return Variant(in.value<T>());
}

// makeValue's picks from kFirstNumber on: each numeric type a Variant holds.
constexpr unsigned kFirstNumber = 2;
Variant (*const kNumbers[])(Bytes&) = {
    &number<signed char>,    &number<unsigned char>, &number<short>,
    &number<unsigned short>, &number<int>,           &number<unsigned int>,
    &number<long>,           &number<unsigned long>, &number<double>};

Variant makeValue(Bytes& in, int depth) {
    const unsigned pick = in.byte() % (depth > 0 ? 17 : 15);
    if (pick >= kFirstNumber && pick - kFirstNumber < std::size(kNumbers)) {
        return kNumbers[pick - kFirstNumber](in);
    }
    switch (pick) {
        case 0:
            return Variant();
        case 1:
            return Variant((in.byte() & 1) != 0);
        case 11: {
            timeval tv{};
            tv.tv_sec = in.value<int32_t>();
            tv.tv_usec = in.value<int32_t>();
            return Variant(tv);
        }
        case 12:
        case 13:
        case 14:
            return Variant(wordOrText(in));
        default: {
            const bool object = in.byte() % 4 != 0;
            Variant container =
                Variant::MakeContainer(object ? dravik::variant::kObject : dravik::variant::kArray);
            for (int n = in.byte() % 6; n > 0; --n) {
                const uint8_t k = in.byte();
                if (k % 5 == 0) {
                    container[static_cast<int64_t>(k % 3)] = makeValue(in, depth - 1);
                } else {
                    container[test::messageKeyOrExtra(k % kKeyCount, kExtraKeys)] =
                        makeValue(in, depth - 1);
                }
            }
            return container;
        }
    }
}

[[noreturn]] void fail(const char* what, const char* key, const Variant& value) {
    fprintf(stderr, "%s: field \"%s\" after normalising %s\n", what, key, value.ToJSON().c_str());
    abort();
}

// The stored type each kind of field declares.
template <typename Kind>
uint16_t declaredTag() {
    return Kind::Store(typename Kind::Value{}).Type();
}
template <>
uint16_t declaredTag<field::TextRecord>() {
    return dravik::variant::kObject;
}
template <>
uint16_t declaredTag<field::ImgRecord>() {
    return dravik::variant::kObject;
}
template <>
uint16_t declaredTag<field::Any>() {
    return 0;  // any value at all
}

void expectField(const Variant& message, const char* key, uint16_t tag, const Variant& original) {
    const Variant* stored = message.Find(key);
    if (stored == nullptr) {
        fail("missing", key, original);
    }
    if (tag != 0 && stored->Type() != tag) {
        fail("wrong type", key, original);
    }
}

#define DRAVIK_FUZZ_CHECK_FIELD(name, key, Kind, defaultValue, values, clamp) \
    expectField(message, key, declaredTag<field::Kind>(), original);
#define DRAVIK_FUZZ_CALL_GETTER(name, key, Kind, defaultValue, values, clamp) (void)message.name();

template <typename Message>
Message normalised(const Variant& original) {
    Message message(original);
    (void)message.NormalizeFields();
    return message;
}

// Each class's fields with those of the classes it extends, checked in this
// order.
#define DRAVIK_FUZZ_ENVELOPE_FIELDS(FIELD) DRAVIK_BASE_MESSAGE_FIELDS(FIELD)
#define DRAVIK_FUZZ_REQUEST_FIELDS(FIELD)     \
    DRAVIK_BASE_REQUEST_MESSAGE_FIELDS(FIELD) \
    DRAVIK_FUZZ_ENVELOPE_FIELDS(FIELD)
#define DRAVIK_FUZZ_RESPONSE_FIELDS(FIELD)     \
    DRAVIK_BASE_RESPONSE_MESSAGE_FIELDS(FIELD) \
    DRAVIK_FUZZ_ENVELOPE_FIELDS(FIELD)
#define DRAVIK_FUZZ_SETTINGS_FIELDS(FIELD)     \
    DRAVIK_LCM_GUI_BASE_SETTINGS_FIELDS(FIELD) \
    DRAVIK_FUZZ_REQUEST_FIELDS(FIELD)
#define DRAVIK_FUZZ_SHOW_GUI_FIELDS(FIELD) \
    DRAVIK_SHOW_GUI_FIELDS(FIELD)          \
    DRAVIK_FUZZ_SETTINGS_FIELDS(FIELD)
#define DRAVIK_FUZZ_TEXT_RECORD_FIELDS(FIELD)          \
    DRAVIK_LCM_GUI_TEXT_SETTINGS_ELEMENT_FIELDS(FIELD) \
    DRAVIK_LCM_GUI_BASE_POS_SETTINGS_FIELDS(FIELD)
#define DRAVIK_FUZZ_IMG_RECORD_FIELDS(FIELD)          \
    DRAVIK_LCM_GUI_IMG_SETTINGS_ELEMENT_FIELDS(FIELD) \
    DRAVIK_LCM_GUI_BASE_POS_SETTINGS_FIELDS(FIELD)

// `original` normalised as a Class, each field in CHECKED checked, then each
// field in READ read through its getter.
#define DRAVIK_FUZZ_MESSAGE(Class, CHECKED, READ)    \
    do {                                             \
        Class message = normalised<Class>(original); \
        CHECKED(DRAVIK_FUZZ_CHECK_FIELD)             \
        READ(DRAVIK_FUZZ_CALL_GETTER)                \
    } while (false)

void fuzzEnvelopes(const Variant& original) {
    DRAVIK_FUZZ_MESSAGE(BaseMessage, DRAVIK_FUZZ_ENVELOPE_FIELDS, DRAVIK_BASE_MESSAGE_FIELDS);
    DRAVIK_FUZZ_MESSAGE(BaseRequestMessage, DRAVIK_FUZZ_REQUEST_FIELDS,
                        DRAVIK_BASE_REQUEST_MESSAGE_FIELDS);
    DRAVIK_FUZZ_MESSAGE(BaseResponseMessage, DRAVIK_FUZZ_RESPONSE_FIELDS,
                        DRAVIK_BASE_RESPONSE_MESSAGE_FIELDS);
}

void checkTextRecord(const Variant& message, const Variant& original) {
    DRAVIK_FUZZ_TEXT_RECORD_FIELDS(DRAVIK_FUZZ_CHECK_FIELD)
}

void checkImgRecord(const Variant& message, const Variant& original) {
    DRAVIK_FUZZ_IMG_RECORD_FIELDS(DRAVIK_FUZZ_CHECK_FIELD)
}

void fuzzDisplayRequests(const Variant& original) {
    DRAVIK_FUZZ_MESSAGE(LcmGuiBaseSettings, DRAVIK_FUZZ_SETTINGS_FIELDS,
                        DRAVIK_LCM_GUI_BASE_SETTINGS_FIELDS);
    DRAVIK_FUZZ_MESSAGE(ShowGui, DRAVIK_FUZZ_SHOW_GUI_FIELDS, DRAVIK_SHOW_GUI_FIELDS);
    // Its records are repaired by their getters, as the show command reads them.
    ShowSimpleScreen message = normalised<ShowSimpleScreen>(original);
    DRAVIK_FUZZ_SETTINGS_FIELDS(DRAVIK_FUZZ_CHECK_FIELD)
    LcmGuiTextSettingsElementRef text = message.text();
    LcmGuiImgSettingsElementRef img = message.img();
    (void)text.NormalizeFields();
    (void)img.NormalizeFields();
    DRAVIK_SHOW_SIMPLE_SCREEN_FIELDS(DRAVIK_FUZZ_CHECK_FIELD)
    checkTextRecord(text.value(), original);
    checkImgRecord(img.value(), original);
}

void fuzzRecords(const Variant& original) {
    DRAVIK_FUZZ_MESSAGE(LcmGuiTextSettingsElement, DRAVIK_FUZZ_TEXT_RECORD_FIELDS,
                        DRAVIK_FUZZ_TEXT_RECORD_FIELDS);
    DRAVIK_FUZZ_MESSAGE(LcmGuiImgSettingsElement, DRAVIK_FUZZ_IMG_RECORD_FIELDS,
                        DRAVIK_FUZZ_IMG_RECORD_FIELDS);
}

// Getters alone repair what they read, without NormalizeFields first.
void fuzzGettersAlone(const Variant& original) {
    ShowSimpleScreen message(original);
    DRAVIK_LCM_GUI_BASE_SETTINGS_FIELDS(DRAVIK_FUZZ_CALL_GETTER)
    DRAVIK_BASE_REQUEST_MESSAGE_FIELDS(DRAVIK_FUZZ_CALL_GETTER)
    DRAVIK_BASE_MESSAGE_FIELDS(DRAVIK_FUZZ_CALL_GETTER)
    LcmGuiTextSettingsElementRef text = message.text();
    (void)text.str();
    (void)text.size();
    (void)text.x();
    (void)text.alignHor();
    LcmGuiImgSettingsElementRef img = message.img();
    (void)img.file();
    (void)img.animation();
    (void)img.duration();
    (void)img.count();
    (void)img.y();
    (void)img.alignVert();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    const Variant original = makeValue(in, 3);
    fuzzEnvelopes(original);
    fuzzDisplayRequests(original);
    fuzzRecords(original);
    fuzzGettersAlone(original);
    return 0;
}
