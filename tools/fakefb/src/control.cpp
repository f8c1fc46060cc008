#include "fakefb/fakefb.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "panel_files.h"
#include "tool_support.h"

namespace fakefb {
namespace {

constexpr const char* kReexecGuard = "FAKEFB_REEXECUTED";

std::string makeTempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/fakefb-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("fakefb: cannot create a temporary directory from " + pattern +
                                 ": " + strerror(errno));
    }
    return pattern;
}

void copyPath(char (&field)[kPathMax], const std::string& path) {
    if (!storePath(field, path)) {
        throw std::runtime_error("fakefb: path too long: " + path);
    }
}

void toDrmDesc(const DrmOptions& options, DrmDesc& drm) {
    if (options.connectors.empty() || options.connectors.size() > kMaxConnectors) {
        throw std::invalid_argument("fakefb: a DRM panel has 1 to " +
                                    std::to_string(kMaxConnectors) + " connectors");
    }
    for (const Connector& connector : options.connectors) {
        ConnectorDesc& desc = drm.connectors[drm.connectorCount++];
        if (!parseConnectorName(connector.name.c_str(), desc)) {
            throw std::invalid_argument("fakefb: unknown connector name " + connector.name);
        }
        desc.connected = connector.connected;
    }
    drm.vblank = options.vblank;
    drm.flipCompletes = options.flipCompletes;
    drm.master = options.master;
    drm.dumbBuffers = options.dumbBuffers;
    drm.closeFb = options.closeFb;
    if (!options.orientation.empty() &&
        !parseOrientation(options.orientation.c_str(), drm.orientation)) {
        throw std::invalid_argument("fakefb: unknown orientation " + options.orientation);
    }
}

PanelDesc toDesc(const std::string& device, const std::string& file, const Geometry& geometry,
                 const DrmOptions* drm) {
    PanelDesc panelDesc;
    copyPath(panelDesc.device, device);
    copyPath(panelDesc.file, file);
    panelDesc.geometry = geometry;
    if (drm != nullptr) {
        panelDesc.kind = PanelKind::drm;
        toDrmDesc(*drm, panelDesc.drm);
    }
    return panelDesc;
}

uint32_t parseNumber(const std::string& text, const std::string& line) {
    uint32_t value = 0;
    if (!parseUnsigned(text.c_str(), value)) {
        throw std::runtime_error("fakefb: bad number \"" + text + "\" in damage record: " + line);
    }
    return value;
}

std::vector<uint32_t> parseNumbers(const std::string& text, const std::string& line) {
    std::vector<uint32_t> numbers;
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        numbers.push_back(parseNumber(item, line));
    }
    return numbers;
}

DamageRecord parseDamageLine(const std::string& line) {
    std::istringstream words(line);
    DamageRecord record;
    words >> record.kind;
    for (std::string word; words >> word;) {
        const auto eq = word.find('=');
        const std::string value = eq == std::string::npos ? "" : word.substr(eq + 1);
        if (word.compare(0, eq, "fb") == 0 && eq == 2) {
            record.fb = parseNumber(value, line);
        } else if (word.compare(0, eq, "crtc") == 0 && eq == 4) {
            record.crtc = parseNumber(value, line);
        } else if (word.compare(0, eq, "conn") == 0 && eq == 4) {
            record.connectors = parseNumbers(value, line);
        } else if (word == "pending") {
            record.pending = true;
        } else if (const auto n = parseNumbers(word, line); n.size() == 4) {
            record.rects.push_back({n[0], n[1], n[2], n[3]});
        } else {
            throw std::runtime_error("fakefb: unknown word \"" + word + "\" in damage record");
        }
    }
    return record;
}

void writeDesc(const PanelDesc& panelDesc, const std::string& path) {
    char error[kErrorMax];
    if (!validateDesc(panelDesc, error, sizeof error)) {
        throw std::invalid_argument(std::string("fakefb: bad geometry: ") + error);
    }
    if (!writeDescFile(panelDesc, path)) {
        throw std::runtime_error("fakefb: cannot write " + path);
    }
}

}  // namespace

Geometry Geometry::forDepth(uint32_t bpp, uint32_t width, uint32_t height) {
    Geometry geometry;
    geometry.width = width;
    geometry.height = height;
    geometry.bpp = bpp;
    if (!applyDepthDefaults(geometry, kGivenNone)) {
        throw std::invalid_argument("fakefb: unsupported depth " + std::to_string(bpp));
    }
    return geometry;
}

Panel::Panel(std::string device, const Geometry& geometry)
    : Panel(std::move(device), geometry, nullptr) {}

Panel::Panel(std::string device, const Geometry& geometry, const DrmOptions& drm)
    : Panel(std::move(device), geometry, &drm) {}

Panel::Panel(std::string device, const Geometry& geometry, const DrmOptions* drm)
    : dir_(makeTempDir()),
      device_(std::move(device)),
      backingFile_(dir_ + "/panel.raw"),
      geometryFile_(backingFile_ + ".geom"),
      damageFile_(backingFile_ + ".damage"),
      geometry_(geometry),
      drm_(drm != nullptr) {
    try {
        writeDesc(toDesc(device_, backingFile_, geometry_, drm), geometryFile_);
    } catch (...) {
        std::error_code ignored;  // best effort: the reason is in the exception
        std::filesystem::remove_all(dir_, ignored);
        throw;
    }
}

