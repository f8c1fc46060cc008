#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "dravik_logger/log_capture.h"
#include "dravik_test_support/temp_dir.h"
#include "dravik_variant/variant.h"

namespace {

using dravik::testsupport::TempDir;
using dravik::variant::Variant;
using dravik::variant::VariantType;
namespace vt = dravik::variant;

// A fresh directory for the files of one test, removed afterwards.
class JsonFile : public ::testing::Test {
protected:
    std::string path(const std::string& name) const { return dir_.file(name); }
    std::string write(const std::string& name, const std::string& content) const {
        return dir_.write(name, content);
    }

    TempDir dir_{"variant_json_"};
};

// A value that must survive every failed parse untouched.
Variant sentinel() {
    Variant v;
    v["kept"] = "yes";
    return v;
}

void expectRefused(const std::string& text, const std::string& messagePart) {
    Variant v = sentinel();
    EXPECT_FALSE(v.FromJSONString(text));
    EXPECT_TRUE(v == sentinel());
    EXPECT_NE(Variant::LastJsonError().message.find(messagePart), std::string::npos)
        << Variant::LastJsonError().message;
    EXPECT_GE(Variant::LastJsonError().line, 1u);
    EXPECT_GE(Variant::LastJsonError().column, 1u);
}

TEST(VariantJson, every_scalar_type_gets_its_tag) {
    struct Row {
        const char* text;
        VariantType tag;
    } rows[] = {
        {"null", vt::kNull},
        {"true", vt::kBool},
        {"false", vt::kBool},
        {"\"text\"", vt::kString},
        {"0", vt::kInt32},
        {"-1", vt::kInt32},
        {"2147483647", vt::kInt32},
        {"-2147483648", vt::kInt32},
        {"2147483648", vt::kInt64},
        {"-2147483649", vt::kInt64},
        {"9223372036854775807", vt::kInt64},
        {"-9223372036854775808", vt::kInt64},
        {"9223372036854775808", vt::kUInt64},
        {"18446744073709551615", vt::kUInt64},
        {"1.5", vt::kDouble},
        {"1e3", vt::kDouble},
        {"-2E-2", vt::kDouble},
        {"1.0", vt::kDouble},
        {"{}", vt::kObject},
        {"[]", vt::kArray},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        Variant v;
        ASSERT_TRUE(v.FromJSONString(row.text)) << Variant::LastJsonError().message;
        EXPECT_EQ(v.Type(), row.tag);
    }
}

TEST(VariantJson, integer_values_are_exact_at_every_width) {
    Variant v;
    ASSERT_TRUE(v.FromJSONString(
        R"([2147483647, -2147483648, 2147483648, -9223372036854775808, 18446744073709551615])"));
    EXPECT_EQ(v[0].AsInt64(), 2147483647);
    EXPECT_EQ(v[1].AsInt64(), -2147483648LL);
    EXPECT_EQ(v[2].AsInt64(), 2147483648LL);
    EXPECT_EQ(v[3].AsInt64(), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(v[4].AsUInt64(), std::numeric_limits<uint64_t>::max());
}

TEST(VariantJson, scalar_values_are_read) {
    Variant v;
    ASSERT_TRUE(v.FromJSONString(
        R"({"b": true, "s": "caf\u00e9 \"q\" \\ \n", "d": 2.5, "e": -1e2, "n": null})"));
    EXPECT_TRUE(v["b"].AsBool());
    EXPECT_EQ(v["s"].AsString(), "caf\xc3\xa9 \"q\" \\ \n");
    EXPECT_EQ(v["d"].AsDouble(), 2.5);
    EXPECT_EQ(v["e"].AsDouble(), -100.0);
    EXPECT_EQ(v["n"].Type(), vt::kNull);
}

TEST(VariantJson, nesting_keeps_structure_and_order) {
    Variant v;
    ASSERT_TRUE(v.FromJSONString(R"({
        "imgPath": "/usr/etc/gui/",
        "screens": [
            {"name": "boot", "text": {"str": "Hello", "size": 20}},
            {"name": "idle", "img": {"file": "a.png", "count": [1, [2, [3]]]}}
        ]
    })"));
    EXPECT_EQ(v.Type(), vt::kObject);
    EXPECT_EQ(v["imgPath"].AsString(), "/usr/etc/gui/");
    const Variant* screens = v.GetKeyChain(vt::kArray, "screens", true);
    ASSERT_NE(screens, nullptr);
    EXPECT_EQ(screens->NumericKeysCount(), 2u);
    EXPECT_EQ(v.GetKeyChain(vt::kString, "screens/0/name", true)->AsString(), "boot");
    EXPECT_EQ(v.GetKeyChain(vt::kIntegerBit, "screens/0/text/size", true)->AsInt64(), 20);
    EXPECT_EQ(v.GetKeyChain(vt::kIntegerBit, "screens/1/img/count/1/1/0", true)->AsInt64(), 3);
}

TEST(VariantJson, duplicate_keys_keep_the_last_value) {
    Variant v;
    ASSERT_TRUE(v.FromJSONString(R"({"a": 1, "a": 2})"));
    EXPECT_EQ(v["a"].AsInt64(), 2);
    EXPECT_EQ(v.StringKeysCount(), 1u);
}

TEST(VariantJson, success_replaces_the_whole_value) {
    Variant v = sentinel();
    ASSERT_TRUE(v.FromJSONString("[1]"));
    EXPECT_EQ(v.Type(), vt::kArray);
    EXPECT_EQ(v.StringKeysCount(), 0u);
}

TEST(VariantJson, malformed_text_is_refused_and_the_value_kept) {
    struct Row {
        const char* text;
        const char* messagePart;
    } rows[] = {
        {"", "unexpected end of input"},
        {"not json", "syntax error"},
        {"{\"a\": 1", "unexpected end of input"},
        {"[1, 2", "unexpected end of input"},
        {"{\"a\" 1}", "syntax error"},
        {"[1,]", "syntax error"},
        {"{} extra", "syntax error"},
        {"\"unterminated", "syntax error"},
        {"[01]", "syntax error"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        expectRefused(row.text, row.messagePart);
    }
}

TEST(VariantJson, integers_beyond_64_bits_are_refused) {
    expectRefused("18446744073709551616", "integer out of range");
    expectRefused("[1, -9223372036854775809]", "integer out of range");
    expectRefused(R"({"x": 123456789012345678901234567890})", "integer out of range");
    EXPECT_EQ(Variant::LastJsonError().line, 1u);
    EXPECT_EQ(Variant::LastJsonError().column, 7u);
}

TEST(VariantJson, floats_beyond_double_are_refused) {
    Variant v = sentinel();
    EXPECT_FALSE(v.FromJSONString("[1e400]"));
    EXPECT_TRUE(v == sentinel());
}

TEST(VariantJson, invalid_utf8_is_refused) {
    const char* texts[] = {
        "\"\xff\"",             // never valid
        "\"\xc3\"",             // truncated sequence
        "\"\xc0\xaf\"",         // overlong encoding
        "\"\xed\xa0\x80\"",     // surrogate
        "{\"k\xfe\": 1}",       // in a key
        "[\"ok\", \"\x80x\"]",  // stray continuation byte
    };
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        expectRefused(text, "");
        EXPECT_FALSE(Variant::LastJsonError().message.empty());
    }
}

TEST(VariantJson, nesting_up_to_the_limit_is_read) {
    const size_t depth = Variant::kMaxJsonDepth;
    Variant v;
    ASSERT_TRUE(v.FromJSONString(std::string(depth, '[') + std::string(depth, ']')))
        << Variant::LastJsonError().message;
    EXPECT_EQ(v.Type(), vt::kArray);
}

TEST(VariantJson, nesting_beyond_the_limit_is_refused) {
    const size_t depth = Variant::kMaxJsonDepth + 1;
    expectRefused(std::string(depth, '[') + std::string(depth, ']'), "nesting deeper than 256");
    EXPECT_EQ(Variant::LastJsonError().column, depth);
    expectRefused(std::string(depth, '{'), "");
}

TEST(VariantJson, ten_thousand_open_brackets_fail_cleanly) {
    expectRefused(std::string(10000, '['), "nesting deeper than");
    std::string objects;
    for (int n = 0; n < 10000; ++n) {
        objects += "{\"a\":";
    }
    expectRefused(objects, "nesting deeper than");
}

TEST(VariantJson, error_position_is_line_and_column) {
    Variant v;
    EXPECT_FALSE(v.FromJSONString("{\n  \"a\": 1,\n  \"b\": tru\n}"));
    const auto& error = Variant::LastJsonError();
    EXPECT_EQ(error.line, 3u);
    EXPECT_EQ(error.column, 11u);  // the line end that cuts "tru" short
    EXPECT_EQ(error.byteOffset, 22u);
    EXPECT_NE(error.message.find("invalid literal"), std::string::npos) << error.message;
    EXPECT_EQ(error.message.find("json.exception"), std::string::npos) << error.message;
}

TEST(VariantJson, error_on_line_three_counts_columns_from_the_line_start) {
    Variant v;
    EXPECT_FALSE(v.FromJSONString("[\n1,\n  2 x]"));
    const auto& error = Variant::LastJsonError();
    EXPECT_EQ(error.line, 3u);
    EXPECT_EQ(error.column, 5u);
}

TEST(VariantJson, success_clears_the_last_error) {
    Variant v;
    EXPECT_FALSE(v.FromJSONString("["));
    EXPECT_FALSE(Variant::LastJsonError().message.empty());
    EXPECT_TRUE(v.FromJSONString("[]"));
    EXPECT_TRUE(Variant::LastJsonError().message.empty());
    EXPECT_EQ(Variant::LastJsonError().line, 0u);
}

TEST_F(JsonFile, reads_a_file) {
    const std::string file = write("good.json", R"({"sysid": 418, "name": "cam"})");
    Variant v;
    ASSERT_TRUE(v.FromJSONFile(file)) << Variant::LastJsonError().message;
    EXPECT_EQ(v["sysid"].AsInt64(), 418);
    EXPECT_EQ(v["name"].AsString(), "cam");
}

TEST_F(JsonFile, reads_a_file_larger_than_one_read_buffer) {
    std::string text = "[";
    for (int n = 0; n < 50000; ++n) {
        text += std::to_string(n) + ",";
    }
    text += "-1]";
    const std::string file = write("big.json", text);
    Variant v;
    ASSERT_TRUE(v.FromJSONFile(file)) << Variant::LastJsonError().message;
    EXPECT_EQ(v.NumericKeysCount(), 50001u);
    EXPECT_EQ(v[49999].AsInt64(), 49999);
}

TEST_F(JsonFile, missing_file_is_refused) {
    Variant v = sentinel();
    EXPECT_FALSE(v.FromJSONFile(path("absent.json")));
    EXPECT_TRUE(v == sentinel());
    EXPECT_NE(Variant::LastJsonError().message.find("No such file"), std::string::npos)
        << Variant::LastJsonError().message;
    EXPECT_EQ(Variant::LastJsonError().line, 0u);
}

TEST_F(JsonFile, directory_is_refused) {
    Variant v = sentinel();
    EXPECT_FALSE(v.FromJSONFile(dir_.path()));
    EXPECT_TRUE(v == sentinel());
    EXPECT_EQ(Variant::LastJsonError().message, "is a directory");
}

TEST_F(JsonFile, oversized_sparse_file_is_refused_before_reading) {
    const std::string file = path("huge.json");
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 100L * 1024 * 1024), 0);
    close(fd);
    Variant v = sentinel();
    EXPECT_FALSE(v.FromJSONFile(file));
    EXPECT_TRUE(v == sentinel());
    // The size check names the limit; a file that had been read would fail
    // in the parser instead (it holds only zero bytes).
    EXPECT_EQ(Variant::LastJsonError().message, "file is larger than 16777216 bytes");
}

