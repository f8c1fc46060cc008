#include "dravik_fontrenderer/FontRenderer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "ScriptLines.h"
#include "dravik_logger/log_capture.h"

namespace {

using dravik::fontrenderer::testing::scriptLines;
using dravik::logger::LogCapture;

constexpr unsigned kMinSize = 3;
constexpr unsigned kMaxSize = 100;
// Space right of the position and below it, as a 320x240 panel would give at (0, 0)
// but wide enough for the longer sample texts to stay unclipped.
constexpr unsigned kAvailWidth = 4000;
constexpr unsigned kAvailHeight = 1000;

// A coverage image of `width` x `height` samples (row length `stride`) inside a
// larger allocation whose margins and padding columns hold a known pattern, so
// that any write outside the image shows.
class GuardedBuffer {
public:
    GuardedBuffer(unsigned width, unsigned height, unsigned stride)
        : width(width),
          height(height),
          stride(stride),
          storage(kMargin * 2 + std::size_t(stride) * height) {
        for (std::size_t i = 0; i < storage.size(); ++i) {
            storage[i] = pattern(i);
        }
        for (unsigned y = 0; y < height; ++y) {
            std::fill_n(data() + std::size_t(y) * stride, width, 0);
        }
    }

    unsigned char* data() { return storage.data() + kMargin; }
    unsigned char at(unsigned x, unsigned y) const {
        return storage[kMargin + std::size_t(y) * stride + x];
    }

    // Number of samples outside the image that no longer hold the pattern.
    std::size_t damagedGuards() const {
        std::size_t damaged = 0;
        for (std::size_t i = 0; i < storage.size(); ++i) {
            if (!insideImage(i) && storage[i] != pattern(i)) {
                ++damaged;
            }
        }
        return damaged;
    }

    bool hasInk() const {
        for (unsigned y = 0; y < height; ++y) {
            for (unsigned x = 0; x < width; ++x) {
                if (at(x, y) != 0) {
                    return true;
                }
            }
        }
        return false;
    }

    // The image's samples, row after row, without padding.
    std::vector<unsigned char> pixels() const {
        std::vector<unsigned char> out;
        for (unsigned y = 0; y < height; ++y) {
            for (unsigned x = 0; x < width; ++x) {
                out.push_back(at(x, y));
            }
        }
        return out;
    }

    const unsigned width;
    const unsigned height;
    const unsigned stride;

private:
    static constexpr std::size_t kMargin = 4096;
    static unsigned char pattern(std::size_t i) { return static_cast<unsigned char>(0xA5 ^ i); }
    bool insideImage(std::size_t i) const {
        if (stride == 0 || i < kMargin || i >= kMargin + std::size_t(stride) * height) {
            return false;
        }
        return (i - kMargin) % stride < width;
    }

