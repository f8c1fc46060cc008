#pragma once

#include <cstddef>
#include <iterator>

namespace dravik::utils {

// Input iterator over a text that publishes how far its reader has read: each
// step stores the position reached in `*consumed`, so that whoever drives a
// parser over the text can place what the parser reports (an error, an event)
// at its byte in the text.
class TrackingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    TrackingIterator(const char* position, const char** consumed)
        : position_(position), consumed_(consumed) {}

    reference operator*() const { return *position_; }
    TrackingIterator& operator++() {
        ++position_;
        *consumed_ = position_;
        return *this;
    }
    TrackingIterator operator++(int) {
        TrackingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const TrackingIterator& other) const { return position_ == other.position_; }
    bool operator!=(const TrackingIterator& other) const { return position_ != other.position_; }

private:
    const char* position_;
    const char** consumed_;
};

}  // namespace dravik::utils
