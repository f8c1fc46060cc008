#pragma once

// A panel driven through DRM/KMS: the output for devices such as /dev/dri/card0.
// The engine draws into the memory this class hands out, in the layout that
// panelFormat() describes as a framebuffer would, and hands every rectangle it
// drew to present(): the rectangle becomes a damage clip (DIRTYFB), and where
// the display has vertical blanking the frame is shown by a page flip between
// two buffers, so no update tears. Every libdrm call lives in DrmPanel.cpp.
#include <linux/fb.h>

#include <cstdint>
#include <string>
#include <vector>

namespace dravik::lcmgui {

// A rectangle of the panel, in pixels.
struct PanelRect {
    unsigned x = 0;
    unsigned y = 0;
    unsigned w = 0;
    unsigned h = 0;
};

class DrmPanel {
public:
    // The longest the loop waits for a page flip to complete before it draws
    // into the buffer on show instead, without flips from then on.
    static constexpr int kFlipWaitMs = 50;

    DrmPanel() = default;
    ~DrmPanel();
    DrmPanel(const DrmPanel&) = delete;
    DrmPanel& operator=(const DrmPanel&) = delete;

    // Whether the open descriptor `fd` is a DRM device node (a character
    // device of major 226).
    static bool isDrmDevice(int fd);

    // Takes over the descriptor `fd` of the DRM device `device` and lights the
    // panel: the connector named `connector` (empty: the first connected one),
    // its preferred mode, a CRTC and primary plane that can drive it, dumb
    // buffers of the plane's format, a black frame. False, after one log line
    // that gives the reason, when the device cannot be driven.
    [[nodiscard]] bool start(int fd, const std::string& device, const std::string& connector);

    // The panel as a framebuffer describes it: resolution, depth and channels,
    // and the bytes per line of its buffers.
    const fb_var_screeninfo& panelFormat() const { return format; }
    unsigned lineLength() const { return pitch; }
    uint64_t bufferSize() const { return uint64_t{pitch} * format.yres; }

    // The buffer to draw the next rectangle into, after waiting (bounded) for
    // the flip that would show it to have completed.
    unsigned char* beginFrame();
    // Rectangles that the buffer of beginFrame() has not seen yet (drawn into
    // the other buffer since): the engine draws them again before its own.
    const std::vector<PanelRect>& staleRects() const { return buffers[back].stale; }
    // Hands the rectangle just drawn (and the stale ones drawn again) to the
    // display. False when the frame did not reach it because page flips just
    // stopped working: the engine then draws it again, from beginFrame().
    // Refused clips are logged once and not returned: the pixels are in the
    // buffer all the same.
    bool present(const PanelRect& rect);

    // How the connector says its panel is mounted, as the clockwise turn that
    // shows the screen upright (0, 90, 180 or 270); -1 when it does not say.
    int orientation() const { return panelOrientation; }

    // Whether frames are shown by page flips between two buffers.
    bool doubleBuffered() const { return flipping; }

private:
    struct Buffer {
        uint32_t handle = 0;
        uint32_t fbId = 0;
        unsigned char* memory = nullptr;
        uint64_t size = 0;
        std::vector<PanelRect> stale;
    };

    [[nodiscard]] bool becomeMaster();
    [[nodiscard]] bool chooseConnector(const std::string& wanted);
    void readOrientation();
    [[nodiscard]] bool chooseCrtc();
    [[nodiscard]] bool chooseFormat();
    [[nodiscard]] bool createBuffer(Buffer& buffer);
    void destroyBuffer(Buffer& buffer);
    [[nodiscard]] bool setMode();
    void startFlipping();
    void flush(const Buffer& buffer, const std::vector<PanelRect>& rects);
    [[nodiscard]] bool flip(const PanelRect& rect);
    [[nodiscard]] bool waitForFlip();
    void stopFlipping(const char* reason);

    int fd = -1;
    std::string device;
    uint32_t connectorId = 0;
    std::string connectorName;
    int panelOrientation = -1;
    uint32_t crtcId = 0;
    unsigned crtcIndex = 0;
    uint32_t planeId = 0;
    std::vector<uint32_t> planeFormats;
    uint32_t fourcc = 0;
    std::vector<unsigned char> modeInfo;  // the drmModeModeInfo chosen, as bytes
    fb_var_screeninfo format = {};
    unsigned pitch = 0;
    Buffer buffers[2];
    unsigned front = 0;  // the buffer on show (or asked for by the pending flip)
    unsigned back = 0;   // the buffer drawn into: `front` unless flipping
    bool flipping = false;
    bool flipPending = false;
    bool dirtyWanted = true;  // false once the driver says it has no use for clips
    bool dirtyFailed = false;
};

}  // namespace dravik::lcmgui
