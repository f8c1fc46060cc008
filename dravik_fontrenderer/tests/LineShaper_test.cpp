// Shaping: which face draws each character, the visual order of mixed
// directions, contextual forms, and the .notdef glyph only where no face has
// the character.
#include "LineShaper.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FaceSet.h"
#include "FontFiles.h"
#include "ScriptLines.h"
#include "Utf8.h"

namespace {

using namespace dravik::fontrenderer;
using dravik::fontrenderer::testing::scriptLines;

constexpr unsigned kSize = 24;

class LineShaperTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(faces.open(firstFaceCandidates(), fallbackFaces())); }

    ShapedLine shape(const std::string& text) {
        ShapedLine line;
        EXPECT_TRUE(shaper.shape(faces, decodeLine(text, 4096), kSize, line));
        return line;
    }

    std::size_t faceNamed(const std::string& name) const {
        for (std::size_t face = 0; face < faces.size(); ++face) {
            const std::string& path = faces.path(face);
            if (path.size() >= name.size() &&
                path.compare(path.size() - name.size(), name.size(), name) == 0) {
                return face;
            }
        }
        ADD_FAILURE() << "no face " << name;
        return 0;
    }

    unsigned glyphOf(std::size_t face, uint32_t cp) {
        return FT_Get_Char_Index(faces.sizedFace(face, kSize), cp);
    }

    FaceSet faces;
    LineShaper shaper;
};

TEST_F(LineShaperTest, only_lines_with_characters_no_face_has_get_notdef_glyphs) {
    for (const auto& sample : scriptLines()) {
        SCOPED_TRACE(sample.name);
        const ShapedLine line = shape(sample.text);
        ASSERT_FALSE(line.glyphs.empty());
        int notdef = 0;
        for (const ShapedGlyph& glyph : line.glyphs) {
            notdef += glyph.glyph == 0 ? 1 : 0;
            if (glyph.glyph == 0) {
                EXPECT_EQ(glyph.face, 0U) << "the box is the first face's";
            }
        }
        EXPECT_EQ(notdef, sample.everyGlyphInSomeFace ? 0 : 1);
    }
}

TEST_F(LineShaperTest, words_of_more_scripts_draw_from_faces_meant_for_them) {
    const struct {
        const char* text;
        hb_script_t script;
    } words[] = {
        {"নমস্কার", HB_SCRIPT_BENGALI},  {"ਸਤ ਸ੍ਰੀ ਅਕਾਲ", HB_SCRIPT_GURMUKHI},
        {"નમસ્તે", HB_SCRIPT_GUJARATI},   {"ନମସ୍କାର", HB_SCRIPT_ORIYA},
        {"வணக்கம்", HB_SCRIPT_TAMIL},     {"నమస్కారం", HB_SCRIPT_TELUGU},
        {"ನಮಸ್ಕಾರ", HB_SCRIPT_KANNADA},  {"നമസ്കാരം", HB_SCRIPT_MALAYALAM},
        {"ආයුබෝවන්", HB_SCRIPT_SINHALA},  {"ສະບາຍດີ", HB_SCRIPT_LAO},
        {"မင်္ဂလာပါ", HB_SCRIPT_MYANMAR}, {"សួស្តី", HB_SCRIPT_KHMER},
        {"Привет", HB_SCRIPT_CYRILLIC}, {"Γειά σου", HB_SCRIPT_GREEK},
    };
    for (const auto& word : words) {
        SCOPED_TRACE(word.text);
        const ShapedLine line = shape(word.text);
        ASSERT_FALSE(line.glyphs.empty());
        for (const ShapedGlyph& glyph : line.glyphs) {
            EXPECT_NE(glyph.glyph, 0U);
            EXPECT_TRUE(faces.serves(glyph.face, word.script)) << faces.path(glyph.face);
        }
    }
}

TEST_F(LineShaperTest, cjk_lines_draw_every_character_from_the_cjk_face) {
    const std::size_t cjk = faceNamed("wqy-microhei.ttc");
    for (const char* text : {"正在更新固件", "ファームウェア更新中", "펌웨어업데이트"}) {
        SCOPED_TRACE(text);
        const ShapedLine line = shape(text);
        EXPECT_EQ(line.glyphs.size(), decodeLine(text, 4096).size());
        for (const ShapedGlyph& glyph : line.glyphs) {
            EXPECT_EQ(glyph.face, cjk);
            EXPECT_NE(glyph.glyph, 0U);
        }
    }
}

TEST_F(LineShaperTest, spaces_between_words_stay_in_the_face_of_the_words) {
    const std::size_t cjk = faceNamed("wqy-microhei.ttc");
    const ShapedLine line = shape("펌웨어 업데이트");
    for (const ShapedGlyph& glyph : line.glyphs) {
        EXPECT_EQ(glyph.face, cjk);
    }
}

