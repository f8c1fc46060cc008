// What the tests of the display engine on simulated panels share: the panel
// they open, the pictures they draw and what those must leave in the panel's
// memory, and a way to change what the panel answers. The program preloads
// the simulator itself (FramebufferFixture.cpp holds its main).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <opencv2/core.hpp>
#include <vector>

#include "LcmGui.h"
#include "LcmGuiTestAccess.h"
#include "dravik_logger/log_capture.h"
#include "fakefb/fakefb.h"

namespace dravik::lcmgui::testsupport {

using Access = LcmGuiTestAccess;
using dravik::logger::LogCapture;

constexpr char kDevice[] = "/dev/fb-engine-test";
constexpr uint8_t kSentinel = 0xA5;

// While it lives, every ioctl answer of the simulated panel passes through
// `patch`, which may rewrite it or, by returning false, make the request fail:
// for the cases the simulator does not model (a depth it refuses, a zero line
// length, a failing request).
struct PatchGuard {
    explicit PatchGuard(std::function<bool(unsigned long request, void* arg)> patch);
    ~PatchGuard();
    PatchGuard(const PatchGuard&) = delete;
    PatchGuard& operator=(const PatchGuard&) = delete;
};

// Fills `buf` with a known picture: every pixel different in every channel.
void paintPattern(cv::Mat& buf);
// Overwrites the panel's memory in place (the engine's mapping sees it).
void fillPanel(const fakefb::Panel& panel, uint8_t value);
// Compares the panel with the drawing buffer inside `rect` and with the
// sentinel everywhere else (padding included); reports the first mismatch.
void expectPanel(const fakefb::Panel& panel, const cv::Mat& buf, cv::Rect rect);

class Framebuffer : public ::testing::Test {
protected:
    void TearDown() override {
        fakefb::Panel::clearAll();
        LcmGui::resetDitherMatrix();
    }

    // A panel whose memory holds the sentinel before the engine opens it.
    static std::unique_ptr<fakefb::Panel> makePanel(const fakefb::Geometry& geometry);

    GuiConfig config;
};

struct DepthCase {
    const char* name;
    fakefb::Geometry geometry;
};

// Panels of every depth and channel layout the engine draws on.
std::vector<DepthCase> depthCases();

}  // namespace dravik::lcmgui::testsupport
