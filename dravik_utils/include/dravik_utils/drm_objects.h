// libdrm's mode objects owned by std::unique_ptr, and the one ioctl that
// Debian 12's headers lack. Header only: include it where libdrm's headers are
// on the include path (pkg-config libdrm); the owners need libdrm linked.
#pragma once

#include <xf86drm.h>
#include <xf86drmMode.h>

#include <memory>

// Hands a framebuffer over to the kernel for good (Linux 6.8): it stays on the
// plane after the descriptor that made it is closed.
#ifndef DRM_IOCTL_MODE_CLOSEFB
struct drm_mode_closefb {
    __u32 fb_id;
    __u32 pad;
};
#define DRM_IOCTL_MODE_CLOSEFB DRM_IOWR(0xD0, struct drm_mode_closefb)
#endif

namespace dravik::utils::drm {

template <typename T, void (*Free)(T*)>
struct Freer {
    void operator()(T* p) const { Free(p); }
};

using Resources = std::unique_ptr<drmModeRes, Freer<drmModeRes, drmModeFreeResources>>;
using Connector = std::unique_ptr<drmModeConnector, Freer<drmModeConnector, drmModeFreeConnector>>;
using Encoder = std::unique_ptr<drmModeEncoder, Freer<drmModeEncoder, drmModeFreeEncoder>>;
using PlaneResources =
    std::unique_ptr<drmModePlaneRes, Freer<drmModePlaneRes, drmModeFreePlaneResources>>;
using Plane = std::unique_ptr<drmModePlane, Freer<drmModePlane, drmModeFreePlane>>;
using ObjectProperties =
    std::unique_ptr<drmModeObjectProperties,
                    Freer<drmModeObjectProperties, drmModeFreeObjectProperties>>;
using Property =
    std::unique_ptr<drmModePropertyRes, Freer<drmModePropertyRes, drmModeFreeProperty>>;

}  // namespace dravik::utils::drm
