// Lines in many writing systems: each drawn exactly like its reference
// picture, Arabic letters joined into words, and characters no face has drawn
// as the .notdef box.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>

#include "ScriptLines.h"
#include "dravik_fontrenderer/FontRenderer.h"
#include "dravik_test_support/golden_picture.h"

namespace {

using dravik::fontrenderer::testing::ScriptLine;
using dravik::fontrenderer::testing::scriptLines;
using dravik::testsupport::GoldenPictures;

// The references: 8-bit coverage buffers, one grey PNG each.
const GoldenPictures kGolden(DRAVIK_GOLDEN_DIR, DRAVIK_GOLDEN_FAILURE_DIR);

constexpr unsigned kGoldenSize = 24;
constexpr unsigned kWide = 4000;

// What the engine does: measure the line, then draw it into a zeroed buffer of
// exactly the measured size.
cv::Mat renderLine(FontRenderer& renderer, const std::string& text, unsigned size) {
    unsigned lineHeight = 0;
    EXPECT_TRUE(renderer.maxLineHeight(size, lineHeight));
    unsigned width = 0;
    unsigned height = 0;
    EXPECT_TRUE(
        renderer.lineRender(text, size, nullptr, kWide, lineHeight, kWide, true, width, height));
    cv::Mat coverage = cv::Mat::zeros(int(height), int(width), CV_8UC1);
    if (coverage.empty()) {
        ADD_FAILURE() << "nothing measured for '" << text << "'";
        return coverage;
    }
    unsigned drawnWidth = 0;
    unsigned drawnHeight = 0;
    EXPECT_TRUE(renderer.lineRender(text, size, coverage.data, kWide, 1000, unsigned(coverage.step),
                                    false, drawnWidth, drawnHeight));
    EXPECT_EQ(drawnWidth, width);
    EXPECT_EQ(drawnHeight, height);
    return coverage;
}

class ScriptLineTest : public ::testing::TestWithParam<ScriptLine> {
protected:
    void SetUp() override { ASSERT_TRUE(renderer.init()); }
    FontRenderer renderer;
};

TEST_P(ScriptLineTest, draws_like_its_reference_picture) {
    const cv::Mat coverage = renderLine(renderer, GetParam().text, kGoldenSize);
    ASSERT_FALSE(coverage.empty());
    EXPECT_TRUE(kGolden.matches(GetParam().name, coverage));
}

INSTANTIATE_TEST_SUITE_P(Scripts, ScriptLineTest, ::testing::ValuesIn(scriptLines()),
                         [](const ::testing::TestParamInfo<ScriptLine>& info) {
                             return info.param.name;
                         });

// The UTF-8 sequences of `text`, one per character.
std::vector<std::string> characters(const std::string& text) {
    std::vector<std::string> out;
    for (const char byte : text) {
        if ((static_cast<unsigned char>(byte) & 0xC0) != 0x80 || out.empty()) {
            out.emplace_back();
        }
        out.back() += byte;
    }
    return out;
}

class ScriptFeatures : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(renderer.init()); }
    FontRenderer renderer;
};

// Ink pieces of a word that are not dots: an 8-connected component counts as a
// dot when it is short and narrow next to the font size.
int inkPieces(const cv::Mat& coverage, unsigned size) {
    cv::Mat ink = coverage >= 96;
    cv::Mat labels;
    cv::Mat stats;
    cv::Mat centroids;
    const int count = cv::connectedComponentsWithStats(ink, labels, stats, centroids, 8);
    int pieces = 0;
    for (int label = 1; label < count; ++label) {
        const int w = stats.at<int>(label, cv::CC_STAT_WIDTH);
        const int h = stats.at<int>(label, cv::CC_STAT_HEIGHT);
        const bool dot = h * 4 < int(size) && w * 3 < int(size);
        pieces += dot ? 0 : 1;
    }
    return pieces;
}

TEST_F(ScriptFeatures, arabic_letters_join_within_each_word) {
    // A word breaks into pieces only after the letters that never join the
    // letter after them (alef, dal, reh, waw, ...): "مرحبا" is مر + حبا,
    // "بالعالم" is با + لعا + لم; the other words join throughout.
    struct Word {
        const char* text;
        int letters;
        int pieces;
    };
    const Word words[] = {
        {"مكتبة", 5, 1}, {"سنة", 3, 1}, {"بيت", 3, 1}, {"مرحبا", 5, 2}, {"بالعالم", 7, 3},
    };
    const unsigned size = 48;
    for (const auto& word : words) {
        SCOPED_TRACE(word.text);
        const cv::Mat coverage = renderLine(renderer, word.text, size);
        ASSERT_FALSE(coverage.empty());
        EXPECT_EQ(inkPieces(coverage, size), word.pieces);
        // Drawn letter by letter they would fall apart into one piece each.
        EXPECT_LT(word.pieces, word.letters);
    }
}

TEST_F(ScriptFeatures, emoji_in_no_face_is_drawn_as_the_box_and_one_in_dejavu_is_not) {
    const cv::Mat unassigned = renderLine(renderer, "\u0378", kGoldenSize);
    const cv::Mat popper = renderLine(renderer, "🎉", kGoldenSize);
    const cv::Mat grin = renderLine(renderer, "😀", kGoldenSize);
    ASSERT_FALSE(popper.empty());
    ASSERT_EQ(popper.size(), unassigned.size());
    EXPECT_EQ(cv::countNonZero(popper != unassigned), 0);
    EXPECT_TRUE(grin.size() != unassigned.size() || cv::countNonZero(grin != unassigned) > 0);
}

TEST_F(ScriptFeatures, no_character_of_the_cjk_lines_is_drawn_as_the_box) {
    const cv::Mat box = renderLine(renderer, "\u0378", kGoldenSize);
    for (const char* name : {"chinese", "japanese", "korean"}) {
        for (const auto& line : scriptLines()) {
            if (line.name != name) {
                continue;
            }
            for (const std::string& character : characters(line.text)) {
                if (character == " ") {
                    continue;
                }
                SCOPED_TRACE(std::string(name) + " '" + character + "'");
                const cv::Mat drawn = renderLine(renderer, character, kGoldenSize);
                ASSERT_FALSE(drawn.empty());
                EXPECT_TRUE(drawn.size() != box.size() || cv::countNonZero(drawn != box) > 0);
            }
        }
    }
}

}  // namespace
