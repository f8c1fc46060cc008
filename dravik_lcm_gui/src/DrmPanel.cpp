#include "DrmPanel.h"

#include <drm_fourcc.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>

#include "dravik_logger/logger.h"
#include "dravik_utils/drm_objects.h"

namespace dravik::lcmgui {

namespace {

constexpr unsigned kDrmMajor = 226;

using utils::drm::Connector;
using utils::drm::Encoder;
using utils::drm::Plane;
using utils::drm::Property;
using utils::drm::Resources;
using PlaneList = utils::drm::PlaneResources;
using Properties = utils::drm::ObjectProperties;

// The connector's name as the kernel gives it in /sys/class/drm: "HDMI-A-1".
std::string nameOf(const drmModeConnector& connector) {
    const char* type = drmModeGetConnectorTypeName(connector.connector_type);
    return std::string(type != nullptr ? type : "Unknown") + "-" +
           std::to_string(connector.connector_type_id);
}

// The value of the object's property `name`; false when it has none.
bool propertyValue(int fd, uint32_t objectId, uint32_t objectType, const char* name,
                   uint64_t& value) {
    const Properties props(drmModeObjectGetProperties(fd, objectId, objectType));
    if (!props) {
        return false;
    }
    for (uint32_t i = 0; i < props->count_props; ++i) {
        const Property prop(drmModeGetProperty(fd, props->props[i]));
        if (prop && std::strcmp(prop->name, name) == 0) {
            value = props->prop_values[i];
            return true;
        }
    }
    return false;
}

// The panel's channels for the formats the engine converts to.
struct FormatLayout {
    uint32_t fourcc;
    unsigned bpp;
    fb_bitfield red, green, blue;
};

constexpr FormatLayout kFormats[] = {
    {DRM_FORMAT_XRGB8888, 32, {16, 8, 0}, {8, 8, 0}, {0, 8, 0}},
    {DRM_FORMAT_RGB565, 16, {11, 5, 0}, {5, 6, 0}, {0, 5, 0}},
};

const FormatLayout* layoutOf(uint32_t fourcc) {
    for (const auto& layout : kFormats) {
        if (layout.fourcc == fourcc) {
            return &layout;
        }
    }
    return nullptr;
}

int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

bool DrmPanel::isDrmDevice(int fd) {
    struct stat st {};
    return fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) && major(st.st_rdev) == kDrmMajor;
}

DrmPanel::~DrmPanel() {
    if (fd < 0) {
        return;
    }
    // The frame on show is handed to the kernel so that the panel keeps it
    // after the daemon has gone; a kernel without CLOSEFB removes it with the
    // descriptor and turns the display off.
    const Buffer& shown = buffers[front];
    if (shown.fbId != 0) {
        drm_mode_closefb closefb = {};
        closefb.fb_id = shown.fbId;
        if (drmIoctl(fd, DRM_IOCTL_MODE_CLOSEFB, &closefb) != 0) {
            DRAVIK_LOG(logger::kInfo, errno,
                       "DRM device %s: the kernel cannot keep the last frame; the panel turns off",
                       device.c_str());
        }
    }
    for (auto& buffer : buffers) {
        if (buffer.memory != nullptr) {
            munmap(buffer.memory, buffer.size);
        }
    }
    close(fd);
}

bool DrmPanel::start(int deviceFd, const std::string& devicePath, const std::string& connector) {
    fd = deviceFd;
    device = devicePath;
    if (!becomeMaster()) {
        DRAVIK_LOG(logger::kError, errno,
                   "DRM device %s: not DRM master, another program holds the display",
                   device.c_str());
        return false;
    }
    uint64_t dumb = 0;
    if (drmGetCap(fd, DRM_CAP_DUMB_BUFFER, &dumb) != 0 || dumb == 0) {
        DRAVIK_LOG(logger::kError, 0, "DRM device %s: no dumb buffers", device.c_str());
        return false;
    }
    // Without it the primary plane is not listed, and its formats stay unknown.
    (void)drmSetClientCap(fd, DRM_CLIENT_CAP_UNIVERSAL_PLANES, 1);
    if (!chooseConnector(connector) || !chooseCrtc() || !chooseFormat()) {
        return false;
    }
    if (!createBuffer(buffers[0])) {
        DRAVIK_LOG(logger::kError, errno, "DRM device %s: no dumb buffers of %ux%u at %u bpp",
                   device.c_str(), format.xres, format.yres, format.bits_per_pixel);
        return false;
    }
    if (!setMode()) {
        DRAVIK_LOG(logger::kError, errno, "DRM device %s: mode set on connector %s failed",
                   device.c_str(), connectorName.c_str());
        return false;
    }
    startFlipping();
    DRAVIK_LOG(logger::kInfo, 0, "DRM device %s: connector %s, %ux%u, %.4s, %s", device.c_str(),
               connectorName.c_str(), format.xres, format.yres,
               reinterpret_cast<const char*>(&fourcc), flipping ? "page flips" : "one buffer");
    return true;
}

bool DrmPanel::becomeMaster() {
    // The first program to open the device is its master; another one holding
    // it makes drmSetMaster fail.
    return drmIsMaster(fd) != 0 || drmSetMaster(fd) == 0;
}

bool DrmPanel::chooseConnector(const std::string& wanted) {
    const Resources res(drmModeGetResources(fd));
    if (!res) {
        DRAVIK_LOG(logger::kError, errno, "DRM device %s: not a KMS device", device.c_str());
        return false;
    }
    for (int i = 0; i < res->count_connectors; ++i) {
        const Connector connector(drmModeGetConnector(fd, res->connectors[i]));
        if (!connector) {
            continue;
        }
        const std::string name = nameOf(*connector);
        if (!wanted.empty() && name != wanted &&
            std::to_string(connector->connector_id) != wanted) {
            continue;
        }
        if (connector->connection != DRM_MODE_CONNECTED || connector->count_modes == 0) {
            if (!wanted.empty()) {
                DRAVIK_LOG(logger::kError, 0, "DRM device %s: connector %s is not connected",
                           device.c_str(), name.c_str());
                return false;
            }
            continue;
        }
        const drmModeModeInfo* mode = &connector->modes[0];
        for (int m = 0; m < connector->count_modes; ++m) {
            if ((connector->modes[m].type & DRM_MODE_TYPE_PREFERRED) != 0) {
                mode = &connector->modes[m];
                break;
            }
        }
        const auto* bytes = reinterpret_cast<const unsigned char*>(mode);
        modeInfo.assign(bytes, bytes + sizeof *mode);
        connectorId = connector->connector_id;
        connectorName = name;
        readOrientation();
        format.xres = format.xres_virtual = mode->hdisplay;
        format.yres = format.yres_virtual = mode->vdisplay;
        return true;
    }
    if (wanted.empty()) {
        DRAVIK_LOG(logger::kError, 0, "DRM device %s: no connected connector", device.c_str());
    } else {
        DRAVIK_LOG(logger::kError, 0, "DRM device %s: no connector %s", device.c_str(),
                   wanted.c_str());
    }
    return false;
}

void DrmPanel::readOrientation() {
    // "Left Side Up": the panel is mounted turned a quarter clockwise (its left
    // edge at the top), so the picture is turned a quarter back: 270.
    static const int kTurns[] = {0, 180, 270,
                                 90};  // Normal, Upside Down, Left Side Up, Right Side Up
    uint64_t value = 0;
    if (propertyValue(fd, connectorId, DRM_MODE_OBJECT_CONNECTOR, "panel orientation", value) &&
        value < std::size(kTurns)) {
        panelOrientation = kTurns[value];
    }
}

bool DrmPanel::chooseCrtc() {
    const Resources res(drmModeGetResources(fd));
    const Connector connector(drmModeGetConnector(fd, connectorId));
    if (res && connector) {
        for (int e = 0; e < connector->count_encoders && crtcId == 0; ++e) {
            const Encoder encoder(drmModeGetEncoder(fd, connector->encoders[e]));
            for (int c = 0; encoder && c < res->count_crtcs; ++c) {
                if ((encoder->possible_crtcs & (1U << c)) != 0) {
                    crtcId = res->crtcs[c];
                    crtcIndex = static_cast<unsigned>(c);
                    break;
                }
            }
        }
    }
    if (crtcId == 0) {
        DRAVIK_LOG(logger::kError, 0, "DRM device %s: no CRTC can drive connector %s",
                   device.c_str(), connectorName.c_str());
        return false;
    }
    const PlaneList planes(drmModeGetPlaneResources(fd));
    for (uint32_t p = 0; planes && p < planes->count_planes && planeId == 0; ++p) {
        const Plane plane(drmModeGetPlane(fd, planes->planes[p]));
        uint64_t type = 0;
        if (plane && (plane->possible_crtcs & (1U << crtcIndex)) != 0 &&
            propertyValue(fd, plane->plane_id, DRM_MODE_OBJECT_PLANE, "type", type) &&
            type == DRM_PLANE_TYPE_PRIMARY) {
            planeId = plane->plane_id;
            planeFormats.assign(plane->formats, plane->formats + plane->count_formats);
        }
    }
    return true;
}

bool DrmPanel::chooseFormat() {
    // A driver that lists no primary plane drives XRGB8888 (every KMS driver
    // takes it for its legacy mode set); 16-bit panels say so by their
    // preferred depth, and take RGB565 where the plane has it.
    uint64_t depth = 0;
    (void)drmGetCap(fd, DRM_CAP_DUMB_PREFERRED_DEPTH, &depth);
    const uint32_t order16[] = {DRM_FORMAT_RGB565, DRM_FORMAT_XRGB8888};
    const uint32_t order32[] = {DRM_FORMAT_XRGB8888, DRM_FORMAT_RGB565};
    const uint32_t* order = depth == 16 ? order16 : order32;
    fourcc = 0;
    for (unsigned i = 0; i < 2 && fourcc == 0; ++i) {
        if (planeFormats.empty() ? order[i] == DRM_FORMAT_XRGB8888
                                 : std::find(planeFormats.begin(), planeFormats.end(), order[i]) !=
                                       planeFormats.end()) {
            fourcc = order[i];
        }
    }
    const FormatLayout* layout = layoutOf(fourcc);
    if (layout == nullptr) {
        DRAVIK_LOG(logger::kError, 0,
                   "DRM device %s: the primary plane takes neither XRGB8888 nor RGB565",
                   device.c_str());
        return false;
    }
    format.bits_per_pixel = layout->bpp;
    format.red = layout->red;
    format.green = layout->green;
    format.blue = layout->blue;
    return true;
}

bool DrmPanel::createBuffer(Buffer& buffer) {
    drm_mode_create_dumb create = {};
    create.width = format.xres;
    create.height = format.yres;
    create.bpp = format.bits_per_pixel;
    if (drmIoctl(fd, DRM_IOCTL_MODE_CREATE_DUMB, &create) != 0) {
        return false;
    }
    buffer.handle = create.handle;
    if (pitch != 0 && create.pitch != pitch) {
        destroyBuffer(buffer);
        errno = EINVAL;  // both buffers are drawn with one line length
        return false;
    }
    pitch = create.pitch;
    const uint32_t handles[4] = {create.handle};
    const uint32_t pitches[4] = {create.pitch};
    const uint32_t offsets[4] = {0};
    if (drmModeAddFB2(fd, format.xres, format.yres, fourcc, handles, pitches, offsets, &buffer.fbId,
                      0) != 0) {
        destroyBuffer(buffer);
        return false;
    }
    drm_mode_map_dumb map = {};
    map.handle = create.handle;
    if (drmIoctl(fd, DRM_IOCTL_MODE_MAP_DUMB, &map) != 0) {
        destroyBuffer(buffer);
        return false;
    }
    void* memory = mmap(nullptr, create.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                        static_cast<off_t>(map.offset));
    if (memory == MAP_FAILED) {
        destroyBuffer(buffer);
        return false;
    }
    buffer.memory = static_cast<unsigned char*>(memory);
    buffer.size = create.size;
    std::memset(buffer.memory, 0, buffer.size);
    return true;
}

void DrmPanel::destroyBuffer(Buffer& buffer) {
    const int saved = errno;
    if (buffer.memory != nullptr) {
        munmap(buffer.memory, buffer.size);
    }
    if (buffer.fbId != 0) {
        (void)drmModeRmFB(fd, buffer.fbId);
    }
    if (buffer.handle != 0) {
        drm_mode_destroy_dumb destroy = {};
        destroy.handle = buffer.handle;
        (void)drmIoctl(fd, DRM_IOCTL_MODE_DESTROY_DUMB, &destroy);
    }
    buffer = Buffer{};
    errno = saved;
}

bool DrmPanel::setMode() {
    drmModeModeInfo mode;
    std::memcpy(&mode, modeInfo.data(), sizeof mode);
    return drmModeSetCrtc(fd, crtcId, buffers[0].fbId, 0, 0, &connectorId, 1, &mode) == 0;
}

void DrmPanel::startFlipping() {
    // Page flips need vertical blanking to be worth it: displays without it
    // (memory read by the host, SPI panels) are updated by clips alone.
    uint64_t sequence = 0;
    uint64_t ns = 0;
    if (drmCrtcGetSequence(fd, crtcId, &sequence, &ns) != 0) {
        return;
    }
    if (!createBuffer(buffers[1])) {
        DRAVIK_LOG(logger::kWarning, errno,
                   "DRM device %s: no second buffer; drawing into the one on show", device.c_str());
        return;
    }
    flipping = true;
    front = 0;
    back = 1;
}

unsigned char* DrmPanel::beginFrame() {
    if (flipPending && !waitForFlip()) {
        stopFlipping("did not complete in time");
    }
    return buffers[back].memory;
}

bool DrmPanel::present(const PanelRect& rect) {
    Buffer& drawn = buffers[back];
    if (flipping) {
        drawn.stale.clear();
        flush(drawn, {rect});
        return flip(rect);
    }
    // One buffer: the rectangles drawn again reach the display with this one.
    drawn.stale.push_back(rect);
    flush(drawn, drawn.stale);
    drawn.stale.clear();
    return true;
}

void DrmPanel::flush(const Buffer& buffer, const std::vector<PanelRect>& rects) {
    if (!dirtyWanted || rects.empty()) {
        return;
    }
    std::vector<drmModeClip> clips;
    for (const auto& rect : rects) {
        drmModeClip clip = {};
        clip.x1 = static_cast<uint16_t>(rect.x);
        clip.y1 = static_cast<uint16_t>(rect.y);
        clip.x2 = static_cast<uint16_t>(std::min(rect.x + rect.w, 0xFFFFU));
        clip.y2 = static_cast<uint16_t>(std::min(rect.y + rect.h, 0xFFFFU));
        clips.push_back(clip);
    }
    const PanelRect& rect = rects.back();
    if (drmModeDirtyFB(fd, buffer.fbId, clips.data(), static_cast<uint32_t>(clips.size())) == 0) {
        dirtyFailed = false;
        return;
    }
    // Drivers that scan out from memory have no use for clips, and say so.
    if (errno == ENOSYS || errno == EOPNOTSUPP) {
        dirtyWanted = false;
        return;
    }
    if (!dirtyFailed) {
        DRAVIK_LOG(logger::kError, errno, "DRM device %s: damage clip %ux%u at (%u, %u) refused",
                   device.c_str(), rect.w, rect.h, rect.x, rect.y);
        dirtyFailed = true;
    }
}

bool DrmPanel::flip(const PanelRect& rect) {
    if (drmModePageFlip(fd, crtcId, buffers[back].fbId, DRM_MODE_PAGE_FLIP_EVENT, this) != 0) {
        stopFlipping("was refused");
        return false;
    }
    flipPending = true;
    std::swap(front, back);
    // The buffer drawn next missed the rectangle just shown.
    buffers[back].stale.push_back(rect);
    return true;
}

bool DrmPanel::waitForFlip() {
    drmEventContext context = {};
    context.version = 2;
    context.page_flip_handler = [](int, unsigned, unsigned, unsigned, void* data) {
        static_cast<DrmPanel*>(data)->flipPending = false;
    };
    const int64_t deadline = nowMs() + kFlipWaitMs;
    while (flipPending) {
        const int64_t left = deadline - nowMs();
        if (left <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        pollfd pfd = {fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left));
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (ready > 0 && drmHandleEvent(fd, &context) != 0 && flipPending) {
            // Readable without an event to read: give the display a moment.
            (void)poll(nullptr, 0, 1);
        }
    }
    return true;
}

void DrmPanel::stopFlipping(const char* reason) {
    // The plane holds the buffer of the last flip asked for, completed or not
    // (a flip that was refused left the one on show): from now on that one is
    // drawn into and flushed, starting from a whole frame.
    DRAVIK_LOG(logger::kWarning, errno,
               "DRM device %s: a page flip %s; drawing into the frame on show from now on",
               device.c_str(), reason);
    flipping = false;
    flipPending = false;
    back = front;
    buffers[front].stale.assign(1, PanelRect{0, 0, format.xres, format.yres});
}

}  // namespace dravik::lcmgui