    std::vector<unsigned char> storage;
};

std::string repeat(const std::string& s, std::size_t times) {
    std::string out;
    for (std::size_t i = 0; i < times; ++i) {
        out += s;
    }
    return out;
}

struct TextCase {
    const char* name;
    std::string text;
    bool visible;
};

const std::vector<TextCase>& sampleTexts() {
    static const std::vector<TextCase> texts = [] {
        std::vector<TextCase> all = {
            {"ascii", "Hello, World! 0123 gjpqy", true},
            {"accented", "\xC3\x85ngstr\xC3\xB6m caf\xC3\xA9 \xC3\x91o\xC3\xB1o", true},
            {"cjk_from_a_fallback_face", "\xE4\xB8\xAD\xE6\x96\x87", true},
            {"no_face_has_these", "\xCD\xB8\xCD\xB9", true},
            {"emoji", "\xF0\x9F\x98\x80 \xF0\x9F\x8E\x89", true},
            {"invalid_utf8", "\xFF\xC0\xAF\xED\xA0\x80\xE2\x82", true},
            {"empty", "", false},
            {"ten_thousand_characters", repeat("W", 10000), true},
            {"control_characters", "\x01\x02\t\r\x1B\x7F\xC2\x85", false},
            {"line_break", "\n", false},
            {"text_with_line_breaks", "first\nsecond\r\nthird", true},
            {"single_space", " ", false},
            // Stacked accents on capitals reach above the face's ascender: clipped.
            {"taller_than_the_line", "\xC7\x95\xC8\xAA\xC7\x9E\xCE\x90 \xCC\x96", true},
            {"long_arabic", repeat("\xD9\x85\xD8\xB1\xD8\xAD\xD8\xA8\xD8\xA7 ", 300), true},
        };
        for (const auto& line : scriptLines()) {
            all.push_back({line.name.c_str(), line.text, true});
        }
        return all;
    }();
    return texts;
}

class FontRendererTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(renderer.init()); }

    struct Extent {
        unsigned width = 0;
        unsigned height = 0;
    };

    Extent measure(const std::string& text, unsigned size, unsigned maxWidth = kAvailWidth) {
        unsigned lineHeight = 0;
        EXPECT_TRUE(renderer.maxLineHeight(size, lineHeight));
        Extent e;
        EXPECT_TRUE(renderer.lineRender(text, size, nullptr, maxWidth, lineHeight, maxWidth, true,
                                        e.width, e.height));
        return e;
    }

    Extent draw(const std::string& text, unsigned size, GuardedBuffer& buffer,
                unsigned maxWidth = kAvailWidth) {
        Extent e;
        EXPECT_TRUE(renderer.lineRender(text, size, buffer.data(), maxWidth, kAvailHeight,
                                        buffer.stride, false, e.width, e.height));
        return e;
    }

    // What the engine does: measure, draw into exactly the measured size.
    std::vector<unsigned char> render(const std::string& text, unsigned size, Extent& extent) {
        extent = measure(text, size);
        GuardedBuffer buffer(extent.width, extent.height, extent.width);
        const Extent drawn = draw(text, size, buffer);
        EXPECT_EQ(drawn.width, extent.width);
        EXPECT_EQ(drawn.height, extent.height);
        EXPECT_EQ(buffer.damagedGuards(), 0U);
        return buffer.pixels();
    }

    // `first` and `second` render at `size` to the same width and pixels.
    void expectSameRendering(const std::string& first, const std::string& second, unsigned size) {
        Extent a;
        Extent b;
        const auto firstPixels = render(first, size, a);
        const auto secondPixels = render(second, size, b);
        EXPECT_EQ(a.width, b.width);
        EXPECT_EQ(firstPixels, secondPixels);
    }

    FontRenderer renderer;
};

TEST_F(FontRendererTest, every_text_and_size_draws_within_its_measurement) {
    for (const auto& sample : sampleTexts()) {
        for (unsigned size = kMinSize; size <= kMaxSize; ++size) {
            SCOPED_TRACE(std::string(sample.name) + " at size " + std::to_string(size));
            unsigned lineHeight = 0;
            ASSERT_TRUE(renderer.maxLineHeight(size, lineHeight));
            const Extent measured = measure(sample.text, size);
            EXPECT_GT(measured.height, 0U);
            EXPECT_LE(measured.height, lineHeight);
            EXPECT_LE(measured.width, kAvailWidth);
            EXPECT_EQ(measured.width > 0, sample.visible || sample.text == " ");

            GuardedBuffer exact(measured.width, measured.height, measured.width);
            const Extent drawn = draw(sample.text, size, exact);
            EXPECT_LE(drawn.width, measured.width);
            EXPECT_LE(drawn.height, measured.height);
            EXPECT_EQ(exact.damagedGuards(), 0U);
            EXPECT_EQ(exact.hasInk(), sample.visible);

            // Padding columns right of the image, reached only if the draw ignored
            // its maxWidth.
            GuardedBuffer padded(measured.width, measured.height, measured.width + 7);
            const Extent drawnPadded = draw(sample.text, size, padded, measured.width);
            EXPECT_LE(drawnPadded.width, measured.width);
            EXPECT_EQ(padded.damagedGuards(), 0U);
            EXPECT_EQ(padded.pixels(), exact.pixels());
        }
    }
}

