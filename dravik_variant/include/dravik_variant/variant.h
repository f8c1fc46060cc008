#pragma once

#include <sys/time.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <type_traits>

namespace dravik::variant {

// 16-bit type tag. Bits mark type families, so callers test either for
// equality or for all bits of a pattern: (tag & pattern) == pattern.
// Every integer width carries the integer bit 0x4000 and matches the numeric
// pattern 0xE004. kAny (0xFFFF) is a lookup pattern that accepts every type.
enum VariantType : uint16_t {
    kNull = 0x8001,
    kBool = 0x8003,
    kInt8 = 0xE104,
    kInt16 = 0xE204,
    kInt32 = 0xE404,
    kInt64 = 0xE804,
    kUInt8 = 0xE114,
    kUInt16 = 0xE214,
    kUInt32 = 0xE414,
    kUInt64 = 0xE814,
    kDouble = 0x2010,
    kString = 0x100E,
    kTime = 0x100D,
    kObject = 0x1010,
    kArray = 0x1011,

    kIntegerBit = 0x4000,  // test (tag & kIntegerBit) != 0
    kNumericPattern = 0xE004,
    kAny = 0xFFFF,
};

// True when `tag` fits the lookup `pattern`: kAny accepts every tag, any other
// pattern needs all of its bits set in the tag.
constexpr bool Matches(uint16_t tag, uint16_t pattern) {
    return pattern == kAny || (tag & pattern) == pattern;
}
constexpr bool IsInteger(uint16_t tag) {
    return (tag & kIntegerBit) != 0;
}

// Where and why the last FromJSONFile/FromJSONString failed.
struct JsonError {
    std::string message;  // what went wrong or was expected
    size_t line = 0;      // 1-based; 0 when the file could not be read at all
    size_t column = 0;    // 1-based
    size_t byteOffset = 0;
};

// The platform's dynamic value: null, bool, integers of several widths, double,
// string, time, object or array. A container holds children under string keys
// and under integer keys, each kept in key order; an array's elements are its
// integer keys 0, 1, 2, ... Children are owned by their parent.
//
// Conversions to a type that does not match the stored one never fail: numbers
// convert to any numeric type saturating at the target's limits (doubles are
// truncated toward zero first), booleans convert to 0 or 1, and everything
// else converts to 0, false, "" or a zero time.
class Variant {
public:
    using ObjectMap = std::map<std::string, Variant>;
    using ArrayMap = std::map<int64_t, Variant>;

    Variant();  // null
    Variant(bool value);
    Variant(const char* value);
    Variant(const std::string& value);
    Variant(int value);
    Variant(signed char value);
    Variant(unsigned char value);
    Variant(short value);
    Variant(unsigned short value);
    Variant(unsigned int value);
    Variant(long value);
    Variant(unsigned long value);
    Variant(long long value);
    Variant(unsigned long long value);
    Variant(double value);
    Variant(const timeval& value);
    Variant(const Variant& other);
    Variant(Variant&& other) noexcept;
    virtual ~Variant();

    // An empty container of the given tag (kObject or kArray); null for any other tag.
    static Variant MakeContainer(VariantType type);

    Variant& operator=(bool value);
    Variant& operator=(const char* value);
    Variant& operator=(const std::string& value);
    Variant& operator=(signed char value);
    Variant& operator=(unsigned char value);
    Variant& operator=(short value);
    Variant& operator=(unsigned short value);
    Variant& operator=(int value);
    Variant& operator=(unsigned int value);
    Variant& operator=(long value);
    Variant& operator=(unsigned long value);
    Variant& operator=(long long value);
    Variant& operator=(unsigned long long value);
    Variant& operator=(double value);
    Variant& operator=(const timeval& value);
    Variant& operator=(const Variant& other);
    Variant& operator=(Variant&& other) noexcept;

    explicit operator bool() const;
    operator const char*() const;
    operator const std::string&() const;
    operator signed char() const;
    operator unsigned char() const;
    operator short() const;
    operator unsigned short() const;
    operator int() const;
    operator unsigned int() const;
    operator long() const;
    operator unsigned long() const;
    operator long long() const;
    operator unsigned long long() const;
    operator double() const;
    operator const timeval&() const;
    operator VariantType() const;

    VariantType Type() const;
    bool IsNull() const;

    // Typed reads, with the conversion rules above.
    bool AsBool() const;
    int64_t AsInt64() const;
    uint64_t AsUInt64() const;
    double AsDouble() const;
    const std::string& AsString() const;
    const timeval& AsTime() const;

