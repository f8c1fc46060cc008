// libfakefb.so: makes configured device paths behave like Linux framebuffers for a
// program started with LD_PRELOAD. Opening such a path gives a descriptor on a
// backing file; FBIOGET_FSCREENINFO, FBIOGET_VSCREENINFO and FBIOPUTCMAP on it are
// answered from the panel's description; mmap works unchanged because the
// descriptor is a real file.
//
// FAKEFB_CONFIG holds the panel descriptions (geometry files, ':'-separated). It is
// read again at every open, so a test can reconfigure between two opens.
//
// Built without _FORTIFY_SOURCE and _FILE_OFFSET_BITS so that open and open64 (and
// their fortified __open_2 forms) stay the distinct symbols that callers bind to,
// and without sanitizers, because it runs inside programs of either kind.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "dravik_utils/file_descriptor.h"
#include "panel_files.h"

#define FAKEFB_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using dravik::utils::FileDescriptor;
using fakefb::PanelDesc;

using OpenFn = int (*)(const char*, int, ...);
using Open2Fn = int (*)(const char*, int);
using OpenAtFn = int (*)(int, const char*, int, ...);
using OpenAt2Fn = int (*)(int, const char*, int);
using IoctlFn = int (*)(int, unsigned long, ...);

enum RealIndex {
    kOpen,
    kOpen64,
    kOpen2,
    kOpen64_2,
    kOpenat,
    kOpenat64,
    kOpenat2,
    kOpenat64_2,
    kIoctl,
    kRealCount
};

constexpr const char* kRealNames[kRealCount] = {
    "open",     "open64",     "__open_2",     "__open64_2", "openat",
    "openat64", "__openat_2", "__openat64_2", "ioctl",
};

// Resolved on first use: constructors of other libraries may open the device
// before this library's own constructors have run.
std::atomic<void*> gReal[kRealCount];

template <typename Fn>
Fn real(RealIndex index) {
    void* fn = gReal[index].load(std::memory_order_acquire);
    if (fn == nullptr) {
        fn = dlsym(RTLD_NEXT, kRealNames[index]);
        gReal[index].store(fn, std::memory_order_release);
    }
    if (fn == nullptr) {
        errno = ENOSYS;
    }
    return reinterpret_cast<Fn>(fn);
}

std::mutex gReportLock;
char gLastReport[fakefb::kErrorMax + fakefb::kPathMax];

