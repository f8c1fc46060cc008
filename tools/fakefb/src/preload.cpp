// libfakefb.so: makes configured device paths behave like Linux framebuffers for a
// program started with LD_PRELOAD. Opening such a path gives a descriptor on a
// backing file; FBIOGET_FSCREENINFO, FBIOGET_VSCREENINFO and FBIOPUTCMAP on it are
// answered from the panel's description; mmap works unchanged because the
// descriptor is a real file.
//
// A panel of kind drm is a DRM/KMS device instead (drm_device.h): its descriptor
// is on the panel's video memory file, its ioctls are the KMS ones, read() and
// poll() deliver its events, close() ends its client, and fstat() reports it as
// the character device 226:N that the path names.
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
#include <poll.h>
#include <signal.h>
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
#include "drm_device.h"
#include "panel_files.h"
#include "preload_host.h"

#define FAKEFB_EXPORT extern "C" __attribute__((visibility("default")))

// glibc's report of a fortified call's overflow; declared only inside glibc.
extern "C" [[noreturn]] void __chk_fail(void);  // NOLINT(bugprone-reserved-identifier)

namespace {

using dravik::utils::FileDescriptor;
using fakefb::PanelDesc;

using OpenFn = int (*)(const char*, int, ...);
using Open2Fn = int (*)(const char*, int);
using OpenAtFn = int (*)(int, const char*, int, ...);
using OpenAt2Fn = int (*)(int, const char*, int);
using IoctlFn = int (*)(int, unsigned long, ...);
using CloseFn = int (*)(int);
using ReadFn = ssize_t (*)(int, void*, size_t);
using ReadChkFn = ssize_t (*)(int, void*, size_t, size_t);
using PollFn = int (*)(pollfd*, nfds_t, int);
using PpollFn = int (*)(pollfd*, nfds_t, const timespec*, const sigset_t*);
using FstatFn = int (*)(int, struct stat*);
using Fstat64Fn = int (*)(int, struct stat64*);
using FxstatFn = int (*)(int, int, struct stat*);
using Fxstat64Fn = int (*)(int, int, struct stat64*);
using FstatatFn = int (*)(int, const char*, struct stat*, int);
using Fstatat64Fn = int (*)(int, const char*, struct stat64*, int);
using FxstatatFn = int (*)(int, int, const char*, struct stat*, int);
using Fxstatat64Fn = int (*)(int, int, const char*, struct stat64*, int);

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
    kClose,
    kRead,
    kReadChk,
    kPoll,
    kPpoll,
    kFstat,
    kFstat64,
    kFxstat,
    kFxstat64,
    kFstatat,
    kFstatat64,
    kFxstatat,
    kFxstatat64,
    kRealCount
};

