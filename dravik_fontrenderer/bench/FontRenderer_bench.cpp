#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "dravik_fontrenderer/FontRenderer.h"

namespace {

// 40 characters of Latin text, as a status line on the panel.
const std::string kLatinLine = "Firmware 2.1 is ready: restart in 00:30.";

bool start(FontRenderer& renderer) {
    return renderer.init();
}

// One text element as the engine draws it: measure, then draw into a zeroed
// buffer of the measured size. False when either step fails or nothing is drawn.
bool measureAndDraw(FontRenderer& renderer, const std::string& text, unsigned size,
                    unsigned lineHeight, std::vector<unsigned char>& buffer) {
    unsigned width = 0;
    unsigned height = 0;
    if (!renderer.lineRender(text, size, nullptr, 320, lineHeight, 320, true, width, height)) {
        return false;
    }
    buffer.assign(std::size_t(width) * height, 0);
    return renderer.lineRender(text, size, buffer.data(), 320, 240, width, false, width, height) &&
           std::any_of(buffer.begin(), buffer.end(), [](unsigned char v) { return v != 0; });
}

void run(benchmark::State& state, const std::string& text) {
    FontRenderer renderer;
    const auto size = static_cast<unsigned>(state.range(0));
    unsigned lineHeight = 0;
    std::vector<unsigned char> buffer;
    if (!start(renderer) || !renderer.maxLineHeight(size, lineHeight) ||
        !measureAndDraw(renderer, text, size, lineHeight, buffer)) {
        state.SkipWithError("the line cannot be drawn");
        return;
    }
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        if (!measureAndDraw(renderer, text, size, lineHeight, buffer)) {
            state.SkipWithError("the line cannot be drawn");
            return;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
}

// A status line in Latin script at three sizes.
void BM_LatinLine(benchmark::State& state) {
    run(state, kLatinLine);
}
BENCHMARK(BM_LatinLine)->Arg(12)->Arg(24)->Arg(48);

struct ScriptSample {
    const char* name;
    const char* text;
};
const ScriptSample kScripts[] = {
    {"arabic", "مرحبا بالعالم"},
    {"hebrew", "עדכון תוכנה"},
    {"mixed", "Firmware 2.1 تحديث"},
    {"devanagari", "नमस्ते"},
    {"thai", "กำลังอัปเดต"},
    {"chinese", "正在更新固件"},
    {"japanese", "ファームウェア更新中"},
    {"korean", "펌웨어 업데이트"},
};

void BM_ScriptLine(benchmark::State& state, const char* text) {
    run(state, text);
}

// From a renderer just initialised to the first line drawn: for scripts the
// first face lacks, this includes opening the fallback face.
void BM_InitAndFirstLine(benchmark::State& state, const char* text) {
    const unsigned size = 24;
    std::vector<unsigned char> buffer;
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        FontRenderer renderer;
        unsigned lineHeight = 0;
        if (!renderer.init() || !renderer.maxLineHeight(size, lineHeight) ||
            !measureAndDraw(renderer, text, size, lineHeight, buffer)) {
            state.SkipWithError("the line cannot be drawn");
            return;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
}

int registerScriptBenchmarks() {
    for (const auto& script : kScripts) {
        benchmark::RegisterBenchmark((std::string("BM_ScriptLine/") + script.name).c_str(),
                                     BM_ScriptLine, script.text)
            ->Arg(24);
    }
    benchmark::RegisterBenchmark("BM_InitAndFirstLine/latin", BM_InitAndFirstLine,
                                 kLatinLine.c_str());
    for (const char* name : {"arabic", "devanagari", "chinese"}) {
        for (const auto& script : kScripts) {
            if (std::string(script.name) == name) {
                benchmark::RegisterBenchmark(
                    (std::string("BM_InitAndFirstLine/") + script.name).c_str(),
                    BM_InitAndFirstLine, script.text);
            }
        }
    }
    return 0;
}
const int kRegistered = registerScriptBenchmarks();

}  // namespace
