#pragma once

// The fixed and variable screen information and the colour map are fields of
// the engine, so their kernel types are needed here; every ioctl and mmap stays
// in LcmGuiBase.cpp.
#include <linux/fb.h>

#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "DrmPanel.h"
#include "GuiBackLight.h"
#include "GuiConfig.h"
#include "GuiScreen.h"
#include "dravik_fontrenderer/FontRenderer.h"

namespace dravik::ipc::messages {
class ShowGui;
class ShowSimpleScreen;
class LcmGuiTextSettingsElementRef;
class LcmGuiImgSettingsElementRef;
}  // namespace dravik::ipc::messages

namespace dravik::lcmgui {

// The panel's framebuffer on the camera, unless the command line names another.
inline constexpr const char kDefaultDevice[] = "/dev/fb2";
// A DRM device may be followed by this and a connector's name ("HDMI-A-1") or
// number to drive that connector: "/dev/dri/card0:DSI-1".
inline constexpr char kConnectorSeparator = ':';

// The screen on show and the runtime data of its animation.
struct GuiAnimStateDesc {
    std::string guiId;          // name of the configured screen on show; empty for none
    GuiTextConf textConf;       // the current screen's text element
    GuiImgConf imgConf;         // the current screen's image element
    bool stateChanged = false;  // a full redraw is pending
    cv::Mat img;                // the loaded image (8-bit BGR), empty when there is none
    uint32_t lastLevel = 0;     // animation level last drawn
    uint64_t animStart = 0;     // animation start in nowMs() milliseconds; 0 = nothing animates
};

// The display engine: owns the framebuffer, the drawing buffer (8-bit BGR at the
// panel's resolution), the screen on show and its animation, the font renderer
// and the backlight. Everything is drawn into the drawing buffer first; showBuf
// is the only path to the panel.
class LcmGui {
public:
    explicit LcmGui(GuiConfig& config);
    ~LcmGui();
    LcmGui(const LcmGui&) = delete;
    LcmGui& operator=(const LcmGui&) = delete;

    // Brings the panel up: backlight, device, screen information, mapping,
    // colour path, drawing buffer, fonts, start-up screen. An empty `device`
    // keeps kDefaultDevice; a negative `brightness` leaves the backlight alone.
    // A DRM device (character major 226) is driven through KMS instead of the
    // framebuffer calls; everything above the panel is the same.
    [[nodiscard]] bool init(const std::string& device, const std::string& guiId,
                            signed char brightness);

    // Brings up a panel of `format` (resolution, depth, channel layout) held in
    // this process's memory instead of a device: the same colour path, drawing
    // buffer and fonts as init, no backlight and no start-up screen. Palette
    // panels end here as they end init. The preview tool draws through this.
    [[nodiscard]] bool initInMemory(const fb_var_screeninfo& format);
    // The panel's pixel memory: yres lines of panelLineLength() bytes each,
    // pixels as the format describes them; null before a successful start-up.
    const unsigned char* panelMemory() const { return fbMem; }
    unsigned panelLineLength() const { return fbFix.line_length; }
    const fb_var_screeninfo& panelFormat() const { return fbVar; }
    // Image files below the gui directories are opened below `root` instead
    // (root + "/etc/gui/..."), after the same containment test; empty: the real
    // directories. Symbolic links below root are followed as they point.
    void setGuiRoot(const std::string& root) { guiRoot = root; }

    // Turns the panel by `degrees` (0, 90, 180 or 270, clockwise) whatever the
    // screens file says; for a panel in memory, before initInMemory.
    void overrideRotation(unsigned degrees) { rotationOverride = static_cast<int>(degrees); }
    // How far the panel's picture is turned clockwise from the screen.
    unsigned screenRotation() const { return rotation; }
    // The screen: the panel as turned, 0 before start-up.
    unsigned screenWidth() const { return rotation % 180 == 0 ? fbVar.xres : fbVar.yres; }
    unsigned screenHeight() const { return rotation % 180 == 0 ? fbVar.yres : fbVar.xres; }

