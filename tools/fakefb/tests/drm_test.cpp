// The simulated DRM device, driven through libdrm in this very process (see
// preloaded_main.cpp), as the daemon drives a real one.
#include <drm_fourcc.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "dravik_utils/drm_objects.h"
#include "dravik_utils/file_descriptor.h"
#include "failed_call.h"
#include "fakefb/fakefb.h"

namespace {

using dravik::utils::FileDescriptor;
using fakefb::ClipRect;
using fakefb::Connector;
using fakefb::DamageRecord;
using fakefb::DrmOptions;
using fakefb::Geometry;
using fakefb::Panel;
using Resources = dravik::utils::drm::Resources;
using ConnectorPtr = dravik::utils::drm::Connector;
using EncoderPtr = dravik::utils::drm::Encoder;
using PlaneRes = dravik::utils::drm::PlaneResources;
using PlanePtr = dravik::utils::drm::Plane;
using Properties = dravik::utils::drm::ObjectProperties;
using PropertyPtr = dravik::utils::drm::Property;

constexpr const char* kCard = "/dev/dri/card0";
constexpr uint32_t kWidth = 30;
constexpr uint32_t kHeight = 20;

FileDescriptor openCard(const char* path = kCard) {
    return FileDescriptor(open(path, O_RDWR | O_CLOEXEC));
}

std::string connectorName(const drmModeConnector& c) {
    const char* type = drmModeGetConnectorTypeName(c.connector_type);
    return std::string(type != nullptr ? type : "?") + "-" + std::to_string(c.connector_type_id);
}

Geometry geometry(uint32_t bpp) {
    return Geometry::forDepth(bpp, kWidth, kHeight);
}

// A DRM panel of the test size at `bpp` on `card`, made the simulated one.
struct DrmPanel : Panel {
    explicit DrmPanel(uint32_t bpp, const DrmOptions& drm = {}, const char* card = kCard)
        : Panel(card, Geometry::forDepth(bpp, kWidth, kHeight), drm) {
        apply();
    }
};

// The request for a dumb buffer of `width` x `height` at `bpp`.
drm_mode_create_dumb dumbRequest(uint32_t width, uint32_t height, uint32_t bpp) {
    drm_mode_create_dumb create{};
    create.width = width;
    create.height = height;
    create.bpp = bpp;
    return create;
}

// A dumb buffer with a framebuffer on it, mapped.
class DumbFb {
public:
    DumbFb(int fd, uint32_t width, uint32_t height, uint32_t bpp, uint32_t format)
        : fd_(fd), width_(width), height_(height), cpp_(bpp / 8) {
        drm_mode_create_dumb create = dumbRequest(width, height, bpp);
        if (drmIoctl(fd, DRM_IOCTL_MODE_CREATE_DUMB, &create) != 0) {
            return;
        }
        handle_ = create.handle;
        pitch_ = create.pitch;
        size_ = create.size;
        const uint32_t handles[4] = {handle_};
        const uint32_t pitches[4] = {pitch_};
        const uint32_t offsets[4] = {};
        if (drmModeAddFB2(fd, width, height, format, handles, pitches, offsets, &fbId_, 0) != 0) {
            return;
        }
        drm_mode_map_dumb map{};
        map.handle = handle_;
        if (drmIoctl(fd, DRM_IOCTL_MODE_MAP_DUMB, &map) != 0) {
            return;
        }
        void* mem = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, map.offset);
        mem_ = mem == MAP_FAILED ? nullptr : static_cast<uint8_t*>(mem);
    }
    ~DumbFb() {
        if (mem_ != nullptr) {
            munmap(mem_, size_);
        }
    }
    // One of the panel's size in the format its depth usually has.
    DumbFb(int fd, uint32_t bpp)
        : DumbFb(fd, kWidth, kHeight, bpp, bpp == 16 ? DRM_FORMAT_RGB565 : DRM_FORMAT_XRGB8888) {}
    DumbFb(const DumbFb&) = delete;
    DumbFb& operator=(const DumbFb&) = delete;

    bool ok() const { return mem_ != nullptr; }
    uint32_t id() const { return fbId_; }
    uint32_t handle() const { return handle_; }
    uint32_t pitch() const { return pitch_; }

    void put(uint32_t x, uint32_t y, uint32_t value) {
        uint8_t* at = mem_ + static_cast<std::size_t>(y) * pitch_ + x * cpp_;
        for (uint32_t i = 0; i < cpp_; ++i) {
            at[i] = static_cast<uint8_t>(value >> (8 * i));
        }
    }
    void fill(uint32_t value) {
        for (uint32_t y = 0; y < height_; ++y) {
            for (uint32_t x = 0; x < width_; ++x) {
                put(x, y, value);
            }
        }
    }
    // A different value at every pixel.
    void pattern(uint32_t seed) {
        for (uint32_t y = 0; y < height_; ++y) {
            for (uint32_t x = 0; x < width_; ++x) {
                put(x, y, patternAt(seed, x, y));
            }
        }
    }
    uint32_t patternAt(uint32_t seed, uint32_t x, uint32_t y) const {
        const uint32_t v = seed * 7919u + y * 131u + x * 3u + 1u;
        return cpp_ == 2 ? (v & 0xFFFFu) : (v & 0x00FFFFFFu);
    }

private:
    int fd_;
    uint32_t width_;
    uint32_t height_;
    uint32_t cpp_;
    uint32_t handle_ = 0;
    uint32_t pitch_ = 0;
    uint64_t size_ = 0;
    uint32_t fbId_ = 0;
    uint8_t* mem_ = nullptr;
};

// The first connected connector, its CRTC and its mode.
struct Output {
    uint32_t connector = 0;
    uint32_t crtc = 0;
    drmModeModeInfo mode{};
};

