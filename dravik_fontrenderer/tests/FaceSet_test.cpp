// The chain of faces: the first face open from the start, fallback faces
// probed, opened only when a character needs them, and measured like FreeType
// measures a sized face.
#include "FaceSet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FontFiles.h"
#include "dravik_logger/log_capture.h"

namespace {

using namespace dravik::fontrenderer;
using dravik::logger::LogCapture;

// Index of the face whose file name ends with `name`, or the set's size.
std::size_t faceNamed(const FaceSet& faces, const std::string& name) {
    for (std::size_t face = 0; face < faces.size(); ++face) {
        const std::string& path = faces.path(face);
        if (path.size() >= name.size() &&
            path.compare(path.size() - name.size(), name.size(), name) == 0) {
            return face;
        }
    }
    return faces.size();
}

class FaceSetTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(faces.open(firstFaceCandidates(), fallbackFaces())); }
    FaceSet faces;
};

TEST_F(FaceSetTest, only_the_first_face_is_open_after_open) {
    std::size_t expected = 1;
    for (const auto& source : fallbackFaces()) {
        expected += source.path != faces.path(0) ? 1 : 0;
    }
    ASSERT_EQ(faces.size(), expected) << "every fallback file is installed";
    EXPECT_TRUE(faces.isOpen(0));
    for (std::size_t face = 1; face < faces.size(); ++face) {
        EXPECT_FALSE(faces.isOpen(face)) << faces.path(face);
    }
}

TEST_F(FaceSetTest, a_fallback_face_opens_when_asked_for_a_glyph_and_the_others_stay_closed) {
    const std::size_t cjk = faceNamed(faces, "wqy-microhei.ttc");
    ASSERT_LT(cjk, faces.size());
    EXPECT_FALSE(faces.hasGlyph(0, 0x4E2D));
    EXPECT_TRUE(faces.hasGlyph(cjk, 0x4E2D));
    EXPECT_TRUE(faces.isOpen(cjk));
    for (std::size_t face = 1; face < faces.size(); ++face) {
        EXPECT_EQ(faces.isOpen(face), face == cjk) << faces.path(face);
    }
}

TEST_F(FaceSetTest, fallback_faces_are_meant_for_their_scripts_and_the_first_for_all) {
    const std::size_t arabic = faceNamed(faces, "NotoSansArabicUI-Regular.ttf");
    const std::size_t thai = faceNamed(faces, "NotoSansThaiUI-Regular.ttf");
    ASSERT_LT(arabic, faces.size());
    ASSERT_LT(thai, faces.size());
    EXPECT_TRUE(faces.serves(arabic, HB_SCRIPT_ARABIC));
    EXPECT_FALSE(faces.serves(arabic, HB_SCRIPT_LATIN));
    EXPECT_TRUE(faces.serves(thai, HB_SCRIPT_THAI));
    EXPECT_FALSE(faces.serves(thai, HB_SCRIPT_ARABIC));
    for (const hb_script_t script : {HB_SCRIPT_LATIN, HB_SCRIPT_ARABIC, HB_SCRIPT_HAN}) {
        EXPECT_TRUE(faces.serves(0, script));
    }
}

TEST_F(FaceSetTest, metrics_of_every_face_match_freetypes_for_the_sized_face) {
    for (std::size_t face = 0; face < faces.size(); ++face) {
        for (unsigned size = 3; size <= 100; ++size) {
            SCOPED_TRACE(faces.path(face) + " at size " + std::to_string(size));
            const VerticalMetrics m = faces.metrics(face, size);
            FT_Face sized = faces.sizedFace(face, size);
            ASSERT_NE(sized, nullptr);
            EXPECT_EQ(m.ascender, (sized->size->metrics.ascender + 63) >> 6);
            EXPECT_EQ(m.descender, -(sized->size->metrics.descender >> 6));
        }
    }
}

TEST_F(FaceSetTest, faces_are_hinted_as_their_sources_say) {
    EXPECT_EQ(FT_LOAD_TARGET_MODE(faces.loadFlags(0)), FT_RENDER_MODE_NORMAL);
    for (const auto& source : fallbackFaces()) {
        const std::size_t face = faceNamed(faces, source.path);
        if (face == 0) {
            continue;  // the first face keeps its own hinting
        }
        ASSERT_LT(face, faces.size()) << source.path;
        EXPECT_EQ(FT_LOAD_TARGET_MODE(faces.loadFlags(face)),
                  source.hinting == Hinting::Light ? FT_RENDER_MODE_LIGHT : FT_RENDER_MODE_NORMAL)
            << source.path;
    }
    for (std::size_t face = 0; face < faces.size(); ++face) {
        EXPECT_NE(faces.loadFlags(face) & FT_LOAD_NO_BITMAP, 0) << faces.path(face);
    }
}

TEST_F(FaceSetTest, the_shaping_font_follows_the_size) {
    hb_font_t* font = faces.sizedFont(0, 20);
    ASSERT_NE(font, nullptr);
    int x = 0;
    int y = 0;
    hb_font_get_scale(font, &x, &y);
    EXPECT_EQ(y, 20 * 64);
    ASSERT_EQ(faces.sizedFont(0, 31), font);
    hb_font_get_scale(font, &x, &y);
    EXPECT_EQ(y, 31 * 64);
}

TEST(FaceSetOpen, missing_fallback_is_left_out_with_a_debug_record) {
    FaceSet faces;
    LogCapture capture;
    ASSERT_TRUE(faces.open({DRAVIK_DEFAULT_FONT_FILE},
                           {FaceSource{"/nonexistent/Fallback.ttf", {HB_SCRIPT_THAI}}}));
    EXPECT_EQ(faces.size(), 1U);
    ASSERT_EQ(capture.records.size(), 1U);
    EXPECT_EQ(capture.records[0].level, 7);
    EXPECT_NE(capture.records[0].message.find("/nonexistent/Fallback.ttf"), std::string::npos);
}

TEST(FaceSetOpen, first_face_is_the_first_candidate_that_loads_and_is_not_repeated) {
    FaceSet faces;
    ASSERT_TRUE(faces.open({"/nonexistent/First.ttf", DRAVIK_DEFAULT_FONT_FILE},
                           {FaceSource{DRAVIK_DEFAULT_FONT_FILE, {}}}));
    EXPECT_EQ(faces.size(), 1U);
    EXPECT_EQ(faces.path(0), DRAVIK_DEFAULT_FONT_FILE);
}

TEST(FaceSetOpen, no_loadable_candidate_fails_with_one_record_naming_them) {
    FaceSet faces;
    LogCapture capture;
    EXPECT_FALSE(faces.open({"/nonexistent/A.ttf", "/nonexistent/B.ttf"}, fallbackFaces()));
    EXPECT_TRUE(faces.empty());
    ASSERT_EQ(capture.records.size(), 1U);
    EXPECT_EQ(capture.records[0].level, 3);
    EXPECT_NE(capture.records[0].message.find("/nonexistent/A.ttf"), std::string::npos);
    EXPECT_NE(capture.records[0].message.find("/nonexistent/B.ttf"), std::string::npos);
}

}  // namespace