TEST_F(LineShaperTest, fallback_faces_open_only_for_the_scripts_that_need_them) {
    (void)shape("Firmware update 2.1 — Café");
    for (std::size_t face = 1; face < faces.size(); ++face) {
        EXPECT_FALSE(faces.isOpen(face)) << faces.path(face);
    }
    const std::size_t devanagari = faceNamed("NotoSansDevanagariUI-Regular.ttf");
    const ShapedLine line = shape("नमस्ते");
    EXPECT_TRUE(line.facesUsed[devanagari]);
    for (std::size_t face = 1; face < faces.size(); ++face) {
        EXPECT_EQ(faces.isOpen(face), face == devanagari) << faces.path(face);
    }
}

TEST_F(LineShaperTest, a_line_of_latin_and_cjk_draws_from_both_faces) {
    const ShapedLine line = shape("Version 中文");
    EXPECT_TRUE(line.facesUsed[0]);
    EXPECT_TRUE(line.facesUsed[faceNamed("wqy-microhei.ttc")]);
}

TEST_F(LineShaperTest, base_direction_comes_from_the_first_strong_character) {
    EXPECT_TRUE(shape("مرحبا بالعالم").rightToLeft);
    EXPECT_TRUE(shape("עדכון תוכנה").rightToLeft);
    EXPECT_TRUE(shape("2.1 تحديث Firmware").rightToLeft);
    EXPECT_FALSE(shape("Firmware 2.1 تحديث").rightToLeft);
    EXPECT_FALSE(shape("12345").rightToLeft);
}

TEST_F(LineShaperTest, latin_before_arabic_in_a_left_to_right_line_comes_first) {
    const ShapedLine line = shape("Firmware 2.1 تحديث");
    ASSERT_GE(line.glyphs.size(), 8U);
    EXPECT_EQ(line.glyphs.front().glyph, glyphOf(0, 'F'));
    EXPECT_EQ(line.glyphs[7].glyph, glyphOf(0, 'e'));
    // The Arabic word ends the line, its first letter (teh) rightmost.
    const ShapedLine word = shape("تحديث");
    ASSERT_EQ(line.glyphs.size(), 13U + word.glyphs.size());
    EXPECT_EQ(line.glyphs.back().glyph, word.glyphs.back().glyph);
}

TEST_F(LineShaperTest, numbers_in_right_to_left_text_read_left_to_right) {
    const ShapedLine line = shape("عام 2024");
    std::vector<char32_t> digits;
    for (const ShapedGlyph& glyph : line.glyphs) {
        for (const char32_t digit : {U'0', U'2', U'4'}) {
            if (glyph.glyph == glyphOf(glyph.face, digit)) {
                digits.push_back(digit);
            }
        }
    }
    EXPECT_EQ(digits, (std::vector<char32_t>{U'2', U'0', U'2', U'4'}));
    // The digits stand left of the word: the line starts with them.
    EXPECT_EQ(line.glyphs.front().glyph, glyphOf(line.glyphs.front().face, '2'));
}

TEST_F(LineShaperTest, arabic_letters_take_their_joining_forms) {
    // Alone, beh is its isolated form; at the start of a word it is the
    // initial form, which is the rightmost glyph of the word.
    const ShapedLine alone = shape("ب");
    const ShapedLine word = shape("بيت");
    ASSERT_EQ(alone.glyphs.size(), 1U);
    ASSERT_EQ(word.glyphs.size(), 3U);
    EXPECT_NE(word.glyphs.back().glyph, alone.glyphs.front().glyph);
    EXPECT_NE(word.glyphs.back().glyph, 0U);
    EXPECT_EQ(word.glyphs.back().face, alone.glyphs.front().face);
}

TEST_F(LineShaperTest, devanagari_conjuncts_take_fewer_glyphs_than_characters) {
    const ShapedLine line = shape("नमस्ते");
    EXPECT_LT(line.glyphs.size(), decodeLine("नमस्ते", 4096).size());
}

TEST_F(LineShaperTest, a_letter_the_first_face_lacks_moves_its_whole_word_to_a_face_that_has_all) {
    // U+08A0 (Arabic Extended-A) is not in DejaVu Sans: the run goes to the
    // Arabic face as a whole, so its letters still join.
    const std::size_t arabic = faceNamed("NotoSansArabicUI-Regular.ttf");
    ASSERT_FALSE(faces.hasGlyph(0, 0x08A0));
    ASSERT_TRUE(faces.hasGlyph(arabic, 0x08A0));
    const ShapedLine line = shape("بيت\u08A0");
    for (const ShapedGlyph& glyph : line.glyphs) {
        EXPECT_EQ(glyph.face, arabic);
        EXPECT_NE(glyph.glyph, 0U);
    }
}

TEST_F(LineShaperTest, empty_text_has_no_glyphs) {
    const ShapedLine line = shape("");
    EXPECT_TRUE(line.glyphs.empty());
    EXPECT_EQ(line.advance, 0);
    EXPECT_FALSE(line.rightToLeft);
}

}  // namespace
