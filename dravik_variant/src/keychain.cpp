#include <cstdint>
#include <cstring>
#include <string>

#include "dravik_variant/variant.h"

// Paths of keys through a tree of values: "screens/0/name".

namespace dravik::variant {

namespace {

// A step made only of decimal digits that fits in 64 bits also names an integer key.
bool parseIndexStep(const char* step, size_t length, int64_t& index) {
    if (length == 0 || length > 18) {
        return false;
    }
    int64_t value = 0;
    for (size_t n = 0; n < length; ++n) {
        if (step[n] < '0' || step[n] > '9') {
            return false;
        }
        value = value * 10 + (step[n] - '0');
    }
    index = value;
    return true;
}

}  // namespace

const Variant* Variant::findStep(const char* step, size_t length) const {
    if (!children_) {
        return nullptr;
    }
    int64_t index = 0;
    if (parseIndexStep(step, length, index)) {
        if (const Variant* element = Find(index)) {
            return element;
        }
    }
    return Find(std::string(step, length));
}

const Variant* Variant::GetKeyChain(VariantType pattern, const char* path,
                                    bool skipEmptySteps) const {
    if (path == nullptr) {
        return nullptr;
    }
    const Variant* current = this;
    const char* step = path;
    for (;;) {
        const char* slash = std::strchr(step, '/');
        const size_t length = slash ? static_cast<size_t>(slash - step) : std::strlen(step);
        if (length == 0) {
            if (!skipEmptySteps) {
                return nullptr;
            }
        } else {
            current = current->findStep(step, length);
            if (current == nullptr) {
                return nullptr;
            }
        }
        if (slash == nullptr) {
            break;
        }
        step = slash + 1;
    }
    return Matches(current->type_, pattern) ? current : nullptr;
}

Variant* Variant::GetKeyChain(VariantType pattern, const char* path, bool skipEmptySteps) {
    return const_cast<Variant*>(
        static_cast<const Variant*>(this)->GetKeyChain(pattern, path, skipEmptySteps));
}

}  // namespace dravik::variant