Panel::~Panel() {
    std::error_code ignored;  // a leftover temporary directory is harmless
    std::filesystem::remove_all(dir_, ignored);
}

void Panel::apply() const {
    applyAll({this});
}

void Panel::applyAll(std::initializer_list<const Panel*> panels) {
    std::string list;
    for (const Panel* panel : panels) {
        list += (list.empty() ? "" : ":") + panel->geometryFile_;
    }
    (void)setenv("FAKEFB_CONFIG", list.c_str(), 1);  // only fails on ENOMEM
}

void Panel::clearAll() {
    (void)unsetenv("FAKEFB_CONFIG");  // cannot fail for this name
}

std::vector<uint8_t> Panel::bytes() const {
    std::string data;
    (void)readWholeFile(backingFile_, data);  // no file yet: no bytes
    return {data.begin(), data.end()};
}

uint32_t Panel::pixel(uint32_t x, uint32_t y) const {
    if (x >= geometry_.width || y >= geometry_.height) {
        throw std::out_of_range("fakefb: pixel outside the panel");
    }
    const std::vector<uint8_t> data = bytes();
    const uint64_t at = static_cast<uint64_t>(y) * geometry_.lineLength +
                        static_cast<uint64_t>(x) * geometry_.bytesPerPixel();
    if (at + geometry_.bytesPerPixel() > data.size()) {
        throw std::runtime_error("fakefb: backing file shorter than the frame");
    }
    uint32_t value = 0;
    for (uint32_t i = 0; i < geometry_.bytesPerPixel(); ++i) {
        value |= static_cast<uint32_t>(data[at + i]) << (8 * i);
    }
    return value;
}

ColourMap Panel::colourMap() const {
    ColourMap map;
    std::string text;
    (void)readWholeFile(backingFile_ + ".cmap", text);  // no record yet: the empty map
    ColourMapRecord record;
    if (!text.empty() && !parseColourMap(text.data(), text.size(), record)) {
        throw std::runtime_error("fakefb: unreadable colour map record " + backingFile_ + ".cmap");
    }
    map.red.assign(record.red, record.red + kCmapEntries);
    map.green.assign(record.green, record.green + kCmapEntries);
    map.blue.assign(record.blue, record.blue + kCmapEntries);
    map.transp.assign(record.transp, record.transp + kCmapEntries);
    map.writes = record.writes;
    return map;
}

std::vector<DamageRecord> Panel::damage() const {
    std::string text;
    (void)readWholeFile(damageFile_, text);  // no record yet: nothing happened
    std::vector<DamageRecord> records;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty()) {
            records.push_back(parseDamageLine(line));
        }
    }
    return records;
}

std::string libraryPath() {
    return FAKEFB_LIBRARY_PATH;
}

bool isPreloaded() {
    return dlsym(RTLD_DEFAULT, "fakefb_preloaded") != nullptr;
}

// Under a user-mode emulator (DRAVIK_EMULATOR="qemu-aarch64 -L SYSROOT") the
// program cannot execute itself: the kernel knows no foreign binaries here.
// It runs itself through the emulator, which hands the preload and the
// variables set above to the emulated program with -E (in the environment
// they would be the emulator's own).
bool reexecEmulated(const char* emulator, std::vector<char*>& args) {
    std::vector<std::string> variables;
    for (const char* name : {"LD_PRELOAD", "ASAN_OPTIONS", kReexecGuard}) {
        const char* value = getenv(name);
        variables.push_back(std::string(name) + "=" + (value != nullptr ? value : ""));
    }
    std::vector<std::string> words = emulatorWords(emulator, variables);
    (void)unsetenv("LD_PRELOAD");  // the emulator's own loader must not see it
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        fprintf(stderr, "fakefb: cannot find /proc/self/exe: %s\n", strerror(errno));
        return false;
    }
    words.emplace_back(self, static_cast<size_t>(length));
    // args ends with its null.
    std::vector<char*> command = execArguments(words, {args.begin() + 1, args.end()});
    execvp(command[0], command.data());
    fprintf(stderr, "fakefb: cannot re-execute through %s: %s\n", command[0], strerror(errno));
    return false;
}

bool ensurePreloaded(int argc, char** argv) {
    if (isPreloaded()) {
        (void)unsetenv(kReexecGuard);  // children start with a clean slate
        return true;
    }
    if (getenv(kReexecGuard) != nullptr) {
        fprintf(stderr, "fakefb: %s did not load although it is in LD_PRELOAD\n",
                libraryPath().c_str());
        return false;
    }
    joinIntoVariable("LD_PRELOAD", libraryPath(), Join::prepend);
    // A sanitized program refuses to start when another library is loaded before
    // the sanitizer runtime, unless told not to check.
    joinIntoVariable("ASAN_OPTIONS", "verify_asan_link_order=0", Join::append);
    (void)setenv(kReexecGuard, "1", 1);  // only fails on ENOMEM
    std::vector<char*> args(argv, argv + argc);
    args.push_back(nullptr);
    if (const char* emulator = getenv("DRAVIK_EMULATOR"); emulator != nullptr && *emulator) {
        return reexecEmulated(emulator, args);
    }
    execv("/proc/self/exe", args.data());
    fprintf(stderr, "fakefb: cannot re-execute /proc/self/exe: %s\n", strerror(errno));
    return false;
}

}  // namespace fakefb
