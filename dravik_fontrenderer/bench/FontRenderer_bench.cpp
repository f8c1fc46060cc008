#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "dravik_fontrenderer/FontRenderer.h"

namespace {

// One text element as the engine draws it: measure, then draw into a zeroed
// buffer of the measured size.
void BM_MeasureAndDrawLine(benchmark::State& state) {
    FontRenderer renderer;
    if (!renderer.init()) {
        state.SkipWithError("no font");
        return;
    }
    const auto size = static_cast<unsigned>(state.range(0));
    const std::string text = "Recording 00:12:34 \xE2\x80\x94 Caf\xC3\xA9";
    unsigned lineHeight = 0;
    if (!renderer.maxLineHeight(size, lineHeight)) {
        state.SkipWithError("no line height");
        return;
    }
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        unsigned width = 0;
        unsigned height = 0;
        if (!renderer.lineRender(text, size, nullptr, 320, lineHeight, 320, true, width, height)) {
            state.SkipWithError("measure failed");
            return;
        }
        std::vector<unsigned char> buffer(std::size_t(width) * height);
        if (!renderer.lineRender(text, size, buffer.data(), 320, 240, width, false, width,
                                 height)) {
            state.SkipWithError("draw failed");
            return;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
}
BENCHMARK(BM_MeasureAndDrawLine)->Arg(12)->Arg(24)->Arg(48)->Arg(100);

}  // namespace
