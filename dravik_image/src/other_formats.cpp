// The other-formats module: found, loaded once, and asked to decode.
#include <dlfcn.h>
#include <link.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "decoders.h"
#include "dravik_logger/logger.h"

namespace dravik::image::detail {
namespace {

constexpr char kModule[] = "libdravik_image_other_formats.so";
constexpr char kCodecsLibrary[] = "libopencv_imgcodecs";

using ReadFunction = bool (*)(const char*, cv::Mat*) noexcept;

// The module's entry points, resolved once.
struct Module {
    ReadFunction read = nullptr;
    ReadFunction readUnchanged = nullptr;
};

// The directory this library was loaded from: the module is installed beside
// it (the library directory), and built beside it (the build tree's lib/).
std::string libraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&libraryDirectory), &info) == 0 ||
        info.dli_fname == nullptr) {
        return {};
    }
    const std::string path = info.dli_fname;
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

// Beside this library first; then the loader's own search (LD_LIBRARY_PATH,
// the system directories) for a module installed elsewhere. Neither the
// program's path (/proc/self/exe names it by its path outside a chroot that
// entered a mount namespace) nor a directory fixed at build time is used: a
// device never looks into a build tree.
void* openModule(std::string& errors) {
    const std::string dir = libraryDirectory();
    std::vector<std::string> candidates;
    if (!dir.empty()) {
        candidates.push_back(dir + kModule);
    }
    candidates.push_back(kModule);
    for (const std::string& candidate : candidates) {
        if (void* module = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL)) {
            return module;
        }
        const char* error = dlerror();
        errors += errors.empty() ? "" : "; ";
        errors += error != nullptr ? error : candidate;
    }
    return nullptr;
}

bool gLoaded = false;

// Loaded once; the module stays for the life of the process. A device without
// it (its package is not installed) reads PNG and JPEG only, and says so once.
Module loadModule() {
    gLoaded = true;
    std::string errors;
    void* module = openModule(errors);
    if (module == nullptr) {
        DRAVIK_LOG(logger::kError, 0,
                   "Failed to load the image codecs for formats other than PNG and JPEG: %s",
                   errors.c_str());
        return {};
    }
    Module loaded;
    loaded.read = reinterpret_cast<ReadFunction>(dlsym(module, "dravik_image_imread"));
    loaded.readUnchanged =
        reinterpret_cast<ReadFunction>(dlsym(module, "dravik_image_imread_unchanged"));
    if (loaded.read == nullptr || loaded.readUnchanged == nullptr) {
        DRAVIK_LOG(logger::kError, 0,
                   "Failed to load the image codecs for formats other than PNG and JPEG: %s",
                   dlerror());
        return {};
    }
    return loaded;
}

const Module& module() {
    static const Module loaded = loadModule();
    return loaded;
}

bool codecsInProcess() {
    return dl_iterate_phdr(
               [](dl_phdr_info* info, size_t, void*) {
                   return info->dlpi_name != nullptr &&
                                  std::strstr(info->dlpi_name, kCodecsLibrary) != nullptr
                              ? 1
                              : 0;
               },
               nullptr) != 0;
}

}  // namespace

bool setOtherFormatsPixelLimit(uint64_t maxPixels) {
    if (codecsInProcess()) {
        return false;
    }
    return setenv("OPENCV_IO_MAX_IMAGE_PIXELS", std::to_string(maxPixels).c_str(), 1) == 0;
}

cv::Mat readOther(const std::string& path, ReadMode mode) {
    const Module& m = module();
    const ReadFunction read = mode == ReadMode::kColour ? m.read : m.readUnchanged;
    cv::Mat img;
    if (read == nullptr || !read(path.c_str(), &img)) {
        img.release();
    }
    return img;
}

}  // namespace dravik::image::detail

namespace dravik::image {

bool otherFormatsLoaded() {
    return detail::gLoaded;
}

}  // namespace dravik::image
