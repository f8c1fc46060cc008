#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace dravik::preview {

struct JsonMember;

// A JSON value and the byte offset in its text where it begins. Objects keep
// their members in file order, a key given twice included.
struct JsonNode {
    nlohmann::json::value_t type = nlohmann::json::value_t::null;
    nlohmann::json scalar;  // the value itself, for everything but objects and arrays
    size_t offset = 0;
    std::vector<JsonMember> members;
    std::vector<JsonNode> elements;

    bool isObject() const { return type == nlohmann::json::value_t::object; }
    bool isArray() const { return type == nlohmann::json::value_t::array; }
    bool isString() const { return type == nlohmann::json::value_t::string; }
    bool isInteger() const {
        return type == nlohmann::json::value_t::number_integer ||
               type == nlohmann::json::value_t::number_unsigned;
    }
    // The member of that key that a reader keeps (the last one), or null.
    const JsonMember* member(const std::string& key) const;
    // The string value, "" for any other type.
    std::string text() const { return isString() ? scalar.get<std::string>() : std::string(); }
};

struct JsonMember {
    std::string key;
    size_t keyOffset = 0;  // the key's opening quote
    JsonNode value;
};

// A word for a JSON value's type in messages: "a number with a fraction", "a string", ...
std::string describeType(const JsonNode& node);

// Parses `text` (with nlohmann/json's SAX parser) into `root`, noting where
// each key and value begins. False for text that is not JSON; the daemon's own
// reader gives the position and reason of that.
bool parseWithPositions(const std::string& text, JsonNode& root);

// 1-based line and column (in bytes) of `offset` in `text`.
struct TextPosition {
    size_t line = 1;
    size_t column = 1;
};
TextPosition locate(const std::string& text, size_t offset);

}  // namespace dravik::preview
