// Containment of image paths in the screens directories: lexical folding of
// ".", ".." and repeated "/" before the directory test.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "GuiPaths.h"

using dravik::lcmgui::containGuiPath;

namespace {

struct Row {
    std::string path;
    bool inside;
    const char* contained;  // the normalised path, checked for paths inside
};

void expectRow(const Row& row) {
    SCOPED_TRACE(row.path);
    std::string contained;
    EXPECT_EQ(containGuiPath(row.path, contained), row.inside);
    if (row.inside) {
        EXPECT_EQ(contained, row.contained);
    }
}

void expectRows(std::initializer_list<Row> rows) {
    for (const Row& row : rows) {
        expectRow(row);
    }
}

}  // namespace

TEST(GuiPaths, plain_paths_below_either_directory_are_inside) {
    expectRows({
        {"/usr/etc/gui/logo.png", true, "/usr/etc/gui/logo.png"},
        {"/etc/gui/images/logo.png", true, "/etc/gui/images/logo.png"},
    });
}

TEST(GuiPaths, dot_dot_that_climbs_out_is_outside) {
    expectRows({
        {"/etc/gui/images/../../../tmp/x.png", false, ""},
        {"/etc/gui/../shadow", false, ""},
        {"/usr/etc/gui/../gui.png", false, ""},
        {"/usr/etc/gui/a/../../../../etc/passwd", false, ""},
        {"/etc/gui/..", false, ""},
        {"/etc/gui/../../../../../..", false, ""},
    });
}

TEST(GuiPaths, dot_dot_that_stays_inside_keeps_working) {
    expectRows({
        {"/etc/gui/images/../logo.png", true, "/etc/gui/logo.png"},
        {"/etc/gui/a/b/../../c/d.png", true, "/etc/gui/c/d.png"},
        {"/usr/etc/gui/x/../../gui/y.png", true, "/usr/etc/gui/y.png"},
        // Climbing out and back in lands inside: the result is what counts.
        {"/etc/gui/../gui/logo.png", true, "/etc/gui/logo.png"},
        {"/usr/etc/gui/../../../etc/gui/logo.png", true, "/etc/gui/logo.png"},
    });
}

TEST(GuiPaths, dots_and_repeated_slashes_are_folded) {
    expectRows({
        {"/etc/gui//images///logo.png", true, "/etc/gui/images/logo.png"},
        {"/etc/./gui/./logo.png", true, "/etc/gui/logo.png"},
        {"//etc/gui/logo.png", true, "/etc/gui/logo.png"},
        {"/etc//gui/logo.png", true, "/etc/gui/logo.png"},
        {"/etc/gui/", true, "/etc/gui/"},
        {"/etc/gui/.", true, "/etc/gui/"},
    });
}

TEST(GuiPaths, other_places_and_near_misses_are_outside) {
    expectRows({
        {"/tmp/x.png", false, ""},
        {"/etc/gui", false, ""},  // the directory itself, without its "/"
        {"/etc/guix/a.png", false, ""},
        {"/usr/etc/GUI/a.png", false, ""},
        {"etc/gui/a.png", false, ""},  // relative
        {"../etc/gui/a.png", false, ""},
        {"", false, ""},
        {"/", false, ""},
    });
}

TEST(GuiPaths, a_zero_byte_makes_any_path_outside) {
    expectRows({
        {std::string("/etc/gui/a.png\0/../../../tmp/x.png", 33), false, ""},
        {std::string("/tmp/x\0/../../etc/gui/a.png", 27), false, ""},
        {std::string("/etc/gui/a\0.png", 15), false, ""},
    });
}