Output findOutput(int fd) {
    Output out;
    const Resources res(drmModeGetResources(fd));
    if (!res) {
        return out;
    }
    for (int i = 0; i < res->count_connectors && out.connector == 0; ++i) {
        const ConnectorPtr c(drmModeGetConnector(fd, res->connectors[i]));
        if (c && c->connection == DRM_MODE_CONNECTED && c->count_modes > 0) {
            out.connector = c->connector_id;
            out.mode = c->modes[0];
            out.crtc = res->crtcs[0];
        }
    }
    return out;
}

int setCrtc(int fd, const Output& out, uint32_t fbId) {
    uint32_t connector = out.connector;
    drmModeModeInfo mode = out.mode;
    return drmModeSetCrtc(fd, out.crtc, fbId, 0, 0, &connector, 1, &mode);
}

// The panel after a SETCRTC of a framebuffer filled with pattern(seed).
struct Shown {
    FileDescriptor fd;
    Output out;
    std::unique_ptr<DumbFb> fb;
};

Shown showPattern(const Panel& panel, uint32_t seed) {
    Shown shown{openCard(), {}, nullptr};
    shown.out = findOutput(shown.fd.get());
    shown.fb = std::make_unique<DumbFb>(shown.fd.get(), panel.geometry().bpp);
    if (shown.fb->ok()) {
        shown.fb->pattern(seed);
        EXPECT_EQ(setCrtc(shown.fd.get(), shown.out, shown.fb->id()), 0) << strerror(errno);
    }
    return shown;
}

void expectPattern(const Panel& panel, const DumbFb& fb, uint32_t seed) {
    for (uint32_t y = 0; y < kHeight; ++y) {
        for (uint32_t x = 0; x < kWidth; ++x) {
            ASSERT_EQ(panel.pixel(x, y), fb.patternAt(seed, x, y)) << x << "," << y;
        }
    }
}

// libdrm's functions answer -1 or -errno; either way errno holds the reason.
int errnoOf(int result) {
    return result == 0 ? 0 : errno;
}

bool allZero(const Panel& panel) {
    for (const uint8_t byte : panel.bytes()) {
        if (byte != 0) {
            return false;
        }
    }
    return true;
}

std::vector<std::string> kinds(const std::vector<DamageRecord>& records) {
    std::vector<std::string> out;
    for (const auto& r : records) {
        out.push_back(r.kind);
    }
    return out;
}

