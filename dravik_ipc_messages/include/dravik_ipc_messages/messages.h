#pragma once

// IPC message classes: typed views over an object Variant.
//
// A message is nothing but its Variant: the classes add no data, only accessors
// for their fields and the repair rules of NormalizeFields(). So a received
// value can be moved into whichever class its function name calls for and
// moved back out again, e.g.
//
//     ShowGui gui(std::move(request));   // request: a BaseRequestMessage
//     gui.NormalizeFields();
//     ...
//     request = std::move(gui);
//
// Accessors. Every field has a getter and a setter named after its key.
//  - The object guard runs first: a message that is neither an object (tag
//    0x1010) nor an array (0x1011) loses its content and becomes an empty object.
//  - The getter inserts the field's default when the key is missing and
//    overwrites a stored value that fails the field's acceptance test: strings
//    need all bits of 0x100E, times all bits of 0x100D, booleans all bits of
//    0x8003, integers the integer bit 0x4000 (any width), the element records
//    "text" and "img" exactly the object tag 0x1010; "payload" takes anything.
//    It then returns the stored value converted to the field's type. So a getter
//    never fails and repairs its own field in place.
//  - The setter stores the value as given; it checks no possible values.
//  - text() and img() return a view (LcmGuiTextSettingsElementRef,
//    LcmGuiImgSettingsElementRef) of the record stored in the message, whose
//    accessors act on that record in place; payload() returns the stored value.
//
// NormalizeFields() makes every declared field present with exactly its
// declared tag: the class's own fields in table order, then each ancestor's
// fields nearest first, the envelope fields of BaseMessage last (element records
// have no envelope), then BaseVariantContainer::NormalizeFields(), whose result
// it returns. Each field is read through its getter and stored back in the
// field's own width, so an integer that arrived as 32 bits is stored as the
// declared width. On top of that:
//  - a field with possible values stores the first entry of equal length that
//    equals the value ignoring letter case, or else the list's first entry
//    ("CENTER" -> "center", "fade" -> "static");
//  - "brightness" is clamped to -1 .. 100 (every negative value means "leave
//    the backlight alone"), a text element's "size" to 3 .. 100. The getters
//    themselves neither fold nor clamp.
//  - ShowSimpleScreen normalises its brightness and the envelope but leaves
//    "text" and "img" to their getters, so an element's size reaches the
//    display engine as it was sent.
// A missing or invalid "id" gets a fresh MakeMessageId(), a missing
// "timeStamp" the current wall-clock time. Keys that a class does not declare
// are never touched.
//
// Field tables. Each class's fields are one table below, one row per field:
// FIELD(accessor, key, kind, default, possible values, clamp). The kinds are
// in fields.h, the word lists and ranges in element_values.h; the same rows
// generate the accessors here and drive NormalizeFields in the library.

#include <sys/time.h>

#include <cstdint>
#include <string>
#include <utility>

#include "dravik_ipc_messages/element_values.h"
#include "dravik_ipc_messages/fields.h"
#include "dravik_variant/variant.h"

// clang-format off
#define DRAVIK_BASE_MESSAGE_FIELDS(FIELD)                                                                 \
    FIELD(id,                     "id",                     UInt64, MakeMessageId(), NO_VALUES, NO_CLAMP) \
    FIELD(timeStamp,              "timeStamp",              Time,   detail::Now(),   NO_VALUES, NO_CLAMP) \
    FIELD(from,                   "from",                   String, "",              NO_VALUES, NO_CLAMP) \
    FIELD(to,                     "to",                     String, "",              NO_VALUES, NO_CLAMP) \
    FIELD(functionName,           "functionName",           String, "",              NO_VALUES, NO_CLAMP) \
    FIELD(queueIfDestUnavailable, "queueIfDestUnavailable", Bool,   true,            NO_VALUES, NO_CLAMP)

#define DRAVIK_BASE_REQUEST_MESSAGE_FIELDS(FIELD)                                  \
    FIELD(responseExpected, "responseExpected", Bool,  false, NO_VALUES, NO_CLAMP) \
    FIELD(transactionId,    "transactionId",    Int64, -1,    NO_VALUES, NO_CLAMP) \
    FIELD(isBroadcast,      "isBroadcast",      Bool,  false, NO_VALUES, NO_CLAMP)

#define DRAVIK_BASE_RESPONSE_MESSAGE_FIELDS(FIELD)                                                    \
    FIELD(functionName, "functionName", String, "__response__",     VALUES("__response__"), NO_CLAMP) \
    FIELD(requestId,    "requestId",    UInt64, 0,                  NO_VALUES,              NO_CLAMP) \
    FIELD(statusCode,   "statusCode",   UInt64, 0,                  NO_VALUES,              NO_CLAMP) \
    FIELD(payload,      "payload",      Any,    variant::Variant(), NO_VALUES,              NO_CLAMP)