    // Blanks the drawing buffer; the panel is not touched.
    void clearBuf();
    // Copies the w x h rectangle at (x, y) of the drawing buffer to the panel;
    // a zero size at the origin means the whole screen.
    bool showBuf(unsigned x, unsigned y, unsigned w, unsigned h);
    bool showBuf();
    // Checks that a w x h element at (x, y) fits the screen, then rewrites x and
    // y for the alignment.
    bool getOffsetXY(unsigned& x, unsigned& y, unsigned w, unsigned h, AlignHor alignHor,
                     AlignVert alignVert);

    // Screen state and animation.
    // Takes a new screen (validating its animation); it is drawn by the next service().
    bool setState(GuiScreenDesc screen, unsigned long now);
    // The main loop's tick: backlight, full redraw of a new screen, animation step.
    bool service();
    // Whether the screen on show has its image: false when it has none or its
    // image did not load (such a screen stays still).
    bool imageShown() const { return !state.img.empty(); }

    // Show commands. Both normalise and repair the request in place and return
    // true only when the screen and the brightness were both taken.
    // Shows the configured screen named by "guiId" (an empty name or the name
    // on show changes only the brightness); `response`, when given, receives
    // the resulting "guiId" and "brightness".
    bool showGui(ipc::messages::ShowGui& request, ipc::messages::ShowGui* response);
    // Shows the screen described by the request's "text" and "img" records.
    bool showSimpleScreen(ipc::messages::ShowSimpleScreen& request);

    // Image elements.
    bool loadImage(const std::string& path, cv::Mat& img, const GuiImgConf& conf);
    void getImgUsedSize(const cv::Mat& img, AnimType type, unsigned count, unsigned& width,
                        unsigned& height);
    bool renderImage(const cv::Mat& img, const GuiImgConf& conf, unsigned level, bool clear,
                     bool show);

    // Text elements.
    bool setFontGeometry(unsigned size);
    bool renderText(const GuiTextConf& conf, bool clear, bool show);

    // Colour conversion: filled by init and used by showBuf; public so that the
    // conversion rules can be exercised without a panel.
    unsigned short calcGamma(int n, int max);
    void linearPalette(unsigned bits);
    void ditherPalette(int r, int g, int b);
    void initDither(int shadesR, int shadesG, int shadesB, int shadesGray);
    void lutInit(unsigned depth);
    void initOne(unsigned* table, unsigned bits, unsigned shift);
    unsigned char* convertLine(unsigned depth, unsigned line, unsigned width, unsigned char* dst,
                               unsigned char* src);
    void ditherLine(const unsigned char* src, unsigned char* dst, unsigned line, unsigned width);
    void ditherLineGray(const unsigned char* src, unsigned char* dst, unsigned line,
                        unsigned width);

    // The dither matrix is shared by the process and scaled by every
    // initDither call; this puts back its original thresholds.
    static void resetDitherMatrix();

private:
    // Tests reach the fields through this class (tests/support).
    friend class LcmGuiTestAccess;

    static constexpr int kDitherSize = 8;

    void boundImageSize();
    [[nodiscard]] bool openDevice();
    [[nodiscard]] bool startDrm();
    // Takes the turn of the panel: the override, the screens file's, a DRM
    // panel's own orientation, or none.
    void chooseRotation();
    // The rectangle of the panel that shows the screen's rectangle.
    PanelRect panelRectOf(const PanelRect& screen) const;
    // Converts the panel's rectangle `rect` into the panel memory at fbMem,
    // from the pixels of the drawing buffer that the turn puts there.
    void convertPanelRect(const PanelRect& rect);
    // The same for a turned panel whose pixels convert one by one.
    void convertTurnedByBands(const PanelRect& rect);
    void convertQuarterTurned(const PanelRect& screen);
    // The screen's rectangle that the panel's rectangle shows.
    PanelRect screenRectOf(const PanelRect& panel) const;
    [[nodiscard]] bool readFixedInfo();
    [[nodiscard]] bool readVariableInfo();
    [[nodiscard]] bool mapMemory();
    [[nodiscard]] bool prepareColourPath();
    [[nodiscard]] bool needsColourMap() const;
    [[nodiscard]] bool putColourMap();
    [[nodiscard]] bool createDisplayBuffer();
    [[nodiscard]] bool startDrawing();
    void prepareDepth8(bool directColour);
    void prepareDepth16(bool directColour);
    void prepareDepth24(bool directColour);
    void prepareDepth32(bool directColour);
    // Picks a dedicated conversion for the panel's layout when one gives
    // exactly the bytes of the tables just prepared.
    void chooseFastLine();
    // Drops the dedicated conversion: the tables it was checked against change.
    void forgetFastLine();
    [[nodiscard]] bool fastLineHolds(unsigned depth) const;
    [[nodiscard]] bool ditherTakesLowShades() const;
    [[nodiscard]] bool lowShadesArePaletteIndex884() const;
    unsigned char* convertLineByTables(unsigned depth, unsigned line, unsigned width,
                                       unsigned char* dst, unsigned char* src);
    // The two halves of renderText: the line's coverage drawn for the space
    // right and below (x, y), and that coverage added to the drawing buffer.
    [[nodiscard]] bool drawTextCoverage(const GuiTextConf& conf, unsigned x, unsigned y,
                                        cv::Mat& coverage, unsigned& drawnW, unsigned& drawnH);
    [[nodiscard]] bool addTextCoverage(const cv::Mat& coverage, unsigned x, unsigned y,
                                       unsigned drawnW, unsigned drawnH, bool clear);
    // Shows the start-up screen and applies the start-up brightness.
    [[nodiscard]] bool showStartupScreen(const std::string& guiId, signed char brightness);

