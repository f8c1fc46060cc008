#include <algorithm>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "dravik_utils/tracking_iterator.h"
#include "dravik_utils/utils.h"
#include "dravik_variant/variant.h"

namespace dravik::variant {

namespace {

JsonError& lastError() {
    static thread_local JsonError error;
    return error;
}

// 1-based line and column of byte `offset` in `text`.
void locate(const std::string& text, size_t offset, JsonError& error) {
    offset = std::min(offset, text.size());
    const size_t lineStart = offset == 0 ? std::string::npos : text.rfind('\n', offset - 1);
    error.byteOffset = offset;
    error.line = 1 + static_cast<size_t>(std::count(text.begin(), text.begin() + offset, '\n'));
    error.column = offset - (lineStart == std::string::npos ? 0 : lineStart + 1) + 1;
}

// nlohmann's messages start with "[json.exception.parse_error.101] parse error
// at line 3, column 5: "; the position is reported separately, so keep the rest.
std::string stripPosition(const std::string& what) {
    const size_t parseError = what.find("parse error");
    const size_t colon = parseError == std::string::npos ? parseError : what.find(": ", parseError);
    return colon == std::string::npos ? what : what.substr(colon + 2);
}

using utils::TrackingIterator;

// Builds a Variant straight from the parser's events. Containers under
// construction are kept on an explicit stack (map nodes never move, so the
// pointers stay valid), which also bounds the nesting depth.
class VariantBuilder : public nlohmann::json_sax<nlohmann::json> {
public:
    explicit VariantBuilder(const std::string& text) : text_(text), consumed_(text.data()) {}

    TrackingIterator begin() { return {text_.data(), &consumed_}; }
    TrackingIterator end() { return {text_.data() + text_.size(), &consumed_}; }

    Variant& result() { return root_; }
    const JsonError& error() const { return error_; }

    bool null() override { return accept(Variant()); }
    bool boolean(bool value) override { return accept(Variant(value)); }

    bool number_integer(number_integer_t value) override {
        if (value >= std::numeric_limits<int32_t>::min() &&
            value <= std::numeric_limits<int32_t>::max()) {
            return accept(Variant(static_cast<int>(value)));
        }
        return accept(Variant(static_cast<long>(value)));
    }

    bool number_unsigned(number_unsigned_t value) override {
        if (value <= static_cast<uint64_t>(std::numeric_limits<int32_t>::max())) {
            return accept(Variant(static_cast<int>(value)));
        }
        if (value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            return accept(Variant(static_cast<long>(value)));
        }
        return accept(Variant(static_cast<unsigned long>(value)));
    }

    bool number_float(number_float_t value, const string_t& lexeme) override {
        // The lexer hands integers that overflow 64 bits over as floats.
        if (lexeme.find_first_of(".eE") == std::string::npos) {
            const size_t read = static_cast<size_t>(consumed_ - text_.data());
            const size_t start = text_.rfind(lexeme, read);
            return fail("integer out of range: " + lexeme,
                        start == std::string::npos ? read : start);
        }
        return accept(Variant(static_cast<double>(value)));
    }

    bool string(string_t& value) override { return accept(Variant(value)); }

    bool binary(binary_t& /*value*/) override {
        return fail("binary values are not supported", readOffset());
    }

    bool start_object(std::size_t /*elements*/) override { return open(kObject); }
    bool start_array(std::size_t /*elements*/) override { return open(kArray); }

    bool key(string_t& value) override {
        key_ = std::move(value);
        return true;
    }

    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t position, const std::string& /*lastToken*/,
                     const nlohmann::detail::exception& ex) override {
        // `position` counts the characters read, the offending one included.
        return fail(stripPosition(ex.what()), position == 0 ? 0 : position - 1);
    }

private:
    bool accept(Variant&& value) {
        place(std::move(value));
        return true;
    }

    size_t readOffset() const { return static_cast<size_t>(consumed_ - text_.data()); }

    // Stores `value` where the document is at and returns where it went.
    Variant* place(Variant&& value) {
        if (stack_.empty()) {
            root_ = std::move(value);
            return &root_;
        }
        Variant& container = *stack_.back();
        Variant& slot = container.IsArray()
                            ? container[static_cast<int64_t>(container.NumericKeysCount())]
                            : container[key_];
        slot = std::move(value);
        return &slot;
    }

    bool open(VariantType type) {
        if (stack_.size() >= Variant::kMaxJsonDepth) {
            // The opening bracket is the last character read.
            return fail("nesting deeper than " + std::to_string(Variant::kMaxJsonDepth) + " levels",
                        readOffset() == 0 ? 0 : readOffset() - 1);
        }
        stack_.push_back(place(Variant::MakeContainer(type)));
        return true;
    }

