#pragma once

#include <string>

#include "dravik_logger/logger.h"
#include "dravik_variant/variant.h"

namespace dravik::variant {

// The device's properties: a JSON object read from the device's properties
// file. The daemon needs its integer member "sysid".
class CameraInfo : public Variant {
public:
    CameraInfo() = default;
    ~CameraInfo() override = default;
    using Variant::operator=;

    // Loads the device's properties file (fixed at build time). False, with the
    // reason logged and the value left null, when the file is missing,
    // unreadable, not JSON or not a JSON object.
    [[nodiscard]] bool Init();
    // The same for the file at `path`.
    [[nodiscard]] bool Init(const std::string& path);

    // The device's system identifier. A value that is not a container, a
    // missing "sysid" or one that is not an integer ends the process.
    // Defined here so that its log records name this header and "sysid".
    unsigned long sysid() const {
        // Only the two container tags (0x1010, 0x1011) pass: anything below
        // 0x1010 wraps around to a large unsigned difference.
        if (static_cast<unsigned>(Type()) - static_cast<unsigned>(kObject) > 1u) {
            DRAVIK_LOG(logger::kError, 0, "Invalid variant type detected");
            forceCrash();
            return 0;
        }
        const Variant* id = Find("sysid");
        if (id == nullptr) {
            DRAVIK_LOG(logger::kError, 0, "Key \"sysid\" not available");
            forceCrash();
            return 0;
        }
        if (!IsInteger(id->Type())) {
            DRAVIK_LOG(logger::kError, 0, "Key \"sysid\" has a different type than expected");
            forceCrash();
            return 0;
        }
        return static_cast<unsigned long>(*id);
    }
};

}  // namespace dravik::variant