TEST(FakefbDrm, resources_list_the_crtc_the_connectors_and_their_encoders) {
    DrmOptions drm;
    drm.connectors = {{"HDMI-A-1", false}, {"DSI-1", true}};
    const DrmPanel panel(16, drm);
    const FileDescriptor fd = openCard();
    ASSERT_GE(fd.get(), 0) << strerror(errno);
    const Resources res(drmModeGetResources(fd.get()));
    ASSERT_TRUE(res);
    EXPECT_EQ(res->count_crtcs, 1);
    EXPECT_EQ(res->count_fbs, 0);
    ASSERT_EQ(res->count_connectors, 2);
    ASSERT_EQ(res->count_encoders, 2);
    const char* names[] = {"HDMI-A-1", "DSI-1"};
    const uint32_t encoderTypes[] = {DRM_MODE_ENCODER_TMDS, DRM_MODE_ENCODER_DSI};
    for (int i = 0; i < 2; ++i) {
        SCOPED_TRACE(names[i]);
        const ConnectorPtr c(drmModeGetConnector(fd.get(), res->connectors[i]));
        ASSERT_TRUE(c);
        EXPECT_EQ(connectorName(*c), names[i]);
        EXPECT_EQ(c->connection, i == 0 ? DRM_MODE_DISCONNECTED : DRM_MODE_CONNECTED);
        EXPECT_EQ(c->encoder_id, 0u);  // nothing driven yet
        ASSERT_EQ(c->count_encoders, 1);
        const EncoderPtr e(drmModeGetEncoder(fd.get(), c->encoders[0]));
        ASSERT_TRUE(e);
        EXPECT_EQ(e->encoder_type, encoderTypes[i]);
        EXPECT_EQ(e->possible_crtcs, 1u);
        EXPECT_EQ(e->crtc_id, 0u);
        if (i == 0) {
            EXPECT_EQ(c->count_modes, 0);
            continue;
        }
        ASSERT_EQ(c->count_modes, 1);
        const drmModeModeInfo& m = c->modes[0];
        EXPECT_EQ(m.hdisplay, kWidth);
        EXPECT_EQ(m.vdisplay, kHeight);
        EXPECT_EQ(m.vrefresh, 60u);
        EXPECT_NE(m.type & DRM_MODE_TYPE_PREFERRED, 0u);
        EXPECT_STREQ(m.name, "30x20");
        EXPECT_GT(m.htotal, m.hsync_end);
        EXPECT_GE(m.hsync_end, m.hsync_start);
        EXPECT_GE(m.hsync_start, m.hdisplay);
        EXPECT_EQ(m.clock, (static_cast<uint32_t>(m.htotal) * m.vtotal * 60 + 999) / 1000);
    }
    errno = 0;
    EXPECT_EQ(drmModeGetConnector(fd.get(), res->crtcs[0]), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(FakefbDrm, connector_arrays_are_counted_always_and_copied_as_the_kernel_does) {
    DrmOptions drm;
    drm.orientation = "normal";  // two properties: DPMS and panel orientation
    const DrmPanel panel(32, drm);
    const FileDescriptor fd = openCard();
    const Output out = findOutput(fd.get());
    drm_mode_modeinfo mode{};
    uint32_t propIds[2] = {};
    uint64_t propValues[2] = {};
    drm_mode_get_connector c{};
    c.connector_id = out.connector;
    c.modes_ptr = reinterpret_cast<uintptr_t>(&mode);
    c.props_ptr = reinterpret_cast<uintptr_t>(propIds);
    c.prop_values_ptr = reinterpret_cast<uintptr_t>(propValues);
    c.count_props = 1;  // room for one of two
    ASSERT_EQ(drmIoctl(fd.get(), DRM_IOCTL_MODE_GETCONNECTOR, &c), 0);
    EXPECT_EQ(c.count_modes, 1u);
    EXPECT_EQ(mode.hdisplay, 0u);  // count 0: no mode copied
    EXPECT_EQ(c.count_props, 2u);
    EXPECT_NE(propIds[0], 0u);  // as many as fit are copied
    EXPECT_EQ(propIds[1], 0u);
    EXPECT_EQ(c.count_encoders, 1u);
    // A count with no array to copy into is the caller's fault, as in the kernel.
    EXPECT_EQ(resultAndErrno([&] { return drmIoctl(fd.get(), DRM_IOCTL_MODE_GETCONNECTOR, &c); }),
              failedWith(EFAULT));
    c.count_encoders = 0;
    c.count_modes = 1;
    c.count_props = 2;
    ASSERT_EQ(drmIoctl(fd.get(), DRM_IOCTL_MODE_GETCONNECTOR, &c), 0);
    EXPECT_EQ(mode.hdisplay, kWidth);
    EXPECT_NE(propIds[1], 0u);
}

TEST(FakefbDrm, connector_is_chosen_by_its_name) {
    DrmOptions drm;
    drm.connectors = {{"Virtual-1", true}, {"SPI-1", true}, {"DPI-2", false}, {"Unknown-1", true}};
    const DrmPanel panel(16, drm);
    const FileDescriptor fd = openCard();
    const Resources res(drmModeGetResources(fd.get()));
    ASSERT_TRUE(res);
    std::vector<std::string> names;
    uint32_t spi = 0;
    for (int i = 0; i < res->count_connectors; ++i) {
        const ConnectorPtr c(drmModeGetConnector(fd.get(), res->connectors[i]));
        ASSERT_TRUE(c);
        names.push_back(connectorName(*c));
        spi = names.back() == "SPI-1" ? c->connector_id : spi;
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Virtual-1", "SPI-1", "DPI-2", "Unknown-1"}));
    ASSERT_NE(spi, 0u);
    DumbFb fb(fd.get(), 16);
    ASSERT_TRUE(fb.ok());
    Output out = findOutput(fd.get());
    out.connector = spi;
    ASSERT_EQ(setCrtc(fd.get(), out, fb.id()), 0);
    const ConnectorPtr chosen(drmModeGetConnector(fd.get(), spi));
    EXPECT_NE(chosen->encoder_id, 0u);
    ASSERT_FALSE(panel.damage().empty());
    EXPECT_EQ(panel.damage().back().connectors, std::vector<uint32_t>{spi});
}

TEST(FakefbDrm, unknown_connector_names_are_refused) {
    DrmOptions drm;
    drm.connectors = {{"Teletype-1", true}};
    EXPECT_THROW(Panel(kCard, geometry(16), drm), std::invalid_argument);
    drm.connectors = {{"DSI", true}};
    EXPECT_THROW(Panel(kCard, geometry(16), drm), std::invalid_argument);
    EXPECT_THROW(Panel(kCard, geometry(24), DrmOptions{}), std::invalid_argument);
}

TEST(FakefbDrm, primary_plane_appears_with_universal_planes_and_takes_two_formats) {
    const DrmPanel panel(16);
    const FileDescriptor fd = openCard();
    const PlaneRes hidden(drmModeGetPlaneResources(fd.get()));
    ASSERT_TRUE(hidden);
    EXPECT_EQ(hidden->count_planes, 0u);
    ASSERT_EQ(drmSetClientCap(fd.get(), DRM_CLIENT_CAP_UNIVERSAL_PLANES, 1), 0);
    const PlaneRes planes(drmModeGetPlaneResources(fd.get()));
    ASSERT_TRUE(planes);
    ASSERT_EQ(planes->count_planes, 1u);
    const PlanePtr plane(drmModeGetPlane(fd.get(), planes->planes[0]));
    ASSERT_TRUE(plane);
    EXPECT_EQ(plane->possible_crtcs, 1u);
    EXPECT_EQ(std::vector<uint32_t>(plane->formats, plane->formats + plane->count_formats),
              (std::vector<uint32_t>{DRM_FORMAT_XRGB8888, DRM_FORMAT_RGB565}));
    const Properties props(
        drmModeObjectGetProperties(fd.get(), plane->plane_id, DRM_MODE_OBJECT_PLANE));
    ASSERT_TRUE(props);
    ASSERT_EQ(props->count_props, 1u);
    const PropertyPtr type(drmModeGetProperty(fd.get(), props->props[0]));
    ASSERT_TRUE(type);
    EXPECT_STREQ(type->name, "type");
    EXPECT_TRUE(drm_property_type_is(type.get(), DRM_MODE_PROP_ENUM));
    EXPECT_NE(type->flags & DRM_MODE_PROP_IMMUTABLE, 0u);
    EXPECT_EQ(props->prop_values[0], static_cast<uint64_t>(DRM_PLANE_TYPE_PRIMARY));
    ASSERT_EQ(type->count_enums, 3);
    EXPECT_STREQ(type->enums[1].name, "Primary");
    EXPECT_EQ(type->enums[1].value, static_cast<uint64_t>(DRM_PLANE_TYPE_PRIMARY));
    EXPECT_EQ(errnoOf(drmSetClientCap(fd.get(), DRM_CLIENT_CAP_UNIVERSAL_PLANES, 2)), EINVAL);
    EXPECT_EQ(errnoOf(drmSetClientCap(fd.get(), DRM_CLIENT_CAP_ATOMIC, 1)), EOPNOTSUPP);
}

// The value and enum names of a connector's "panel orientation", or "" without one.
std::string orientationOf(int fd, uint32_t connector) {
    const Properties props(drmModeObjectGetProperties(fd, connector, DRM_MODE_OBJECT_CONNECTOR));
    for (uint32_t i = 0; props && i < props->count_props; ++i) {
        const PropertyPtr prop(drmModeGetProperty(fd, props->props[i]));
        if (prop && strcmp(prop->name, "panel orientation") == 0) {
            for (int e = 0; e < prop->count_enums; ++e) {
                if (prop->enums[e].value == props->prop_values[i]) {
                    return prop->enums[e].name;
                }
            }
            return "?";
        }
    }
    return "";
}

TEST(FakefbDrm, panel_orientation_is_a_connector_property_only_when_described) {
    const struct Row {
        const char* option;
        const char* expected;
    } rows[] = {{"", ""},
                {"normal", "Normal"},
                {"upside_down", "Upside Down"},
                {"left_up", "Left Side Up"},
                {"right_up", "Right Side Up"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.option);
        DrmOptions drm;
        drm.orientation = row.option;
        const DrmPanel panel(32, drm);
        const FileDescriptor fd = openCard();
        EXPECT_EQ(orientationOf(fd.get(), findOutput(fd.get()).connector), row.expected);
    }
}

TEST(FakefbDrm, capabilities_and_version_answer_as_described) {
    for (const uint32_t bpp : {16u, 32u}) {
        SCOPED_TRACE(bpp);
        const DrmPanel panel(bpp);
        const FileDescriptor fd = openCard();
        uint64_t value = 0;
        ASSERT_EQ(drmGetCap(fd.get(), DRM_CAP_DUMB_BUFFER, &value), 0);
        EXPECT_EQ(value, 1u);
        ASSERT_EQ(drmGetCap(fd.get(), DRM_CAP_DUMB_PREFERRED_DEPTH, &value), 0);
        EXPECT_EQ(value, bpp == 16 ? 16u : 24u);
        EXPECT_EQ(errnoOf(drmGetCap(fd.get(), 0x7777, &value)), EINVAL);
        drmVersionPtr version = drmGetVersion(fd.get());
        ASSERT_NE(version, nullptr);
        EXPECT_STREQ(version->name, "fakefb");
        drmFreeVersion(version);
    }
}

TEST(FakefbDrm, without_dumb_buffers_create_dumb_fails_with_enosys) {
    DrmOptions drm;
    drm.dumbBuffers = false;
    const DrmPanel panel(16, drm);
    const FileDescriptor fd = openCard();
    uint64_t value = 1;
    ASSERT_EQ(drmGetCap(fd.get(), DRM_CAP_DUMB_BUFFER, &value), 0);
    EXPECT_EQ(value, 0u);
    drm_mode_create_dumb create = dumbRequest(kWidth, kHeight, 16);
    EXPECT_EQ(
        resultAndErrno([&] { return drmIoctl(fd.get(), DRM_IOCTL_MODE_CREATE_DUMB, &create); }),
        failedWith(ENOSYS));
}

TEST(FakefbDrm, dumb_buffers_map_and_keep_what_is_written) {
    const DrmPanel panel(32);
    const FileDescriptor fd = openCard();
    DumbFb a(fd.get(), 32);
    DumbFb b(fd.get(), 32);
    ASSERT_TRUE(a.ok() && b.ok());
    EXPECT_NE(a.handle(), b.handle());
    EXPECT_NE(a.id(), b.id());
    EXPECT_GE(a.pitch(), kWidth * 4);
    EXPECT_EQ(a.pitch() % 64, 0u);
    a.pattern(1);
    b.pattern(2);
    // Mapped again, the memory holds what was written, each buffer its own.
    drm_mode_map_dumb map{};
    map.handle = a.handle();
    ASSERT_EQ(drmIoctl(fd.get(), DRM_IOCTL_MODE_MAP_DUMB, &map), 0);
    const std::size_t size = static_cast<std::size_t>(a.pitch()) * kHeight;
    void* again = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd.get(), map.offset);
    ASSERT_NE(again, MAP_FAILED);
    uint32_t word = 0;
    memcpy(&word, static_cast<uint8_t*>(again) + 3 * a.pitch() + 5 * 4, 4);
    EXPECT_EQ(word, a.patternAt(1, 5, 3));
    munmap(again, size);
    map.handle = 999;
    EXPECT_EQ(resultAndErrno([&] { return drmIoctl(fd.get(), DRM_IOCTL_MODE_MAP_DUMB, &map); }),
              failedWith(ENOENT));
    drm_mode_destroy_dumb destroy{999};
    EXPECT_EQ(
        resultAndErrno([&] { return drmIoctl(fd.get(), DRM_IOCTL_MODE_DESTROY_DUMB, &destroy); }),
        failedWith(EINVAL));
}

TEST(FakefbDrm, new_dumb_buffers_start_black) {
    const DrmPanel panel(16);
    const FileDescriptor fd = openCard();
    {
        DumbFb first(fd.get(), 16);
        ASSERT_TRUE(first.ok());
        first.fill(0xFFFF);
        ASSERT_EQ(drmModeRmFB(fd.get(), first.id()), 0);
        drm_mode_destroy_dumb destroy{first.handle()};
        ASSERT_EQ(drmIoctl(fd.get(), DRM_IOCTL_MODE_DESTROY_DUMB, &destroy), 0);
    }
    drm_mode_create_dumb create = dumbRequest(kWidth, kHeight, 16);
    ASSERT_EQ(drmIoctl(fd.get(), DRM_IOCTL_MODE_CREATE_DUMB, &create), 0);
    drm_mode_map_dumb map{};
    map.handle = create.handle;
    ASSERT_EQ(drmIoctl(fd.get(), DRM_IOCTL_MODE_MAP_DUMB, &map), 0);
    EXPECT_EQ(map.offset, 0u);  // the freed memory again
    void* mem = mmap(nullptr, create.size, PROT_READ, MAP_SHARED, fd.get(), map.offset);
    ASSERT_NE(mem, MAP_FAILED);
    const auto* bytes = static_cast<const uint8_t*>(mem);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + create.size),
              std::vector<uint8_t>(create.size, 0));
    munmap(mem, create.size);
}

