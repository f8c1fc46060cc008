// Arbitrary bytes as JSON text. Whatever the reader accepts must survive a
// trip through the writer: read, write, read again gives an equal value.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "dravik_variant/variant.h"

using dravik::variant::Variant;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    Variant first;
    if (!first.FromJSONString(text)) {
        return 0;
    }
    const std::string written = first.ToJSON();
    Variant second;
    if (!second.FromJSONString(written)) {
        fprintf(stderr, "the writer's own output does not read back: %s\n", written.c_str());
        abort();
    }
    if (!(second == first)) {
        fprintf(stderr, "the value changed on its way through the writer: %s\n", written.c_str());
        abort();
    }
    return 0;
}
