// Decoding a line: code points, replacement of malformed sequences, controls
// left out, and the limit on the number of code points.
#include "Utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using dravik::fontrenderer::decodeLine;
using CodePoints = std::vector<uint32_t>;

TEST(Utf8, sequences_of_one_to_four_bytes_decode_to_their_code_points) {
    EXPECT_EQ(decodeLine("a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80", 100),
              (CodePoints{'a', 0xE9, 0x4E2D, 0x1F600}));
}

TEST(Utf8, malformed_sequences_become_replacement_characters) {
    EXPECT_EQ(decodeLine("a\x80z", 100), (CodePoints{'a', 0xFFFD, 'z'}));
    EXPECT_EQ(decodeLine("a\xE2\x82", 100), (CodePoints{'a', 0xFFFD}));
}

TEST(Utf8, controls_and_separators_are_left_out) {
    EXPECT_EQ(decodeLine("a\n\t\x7F\xC2\x85\xE2\x80\xA8z", 100), (CodePoints{'a', 'z'}));
}

TEST(Utf8, decoding_stops_at_the_limit) {
    EXPECT_EQ(decodeLine("abcdef", 3), (CodePoints{'a', 'b', 'c'}));
    EXPECT_EQ(decodeLine("a\nbc", 2), (CodePoints{'a', 'b'}));
    EXPECT_TRUE(decodeLine("abc", 0).empty());
}

}  // namespace
