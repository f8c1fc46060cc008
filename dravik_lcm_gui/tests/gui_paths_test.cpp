// Containment of image paths in the screens directories: lexical folding of
// ".", ".." and repeated "/" before the directory test.
#include <gtest/gtest.h>

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

}  // namespace

TEST(GuiPaths, plain_paths_below_either_directory_are_inside) {
    for (const Row& row : {
             Row{"/usr/etc/gui/logo.png", true, "/usr/etc/gui/logo.png"},
             Row{"/etc/gui/images/logo.png", true, "/etc/gui/images/logo.png"},
         }) {
        expectRow(row);
    }
}

TEST(GuiPaths, dot_dot_that_climbs_out_is_outside) {
    for (const Row& row : {
             Row{"/etc/gui/images/../../../tmp/x.png", false, ""},
             Row{"/etc/gui/../shadow", false, ""},
             Row{"/usr/etc/gui/../gui.png", false, ""},
             Row{"/usr/etc/gui/a/../../../../etc/passwd", false, ""},
             Row{"/etc/gui/..", false, ""},
             Row{"/etc/gui/../../../../../..", false, ""},
         }) {
        expectRow(row);
    }
}

TEST(GuiPaths, dot_dot_that_stays_inside_keeps_working) {
    for (const Row& row : {
             Row{"/etc/gui/images/../logo.png", true, "/etc/gui/logo.png"},
             Row{"/etc/gui/a/b/../../c/d.png", true, "/etc/gui/c/d.png"},
             Row{"/usr/etc/gui/x/../../gui/y.png", true, "/usr/etc/gui/y.png"},
             // Climbing out and back in lands inside: the result is what counts.
             Row{"/etc/gui/../gui/logo.png", true, "/etc/gui/logo.png"},
             Row{"/usr/etc/gui/../../../etc/gui/logo.png", true, "/etc/gui/logo.png"},
         }) {
        expectRow(row);
    }
}

TEST(GuiPaths, dots_and_repeated_slashes_are_folded) {
    for (const Row& row : {
             Row{"/etc/gui//images///logo.png", true, "/etc/gui/images/logo.png"},
             Row{"/etc/./gui/./logo.png", true, "/etc/gui/logo.png"},
             Row{"//etc/gui/logo.png", true, "/etc/gui/logo.png"},
             Row{"/etc//gui/logo.png", true, "/etc/gui/logo.png"},
             Row{"/etc/gui/", true, "/etc/gui/"},
             Row{"/etc/gui/.", true, "/etc/gui/"},
         }) {
        expectRow(row);
    }
}

TEST(GuiPaths, other_places_and_near_misses_are_outside) {
    for (const Row& row : {
             Row{"/tmp/x.png", false, ""},
             Row{"/etc/gui", false, ""},  // the directory itself, without its "/"
             Row{"/etc/guix/a.png", false, ""},
             Row{"/usr/etc/GUI/a.png", false, ""},
             Row{"etc/gui/a.png", false, ""},  // relative
             Row{"../etc/gui/a.png", false, ""},
             Row{"", false, ""},
             Row{"/", false, ""},
         }) {
        expectRow(row);
    }
}

TEST(GuiPaths, a_zero_byte_makes_any_path_outside) {
    for (const Row& row : {
             Row{std::string("/etc/gui/a.png\0/../../../tmp/x.png", 33), false, ""},
             Row{std::string("/tmp/x\0/../../etc/gui/a.png", 27), false, ""},
             Row{std::string("/etc/gui/a\0.png", 15), false, ""},
         }) {
        expectRow(row);
    }
}
