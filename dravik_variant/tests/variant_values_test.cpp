// Variant values: tags, construction, assignment and conversion between types.
#include "dravik_variant/variant.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace {

using dravik::variant::Matches;
using dravik::variant::Variant;
using dravik::variant::VariantType;
namespace vt = dravik::variant;

timeval makeTime(long sec, long usec) {
    timeval t{};
    t.tv_sec = sec;
    t.tv_usec = usec;
    return t;
}

TEST(Variant, default_is_null) {
    Variant v;
    EXPECT_EQ(v.Type(), 0x8001);
    EXPECT_TRUE(v.IsNull());
    EXPECT_FALSE(v.IsContainer());
}

TEST(Variant, tags_keep_their_documented_values) {
    EXPECT_EQ(vt::kString, 0x100E);
    EXPECT_EQ(vt::kTime, 0x100D);
    EXPECT_EQ(vt::kBool, 0x8003);
    EXPECT_EQ(vt::kNull, 0x8001);
    EXPECT_EQ(vt::kObject, 0x1010);
    EXPECT_EQ(vt::kArray, 0x1011);
    const VariantType integers[] = {vt::kInt8,  vt::kInt16,  vt::kInt32,  vt::kInt64,
                                    vt::kUInt8, vt::kUInt16, vt::kUInt32, vt::kUInt64};
    for (VariantType tag : integers) {
        SCOPED_TRACE(tag);
        EXPECT_NE(tag & 0x4000, 0);
        EXPECT_TRUE(Matches(tag, vt::kNumericPattern));
        EXPECT_TRUE(vt::IsInteger(tag));
    }
    const VariantType others[] = {vt::kNull, vt::kBool,   vt::kDouble, vt::kString,
                                  vt::kTime, vt::kObject, vt::kArray};
    for (VariantType tag : others) {
        SCOPED_TRACE(tag);
        EXPECT_FALSE(vt::IsInteger(tag));
        EXPECT_FALSE(Matches(tag, vt::kNumericPattern));
        EXPECT_TRUE(Matches(tag, vt::kAny));
    }
}

