// The other-formats module: found, loaded once, and asked to decode.
#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

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

// The directory of the running program.
std::string programDirectory() {
    char buffer[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (length <= 0) {
        return {};
    }
    std::string path(buffer, static_cast<size_t>(length));
    return path.substr(0, path.find_last_of('/') + 1);
}

// Where the module is looked for, in order: the library directory next to the
// program (installed: bin/ and DRAVIK_LIBDIR; build tree: bin/ and lib/); the
// installed library directory; the build tree's; then the loader's own search
// (LD_LIBRARY_PATH, the system directories). The program's run path cannot be
// relied on: under a sanitizer's dlopen wrapper the caller is the sanitizer's
// library, not the program. Nor can /proc/self/exe alone: in a chroot that
// enters a new mount namespace it may name the program by its path outside.
void* openModule(std::string& errors) {
    const std::string dir = programDirectory();
    const std::string candidates[] = {
        dir + "../" DRAVIK_LIBDIR "/" + kModule,
        dir + "../lib/" + kModule,
        std::string(DRAVIK_INSTALL_FULL_LIBDIR "/") + kModule,
        std::string(DRAVIK_BUILD_LIBDIR "/") + kModule,
        kModule,
    };
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
