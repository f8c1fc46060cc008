// Test helper: prints what a libdrm program sees of the DRM device named on its
// command line, then shows a frame of 0x5A bytes on its first connected connector
// with a mode set. With --closefb it hands that frame over to the device before
// it exits.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "dravik_utils/drm_objects.h"

namespace {

std::string orientationOf(int fd, uint32_t connector) {
    drmModeObjectProperties* props =
        drmModeObjectGetProperties(fd, connector, DRM_MODE_OBJECT_CONNECTOR);
    std::string name = "none";
    for (uint32_t i = 0; props != nullptr && i < props->count_props; ++i) {
        drmModePropertyRes* prop = drmModeGetProperty(fd, props->props[i]);
        if (prop != nullptr && strcmp(prop->name, "panel orientation") == 0) {
            for (int e = 0; e < prop->count_enums; ++e) {
                name = prop->enums[e].value == props->prop_values[i] ? prop->enums[e].name : name;
            }
        }
        drmModeFreeProperty(prop);
    }
    drmModeFreeObjectProperties(props);
    return name;
}

void printDevice(int fd, const char* device) {
    struct stat st {};
    (void)fstat(fd, &st);  // a failure prints zeros, which the test notices
    uint64_t dumb = 0;
    uint64_t depth = 0;
    (void)drmGetCap(fd, DRM_CAP_DUMB_BUFFER, &dumb);
    (void)drmGetCap(fd, DRM_CAP_DUMB_PREFERRED_DEPTH, &depth);
    drmVersion* version = drmGetVersion(fd);
    printf("%s chr=%d rdev=%u:%u driver=%s master=%d dumb=%llu depth=%llu\n", device,
           S_ISCHR(st.st_mode) ? 1 : 0, major(st.st_rdev), minor(st.st_rdev),
           version != nullptr ? version->name : "?", drmIsMaster(fd) ? 1 : 0,
           static_cast<unsigned long long>(dumb), static_cast<unsigned long long>(depth));
    drmFreeVersion(version);
}

// Prints every connector; returns the first connected one (null when none).
drmModeConnector* printConnectors(int fd, const drmModeRes& res) {
    drmModeConnector* chosen = nullptr;
    for (int i = 0; i < res.count_connectors; ++i) {
        drmModeConnector* c = drmModeGetConnector(fd, res.connectors[i]);
        if (c == nullptr) {
            continue;
        }
        printf("connector %s-%u %s modes=%d", drmModeGetConnectorTypeName(c->connector_type),
               c->connector_type_id,
               c->connection == DRM_MODE_CONNECTED ? "connected" : "disconnected", c->count_modes);
        for (int m = 0; m < c->count_modes; ++m) {
            printf(" %s@%u", c->modes[m].name, c->modes[m].vrefresh);
        }
        printf(" orientation=%s\n", orientationOf(fd, c->connector_id).c_str());
        if (chosen == nullptr && c->connection == DRM_MODE_CONNECTED && c->count_modes > 0) {
            chosen = c;
        } else {
            drmModeFreeConnector(c);
        }
    }
    return chosen;
}

// A framebuffer of 0x5A bytes the size of the mode; 0 when that fails.
uint32_t makeFrame(int fd, const drmModeModeInfo& mode, uint32_t depth) {
    drm_mode_create_dumb create{};
    create.width = mode.hdisplay;
    create.height = mode.vdisplay;
    create.bpp = depth == 16 ? 16 : 32;
    drm_mode_map_dumb map{};
    uint32_t fbId = 0;
    if (drmIoctl(fd, DRM_IOCTL_MODE_CREATE_DUMB, &create) != 0) {
        return 0;
    }
    map.handle = create.handle;
    if (drmIoctl(fd, DRM_IOCTL_MODE_MAP_DUMB, &map) != 0 ||
        drmModeAddFB(fd, create.width, create.height, depth == 16 ? 16 : 24, create.bpp,
                     create.pitch, create.handle, &fbId) != 0) {
        return 0;
    }
    void* mem = mmap(nullptr, create.size, PROT_WRITE, MAP_SHARED, fd, map.offset);
    if (mem == MAP_FAILED) {
        return 0;
    }
    memset(mem, 0x5A, create.size);
    munmap(mem, create.size);
    return fbId;
}

bool show(int fd, bool closefb) {
    drmModeRes* res = drmModeGetResources(fd);
    if (res == nullptr) {
        printf("no resources: %s\n", strerror(errno));
        return false;
    }
    drmModeConnector* c = printConnectors(fd, *res);
    uint64_t depth = 0;
    (void)drmGetCap(fd, DRM_CAP_DUMB_PREFERRED_DEPTH, &depth);
    uint64_t sequence = 0;
    uint64_t ns = 0;
    bool ok = c != nullptr;
    const uint32_t fbId = ok ? makeFrame(fd, c->modes[0], static_cast<uint32_t>(depth)) : 0;
    if (fbId != 0) {
        ok = drmModeSetCrtc(fd, res->crtcs[0], fbId, 0, 0, &c->connector_id, 1, &c->modes[0]) == 0;
        const bool vblank = drmCrtcGetSequence(fd, res->crtcs[0], &sequence, &ns) == 0;
        printf("shown=%d vblank=%d\n", ok ? 1 : 0, vblank ? 1 : 0);
    }
    if (ok && closefb) {
        drm_mode_closefb request{fbId, 0};
        ok = drmIoctl(fd, DRM_IOCTL_MODE_CLOSEFB, &request) == 0;
        printf("closefb=%s\n", ok ? "ok" : strerror(errno));
    }
    drmModeFreeConnector(c);
    drmModeFreeResources(res);
    return ok && fbId != 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: fakefb_drm_probe DEVICE [--closefb]\n");
        return 2;
    }
    const int fd = open(argv[1], O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        printf("%s open failed: %s\n", argv[1], strerror(errno));
        return 1;
    }
    printDevice(fd, argv[1]);
    const bool ok = show(fd, argc > 2 && strcmp(argv[2], "--closefb") == 0);
    close(fd);
    return ok ? 0 : 1;
}
