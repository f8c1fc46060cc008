#include "dravik_variant/variant.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace dravik::variant {

// Children of an object or array. Its destructor takes the tree apart level by
// level with an explicit work list, so a deeply nested value is released
// without one stack frame per level.
struct Variant::Container {
    Container() = default;
    Container(const Container&) = default;
    Container& operator=(const Container&) = delete;
    ~Container();

    void detachGrandchildren(std::vector<std::unique_ptr<Container>>& pending) {
        for (auto& entry : objects) {
            if (entry.second.children_) {
                pending.push_back(std::move(entry.second.children_));
            }
        }
        for (auto& entry : elements) {
            if (entry.second.children_) {
                pending.push_back(std::move(entry.second.children_));
            }
        }
    }

    ObjectMap objects;
    ArrayMap elements;
};

Variant::Container::~Container() {
    std::vector<std::unique_ptr<Container>> pending;
    detachGrandchildren(pending);
    while (!pending.empty()) {
        std::unique_ptr<Container> next = std::move(pending.back());
        pending.pop_back();
        next->detachGrandchildren(pending);
        // `next` is released here; its children no longer own containers.
    }
}

namespace {

const std::string& emptyString() {
    static const std::string empty;
    return empty;
}

const timeval& zeroTime() {
    static const timeval zero{};
    return zero;
}

Variant::ObjectMap& noObjects() {
    static Variant::ObjectMap empty;
    return empty;
}

Variant::ArrayMap& noElements() {
    static Variant::ArrayMap empty;
    return empty;
}

bool isSignedInteger(VariantType type) {
    return type == kInt8 || type == kInt16 || type == kInt32 || type == kInt64;
}

bool isUnsignedInteger(VariantType type) {
    return type == kUInt8 || type == kUInt16 || type == kUInt32 || type == kUInt64;
}

template <typename T>
T fromSigned(int64_t value) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(value);
    } else if constexpr (std::is_signed_v<T>) {
        if (value < static_cast<int64_t>(std::numeric_limits<T>::min())) {
            return std::numeric_limits<T>::min();
        }
        if (value > static_cast<int64_t>(std::numeric_limits<T>::max())) {
            return std::numeric_limits<T>::max();
        }
        return static_cast<T>(value);
    } else {
        if (value < 0) {
            return 0;
        }
        if (static_cast<uint64_t>(value) > static_cast<uint64_t>(std::numeric_limits<T>::max())) {
            return std::numeric_limits<T>::max();
        }
        return static_cast<T>(value);
    }
}

template <typename T>
T fromUnsigned(uint64_t value) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(value);
    } else {
        if (value > static_cast<uint64_t>(std::numeric_limits<T>::max())) {
            return std::numeric_limits<T>::max();
        }
        return static_cast<T>(value);
    }
}

template <typename T>
T fromDouble(double value) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(value);
    } else {
        if (std::isnan(value)) {
            return 0;
        }
        const double truncated = std::trunc(value);
        // The limits as doubles: min is exact (0 or -2^n), max rounds up to
        // 2^n, so ">=" keeps the cast below within range.
        if (truncated <= static_cast<double>(std::numeric_limits<T>::min())) {
            return std::numeric_limits<T>::min();
        }
        if (truncated >= static_cast<double>(std::numeric_limits<T>::max())) {
            return std::numeric_limits<T>::max();
        }
        return static_cast<T>(truncated);
    }
}

}  // namespace

template <typename T>
T Variant::convertNumber() const {
    if (type_ == kBool) {
        return static_cast<T>(num_.b ? 1 : 0);
    }
    if (isSignedInteger(type_)) {
        return fromSigned<T>(num_.i);
    }
    if (isUnsignedInteger(type_)) {
        return fromUnsigned<T>(num_.u);
    }
    if (type_ == kDouble) {
        return fromDouble<T>(num_.d);
    }
    return 0;
}

// ---- construction -------------------------------------------------------

Variant::Variant() = default;

Variant::Variant(bool value) : type_(kBool) {
    num_.b = value;
}
Variant::Variant(const char* value) : type_(kString), str_(value ? value : "") {}
Variant::Variant(const std::string& value) : type_(kString), str_(value) {}
Variant::Variant(int value) : type_(kInt32) {
    num_.i = value;
}
Variant::Variant(signed char value) : type_(kInt8) {
    // A signed char here is a small number, not a character.
    num_.i = static_cast<int64_t>(value);  // NOLINT(bugprone-signed-char-misuse)
}
Variant::Variant(unsigned char value) : type_(kUInt8) {
    num_.u = value;
}
Variant::Variant(short value) : type_(kInt16) {
    num_.i = value;
}
Variant::Variant(unsigned short value) : type_(kUInt16) {
    num_.u = value;
}
Variant::Variant(unsigned int value) : type_(kUInt32) {
    num_.u = value;
}
Variant::Variant(long value) : type_(kInt64) {
    num_.i = value;
}
Variant::Variant(unsigned long value) : type_(kUInt64) {
    num_.u = value;
}
Variant::Variant(long long value) : type_(kInt64) {
    num_.i = value;
}
Variant::Variant(unsigned long long value) : type_(kUInt64) {
    num_.u = value;
}
Variant::Variant(double value) : type_(kDouble) {
    num_.d = value;
}
Variant::Variant(const timeval& value) : type_(kTime), time_(value) {}