TEST(FakefbDrm, setcrtc_shows_the_whole_framebuffer) {
    for (const uint32_t bpp : {16u, 32u}) {
        SCOPED_TRACE(bpp);
        const DrmPanel panel(bpp);
        const Shown shown = showPattern(panel, 3);
        ASSERT_TRUE(shown.fb->ok());
        EXPECT_EQ(panel.bytes().size(), kWidth * kHeight * bpp / 8);
        expectPattern(panel, *shown.fb, 3);
        const ConnectorPtr c(drmModeGetConnector(shown.fd.get(), shown.out.connector));
        EXPECT_NE(c->encoder_id, 0u);
        const drmModeCrtcPtr crtc = drmModeGetCrtc(shown.fd.get(), shown.out.crtc);
        ASSERT_NE(crtc, nullptr);
        EXPECT_EQ(crtc->buffer_id, shown.fb->id());
        EXPECT_EQ(crtc->mode_valid, 1);
        drmModeFreeCrtc(crtc);
    }
}

TEST(FakefbDrm, writes_without_dirtyfb_do_not_reach_the_panel) {
    const DrmPanel panel(16);
    Shown shown = showPattern(panel, 4);
    ASSERT_TRUE(shown.fb->ok());
    shown.fb->fill(0x1234);
    expectPattern(panel, *shown.fb, 4);
}

