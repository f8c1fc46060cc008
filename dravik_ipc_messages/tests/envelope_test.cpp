// The envelope every message carries: id, time stamp, names and payload.
#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "dravik_ipc_messages/messages.h"
#include "message_expectations.h"

namespace {

using namespace dravik::ipc::messages;
using namespace dravik::ipc::messages::test;

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
    ExpectEachNormalized<BaseMessage>(rows, "id", [](BaseMessage& message, uint64_t expected) {
        EXPECT_EQ(TagOf(message, "id"), kTagUInt64);
        EXPECT_EQ(message.id(), expected);
    });
}

TEST(MessageEnvelope, id_of_non_integer_type_is_replaced_by_fresh_id) {
    const std::vector<Variant> rows = {Variant("12345"), Variant(12345.0), Variant(true), Variant(),
                                       EmptyObject()};
    ExpectEachNormalized<BaseRequestMessage>(rows, "id", [](BaseRequestMessage& message) {
        EXPECT_EQ(TagOf(message, "id"), kTagUInt64);
        EXPECT_EQ(message.id() >> 48, PidBits());
    });
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
    ExpectEachNormalized<BaseResponseMessage>(
        rows, "functionName", [](BaseResponseMessage& response) {
            EXPECT_EQ(Child(response, "functionName"), Variant("__response__"));
        });
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

}  // namespace
