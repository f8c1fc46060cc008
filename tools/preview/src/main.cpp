// dravik_lcm_gui_preview: pictures of the screens of a screens file as the
// daemon shows them on a given panel, and a checker of screens files. See --help.
#include <getopt.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "GuiConfig.h"
#include "dravik_image/image_file.h"
#include "dravik_utils/command_line.h"
#include "dravik_utils/decimal.h"
#include "preview/Checker.h"
#include "preview/Panel.h"
#include "preview/Renderer.h"

namespace {

using dravik::preview::Frame;
using dravik::preview::PanelFormat;
using dravik::utils::ParseOutcome;
using dravik::utils::UsageError;

// Exit statuses, documented in --help.
enum Exit {
    kOk = 0,
    kSomeScreensFailed = 1,
    kFileRefused = 2,
    kUsage = dravik::utils::kExitUsage,
};

constexpr int kMaxScale = 16;
constexpr unsigned long kMaxAtMs = 24UL * 3600 * 1000;
// About 300 MB of picture: a hundred slides of a large panel at scale 1.
constexpr uint64_t kMaxSheetPixels = 100'000'000;

const char kHelp[] = R"(NAME
    dravik_lcm_gui_preview - see and check the screens of a dravik_lcm_gui screens file

SYNOPSIS
    dravik_lcm_gui_preview [--panel WxHxBPP] [--layout RO/RL,GO/GL,BO/BL] [--rotation DEG]
                           [--root DIR] [--screen NAME]... [--at MS]... [--scale N]
                           --out DIR SCREENS.json
    dravik_lcm_gui_preview --check [--panel ...] [--layout ...] [--root DIR] [--json]
                           SCREENS.json

DESCRIPTION
    Draws each screen of SCREENS.json with the display engine of dravik_lcm_gui itself,
    on a panel held in memory, and writes what the panel shows as PNG files: the same
    text, images, animations, alignment and conversion to the panel's pixel format, so
    the colours come out quantised as the panel quantises them.

    Without --at, a still screen gives DIR/NAME.png, and an animated screen a contact
    sheet DIR/NAME.png of labelled frames across one period: every slide of a
    slideshow, eight phases of breathing (taken from the second period, since the
    first starts from a black image), a progress bar at 0, 25, 50, 75 and 100 %.
    Each label gives the milliseconds after the screen was set.

    With --at MS, each screen is drawn as shown MS milliseconds after it was set, into
    DIR/NAME@MS.png: the full redraw, then the daemon's ticks every 30 ms and one at MS.

    Characters of a screen name other than letters, digits, '.', '_' and '-' become
    '_' in file names.

OPTIONS
    -p, --panel WxHxBPP
        The panel: width, height and bits per pixel (15, 16, 24 or 32). Default
        240x240x16. 8-bit panels are refused: the daemon loads their colour map and
        then ends its start-up, so it never draws on them.
    -l, --layout RO/RL,GO/GL,BO/BL
        Offsets and lengths in bits of the red, green and blue channels, as the panel's
        driver reports them. Default by depth: 15 10/5,5/5,0/5; 16 11/5,5/6,0/5;
        24 and 32 16/8,8/8,0/8. 24-bit pixels are copied as blue, green, red bytes
        whatever the layout says, as the daemon does.
    -t, --rotation DEG
        Turn the panel by DEG degrees clockwise (0, 90, 180 or 270) whatever the file's
        "rotation" says. Default: the file's, else 0. The pictures show the screen as a
        viewer sees the panel mounted: upright, at the turned size (a 240x320 panel at 90
        degrees gives 320x240 pictures), drawn through the daemon's turned conversion.
    -r, --root DIR
        Look the image directories /usr/etc/gui/ and /etc/gui/ up under DIR (an image of
        imgPath /etc/gui/images is read from DIR/etc/gui/images/). The daemon's path rules
        still apply: an image outside those directories is refused. Default: the real ones.
    -s, --screen NAME
        Draw this screen; may be repeated. Default: every screen.
    -a, --at MS
        Draw the screens as shown MS milliseconds after they were set; may be repeated.
    --scale N
        Enlarge every panel pixel to N x N (1..16). Default 1.
    -o, --out DIR
        Where the pictures go; made if missing.
    -c, --check
        Check SCREENS.json instead: print every problem as
            FILE:LINE:COLUMN: error|warning: message
                hint: what it means and what to do
        Errors are what makes the daemon refuse the file; warnings are what it would
        repair, skip or refuse at run time. Columns count bytes.
    -j, --json
        With --check: print the problems as a JSON array of objects with the members
        file, line, column, severity, message and hint.
    -h, --help
        Show this help.

EXIT STATUS
    Pictures: 0 all written; 1 a screen is unknown or refused, or a picture could not be
    written (the others are written); 2 the daemon refuses the screens file (run --check).
    --check: 0 no problem; 1 warnings only; 2 errors.
    Both: 2 a bad command line.

EXAMPLES
    dravik_lcm_gui_preview --root /tmp/device --out previews screens.json
    dravik_lcm_gui_preview --panel 320x240x32 --screen boot --at 500 --scale 2 \
        --out previews screens.json
    dravik_lcm_gui_preview --check --root /tmp/device screens.json
)";