TEST_F(FontRendererTest, long_text_measured_with_max_width_50_is_50_wide_and_drawn_clipped) {
    const std::string text = repeat("Wide text ", 20);
    for (unsigned size : {3U, 12U, 24U, 100U}) {
        SCOPED_TRACE(size);
        const Extent measured = measure(text, size, 50);
        EXPECT_EQ(measured.width, 50U);

        // Buffer wider than maxWidth: nothing may land in columns 50 and beyond.
        GuardedBuffer wide(120, measured.height, 120);
        const Extent drawn = draw(text, size, wide, 50);
        EXPECT_EQ(drawn.width, 50U);
        EXPECT_EQ(drawn.height, measured.height);
        EXPECT_EQ(wide.damagedGuards(), 0U);
        for (unsigned y = 0; y < wide.height; ++y) {
            for (unsigned x = 50; x < wide.width; ++x) {
                ASSERT_EQ(wide.at(x, y), 0) << "ink at column " << x << " row " << y;
            }
        }
        EXPECT_TRUE(wide.hasInk());
    }
}

TEST_F(FontRendererTest, text_wider_than_max_width_fills_the_buffer_up_to_its_right_edge) {
    const std::string text = repeat("M", 200);
    const unsigned size = 20;
    const Extent measured = measure(text, size, 61);
    ASSERT_EQ(measured.width, 61U);
    // The daemon draws with the whole space right of the position as maxWidth.
    GuardedBuffer buffer(measured.width, measured.height, measured.width);
    const Extent drawn = draw(text, size, buffer, 300);
    EXPECT_EQ(drawn.width, 61U);
    EXPECT_EQ(buffer.damagedGuards(), 0U);
    bool inkNearRightEdge = false;
    for (unsigned y = 0; y < buffer.height; ++y) {
        for (unsigned x = 55; x < buffer.width; ++x) {
            inkNearRightEdge = inkNearRightEdge || buffer.at(x, y) != 0;
        }
    }
    EXPECT_TRUE(inkNearRightEdge);
}

TEST_F(FontRendererTest, draw_with_stride_narrower_than_max_width_stays_within_stride) {
    const std::string text = "The quick brown fox jumps over the lazy dog";
    const Extent measured = measure(text, 30);
    ASSERT_GT(measured.width, 40U);
    GuardedBuffer buffer(40, measured.height, 40);
    const Extent drawn = draw(text, 30, buffer, kAvailWidth);
    EXPECT_EQ(drawn.width, 40U);
    EXPECT_EQ(buffer.damagedGuards(), 0U);
    EXPECT_TRUE(buffer.hasInk());
}

TEST_F(FontRendererTest, empty_text_has_zero_width_and_the_first_faces_line_height) {
    unsigned lineHeight = 0;
    ASSERT_TRUE(renderer.maxLineHeight(16, lineHeight));
    const Extent measured = measure("", 16);
    EXPECT_EQ(measured.width, 0U);
    EXPECT_EQ(measured.height, measure("Latin", 16).height);
    EXPECT_LE(measured.height, lineHeight);
}

TEST_F(FontRendererTest, a_line_is_as_tall_as_the_faces_it_draws_from) {
    for (unsigned size = kMinSize; size <= kMaxSize; ++size) {
        SCOPED_TRACE(size);
        unsigned lineHeight = 0;
        ASSERT_TRUE(renderer.maxLineHeight(size, lineHeight));
        const unsigned latin = measure("Latin", size).height;
        const unsigned thai = measure("\xE0\xB9\x84\xE0\xB8\x97\xE0\xB8\xA2", size).height;
        const unsigned mixed = measure("Latin \xE0\xB9\x84\xE0\xB8\x97\xE0\xB8\xA2", size).height;
        // Thai comes from a face with a taller line than DejaVu Sans'.
        EXPECT_GE(thai, latin);
        EXPECT_EQ(mixed, thai);
        EXPECT_LE(thai, lineHeight);
        if (size >= 12) {
            EXPECT_GT(thai, latin);
        }
    }
}

