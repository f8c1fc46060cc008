#pragma once

// The fuzz targets' view of libFuzzer's input: values taken front to back, so
// that a corpus file keeps meaning the same thing as the targets grow.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace dravik::fuzz {

// Reads the fuzz bytes front to back; past the end every read is zero.
class FuzzBytes {
public:
    FuzzBytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

    // The next sizeof(T) bytes as a T, in the machine's byte order.
    template <typename T>
    T value() {
        uint8_t raw[sizeof(T)] = {};
        for (uint8_t& b : raw) {
            b = byte();
        }
        T out{};
        std::memcpy(&out, raw, sizeof(T));
        return out;
    }

    // A length byte (0 .. maxLength), then that many bytes of any value.
    std::string text(size_t maxLength) {
        const size_t length = byte() % (maxLength + 1);
        std::string out;
        for (size_t i = 0; i < length; ++i) {
            out += static_cast<char>(byte());
        }
        return out;
    }

    bool done() const { return pos_ >= size_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace dravik::fuzz