struct Options {
    PanelFormat panel;
    std::string layout;
    std::string root;
    std::vector<std::string> screens;
    std::vector<uint64_t> atMs;
    int scale = 1;
    int rotation = dravik::lcmgui::kRotationUnset;
    std::string out;
    bool check = false;
    bool json = false;
    std::string file;
};

unsigned long number(const char* text, unsigned long max, const char* what) {
    unsigned long value = 0;
    if (!dravik::utils::isDecimal(text, value) || value > max) {
        throw UsageError{std::string("bad ") + what + " \"" + text + "\": expected 0.." +
                         std::to_string(max)};
    }
    return value;
}

dravik::preview::PanelFormat panelFrom(const char* text, const char* what) {
    PanelFormat panel;
    std::string error;
    if (!dravik::preview::parsePanel(text, panel, error)) {
        throw UsageError{what + error};
    }
    return panel;
}

using OptionRow = dravik::utils::OptionRow<Options>;

const OptionRow kOptionRows[] = {
    {"panel", 'p', true,
     [](const char* arg, Options& o) { o.panel = panelFrom(arg, "--panel: "); }},
    {"layout", 'l', true, [](const char* arg, Options& o) { o.layout = arg; }},
    {"rotation", 't', true,
     [](const char* arg, Options& o) {
         const auto degrees = number(arg, 270, "--rotation");
         if (degrees % 90 != 0) {
             throw UsageError{"bad --rotation \"" + std::string(arg) +
                              "\": expected 0, 90, 180 or 270"};
         }
         o.rotation = static_cast<int>(degrees);
     }},
    {"root", 'r', true, [](const char* arg, Options& o) { o.root = arg; }},
    {"screen", 's', true, [](const char* arg, Options& o) { o.screens.emplace_back(arg); }},
    {"at", 'a', true,
     [](const char* arg, Options& o) { o.atMs.push_back(number(arg, kMaxAtMs, "--at")); }},
    {"scale", 'x', true,
     [](const char* arg, Options& o) {
         o.scale = static_cast<int>(number(arg, kMaxScale, "--scale"));
         if (o.scale < 1) {
             throw UsageError{"bad --scale \"0\": expected 1.." + std::to_string(kMaxScale)};
         }
     }},
    {"out", 'o', true, [](const char* arg, Options& o) { o.out = arg; }},
    {"check", 'c', false, [](const char*, Options& o) { o.check = true; }},
    {"json", 'j', false, [](const char*, Options& o) { o.json = true; }},
    {"help", 'h', false, nullptr},
};

// The combinations of options that make sense, and the root in one spelling.
void finishOptions(Options& options) {
    if (!options.check && options.out.empty()) {
        throw UsageError{"--out DIR is required to write pictures"};
    }
    if (options.check &&
        (!options.screens.empty() || !options.atMs.empty() || !options.out.empty())) {
        throw UsageError{"--check takes no --screen, --at or --out"};
    }
    if (options.json && !options.check) {
        throw UsageError{"--json goes with --check"};
    }
    // "" keeps the real directories; a root of "/" is the same thing.
    while (options.root.size() > 1 && options.root.back() == '/') {
        options.root.pop_back();
    }
    if (options.root == "/") {
        options.root.clear();
    }
}

ParseOutcome::Kind readCommandLine(int argc, char** argv, Options& options) {
    options.panel = panelFrom("240x240x16", "");
    if (dravik::utils::readOptions(argc, argv, kOptionRows, options) == ParseOutcome::kHelp) {
        return ParseOutcome::kHelp;
    }
    // The layout applies to the final depth, whichever option came first.
    std::string error;
    if (!options.layout.empty() &&
        !dravik::preview::parseLayout(options.layout, options.panel, error)) {
        throw UsageError{"--layout: " + error};
    }
    if (argc - optind != 1) {
        throw UsageError{"expected one screens file"};
    }
    options.file = argv[optind];
    finishOptions(options);
    return ParseOutcome::kRun;
}

int check(const Options& options) {
    const auto findings = dravik::preview::checkScreensFile(
        options.file, {options.panel, options.root, options.rotation});
    std::fputs(options.json ? dravik::preview::formatFindingsJson(findings).c_str()
                            : dravik::preview::formatFindings(findings).c_str(),
               stdout);
    const int status = dravik::preview::checkStatus(findings);
    (void)std::fflush(stdout);  // the summary follows the problems when both go to one file
    if (!options.json) {
        size_t errors = 0;
        for (const auto& f : findings) {
            errors += f.error ? 1 : 0;
        }
        std::fprintf(stderr, "%s: %zu error(s), %zu warning(s) on a %s panel\n",
                     options.file.c_str(), errors, findings.size() - errors,
                     dravik::preview::describe(options.panel).c_str());
    }
    return status;
}