TEST_F(FontRendererTest, max_line_height_grows_with_size_and_holds_the_size) {
    unsigned previous = 0;
    for (unsigned size = 1; size <= kMaxSize; ++size) {
        SCOPED_TRACE(size);
        unsigned height = 0;
        ASSERT_TRUE(renderer.maxLineHeight(size, height));
        EXPECT_GE(height, previous);
        EXPECT_GE(height, size);
        EXPECT_LE(height, 2 * size + 2);
        previous = height;
    }
    unsigned small = 0;
    unsigned large = 0;
    ASSERT_TRUE(renderer.maxLineHeight(kMinSize, small));
    ASSERT_TRUE(renderer.maxLineHeight(kMaxSize, large));
    EXPECT_GT(large, small);
}

TEST_F(FontRendererTest, size_zero_is_refused) {
    unsigned height = 77;
    EXPECT_FALSE(renderer.maxLineHeight(0, height));
    EXPECT_EQ(height, 77U);
    unsigned width = 0;
    EXPECT_FALSE(renderer.lineRender("abc", 0, nullptr, 100, 100, 100, true, width, height));
}

TEST_F(FontRendererTest, draw_without_buffer_is_refused) {
    unsigned width = 0;
    unsigned height = 0;
    LogCapture capture;
    EXPECT_FALSE(renderer.lineRender("abc", 12, nullptr, 100, 100, 100, false, width, height));
    EXPECT_TRUE(capture.has(3, "No buffer to draw 'abc' into"));
}

TEST_F(FontRendererTest, line_taller_than_max_height_is_refused_not_cut) {
    for (const char* text : {"abc", "\xE4\xB8\xAD\xE6\x96\x87"}) {
        SCOPED_TRACE(text);
        const unsigned lineHeight = measure(text, 24).height;
        unsigned width = 0;
        unsigned height = 0;
        LogCapture capture;
        EXPECT_FALSE(
            renderer.lineRender(text, 24, nullptr, 100, lineHeight - 1, 100, true, width, height));
        EXPECT_EQ(capture.records.size(), 1U);
        EXPECT_TRUE(
            renderer.lineRender(text, 24, nullptr, 100, lineHeight, 100, true, width, height));
        EXPECT_EQ(height, lineHeight);
    }
}

TEST_F(FontRendererTest, draw_is_not_taller_than_the_measurement_when_given_more_rows) {
    const Extent measured = measure("Tall: \xC3\x85 | g", 40);
    GuardedBuffer buffer(measured.width, measured.height, measured.width);
    unsigned width = 0;
    unsigned height = 0;
    ASSERT_TRUE(renderer.lineRender("Tall: \xC3\x85 | g", 40, buffer.data(), 500, 480,
                                    buffer.stride, false, width, height));
    EXPECT_EQ(height, measured.height);
    EXPECT_EQ(buffer.damagedGuards(), 0U);
}

TEST_F(FontRendererTest, control_characters_and_line_breaks_are_left_out) {
    expectSameRendering("onetwo", "one\n\r\t\x01two\x7F", 18);
}