TEST_F(JsonFile, file_of_exactly_the_limit_is_read) {
    std::string text(Variant::kMaxJsonFileSize, ' ');
    text[0] = '1';
    const std::string file = write("limit.json", text);
    Variant v;
    ASSERT_TRUE(v.FromJSONFile(file)) << Variant::LastJsonError().message;
    EXPECT_EQ(v.AsInt64(), 1);
}

// A name that someone else controls may stand for anything: only a regular
// file is read, and nothing else can hold the reader (a FIFO's open would
// wait for a writer, a device may never end).
TEST_F(JsonFile, anything_but_a_regular_file_is_refused_at_once) {
    const std::string fifo = path("fifo.json");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string socketPath = path("socket.json");
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const struct {
        std::string file;
        const char* message;
    } rows[] = {
        {fifo, "is a FIFO"},
        {socketPath, "cannot open file: No such device or address"},  // a socket cannot be opened
        {"/dev/zero", "is a character device"},
        {"/dev/null", "is a character device"},
        {dir_.path(), "is a directory"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        Variant v = sentinel();
        EXPECT_FALSE(v.FromJSONFile(row.file));
        EXPECT_TRUE(v == sentinel());
        EXPECT_EQ(Variant::LastJsonError().message, row.message);
    }
    close(listener);
}

TEST_F(JsonFile, invalid_content_reports_line_and_column) {
    const std::string file = write("bad.json", "{\n  \"a\": 1,\n  \"b\": [1 2]\n}\n");
    Variant v = sentinel();
    EXPECT_FALSE(v.FromJSONFile(file));
    EXPECT_TRUE(v == sentinel());
    EXPECT_EQ(Variant::LastJsonError().line, 3u);
    EXPECT_EQ(Variant::LastJsonError().column, 11u);
}

TEST_F(JsonFile, refusals_are_reported_to_the_caller_not_logged) {
    const std::string invalid = write("bad.json", "[1,");
    for (const std::string& file : {path("absent.json"), dir_.path(), invalid}) {
        SCOPED_TRACE(file);
        dravik::logger::LogCapture capture;
        Variant v;
        EXPECT_FALSE(v.FromJSONFile(file));
        EXPECT_FALSE(Variant::LastJsonError().message.empty());
        EXPECT_TRUE(capture.records.empty()) << capture.records.front().message;
    }
}

TEST(VariantToJson, writes_every_type) {
    Variant v;
    v["null"] = Variant();
    v["bool"] = false;
    v["int"] = -5;
    v["u64"] = std::numeric_limits<uint64_t>::max();
    v["double"] = 0.5;
    v["text"] = "a\"b\\c\n\x01";
    timeval t{};
    t.tv_sec = 3;
    t.tv_usec = 4;
    v["time"] = t;
    v["list"][0] = 1;
    v["list"][1] = "two";
    v["empty"] = Variant::MakeContainer(vt::kObject);
    EXPECT_EQ(v.ToJSON(),
              R"({"bool":false,"double":0.5,"empty":{},"int":-5,"list":[1,"two"],"null":null,)"
              R"("text":"a\"b\\c\n\u0001","time":{"sec":3,"usec":4},)"
              R"("u64":18446744073709551615})");
}