std::string fileName(const std::string& screen) {
    std::string name = screen;
    for (char& c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        c = plain ? c : '_';
    }
    if (name.front() == '.') {
        name.front() = '_';
    }
    return name;
}

bool write(const std::string& path, const cv::Mat& picture) {
    if (!dravik::image::writePng(path, picture)) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        return false;
    }
    std::printf("%s\n", path.c_str());
    return true;
}

void report(const std::string& screen, const std::vector<std::string>& messages) {
    for (const std::string& message : messages) {
        std::fprintf(stderr, "%s: the daemon logs: %s\n", screen.c_str(), message.c_str());
    }
}

bool previewScreen(dravik::preview::Renderer& renderer, const Options& options,
                   const std::string& name, const dravik::lcmgui::GuiScreenDesc& desc) {
    const std::string base = options.out + "/" + fileName(name);
    std::vector<std::string> messages;
    if (options.atMs.empty()) {
        std::vector<Frame> frames;
        const bool drawn = renderer.renderPeriod(desc, frames, messages);
        report(name, messages);
        if (!drawn) {
            std::fprintf(stderr, "%s: refused by the daemon, no picture\n", name.c_str());
            return false;
        }
        const uint64_t sheetPixels = uint64_t{frames.size()} * frames[0].picture.total() *
                                     static_cast<uint64_t>(options.scale * options.scale);
        if (sheetPixels > kMaxSheetPixels) {
            std::fprintf(stderr,
                         "%s: a sheet of %zu frames at scale %d is too large; use --at or "
                         "a smaller --scale\n",
                         name.c_str(), frames.size(), options.scale);
            return false;
        }
        return write(base + ".png", frames.size() == 1
                                        ? dravik::preview::enlarge(frames[0].picture, options.scale)
                                        : dravik::preview::contactSheet(frames, options.scale));
    }
    bool ok = true;
    for (const uint64_t at : options.atMs) {
        cv::Mat picture;
        const bool drawn = renderer.render(desc, at, picture, messages);
        report(name + "@" + std::to_string(at), messages);
        if (!drawn) {
            std::fprintf(stderr, "%s: refused by the daemon, no picture\n", name.c_str());
            return false;
        }
        ok = write(base + "@" + std::to_string(at) + ".png",
                   dravik::preview::enlarge(picture, options.scale)) &&
             ok;
    }
    return ok;
}

int preview(const Options& options) {
    dravik::lcmgui::GuiConfig config;
    bool loaded = false;
    std::string reason;
    {
        dravik::preview::EngineMessages log;  // standard error is quiet while it lives
        loaded = config.fromJSONFile(options.file);
        for (const auto& record : log.records()) {
            if (record.level <= dravik::logger::kError) {
                reason += "\n  " + record.message;
            }
        }
    }
    if (!loaded) {
        std::fprintf(stderr, "%s: the daemon refuses this file:%s\nRun with --check for details.\n",
                     options.file.c_str(), reason.c_str());
        return kFileRefused;
    }
    std::error_code ec;
    std::filesystem::create_directories(options.out, ec);
    if (ec) {
        std::fprintf(stderr, "cannot make %s: %s\n", options.out.c_str(), ec.message().c_str());
        return kSomeScreensFailed;
    }
    dravik::preview::Renderer renderer(config);
    if (options.rotation != dravik::lcmgui::kRotationUnset) {
        renderer.engine().overrideRotation(static_cast<unsigned>(options.rotation));
    }
    std::string error;
    if (!renderer.start(options.panel, options.root, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return kUsage;
    }
    std::set<std::string> chosen(options.screens.begin(), options.screens.end());
    bool ok = true;
    for (const std::string& name : chosen) {
        if (config.getScreens().count(name) == 0) {
            std::fprintf(stderr, "%s: no screen of that name in %s\n", name.c_str(),
                         options.file.c_str());
            ok = false;
        }
    }
    for (const auto& [name, desc] : config.getScreens()) {
        if (chosen.empty() || chosen.count(name) != 0) {
            ok = previewScreen(renderer, options, name, desc) && ok;
        }
    }
    return ok ? kOk : kSomeScreensFailed;
}

// The library code below reports its failures; what throws is the standard
// library running out of something, which still ends with a clear line.
int run(const Options& options, const char* argv0) {
    try {
        return options.check ? check(options) : preview(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv0, e.what());
        return kSomeScreensFailed;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return dravik::utils::toolMain<Options>(
        {nullptr, dravik::utils::printText<kHelp>}, argc, argv, readCommandLine,
        [argv](const Options& options) { return run(options, argv[0]); });
}