Variant::Variant(const Variant& other) {
    assignFrom(other);
}

Variant::Variant(Variant&& other) noexcept
    : type_(other.type_),
      num_(other.num_),
      str_(std::move(other.str_)),
      time_(other.time_),
      children_(std::move(other.children_)) {
    other.type_ = kNull;
    other.num_ = {};
    other.str_.clear();
    other.time_ = {};
}

Variant::~Variant() = default;

Variant Variant::MakeContainer(VariantType type) {
    Variant value;
    if (type == kObject || type == kArray) {
        value.makeContainer(type);
    }
    return value;
}

void Variant::setScalar(VariantType type) {
    children_.reset();
    str_.clear();
    time_ = {};
    num_ = {};
    type_ = type;
}

void Variant::makeContainer(VariantType type) {
    setScalar(type);
    children_ = std::make_unique<Container>();
}

void Variant::assignFrom(const Variant& other) {
    type_ = other.type_;
    num_ = other.num_;
    str_ = other.str_;
    time_ = other.time_;
    children_ = other.children_ ? std::make_unique<Container>(*other.children_) : nullptr;
}

// ---- assignment ---------------------------------------------------------

Variant& Variant::operator=(bool value) {
    setScalar(kBool);
    num_.b = value;
    return *this;
}

Variant& Variant::operator=(const char* value) {
    return *this = std::string(value ? value : "");
}

Variant& Variant::operator=(const std::string& value) {
    // `value` may be str_ itself; copying keeps embedded zero bytes.
    std::string copy(value);
    setScalar(kString);
    str_ = std::move(copy);
    return *this;
}

