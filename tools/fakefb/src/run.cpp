// fakefb-run: runs a command with one or more simulated framebuffer panels.
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "dravik_utils/command_line.h"
#include "dravik_utils/file_descriptor.h"
#include "panel_files.h"
#include "tool_support.h"

namespace {

using dravik::utils::ParseOutcome;
using dravik::utils::UsageError;

namespace fs = std::filesystem;
using fakefb::Geometry;
using fakefb::Join;
using fakefb::PanelDesc;

constexpr int kCannotRun = 127;

const char kHelp[] =
    "Usage: fakefb-run [PANEL OPTIONS] [--panel PANEL OPTIONS ...] -- COMMAND [ARGS...]\n"
    "Runs COMMAND with simulated framebuffer panels: opening a panel's device path\n"
    "gives a descriptor on its backing file, and the framebuffer ioctls answer from\n"
    "the panel's geometry. Take a picture of a panel with fakefb-snapshot FILE OUT.png.\n"
    "\n"
    "Panel options (each applies to the panel being described):\n"
    "  -d, --device PATH        device path to simulate (default /dev/fb2)\n"
    "  -s, --size WxH           resolution in pixels (default 240x240)\n"
    "  -b, --bpp N              bits per pixel: 8, 15, 16, 24 or 32 (default 16)\n"
    "  -r, --rgb R,G,B          channel layout as offset/length triples, e.g.\n"
    "                           11/5,5/6,0/5 (defaults: 16 -> 11/5,5/6,0/5;\n"
    "                           15 -> 10/5,5/5,0/5; 24, 32 -> 16/8,8/8,0/8;\n"
    "                           8 -> 0/8,0/8,0/8)\n"
    "  -t, --transp O/L         transparency channel (default 0/0)\n"
    "  -l, --line-length N      bytes per line, padding included\n"
    "                           (default width * bytes per pixel)\n"
    "  -v, --visual NAME        truecolor, directcolor or pseudocolor\n"
    "                           (default pseudocolor for 8 bpp, else truecolor)\n"
    "  -f, --file PATH          backing file holding the pixels (default\n"
    "                           <device name>.raw in the current directory)\n"
    "  -p, --panel              start describing another panel\n"
    "  -h, --help               show this help and exit\n"
    "\n"
    "DRM panels (a DRM/KMS device driven through libdrm; --bpp 16 is RGB565,\n"
    "32 XRGB8888, and the backing file shows only what the display was given):\n"
    "  -D, --drm                simulate a DRM device (default device /dev/dri/card0)\n"
    "  -C, --connectors LIST    NAME:STATE,... with STATE connected or disconnected,\n"
    "                           e.g. HDMI-A-1:disconnected,DSI-1:connected\n"
    "                           (default Virtual-1:connected)\n"
    "  -V, --vblank             the CRTC has vertical blanking (default: none)\n"
    "  -F, --flip WHEN          page flips complete or never (default complete)\n"
    "  -M, --no-master          another program holds the display: no DRM master\n"
    "  -U, --no-dumb            no dumb buffers\n"
    "  -X, --no-closefb         a kernel before 6.8: no DRM_IOCTL_MODE_CLOSEFB\n"
    "  -O, --orientation NAME   connectors' panel orientation: normal, upside_down,\n"
    "                           left_up or right_up (default: no such property)\n"
    "\n"
    "Next to each backing file, FILE.geom records the geometry and FILE.cmap the\n"
    "colour map written with FBIOPUTCMAP (reset at every start). The backing file\n"
    "keeps its pixels between runs; delete it to start from black. A DRM panel\n"
    "keeps its dumb buffers in FILE.vram and records every display operation in\n"
    "FILE.damage (both reset at every start).\n"
    "\n"
    "Example:\n"
    "  fakefb-run --device /dev/fb2 --size 240x240 --bpp 16 --file panel.raw -- \\\n"
    "      dravik_lcm_gui -d /dev/fb2 -c screens.json\n";

// One panel as the command line describes it.
struct PanelArgs {
    std::string device;  // empty: the default of the panel's kind
    std::string file;
    Geometry geometry;
    unsigned given = fakefb::kGivenNone;
    fakefb::PanelKind kind = fakefb::PanelKind::fb;
    fakefb::DrmDesc drm;
    std::string drmOption;  // the first option given that only a DRM panel takes