    bool close() {
        stack_.pop_back();
        return true;
    }

    bool fail(const std::string& message, size_t offset) {
        error_.message = message;
        locate(text_, offset, error_);
        return false;
    }

    const std::string& text_;
    const char* consumed_;
    Variant root_;
    std::vector<Variant*> stack_;
    std::string key_;
    JsonError error_;
};

bool parseInto(const std::string& text, Variant& target) {
    JsonError& error = lastError();
    error = JsonError{};
    try {
        VariantBuilder builder(text);
        if (!nlohmann::json::sax_parse(builder.begin(), builder.end(), &builder)) {
            error = builder.error();
            return false;
        }
        target = std::move(builder.result());
        return true;
    } catch (const std::exception& ex) {
        error.message = ex.what();
        return false;
    }
}

// ---- output ---------------------------------------------------------------

class JsonWriter {
public:
    explicit JsonWriter(int indent) : indent_(indent) {}

    void write(const Variant& value, int depth) {
        const VariantType type = value.Type();
        if (type == kObject) {
            writeObject(value, depth);
        } else if (type == kArray) {
            writeArray(value, depth);
        } else if (type == kTime) {
            writeTime(value.AsTime(), depth);
        } else {
            writeScalar(value);
        }
    }

    std::string take() { return std::move(out_); }

private:
    void writeScalar(const Variant& value) {
        const VariantType type = value.Type();
        if (type == kString) {
            writeString(value.AsString());
        } else if (type == kBool) {
            out_ += value.AsBool() ? "true" : "false";
        } else if (type == kDouble) {
            // nlohmann prints the shortest text that reads back the same, and null for NaN/inf.
            out_ += nlohmann::json(value.AsDouble()).dump();
        } else if (type == kUInt8 || type == kUInt16 || type == kUInt32 || type == kUInt64) {
            out_ += std::to_string(value.AsUInt64());
        } else if (IsInteger(type)) {
            out_ += std::to_string(value.AsInt64());
        } else {
            out_ += "null";
        }
    }

    void writeString(const std::string& text) {
        // Bytes that are not UTF-8 become U+FFFD, so the output is always valid JSON.
        out_ += nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }

    void writeTime(const timeval& time, int depth) {
        Variant object = Variant::MakeContainer(kObject);
        object["sec"] = static_cast<long>(time.tv_sec);
        object["usec"] = static_cast<long>(time.tv_usec);
        writeObject(object, depth);
    }

    void writeObject(const Variant& value, int depth) {
        out_ += '{';
        bool first = true;
        for (auto it = value.num_begin(); it != value.num_end(); ++it) {
            member(std::to_string(it->first), it->second, depth, first);
        }
        for (auto it = value.str_begin(); it != value.str_end(); ++it) {
            member(it->first, it->second, depth, first);
        }
        close('}', depth, first);
    }

    // An array's string keys have no place in JSON and are left out.
    void writeArray(const Variant& value, int depth) {
        out_ += '[';
        bool first = true;
        for (auto it = value.num_begin(); it != value.num_end(); ++it) {
            separate(depth + 1, first);
            write(it->second, depth + 1);
        }
        close(']', depth, first);
    }

    void member(const std::string& key, const Variant& value, int depth, bool& first) {
        separate(depth + 1, first);
        writeString(key);
        out_ += indent_ < 0 ? ":" : ": ";
        write(value, depth + 1);
    }

    void separate(int depth, bool& first) {
        if (!first) {
            out_ += ',';
        }
        first = false;
        newline(depth);
    }

    void close(char bracket, int depth, bool empty) {
        if (!empty) {
            newline(depth);
        }
        out_ += bracket;
    }

    void newline(int depth) {
        if (indent_ >= 0) {
            out_ += '\n';
            out_.append(static_cast<size_t>(indent_) * static_cast<size_t>(depth), ' ');
        }
    }

    int indent_;
    std::string out_;
};

}  // namespace

bool Variant::FromJSONString(const std::string& text) {
    return parseInto(text, *this);
}

bool Variant::FromJSONFile(const std::string& path) {
    std::string text;
    utils::ReadError failure;
    if (!utils::readFileBounded(path, kMaxJsonFileSize, text, failure)) {
        JsonError& error = lastError();
        error = JsonError{};
        error.message = failure.message;
        return false;
    }
    return parseInto(text, *this);
}

const JsonError& Variant::LastJsonError() {
    return lastError();
}

std::string Variant::ToJSON(int indent) const {
    JsonWriter writer(indent);
    writer.write(*this, 0);
    return writer.take();
}

}  // namespace dravik::variant
