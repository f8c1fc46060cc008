// fakefb-snapshot: turns a simulated panel's backing file into a PNG.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <string>
#include <vector>
#include "dravik_image/image_file.h"
#include "dravik_panel_picture/picture.h"

#include "dravik_utils/command_line.h"
#include "panel_files.h"
#include "tool_support.h"

namespace {

using dravik::utils::ParseOutcome;
using dravik::utils::UsageError;

using fakefb::ColourMapRecord;
using fakefb::Geometry;
using fakefb::Visual;

constexpr int kFailure = 1;
constexpr uint32_t kMaxScale = 64;

const char kHelp[] =
    "Usage: fakefb-snapshot [OPTIONS] FILE OUTPUT.png\n"
    "Decodes the backing file FILE of a simulated panel into a PNG, using the\n"
    "geometry recorded in FILE.geom (line padding, channel offsets and lengths;\n"
    "each channel is scaled to 8 bits). Pseudo-colour panels (8 bpp) are decoded\n"
    "through the colour map recorded in FILE.cmap; direct-colour panels look each\n"
    "channel up in it when one was written.\n"
    "\n"
    "Options:\n"
    "  -s, --scale N        enlarge every pixel to N x N (1..64, default 1)\n"
    "  -m, --mounted DEG    the panel is mounted so that its picture is turned DEG\n"
    "                       degrees clockwise (0, 90, 180 or 270; the screens\n"
    "                       file's \"rotation\"): turn it back, to show the panel\n"
    "                       as it is seen mounted (default 0: as the memory holds it)\n"
    "  -g, --geometry PATH  geometry file to use instead of FILE.geom\n"
    "  -c, --cmap PATH      colour map record to use instead of FILE.cmap\n"
    "  -h, --help           show this help and exit\n";

struct Options {
    uint32_t scale = 1;
    uint32_t mounted = 0;
    std::string geometry;
    std::string cmap;
    std::string input;
    std::string output;
};

// A snapshot that cannot be taken: the tool says why and exits kFailure.
struct Failure {
    std::string message;
};

uint32_t parseScale(const char* text) {
    uint32_t value = 0;
    if (!fakefb::parseUnsigned(text, value) || value < 1 || value > kMaxScale) {
        throw UsageError{std::string("bad --scale \"") + text + "\": expected 1..64"};
    }
    return value;
}

uint32_t parseMounted(const char* text) {
    uint32_t value = 0;
    if (!fakefb::parseUnsigned(text, value) || value % 90 != 0 || value > 270) {
        throw UsageError{std::string("bad --mounted \"") + text + "\": expected 0, 90, 180 or 270"};
    }
    return value;
}

using OptionRow = dravik::utils::OptionRow<Options>;

const OptionRow kOptionRows[] = {
    {"scale", 's', true, [](const char* arg, Options& o) { o.scale = parseScale(arg); }},
    {"mounted", 'm', true, [](const char* arg, Options& o) { o.mounted = parseMounted(arg); }},
    {"geometry", 'g', true, [](const char* arg, Options& o) { o.geometry = arg; }},
    {"cmap", 'c', true, [](const char* arg, Options& o) { o.cmap = arg; }},
    {"help", 'h', false, nullptr},
};

ParseOutcome::Kind readCommandLine(int argc, char** argv, Options& options) {
    if (dravik::utils::readOptions(argc, argv, kOptionRows, options) == ParseOutcome::kHelp) {
        return ParseOutcome::kHelp;
    }
    if (argc - optind != 2) {
        throw UsageError{"expected the backing file and the output PNG"};
    }
    options.input = argv[optind];
    options.output = argv[optind + 1];
    if (options.geometry.empty()) {
        options.geometry = options.input + ".geom";
    }
    if (options.cmap.empty()) {
        options.cmap = options.input + ".cmap";
    }
    return ParseOutcome::kRun;
}

Geometry loadGeometry(const std::string& path) {
    std::string text;
    if (!fakefb::readWholeFile(path, text)) {
        throw Failure{"cannot read geometry " + path + ": " + strerror(errno)};
    }
    fakefb::PanelDesc panelDesc;
    char error[fakefb::kErrorMax];
    const std::string dir =
        path.find('/') == std::string::npos ? std::string() : path.substr(0, path.rfind('/'));
    if (!fakefb::parseDesc(text.data(), text.size(), dir.c_str(), panelDesc, error, sizeof error)) {
        throw Failure{path + ": " + error};
    }
    return panelDesc.geometry;
}

// False when no colour map was recorded.
bool loadColourMap(const std::string& path, ColourMapRecord& map) {
    std::string text;
    if (!fakefb::readWholeFile(path, text)) {
        return false;
    }
    if (!fakefb::parseColourMap(text.data(), text.size(), map)) {
        throw Failure{"unreadable colour map record " + path};
    }
    return true;
}

dravik::panel::ChannelLayout layoutOf(const fakefb::Channel& channel) {
    return {channel.offset, channel.length};
}

dravik::panel::PixelLookup lookupOf(Visual visual) {
    switch (visual) {
        case Visual::pseudocolor:
            return dravik::panel::PixelLookup::palette;
        case Visual::directcolor:
            return dravik::panel::PixelLookup::channels;
        default:
            return dravik::panel::PixelLookup::direct;
    }
}

cv::Mat decodeFrame(const Geometry& geometry, const std::string& data, const ColourMapRecord* map) {
    if (data.size() < geometry.frameSize()) {
        throw Failure{"backing file holds " + std::to_string(data.size()) +
                      " bytes, the frame needs " + std::to_string(geometry.frameSize())};
    }
    const dravik::panel::PanelMemoryFormat format{
        geometry.width,         geometry.height,          geometry.bpp,
        layoutOf(geometry.red), layoutOf(geometry.green), layoutOf(geometry.blue),
        geometry.lineLength,    lookupOf(geometry.visual)};
    const dravik::panel::ColourMap colourMap{
        map != nullptr ? map->red : nullptr, map != nullptr ? map->green : nullptr,
        map != nullptr ? map->blue : nullptr, fakefb::kCmapEntries};
    return dravik::panel::panelPicture(format, reinterpret_cast<const unsigned char*>(data.data()),
                                       map != nullptr ? &colourMap : nullptr);
}

void snapshot(const Options& options) {
    const Geometry geometry = loadGeometry(options.geometry);
    std::string data;
    if (!fakefb::readWholeFile(options.input, data)) {
        throw Failure{"cannot read " + options.input + ": " + strerror(errno)};
    }
    ColourMapRecord map;
    const bool haveMap = loadColourMap(options.cmap, map);
    if (geometry.visual == Visual::pseudocolor && !haveMap) {
        throw Failure{"pseudo-colour panel without a colour map: " + options.cmap +
                      " is missing (nothing called FBIOPUTCMAP)"};
    }
    cv::Mat image = decodeFrame(geometry, data, haveMap ? &map : nullptr);
    if (options.mounted != 0) {
        // The picture was turned clockwise on the panel: turn it back.
        const cv::RotateFlags back = options.mounted == 90    ? cv::ROTATE_90_COUNTERCLOCKWISE
                                     : options.mounted == 180 ? cv::ROTATE_180
                                                              : cv::ROTATE_90_CLOCKWISE;
        cv::Mat upright;
        cv::rotate(image, upright, back);
        image = upright;
    }
    if (options.scale > 1) {
        cv::Mat large;
        cv::resize(image, large, cv::Size(), options.scale, options.scale, cv::INTER_NEAREST);
        image = large;
    }
    if (!dravik::image::writePng(options.output, image)) {
        throw Failure{"cannot write " + options.output};
    }
}

int run(const Options& options) {
    try {
        snapshot(options);
        return 0;
    } catch (const Failure& failure) {
        fprintf(stderr, "fakefb-snapshot: %s\n", failure.message.c_str());
    } catch (const cv::Exception& error) {
        fprintf(stderr, "fakefb-snapshot: %s\n", error.what());
    }
    return kFailure;
}

}  // namespace

int main(int argc, char** argv) {
    return dravik::utils::toolMain<Options>({"fakefb-snapshot", dravik::utils::printText<kHelp>},
                                            argc, argv, readCommandLine, run);
}
