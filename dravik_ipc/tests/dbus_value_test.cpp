#include "dravik_ipc/dbus_value.h"

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>

#include "dravik_ipc/sdbus_handles.h"
#include "dravik_test_support/private_bus_test.h"

using namespace dravik::ipc;
using dravik::testsupport::PrivateBusTest;
using dravik::variant::Variant;
using dravik::variant::VariantType;

namespace {

timeval makeTime(long seconds, long micros) {
    timeval t{};
    t.tv_sec = seconds;
    t.tv_usec = micros;
    return t;
}

Variant object() {
    return Variant::MakeContainer(dravik::variant::kObject);
}
Variant array() {
    return Variant::MakeContainer(dravik::variant::kArray);
}

// Objects nested `levels` deep, the innermost holding "leaf" = 1.
Variant nestedObjects(size_t levels) {
    Variant value = object();
    value["leaf"] = 1;
    for (size_t level = 1; level < levels; ++level) {
        Variant outer = object();
        outer["inner"] = std::move(value);
        value = std::move(outer);
    }
    return value;
}

// sd-bus builds messages only on a connected bus, so every test gets one on a
// private daemon; the messages themselves are sealed and read back locally.
class DbusValue : public PrivateBusTest {
protected:
    void SetUp() override {
        PrivateBusTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        sd_bus* raw = nullptr;
        ASSERT_GE(sd_bus_open_system(&raw), 0);
        connection_.reset(raw);
    }

    MessageHandle newMessage() {
        sd_bus_message* raw = nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(connection_.get(), &raw, "dravik.ipc.test",
                                                 "/dravik/ipc/test", "dravik.ipc.Endpoint", "Echo"),
                  0);
        return MessageHandle(raw);
    }

    // Makes a built message readable from its start.
    void seal(sd_bus_message* message) {
        ASSERT_GE(sd_bus_message_seal(message, ++cookie_, 0), 0);
        ASSERT_GE(sd_bus_message_rewind(message, 1), 0);
    }

    // A message whose body is whatever `build` appends with raw sd-bus calls.
    MessageHandle rawMessage(const std::function<int(sd_bus_message*)>& build) {
        MessageHandle message = newMessage();
        EXPECT_GE(build(message.get()), 0);
        seal(message.get());
        return message;
    }

    Variant roundTrip(const Variant& value) {
        return roundTripBy(AppendVariant, ReadVariant, value);
    }

    // The object as ReadObjectBody reads it back from a message body.
    Variant objectRoundTrip(const Variant& value) {
        return roundTripBy(AppendObject, ReadObjectBody, value);
    }

    // `value` written into a new message by `append`, sealed, and read back by `read`.
    Variant roundTripBy(bool (*append)(sd_bus_message*, const Variant&, std::string&),
                        bool (*read)(sd_bus_message*, Variant&, std::string&),
                        const Variant& value) {
        MessageHandle message = newMessage();
        std::string error;
        EXPECT_TRUE(append(message.get(), value, error)) << error;
        seal(message.get());
        Variant back;
        EXPECT_TRUE(read(message.get(), back, error)) << error;
        return back;
    }

    std::string variantSignature(const Variant& value) {
        MessageHandle message = newMessage();
        std::string error;
        EXPECT_TRUE(AppendVariant(message.get(), value, error)) << error;
        seal(message.get());
        char type = 0;
        const char* contents = nullptr;
        EXPECT_GT(sd_bus_message_peek_type(message.get(), &type, &contents), 0);
        EXPECT_EQ(type, 'v');
        return contents != nullptr ? contents : "";
    }

    BusHandle connection_;
    uint64_t cookie_ = 0;
};

struct TypeRow {
    const char* name;
    Variant sent;
    const char* signature;
    Variant received;
};

