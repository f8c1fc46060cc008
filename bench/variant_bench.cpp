// Variant: reading JSON files into values, and copying a message-sized value.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "dravik_test_support/temp_dir.h"
#include "dravik_variant/variant.h"

using dravik::variant::Variant;

namespace {

constexpr size_t kGeneratedSize = size_t{1} << 20;

// One record of the generated file: the kinds of values a screens file or a
// request holds (strings, integers, a double, booleans, null, nesting).
std::string record(unsigned index) {
    char name[32];
    std::snprintf(name, sizeof name, "screen-%05u", index);
    return std::string(R"({"name":")") + name +
           R"(","text":{"str":"Recording 00:12:34","size":24,"x":0,"y":16,)"
           R"("horizontal":"center","vertical":"bottom"},)"
           R"("img":{"file":"logo.png","animation":"breathing","duration":2000,"count":8},)"
           R"("ratio":0.75,"enabled":true,"note":null,"levels":[0,25,50,75,100]})";
}

struct GeneratedFile {
    dravik::testsupport::TempDir dir{"dravik_variant_bench_"};
    std::string path;
    unsigned records = 0;
    size_t bytes = 0;

    GeneratedFile() {
        std::string text = R"({"records":[)";
        while (text.size() < kGeneratedSize) {
            text += (records != 0 ? "," : "") + record(records);
            ++records;
        }
        text += "]}";
        bytes = text.size();
        path = dir.write("generated.json", text);
    }
};

const GeneratedFile& generatedFile() {
    static const GeneratedFile file;
    return file;
}

void readFile(benchmark::State& state, const std::string& path) {
    Variant value;
    if (!value.FromJSONFile(path)) {
        state.SkipWithError(
            ("cannot read " + path + ": " + Variant::LastJsonError().message).c_str());
        return;
    }
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        Variant parsed;
        if (!parsed.FromJSONFile(path)) {
            state.SkipWithError("read failed");
            return;
        }
        benchmark::DoNotOptimize(parsed);
    }
}

void BM_FromJSONFile_ExampleScreens(benchmark::State& state) {
    Variant value;
    if (!value.FromJSONFile(DRAVIK_EXAMPLE_SCREENS_FILE) ||
        value.GetKeyChain(dravik::variant::kArray, "screens", true) == nullptr) {
        state.SkipWithError("the example screens file does not read as expected");
        return;
    }
    readFile(state, DRAVIK_EXAMPLE_SCREENS_FILE);
}
BENCHMARK(BM_FromJSONFile_ExampleScreens);

void BM_FromJSONFile_Generated1MB(benchmark::State& state) {
    const GeneratedFile& file = generatedFile();
    Variant value;
    const Variant* records = nullptr;
    if (value.FromJSONFile(file.path)) {
        records = value.GetKeyChain(dravik::variant::kArray, "records", true);
    }
    if (records == nullptr || records->NumericKeysCount() != file.records) {
        state.SkipWithError("the generated file does not read back as written");
        return;
    }
    readFile(state, file.path);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file.bytes));
    state.counters["records"] = file.records;
}
BENCHMARK(BM_FromJSONFile_Generated1MB)->Unit(benchmark::kMillisecond);

// A ShowSimpleScreen request as it arrives: the envelope, the brightness and
// both element records.
const char kMessage[] = R"({
  "id": 123456789012345, "timeStamp": {"sec": 1700000000, "usec": 250000},
  "from": ":1.42", "to": "dravik_lcm_gui", "functionName": "ShowSimpleScreen",
  "queueIfDestUnavailable": true, "responseExpected": true, "transactionId": -1,
  "isBroadcast": false, "brightness": 80,
  "text": {"str": "Recording 00:12:34", "size": 24, "x": 0, "y": 16,
           "alignHor": "center", "alignVert": "bottom"},
  "img": {"file": "heart.png", "x": 0, "y": 0, "alignHor": "center", "alignVert": "middle",
          "animation": "breathing", "duration": 2000, "count": 0}
})";

void BM_DeepCopy_Message(benchmark::State& state) {
    Variant message;
    if (!message.FromJSONString(kMessage)) {
        state.SkipWithError("message does not parse");
        return;
    }
    if (Variant(message) != message) {
        state.SkipWithError("a copy differs from its original");
        return;
    }
    // The loop variable only drives the iterations.
    for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
        Variant copy(message);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_DeepCopy_Message);

}  // namespace