TEST(FakefbDrm, dirtyfb_clips_reach_the_panel_exactly) {
    const DrmPanel panel(32);
    Shown shown = showPattern(panel, 5);
    ASSERT_TRUE(shown.fb->ok());
    shown.fb->fill(0x00ABCDEF);
    // The second clip reaches past the framebuffer: the part inside is shown.
    drmModeClip clips[] = {{2, 3, 7, 5}, {25, 18, 40, 30}};
    ASSERT_EQ(drmModeDirtyFB(shown.fd.get(), shown.fb->id(), clips, 2), 0) << strerror(errno);
    for (uint32_t y = 0; y < kHeight; ++y) {
        for (uint32_t x = 0; x < kWidth; ++x) {
            const bool inside = (x >= 2 && x < 7 && y >= 3 && y < 5) || (x >= 25 && y >= 18);
            ASSERT_EQ(panel.pixel(x, y), inside ? 0x00ABCDEFu : shown.fb->patternAt(5, x, y))
                << x << "," << y;
        }
    }
    const DamageRecord last = panel.damage().back();
    EXPECT_EQ(last.kind, "dirty");
    EXPECT_EQ(last.fb, shown.fb->id());
    EXPECT_EQ(last.rects, (std::vector<ClipRect>{{2, 3, 7, 5}, {25, 18, 40, 30}}));
}

TEST(FakefbDrm, dirtyfb_without_clips_shows_the_whole_framebuffer) {
    const DrmPanel panel(16);
    Shown shown = showPattern(panel, 6);
    ASSERT_TRUE(shown.fb->ok());
    shown.fb->pattern(7);
    ASSERT_EQ(drmModeDirtyFB(shown.fd.get(), shown.fb->id(), nullptr, 0), 0);
    expectPattern(panel, *shown.fb, 7);
    EXPECT_TRUE(panel.damage().back().rects.empty());
}

TEST(FakefbDrm, dirtyfb_refuses_what_the_kernel_refuses) {
    const DrmPanel panel(16);
    Shown shown = showPattern(panel, 8);
    ASSERT_TRUE(shown.fb->ok());
    std::vector<drmModeClip> many(257, drmModeClip{0, 0, 1, 1});
    const int fd = shown.fd.get();
    const uint32_t id = shown.fb->id();
    EXPECT_EQ(errnoOf(drmModeDirtyFB(fd, id, many.data(), 257)), EINVAL);
    EXPECT_EQ(errnoOf(drmModeDirtyFB(fd, id, many.data(), 256)), 0);
    EXPECT_EQ(errnoOf(drmModeDirtyFB(fd, id, many.data(), 0)), EINVAL);
    EXPECT_EQ(errnoOf(drmModeDirtyFB(fd, id, nullptr, 1)), EINVAL);
    EXPECT_EQ(errnoOf(drmModeDirtyFB(fd, 4242, nullptr, 0)), ENOENT);
}

TEST(FakefbDrm, dirtyfb_of_a_framebuffer_not_on_show_changes_nothing) {
    const DrmPanel panel(16);
    Shown shown = showPattern(panel, 9);
    DumbFb other(shown.fd.get(), 16);
    ASSERT_TRUE(other.ok());
    other.fill(0xFFFF);
    ASSERT_EQ(drmModeDirtyFB(shown.fd.get(), other.id(), nullptr, 0), 0);
    expectPattern(panel, *shown.fb, 9);
}

struct FlipSeen {
    int count = 0;
    unsigned crtc = 0;
    void* data = nullptr;
};

// Waits up to timeoutMs for the descriptor to become readable, then lets libdrm
// read and dispatch what is there (to the FlipSeen given with the flip).
int handleEvents(int fd, int timeoutMs) {
    pollfd pfd{fd, POLLIN, 0};
    const int ready = poll(&pfd, 1, timeoutMs);
    if (ready <= 0) {
        return ready;
    }
    drmEventContext context{};
    context.version = 3;
    context.page_flip_handler2 = [](int, unsigned, unsigned, unsigned, unsigned crtc, void* data) {
        auto* s = static_cast<FlipSeen*>(data);
        ++s->count;
        s->crtc = crtc;
        s->data = data;
    };
    return drmHandleEvent(fd, &context) == 0 ? ready : -1;
}

TEST(FakefbDrm, page_flip_event_arrives_through_drmHandleEvent) {
    for (const bool vblank : {true, false}) {
        SCOPED_TRACE(vblank);
        DrmOptions drm;
        drm.vblank = vblank;
        const DrmPanel panel(32, drm);
        Shown shown = showPattern(panel, 10);
        DumbFb back(shown.fd.get(), 32);
        ASSERT_TRUE(back.ok());
        back.pattern(11);
        FlipSeen seen;
        pollfd idle{shown.fd.get(), POLLIN, 0};
        EXPECT_EQ(poll(&idle, 1, 0), 0);  // no event before the flip
        ASSERT_EQ(drmModePageFlip(shown.fd.get(), shown.out.crtc, back.id(),
                                  DRM_MODE_PAGE_FLIP_EVENT, &seen),
                  0)
            << strerror(errno);
        ASSERT_EQ(handleEvents(shown.fd.get(), 1000), 1);
        EXPECT_EQ(seen.count, 1);
        EXPECT_EQ(seen.data, &seen);
        EXPECT_EQ(seen.crtc, shown.out.crtc);
        expectPattern(panel, back, 11);
        EXPECT_EQ(handleEvents(shown.fd.get(), 0), 0);  // one flip, one event
        const DamageRecord last = panel.damage().back();
        EXPECT_EQ(last.kind, "flip");
        EXPECT_EQ(last.fb, back.id());
        EXPECT_FALSE(last.pending);
    }
}