    PanelArgs() {
        geometry.width = 240;
        geometry.height = 240;
        geometry.bpp = 16;
    }
};

void parseSize(const std::string& text, Geometry& geometry) {
    const auto x = text.find('x');
    if (x == std::string::npos ||
        !fakefb::parseUnsigned(text.substr(0, x).c_str(), geometry.width) ||
        !fakefb::parseUnsigned(text.substr(x + 1).c_str(), geometry.height)) {
        throw UsageError{"bad --size \"" + text + "\": expected WIDTHxHEIGHT, e.g. 240x240"};
    }
}

void parseRgb(const std::string& text, Geometry& geometry) {
    fakefb::Channel* channels[] = {&geometry.red, &geometry.green, &geometry.blue};
    std::size_t pos = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        const auto comma = text.find(',', pos);
        const bool last = i == 2;
        if ((comma == std::string::npos) != last ||
            !fakefb::parseChannel(text.substr(pos, comma - pos).c_str(), *channels[i])) {
            throw UsageError{"bad --rgb \"" + text +
                             "\": expected three OFFSET/LENGTH, e.g. 11/5,5/6,0/5"};
        }
        pos = comma + 1;
    }
}

void parseBpp(const char* arg, PanelArgs& panel) {
    if (!fakefb::parseUnsigned(arg, panel.geometry.bpp)) {
        throw UsageError{std::string("bad --bpp \"") + arg + "\""};
    }
}

void parseTransp(const char* arg, PanelArgs& panel) {
    if (!fakefb::parseChannel(arg, panel.geometry.transp)) {
        throw UsageError{std::string("bad --transp \"") + arg + "\": expected O/L"};
    }
    panel.given |= fakefb::kGivenTransp;
}

void parseLineLength(const char* arg, PanelArgs& panel) {
    if (!fakefb::parseUnsigned(arg, panel.geometry.lineLength)) {
        throw UsageError{std::string("bad --line-length \"") + arg + "\""};
    }
    panel.given |= fakefb::kGivenLineLength;
}

void parseVisualOption(const char* arg, PanelArgs& panel) {
    if (!fakefb::parseVisual(arg, panel.geometry.visual)) {
        throw UsageError{std::string("bad --visual \"") + arg +
                         "\": expected truecolor, directcolor or pseudocolor"};
    }
    panel.given |= fakefb::kGivenVisual;
}

// Remembers the first option given that only a DRM panel takes.
void noteDrmOption(PanelArgs& panel, const char* name) {
    panel.drmOption = panel.drmOption.empty() ? name : panel.drmOption;
}

void parseConnectorsOption(const char* arg, PanelArgs& panel) {
    noteDrmOption(panel, "--connectors");
    if (!fakefb::parseConnectors(arg, panel.drm)) {
        throw UsageError{std::string("bad --connectors \"") + arg +
                         "\": expected NAME:connected or NAME:disconnected, comma-separated, "
                         "e.g. DSI-1:connected"};
    }
}

void parseFlipOption(const char* arg, PanelArgs& panel) {
    noteDrmOption(panel, "--flip");
    if (strcmp(arg, "complete") != 0 && strcmp(arg, "never") != 0) {
        throw UsageError{std::string("bad --flip \"") + arg + "\": expected complete or never"};
    }
    panel.drm.flipCompletes = arg[0] == 'c';
}

void parseOrientationOption(const char* arg, PanelArgs& panel) {
    noteDrmOption(panel, "--orientation");
    if (!fakefb::parseOrientation(arg, panel.drm.orientation)) {
        throw UsageError{std::string("bad --orientation \"") + arg +
                         "\": expected normal, upside_down, left_up or right_up"};
    }
}

// One command-line option. The panel options set a part of the panel being
// described (and throw UsageError for a value they cannot take); --panel and
// --help have none, readCommandLine handles them.
using OptionRow = dravik::utils::OptionRow<PanelArgs>;