TEST(VariantToJson, indents_when_asked) {
    Variant v;
    v["a"][0] = 1;
    v["b"] = Variant::MakeContainer(vt::kArray);
    EXPECT_EQ(v.ToJSON(2), "{\n  \"a\": [\n    1\n  ],\n  \"b\": []\n}");
}

TEST(VariantToJson, object_integer_keys_become_string_keys) {
    Variant v = Variant::MakeContainer(vt::kObject);
    v[2] = "two";
    v["x"] = 1;
    EXPECT_EQ(v.ToJSON(), R"({"2":"two","x":1})");
}

TEST(VariantToJson, invalid_utf8_still_gives_valid_json) {
    Variant v("bad \xff byte");
    const std::string text = v.ToJSON();
    Variant back;
    ASSERT_TRUE(back.FromJSONString(text)) << text;
    EXPECT_EQ(back.AsString(), "bad \xef\xbf\xbd byte");
}

TEST(VariantToJson, round_trips_a_document) {
    const std::string text =
        R"({"a":[1,-2,3.25,true,null,"s"],"b":{"c":{"d":9223372036854775807}},"e":"\u00e9"})";
    Variant v;
    ASSERT_TRUE(v.FromJSONString(text));
    Variant back;
    ASSERT_TRUE(back.FromJSONString(v.ToJSON()));
    EXPECT_TRUE(back == v);
    EXPECT_EQ(v.ToJSON(), R"({"a":[1,-2,3.25,true,null,"s"],"b":{"c":{"d":9223372036854775807}},)"
                          "\"e\":\"\xc3\xa9\"}");
}

}  // namespace