TEST(FakefbDrm, flip_that_never_completes_makes_the_next_flip_busy) {
    DrmOptions drm;
    drm.vblank = true;
    drm.flipCompletes = false;
    const DrmPanel panel(16, drm);
    Shown shown = showPattern(panel, 12);
    DumbFb back(shown.fd.get(), 16);
    ASSERT_TRUE(back.ok());
    back.fill(0xF800);
    FlipSeen seen;
    ASSERT_EQ(
        drmModePageFlip(shown.fd.get(), shown.out.crtc, back.id(), DRM_MODE_PAGE_FLIP_EVENT, &seen),
        0);
    EXPECT_EQ(handleEvents(shown.fd.get(), 50), 0);
    EXPECT_EQ(seen.count, 0);
    EXPECT_EQ(errnoOf(drmModePageFlip(shown.fd.get(), shown.out.crtc, back.id(),
                                      DRM_MODE_PAGE_FLIP_EVENT, &seen)),
              EBUSY);
    expectPattern(panel, *shown.fb, 12);
    EXPECT_TRUE(panel.damage().back().pending);
    // A mode set still works, and the display then shows what it was given.
    ASSERT_EQ(setCrtc(shown.fd.get(), shown.out, back.id()), 0);
    EXPECT_EQ(panel.pixel(0, 0), 0xF800u);
}

TEST(FakefbDrm, crtc_sequence_answers_only_with_vertical_blanking) {
    for (const bool vblank : {false, true}) {
        SCOPED_TRACE(vblank);
        DrmOptions drm;
        drm.vblank = vblank;
        const DrmPanel panel(16, drm);
        Shown shown = showPattern(panel, 13);
        uint64_t seq = 0;
        uint64_t ns = 0;
        const int result = errnoOf(drmCrtcGetSequence(shown.fd.get(), shown.out.crtc, &seq, &ns));
        drmVBlank vbl{};
        vbl.request.type = DRM_VBLANK_RELATIVE;
        vbl.request.sequence = 1;
        const int waited = errnoOf(drmWaitVBlank(shown.fd.get(), &vbl));
        if (!vblank) {
            EXPECT_EQ(result, EOPNOTSUPP);
            EXPECT_EQ(waited, EOPNOTSUPP);
            continue;
        }
        EXPECT_EQ(result, 0);
        EXPECT_EQ(waited, 0);
        EXPECT_GT(vbl.reply.sequence, static_cast<uint32_t>(seq));
        uint64_t later = 0;
        ASSERT_EQ(drmCrtcGetSequence(shown.fd.get(), shown.out.crtc, &later, &ns), 0);
        EXPECT_GT(later, seq);
    }
}

TEST(FakefbDrm, another_master_keeps_the_display_from_the_client) {
    DrmOptions drm;
    drm.master = false;
    const DrmPanel panel(16, drm);
    const FileDescriptor fd = openCard();
    EXPECT_EQ(drmIsMaster(fd.get()), 0);
    EXPECT_EQ(errnoOf(drmSetMaster(fd.get())), EBUSY);
    // Buffers and framebuffers may be made; nothing may be shown.
    DumbFb fb(fd.get(), 16);
    ASSERT_TRUE(fb.ok());
    const Output out = findOutput(fd.get());
    EXPECT_EQ(errnoOf(setCrtc(fd.get(), out, fb.id())), EACCES);
    EXPECT_EQ(errnoOf(drmModeDirtyFB(fd.get(), fb.id(), nullptr, 0)), EACCES);
    EXPECT_EQ(errnoOf(drmModePageFlip(fd.get(), out.crtc, fb.id(), 0, nullptr)), EACCES);
    EXPECT_TRUE(panel.damage().empty());
}

TEST(FakefbDrm, master_is_the_client_by_default) {
    const DrmPanel panel(16);
    const FileDescriptor fd = openCard();
    EXPECT_NE(drmIsMaster(fd.get()), 0);
    EXPECT_EQ(drmSetMaster(fd.get()), 0);
    ASSERT_EQ(drmDropMaster(fd.get()), 0);
    EXPECT_EQ(drmIsMaster(fd.get()), 0);
    EXPECT_EQ(drmSetMaster(fd.get()), 0);
    EXPECT_NE(drmIsMaster(fd.get()), 0);
}

TEST(FakefbDrm, mode_sets_the_display_cannot_take_are_refused) {
    const DrmPanel panel(16);
    const FileDescriptor fd = openCard();
    const Output out = findOutput(fd.get());
    DumbFb xrgb(fd.get(), 32);
    DumbFb small(fd.get(), kWidth - 1, kHeight, 16, DRM_FORMAT_RGB565);
    ASSERT_TRUE(xrgb.ok() && small.ok());
    struct Row {
        const char* what;
        uint32_t crtc;
        uint32_t fb;
        uint16_t hdisplay;
        int err;
    } rows[] = {
        {"format other than the panel's", out.crtc, xrgb.id(), kWidth, EINVAL},
        {"framebuffer smaller than the mode", out.crtc, small.id(), kWidth, ENOSPC},
        {"mode of another size", out.crtc, xrgb.id(), kWidth - 2, EINVAL},
        {"unknown framebuffer", out.crtc, 4242, kWidth, ENOENT},
        {"unknown CRTC", 4242, xrgb.id(), kWidth, ENOENT},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Output o = out;
        o.crtc = row.crtc;
        o.mode.hdisplay = row.hdisplay;
        EXPECT_EQ(errnoOf(setCrtc(fd.get(), o, row.fb)), row.err);
    }
    EXPECT_TRUE(panel.damage().empty());
    EXPECT_TRUE(allZero(panel));
}