const OptionRow kOptionRows[] = {
    {"device", 'd', true, [](const char* arg, PanelArgs& panel) { panel.device = arg; }},
    {"size", 's', true, [](const char* arg, PanelArgs& panel) { parseSize(arg, panel.geometry); }},
    {"bpp", 'b', true, parseBpp},
    {"rgb", 'r', true,
     [](const char* arg, PanelArgs& panel) {
         parseRgb(arg, panel.geometry);
         panel.given |= fakefb::kGivenChannels;
     }},
    {"transp", 't', true, parseTransp},
    {"line-length", 'l', true, parseLineLength},
    {"visual", 'v', true, parseVisualOption},
    {"file", 'f', true, [](const char* arg, PanelArgs& panel) { panel.file = arg; }},
    {"drm", 'D', false, [](const char*, PanelArgs& panel) { panel.kind = fakefb::PanelKind::drm; }},
    {"connectors", 'C', true, parseConnectorsOption},
    {"vblank", 'V', false,
     [](const char*, PanelArgs& panel) {
         noteDrmOption(panel, "--vblank");
         panel.drm.vblank = true;
     }},
    {"flip", 'F', true, parseFlipOption},
    {"no-master", 'M', false,
     [](const char*, PanelArgs& panel) {
         noteDrmOption(panel, "--no-master");
         panel.drm.master = false;
     }},
    {"no-dumb", 'U', false,
     [](const char*, PanelArgs& panel) {
         noteDrmOption(panel, "--no-dumb");
         panel.drm.dumbBuffers = false;
     }},
    {"no-closefb", 'X', false,
     [](const char*, PanelArgs& panel) {
         noteDrmOption(panel, "--no-closefb");
         panel.drm.closeFb = false;
     }},
    {"orientation", 'O', true, parseOrientationOption},
    {"panel", 'p', false, nullptr},
    {"help", 'h', false, nullptr},
};

void copyInto(char (&field)[fakefb::kPathMax], const std::string& path, const char* what) {
    if (!fakefb::storePath(field, path)) {
        throw UsageError{std::string(what) + " too long: " + path};
    }
}

PanelDesc finishPanel(PanelArgs& panel) {
    const bool drm = panel.kind == fakefb::PanelKind::drm;
    if (!drm && !panel.drmOption.empty()) {
        throw UsageError{panel.drmOption + " describes a DRM panel: add --drm"};
    }
    if (panel.device.empty()) {
        panel.device = drm ? "/dev/dri/card0" : "/dev/fb2";
    }
    if (panel.file.empty()) {
        panel.file = fs::path(panel.device).filename().string() + ".raw";
    }
    PanelDesc panelDesc;
    copyInto(panelDesc.device, panel.device, "device path");
    copyInto(panelDesc.file, fs::absolute(panel.file).lexically_normal().string(), "file path");
    panelDesc.geometry = panel.geometry;
    if (!fakefb::applyDepthDefaults(panelDesc.geometry, panel.given)) {
        throw UsageError{"bad --bpp " + std::to_string(panelDesc.geometry.bpp) +
                         ": expected 8, 15, 16, 24 or 32"};
    }
    panelDesc.kind = panel.kind;
    panelDesc.drm = panel.drm;
    if (drm) {
        fakefb::applyDrmDefaults(panelDesc);
    }
    char error[fakefb::kErrorMax];
    if (!fakefb::validateDesc(panelDesc, error, sizeof error)) {
        throw UsageError{std::string("panel ") + panelDesc.device + ": " + error};
    }
    return panelDesc;
}

void checkDistinct(const std::vector<PanelDesc>& panels) {
    for (std::size_t i = 0; i < panels.size(); ++i) {
        for (std::size_t j = i + 1; j < panels.size(); ++j) {
            if (strcmp(panels[i].device, panels[j].device) == 0 ||
                strcmp(panels[i].file, panels[j].file) == 0) {
                throw UsageError{std::string("two panels share the device or file of ") +
                                 panels[i].device};
            }
        }
    }
}

struct Invocation {
    std::vector<PanelDesc> panels;
    std::vector<char*> command;
};

ParseOutcome::Kind readCommandLine(int argc, char** argv, Invocation& inv) {
    PanelArgs current;
    const auto nextPanel = [&](int /*'p'*/) {
        inv.panels.push_back(finishPanel(current));
        current = PanelArgs{};
    };
    // '+': stop at the first word that is not an option, which begins the command.
    if (dravik::utils::readOptions(argc, argv, kOptionRows, current, nextPanel, "+") ==
        ParseOutcome::kHelp) {
        return ParseOutcome::kHelp;
    }
    inv.panels.push_back(finishPanel(current));
    checkDistinct(inv.panels);
    if (optind >= argc) {
        throw UsageError{"no command given: put it after --"};
    }
    inv.command.assign(argv + optind, argv + argc);
    inv.command.push_back(nullptr);
    return ParseOutcome::kRun;
}

