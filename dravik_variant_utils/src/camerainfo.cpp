#include "dravik_variant_utils/camerainfo.h"

namespace dravik::variant {

bool CameraInfo::Init() {
    return Init(DRAVIK_CAMERAINFO_FILE);
}

bool CameraInfo::Init(const std::string& path) {
    Variant properties;
    if (!properties.FromJSONFile(path)) {
        const JsonError& error = LastJsonError();
        if (error.line == 0) {
            DRAVIK_LOG(logger::kError, 0, "%s: %s", path.c_str(), error.message.c_str());
        } else {
            DRAVIK_LOG(logger::kError, 0, "%s:%zu:%zu: %s", path.c_str(), error.line, error.column,
                       error.message.c_str());
        }
        Free();
        return false;
    }
    if (properties.Type() != kObject) {
        DRAVIK_LOG(logger::kError, 0, "%s: the device properties must be a JSON object",
                   path.c_str());
        Free();
        return false;
    }
    Variant::operator=(std::move(properties));
    return true;
}

}  // namespace dravik::variant
