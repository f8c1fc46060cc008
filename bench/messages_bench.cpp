// Message classes: normalising requests and reading their element records,
// the work done for every request before the display engine sees it.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "dravik_ipc_messages/messages.h"

using dravik::ipc::messages::ShowGui;
using dravik::ipc::messages::ShowSimpleScreen;
using dravik::variant::Variant;

namespace {

// A ShowSimpleScreen request as the bus delivers it: every field present,
// integers in the widths the bus mapping gives them (32-bit from most clients),
// possible values in other letter cases, so that normalisation has work to do.
Variant fullRequest() {
    Variant request = Variant::MakeContainer(dravik::variant::kObject);
    request["id"] = uint64_t{123456789012345};
    request["timeStamp"] = timeval{1700000000, 250000};
    request["from"] = ":1.42";
    request["to"] = "dravik_lcm_gui";
    request["functionName"] = "ShowSimpleScreen";
    request["queueIfDestUnavailable"] = true;
    request["responseExpected"] = true;
    request["transactionId"] = int64_t{-1};
    request["isBroadcast"] = false;
    request["brightness"] = 80;
    Variant& text = request["text"];
    text["str"] = "Recording 00:12:34";
    text["size"] = 24;
    text["x"] = 0;
    text["y"] = 16;
    text["alignHor"] = "Center";
    text["alignVert"] = "BOTTOM";
    Variant& img = request["img"];
    img["file"] = "heart.png";
    img["x"] = 0;
    img["y"] = 0;
    img["alignHor"] = "center";
    img["alignVert"] = "middle";
    img["animation"] = "breathing";
    img["duration"] = 2000;
    img["count"] = 0;
    return request;
}

void BM_NormalizeFields_EmptyShowGui(benchmark::State& state) {
    ShowGui probe;
    if (!probe.NormalizeFields() || probe.functionName() != "ShowGui" ||
        probe.StringKeysCount() != 11) {
        state.SkipWithError("an empty ShowGui does not normalise as expected");
        return;
    }
    // Construction and destruction of the empty object are part of the figure.
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        ShowGui request;
        benchmark::DoNotOptimize(request.NormalizeFields());
        benchmark::DoNotOptimize(request);
    }
}
BENCHMARK(BM_NormalizeFields_EmptyShowGui);

// The copy alone, to subtract from the next figure.
void BM_Copy_FullShowSimpleScreen(benchmark::State& state) {
    const Variant source = fullRequest();
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        ShowSimpleScreen request(source);
        benchmark::DoNotOptimize(request);
    }
}
BENCHMARK(BM_Copy_FullShowSimpleScreen);

void BM_NormalizeFields_FullShowSimpleScreen(benchmark::State& state) {
    const Variant source = fullRequest();
    ShowSimpleScreen probe(source);
    if (!probe.NormalizeFields() || probe.brightness() != 80 ||
        (*probe.Find("brightness")).Type() != dravik::variant::kInt8) {
        state.SkipWithError("the full request does not normalise as expected");
        return;
    }
    // Each round normalises a fresh copy of the request as received.
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        ShowSimpleScreen request(source);
        benchmark::DoNotOptimize(request.NormalizeFields());
        benchmark::DoNotOptimize(request);
    }
}
BENCHMARK(BM_NormalizeFields_FullShowSimpleScreen);

// What the display engine reads of a ShowSimpleScreen: every field of both records.
void BM_ReadRecords_ShowSimpleScreen(benchmark::State& state) {
    ShowSimpleScreen request(fullRequest());
    if (!request.NormalizeFields() || request.text().str() != "Recording 00:12:34" ||
        request.img().duration() != 2000) {
        state.SkipWithError("the records do not read back as written");
        return;
    }
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        auto text = request.text();
        std::string str = text.str();
        unsigned size = text.size();
        unsigned textX = text.x();
        unsigned textY = text.y();
        std::string textHor = text.alignHor();
        std::string textVert = text.alignVert();
        auto img = request.img();
        std::string file = img.file();
        std::string animation = img.animation();
        unsigned duration = img.duration();
        unsigned count = img.count();
        unsigned imgX = img.x();
        unsigned imgY = img.y();
        std::string imgHor = img.alignHor();
        std::string imgVert = img.alignVert();
        benchmark::DoNotOptimize(str);
        benchmark::DoNotOptimize(size);
        benchmark::DoNotOptimize(textX);
        benchmark::DoNotOptimize(textY);
        benchmark::DoNotOptimize(textHor);
        benchmark::DoNotOptimize(textVert);
        benchmark::DoNotOptimize(file);
        benchmark::DoNotOptimize(animation);
        benchmark::DoNotOptimize(duration);
        benchmark::DoNotOptimize(count);
        benchmark::DoNotOptimize(imgX);
        benchmark::DoNotOptimize(imgY);
        benchmark::DoNotOptimize(imgHor);
        benchmark::DoNotOptimize(imgVert);
    }
}
BENCHMARK(BM_ReadRecords_ShowSimpleScreen);

}  // namespace