// The library lies in ../lib next to bin/, in the build tree and when installed.
std::string findLibrary() {
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    const fs::path candidates[] = {
        exe.parent_path() / ".." / "lib" / "libfakefb.so",
        exe.parent_path() / ".." / FAKEFB_INSTALL_LIBDIR / "libfakefb.so",
    };
    for (const auto& candidate : candidates) {
        if (!ec && access(candidate.c_str(), R_OK) == 0) {
            return fs::canonical(candidate, ec).string();
        }
    }
    return {};
}

// Sizes the backing file, writes FILE.geom and forgets an old colour map and a
// DRM panel's old buffers and damage record.
bool preparePanel(const PanelDesc& panelDesc) {
    const dravik::utils::FileDescriptor fd(
        open(panelDesc.file, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd.valid() ||
        ftruncate(fd.get(), static_cast<off_t>(panelDesc.geometry.frameSize())) != 0) {
        fprintf(stderr, "fakefb-run: cannot create backing file %s: %s\n", panelDesc.file,
                strerror(errno));
        return false;
    }
    const std::string geom = std::string(panelDesc.file) + ".geom";
    if (!fakefb::writeDescFile(panelDesc, geom)) {
        fprintf(stderr, "fakefb-run: cannot write %s\n", geom.c_str());
        return false;
    }
    std::error_code ignored;  // absent is what we want
    for (const char* suffix : {".cmap", ".vram", ".damage"}) {
        fs::remove(std::string(panelDesc.file) + suffix, ignored);
    }
    return true;
}

// Whether `command` names a program that can run, the way execvp looks for it.
bool findsProgram(const char* command) {
    if (std::strchr(command, '/') != nullptr) {
        return access(command, X_OK) == 0;
    }
    std::istringstream path(getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin");
    for (std::string dir; std::getline(path, dir, ':');) {
        if (access(((dir.empty() ? "." : dir) + "/" + command).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

// Under a user-mode emulator (DRAVIK_EMULATOR="qemu-aarch64 -L SYSROOT", as
// the cross build's tests run), the preload belongs to the emulated program,
// not to the emulator: it is handed over with the emulator's -E options.
int runEmulated(const Invocation& inv, const char* emulator, const std::string& library,
                const std::string& configs) {
    // The emulator would report a missing program in its own way: report it as
    // a native run does.
    if (!findsProgram(inv.command[0])) {
        fprintf(stderr, "fakefb-run: cannot run %s: %s\n", inv.command[0], strerror(ENOENT));
        return kCannotRun;
    }
    const std::string preload = fakefb::joinedWithVariable("LD_PRELOAD", library, Join::prepend);
    std::vector<std::string> words =
        fakefb::emulatorWords(emulator, {"LD_PRELOAD=" + preload, "FAKEFB_CONFIG=" + configs});
    // inv.command ends with its null.
    std::vector<char*> argv = fakefb::execArguments(words, inv.command);
    execvp(argv[0], argv.data());
    fprintf(stderr, "fakefb-run: cannot run %s: %s\n", argv[0], strerror(errno));
    return kCannotRun;
}

int run(const Invocation& inv) {
    const std::string library = findLibrary();
    if (library.empty()) {
        fprintf(stderr, "fakefb-run: libfakefb.so not found in ../lib next to this program\n");
        return kCannotRun;
    }
    std::string configs;
    for (const auto& panelDesc : inv.panels) {
        if (!preparePanel(panelDesc)) {
            return kCannotRun;
        }
        configs += (configs.empty() ? "" : ":") + std::string(panelDesc.file) + ".geom";
    }
    // A sanitized program refuses to start when another library is loaded before
    // the sanitizer runtime, unless told not to check.
    fakefb::joinIntoVariable("ASAN_OPTIONS", "verify_asan_link_order=0", Join::append);
    const char* emulator = getenv("DRAVIK_EMULATOR");
    if (emulator != nullptr && emulator[0] != '\0') {
        return runEmulated(inv, emulator, library, configs);
    }
    (void)setenv("FAKEFB_CONFIG", configs.c_str(), 1);  // only fails on ENOMEM
    fakefb::joinIntoVariable("LD_PRELOAD", library, Join::prepend);
    execvp(inv.command[0], inv.command.data());
    fprintf(stderr, "fakefb-run: cannot run %s: %s\n", inv.command[0], strerror(errno));
    return kCannotRun;
}

}  // namespace

int main(int argc, char** argv) {
    return dravik::utils::toolMain<Invocation>({"fakefb-run", dravik::utils::printText<kHelp>},
                                               argc, argv, readCommandLine, run);
}