    [[nodiscard]] bool applyBrightness(int percent);
    void fillShowGuiResponse(ipc::messages::ShowGui& response) const;
    static GuiTextConf textConfFrom(ipc::messages::LcmGuiTextSettingsElementRef element);
    static GuiImgConf imgConfFrom(ipc::messages::LcmGuiImgSettingsElementRef element);

    bool prepareToService();
    uint32_t animationLevel(uint64_t now) const;
    static int64_t ditherThreshold(unsigned row, unsigned column);

    std::string devicePath;
    std::string connector;  // the DRM connector asked for; empty: the first connected
    DrmPanel drmPanel;
    bool drm = false;       // the panel is driven by drmPanel, whose memory fbMem points into
    unsigned rotation = 0;  // clockwise degrees from the screen to the panel
    int rotationOverride = kRotationUnset;
    std::vector<unsigned char> turnedLine;  // one panel line of drawing-buffer pixels
    std::string guiRoot;
    uint32_t lutRed[256] = {};
    uint32_t lutGreen[256] = {};
    uint32_t lutBlue[256] = {};
    uint16_t palRed[256] = {};
    uint16_t palGreen[256] = {};
    uint16_t palBlue[256] = {};
    fb_cmap cmap = {};
    int32_t redMult = 0;
    int32_t greenMult = 0;
    int32_t redDither[256] = {};
    int32_t greenDither[256] = {};
    int32_t blueDither[256] = {};
    int32_t grayDither[256] = {};
    float gamma = 1.0F;
    unsigned char* fbMem = nullptr;
    uint64_t fbSize = 0;
    fb_fix_screeninfo fbFix = {};
    fb_var_screeninfo fbVar = {};
    int fbFd = -1;
    FontRenderer fontRenderer;
    cv::Mat displayBuf;
    GuiConfig& config;
    GuiAnimStateDesc state;
    uint32_t fontSize = 0;
    uint32_t lineHeight = 0;
    uint32_t lineGap = 0;
    GuiBackLight backLight;

    // The dedicated line conversion chosen by init, used for lines of depth
    // `fastDepth` instead of the tables it was checked against; null when the
    // panel's layout has none. The dither's check also depends on the shared
    // matrix, so it holds only while the matrix is the one it was checked on.
    void (*fastLine)(const uint8_t* src, uint8_t* dst, unsigned width) = nullptr;
    // Its quarter-turned form, when the layout has one; used only while
    // fastLine holds.
    void (*fastTurned)(const uint8_t* src, ptrdiff_t srcStep, unsigned cols, unsigned rows,
                       uint8_t* dst, ptrdiff_t dstStep) = nullptr;
    unsigned fastDepth = 0;
    uint32_t fastLineMatrixVersion = 0;

    // 8 x 8 ordered-dither thresholds, row by row, shared by every engine, and
    // a count of its changes.
    static std::array<int32_t, std::size_t{kDitherSize} * kDitherSize> ditherMatrix;
    static uint32_t ditherMatrixVersion;
};

}  // namespace dravik::lcmgui