Variant& Variant::operator=(signed char value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(unsigned char value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(short value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(unsigned short value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(int value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(unsigned int value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(long value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(unsigned long value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(long long value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(unsigned long long value) {
    return *this = Variant(value);
}
Variant& Variant::operator=(double value) {
    return *this = Variant(value);
}

Variant& Variant::operator=(const timeval& value) {
    const timeval copy = value;
    setScalar(kTime);
    time_ = copy;
    return *this;
}

Variant& Variant::operator=(const Variant& other) {
    if (this != &other) {
        // Copy first: `other` may be one of our own children.
        Variant copy(other);
        *this = std::move(copy);
    }
    return *this;
}

Variant& Variant::operator=(Variant&& other) noexcept {
    if (this == &other) {
        return *this;
    }
    // Take `other` out first: it may be one of our own children, which the
    // old content (released with `taken`) still owns.
    Variant taken(std::move(other));
    std::swap(type_, taken.type_);
    std::swap(num_, taken.num_);
    str_.swap(taken.str_);
    std::swap(time_, taken.time_);
    children_.swap(taken.children_);
    return *this;
}

// ---- conversion ---------------------------------------------------------

Variant::operator bool() const {
    return AsBool();
}
Variant::operator const char*() const {
    return AsString().c_str();
}
Variant::operator const std::string&() const {
    return AsString();
}
Variant::operator signed char() const {
    return convertNumber<signed char>();
}
Variant::operator unsigned char() const {
    return convertNumber<unsigned char>();
}
Variant::operator short() const {
    return convertNumber<short>();
}
Variant::operator unsigned short() const {
    return convertNumber<unsigned short>();
}
Variant::operator int() const {
    return convertNumber<int>();
}
Variant::operator unsigned int() const {
    return convertNumber<unsigned int>();
}
Variant::operator long() const {
    return convertNumber<long>();
}
Variant::operator unsigned long() const {
    return convertNumber<unsigned long>();
}
Variant::operator long long() const {
    return convertNumber<long long>();
}
Variant::operator unsigned long long() const {
    return convertNumber<unsigned long long>();
}
Variant::operator double() const {
    return convertNumber<double>();
}
Variant::operator const timeval&() const {
    return AsTime();
}
Variant::operator VariantType() const {
    return type_;
}

VariantType Variant::Type() const {
    return type_;
}
bool Variant::IsNull() const {
    return type_ == kNull;
}

bool Variant::AsBool() const {
    if (type_ == kBool) {
        return num_.b;
    }
    // Numbers read as true when not zero, like a C condition.
    return convertNumber<double>() != 0.0;
}

int64_t Variant::AsInt64() const {
    return convertNumber<int64_t>();
}
uint64_t Variant::AsUInt64() const {
    return convertNumber<uint64_t>();
}
double Variant::AsDouble() const {
    return convertNumber<double>();
}
const std::string& Variant::AsString() const {
    return type_ == kString ? str_ : emptyString();
}
const timeval& Variant::AsTime() const {
    return type_ == kTime ? time_ : zeroTime();
}

// ---- containers ---------------------------------------------------------

Variant& Variant::operator[](const char* key) {
    return (*this)[std::string(key ? key : "")];
}

Variant& Variant::operator[](const std::string& key) {
    if (!IsContainer()) {
        makeContainer(kObject);
    }
    return children_->objects[key];
}

Variant& Variant::operator[](int64_t index) {
    if (!IsContainer()) {
        makeContainer(kArray);
    }
    return children_->elements[index];
}

const Variant* Variant::Find(const std::string& key) const {
    if (!children_) {
        return nullptr;
    }
    auto it = children_->objects.find(key);
    return it == children_->objects.end() ? nullptr : &it->second;
}

Variant* Variant::Find(const std::string& key) {
    return const_cast<Variant*>(static_cast<const Variant*>(this)->Find(key));
}

const Variant* Variant::Find(int64_t index) const {
    if (!children_) {
        return nullptr;
    }
    auto it = children_->elements.find(index);
    return it == children_->elements.end() ? nullptr : &it->second;
}

Variant* Variant::Find(int64_t index) {
    return const_cast<Variant*>(static_cast<const Variant*>(this)->Find(index));
}

bool Variant::IsArray() const {
    return type_ == kArray;
}

void Variant::IsArray(bool array) {
    const VariantType wanted = array ? kArray : kObject;
    if (IsContainer()) {
        type_ = wanted;
    } else {
        makeContainer(wanted);
    }
}

bool Variant::IsContainer() const {
    return type_ == kObject || type_ == kArray;
}

size_t Variant::NumericKeysCount() const {
    return children_ ? children_->elements.size() : 0;
}
size_t Variant::StringKeysCount() const {
    return children_ ? children_->objects.size() : 0;
}

// A value that is not a container iterates over a shared empty map.
Variant::ArrayMap::iterator Variant::num_begin() {
    return children_ ? children_->elements.begin() : noElements().begin();
}
Variant::ArrayMap::iterator Variant::num_end() {
    return children_ ? children_->elements.end() : noElements().end();
}
Variant::ArrayMap::const_iterator Variant::num_begin() const {
    return children_ ? children_->elements.cbegin() : noElements().cbegin();
}
Variant::ArrayMap::const_iterator Variant::num_end() const {
    return children_ ? children_->elements.cend() : noElements().cend();
}
Variant::ObjectMap::iterator Variant::str_begin() {
    return children_ ? children_->objects.begin() : noObjects().begin();
}
Variant::ObjectMap::iterator Variant::str_end() {
    return children_ ? children_->objects.end() : noObjects().end();
}
Variant::ObjectMap::const_iterator Variant::str_begin() const {
    return children_ ? children_->objects.cbegin() : noObjects().cbegin();
}
Variant::ObjectMap::const_iterator Variant::str_end() const {
    return children_ ? children_->objects.cend() : noObjects().cend();
}

bool Variant::Erase(const std::string& key) {
    return children_ && children_->objects.erase(key) > 0;
}

void Variant::Free() {
    setScalar(kNull);
}

// ---- comparison ---------------------------------------------------------

bool Variant::operator==(const Variant& other) const {
    if (type_ != other.type_) {
        return false;
    }
    if (type_ == kBool) {
        return num_.b == other.num_.b;
    }
    if (isSignedInteger(type_)) {
        return num_.i == other.num_.i;
    }
    if (isUnsignedInteger(type_)) {
        return num_.u == other.num_.u;
    }
    switch (type_) {
        case kDouble:
            return num_.d == other.num_.d;
        case kString:
            return str_ == other.str_;
        case kTime:
            return time_.tv_sec == other.time_.tv_sec && time_.tv_usec == other.time_.tv_usec;
        case kObject:
        case kArray:
            return children_->objects == other.children_->objects &&
                   children_->elements == other.children_->elements;
        default:
            return true;
    }
}

// ---- BaseVariantContainer -----------------------------------------------

BaseVariantContainer::BaseVariantContainer() : Variant(MakeContainer(kObject)) {}
BaseVariantContainer::BaseVariantContainer(const Variant& value) : Variant(value) {}
BaseVariantContainer::BaseVariantContainer(Variant&& value) : Variant(std::move(value)) {}
BaseVariantContainer::~BaseVariantContainer() = default;

bool BaseVariantContainer::NormalizeFields() {
    if (!IsContainer()) {
        Free();
        IsArray(false);
    }
    return true;
}

}  // namespace dravik::variant