TEST_F(DbusValue, every_type_travels_with_its_dbus_signature_and_reads_back) {
    Variant member = object();
    member["a"] = 1;
    member["b"] = "two";
    Variant elements = array();
    elements[int64_t{0}] = true;
    elements[int64_t{1}] = "x";
    const TypeRow rows[] = {
        {"bool", Variant(true), "b", Variant(true)},
        {"uint8", Variant(static_cast<unsigned char>(200)), "y",
         Variant(static_cast<unsigned char>(200))},
        {"int8 widened to int16", Variant(static_cast<signed char>(-5)), "n",
         Variant(static_cast<short>(-5))},
        {"int16", Variant(static_cast<short>(-30000)), "n", Variant(static_cast<short>(-30000))},
        {"uint16", Variant(static_cast<unsigned short>(65000)), "q",
         Variant(static_cast<unsigned short>(65000))},
        {"int32", Variant(-2000000000), "i", Variant(-2000000000)},
        {"uint32", Variant(4000000000u), "u", Variant(4000000000u)},
        {"int64", Variant(-9000000000000000000L), "x", Variant(-9000000000000000000L)},
        {"uint64", Variant(18000000000000000000UL), "t", Variant(18000000000000000000UL)},
        {"double", Variant(2.5), "d", Variant(2.5)},
        {"string", Variant("h\xc3\xa9llo"), "s", Variant("h\xc3\xa9llo")},
        {"empty string", Variant(""), "s", Variant("")},
        {"time", Variant(makeTime(1700000000, 123456)), "(xx)",
         Variant(makeTime(1700000000, 123456))},
        {"null", Variant(), "g", Variant()},
        {"object", member, "a{sv}", member},
        {"array", elements, "av", elements},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(variantSignature(row.sent), row.signature);
        const Variant back = roundTrip(row.sent);
        EXPECT_EQ(back.Type(), row.received.Type());
        EXPECT_TRUE(back == row.received) << back.ToJSON();
    }
}

TEST_F(DbusValue, nested_objects_and_arrays_round_trip_unchanged) {
    Variant value = object();
    value["guiId"] = "boot";
    value["brightness"] = static_cast<signed char>(80);
    value["text"]["str"] = "Hello";
    value["text"]["size"] = static_cast<unsigned short>(12);
    value["list"][int64_t{0}]["deep"][int64_t{0}] = 7;
    value["list"][int64_t{1}] = "second";
    Variant back = roundTrip(value);
    EXPECT_EQ(back.ToJSON(), value.ToJSON());
    EXPECT_EQ(back["text"]["size"].Type(), dravik::variant::kUInt16);
    EXPECT_EQ(back["brightness"].Type(), dravik::variant::kInt16);
    EXPECT_EQ(static_cast<int>(back["brightness"]), 80);
}

TEST_F(DbusValue, null_members_are_left_out_and_null_elements_kept) {
    Variant value = object();
    value["present"] = 1;
    value["absent"];  // created as null
    value["list"][int64_t{0}] = 1;
    value["list"][int64_t{1}];
    value["list"][int64_t{2}] = 3;
    Variant back = objectRoundTrip(value);
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(back.Find("absent"), nullptr);
    ASSERT_NE(back.Find("list"), nullptr);
    ASSERT_EQ(back["list"].NumericKeysCount(), 3u);
    EXPECT_TRUE(back["list"].Find(int64_t{1})->IsNull());
    EXPECT_EQ(back["list"].Find(int64_t{2})->AsInt64(), 3);
}

TEST_F(DbusValue, integer_keys_of_an_object_travel_as_decimal_strings) {
    Variant value = object();
    value["name"] = "n";
    value[int64_t{7}] = "seven";
    Variant back = objectRoundTrip(value);
    ASSERT_FALSE(HasFailure());
    ASSERT_NE(back.Find("7"), nullptr);
    EXPECT_EQ(back["7"].AsString(), "seven");
}

TEST_F(DbusValue, append_object_refuses_a_scalar_body) {
    MessageHandle message = newMessage();
    std::string error;
    EXPECT_FALSE(AppendObject(message.get(), Variant("text"), error));
    EXPECT_EQ(error, "a message body must be an object, not value tag 0x100e");
}

