// The dedicated line conversions that init picks for common panel layouts give
// exactly the bytes of the lookup and dither tables, for every width; any other
// layout keeps the tables.
#include <gtest/gtest.h>
#include <linux/fb.h>

#include <functional>
#include <random>
#include <vector>

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "PanelLayout.h"

using dravik::lcmgui::GuiConfig;
using dravik::lcmgui::LcmGui;
using Access = dravik::lcmgui::LcmGuiTestAccess;

namespace {

struct Layout : dravik::lcmgui::testsupport::PanelLayout {
    bool dedicated;  // a dedicated conversion is expected
};

const Layout kLayouts[] = {
    {"RGB565 reported", 16, {11, 5, 0}, {5, 6, 0}, {0, 5, 0}, true},
    {"RGB565 reported at depth 15", 15, {11, 5, 0}, {5, 6, 0}, {0, 5, 0}, true},
    {"16 bits without channels", 16, {}, {}, {}, true},
    {"16 bits with one length missing", 16, {11, 5, 0}, {5, 6, 0}, {0, 0, 0}, true},
    {"15 bits without channels (5:6:5 applies)", 15, {}, {}, {}, true},
    {"RGB555 reported", 15, {10, 5, 0}, {5, 5, 0}, {0, 5, 0}, true},
    {"RGB555 reported at depth 16", 16, {10, 5, 0}, {5, 5, 0}, {0, 5, 0}, true},
    {"15 bits with only green 5 (1:5:5:5 applies)", 15, {}, {5, 5, 0}, {}, true},
    {"XRGB8888 reported", 32, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}, true},
    {"32 bits without channels", 32, {}, {}, {}, true},
    {"8 bits (dither)", 8, {}, {}, {}, true},
    {"BGR565", 16, {0, 5, 0}, {5, 6, 0}, {11, 5, 0}, false},
    {"RGB444 in 16 bits", 16, {8, 4, 0}, {4, 4, 0}, {0, 4, 0}, false},
    {"XBGR8888", 32, {0, 8, 0}, {8, 8, 0}, {16, 8, 0}, false},
    {"RGB101010", 32, {20, 10, 0}, {10, 10, 0}, {0, 10, 0}, false},
    {"RGB565 reported at depth 32", 32, {11, 5, 0}, {5, 6, 0}, {0, 5, 0}, false},
    {"24 bits (copied)", 24, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}, false},
};

// Every width up to 70 (each length of a line's end after whole groups of
// pixels) and wider lines up to more than a panel's.
std::vector<unsigned> widths() {
    std::vector<unsigned> all;
    for (unsigned w = 1; w <= 70; ++w) {
        all.push_back(w);
    }
    for (unsigned w : {127U, 128U, 129U, 240U, 255U, 256U, 257U, 320U, 480U, 1023U}) {
        all.push_back(w);
    }
    return all;
}

class FastConversion : public ::testing::Test {
protected:
    void SetUp() override { LcmGui::resetDitherMatrix(); }
    void TearDown() override { LcmGui::resetDitherMatrix(); }

    // An engine whose colour path init prepared for `layout`.
    static void prepare(LcmGui& gui, const Layout& layout) {
        dravik::lcmgui::testsupport::setPanelLayout(gui, layout);
        ASSERT_TRUE(Access::prepareColourPath(gui));
    }

    // Calls `check` with a new engine prepared for each layout in turn, the
    // dither matrix reset before each; a layout that cannot be prepared ends
    // the walk.
    void forEachLayout(const std::function<void(LcmGui&, const Layout&)>& check) {
        for (const auto& layout : kLayouts) {
            SCOPED_TRACE(layout.name);
            LcmGui::resetDitherMatrix();
            LcmGui gui(config);
            ASSERT_NO_FATAL_FAILURE(prepare(gui, layout));
            check(gui, layout);
        }
    }

    GuiConfig config;
    std::mt19937 random{0x5eed};
};