TEST_F(FontRendererTest, malformed_utf8_draws_one_replacement_character_per_bad_sequence) {
    struct Row {
        const char* name;
        std::string malformed;
        std::string equivalent;
    };
    const std::string fffd = "\xEF\xBF\xBD";
    const std::vector<Row> rows = {
        {"stray continuation byte", "a\x80z", "a" + fffd + "z"},
        {"invalid lead byte", "a\xFFz", "a" + fffd + "z"},
        {"overlong slash", "a\xC0\xAFz", "a" + fffd + fffd + "z"},
        {"surrogate", "a\xED\xA0\x80z", "a" + fffd + fffd + fffd + "z"},
        {"truncated at the end", "a\xE2\x82", "a" + fffd},
        {"truncated four-byte sequence", "a\xF0\x9F\x98z", "a" + fffd + "z"},
        {"above U+10FFFF", "a\xF4\x90\x80\x80z", "a" + fffd + fffd + fffd + fffd + "z"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        expectSameRendering(row.malformed, row.equivalent, 20);
    }
}

TEST_F(FontRendererTest, characters_no_face_has_draw_the_same_placeholder) {
    Extent a;
    Extent b;
    const auto first = render("\xCD\xB8", 20, a);           // U+0378, unassigned
    const auto second = render("\xF0\x9F\x8E\x89", 20, b);  // U+1F389, in no face
    EXPECT_GT(a.width, 0U);
    EXPECT_EQ(a.width, b.width);
    EXPECT_EQ(first, second);
    EXPECT_NE(std::count(first.begin(), first.end(), 0), std::ptrdiff_t(first.size()));
}

TEST_F(FontRendererTest, too_long_a_line_keeps_the_end_where_its_text_begins) {
    struct Row {
        const char* name;
        std::string text;
        bool keepsRightEnd;
    };
    const std::vector<Row> rows = {
        {"left to right", repeat("Update ", 20), false},
        {"right to left", repeat("\xD8\xAA\xD8\xAD\xD8\xAF\xD9\x8A\xD8\xAB ", 20), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Extent whole;
        const auto full = render(row.text, 20, whole);
        ASSERT_GT(whole.width, 200U);
        const Extent measured = measure(row.text, 20, 90);
        ASSERT_EQ(measured.width, 90U);
        GuardedBuffer clipped(90, measured.height, 90);
        const Extent drawn = draw(row.text, 20, clipped, 90);
        EXPECT_EQ(drawn.width, 90U);
        EXPECT_EQ(clipped.damagedGuards(), 0U);
        const unsigned firstColumn = row.keepsRightEnd ? whole.width - 90 : 0;
        for (unsigned y = 0; y < measured.height; ++y) {
            for (unsigned x = 0; x < 90; ++x) {
                ASSERT_EQ(clipped.at(x, y), full[std::size_t(y) * whole.width + firstColumn + x])
                    << "column " << x << " row " << y;
            }
        }
    }
}

TEST_F(FontRendererTest, only_the_first_4096_characters_are_laid_out) {
    const std::string first = repeat("i", 4096);
    const unsigned wide = 1000000;
    EXPECT_EQ(measure(first + "WWW", 3, wide).width, measure(first, 3, wide).width);
    EXPECT_LT(measure(repeat("i", 4095), 3, wide).width, measure(first, 3, wide).width);
}

TEST_F(FontRendererTest, accented_letters_differ_from_their_base_letters) {
    Extent a;
    Extent b;
    EXPECT_NE(render("e", 20, a), render("\xC3\xA9", 20, b));
}

TEST_F(FontRendererTest, kerning_pulls_pairs_together) {
    // DejaVu Sans kerns "T" followed by "o". Differences of repeated runs cancel
    // the ink overhang at the line's ends and leave advances plus kerning.
    const auto growth = [this](const std::string& unit) {
        return measure(repeat(unit, 11), 20).width - measure(unit, 20).width;
    };
    EXPECT_LT(growth("To"), growth("T") + growth("o"));
}

TEST_F(FontRendererTest, ink_of_the_first_glyph_left_of_its_origin_is_kept) {
    // DejaVu's "T" reaches one pixel left of its origin at size 20; after a space
    // nothing of it is cut, so alone it must carry the same ink.
    const auto inkSum = [](const std::vector<unsigned char>& pixels) {
        long sum = 0;
        for (unsigned char p : pixels) {
            sum += p;
        }
        return sum;
    };
    for (const char* letter : {"T", "j", "y"}) {
        SCOPED_TRACE(letter);
        Extent alone;
        Extent afterSpace;
        const long first = inkSum(render(letter, 20, alone));
        EXPECT_GT(first, 0);
        EXPECT_EQ(first, inkSum(render(std::string(" ") + letter, 20, afterSpace)));
    }
}

TEST_F(FontRendererTest, measuring_and_drawing_are_repeatable) {
    expectSameRendering("Repeat 123", "Repeat 123", 33);
}

// The renderer keeps the last line it shaped for the draw that follows its
// measurement: a line of other text, or of the same text at another size,
// must not take it. Each line of the sequence must come out as a renderer
// that never drew before draws it.
TEST_F(FontRendererTest, each_line_is_drawn_as_a_fresh_renderer_draws_it_whatever_came_before) {
    const std::pair<std::string, unsigned> sequence[] = {
        {"Beta 42", 20}, {"Beta 42", 31}, {"Alpha 17", 31}, {"Beta 42", 31}, {"Beta 42", 20}};
    for (const auto& [text, size] : sequence) {
        Extent extent;
        const auto pixels = render(text, size, extent);
        FontRenderer fresh;
        ASSERT_TRUE(fresh.init());
        unsigned lineHeight = 0;
        ASSERT_TRUE(fresh.maxLineHeight(size, lineHeight));
        unsigned width = 0;
        unsigned height = 0;
        ASSERT_TRUE(fresh.lineRender(text, size, nullptr, kAvailWidth, lineHeight, kAvailWidth,
                                     true, width, height));
        EXPECT_EQ(extent.width, width) << "'" << text << "' at " << size;
        EXPECT_EQ(extent.height, height) << "'" << text << "' at " << size;
        GuardedBuffer expected(width, height, width);
        ASSERT_TRUE(fresh.lineRender(text, size, expected.data(), width, kAvailHeight,
                                     expected.stride, false, width, height));
        EXPECT_EQ(pixels, expected.pixels()) << "'" << text << "' at " << size;
    }
}

TEST(FontRendererInit, missing_file_fails_with_one_log_line_naming_it) {
    FontRenderer renderer;
    LogCapture capture;
    EXPECT_FALSE(renderer.init("/nonexistent/dir/font.ttf"));
    ASSERT_EQ(capture.records.size(), 1U);
    EXPECT_EQ(capture.records[0].level, 3);
    EXPECT_NE(capture.records[0].message.find("/nonexistent/dir/font.ttf"), std::string::npos)
        << capture.records[0].message;
    unsigned height = 0;
    EXPECT_FALSE(renderer.maxLineHeight(12, height));
}

TEST(FontRendererInit, file_that_is_not_a_font_fails) {
    char path[] = "/tmp/dravik_font_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "not a font\n", 11), 11);
    close(fd);
    FontRenderer renderer;
    LogCapture capture;
    EXPECT_FALSE(renderer.init(path));
    unlink(path);
    ASSERT_EQ(capture.records.size(), 1U);
    EXPECT_NE(capture.records[0].message.find(path), std::string::npos);
}

TEST(FontRendererInit, default_font_file_loads_by_path) {
    FontRenderer renderer;
    ASSERT_TRUE(renderer.init(DRAVIK_DEFAULT_FONT_FILE));
    unsigned height = 0;
    EXPECT_TRUE(renderer.maxLineHeight(12, height));
    EXPECT_GT(height, 0U);
}

TEST(FontRendererInit, nothing_is_served_before_init) {
    FontRenderer renderer;
    unsigned width = 0;
    unsigned height = 0;
    LogCapture capture;
    EXPECT_FALSE(renderer.maxLineHeight(12, height));
    EXPECT_FALSE(renderer.lineRender("abc", 12, nullptr, 100, 100, 100, true, width, height));
    EXPECT_TRUE(capture.has(3, "No font loaded"));
}

TEST(FontRendererInit, init_again_replaces_the_face_and_a_failed_init_leaves_none) {
    FontRenderer renderer;
    ASSERT_TRUE(renderer.init());
    ASSERT_TRUE(renderer.init(DRAVIK_DEFAULT_FONT_FILE));
    unsigned height = 0;
    EXPECT_TRUE(renderer.maxLineHeight(12, height));
    LogCapture capture;
    EXPECT_FALSE(renderer.init("/nonexistent/font.ttf"));
    EXPECT_FALSE(renderer.maxLineHeight(12, height));
}

}  // namespace