    // The child under `key`, created as null if missing. A value that is not a
    // container is first made an empty object.
    Variant& operator[](const char* key);
    Variant& operator[](const std::string& key);
    // The element under integer key `index`, created as null if missing. A
    // value that is not a container is first made an empty array.
    Variant& operator[](int64_t index);
    // Any other integer type as an integer key; without it v[0] would be
    // ambiguous (0 also converts to const char*) and v[i] with a size_t index
    // would need a cast.
    template <typename T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                               !std::is_same_v<T, int64_t>,
                                           int> = 0>
    Variant& operator[](T index) {
        return (*this)[static_cast<int64_t>(index)];
    }
    // A const value cannot create children: use Find. Deleted, because the
    // implicit conversions would otherwise turn c["key"] into an index into
    // the string literal.
    const Variant& operator[](const char* key) const = delete;
    const Variant& operator[](const std::string& key) const = delete;

    // The child under `key`, or nullptr; never creates anything.
    const Variant* Find(const std::string& key) const;
    Variant* Find(const std::string& key);
    const Variant* Find(int64_t index) const;
    Variant* Find(int64_t index);

    // Walks `path` ("parameters/help"), whose steps are separated by "/"; a step
    // of digits also addresses an integer key. Returns the addressed value if
    // every step exists and its tag fits `pattern` (see Matches), else nullptr.
    // Never creates keys. When `skipEmptySteps` is true, empty steps (a leading,
    // trailing or doubled "/") are ignored; when false they make the lookup fail.
    Variant* GetKeyChain(VariantType pattern, const char* path, bool skipEmptySteps);
    const Variant* GetKeyChain(VariantType pattern, const char* path, bool skipEmptySteps) const;

    // Container kind: IsArray() is true for tag kArray. IsArray(flag) makes the
    // value an empty container of that kind (false: object, true: array) unless
    // it already is a container, in which case only the tag changes.
    bool IsArray() const;
    void IsArray(bool array);
    bool IsContainer() const;

    // Number of integer keys (array elements), and of string keys.
    size_t NumericKeysCount() const;
    size_t StringKeysCount() const;

    ArrayMap::iterator num_begin();
    ArrayMap::iterator num_end();
    ArrayMap::const_iterator num_begin() const;
    ArrayMap::const_iterator num_end() const;
    ObjectMap::iterator str_begin();
    ObjectMap::iterator str_end();
    ObjectMap::const_iterator str_begin() const;
    ObjectMap::const_iterator str_end() const;

    // Removes the child under `key`; true if it was there.
    bool Erase(const std::string& key);

    // Releases the content and leaves null.
    void Free();

    // Replaces the value with the content of a JSON document: objects become
    // objects, arrays arrays, strings, booleans and null the matching tags;
    // integers become kInt32, kInt64 or kUInt64 (the first that holds them),
    // numbers with a fraction or exponent kDouble. Refused, with the value left
    // unchanged and the reason in LastJsonError(): unreadable files, directories,
    // files over kMaxJsonFileSize, invalid JSON or UTF-8, integers beyond 64
    // bits, nesting deeper than kMaxJsonDepth. Nothing is logged here: the
    // caller knows what the file was for and writes the one record.
    bool FromJSONFile(const std::string& path);
    bool FromJSONString(const std::string& text);
    static const JsonError& LastJsonError();

    // The value as JSON text (times as {"sec":..,"usec":..}; an object's
    // integer keys, if any, as string keys). `indent` < 0 gives one line.
    std::string ToJSON(int indent = -1) const;

    static constexpr size_t kMaxJsonFileSize = size_t{16} * 1024 * 1024;
    static constexpr size_t kMaxJsonDepth = 256;

    bool operator==(const Variant& other) const;
    bool operator!=(const Variant& other) const { return !(*this == other); }

private:
    struct Container;
    void setScalar(VariantType type);
    void assignFrom(const Variant& other);
    void makeContainer(VariantType type);
    const Variant* findStep(const char* step, size_t length) const;
    template <typename T>
    T convertNumber() const;

    VariantType type_ = kNull;
    union {
        bool b;
        int64_t i;
        uint64_t u;
        double d;
    } num_{};
    std::string str_;
    timeval time_{};
    std::unique_ptr<Container> children_;
};

// Base of every IPC message class: an object value whose named members are the
// message's fields. Derived classes add no data, only typed accessors and the
// rules of NormalizeFields.
class BaseVariantContainer : public Variant {
public:
    BaseVariantContainer();  // an empty object
    BaseVariantContainer(const Variant& value);
    BaseVariantContainer(Variant&& value);
    BaseVariantContainer(const BaseVariantContainer&) = default;
    BaseVariantContainer(BaseVariantContainer&&) = default;
    BaseVariantContainer& operator=(const BaseVariantContainer&) = default;
    BaseVariantContainer& operator=(BaseVariantContainer&&) = default;
    using Variant::operator=;
    ~BaseVariantContainer() override;

    // Makes the value an object if it is not a container. Derived classes give
    // missing or mistyped fields their defaults first, then call this last.
    virtual bool NormalizeFields();
};

}  // namespace dravik::variant
