#include "preview/JsonPositions.h"

#include <algorithm>
#include <iterator>

#include "dravik_utils/tracking_iterator.h"

namespace dravik::preview {

namespace {

using nlohmann::json;

using utils::TrackingIterator;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Builds the tree from the parser's events. The parser reports no positions,
// so each is found from how far it has read: a bracket is the last character
// read; a key ends at the last character read and begins at the quote that
// opens it; any other value begins at the first character after the previous
// event that is neither blank nor a separator (":" or ",").
class PositionBuilder : public nlohmann::json_sax<json> {
public:
    explicit PositionBuilder(const std::string& text, JsonNode& root)
        : text_(text), consumed_(text.data()), root_(root) {}

    TrackingIterator begin() { return {text_.data(), &consumed_}; }
    TrackingIterator end() { return {text_.data() + text_.size(), &consumed_}; }

    bool null() override { return scalar(json::value_t::null, nullptr); }
    bool boolean(bool value) override { return scalar(json::value_t::boolean, value); }
    bool number_integer(number_integer_t value) override {
        return scalar(json::value_t::number_integer, value);
    }
    bool number_unsigned(number_unsigned_t value) override {
        return scalar(json::value_t::number_unsigned, value);
    }
    bool number_float(number_float_t value, const string_t& /*lexeme*/) override {
        return scalar(json::value_t::number_float, value);
    }
    bool string(string_t& value) override { return scalar(json::value_t::string, value); }
    bool binary(binary_t& /*value*/) override { return false; }

    bool start_object(std::size_t /*elements*/) override { return open(json::value_t::object); }
    bool start_array(std::size_t /*elements*/) override { return open(json::value_t::array); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& value) override {
        const size_t end = read();
        key_ = value;
        keyOffset_ = openingQuote(end);
        previous_ = end;
        return true;
    }

    bool parse_error(std::size_t /*position*/, const std::string& /*lastToken*/,
                     const nlohmann::detail::exception& /*ex*/) override {
        return false;
    }

private:
    size_t read() const { return static_cast<size_t>(consumed_ - text_.data()); }

    // The quote that opens the key whose closing quote ends before `end`: the
    // first quote before it that no backslash escapes.
    size_t openingQuote(size_t end) const {
        size_t at = end >= 2 ? end - 2 : 0;
        while (at > 0) {
            if (text_[at] == '"') {
                size_t backslashes = 0;
                while (at > backslashes && text_[at - 1 - backslashes] == '\\') {
                    ++backslashes;
                }
                if (backslashes % 2 == 0) {
                    return at;
                }
            }
            --at;
        }
        return at;
    }

    size_t valueStart() const {
        size_t at = previous_;
        while (at < text_.size() && (isBlank(text_[at]) || text_[at] == ':' || text_[at] == ',')) {
            ++at;
        }
        return at;
    }

    JsonNode& place(JsonNode&& node) {
        if (stack_.empty()) {
            root_ = std::move(node);
            return root_;
        }
        JsonNode& container = *stack_.back();
        if (container.isArray()) {
            container.elements.push_back(std::move(node));
            return container.elements.back();
        }
        container.members.push_back({key_, keyOffset_, std::move(node)});
        return container.members.back().value;
    }

    template <typename T>
    bool scalar(json::value_t type, T&& value) {
        JsonNode node;
        node.type = type;
        node.scalar = std::forward<T>(value);
        node.offset = valueStart();
        place(std::move(node));
        previous_ = read();
        return true;
    }

    bool open(json::value_t type) {
        JsonNode node;
        node.type = type;
        node.offset = read() - 1;
        stack_.push_back(&place(std::move(node)));
        previous_ = read();
        return true;
    }

    bool close() {
        stack_.pop_back();
        previous_ = read();
        return true;
    }

    const std::string& text_;
    const char* consumed_;
    JsonNode& root_;
    // Open containers, outermost first. Only the innermost one grows, and its
    // own place in its parent does not move while it is open.
    std::vector<JsonNode*> stack_;
    std::string key_;
    size_t keyOffset_ = 0;
    size_t previous_ = 0;
};

}  // namespace

const JsonMember* JsonNode::member(const std::string& key) const {
    for (auto it = members.rbegin(); it != members.rend(); ++it) {
        if (it->key == key) {
            return &*it;
        }
    }
    return nullptr;
}

std::string describeType(const JsonNode& node) {
    switch (node.type) {
        case json::value_t::null:
            return "null";
        case json::value_t::boolean:
            return "a boolean";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
            return "an integer";
        case json::value_t::number_float:
            return "a number with a fraction";
        case json::value_t::string:
            return "a string";
        case json::value_t::object:
            return "an object";
        case json::value_t::array:
            return "an array";
        default:
            return "a value";
    }
}

bool parseWithPositions(const std::string& text, JsonNode& root) {
    PositionBuilder builder(text, root);
    return json::sax_parse(builder.begin(), builder.end(), &builder);
}

TextPosition locate(const std::string& text, size_t offset) {
    offset = std::min(offset, text.size());
    TextPosition position;
    const auto begin = text.begin();
    position.line =
        1 + static_cast<size_t>(std::count(begin, begin + static_cast<long>(offset), '\n'));
    const size_t lineStart = offset == 0 ? std::string::npos : text.rfind('\n', offset - 1);
    position.column = offset - (lineStart == std::string::npos ? 0 : lineStart + 1) + 1;
    return position;
}

}  // namespace dravik::preview