TEST(Variant, each_constructor_sets_its_tag_and_value) {
    struct Row {
        const char* what;
        Variant value;
        VariantType tag;
        int64_t asInt;
    } rows[] = {
        {"bool", Variant(true), vt::kBool, 1},
        {"signed char", Variant(static_cast<signed char>(-7)), vt::kInt8, -7},
        {"unsigned char", Variant(static_cast<unsigned char>(200)), vt::kUInt8, 200},
        {"short", Variant(static_cast<short>(-30000)), vt::kInt16, -30000},
        {"unsigned short", Variant(static_cast<unsigned short>(60000)), vt::kUInt16, 60000},
        {"int", Variant(-100000), vt::kInt32, -100000},
        {"unsigned int", Variant(4000000000u), vt::kUInt32, 4000000000LL},
        {"long", Variant(-5000000000L), vt::kInt64, -5000000000LL},
        {"unsigned long", Variant(5000000000UL), vt::kUInt64, 5000000000LL},
        {"long long", Variant(-6000000000LL), vt::kInt64, -6000000000LL},
        {"unsigned long long", Variant(6000000000ULL), vt::kUInt64, 6000000000LL},
        {"double", Variant(2.75), vt::kDouble, 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(row.value.Type(), row.tag);
        EXPECT_EQ(static_cast<VariantType>(row.value), row.tag);
        EXPECT_EQ(row.value.AsInt64(), row.asInt);
    }
}

TEST(Variant, text_and_time_constructors) {
    Variant fromChars("abc");
    EXPECT_EQ(fromChars.Type(), vt::kString);
    EXPECT_STREQ(static_cast<const char*>(fromChars), "abc");
    Variant fromString(std::string("xyz"));
    EXPECT_EQ(fromString.Type(), vt::kString);
    EXPECT_EQ(static_cast<const std::string&>(fromString), "xyz");
    Variant fromNull(static_cast<const char*>(nullptr));
    EXPECT_EQ(fromNull.Type(), vt::kString);
    EXPECT_EQ(fromNull.AsString(), "");

    Variant time(makeTime(12, 34));
    EXPECT_EQ(time.Type(), vt::kTime);
    const timeval& t = time;
    EXPECT_EQ(t.tv_sec, 12);
    EXPECT_EQ(t.tv_usec, 34);
}

TEST(Variant, each_assignment_sets_its_tag_and_value) {
    Variant v = Variant::MakeContainer(vt::kObject);
    v["child"] = 1;

    v = true;
    EXPECT_EQ(v.Type(), vt::kBool);
    EXPECT_TRUE(static_cast<bool>(v));
    EXPECT_EQ(v.StringKeysCount(), 0u);
    v = "text";
    EXPECT_EQ(v.Type(), vt::kString);
    EXPECT_EQ(v.AsString(), "text");
    v = std::string("more");
    EXPECT_EQ(v.Type(), vt::kString);
    EXPECT_EQ(v.AsString(), "more");
    v = static_cast<signed char>(-3);
    EXPECT_EQ(v.Type(), vt::kInt8);
    EXPECT_EQ(static_cast<signed char>(v), -3);
    v = static_cast<unsigned char>(250);
    EXPECT_EQ(v.Type(), vt::kUInt8);
    EXPECT_EQ(static_cast<unsigned char>(v), 250);
    v = static_cast<short>(-2);
    EXPECT_EQ(v.Type(), vt::kInt16);
    EXPECT_EQ(static_cast<short>(v), -2);
    v = static_cast<unsigned short>(65535);
    EXPECT_EQ(v.Type(), vt::kUInt16);
    EXPECT_EQ(static_cast<unsigned short>(v), 65535);
    v = 42;
    EXPECT_EQ(v.Type(), vt::kInt32);
    EXPECT_EQ(static_cast<int>(v), 42);
    v = 42u;
    EXPECT_EQ(v.Type(), vt::kUInt32);
    EXPECT_EQ(static_cast<unsigned int>(v), 42u);
    v = -42L;
    EXPECT_EQ(v.Type(), vt::kInt64);
    EXPECT_EQ(static_cast<long>(v), -42L);
    v = 42UL;
    EXPECT_EQ(v.Type(), vt::kUInt64);
    EXPECT_EQ(static_cast<unsigned long>(v), 42UL);
    v = -43LL;
    EXPECT_EQ(v.Type(), vt::kInt64);
    EXPECT_EQ(static_cast<long long>(v), -43LL);
    v = 43ULL;
    EXPECT_EQ(v.Type(), vt::kUInt64);
    EXPECT_EQ(static_cast<unsigned long long>(v), 43ULL);
    v = 0.5;
    EXPECT_EQ(v.Type(), vt::kDouble);
    EXPECT_EQ(static_cast<double>(v), 0.5);
    v = makeTime(7, 8);
    EXPECT_EQ(v.Type(), vt::kTime);
    EXPECT_EQ(v.AsTime().tv_sec, 7);
    EXPECT_EQ(v.AsTime().tv_usec, 8);
    Variant other("copied");
    v = other;
    EXPECT_EQ(v.Type(), vt::kString);
    EXPECT_EQ(v.AsString(), "copied");
    EXPECT_EQ(other.AsString(), "copied");
}

TEST(Variant, string_assignment_from_its_own_text) {
    Variant v("self");
    v = v.AsString();
    EXPECT_EQ(v.AsString(), "self");
    v = static_cast<const char*>(v);
    EXPECT_EQ(v.AsString(), "self");
}

TEST(Variant, string_assignment_keeps_zero_bytes) {
    const std::string withZero("a\0b", 3);
    Variant v;
    v = withZero;
    EXPECT_EQ(v.AsString().size(), 3u);
    EXPECT_EQ(v.AsString(), withZero);
}

TEST(Variant, numbers_saturate_at_the_target_limits) {
    EXPECT_EQ(static_cast<unsigned short>(Variant(70000)), 65535);
    EXPECT_EQ(static_cast<unsigned int>(Variant(-5)), 0u);
    EXPECT_EQ(static_cast<unsigned long>(Variant(-5)), 0u);
    EXPECT_EQ(static_cast<signed char>(Variant(300)), 127);
    EXPECT_EQ(static_cast<signed char>(Variant(-300)), -128);
    EXPECT_EQ(static_cast<unsigned char>(Variant(-1)), 0);
    EXPECT_EQ(static_cast<short>(Variant(100000)), 32767);
    EXPECT_EQ(static_cast<int>(Variant(5000000000LL)), std::numeric_limits<int>::max());
    EXPECT_EQ(static_cast<int>(Variant(-5000000000LL)), std::numeric_limits<int>::min());
    EXPECT_EQ(static_cast<long>(Variant(std::numeric_limits<uint64_t>::max())),
              std::numeric_limits<long>::max());
    EXPECT_EQ(static_cast<unsigned int>(Variant(std::numeric_limits<uint64_t>::max())),
              std::numeric_limits<unsigned int>::max());
    EXPECT_EQ(static_cast<signed char>(Variant(-1)), -1);
    EXPECT_EQ(static_cast<double>(Variant(std::numeric_limits<uint64_t>::max())),
              18446744073709551615.0);
}

TEST(Variant, doubles_truncate_toward_zero_then_saturate) {
    EXPECT_EQ(static_cast<int>(Variant(3.9)), 3);
    EXPECT_EQ(static_cast<int>(Variant(-3.9)), -3);
    EXPECT_EQ(static_cast<unsigned short>(Variant(-0.5)), 0);
    EXPECT_EQ(static_cast<unsigned short>(Variant(1e9)), 65535);
    EXPECT_EQ(static_cast<long>(Variant(1e30)), std::numeric_limits<long>::max());
    EXPECT_EQ(static_cast<long>(Variant(-1e30)), std::numeric_limits<long>::min());
    EXPECT_EQ(static_cast<unsigned long>(Variant(1e30)), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(static_cast<int>(Variant(std::nan(""))), 0);
    EXPECT_EQ(static_cast<signed char>(Variant(std::numeric_limits<double>::infinity())), 127);
}

TEST(Variant, booleans_convert_to_zero_or_one) {
    EXPECT_EQ(static_cast<int>(Variant(true)), 1);
    EXPECT_EQ(static_cast<unsigned short>(Variant(false)), 0);
    EXPECT_EQ(static_cast<double>(Variant(true)), 1.0);
    EXPECT_TRUE(static_cast<bool>(Variant(7)));
    EXPECT_FALSE(static_cast<bool>(Variant(0)));
}

TEST(Variant, mismatched_types_convert_to_empty_values) {
    struct Row {
        const char* what;
        Variant value;
    } rows[] = {
        {"null", Variant()},
        {"string of digits", Variant("10")},
        {"time", Variant(makeTime(5, 6))},
        {"object", Variant::MakeContainer(vt::kObject)},
        {"array", Variant::MakeContainer(vt::kArray)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(static_cast<int>(row.value), 0);
        EXPECT_EQ(static_cast<unsigned long>(row.value), 0u);
        EXPECT_EQ(static_cast<signed char>(row.value), 0);
        EXPECT_EQ(static_cast<double>(row.value), 0.0);
        EXPECT_FALSE(static_cast<bool>(row.value));
    }
    Variant number(12);
    EXPECT_EQ(static_cast<const std::string&>(number), "");
    EXPECT_STREQ(static_cast<const char*>(number), "");
    const timeval& t = number;
    EXPECT_EQ(t.tv_sec, 0);
    EXPECT_EQ(t.tv_usec, 0);
    EXPECT_FALSE(static_cast<bool>(Variant("true")));
}

}  // namespace