constexpr const char* kRealNames[kRealCount] = {
    "open",       "open64",       "__open_2",   "__open64_2",   "openat",   "openat64",
    "__openat_2", "__openat64_2", "ioctl",      "close",        "read",     "__read_chk",
    "poll",       "ppoll",        "fstat",      "fstat64",      "__fxstat", "__fxstat64",
    "fstatat",    "fstatat64",    "__fxstatat", "__fxstatat64",
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

// Prints a problem once; the same problem found again at the next open stays
// quiet. The library's code reports through fakefb::host::report.
using fakefb::host::report;
void reportArgs(const char* fmt, va_list ap) __attribute__((format(printf, 1, 0)));

void reportArgs(const char* fmt, va_list ap) {
    char line[sizeof gLastReport];
    (void)vsnprintf(line, sizeof line, fmt, ap);  // a cut message is still a message
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

// The real fstat: the wrapped one disguises DRM panels.
int statInternal(int fd, struct stat* st) {
    const auto fstatFn = real<FstatFn>(kFstat);
    return fstatFn == nullptr ? -1 : fstatFn(fd, st);
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
    const bool statted = statInternal(fd, &st) == 0;
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
    if (fd.get() < 0 || statInternal(fd.get(), &st) != 0) {
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
    if (panelDesc.kind == fakefb::PanelKind::drm) {
        return fakefb::drm::openDevice(panelDesc, flags);
    }
    // A device node is neither created nor truncated by open.
    FileDescriptor fd(openInternal(panelDesc.file, flags & ~(O_CREAT | O_EXCL | O_TRUNC)));
    struct stat st {};
    if (!fd.valid() || statInternal(fd.get(), &st) != 0) {
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

// The real fstat of fd when this process has opened a DRM panel (errno kept);
// false otherwise, and for descriptors that cannot be statted.
bool statIfDrm(int fd, struct stat& st) {
    if (!fakefb::drm::anyDevice()) {
        return false;
    }
    const int savedErrno = errno;
    const bool statted = statInternal(fd, &st) == 0;
    errno = savedErrno;
    return statted && fakefb::drm::isDevice(st);
}

// Takes the DRM panels out of a poll set (their descriptors are regular files,
// always readable, to the kernel) and notes which events they have themselves.
// Sets up to kPollMarks entries; a larger set's later entries poll as files.
constexpr nfds_t kPollMarks = 4096;

struct PollSplit {
    unsigned char hidden[kPollMarks / 8] = {};
    int ready = 0;
};

void hideDevices(pollfd* fds, nfds_t n, PollSplit& split) {
    for (nfds_t i = 0; i < n && i < kPollMarks; ++i) {
        struct stat st {};
        if (fds[i].fd < 0 || !statIfDrm(fds[i].fd, st)) {
            continue;
        }
        const short revents = fakefb::drm::pollEvents(st, fds[i].events);
        split.ready += revents != 0 ? 1 : 0;
        split.hidden[i / 8] |= static_cast<unsigned char>(1u << (i % 8));
        fds[i].fd = ~fds[i].fd;  // a negative descriptor is skipped by poll
        fds[i].revents = revents;
    }
}

int restoreDevices(pollfd* fds, nfds_t n, const PollSplit& split, int result) {
    for (nfds_t i = 0; i < n && i < kPollMarks; ++i) {
        if ((split.hidden[i / 8] & (1u << (i % 8))) != 0) {
            const short revents = fds[i].revents;
            fds[i].fd = ~fds[i].fd;
            // poll clears revents of skipped entries: recompute.
            struct stat st {};
            fds[i].revents =
                statIfDrm(fds[i].fd, st) ? fakefb::drm::pollEvents(st, fds[i].events) : revents;
        }
    }
    return result < 0 ? result : result + split.ready;
}

// Polls, with the DRM panels answered here; an event waiting means no wait.
template <typename Call>
int pollWithDevices(pollfd* fds, nfds_t n, Call call) {
    if (!fakefb::drm::anyDevice()) {
        return call(false);
    }
    PollSplit split;
    hideDevices(fds, n, split);
    const int result = call(split.ready > 0);
    return restoreDevices(fds, n, split, result);
}

// Runs a real stat-family call and disguises a DRM panel's result.
template <typename Stat, typename Call>
int statAndDisguise(Stat* st, Call call) {
    const int result = call();
    if (result == 0 && st != nullptr) {
        fakefb::drm::disguise(*st);
    }
    return result;
}

bool emptyPathOfFd(const char* path, int flags) {
    return (flags & AT_EMPTY_PATH) != 0 && path != nullptr && path[0] == '\0';
}

}  // namespace

namespace fakefb::host {

int open(const char* path, int flags, mode_t mode) {
    return openInternal(path, flags, mode);
}

int close(int fd) {
    const auto closeFn = real<CloseFn>(kClose);
    return closeFn == nullptr ? -1 : closeFn(fd);
}

int fstat(int fd, struct stat* st) {
    return statInternal(fd, st);
}

void report(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    reportArgs(fmt, ap);
    va_end(ap);
}

}  // namespace fakefb::host

// A DRM panel's client ends when the process exits with its descriptor open.
__attribute__((destructor)) static void releaseDrmClients() {
    fakefb::drm::releaseAll();
}

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
    struct stat st {};
    if (statIfDrm(fd, st)) {
        return fakefb::drm::ioctl(st, request, arg);
    }
    PanelDesc panelDesc;
    if (findOpenPanel(fd, panelDesc)) {
        return panelIoctl(panelDesc, request, arg);
    }
    const auto next = real<IoctlFn>(kIoctl);
    return next == nullptr ? -1 : next(fd, request, arg);
}

FAKEFB_EXPORT ssize_t read(int fd, void* buf, size_t count) {
    struct stat st {};
    if (statIfDrm(fd, st)) {
        return fakefb::drm::readEvents(st, buf, count);
    }
    const auto next = real<ReadFn>(kRead);
    return next == nullptr ? -1 : next(fd, buf, count);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's fortified entry point
FAKEFB_EXPORT ssize_t __read_chk(int fd, void* buf, size_t count, size_t bufLen) {
    struct stat st {};
    if (count <= bufLen && statIfDrm(fd, st)) {
        return fakefb::drm::readEvents(st, buf, count);
    }
    const auto next = real<ReadChkFn>(kReadChk);  // reports the overflow itself
    return next == nullptr ? -1 : next(fd, buf, count, bufLen);
}

FAKEFB_EXPORT int close(int fd) {
    struct stat st {};
    const bool device = statIfDrm(fd, st);
    const auto next = real<CloseFn>(kClose);
    const int result = next == nullptr ? -1 : next(fd);
    if (device && result == 0) {
        const int savedErrno = errno;
        fakefb::drm::descriptorClosed(st);
        errno = savedErrno;
    }
    return result;
}

FAKEFB_EXPORT int poll(pollfd* fds, nfds_t n, int timeout) {
    const auto next = real<PollFn>(kPoll);
    if (next == nullptr) {
        return -1;
    }
    return pollWithDevices(fds, n,
                           [&](bool eventWaits) { return next(fds, n, eventWaits ? 0 : timeout); });
}

FAKEFB_EXPORT int ppoll(pollfd* fds, nfds_t n, const timespec* timeout, const sigset_t* mask) {
    const auto next = real<PpollFn>(kPpoll);
    if (next == nullptr) {
        return -1;
    }
    return pollWithDevices(fds, n, [&](bool eventWaits) {
        const timespec now{0, 0};
        return next(fds, n, eventWaits ? &now : timeout, mask);
    });
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's fortified entry point
FAKEFB_EXPORT int __poll_chk(pollfd* fds, nfds_t n, int timeout, size_t fdsLen) {
    if (fdsLen / sizeof(*fds) < n) {
        __chk_fail();
    }
    return poll(fds, n, timeout);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's fortified entry point
FAKEFB_EXPORT int __ppoll_chk(pollfd* fds, nfds_t n, const timespec* timeout, const sigset_t* mask,
                              size_t fdsLen) {
    if (fdsLen / sizeof(*fds) < n) {
        __chk_fail();
    }
    return ppoll(fds, n, timeout, mask);
}

FAKEFB_EXPORT int fstat(int fd, struct stat* st) {
    return statAndDisguise(st, [&] { return statInternal(fd, st); });
}

FAKEFB_EXPORT int fstat64(int fd, struct stat64* st) {
    const auto next = real<Fstat64Fn>(kFstat64);
    return statAndDisguise(st, [&] { return next == nullptr ? -1 : next(fd, st); });
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's entry point for old binaries
FAKEFB_EXPORT int __fxstat(int ver, int fd, struct stat* st) {
    const auto next = real<FxstatFn>(kFxstat);
    return statAndDisguise(st, [&] { return next == nullptr ? -1 : next(ver, fd, st); });
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's entry point for old binaries
FAKEFB_EXPORT int __fxstat64(int ver, int fd, struct stat64* st) {
    const auto next = real<Fxstat64Fn>(kFxstat64);
    return statAndDisguise(st, [&] { return next == nullptr ? -1 : next(ver, fd, st); });
}

FAKEFB_EXPORT int fstatat(int dirfd, const char* path, struct stat* st, int flags) {
    const auto next = real<FstatatFn>(kFstatat);
    const int result = next == nullptr ? -1 : next(dirfd, path, st, flags);
    return emptyPathOfFd(path, flags) ? statAndDisguise(st, [result] { return result; }) : result;
}

FAKEFB_EXPORT int fstatat64(int dirfd, const char* path, struct stat64* st, int flags) {
    const auto next = real<Fstatat64Fn>(kFstatat64);
    const int result = next == nullptr ? -1 : next(dirfd, path, st, flags);
    return emptyPathOfFd(path, flags) ? statAndDisguise(st, [result] { return result; }) : result;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's entry point for old binaries
FAKEFB_EXPORT int __fxstatat(int ver, int dirfd, const char* path, struct stat* st, int flags) {
    const auto next = real<FxstatatFn>(kFxstatat);
    const int result = next == nullptr ? -1 : next(ver, dirfd, path, st, flags);
    return emptyPathOfFd(path, flags) ? statAndDisguise(st, [result] { return result; }) : result;
}

// NOLINTNEXTLINE(bugprone-reserved-identifier): glibc's entry point for old binaries
FAKEFB_EXPORT int __fxstatat64(int ver, int dirfd, const char* path, struct stat64* st, int flags) {
    const auto next = real<Fxstatat64Fn>(kFxstatat64);
    const int result = next == nullptr ? -1 : next(ver, dirfd, path, st, flags);
    return emptyPathOfFd(path, flags) ? statAndDisguise(st, [result] { return result; }) : result;
}