#define DRAVIK_LCM_GUI_BASE_SETTINGS_FIELDS(FIELD)                                       \
    FIELD(brightness, "brightness", Int8, kBrightnessKeep, NO_VALUES,                      \
          CLAMP(kBrightnessKeep, kBrightnessMax))

#define DRAVIK_SHOW_GUI_FIELDS(FIELD)                                                           \
    FIELD(functionName,     "functionName",     String, "ShowGui", VALUES("ShowGui"), NO_CLAMP) \
    FIELD(responseExpected, "responseExpected", Bool,   false,     NO_VALUES,         NO_CLAMP) \
    FIELD(guiId,            "guiId",            String, "",        NO_VALUES,         NO_CLAMP)

// Read and repaired through their getters only; see ShowSimpleScreen.
#define DRAVIK_SHOW_SIMPLE_SCREEN_FIELDS(FIELD)                                 \
    FIELD(text, "text", TextRecord, detail::EmptyObject(), NO_VALUES, NO_CLAMP) \
    FIELD(img,  "img",  ImgRecord,  detail::EmptyObject(), NO_VALUES, NO_CLAMP)

#define DRAVIK_LCM_GUI_BASE_POS_SETTINGS_FIELDS(FIELD)                                           \
    FIELD(x,         "x",         UInt16, 0,                 NO_VALUES,                 NO_CLAMP) \
    FIELD(y,         "y",         UInt16, 0,                 NO_VALUES,                 NO_CLAMP) \
    FIELD(alignHor,  "alignHor",  String, kAlignHorWords[0],  WORDS(kAlignHorWords),  NO_CLAMP) \
    FIELD(alignVert, "alignVert", String, kAlignVertWords[0], WORDS(kAlignVertWords), NO_CLAMP)

#define DRAVIK_LCM_GUI_IMG_SETTINGS_ELEMENT_FIELDS(FIELD)                                       \
    FIELD(file,      "file",      String, "",                 NO_VALUES,               NO_CLAMP) \
    FIELD(animation, "animation", String, kAnimationWords[0], WORDS(kAnimationWords),  NO_CLAMP) \
    FIELD(duration,  "duration",  UInt32, 0,                  NO_VALUES,               NO_CLAMP) \
    FIELD(count,     "count",     UInt16, 0,                  NO_VALUES,               NO_CLAMP)

#define DRAVIK_LCM_GUI_TEXT_SETTINGS_ELEMENT_FIELDS(FIELD)                            \
    FIELD(size, "size", UInt16, 6,  NO_VALUES, CLAMP(kFontSizeMin, kFontSizeMax)) \
    FIELD(str,  "str",  String, "", NO_VALUES, NO_CLAMP)
// clang-format on

// Constructors shared by every class: an empty object, a copy of a value, or a
// value moved in; assignment from any Variant.
#define DRAVIK_MESSAGE_CONSTRUCTORS(Class, Base)                          \
    Class() = default;                                                    \
    Class(const ::dravik::variant::Variant& value) : Base(value) {}       \
    Class(::dravik::variant::Variant&& value) : Base(std::move(value)) {} \
    using Base::operator=;

namespace dravik::ipc::messages {

using variant::Variant;

// ---- element records -----------------------------------------------------

// Position of an element on the panel.
class LcmGuiBasePosSettings : public variant::BaseVariantContainer {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(LcmGuiBasePosSettings, BaseVariantContainer)
    bool NormalizeFields() override;
    DRAVIK_LCM_GUI_BASE_POS_SETTINGS_FIELDS(DRAVIK_FIELD_ACCESSORS)

protected:
    Variant& FieldsTarget() { return *this; }
};

class LcmGuiImgSettingsElement : public LcmGuiBasePosSettings {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(LcmGuiImgSettingsElement, LcmGuiBasePosSettings)
    bool NormalizeFields() override;
    DRAVIK_LCM_GUI_IMG_SETTINGS_ELEMENT_FIELDS(DRAVIK_FIELD_ACCESSORS)
};

class LcmGuiTextSettingsElement : public LcmGuiBasePosSettings {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(LcmGuiTextSettingsElement, LcmGuiBasePosSettings)
    bool NormalizeFields() override;
    DRAVIK_LCM_GUI_TEXT_SETTINGS_ELEMENT_FIELDS(DRAVIK_FIELD_ACCESSORS)
};

// Views of a record stored inside a message (what ShowSimpleScreen::text() and
// img() return). The stored child is a plain Variant owned by its parent, so it
// cannot be handed out as a reference of the record class; the view carries a
// reference to it and offers the record's accessors, acting on it in place. A
// view stays valid as long as the parent keeps the key.
// The stored record that a view acts on.
class ElementRef {
public:
    explicit ElementRef(Variant& record) : record_(&record) {}
    Variant& value() const { return *record_; }

protected:
    Variant& FieldsTarget() { return *record_; }