TEST(FakefbDrm, framebuffers_are_checked_like_the_kernel_does) {
    const DrmPanel panel(16);
    const FileDescriptor fd = openCard();
    drm_mode_create_dumb create = dumbRequest(kWidth, kHeight, 16);
    ASSERT_EQ(drmIoctl(fd.get(), DRM_IOCTL_MODE_CREATE_DUMB, &create), 0);
    struct Row {
        const char* what;
        uint32_t width, height, format, handle, pitch;
        int err;
    } rows[] = {
        {"fits", kWidth, kHeight, DRM_FORMAT_RGB565, create.handle, create.pitch, 0},
        {"unknown handle", kWidth, kHeight, DRM_FORMAT_RGB565, 999, create.pitch, ENOENT},
        {"pitch below a line", kWidth, kHeight, DRM_FORMAT_RGB565, create.handle, 2, EINVAL},
        {"larger than the buffer", kWidth, kHeight * 4, DRM_FORMAT_RGB565, create.handle,
         create.pitch, EINVAL},
        {"format the plane does not take", kWidth, kHeight, DRM_FORMAT_ARGB1555, create.handle,
         create.pitch, EINVAL},
        {"no width", 0, kHeight, DRM_FORMAT_RGB565, create.handle, create.pitch, EINVAL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const uint32_t handles[4] = {row.handle};
        const uint32_t pitches[4] = {row.pitch};
        const uint32_t offsets[4] = {};
        uint32_t id = 0;
        EXPECT_EQ(errnoOf(drmModeAddFB2(fd.get(), row.width, row.height, row.format, handles,
                                        pitches, offsets, &id, 0)),
                  row.err);
    }
    uint32_t legacy = 0;
    EXPECT_EQ(drmModeAddFB(fd.get(), kWidth, kHeight, 16, 16, create.pitch, create.handle, &legacy),
              0);
    EXPECT_NE(legacy, 0u);
    EXPECT_EQ(errnoOf(drmModeAddFB(fd.get(), kWidth, kHeight, 12, 12, create.pitch, create.handle,
                                   &legacy)),
              EINVAL);
    EXPECT_EQ(errnoOf(drmModeRmFB(fd.get(), 4242)), ENOENT);
}

TEST(FakefbDrm, fstat_reports_a_drm_character_device) {
    const DrmPanel panel(16, {}, "/dev/dri/card3");
    const FileDescriptor fd = openCard(panel.device().c_str());
    ASSERT_GE(fd.get(), 0);
    struct stat st {};
    ASSERT_EQ(fstat(fd.get(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(major(st.st_rdev), 226u);
    EXPECT_EQ(minor(st.st_rdev), 3u);
    struct stat64 st64 {};
    ASSERT_EQ(fstat64(fd.get(), &st64), 0);
    EXPECT_TRUE(S_ISCHR(st64.st_mode));
    struct stat at {};
    ASSERT_EQ(fstatat(fd.get(), "", &at, AT_EMPTY_PATH), 0);
    EXPECT_EQ(at.st_rdev, st.st_rdev);
    // The files behind it stay what they are.
    struct stat plain {};
    ASSERT_EQ(stat((panel.backingFile() + ".vram").c_str(), &plain), 0);
    EXPECT_TRUE(S_ISREG(plain.st_mode));
    const FileDescriptor file(open(panel.backingFile().c_str(), O_RDONLY));
    ASSERT_EQ(fstat(file.get(), &plain), 0);
    EXPECT_TRUE(S_ISREG(plain.st_mode));
}

TEST(FakefbDrm, framebuffer_panel_keeps_its_plain_fstat_and_refuses_drm_ioctls) {
    const Panel panel("/dev/fakefb-drm-test-fb", geometry(16));
    panel.apply();
    const FileDescriptor fd(open("/dev/fakefb-drm-test-fb", O_RDWR));
    ASSERT_GE(fd.get(), 0);
    struct stat st {};
    ASSERT_EQ(fstat(fd.get(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    uint64_t value = 0;
    EXPECT_EQ(errnoOf(drmGetCap(fd.get(), DRM_CAP_DUMB_BUFFER, &value)), ENOTTY);
}

TEST(FakefbDrm, framebuffer_ioctls_and_unknown_ioctls_fail_as_on_a_drm_node) {
    const DrmPanel panel(16);
    const FileDescriptor fd = openCard();
    fb_var_screeninfo var{};
    EXPECT_EQ(resultAndErrno([&] { return ioctl(fd.get(), FBIOGET_VSCREENINFO, &var); }),
              failedWith(ENOTTY));
    drm_mode_get_blob blob{};
    EXPECT_EQ(resultAndErrno([&] { return ioctl(fd.get(), DRM_IOCTL_MODE_GETPROPBLOB, &blob); }),
              failedWith(EINVAL));
}

TEST(FakefbDrm, rmfb_of_the_framebuffer_on_show_turns_the_panel_off) {
    const DrmPanel panel(16);
    Shown shown = showPattern(panel, 14);
    ASSERT_FALSE(allZero(panel));
    ASSERT_EQ(drmModeRmFB(shown.fd.get(), shown.fb->id()), 0);
    EXPECT_TRUE(allZero(panel));
    EXPECT_EQ(kinds(panel.damage()), (std::vector<std::string>{"setcrtc", "rmfb", "off"}));
    // The CRTC is off.
    EXPECT_EQ(errnoOf(drmModePageFlip(shown.fd.get(), shown.out.crtc, shown.fb->id(), 0, nullptr)),
              EBUSY);
}

// Shows a pattern, optionally hands the framebuffer over with CLOSEFB, and
// closes the descriptor; returns the CLOSEFB result (or 0 when not asked).
int showAndClose(const Panel& panel, bool handOver) {
    Shown shown = showPattern(panel, 15);
    int result = 0;
    if (handOver) {
        drm_mode_closefb closefb{shown.fb->id(), 0};
        result = drmIoctl(shown.fd.get(), DRM_IOCTL_MODE_CLOSEFB, &closefb) == 0 ? 0 : errno;
    }
    return result;  // shown's descriptor closes here
}

TEST(FakefbDrm, closefb_keeps_the_picture_after_close) {
    const DrmPanel panel(32);
    ASSERT_EQ(showAndClose(panel, true), 0);
    EXPECT_FALSE(allZero(panel));
    EXPECT_EQ(kinds(panel.damage()), (std::vector<std::string>{"setcrtc", "closefb", "close"}));
    // The next client finds the picture on show and the framebuffer not its own.
    const FileDescriptor fd = openCard();
    const drmModeCrtcPtr crtc = drmModeGetCrtc(fd.get(), findOutput(fd.get()).crtc);
    ASSERT_NE(crtc, nullptr);
    EXPECT_NE(crtc->buffer_id, 0u);
    EXPECT_EQ(errnoOf(drmModeRmFB(fd.get(), crtc->buffer_id)), ENOENT);
    drmModeFreeCrtc(crtc);
}

TEST(FakefbDrm, without_closefb_the_panel_goes_black_at_close) {
    for (const bool kernelHasCloseFb : {true, false}) {
        SCOPED_TRACE(kernelHasCloseFb);
        DrmOptions drm;
        drm.closeFb = kernelHasCloseFb;
        const DrmPanel panel(16, drm);
        // Without the call, or on a kernel that does not know it (EINVAL).
        EXPECT_EQ(showAndClose(panel, !kernelHasCloseFb), kernelHasCloseFb ? 0 : EINVAL);
        EXPECT_TRUE(allZero(panel));
        EXPECT_EQ(kinds(panel.damage()), (std::vector<std::string>{"setcrtc", "close", "off"}));
    }
}

TEST(FakefbDrm, exit_with_the_descriptor_open_ends_the_client) {
    for (const bool handOver : {false, true}) {
        SCOPED_TRACE(handOver);
        const DrmPanel panel(16);
        const pid_t pid = fork();
        if (pid == 0) {
            const int fd = open(kCard, O_RDWR);  // left open on purpose
            const Output out = findOutput(fd);
            // exit() leaves the buffer mapped and the descriptor open.
            DumbFb fb(fd, 16);
            fb.fill(0x07E0);
            drm_mode_closefb closefb{fb.id(), 0};
            const bool ok = setCrtc(fd, out, fb.id()) == 0 &&
                            (!handOver || drmIoctl(fd, DRM_IOCTL_MODE_CLOSEFB, &closefb) == 0);
            exit(ok ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status));
        ASSERT_EQ(WEXITSTATUS(status), 0);
        EXPECT_EQ(panel.pixel(1, 1), handOver ? 0x07E0u : 0u);
        EXPECT_EQ(panel.damage().back().kind, handOver ? "close" : "off");
    }
}

TEST(FakefbDrm, duplicated_descriptor_keeps_the_client_alive) {
    const DrmPanel panel(16);
    FileDescriptor copy;
    {
        Shown shown = showPattern(panel, 16);
        copy = FileDescriptor(dup(shown.fd.get()));
    }
    EXPECT_FALSE(allZero(panel));
    EXPECT_EQ(kinds(panel.damage()), std::vector<std::string>{"setcrtc"});
    copy = FileDescriptor();
    EXPECT_TRUE(allZero(panel));
}

TEST(FakefbDrm, damage_record_lists_every_operation) {
    DrmOptions drm;
    drm.vblank = true;
    const DrmPanel panel(16, drm);
    uint32_t fbA = 0;
    uint32_t fbB = 0;
    uint32_t connector = 0;
    uint32_t crtc = 0;
    {
        Shown shown = showPattern(panel, 17);
        DumbFb b(shown.fd.get(), 16);
        ASSERT_TRUE(b.ok());
        fbA = shown.fb->id();
        fbB = b.id();
        connector = shown.out.connector;
        crtc = shown.out.crtc;
        drmModeClip clips[] = {{0, 0, 4, 4}, {10, 10, 12, 13}};
        ASSERT_EQ(drmModeDirtyFB(shown.fd.get(), fbA, clips, 2), 0);
        ASSERT_EQ(drmModePageFlip(shown.fd.get(), crtc, fbB, 0, nullptr), 0);
        ASSERT_EQ(drmModeRmFB(shown.fd.get(), fbA), 0);
        drm_mode_closefb closefb{fbB, 0};
        ASSERT_EQ(drmIoctl(shown.fd.get(), DRM_IOCTL_MODE_CLOSEFB, &closefb), 0);
    }
    const std::vector<DamageRecord> records = panel.damage();
    ASSERT_EQ(kinds(records),
              (std::vector<std::string>{"setcrtc", "dirty", "flip", "rmfb", "closefb", "close"}));
    EXPECT_EQ(records[0].fb, fbA);
    EXPECT_EQ(records[0].crtc, crtc);
    EXPECT_EQ(records[0].connectors, std::vector<uint32_t>{connector});
    EXPECT_EQ(records[0].rects, (std::vector<ClipRect>{{0, 0, kWidth, kHeight}}));
    EXPECT_EQ(records[1].rects, (std::vector<ClipRect>{{0, 0, 4, 4}, {10, 10, 12, 13}}));
    EXPECT_EQ(records[2].fb, fbB);
    EXPECT_EQ(records[2].crtc, crtc);
    EXPECT_EQ(records[3].fb, fbA);
    EXPECT_EQ(records[4].fb, fbB);
    std::ifstream in(panel.damageFile());
    std::string first;
    std::getline(in, first);
    EXPECT_EQ(first, "setcrtc fb=" + std::to_string(fbA) + " crtc=" + std::to_string(crtc) +
                         " conn=" + std::to_string(connector) + " 0,0,30,20");
}

}  // namespace