TEST_F(DbusValue, object_path_and_signature_read_as_strings_and_empty_signature_as_null) {
    MessageHandle message = rawMessage([](sd_bus_message* m) {
        return sd_bus_message_append(m, "a{sv}", 3, "path", "o", "/a/b", "sig", "g", "a{sv}",
                                     "none", "g", "");
    });
    Variant back;
    std::string error;
    ASSERT_TRUE(ReadObjectBody(message.get(), back, error)) << error;
    EXPECT_EQ(back["path"].Type(), dravik::variant::kString);
    EXPECT_EQ(back["path"].AsString(), "/a/b");
    EXPECT_EQ(back["sig"].AsString(), "a{sv}");
    ASSERT_NE(back.Find("none"), nullptr);
    EXPECT_TRUE(back["none"].IsNull());
}

TEST_F(DbusValue, any_dictionary_with_string_keys_reads_as_an_object) {
    // What dbus-send sends for dict:string:int32:brightness,80,level,3
    MessageHandle message = rawMessage([](sd_bus_message* m) {
        return sd_bus_message_append(m, "a{si}", 2, "brightness", 80, "level", 3);
    });
    Variant back;
    std::string error;
    ASSERT_TRUE(ReadObjectBody(message.get(), back, error)) << error;
    EXPECT_EQ(back.Type(), dravik::variant::kObject);
    EXPECT_EQ(back["brightness"].Type(), dravik::variant::kInt32);
    EXPECT_EQ(back["brightness"].AsInt64(), 80);
    EXPECT_EQ(back["level"].AsInt64(), 3);
}

TEST_F(DbusValue, other_dictionaries_arrays_and_structs_read_as_arrays) {
    MessageHandle message = rawMessage([](sd_bus_message* m) {
        return sd_bus_message_append(m, "a{sv}", 4, "byInt", "a{is}", 1, 5, "five", "ints", "ai", 2,
                                     10, 20, "pair", "(si)", "k", 9, "badTime", "(xx)", int64_t{5},
                                     int64_t{2000000});
    });
    Variant back;
    std::string error;
    ASSERT_TRUE(ReadObjectBody(message.get(), back, error)) << error;
    EXPECT_EQ(back["byInt"].ToJSON(), R"([[5,"five"]])");
    EXPECT_EQ(back["ints"].ToJSON(), "[10,20]");
    EXPECT_EQ(back["pair"].ToJSON(), R"(["k",9])");
    // Only a microsecond part of 0 .. 999999 makes (xx) a time value.
    EXPECT_EQ(back["badTime"].ToJSON(), "[5,2000000]");
}

TEST_F(DbusValue, nested_variants_are_unwrapped) {
    MessageHandle message = rawMessage([](sd_bus_message* m) {
        return sd_bus_message_append(m, "a{sv}", 1, "wrapped", "v", "v", "i", 42);
    });
    Variant back;
    std::string error;
    ASSERT_TRUE(ReadObjectBody(message.get(), back, error)) << error;
    EXPECT_EQ(back["wrapped"].Type(), dravik::variant::kInt32);
    EXPECT_EQ(back["wrapped"].AsInt64(), 42);
}

TEST_F(DbusValue, file_descriptors_are_refused) {
    if (sd_bus_can_send(connection_.get(), 'h') <= 0) {
        GTEST_SKIP() << "this connection cannot carry file descriptors";
    }
    MessageHandle message = rawMessage([](sd_bus_message* m) {
        return sd_bus_message_append(m, "a{sv}", 1, "fd", "h", STDIN_FILENO);
    });
    Variant back;
    std::string error;
    EXPECT_FALSE(ReadObjectBody(message.get(), back, error));
    EXPECT_EQ(error, "member 'fd': file descriptors (h) are not accepted");
}