    // Normalises the stored record as a `Record`: moved out into a record
    // object and back, two moves and no copy.
    template <typename Record>
    bool NormalizeAs() {
        Record record(std::move(*record_));
        const bool result = record.NormalizeFields();
        *record_ = std::move(record);
        return result;
    }

private:
    Variant* record_;
};

class LcmGuiImgSettingsElementRef : public ElementRef {
public:
    using ElementRef::ElementRef;
    DRAVIK_LCM_GUI_IMG_SETTINGS_ELEMENT_FIELDS(DRAVIK_FIELD_ACCESSORS)
    DRAVIK_LCM_GUI_BASE_POS_SETTINGS_FIELDS(DRAVIK_FIELD_ACCESSORS)
    // Normalises the stored record as an LcmGuiImgSettingsElement.
    bool NormalizeFields();
};

class LcmGuiTextSettingsElementRef : public ElementRef {
public:
    using ElementRef::ElementRef;
    DRAVIK_LCM_GUI_TEXT_SETTINGS_ELEMENT_FIELDS(DRAVIK_FIELD_ACCESSORS)
    DRAVIK_LCM_GUI_BASE_POS_SETTINGS_FIELDS(DRAVIK_FIELD_ACCESSORS)
    // Normalises the stored record as an LcmGuiTextSettingsElement.
    bool NormalizeFields();
};

// ---- messages ------------------------------------------------------------

// The envelope every message carries.
class BaseMessage : public variant::BaseVariantContainer {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(BaseMessage, BaseVariantContainer)
    bool NormalizeFields() override;
    DRAVIK_BASE_MESSAGE_FIELDS(DRAVIK_FIELD_ACCESSORS)

protected:
    Variant& FieldsTarget() { return *this; }
};

class BaseRequestMessage : public BaseMessage {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(BaseRequestMessage, BaseMessage)
    bool NormalizeFields() override;
    DRAVIK_BASE_REQUEST_MESSAGE_FIELDS(DRAVIK_FIELD_ACCESSORS)
};

// Every normalised response names the function "__response__".
class BaseResponseMessage : public BaseMessage {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(BaseResponseMessage, BaseMessage)
    bool NormalizeFields() override;
    DRAVIK_BASE_RESPONSE_MESSAGE_FIELDS(DRAVIK_FIELD_ACCESSORS)
};

// The brightness shared by both display requests: a percentage, or -1 to
// leave the backlight as it is.
class LcmGuiBaseSettings : public BaseRequestMessage {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(LcmGuiBaseSettings, BaseRequestMessage)
    bool NormalizeFields() override;
    DRAVIK_LCM_GUI_BASE_SETTINGS_FIELDS(DRAVIK_FIELD_ACCESSORS)
};

// Shows a configured screen by its name.
class ShowGui : public LcmGuiBaseSettings {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(ShowGui, LcmGuiBaseSettings)
    bool NormalizeFields() override;
    DRAVIK_SHOW_GUI_FIELDS(DRAVIK_FIELD_ACCESSORS)
};

// Shows a screen described in the request: one text and one image record.
// NormalizeFields covers "brightness" and the envelope only; "text" and "img"
// are repaired by their getters, and their records' fields by the records' own
// getters, so the display engine sees each value as it was sent.
class ShowSimpleScreen : public LcmGuiBaseSettings {
public:
    DRAVIK_MESSAGE_CONSTRUCTORS(ShowSimpleScreen, LcmGuiBaseSettings)
    bool NormalizeFields() override;
    DRAVIK_SHOW_SIMPLE_SCREEN_FIELDS(DRAVIK_FIELD_ACCESSORS)
};

static_assert(sizeof(LcmGuiBasePosSettings) == sizeof(Variant));
static_assert(sizeof(LcmGuiImgSettingsElement) == sizeof(Variant));
static_assert(sizeof(LcmGuiTextSettingsElement) == sizeof(Variant));
static_assert(sizeof(BaseMessage) == sizeof(Variant));
static_assert(sizeof(BaseRequestMessage) == sizeof(Variant));
static_assert(sizeof(BaseResponseMessage) == sizeof(Variant));
static_assert(sizeof(LcmGuiBaseSettings) == sizeof(Variant));
static_assert(sizeof(ShowGui) == sizeof(Variant));
static_assert(sizeof(ShowSimpleScreen) == sizeof(Variant));

}  // namespace dravik::ipc::messages
