#include "drm_device.h"

#include <drm.h>
#include <drm_fourcc.h>
#include <drm_mode.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "dravik_utils/drm_objects.h"
#include "preload_host.h"

namespace fakefb::drm {
namespace {

constexpr unsigned kMaxDevices = 4;
constexpr unsigned kMaxBuffers = 32;
constexpr unsigned kMaxFramebuffers = 32;
// A drm_file may hold 4096 bytes of undelivered events; a page flip beyond that
// fails with ENOMEM.
constexpr unsigned kEventSpace = 4096;
constexpr unsigned kMaxEvents = kEventSpace / sizeof(drm_event_vblank);
constexpr unsigned kMaxClips = DRM_MODE_FB_DIRTY_MAX_CLIPS;
constexpr uint32_t kMinSize = 1;
constexpr uint32_t kMaxSize = 8192;
constexpr uint64_t kMaxBufferSize = 256ull << 20;
constexpr uint64_t kMaxVram = 1ull << 30;
constexpr uint64_t kFrameNs = 16666667;  // 60 Hz
constexpr uint32_t kPitchAlign = 64;

// Object ids: the properties first, as the kernel creates them at start-up, then
// the plane, the CRTC, the encoders, the connectors and the framebuffers.
constexpr uint32_t kPropType = 1;
constexpr uint32_t kPropDpms = 2;
constexpr uint32_t kPropOrientation = 3;
constexpr uint32_t kPlaneId = 31;
constexpr uint32_t kCrtcId = 32;
constexpr uint32_t kFirstEncoderId = 33;

constexpr uint32_t kPlaneFormats[] = {DRM_FORMAT_XRGB8888, DRM_FORMAT_RGB565};

// Values the kernel reports whose names only libdrm's headers carry
// (enum drm_plane_type, drm_connector_status, subpixel_order).
constexpr uint64_t kPlaneOverlay = 0;
constexpr uint64_t kPlanePrimary = 1;
constexpr uint64_t kPlaneCursor = 2;
constexpr uint32_t kConnected = 1;
constexpr uint32_t kDisconnected = 2;
constexpr uint32_t kSubpixelUnknown = 1;

struct PropEnum {
    uint64_t value;
    const char* name;
};

struct PropDef {
    uint32_t id;
    const char* name;
    uint32_t flags;
    const PropEnum* values;
    unsigned count;
};

constexpr PropEnum kPlaneTypes[] = {
    {kPlaneOverlay, "Overlay"}, {kPlanePrimary, "Primary"}, {kPlaneCursor, "Cursor"}};
constexpr PropEnum kDpmsValues[] = {{DRM_MODE_DPMS_ON, "On"},
                                    {DRM_MODE_DPMS_STANDBY, "Standby"},
                                    {DRM_MODE_DPMS_SUSPEND, "Suspend"},
                                    {DRM_MODE_DPMS_OFF, "Off"}};
// Values as Orientation minus one (none has no value).
constexpr PropEnum kOrientations[] = {
    {0, "Normal"}, {1, "Upside Down"}, {2, "Left Side Up"}, {3, "Right Side Up"}};

constexpr PropDef kProperties[] = {
    {kPropType, "type", DRM_MODE_PROP_ENUM | DRM_MODE_PROP_IMMUTABLE, kPlaneTypes, 3},
    {kPropDpms, "DPMS", DRM_MODE_PROP_ENUM, kDpmsValues, 4},
    {kPropOrientation, "panel orientation", DRM_MODE_PROP_ENUM | DRM_MODE_PROP_IMMUTABLE,
     kOrientations, 4},
};

struct DumbBuffer {
    bool used = false;
    uint32_t handle = 0;  // 0 once the client has given the handle up
    uint32_t pitch = 0;
    uint64_t offset = 0;  // in the video memory file, page-aligned
    uint64_t size = 0;
    unsigned fbRefs = 0;  // framebuffers made from it keep it alive
};

struct Framebuffer {
    bool used = false;
    uint32_t id = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t format = 0;
    uint32_t pitch = 0;
    uint32_t offset = 0;
    unsigned buffer = 0;  // index into Device::buffers
    bool owned = false;   // in the client's list; false after CLOSEFB
};

struct Crtc {
    bool active = false;
    uint32_t fbId = 0;
    uint32_t x = 0;
    uint32_t y = 0;
    drm_mode_modeinfo mode{};
    uint32_t connectors = 0;   // bit i: connector i is driven
    uint32_t pendingFbId = 0;  // a page flip that has not completed
};

struct Device {
    bool used = false;
    dev_t dev = 0;
    ino_t ino = 0;
    PanelDesc desc;
    uint32_t minor = 0;
    uint64_t epochNs = 0;  // vertical blank 0
    // The client: every descriptor of the device in process pid.
    bool clientOpen = false;
    pid_t pid = 0;
    bool master = false;
    bool universalPlanes = false;
    DumbBuffer buffers[kMaxBuffers];
    Framebuffer fbs[kMaxFramebuffers];
    drm_event_vblank events[kMaxEvents];
    unsigned eventHead = 0;
    unsigned eventCount = 0;
    // The display: it outlives the client when its framebuffer was given up with
    // CLOSEFB.
    Crtc crtc;
};

std::mutex gLock;
Device gDevices[kMaxDevices];
std::atomic<bool> gAny{false};
char gLine[kMaxClips * 24 + 128];  // one damage record; guarded by gLock

// ---- small helpers ----

uint64_t nowNs() {
    timespec ts{};
    (void)clock_gettime(CLOCK_MONOTONIC, &ts);  // cannot fail for this clock
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t pageAlign(uint64_t size) {
    const auto page = static_cast<uint64_t>(getpagesize());
    return (size + page - 1) / page * page;
}

template <typename T>
T* userPointer(uint64_t ptr) {
    // The ioctl structures carry the client's pointers as 64-bit integers.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<T*>(static_cast<uintptr_t>(ptr));
}

// Whether copying `copied` entries to the array at ptr fails: only a null array
// is caught (EFAULT, as put_user to address 0); other bad pointers are the
// caller's.
bool faults(uint64_t ptr, uint64_t copied) {
    return ptr == 0 && copied != 0;
}

// The kernel's way with id arrays: all ids are counted, as many as the caller
// has room for are copied.
[[nodiscard]] int putIds(uint64_t ptr, uint32_t& userCount, const uint32_t* ids, uint32_t n) {
    if (faults(ptr, n < userCount ? n : userCount)) {
        return -EFAULT;
    }
    for (uint32_t i = 0; i < n && i < userCount; ++i) {
        userPointer<uint32_t>(ptr)[i] = ids[i];
    }
    userCount = n;
    return 0;
}

uint32_t cppOf(uint32_t format) {
    return format == DRM_FORMAT_RGB565 ? 2 : 4;
}

bool planeTakes(uint32_t format) {
    for (const uint32_t f : kPlaneFormats) {
        if (f == format) {
            return true;
        }
    }
    return false;
}

void formatName(uint32_t format, char (&name)[5]) {
    for (int i = 0; i < 4; ++i) {
        const char c = static_cast<char>(format >> (8 * i));
        name[i] = c >= ' ' && c <= '~' ? c : '?';
    }
    name[4] = '\0';
}

// ---- objects ----

unsigned connectorCount(const Device& d) {
    return d.desc.drm.connectorCount;
}
uint32_t encoderId(unsigned i) {
    return kFirstEncoderId + i;
}
uint32_t connectorId(const Device& d, unsigned i) {
    return kFirstEncoderId + connectorCount(d) + i;
}
uint32_t firstFbId(const Device& d) {
    return kFirstEncoderId + 2 * connectorCount(d);
}

int encoderIndex(const Device& d, uint32_t id) {
    return id >= kFirstEncoderId && id < kFirstEncoderId + connectorCount(d)
               ? static_cast<int>(id - kFirstEncoderId)
               : -1;
}

int connectorIndex(const Device& d, uint32_t id) {
    const uint32_t first = connectorId(d, 0);
    return id >= first && id < first + connectorCount(d) ? static_cast<int>(id - first) : -1;
}

uint32_t connectedMask(const Device& d) {
    uint32_t mask = 0;
    for (unsigned i = 0; i < connectorCount(d); ++i) {
        mask |= d.desc.drm.connectors[i].connected ? 1u << i : 0;
    }
    return mask;
}

bool driven(const Device& d, unsigned connector) {
    return d.crtc.active && (d.crtc.connectors & (1u << connector)) != 0;
}

// The panel shows the CRTC while it drives a connected connector.
bool visible(const Device& d) {
    return d.crtc.active && (d.crtc.connectors & connectedMask(d)) != 0;
}

const PropDef* findProperty(const Device& d, uint32_t id) {
    for (const auto& prop : kProperties) {
        // The orientation property exists only when a connector has one.
        if (prop.id == id &&
            (id != kPropOrientation || d.desc.drm.orientation != Orientation::none)) {
            return &prop;
        }
    }
    return nullptr;
}

Framebuffer* findFb(Device& d, uint32_t id) {
    for (auto& fb : d.fbs) {
        if (fb.used && fb.id == id && id != 0) {
            return &fb;
        }
    }
    return nullptr;
}

DumbBuffer* findHandle(Device& d, uint32_t handle) {
    for (auto& buffer : d.buffers) {
        if (buffer.used && buffer.handle == handle && handle != 0) {
            return &buffer;
        }
    }
    return nullptr;
}

// The standard mode of a fixed panel: width x height at 60 Hz with plausible
// blanking intervals.
drm_mode_modeinfo panelMode(const Device& d) {
    const Geometry& g = d.desc.geometry;
    drm_mode_modeinfo mode{};
    mode.hdisplay = static_cast<uint16_t>(g.width);
    mode.hsync_start = static_cast<uint16_t>(g.width + 8);
    mode.hsync_end = static_cast<uint16_t>(g.width + 40);
    mode.htotal = static_cast<uint16_t>(g.width + 80);
    mode.vdisplay = static_cast<uint16_t>(g.height);
    mode.vsync_start = static_cast<uint16_t>(g.height + 3);
    mode.vsync_end = static_cast<uint16_t>(g.height + 9);
    mode.vtotal = static_cast<uint16_t>(g.height + 15);
    const uint64_t pixelsPerFrame = static_cast<uint64_t>(mode.htotal) * mode.vtotal;
    mode.clock = static_cast<uint32_t>((pixelsPerFrame * 60 + 999) / 1000);  // kHz
    mode.vrefresh = 60;
    mode.flags = DRM_MODE_FLAG_NHSYNC | DRM_MODE_FLAG_NVSYNC;
    mode.type = DRM_MODE_TYPE_PREFERRED | DRM_MODE_TYPE_DRIVER;
    (void)snprintf(mode.name, sizeof mode.name, "%ux%u", g.width, g.height);  // fits
    return mode;
}

// ---- the panel and the damage record ----

void sidePathOf(const Device& d, const char* suffix, char (&path)[kPathMax + 16]) {
    (void)sidePath(d.desc.file, suffix, path, sizeof path);  // file < kPathMax: fits
}

// Appends one line to "<file>.damage".
// The record file last written, kept open for the run: a flush then costs one
// write. (Within one process a path keeps naming one file.)
char gRecordPath[kPathMax + 16];  // guarded by gLock
int gRecordFd = -1;               // guarded by gLock

void writeRecord(const Device& d, int len) {
    if (len < 0 || static_cast<std::size_t>(len) >= sizeof gLine - 1) {
        return;
    }
    gLine[len++] = '\n';
    char path[kPathMax + 16];
    sidePathOf(d, ".damage", path);
    if (gRecordFd < 0 || strcmp(path, gRecordPath) != 0) {
        if (gRecordFd >= 0) {
            (void)host::close(gRecordFd);
        }
        gRecordFd = host::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        (void)snprintf(gRecordPath, sizeof gRecordPath, "%s", path);  // fits: same size
    }
    if (gRecordFd < 0 || write(gRecordFd, gLine, static_cast<std::size_t>(len)) != len) {
        host::report("cannot record in %s: %s", path, strerror(errno));
    }
}

void record(const Device& d, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void record(const Device& d, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started just above
    const int n = vsnprintf(gLine, sizeof gLine - 1, fmt, ap);
    va_end(ap);
    writeRecord(d, n);
}

// Appends " x1,y1,x2,y2" to gLine at len.
int appendRect(int len, const drm_clip_rect& r) {
    if (len < 0 || static_cast<std::size_t>(len) >= sizeof gLine - 1) {
        return -1;
    }
    const std::size_t room = sizeof gLine - 1 - static_cast<std::size_t>(len);
    const int n = snprintf(gLine + len, room, " %u,%u,%u,%u", r.x1, r.y1, r.x2, r.y2);
    return n < 0 || static_cast<std::size_t>(n) >= room ? -1 : len + n;
}

class Mapping {
public:
    Mapping(int fd, uint64_t offset, uint64_t size, int prot)
        : size_(size),
          mem_(size == 0 ? MAP_FAILED
                         : mmap(nullptr, size, prot, MAP_SHARED, fd, static_cast<off_t>(offset))) {}
    ~Mapping() {
        if (mem_ != MAP_FAILED) {
            (void)munmap(mem_, size_);  // cannot fail for a mapping made here
        }
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    bool ok() const { return mem_ != MAP_FAILED; }
    uint8_t* bytes() const { return static_cast<uint8_t*>(mem_); }

private:
    uint64_t size_;
    void* mem_;
};

// Copies the rectangle [x1, x2) x [y1, y2) of fb (inside the CRTC's viewport) to
// the panel, which shows the viewport.
// A file mapped whole and kept mapped between flushes, so that a flush is a
// copy rather than two opens, two mappings and their page faults. Mapped again
// for another path, or when the file has grown past the mapping. (Within one
// process a path keeps naming one file: fakefb-run makes the files before it
// starts the program, and test panels each have a directory of their own.)
struct MappedFile {
    char path[kPathMax + 16] = {};
    uint8_t* mem = nullptr;
    uint64_t size = 0;
};

MappedFile gVramMap;   // guarded by gLock
MappedFile gPanelMap;  // guarded by gLock

uint8_t* mapWhole(MappedFile& m, const char* path, uint64_t need, int flags, int prot) {
    if (m.mem != nullptr && strcmp(m.path, path) == 0 && m.size >= need) {
        return m.mem;
    }
    const host::Fd fd(host::open(path, flags | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() || host::fstat(fd.get(), &st) != 0) {
        return nullptr;
    }
    if (m.mem != nullptr) {
        (void)munmap(m.mem, m.size);  // cannot fail for a mapping made here
        m = MappedFile{};
    }
    const auto size = static_cast<uint64_t>(st.st_size);
    if (size < need || size == 0) {
        errno = EINVAL;
        return nullptr;
    }
    void* mem = mmap(nullptr, size, prot, MAP_SHARED, fd.get(), 0);
    if (mem == MAP_FAILED) {
        return nullptr;
    }
    (void)snprintf(m.path, sizeof m.path, "%s", path);  // fits: both hold a side path
    m.mem = static_cast<uint8_t*>(mem);
    m.size = size;
    return m.mem;
}

void showRect(Device& d, const Framebuffer& fb, const drm_clip_rect& r) {
    const DumbBuffer& buffer = d.buffers[fb.buffer];
    const Geometry& g = d.desc.geometry;
    char vramPath[kPathMax + 16];
    sidePathOf(d, ".vram", vramPath);
    const uint8_t* src =
        mapWhole(gVramMap, vramPath, buffer.offset + buffer.size, O_RDONLY, PROT_READ);
    uint8_t* dst = src == nullptr ? nullptr
                                  : mapWhole(gPanelMap, d.desc.file, g.frameSize(), O_RDWR,
                                             PROT_READ | PROT_WRITE);
    if (src == nullptr || dst == nullptr) {
        host::report("cannot show framebuffer %u on %s: %s", fb.id, d.desc.file, strerror(errno));
        return;
    }
    src += buffer.offset;
    const uint32_t cpp = cppOf(fb.format);
    const std::size_t rowBytes = static_cast<std::size_t>(r.x2 - r.x1) * cpp;
    for (uint32_t y = r.y1; y < r.y2; ++y) {
        const uint8_t* from = src + fb.offset + static_cast<uint64_t>(y) * fb.pitch +
                              static_cast<uint64_t>(r.x1) * cpp;
        uint8_t* to = dst + static_cast<uint64_t>(y - d.crtc.y) * g.lineLength +
                      static_cast<uint64_t>(r.x1 - d.crtc.x) * cpp;
        memcpy(to, from, rowBytes);
    }
}

drm_clip_rect viewport(const Device& d) {
    drm_clip_rect r{};
    r.x1 = static_cast<uint16_t>(d.crtc.x);
    r.y1 = static_cast<uint16_t>(d.crtc.y);
    r.x2 = static_cast<uint16_t>(d.crtc.x + d.crtc.mode.hdisplay);
    r.y2 = static_cast<uint16_t>(d.crtc.y + d.crtc.mode.vdisplay);
    return r;
}

// The part of clip inside the viewport; false when nothing is left, as the
// kernel's damage iterator drops such clips.
bool clipToViewport(const Device& d, const drm_clip_rect& clip, drm_clip_rect& out) {
    const drm_clip_rect v = viewport(d);
    out.x1 = clip.x1 > v.x1 ? clip.x1 : v.x1;
    out.y1 = clip.y1 > v.y1 ? clip.y1 : v.y1;
    out.x2 = clip.x2 < v.x2 ? clip.x2 : v.x2;
    out.y2 = clip.y2 < v.y2 ? clip.y2 : v.y2;
    return out.x1 < out.x2 && out.y1 < out.y2;
}

void showWhole(Device& d) {
    Framebuffer* fb = findFb(d, d.crtc.fbId);
    if (fb != nullptr && visible(d)) {
        showRect(d, *fb, viewport(d));
    }
}

// A display that is switched off shows black.
void blankPanel(const Device& d) {
    const host::Fd panel(host::open(d.desc.file, O_RDWR | O_CLOEXEC));
    const Mapping dst(panel.get(), 0, d.desc.geometry.frameSize(), PROT_READ | PROT_WRITE);
    if (!dst.ok()) {
        host::report("cannot blank %s: %s", d.desc.file, strerror(errno));
        return;
    }
    memset(dst.bytes(), 0, d.desc.geometry.frameSize());
}

// ---- framebuffer and buffer lifetimes ----

void freeBufferIfUnused(DumbBuffer& buffer) {
    if (buffer.handle == 0 && buffer.fbRefs == 0) {
        buffer = DumbBuffer{};
    }
}

void destroyFb(Device& d, Framebuffer& fb) {
    DumbBuffer& buffer = d.buffers[fb.buffer];
    --buffer.fbRefs;
    freeBufferIfUnused(buffer);
    fb = Framebuffer{};
}

bool inUse(const Device& d, const Framebuffer& fb) {
    return (d.crtc.active && d.crtc.fbId == fb.id) || d.crtc.pendingFbId == fb.id;
}

// A framebuffer given up with CLOSEFB lives only as long as the display uses it.
void dropIfOrphaned(Device& d, uint32_t id) {
    Framebuffer* fb = findFb(d, id);
    if (fb != nullptr && !fb->owned && !inUse(d, *fb)) {
        destroyFb(d, *fb);
    }
}

// Switches the CRTC off (its framebuffer is gone, or the client asked); a panel
// that showed it goes dark.
void crtcOff(Device& d) {
    const bool wasVisible = visible(d);
    const uint32_t oldFb = d.crtc.fbId;
    const uint32_t pending = d.crtc.pendingFbId;
    d.crtc = Crtc{};
    dropIfOrphaned(d, oldFb);
    dropIfOrphaned(d, pending);
    if (wasVisible) {
        blankPanel(d);
        record(d, "off crtc=%u", kCrtcId);
    }
}

// What RMFB and the end of the client do to one of the client's framebuffers.
void removeFb(Device& d, Framebuffer& fb) {
    if (d.crtc.active && d.crtc.fbId == fb.id) {
        crtcOff(d);
    }
    if (d.crtc.pendingFbId == fb.id) {
        d.crtc.pendingFbId = 0;  // that flip will never complete now
    }
    if (fb.used) {
        destroyFb(d, fb);
    }
}

// The lowest free id from first on, as idr_alloc hands them out.
template <typename Used>
uint32_t lowestFreeId(uint32_t first, Used used) {
    uint32_t id = first;
    while (used(id)) {
        ++id;
    }
    return id;
}

// ---- video memory ----

bool overlapsBuffer(const Device& d, uint64_t offset, uint64_t size) {
    for (const auto& buffer : d.buffers) {
        if (buffer.used && offset < buffer.offset + buffer.size && buffer.offset < offset + size) {
            return true;
        }
    }
    return false;
}

// First fit among the live buffers: the lowest of 0 and every buffer's end.
uint64_t findVram(const Device& d, uint64_t size) {
    uint64_t best = overlapsBuffer(d, 0, size) ? UINT64_MAX : 0;
    for (const auto& buffer : d.buffers) {
        const uint64_t candidate = buffer.offset + buffer.size;
        if (buffer.used && candidate < best && !overlapsBuffer(d, candidate, size)) {
            best = candidate;
        }
    }
    return best;
}

// Makes [offset, offset + size) of the video memory file exist and hold zeros, as
// a new dumb buffer does.
int prepareVram(const Device& d, uint64_t offset, uint64_t size) {
    char path[kPathMax + 16];
    sidePathOf(d, ".vram", path);
    const host::Fd fd(host::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    struct stat st {};
    if (!fd.valid() || host::fstat(fd.get(), &st) != 0) {
        return -errno;
    }
    if (static_cast<uint64_t>(st.st_size) < offset + size &&
        ftruncate(fd.get(), static_cast<off_t>(offset + size)) != 0) {
        return -errno;
    }
    const Mapping mem(fd.get(), offset, size, PROT_READ | PROT_WRITE);
    if (!mem.ok()) {
        return -errno;
    }
    memset(mem.bytes(), 0, size);
    return 0;
}

// ---- events ----

void queueEvent(Device& d, uint32_t type, uint64_t userData) {
    drm_event_vblank ev{};
    ev.base.type = type;
    ev.base.length = sizeof ev;
    ev.user_data = userData;
    uint64_t ns = nowNs();
    // Without vertical blanking the kernel stamps such events with sequence 0 and
    // the current time.
    if (d.desc.drm.vblank) {
        const uint64_t count = (ns - d.epochNs) / kFrameNs;
        ev.sequence = static_cast<uint32_t>(count);
        ns = d.epochNs + count * kFrameNs;
    }
    ev.tv_sec = static_cast<uint32_t>(ns / 1000000000ull);
    ev.tv_usec = static_cast<uint32_t>(ns % 1000000000ull / 1000);
    ev.crtc_id = kCrtcId;
    d.events[(d.eventHead + d.eventCount) % kMaxEvents] = ev;
    ++d.eventCount;
}

// ---- ioctl handlers: 0 or -errno, data is the kernel's copy of the argument ----

void copyField(char* user, __kernel_size_t& len, const char* value) {
    const std::size_t n = strlen(value);
    const std::size_t copy = n < len ? n : len;
    len = n;
    if (copy != 0 && user != nullptr) {
        memcpy(user, value, copy);
    }
}

int getVersion(Device& /*d*/, void* data) {
    auto* v = static_cast<drm_version*>(data);
    v->version_major = 1;
    v->version_minor = 0;
    v->version_patchlevel = 0;
    copyField(v->name, v->name_len, "fakefb");
    copyField(v->date, v->date_len, "20240101");
    copyField(v->desc, v->desc_len, "simulated panel");
    return 0;
}

struct CapRow {
    uint64_t capability;
    uint64_t (*value)(const Device& d);
};

constexpr CapRow kCaps[] = {
    {DRM_CAP_DUMB_BUFFER, [](const Device& d) -> uint64_t { return d.desc.drm.dumbBuffers; }},
    {DRM_CAP_VBLANK_HIGH_CRTC, [](const Device&) -> uint64_t { return 1; }},
    {DRM_CAP_DUMB_PREFERRED_DEPTH,
     [](const Device& d) -> uint64_t { return d.desc.geometry.bpp == 16 ? 16 : 24; }},
    {DRM_CAP_DUMB_PREFER_SHADOW, [](const Device&) -> uint64_t { return 0; }},
    {DRM_CAP_PRIME, [](const Device&) -> uint64_t { return 0; }},
    {DRM_CAP_TIMESTAMP_MONOTONIC, [](const Device&) -> uint64_t { return 1; }},
    {DRM_CAP_ASYNC_PAGE_FLIP, [](const Device&) -> uint64_t { return 0; }},
    {DRM_CAP_CURSOR_WIDTH, [](const Device&) -> uint64_t { return 64; }},
    {DRM_CAP_CURSOR_HEIGHT, [](const Device&) -> uint64_t { return 64; }},
    {DRM_CAP_ADDFB2_MODIFIERS, [](const Device&) -> uint64_t { return 1; }},
    {DRM_CAP_PAGE_FLIP_TARGET, [](const Device&) -> uint64_t { return 0; }},
    {DRM_CAP_CRTC_IN_VBLANK_EVENT, [](const Device&) -> uint64_t { return 1; }},
    {DRM_CAP_SYNCOBJ, [](const Device&) -> uint64_t { return 0; }},
    {DRM_CAP_SYNCOBJ_TIMELINE, [](const Device&) -> uint64_t { return 0; }},
};

int getCap(Device& d, void* data) {
    auto* cap = static_cast<drm_get_cap*>(data);
    for (const auto& row : kCaps) {
        if (row.capability == cap->capability) {
            cap->value = row.value(d);
            return 0;
        }
    }
    return -EINVAL;
}

int setClientCap(Device& d, void* data) {
    const auto* cap = static_cast<drm_set_client_cap*>(data);
    switch (cap->capability) {
        case DRM_CLIENT_CAP_STEREO_3D:
        case DRM_CLIENT_CAP_ASPECT_RATIO:
            return cap->value > 1 ? -EINVAL : 0;
        case DRM_CLIENT_CAP_UNIVERSAL_PLANES:
            if (cap->value > 1) {
                return -EINVAL;
            }
            d.universalPlanes = cap->value == 1;
            return 0;
        case DRM_CLIENT_CAP_ATOMIC:
            return -EOPNOTSUPP;  // a legacy (non-atomic) driver
        default:
            return -EINVAL;  // writeback connectors need atomic first
    }
}

// Only the master may authenticate, and no client waits with a magic: a master
// gets EINVAL, which is how drmIsMaster (magic 0) tells a master.
int authMagic(Device& /*d*/, void* /*data*/) {
    return -EINVAL;
}

int setMaster(Device& d, void* /*data*/) {
    if (!d.desc.drm.master) {
        return -EBUSY;  // another program holds the display
    }
    d.master = true;
    return 0;
}

int dropMaster(Device& d, void* /*data*/) {
    if (!d.master) {
        return -EINVAL;
    }
    d.master = false;
    return 0;
}

int deleteHandle(Device& d, uint32_t handle) {
    DumbBuffer* buffer = findHandle(d, handle);
    if (buffer == nullptr) {
        return -EINVAL;
    }
    buffer->handle = 0;
    freeBufferIfUnused(*buffer);
    return 0;
}

int gemClose(Device& d, void* data) {
    return deleteHandle(d, static_cast<drm_gem_close*>(data)->handle);
}

bool vblankPassed(uint64_t seq, uint64_t ref) {
    return seq - ref <= (1u << 23);
}

// Waits for a vertical blank like drm_wait_vblank_ioctl (at most 3 s, then
// EBUSY). Events instead of waiting (_DRM_VBLANK_EVENT) are not simulated.
int waitVblank(Device& d, void* data) {
    auto* vbl = static_cast<drm_wait_vblank*>(data);
    if (!d.desc.drm.vblank) {
        return -EOPNOTSUPP;
    }
    const unsigned type = vbl->request.type;
    if ((type & _DRM_VBLANK_SIGNAL) != 0 ||
        (type & ~(_DRM_VBLANK_TYPES_MASK | _DRM_VBLANK_FLAGS_MASK | _DRM_VBLANK_HIGH_CRTC_MASK)) !=
            0) {
        return -EINVAL;
    }
    const unsigned highPipe = (type & _DRM_VBLANK_HIGH_CRTC_MASK) >> _DRM_VBLANK_HIGH_CRTC_SHIFT;
    const unsigned pipe = highPipe != 0 ? highPipe : (type & _DRM_VBLANK_SECONDARY) != 0 ? 1 : 0;
    if (pipe != 0 || !d.crtc.active) {
        return -EINVAL;
    }
    if ((type & _DRM_VBLANK_EVENT) != 0) {
        host::report("vertical blank events (_DRM_VBLANK_EVENT) are not simulated");
        return -EINVAL;
    }
    const uint64_t seq = (nowNs() - d.epochNs) / kFrameNs;
    uint64_t target = 0;
    if ((type & _DRM_VBLANK_TYPES_MASK) == _DRM_VBLANK_RELATIVE) {
        target = seq + vbl->request.sequence;
    } else {
        // Widen the 32-bit request around the current count.
        target = (seq & ~0xFFFFFFFFull) | vbl->request.sequence;
    }
    if ((type & _DRM_VBLANK_NEXTONMISS) != 0 && vblankPassed(seq, target)) {
        target = seq + 1;
    }
    int result = 0;
    if (!vblankPassed(seq, target)) {
        const uint64_t waitNs = (target - seq) * kFrameNs;
        const uint64_t limitNs = 3000000000ull;
        const uint64_t sleepNs = waitNs < limitNs ? waitNs : limitNs;
        timespec ts{static_cast<time_t>(sleepNs / 1000000000ull),
                    static_cast<long>(sleepNs % 1000000000ull)};
        gLock.unlock();
        (void)nanosleep(&ts, nullptr);  // an interrupted wait answers early
        gLock.lock();
        result = waitNs <= limitNs ? 0 : -EBUSY;
    }
    const uint64_t now = (nowNs() - d.epochNs) / kFrameNs;
    const uint64_t at = d.epochNs + now * kFrameNs;
    vbl->reply.type = static_cast<drm_vblank_seq_type>(type & ~_DRM_VBLANK_RELATIVE);
    vbl->reply.sequence = static_cast<unsigned>(now);
    vbl->reply.tval_sec = static_cast<long>(at / 1000000000ull);
    vbl->reply.tval_usec = static_cast<long>(at % 1000000000ull / 1000);
    return result;
}

int getSequence(Device& d, void* data) {
    auto* seq = static_cast<drm_crtc_get_sequence*>(data);
    if (!d.desc.drm.vblank) {
        return -EOPNOTSUPP;
    }
    if (seq->crtc_id != kCrtcId) {
        return -ENOENT;
    }
    if (!d.crtc.active) {
        return -EINVAL;  // no vertical blank counter on a CRTC that is off
    }
    const uint64_t count = (nowNs() - d.epochNs) / kFrameNs;
    seq->active = 1;
    seq->sequence = count;
    seq->sequence_ns = static_cast<int64_t>(d.epochNs + count * kFrameNs);
    return 0;
}

int getResources(Device& d, void* data) {
    auto* res = static_cast<drm_mode_card_res*>(data);
    uint32_t ids[kMaxFramebuffers];
    uint32_t n = 0;
    for (const auto& fb : d.fbs) {
        if (fb.used && fb.owned) {
            ids[n++] = fb.id;
        }
    }
    if (const int err = putIds(res->fb_id_ptr, res->count_fbs, ids, n); err != 0) {
        return err;
    }
    const uint32_t crtc = kCrtcId;
    if (const int err = putIds(res->crtc_id_ptr, res->count_crtcs, &crtc, 1); err != 0) {
        return err;
    }
    for (n = 0; n < connectorCount(d); ++n) {
        ids[n] = connectorId(d, n);
    }
    if (const int err = putIds(res->connector_id_ptr, res->count_connectors, ids, n); err != 0) {
        return err;
    }
    for (n = 0; n < connectorCount(d); ++n) {
        ids[n] = encoderId(n);
    }
    if (const int err = putIds(res->encoder_id_ptr, res->count_encoders, ids, n); err != 0) {
        return err;
    }
    res->min_width = res->min_height = kMinSize;
    res->max_width = res->max_height = kMaxSize;
    return 0;
}

int getCrtc(Device& d, void* data) {
    auto* crtc = static_cast<drm_mode_crtc*>(data);
    if (crtc->crtc_id != kCrtcId) {
        return -ENOENT;
    }
    crtc->count_connectors = 0;
    crtc->gamma_size = 0;
    crtc->x = d.crtc.x;
    crtc->y = d.crtc.y;
    crtc->fb_id = d.crtc.active ? d.crtc.fbId : 0;
    crtc->mode_valid = d.crtc.active ? 1 : 0;
    crtc->mode = d.crtc.active ? d.crtc.mode : drm_mode_modeinfo{};
    return 0;
}

int getEncoder(Device& d, void* data) {
    auto* enc = static_cast<drm_mode_get_encoder*>(data);
    const int i = encoderIndex(d, enc->encoder_id);
    if (i < 0) {
        return -ENOENT;
    }
    enc->encoder_type = encoderTypeFor(d.desc.drm.connectors[i].type);
    enc->crtc_id = driven(d, static_cast<unsigned>(i)) ? kCrtcId : 0;
    enc->possible_crtcs = 1;
    enc->possible_clones = 1u << i;  // the core makes every encoder its own clone
    return 0;
}

struct PropValue {
    uint32_t id;
    uint64_t value;
};

// The properties a client without the atomic capability sees on an object.
unsigned connectorProperties(const Device& d, unsigned i, PropValue (&out)[4]) {
    unsigned n = 0;
    out[n++] = {kPropDpms,
                static_cast<uint64_t>(driven(d, i) ? DRM_MODE_DPMS_ON : DRM_MODE_DPMS_OFF)};
    if (d.desc.drm.orientation != Orientation::none) {
        out[n++] = {kPropOrientation, static_cast<uint64_t>(d.desc.drm.orientation) - 1};
    }
    return n;
}

[[nodiscard]] int putProperties(uint64_t idsPtr, uint64_t valuesPtr, uint32_t& userCount,
                                const PropValue* props, unsigned n) {
    const unsigned copied = n < userCount ? n : userCount;
    if (faults(idsPtr, copied) || faults(valuesPtr, copied)) {
        return -EFAULT;
    }
    for (unsigned i = 0; i < copied; ++i) {
        userPointer<uint32_t>(idsPtr)[i] = props[i].id;
        userPointer<uint64_t>(valuesPtr)[i] = props[i].value;
    }
    userCount = n;
    return 0;
}

int getConnector(Device& d, void* data) {
    auto* conn = static_cast<drm_mode_get_connector*>(data);
    const int i = connectorIndex(d, conn->connector_id);
    if (i < 0) {
        return -ENOENT;
    }
    const ConnectorDesc& desc = d.desc.drm.connectors[i];
    conn->connector_type = desc.type;
    conn->connector_type_id = desc.typeIndex;
    const uint32_t encoder = encoderId(static_cast<unsigned>(i));
    if (const int err = putIds(conn->encoders_ptr, conn->count_encoders, &encoder, 1); err != 0) {
        return err;
    }
    conn->mm_width = 0;
    conn->mm_height = 0;
    conn->subpixel = kSubpixelUnknown;
    conn->connection = desc.connected ? kConnected : kDisconnected;
    // Modes are copied only when all of them fit, unlike the other arrays.
    const uint32_t modes = desc.connected ? 1 : 0;
    if (conn->count_modes >= modes && modes != 0) {
        if (faults(conn->modes_ptr, modes)) {
            return -EFAULT;
        }
        *userPointer<drm_mode_modeinfo>(conn->modes_ptr) = panelMode(d);
    }
    conn->count_modes = modes;
    conn->encoder_id = driven(d, static_cast<unsigned>(i)) ? encoder : 0;
    PropValue props[4];
    const unsigned n = connectorProperties(d, static_cast<unsigned>(i), props);
    return putProperties(conn->props_ptr, conn->prop_values_ptr, conn->count_props, props, n);
}

int getProperty(Device& d, void* data) {
    auto* prop = static_cast<drm_mode_get_property*>(data);
    const PropDef* def = findProperty(d, prop->prop_id);
    if (def == nullptr) {
        return -ENOENT;
    }
    memset(prop->name, 0, sizeof prop->name);
    (void)snprintf(prop->name, sizeof prop->name, "%s", def->name);  // names fit
    prop->flags = def->flags;
    const unsigned values = def->count < prop->count_values ? def->count : prop->count_values;
    const unsigned enumCount =
        def->count < prop->count_enum_blobs ? def->count : prop->count_enum_blobs;
    if (faults(prop->values_ptr, values) || faults(prop->enum_blob_ptr, enumCount)) {
        return -EFAULT;
    }
    for (unsigned i = 0; i < values; ++i) {
        userPointer<uint64_t>(prop->values_ptr)[i] = def->values[i].value;
    }
    prop->count_values = def->count;
    auto* enums = userPointer<drm_mode_property_enum>(prop->enum_blob_ptr);
    for (unsigned i = 0; i < enumCount; ++i) {
        enums[i].value = def->values[i].value;
        memset(enums[i].name, 0, sizeof enums[i].name);
        (void)snprintf(enums[i].name, sizeof enums[i].name, "%s", def->values[i].name);
    }
    prop->count_enum_blobs = def->count;
    return 0;
}

int getPlaneResources(Device& d, void* data) {
    auto* res = static_cast<drm_mode_get_plane_res*>(data);
    // Without the universal planes capability a client sees overlay planes only,
    // and the only plane here is the primary one.
    const uint32_t plane = kPlaneId;
    return putIds(res->plane_id_ptr, res->count_planes, &plane, d.universalPlanes ? 1 : 0);
}

int getPlane(Device& d, void* data) {
    auto* plane = static_cast<drm_mode_get_plane*>(data);
    if (plane->plane_id != kPlaneId) {
        return -ENOENT;
    }
    plane->crtc_id = d.crtc.active ? kCrtcId : 0;
    plane->fb_id = d.crtc.active ? d.crtc.fbId : 0;
    plane->possible_crtcs = 1;
    plane->gamma_size = 0;
    const uint32_t count = sizeof kPlaneFormats / sizeof kPlaneFormats[0];
    if (plane->count_format_types >= count) {
        if (faults(plane->format_type_ptr, count)) {
            return -EFAULT;
        }
        memcpy(userPointer<uint32_t>(plane->format_type_ptr), kPlaneFormats, sizeof kPlaneFormats);
    }
    plane->count_format_types = count;
    return 0;
}

int objGetProperties(Device& d, void* data) {
    auto* req = static_cast<drm_mode_obj_get_properties*>(data);
    const uint32_t type = req->obj_type;
    const auto is = [type](uint32_t objectType) {
        return type == DRM_MODE_OBJECT_ANY || type == objectType;
    };
    PropValue props[4];
    unsigned n = 0;
    const int connector = connectorIndex(d, req->obj_id);
    if (connector >= 0 && is(DRM_MODE_OBJECT_CONNECTOR)) {
        n = connectorProperties(d, static_cast<unsigned>(connector), props);
    } else if (req->obj_id == kPlaneId && is(DRM_MODE_OBJECT_PLANE)) {
        props[n++] = {kPropType, kPlanePrimary};
    } else if (req->obj_id == kCrtcId && is(DRM_MODE_OBJECT_CRTC)) {
        n = 0;  // its properties are all atomic ones
    } else if ((encoderIndex(d, req->obj_id) >= 0 && is(DRM_MODE_OBJECT_ENCODER)) ||
               (findFb(d, req->obj_id) != nullptr && is(DRM_MODE_OBJECT_FB)) ||
               (findProperty(d, req->obj_id) != nullptr && is(DRM_MODE_OBJECT_PROPERTY))) {
        return -EINVAL;  // objects that carry no properties
    } else {
        return -ENOENT;
    }
    return putProperties(req->props_ptr, req->prop_values_ptr, req->count_props, props, n);
}

int createDumb(Device& d, void* data) {
    auto* req = static_cast<drm_mode_create_dumb*>(data);
    if (!d.desc.drm.dumbBuffers) {
        return -ENOSYS;
    }
    // drm_mode_create_dumb's checks, in 32 bits as there.
    if (req->width == 0 || req->height == 0 || req->bpp == 0 || req->bpp > UINT32_MAX - 8) {
        return -EINVAL;
    }
    const uint32_t cpp = (req->bpp + 7) / 8;
    if (cpp > UINT32_MAX / req->width) {
        return -EINVAL;
    }
    const uint32_t stride = cpp * req->width;
    if (req->height > UINT32_MAX / stride ||
        pageAlign(uint64_t{req->height} * stride) > UINT32_MAX) {
        return -EINVAL;
    }
    req->handle = req->pitch = 0;
    req->size = 0;
    const uint64_t pitch =
        (static_cast<uint64_t>(stride) + kPitchAlign - 1) / kPitchAlign * kPitchAlign;
    const uint64_t size = pageAlign(pitch * req->height);
    DumbBuffer* slot = nullptr;
    for (auto& buffer : d.buffers) {
        slot = slot == nullptr && !buffer.used ? &buffer : slot;
    }
    const uint64_t offset = findVram(d, size);
    if (slot == nullptr || size > kMaxBufferSize || offset > kMaxVram - size) {
        return -ENOMEM;
    }
    if (const int err = prepareVram(d, offset, size); err != 0) {
        host::report("cannot make video memory for a dumb buffer: %s", strerror(-err));
        return err;
    }
    *slot = DumbBuffer{true,
                       lowestFreeId(1, [&d](uint32_t h) { return findHandle(d, h); }),
                       static_cast<uint32_t>(pitch),
                       offset,
                       size,
                       0};
    req->handle = slot->handle;
    req->pitch = slot->pitch;
    req->size = slot->size;
    return 0;
}

int mapDumb(Device& d, void* data) {
    auto* req = static_cast<drm_mode_map_dumb*>(data);
    if (!d.desc.drm.dumbBuffers) {
        return -ENOSYS;
    }
    const DumbBuffer* buffer = findHandle(d, req->handle);
    if (buffer == nullptr) {
        return -ENOENT;
    }
    req->offset = buffer->offset;
    return 0;
}

int destroyDumb(Device& d, void* data) {
    if (!d.desc.drm.dumbBuffers) {
        return -ENOSYS;
    }
    return deleteHandle(d, static_cast<drm_mode_destroy_dumb*>(data)->handle);
}

// framebuffer_check and the GEM helpers' size check, for the single-plane
// formats the plane takes.
int checkFbLayout(Device& d, const drm_mode_fb_cmd2& r) {
    if ((r.flags & ~(DRM_MODE_FB_INTERLACED | DRM_MODE_FB_MODIFIERS)) != 0 || r.width < kMinSize ||
        r.width > kMaxSize || r.height < kMinSize || r.height > kMaxSize) {
        return -EINVAL;
    }
    if (!planeTakes(r.pixel_format) || r.handles[0] == 0) {
        return -EINVAL;
    }
    const uint64_t cpp = cppOf(r.pixel_format);
    if (static_cast<uint64_t>(r.height) * r.pitches[0] + r.offsets[0] > UINT32_MAX) {
        return -ERANGE;
    }
    const bool modifiers = (r.flags & DRM_MODE_FB_MODIFIERS) != 0;
    if (r.pitches[0] < r.width * cpp || (r.modifier[0] != 0 && !modifiers) ||
        r.modifier[0] != DRM_FORMAT_MOD_LINEAR) {
        return -EINVAL;
    }
    for (unsigned i = 1; i < 4; ++i) {
        if (r.modifier[i] != 0 ||
            (!modifiers && (r.handles[i] != 0 || r.pitches[i] != 0 || r.offsets[i] != 0))) {
            return -EINVAL;
        }
    }
    const DumbBuffer* buffer = findHandle(d, r.handles[0]);
    if (buffer == nullptr) {
        return -ENOENT;
    }
    const uint64_t minSize =
        static_cast<uint64_t>(r.height - 1) * r.pitches[0] + r.width * cpp + r.offsets[0];
    return buffer->size < minSize ? -EINVAL : 0;
}

int addFramebuffer(Device& d, drm_mode_fb_cmd2& r) {
    if (const int err = checkFbLayout(d, r); err != 0) {
        return err;
    }
    Framebuffer* slot = nullptr;
    for (auto& fb : d.fbs) {
        slot = slot == nullptr && !fb.used ? &fb : slot;
    }
    if (slot == nullptr) {
        return -ENOMEM;
    }
    DumbBuffer* buffer = findHandle(d, r.handles[0]);
    ++buffer->fbRefs;
    *slot = Framebuffer{true,
                        lowestFreeId(firstFbId(d), [&d](uint32_t id) { return findFb(d, id); }),
                        r.width,
                        r.height,
                        r.pixel_format,
                        r.pitches[0],
                        r.offsets[0],
                        static_cast<unsigned>(buffer - d.buffers),
                        true};
    r.fb_id = slot->id;
    return 0;
}

int addFb2(Device& d, void* data) {
    return addFramebuffer(d, *static_cast<drm_mode_fb_cmd2*>(data));
}

struct LegacyFormat {
    uint32_t bpp;
    uint32_t depth;
    uint32_t format;
};

// drm_driver_legacy_fb_format.
constexpr LegacyFormat kLegacyFormats[] = {
    {8, 8, DRM_FORMAT_C8},         {16, 15, DRM_FORMAT_XRGB1555}, {16, 16, DRM_FORMAT_RGB565},
    {24, 24, DRM_FORMAT_RGB888},   {32, 24, DRM_FORMAT_XRGB8888}, {32, 30, DRM_FORMAT_XRGB2101010},
    {32, 32, DRM_FORMAT_ARGB8888},
};

int addFb(Device& d, void* data) {
    auto* legacy = static_cast<drm_mode_fb_cmd*>(data);
    drm_mode_fb_cmd2 r{};
    for (const auto& row : kLegacyFormats) {
        r.pixel_format =
            row.bpp == legacy->bpp && row.depth == legacy->depth ? row.format : r.pixel_format;
    }
    if (r.pixel_format == 0) {
        return -EINVAL;
    }
    r.width = legacy->width;
    r.height = legacy->height;
    r.handles[0] = legacy->handle;
    r.pitches[0] = legacy->pitch;
    const int err = addFramebuffer(d, r);
    legacy->fb_id = r.fb_id;
    return err;
}

// The client's own framebuffer with this id; others are not its to remove.
Framebuffer* findOwnedFb(Device& d, uint32_t id) {
    Framebuffer* fb = findFb(d, id);
    return fb != nullptr && fb->owned ? fb : nullptr;
}

int rmFb(Device& d, void* data) {
    const uint32_t id = *static_cast<uint32_t*>(data);
    Framebuffer* fb = findOwnedFb(d, id);
    if (fb == nullptr) {
        return -ENOENT;
    }
    record(d, "rmfb fb=%u", id);
    removeFb(d, *fb);
    return 0;
}

int closeFb(Device& d, void* data) {
    const auto* req = static_cast<drm_mode_closefb*>(data);
    if (req->pad != 0) {
        return -EINVAL;
    }
    Framebuffer* fb = findOwnedFb(d, req->fb_id);
    if (fb == nullptr) {
        return -ENOENT;
    }
    fb->owned = false;
    record(d, "closefb fb=%u", req->fb_id);
    dropIfOrphaned(d, req->fb_id);
    return 0;
}

// drm_mode_validate_basic, and a fixed panel takes its own size only.
bool validMode(const Device& d, const drm_mode_modeinfo& m) {
    return m.clock != 0 && m.hdisplay != 0 && m.hsync_start >= m.hdisplay &&
           m.hsync_end >= m.hsync_start && m.htotal >= m.hsync_end && m.vdisplay != 0 &&
           m.vsync_start >= m.vdisplay && m.vsync_end >= m.vsync_start && m.vtotal >= m.vsync_end &&
           m.hdisplay == d.desc.geometry.width && m.vdisplay == d.desc.geometry.height;
}

bool fitsViewport(const Framebuffer& fb, uint32_t x, uint32_t y, const drm_mode_modeinfo& m) {
    return m.hdisplay <= fb.width && m.vdisplay <= fb.height && x <= fb.width - m.hdisplay &&
           y <= fb.height - m.vdisplay;
}

// The framebuffer a SETCRTC with a mode uses; -errno when there is none.
int setCrtcFb(Device& d, const drm_mode_crtc& req, Framebuffer*& fb) {
    fb = findFb(d, req.fb_id == UINT32_MAX && d.crtc.active ? d.crtc.fbId : req.fb_id);
    if (fb == nullptr) {
        return req.fb_id == UINT32_MAX ? -EINVAL : -ENOENT;
    }
    if (req.mode.clock > INT32_MAX || req.mode.vrefresh > INT32_MAX) {
        return -ERANGE;
    }
    if (!validMode(d, req.mode)) {
        host::report("SETCRTC: mode %ux%u is not the %ux%u panel's", req.mode.hdisplay,
                     req.mode.vdisplay, d.desc.geometry.width, d.desc.geometry.height);
        return -EINVAL;
    }
    // The simulated display converts nothing: it shows its own format only.
    const uint32_t native = drmFormatForDepth(d.desc.geometry.bpp);
    if (fb->format != native) {
        char have[5];
        char want[5];
        formatName(fb->format, have);
        formatName(native, want);
        host::report("SETCRTC: framebuffer %u is %s; this %u-bpp panel shows %s only", fb->id, have,
                     d.desc.geometry.bpp, want);
        return -EINVAL;
    }
    return fitsViewport(*fb, req.x, req.y, req.mode) ? 0 : -ENOSPC;
}

int setCrtcConnectors(Device& d, const drm_mode_crtc& req, uint32_t& mask) {
    if (req.count_connectors > connectorCount(d)) {
        return -EINVAL;
    }
    mask = 0;
    if (faults(req.set_connectors_ptr, req.count_connectors)) {
        return -EFAULT;
    }
    for (uint32_t i = 0; i < req.count_connectors; ++i) {
        const int index = connectorIndex(d, userPointer<uint32_t>(req.set_connectors_ptr)[i]);
        if (index < 0) {
            return -ENOENT;
        }
        mask |= 1u << index;
    }
    return 0;
}

void recordSetCrtc(Device& d) {
    int len = snprintf(gLine, sizeof gLine, "setcrtc fb=%u crtc=%u conn=", d.crtc.fbId, kCrtcId);
    bool first = true;
    for (unsigned i = 0; i < connectorCount(d); ++i) {
        if ((d.crtc.connectors & (1u << i)) != 0 && len > 0) {
            len += snprintf(gLine + len, sizeof gLine - len, "%s%u", first ? "" : ",",
                            connectorId(d, i));
            first = false;
        }
    }
    writeRecord(d, appendRect(len, viewport(d)));
}

int setCrtc(Device& d, void* data) {
    const auto* req = static_cast<drm_mode_crtc*>(data);
    if ((req->x & 0xffff0000) != 0 || (req->y & 0xffff0000) != 0) {
        return -ERANGE;
    }
    if (req->crtc_id != kCrtcId) {
        return -ENOENT;
    }
    Framebuffer* fb = nullptr;
    if (req->mode_valid != 0) {
        if (const int err = setCrtcFb(d, *req, fb); err != 0) {
            return err;
        }
    }
    if ((req->count_connectors == 0) != (req->mode_valid == 0)) {
        return -EINVAL;  // a mode needs connectors, and connectors a mode
    }
    uint32_t mask = 0;
    if (const int err = setCrtcConnectors(d, *req, mask); err != 0) {
        return err;
    }
    if (req->mode_valid == 0) {
        record(d, "setcrtc fb=0 crtc=%u", kCrtcId);
        crtcOff(d);
        return 0;
    }
    const bool wasVisible = visible(d);
    const uint32_t oldFb = d.crtc.active ? d.crtc.fbId : 0;
    const uint32_t pending = d.crtc.pendingFbId;
    d.crtc = Crtc{true, fb->id, req->x, req->y, req->mode, mask, 0};
    dropIfOrphaned(d, oldFb);
    dropIfOrphaned(d, pending);
    recordSetCrtc(d);
    if (visible(d)) {
        showWhole(d);
    } else if (wasVisible) {
        blankPanel(d);
        record(d, "off crtc=%u", kCrtcId);
    }
    return 0;
}

int pageFlip(Device& d, void* data) {
    const auto* req = static_cast<drm_mode_crtc_page_flip*>(data);
    if ((req->flags & ~DRM_MODE_PAGE_FLIP_FLAGS) != 0 ||
        (req->flags & DRM_MODE_PAGE_FLIP_ASYNC) != 0 ||
        (req->flags & DRM_MODE_PAGE_FLIP_TARGET) != 0) {
        return -EINVAL;  // no asynchronous or targeted flips on this display
    }
    if (req->crtc_id != kCrtcId) {
        return -ENOENT;
    }
    if (!d.crtc.active) {
        return -EBUSY;
    }
    Framebuffer* fb = findFb(d, req->fb_id);
    if (fb == nullptr) {
        return -ENOENT;
    }
    if (!fitsViewport(*fb, d.crtc.x, d.crtc.y, d.crtc.mode)) {
        return -ENOSPC;
    }
    const Framebuffer* current = findFb(d, d.crtc.fbId);
    if (current == nullptr || current->format != fb->format) {
        return -EINVAL;
    }
    const bool event = (req->flags & DRM_MODE_PAGE_FLIP_EVENT) != 0;
    if (event && d.eventCount == kMaxEvents) {
        return -ENOMEM;
    }
    if (d.crtc.pendingFbId != 0) {
        return -EBUSY;  // the previous flip has not completed
    }
    if (!d.desc.drm.flipCompletes) {
        d.crtc.pendingFbId = fb->id;
        record(d, "flip fb=%u crtc=%u pending", fb->id, kCrtcId);
        return 0;
    }
    const uint32_t oldFb = d.crtc.fbId;
    d.crtc.fbId = fb->id;
    dropIfOrphaned(d, oldFb);
    record(d, "flip fb=%u crtc=%u", d.crtc.fbId, kCrtcId);
    showWhole(d);
    if (event) {
        queueEvent(d, DRM_EVENT_FLIP_COMPLETE, req->user_data);
    }
    return 0;
}

int dirtyFb(Device& d, void* data) {
    const auto* req = static_cast<drm_mode_fb_dirty_cmd*>(data);
    Framebuffer* fb = findFb(d, req->fb_id);
    if (fb == nullptr) {
        return -ENOENT;
    }
    const uint32_t count = req->num_clips;
    if ((count == 0) != (req->clips_ptr == 0)) {
        return -EINVAL;
    }
    if ((req->flags & DRM_MODE_FB_DIRTY_ANNOTATE_COPY) != 0 && count % 2 != 0) {
        return -EINVAL;  // copies come as pairs of rectangles
    }
    if (count > kMaxClips) {
        return -EINVAL;
    }
    drm_clip_rect clips[kMaxClips];
    memcpy(clips, userPointer<drm_clip_rect>(req->clips_ptr), count * sizeof clips[0]);
    int len = snprintf(gLine, sizeof gLine, "dirty fb=%u", fb->id);
    for (uint32_t i = 0; i < count; ++i) {
        len = appendRect(len, clips[i]);
    }
    writeRecord(d, len);
    // The plane holds the framebuffer of the last flip asked for, completed or
    // not (the kernel swaps its state when the flip is asked for): clips of
    // that one reach the panel, as they would through a driver that must be told.
    const uint32_t planeFb = d.crtc.pendingFbId != 0 ? d.crtc.pendingFbId : d.crtc.fbId;
    if (!visible(d) || planeFb != fb->id) {
        return 0;  // not on show: nothing reaches the panel
    }
    if (count == 0) {
        showRect(d, *fb, viewport(d));
    }
    for (uint32_t i = 0; i < count; ++i) {
        drm_clip_rect r{};
        if (clipToViewport(d, clips[i], r)) {
            showRect(d, *fb, r);
        }
    }
    return 0;
}

// ---- dispatch ----

using Handler = int (*)(Device& d, void* data);

enum IoctlFlags : unsigned { kAnyone = 0, kMasterOnly = 1 };

struct IoctlRow {
    unsigned long cmd;
    unsigned flags;
    Handler handler;
};

// The ioctls the kernel marks DRM_MASTER are the ones that change what is shown.
const IoctlRow kIoctls[] = {
    {DRM_IOCTL_VERSION, kAnyone, getVersion},
    {DRM_IOCTL_GET_CAP, kAnyone, getCap},
    {DRM_IOCTL_SET_CLIENT_CAP, kAnyone, setClientCap},
    {DRM_IOCTL_AUTH_MAGIC, kMasterOnly, authMagic},
    {DRM_IOCTL_SET_MASTER, kAnyone, setMaster},
    {DRM_IOCTL_DROP_MASTER, kAnyone, dropMaster},
    {DRM_IOCTL_GEM_CLOSE, kAnyone, gemClose},
    {DRM_IOCTL_WAIT_VBLANK, kAnyone, waitVblank},
    {DRM_IOCTL_CRTC_GET_SEQUENCE, kAnyone, getSequence},
    {DRM_IOCTL_MODE_GETRESOURCES, kAnyone, getResources},
    {DRM_IOCTL_MODE_GETCRTC, kAnyone, getCrtc},
    {DRM_IOCTL_MODE_SETCRTC, kMasterOnly, setCrtc},
    {DRM_IOCTL_MODE_GETENCODER, kAnyone, getEncoder},
    {DRM_IOCTL_MODE_GETCONNECTOR, kAnyone, getConnector},
    {DRM_IOCTL_MODE_GETPROPERTY, kAnyone, getProperty},
    {DRM_IOCTL_MODE_ADDFB, kAnyone, addFb},
    {DRM_IOCTL_MODE_RMFB, kAnyone, rmFb},
    {DRM_IOCTL_MODE_PAGE_FLIP, kMasterOnly, pageFlip},
    {DRM_IOCTL_MODE_DIRTYFB, kMasterOnly, dirtyFb},
    {DRM_IOCTL_MODE_CREATE_DUMB, kAnyone, createDumb},
    {DRM_IOCTL_MODE_MAP_DUMB, kAnyone, mapDumb},
    {DRM_IOCTL_MODE_DESTROY_DUMB, kAnyone, destroyDumb},
    {DRM_IOCTL_MODE_GETPLANERESOURCES, kAnyone, getPlaneResources},
    {DRM_IOCTL_MODE_GETPLANE, kAnyone, getPlane},
    {DRM_IOCTL_MODE_ADDFB2, kAnyone, addFb2},
    {DRM_IOCTL_MODE_OBJ_GETPROPERTIES, kAnyone, objGetProperties},
    {DRM_IOCTL_MODE_CLOSEFB, kAnyone, closeFb},
};

// drm_ioctl finds the handler by number alone; a kernel before 6.8 has no CLOSEFB.
const IoctlRow* findIoctl(const Device& d, unsigned long cmd) {
    for (const auto& row : kIoctls) {
        if (_IOC_NR(row.cmd) == _IOC_NR(cmd)) {
            const bool missing = row.cmd == DRM_IOCTL_MODE_CLOSEFB && !d.desc.drm.closeFb;
            return missing ? nullptr : &row;
        }
    }
    return nullptr;
}

// Copies in and out as drm_ioctl does: the caller's size may differ from the
// kernel's, the rest of the kernel's copy is zeros, and the copy goes back even
// when the call fails.
int dispatch(Device& d, unsigned long cmd, void* arg) {
    if (_IOC_TYPE(cmd) != DRM_IOCTL_BASE) {
        return -ENOTTY;
    }
    const IoctlRow* row = findIoctl(d, cmd);
    if (row == nullptr) {
        return -EINVAL;
    }
    alignas(8) unsigned char kdata[512] = {};
    std::size_t inSize = _IOC_SIZE(cmd);
    std::size_t outSize = inSize;
    if ((cmd & row->cmd & IOC_IN) == 0) {
        inSize = 0;
    }
    if ((cmd & row->cmd & IOC_OUT) == 0) {
        outSize = 0;
    }
    inSize = inSize < sizeof kdata ? inSize : sizeof kdata;
    outSize = outSize < sizeof kdata ? outSize : sizeof kdata;
    if ((inSize != 0 || outSize != 0) && arg == nullptr) {
        return -EFAULT;
    }
    memcpy(kdata, arg, inSize);
    const int result =
        (row->flags & kMasterOnly) != 0 && !d.master ? -EACCES : row->handler(d, kdata);
    memcpy(arg, kdata, outSize);
    return result;
}

// ---- the table of devices ----

Device* findDevice(dev_t dev, ino_t ino) {
    for (auto& d : gDevices) {
        if (d.used && d.dev == dev && d.ino == ino) {
            return &d;
        }
    }
    return nullptr;
}

// The device a descriptor is on. Only a device with a client has descriptors: a
// device kept for its picture alone may have had its files removed, and their
// inode may belong to another file by now.
Device* findDevice(const struct stat& st) {
    Device* d = gAny.load(std::memory_order_acquire) ? findDevice(st.st_dev, st.st_ino) : nullptr;
    return d != nullptr && d->clientOpen ? d : nullptr;
}

uint32_t minorOf(const char* device) {
    const char* slash = strrchr(device, '/');
    const char* name = slash != nullptr ? slash + 1 : device;
    uint32_t minor = 0;
    return strncmp(name, "card", 4) == 0 && parseUnsigned(name + 4, minor) ? minor : 0;
}

Device* newDevice(const struct stat& st, const PanelDesc& desc) {
    Device* slot = nullptr;
    for (auto& d : gDevices) {
        slot = slot == nullptr && (!d.used || !d.clientOpen) ? &d : slot;
    }
    if (slot == nullptr) {
        return nullptr;
    }
    *slot = Device{};
    slot->used = true;
    slot->dev = st.st_dev;
    slot->ino = st.st_ino;
    slot->desc = desc;
    slot->minor = minorOf(desc.device);
    slot->epochNs = nowNs();
    return slot;
}

void releaseClient(Device& d) {
    record(d, "close");
    for (auto& fb : d.fbs) {
        if (fb.used && fb.owned) {
            removeFb(d, fb);
        }
    }
    for (auto& buffer : d.buffers) {
        if (buffer.used) {
            buffer.handle = 0;
            freeBufferIfUnused(buffer);
        }
    }
    d.eventHead = d.eventCount = 0;
    d.master = false;
    d.universalPlanes = false;
    d.clientOpen = false;
}

// Whether this process still holds a descriptor on the file (dev, ino).
bool stillOpen(dev_t dev, ino_t ino) {
    const host::Fd dir(host::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid()) {
        return true;  // cannot tell: keep the client rather than end it early
    }
    alignas(8) char buf[4096];
    for (;;) {
        const long n = syscall(SYS_getdents64, dir.get(), buf, sizeof buf);
        if (n <= 0) {
            return false;
        }
        for (long pos = 0; pos < n;) {
            // struct linux_dirent64: ino, off, reclen, type, name.
            unsigned short reclen = 0;
            memcpy(&reclen, buf + pos + 16, sizeof reclen);
            const char* name = buf + pos + 19;
            uint32_t fd = 0;
            struct stat st {};
            if (parseUnsigned(name, fd) && static_cast<int>(fd) != dir.get() &&
                host::fstat(static_cast<int>(fd), &st) == 0 && st.st_dev == dev &&
                st.st_ino == ino) {
                return true;
            }
            pos += reclen;
        }
    }
}

int failWith(int negErrno) {
    if (negErrno < 0) {
        errno = -negErrno;
        return -1;
    }
    return negErrno;
}

}  // namespace

int openDevice(const PanelDesc& panelDesc, int flags) {
    char path[kPathMax + 16];
    if (!sidePath(panelDesc.file, ".vram", path, sizeof path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    {
        const host::Fd create(host::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        if (!create.valid()) {
            host::report("cannot create video memory %s: %s", path, strerror(errno));
            return -1;
        }
    }
    // A device node is neither created nor truncated by open.
    const int fd = host::open(path, flags & ~(O_CREAT | O_EXCL | O_TRUNC));
    struct stat st {};
    if (fd < 0 || host::fstat(fd, &st) != 0) {
        const int err = errno;
        if (fd >= 0) {
            (void)host::close(fd);  // the open fails as a whole
        }
        errno = err;
        return -1;
    }
    const std::lock_guard<std::mutex> lock(gLock);
    Device* d = findDevice(st.st_dev, st.st_ino);
    if (d == nullptr) {
        d = newDevice(st, panelDesc);
    } else if (!d->clientOpen && (!d->crtc.active || strcmp(d->desc.file, panelDesc.file) != 0)) {
        // Nothing of the last client remains, or the entry is of a removed panel
        // whose video memory file's inode is in use again: start afresh.
        *d = Device{};
        d = newDevice(st, panelDesc);
    }
    if (d == nullptr) {
        host::report("too many DRM panels open at once (at most %u)", kMaxDevices);
        (void)host::close(fd);  // the open fails as a whole
        errno = ENFILE;
        return -1;
    }
    if (!d->clientOpen) {
        d->clientOpen = true;
        d->pid = getpid();
        d->master = d->desc.drm.master;
    }
    gAny.store(true, std::memory_order_release);
    return fd;
}

bool anyDevice() {
    return gAny.load(std::memory_order_acquire);
}

bool isDevice(const struct stat& st, uint32_t* minor) {
    if (!anyDevice()) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(gLock);
    const Device* d = findDevice(st);
    if (d != nullptr && minor != nullptr) {
        *minor = d->minor;
    }
    return d != nullptr;
}

int ioctl(const struct stat& st, unsigned long request, void* arg) {
    std::unique_lock<std::mutex> lock(gLock);
    Device* d = findDevice(st);
    if (d == nullptr) {
        errno = EBADF;
        return -1;
    }
    return failWith(dispatch(*d, request, arg));
}

ssize_t readEvents(const struct stat& st, void* buf, std::size_t count) {
    const std::lock_guard<std::mutex> lock(gLock);
    Device* d = findDevice(st);
    if (d == nullptr) {
        errno = EBADF;
        return -1;
    }
    std::size_t done = 0;
    while (d->eventCount > 0 && count - done >= sizeof(drm_event_vblank)) {
        memcpy(static_cast<char*>(buf) + done, &d->events[d->eventHead], sizeof(drm_event_vblank));
        d->eventHead = (d->eventHead + 1) % kMaxEvents;
        --d->eventCount;
        done += sizeof(drm_event_vblank);
    }
    // Nothing can arrive while the caller waits: events come from its own calls
    // only, so an empty queue answers at once (the kernel would block unless
    // O_NONBLOCK was given).
    if (done == 0 && d->eventCount == 0) {
        errno = EAGAIN;
        return -1;
    }
    return static_cast<ssize_t>(done);
}

short pollEvents(const struct stat& st, short events) {
    const std::lock_guard<std::mutex> lock(gLock);
    const Device* d = findDevice(st);
    return d != nullptr && d->eventCount > 0 ? static_cast<short>(events & (POLLIN | POLLRDNORM))
                                             : 0;
}

void descriptorClosed(const struct stat& st) {
    if (stillOpen(st.st_dev, st.st_ino)) {
        return;
    }
    const std::lock_guard<std::mutex> lock(gLock);
    Device* d = findDevice(st);
    // A forked child closing its copy leaves the parent's client alone.
    if (d != nullptr && d->clientOpen && d->pid == getpid()) {
        releaseClient(*d);
    }
}

void releaseAll() {
    if (!anyDevice()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(gLock);
    for (auto& d : gDevices) {
        if (d.used && d.clientOpen && d.pid == getpid()) {
            releaseClient(d);
        }
    }
}

}  // namespace fakefb::drm