// Converts one line both ways into copies of the same random destination and
// requires the same bytes everywhere (past the line's end included) and the
// same returned end. The source holds exactly the line's pixels, so that a
// read past them is caught by the address sanitizer.
void expectSameLine(LcmGui& gui, unsigned depth, unsigned line, std::vector<unsigned char> src,
                    std::mt19937& random) {
    const unsigned width = static_cast<unsigned>(src.size() / 3);
    const size_t bytes = size_t{width} * ((depth + 7) / 8);
    std::vector<unsigned char> fast(bytes + 16);
    for (auto& b : fast) {
        b = static_cast<unsigned char>(random());
    }
    std::vector<unsigned char> tables = fast;
    std::vector<unsigned char> srcCopy = src;
    unsigned char* fastEnd = gui.convertLine(depth, line, width, fast.data(), src.data());
    unsigned char* tablesEnd =
        Access::convertLineByTables(gui, depth, line, width, tables.data(), srcCopy.data());
    ASSERT_EQ(fastEnd - fast.data(), tablesEnd - tables.data());
    ASSERT_EQ(fastEnd, fast.data() + bytes);
    for (size_t i = 0; i < fast.size(); ++i) {
        ASSERT_EQ(fast[i], tables[i]) << "byte " << i << " of a line of " << width;
    }
}

std::vector<unsigned char> randomLine(unsigned width, std::mt19937& random) {
    std::vector<unsigned char> src(size_t{width} * 3);
    for (auto& b : src) {
        b = static_cast<unsigned char>(random());
    }
    return src;
}

}  // namespace

TEST_F(FastConversion, every_layout_gives_the_bytes_of_the_tables_at_every_width) {
    forEachLayout([&](LcmGui& gui, const Layout& layout) {
        EXPECT_EQ(Access::hasFastLine(gui), layout.dedicated);
        for (unsigned width : widths()) {
            for (unsigned line : {0U, 3U, 7U, 12U}) {
                expectSameLine(gui, layout.depth, line, randomLine(width, random), random);
            }
        }
    });
}

TEST_F(FastConversion, every_channel_value_gives_the_bytes_of_the_tables) {
    // 256 pixels per line, each byte position sweeping all values against
    // fixed, rising and falling neighbours.
    forEachLayout([&](LcmGui& gui, const Layout& layout) {
        const std::function<unsigned(unsigned)> neighbours[] = {
            [](unsigned) { return 0U; },        [](unsigned) { return 0x7FU; },
            [](unsigned) { return 0xFFU; },     [](unsigned v) { return v; },
            [](unsigned v) { return 255 - v; },
        };
        for (unsigned channel = 0; channel < 3; ++channel) {
            for (const auto& neighbour : neighbours) {
                std::vector<unsigned char> src(256 * 3);
                for (unsigned v = 0; v < 256; ++v) {
                    for (unsigned c = 0; c < 3; ++c) {
                        src[3 * v + c] =
                            static_cast<unsigned char>(c == channel ? v : neighbour(v));
                    }
                }
                expectSameLine(gui, layout.depth, channel, src, random);
            }
        }
    });
}

TEST_F(FastConversion, dither_follows_a_matrix_changed_after_init) {
    LcmGui gui(config);
    ASSERT_NO_FATAL_FAILURE(prepare(gui, kLayouts[10]));
    ASSERT_EQ(kLayouts[10].depth, 8U);
    ASSERT_TRUE(Access::hasFastLine(gui));
    // Another engine's start-up scales the shared matrix once more: every
    // threshold becomes 0 and the tables' high shades are taken.
    LcmGui other(config);
    ASSERT_NO_FATAL_FAILURE(prepare(other, kLayouts[10]));
    EXPECT_FALSE(Access::hasFastLine(other));
    std::vector<unsigned char> white(8 * 3, 255);
    std::vector<unsigned char> out(8, 0);
    gui.convertLine(8, 0, 8, out.data(), white.data());
    for (unsigned char index : out) {
        ASSERT_EQ(index, (224 + 28 + 3) & 0xFF);  // not 218, the low shades
    }
    for (unsigned width : widths()) {
        expectSameLine(gui, 8, width % 8, randomLine(width, random), random);
    }
}

TEST_F(FastConversion, new_tables_drop_the_dedicated_conversion) {
    LcmGui gui(config);
    ASSERT_NO_FATAL_FAILURE(prepare(gui, kLayouts[0]));
    ASSERT_TRUE(Access::hasFastLine(gui));
    Access::fbVar(gui).red = {0, 5, 0};  // now BGR565
    Access::fbVar(gui).blue = {11, 5, 0};
    gui.lutInit(16);
    EXPECT_FALSE(Access::hasFastLine(gui));
    unsigned char red[3] = {0, 0, 255};
    uint16_t word = 0;
    gui.convertLine(16, 0, 1, reinterpret_cast<unsigned char*>(&word), red);
    EXPECT_EQ(word, 0x001F);
}