TEST_F(DbusValue, values_up_to_the_bus_nesting_limit_are_appended_and_deeper_ones_refused) {
    // 21 levels of objects take 63 D-Bus containers, 22 levels 66.
    Variant back;
    std::string error;
    {
        MessageHandle message = newMessage();
        ASSERT_TRUE(AppendObject(message.get(), nestedObjects(21), error)) << error;
        seal(message.get());
        ASSERT_TRUE(ReadObjectBody(message.get(), back, error)) << error;
        std::string path;
        for (size_t level = 1; level < 21; ++level) {
            path += "inner/";
        }
        path += "leaf";
        const Variant* leaf = back.GetKeyChain(dravik::variant::kAny, path.c_str(), false);
        ASSERT_NE(leaf, nullptr);
        EXPECT_EQ(leaf->AsInt64(), 1);
    }
    MessageHandle message = newMessage();
    EXPECT_FALSE(AppendObject(message.get(), nestedObjects(22), error));
    EXPECT_NE(error.find("value nested deeper than the bus allows (64 D-Bus containers)"),
              std::string::npos)
        << error;
}

TEST_F(DbusValue, a_bomb_of_nested_variants_is_refused_on_receipt) {
    MessageHandle message = rawMessage([](sd_bus_message* m) {
        int r = sd_bus_message_open_container(m, 'a', "{sv}");
        r = r < 0 ? r : sd_bus_message_open_container(m, 'e', "sv");
        r = r < 0 ? r : sd_bus_message_append_basic(m, 's', "bomb");
        const int levels = 60;
        for (int level = 0; level < levels && r >= 0; ++level) {
            r = sd_bus_message_open_container(m, 'v', "v");
        }
        r = r < 0 ? r : sd_bus_message_append(m, "v", "i", 1);
        for (int level = 0; level < levels + 2 && r >= 0; ++level) {
            r = sd_bus_message_close_container(m);
        }
        return r;
    });
    Variant back;
    std::string error;
    EXPECT_FALSE(ReadObjectBody(message.get(), back, error));
    EXPECT_NE(error.find("value nested deeper than 32 containers"), std::string::npos) << error;
}

TEST_F(DbusValue, arrays_nested_up_to_the_depth_limit_are_read_and_deeper_ones_refused) {
    // The body's dictionary is the first container, so 31 arrays reach the limit.
    const auto build = [](size_t levels) {
        return [levels](sd_bus_message* m) {
            const std::string signature = std::string(levels, 'a') + "i";
            int r = sd_bus_message_open_container(m, 'a', "{sv}");
            r = r < 0 ? r : sd_bus_message_open_container(m, 'e', "sv");
            r = r < 0 ? r : sd_bus_message_append_basic(m, 's', "deep");
            r = r < 0 ? r : sd_bus_message_open_container(m, 'v', signature.c_str());
            for (size_t level = 1; level < levels && r >= 0; ++level) {
                r = sd_bus_message_open_container(m, 'a', signature.c_str() + level);
            }
            r = r < 0 ? r : sd_bus_message_append(m, "ai", 1, 7);
            for (size_t level = 1; level < levels + 3 && r >= 0; ++level) {
                r = sd_bus_message_close_container(m);
            }
            return r;
        };
    };
    Variant back;
    std::string error;
    MessageHandle fits = rawMessage(build(kMaxValueDepth - 1));
    ASSERT_TRUE(ReadObjectBody(fits.get(), back, error)) << error;
    const Variant* level = back.Find("deep");
    for (size_t depth = 1; depth < kMaxValueDepth - 1 && level != nullptr; ++depth) {
        level = level->Find(int64_t{0});
    }
    ASSERT_NE(level, nullptr);
    EXPECT_EQ(level->ToJSON(), "[7]");

    MessageHandle tooDeep = rawMessage(build(kMaxValueDepth));
    EXPECT_FALSE(ReadObjectBody(tooDeep.get(), back, error));
    std::string path = "deep";
    for (size_t level = 1; level < kMaxValueDepth; ++level) {
        path += "/0";
    }
    EXPECT_EQ(error, "member '" + path + "': value nested deeper than 32 containers");
}

TEST_F(DbusValue, a_value_over_the_size_budget_is_refused_on_receipt) {
    const std::string megabyte(size_t{1024} * 1024, 'x');
    MessageHandle message = rawMessage([&](sd_bus_message* m) {
        int r = sd_bus_message_open_container(m, 'a', "{sv}");
        for (int i = 0; i < 17 && r >= 0; ++i) {
            r = sd_bus_message_append(m, "{sv}", std::to_string(i).c_str(), "s", megabyte.c_str());
        }
        return r < 0 ? r : sd_bus_message_close_container(m);
    });
    Variant back;
    std::string error;
    EXPECT_FALSE(ReadObjectBody(message.get(), back, error));
    EXPECT_NE(error.find("value larger than 16777216 bytes"), std::string::npos) << error;
}

