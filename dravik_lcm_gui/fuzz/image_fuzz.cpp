// Arbitrary bytes as an image file under the image directory, loaded by the
// engine for every animation kind on a 240 x 240 panel held in memory, and
// drawn at a few levels when the load succeeds.
//
// Runs in a private mount namespace in which /etc/gui is a temporary directory
// (scripts/sandbox). The pixel bound is set before anything loads the codecs,
// as the daemon does, so a file declaring a huge picture is refused rather
// than decoded.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "GuiConfig.h"
#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "dravik_image/image_file.h"

using namespace dravik::lcmgui;

namespace {

constexpr unsigned kSide = 240;
const char kPath[] = "/etc/gui/fuzz_image";

LcmGui& engine() {
    static GuiConfig config;
    static LcmGui* gui = [] {
        auto* g = new LcmGui(config);
        if (!LcmGuiTestAccess::setMemoryPanel(*g, kSide, kSide)) {
            abort();
        }
        return g;
    }();
    return *gui;
}

GuiImgConf conf(AnimType type, uint16_t count, uint8_t where) {
    GuiImgConf c;
    c.file = "fuzz_image";
    c.animation = type;
    c.count = count;
    c.duration = 1000;
    c.alignHor = static_cast<AlignHor>(where % 3);
    c.alignVert = static_cast<AlignVert>(where / 3 % 3);
    c.x = static_cast<uint16_t>(where * 7 % kSide);
    c.y = static_cast<uint16_t>(where * 13 % kSide);
    return c;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (!dravik::image::setPixelLimit(uint64_t{100} * kSide * kSide)) {
        fprintf(stderr, "the image codecs were loaded before the pixel bound was set\n");
        abort();
    }
    std::ofstream probe(kPath);
    if (!probe) {
        fprintf(stderr, "cannot write %s: run inside scripts/sandbox\n", kPath);
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    {
        std::ofstream out(kPath, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1));
    }
    const uint8_t knobs = data[0];
    const AnimType types[] = {kAnimStatic, kAnimSlideshow, kAnimBreathing, kAnimProgressbar};
    const GuiImgConf c = conf(types[knobs % 4], static_cast<uint16_t>(1 + knobs / 4 % 8), knobs);
    LcmGui& gui = engine();
    cv::Mat img;
    if (!gui.loadImage(kPath, img, c)) {
        return 0;
    }
    for (unsigned level : {0U, 1U, 7U, 50U, 100U, 150U, 100000U}) {
        (void)gui.renderImage(img, c, level, true, true);
    }
    return 0;
}
