// Arbitrary argument vectors through the daemon's command-line definitions:
// the bytes are split at zero bytes into at most 64 arguments.
#include <cstdint>
#include <string>
#include <vector>

#include "dravik_variant/cmdline.h"
#include "dravik_variant/variant.h"

using dravik::variant::Variant;

namespace {

// The daemon's parameters, as its start-up declares them.
Variant definitions() {
    Variant d;
    dravik::variant::AddParameter(d, 'h', "help", "Outputs this help", Variant(true));
    dravik::variant::AddParameter(d, 'd', "device", "Frame buffer device", Variant("/dev/fb2"));
    dravik::variant::AddParameter(d, 'c', "configFile", "Screens config file", Variant(""));
    dravik::variant::AddParameter(d, 's', "startupScreen", "Start-up screen", Variant(""));
    dravik::variant::AddParameter(d, 'b', "brightness", "Brightness", Variant(-1));
    return d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> words{"dravik_lcm_gui"};
    std::string word;
    for (size_t i = 0; i < size && words.size() < 64; ++i) {
        if (data[i] == 0) {
            words.push_back(word);
            word.clear();
        } else {
            word += static_cast<char>(data[i]);
        }
    }
    words.push_back(word);
    std::vector<const char*> argv;
    for (const std::string& w : words) {
        argv.push_back(w.c_str());
    }
    argv.push_back(nullptr);
    Variant defs = definitions();
    Variant result;
    (void)dravik::variant::ParseCommandLine(static_cast<int>(words.size()), argv.data(), defs,
                                            result);
    (void)result.ToJSON();
    return 0;
}