TEST_F(DbusValue, invalid_utf8_in_a_string_is_reported_not_sent) {
    Variant value = object();
    value["text"] = "bad \xff\xfe bytes";
    MessageHandle message = newMessage();
    std::string error;
    EXPECT_FALSE(AppendObject(message.get(), value, error));
    EXPECT_EQ(error, "member 'text': a string is not valid UTF-8");
}

TEST_F(DbusValue, errors_name_the_path_of_the_refused_value) {
    Variant value = object();
    value["list"][int64_t{0}] = "fine";
    value["list"][int64_t{1}]["name"] = "bad \xc3";
    MessageHandle sent = newMessage();
    std::string error;
    EXPECT_FALSE(AppendObject(sent.get(), value, error));
    EXPECT_EQ(error, "member 'list/1/name': a string is not valid UTF-8");

    if (sd_bus_can_send(connection_.get(), 'h') <= 0) {
        GTEST_SKIP() << "this connection cannot carry file descriptors";
    }
    MessageHandle received = rawMessage([](sd_bus_message* m) {
        return sd_bus_message_append(m, "a{sv}", 1, "fds", "ah", 2, STDIN_FILENO, STDIN_FILENO);
    });
    Variant back;
    EXPECT_FALSE(ReadObjectBody(received.get(), back, error));
    EXPECT_EQ(error, "member 'fds/0': file descriptors (h) are not accepted");
}

TEST_F(DbusValue, a_string_with_a_nul_byte_is_reported_not_cut) {
    Variant value = object();
    value["text"] = Variant(std::string("a\0b", 3));
    MessageHandle message = newMessage();
    std::string error;
    EXPECT_FALSE(AppendObject(message.get(), value, error));
    EXPECT_EQ(error, "member 'text': a string contains a NUL byte");
}

TEST_F(DbusValue, a_body_that_is_not_one_string_keyed_dictionary_is_refused) {
    struct Row {
        const char* name;
        std::function<int(sd_bus_message*)> build;
        const char* error;
    };
    const Row rows[] = {
        {"a string", [](sd_bus_message* m) { return sd_bus_message_append(m, "s", "x"); },
         "the body must be one a{sv} dictionary, not 's'"},
        {"an int-keyed dictionary",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{iv}", 1, 1, "i", 2); },
         "the body must be one a{sv} dictionary, not 'a{iv}'"},
        {"a trailing argument",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}i", 0, 5); },
         "the body must be one a{sv} dictionary, not 'a{sv}i'"},
        {"an empty body", [](sd_bus_message*) { return 0; },
         "the body must be one a{sv} dictionary, not an empty body"},
        {"two strings", [](sd_bus_message* m) { return sd_bus_message_append(m, "ss", "a", "b"); },
         "the body must be one a{sv} dictionary, not 'ss'"},
        {"two dictionaries",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}a{sv}", 0, 0); },
         "the body must be one a{sv} dictionary, not 'a{sv}a{sv}'"},
        {"a byte-keyed dictionary",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{ys}", 1, 7, "x"); },
         "the body must be one a{sv} dictionary, not 'a{ys}'"},
        {"an object-path-keyed dictionary",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "a{ov}", 1, "/a", "i", 1); },
         "the body must be one a{sv} dictionary, not 'a{ov}'"},
        {"an array of strings",
         [](sd_bus_message* m) { return sd_bus_message_append(m, "as", 1, "x"); },
         "the body must be one a{sv} dictionary, not 'as'"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        MessageHandle message = rawMessage(row.build);
        Variant back("untouched");
        std::string error;
        EXPECT_FALSE(ReadObjectBody(message.get(), back, error));
        EXPECT_EQ(error, row.error);
        EXPECT_EQ(back.AsString(), "untouched");
    }
}

}  // namespace