// Prints a problem once; the same problem found again at the next open stays quiet.
void report(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

void report(const char* fmt, ...) {
    char line[sizeof gLastReport];
    va_list ap;
    va_start(ap, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started just above
    (void)vsnprintf(line, sizeof line, fmt, ap);  // a cut message is still a message
    va_end(ap);
    const std::lock_guard<std::mutex> lock(gReportLock);
    if (strcmp(line, gLastReport) == 0) {
        return;
    }
    memcpy(gLastReport, line, sizeof line);
    const int savedErrno = errno;
    (void)!write(STDERR_FILENO, "fakefb: ", 8);  // nowhere to report a failed report
    (void)!write(STDERR_FILENO, line, strlen(line));
    (void)!write(STDERR_FILENO, "\n", 1);
    errno = savedErrno;
}

int openInternal(const char* path, int flags, mode_t mode = 0) {
    const auto openFn = real<OpenFn>(kOpen);
    return openFn == nullptr ? -1 : openFn(path, flags, mode);
}

// Reads a whole small file into buf; false when missing, unreadable or too large.
bool readSmallFile(const char* path, char* buf, std::size_t cap, std::size_t& len) {
    const FileDescriptor fd(openInternal(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        return false;
    }
    len = 0;
    for (;;) {
        const ssize_t n = read(fd.get(), buf + len, cap - len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            return true;
        }
        len += static_cast<std::size_t>(n);
        if (len == cap) {
            errno = EFBIG;
            return false;
        }
    }
}

bool writeWholeFile(const char* path, const char* data, std::size_t len) {
    const FileDescriptor fd(openInternal(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.get() < 0) {
        return false;
    }
    for (std::size_t done = 0; done < len;) {
        const ssize_t n = write(fd.get(), data + done, len - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

enum class Match { kNone, kPanel, kBroken };

void directoryOf(const char* path, char* dir) {
    (void)snprintf(dir, fakefb::kPathMax, "%s", path);  // cut paths fail to open later
    char* slash = strrchr(dir, '/');
    if (slash == nullptr) {
        dir[0] = '\0';
    } else {
        slash[slash == dir ? 1 : 0] = '\0';
    }
}

// Loads one geometry file and says whether it describes the device at path.
Match matchConfigFile(const char* configPath, const char* path, PanelDesc& panelDesc) {
    char text[4096];
    std::size_t len = 0;
    if (!readSmallFile(configPath, text, sizeof text, len)) {
        report("cannot read panel description %s: %s", configPath, strerror(errno));
        return Match::kNone;
    }
    char dir[fakefb::kPathMax];
    directoryOf(configPath, dir);
    char error[fakefb::kErrorMax];
    if (!fakefb::parseDesc(text, len, dir, panelDesc, error, sizeof error)) {
        report("%s: %s", configPath, error);
        // A broken description of this very device must not fall through to a
        // real framebuffer of the same name.
        return strcmp(panelDesc.device, path) == 0 ? Match::kBroken : Match::kNone;
    }
    return strcmp(panelDesc.device, path) == 0 ? Match::kPanel : Match::kNone;
}

Match findConfiguredPanel(int dirfd, const char* path, PanelDesc& panelDesc) {
    if (path == nullptr || (dirfd != AT_FDCWD && path[0] != '/')) {
        return Match::kNone;
    }
    const char* list = getenv("FAKEFB_CONFIG");
    if (list == nullptr) {
        return Match::kNone;
    }
    char configPath[fakefb::kPathMax];
    for (const char* pos = list; *pos != '\0';) {
        const char* colon = strchr(pos, ':');
        const std::size_t n = colon != nullptr ? colon - pos : strlen(pos);
        if (n > 0 && n < sizeof configPath) {
            memcpy(configPath, pos, n);
            configPath[n] = '\0';
            const Match match = matchConfigFile(configPath, path, panelDesc);
            if (match != Match::kNone) {
                return match;
            }
        }
        pos += colon != nullptr ? n + 1 : n;
    }
    return Match::kNone;
}

// Panels opened by this process, known by the backing file's identity so that
// dup'd and reused descriptor numbers need no bookkeeping.
struct OpenPanel {
    bool used = false;
    dev_t dev = 0;
    ino_t ino = 0;
    PanelDesc panelDesc;
};

constexpr unsigned kMaxOpenPanels = 16;
std::mutex gPanelLock;
OpenPanel gOpenPanels[kMaxOpenPanels];
unsigned gNextSlot = 0;
std::atomic<bool> gAnyPanel{false};

OpenPanel& slotFor(dev_t dev, ino_t ino) {
    for (auto& panel : gOpenPanels) {
        if (panel.used && panel.dev == dev && panel.ino == ino) {
            return panel;
        }
    }
    for (auto& panel : gOpenPanels) {
        if (!panel.used) {
            return panel;
        }
    }
    return gOpenPanels[gNextSlot++ % kMaxOpenPanels];
}

void rememberPanel(const struct stat& st, const PanelDesc& panelDesc) {
    const std::lock_guard<std::mutex> lock(gPanelLock);
    OpenPanel& slot = slotFor(st.st_dev, st.st_ino);
    slot.used = true;
    slot.dev = st.st_dev;
    slot.ino = st.st_ino;
    slot.panelDesc = panelDesc;
    gAnyPanel.store(true, std::memory_order_release);
}

bool findOpenPanel(int fd, PanelDesc& panelDesc) {
    if (!gAnyPanel.load(std::memory_order_acquire)) {
        return false;
    }
    const int savedErrno = errno;
    struct stat st {};
    const bool statted = fstat(fd, &st) == 0;
    errno = savedErrno;
    if (!statted) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(gPanelLock);
    for (const auto& panel : gOpenPanels) {
        if (panel.used && panel.dev == st.st_dev && panel.ino == st.st_ino) {
            panelDesc = panel.panelDesc;
            return true;
        }
    }
    return false;
}

// The backing file must be exactly one frame long: a mapping beyond its end
// raises SIGBUS on first touch.
bool prepareBackingFile(const PanelDesc& panelDesc) {
    const FileDescriptor fd(openInternal(panelDesc.file, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    struct stat st {};
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
        report("cannot open backing file %s: %s", panelDesc.file, strerror(errno));
        return false;
    }
    const auto size = static_cast<off_t>(panelDesc.geometry.frameSize());
    if (st.st_size != size && ftruncate(fd.get(), size) != 0) {
        report("cannot size backing file %s: %s", panelDesc.file, strerror(errno));
        return false;
    }
    return true;
}

int openPanel(const PanelDesc& panelDesc, int flags) {
    if (!prepareBackingFile(panelDesc)) {
        return -1;
    }
    // A device node is neither created nor truncated by open.
    FileDescriptor fd(openInternal(panelDesc.file, flags & ~(O_CREAT | O_EXCL | O_TRUNC)));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0) {
        return -1;  // the open fails as a whole, with the errno of the failed step
    }
    rememberPanel(st, panelDesc);
    return fd.release();
}

// True when the path names a configured panel; fd then holds open's result.
bool routeToPanel(int dirfd, const char* path, int flags, int& fd) {
    const int savedErrno = errno;
    PanelDesc panelDesc;
    switch (findConfiguredPanel(dirfd, path, panelDesc)) {
        case Match::kNone:
            errno = savedErrno;
            return false;
        case Match::kBroken:
            errno = EINVAL;
            fd = -1;
            return true;
        case Match::kPanel:
            break;
    }
    fd = openPanel(panelDesc, flags);
    if (fd >= 0) {
        errno = savedErrno;
    }
    return true;
}

bool needsMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

int fillFixedInfo(const PanelDesc& panelDesc, void* arg) {
    const fakefb::Geometry& geometry = panelDesc.geometry;
    fb_fix_screeninfo fix{};
    (void)snprintf(fix.id, sizeof fix.id, "fakefb");  // fits
    fix.smem_len = static_cast<uint32_t>(geometry.frameSize());
    fix.type = fakefb::kTypePackedPixels;
    fix.visual = static_cast<uint32_t>(geometry.visual);
    fix.line_length = geometry.lineLength;
    fix.accel = FB_ACCEL_NONE;
    memcpy(arg, &fix, sizeof fix);
    return 0;
}

fb_bitfield bitfield(const fakefb::Channel& channel) {
    fb_bitfield field{};
    field.offset = channel.offset;
    field.length = channel.length;
    return field;
}

int fillVariableInfo(const PanelDesc& panelDesc, void* arg) {
    const fakefb::Geometry& geometry = panelDesc.geometry;
    fb_var_screeninfo var{};
    var.xres = var.xres_virtual = geometry.width;
    var.yres = var.yres_virtual = geometry.height;
    var.bits_per_pixel = geometry.bpp;
    var.red = bitfield(geometry.red);
    var.green = bitfield(geometry.green);
    var.blue = bitfield(geometry.blue);
    var.transp = bitfield(geometry.transp);
    memcpy(arg, &var, sizeof var);
    return 0;
}

int failWith(int err) {
    errno = err;
    return -1;
}

void copyEntries(uint16_t* dst, const uint16_t* src, const fb_cmap& cmap) {
    memcpy(dst + cmap.start, src, cmap.len * sizeof(uint16_t));
}

std::mutex gCmapLock;

// The device keeps its colour map between writes: merge into the recorded map.
int putColourMap(const PanelDesc& panelDesc, void* arg) {
    // A truecolor device has no programmable map; the kernel refuses 256 entries.
    if (panelDesc.geometry.visual == fakefb::Visual::truecolor) {
        return failWith(EINVAL);
    }
    fb_cmap cmap{};
    memcpy(&cmap, arg, sizeof cmap);
    if (cmap.len == 0 || cmap.start >= fakefb::kCmapEntries ||
        cmap.len > fakefb::kCmapEntries - cmap.start) {
        return failWith(EINVAL);
    }
    if (cmap.red == nullptr || cmap.green == nullptr || cmap.blue == nullptr) {
        return failWith(EFAULT);
    }
    char path[fakefb::kPathMax];
    char tmpPath[fakefb::kPathMax];
    if (!fakefb::sidePath(panelDesc.file, ".cmap", path, sizeof path) ||
        !fakefb::sidePath(panelDesc.file, ".cmap.tmp", tmpPath, sizeof tmpPath)) {
        return failWith(ENAMETOOLONG);
    }
    const std::lock_guard<std::mutex> lock(gCmapLock);
    static fakefb::ColourMapRecord record;  // large; guarded by gCmapLock
    static char text[fakefb::kColourMapTextMax];
    std::size_t len = 0;
    if (!readSmallFile(path, text, sizeof text, len) ||
        !fakefb::parseColourMap(text, len, record)) {
        record = fakefb::ColourMapRecord{};
    }
    copyEntries(record.red, cmap.red, cmap);
    copyEntries(record.green, cmap.green, cmap);
    copyEntries(record.blue, cmap.blue, cmap);
    if (cmap.transp != nullptr) {
        copyEntries(record.transp, cmap.transp, cmap);
    }
    ++record.writes;
    const int n = fakefb::formatColourMap(record, text, sizeof text);
    // Replaced in one step, so a snapshot taken meanwhile sees the old or the new map.
    if (n < 0 || !writeWholeFile(tmpPath, text, static_cast<std::size_t>(n)) ||
        rename(tmpPath, path) != 0) {
        report("cannot record the colour map in %s: %s", path, strerror(errno));
        return failWith(EIO);
    }
    return 0;
}

struct PanelIoctl {
    unsigned long request;
    int (*answer)(const PanelDesc& panelDesc, void* arg);
};

constexpr PanelIoctl kPanelIoctls[] = {
    {FBIOGET_FSCREENINFO, fillFixedInfo},
    {FBIOGET_VSCREENINFO, fillVariableInfo},
    {FBIOPUTCMAP, putColourMap},
};

int panelIoctl(const PanelDesc& panelDesc, unsigned long request, void* arg) {
    for (const auto& entry : kPanelIoctls) {
        if (entry.request == request) {
            return arg == nullptr ? failWith(EFAULT) : entry.answer(panelDesc, arg);
        }
    }
    return failWith(ENOTTY);
}

}  // namespace

// Lets a program see that it runs with the simulator loaded.
FAKEFB_EXPORT int fakefb_preloaded(void) {
    return 1;
}

// Every open entry point: a configured panel path opens its backing file;
// anything else goes to the next definition of the same entry point, called
// with `nextArgs` (its own argument list).
template <typename Fn, typename... Args>
int routeOrForward(RealIndex index, int dirfd, const char* path, int flags, Args... nextArgs) {
    int fd = -1;
    if (routeToPanel(dirfd, path, flags, fd)) {
        return fd;
    }
    const auto next = real<Fn>(index);
    return next == nullptr ? -1 : next(nextArgs...);
}

// The mode argument of a variadic open: present only when the flags create a file.
#define FAKEFB_MODE_ARGUMENT(flags, mode)                                        \
    mode_t mode = 0;                                                             \
    do {                                                                         \
        va_list ap;                                                              \
        va_start(ap, flags);                                                     \
        /* NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started above */ \
        mode = needsMode(flags) ? va_arg(ap, mode_t) : 0;                        \
        va_end(ap);                                                              \
    } while (0)

FAKEFB_EXPORT int open(const char* path, int flags, ...) {
    FAKEFB_MODE_ARGUMENT(flags, mode);
    return routeOrForward<OpenFn>(kOpen, AT_FDCWD, path, flags, path, flags, mode);
}

FAKEFB_EXPORT int open64(const char* path, int flags, ...) {
    FAKEFB_MODE_ARGUMENT(flags, mode);
    return routeOrForward<OpenFn>(kOpen64, AT_FDCWD, path, flags, path, flags, mode);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's fortified entry point
FAKEFB_EXPORT int __open_2(const char* path, int flags) {
    return routeOrForward<Open2Fn>(kOpen2, AT_FDCWD, path, flags, path, flags);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's fortified entry point
FAKEFB_EXPORT int __open64_2(const char* path, int flags) {
    return routeOrForward<Open2Fn>(kOpen64_2, AT_FDCWD, path, flags, path, flags);
}

FAKEFB_EXPORT int openat(int dirfd, const char* path, int flags, ...) {
    FAKEFB_MODE_ARGUMENT(flags, mode);
    return routeOrForward<OpenAtFn>(kOpenat, dirfd, path, flags, dirfd, path, flags, mode);
}

FAKEFB_EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
    FAKEFB_MODE_ARGUMENT(flags, mode);
    return routeOrForward<OpenAtFn>(kOpenat64, dirfd, path, flags, dirfd, path, flags, mode);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's fortified entry point
FAKEFB_EXPORT int __openat_2(int dirfd, const char* path, int flags) {
    return routeOrForward<OpenAt2Fn>(kOpenat2, dirfd, path, flags, dirfd, path, flags);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's fortified entry point
FAKEFB_EXPORT int __openat64_2(int dirfd, const char* path, int flags) {
    return routeOrForward<OpenAt2Fn>(kOpenat64_2, dirfd, path, flags, dirfd, path, flags);
}

FAKEFB_EXPORT int ioctl(int fd, unsigned long request, ...) {
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    PanelDesc panelDesc;
    if (findOpenPanel(fd, panelDesc)) {
        return panelIoctl(panelDesc, request, arg);
    }
    const auto next = real<IoctlFn>(kIoctl);
    return next == nullptr ? -1 : next(fd, request, arg);
}
