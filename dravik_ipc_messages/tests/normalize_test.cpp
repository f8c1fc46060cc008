// NormalizeFields on empty objects and on values that are not objects.
#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "dravik_ipc_messages/messages.h"
#include "dravik_utils/utils.h"
#include "message_expectations.h"

namespace {

using namespace dravik::ipc::messages;
using namespace dravik::ipc::messages::test;

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

}  // namespace
