#include "ImageCodecs.h"

#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "dravik_logger/logger.h"

namespace dravik::lcmgui {
namespace {

constexpr char kModule[] = "libdravik_lcm_gui_imgcodecs.so";
constexpr char kCodecsLibrary[] = "libopencv_imgcodecs";

using ReadFunction = bool (*)(const char*, cv::Mat*) noexcept;
using WriteFunction = bool (*)(const char*, const cv::Mat*) noexcept;

// The module's entry points, resolved once.
struct Codecs {
    ReadFunction read = nullptr;
    ReadFunction readUnchanged = nullptr;
    WriteFunction write = nullptr;
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

// Loaded once; the module stays for the life of the process.
Codecs loadCodecs() {
    std::string errors;
    void* module = openModule(errors);
    if (module == nullptr) {
        DRAVIK_LOG(logger::kError, 0, "Failed to load the image codecs: %s", errors.c_str());
        return {};
    }
    Codecs codecs;
    codecs.read = reinterpret_cast<ReadFunction>(dlsym(module, "dravik_lcm_gui_imread"));
    codecs.readUnchanged =
        reinterpret_cast<ReadFunction>(dlsym(module, "dravik_lcm_gui_imread_unchanged"));
    codecs.write = reinterpret_cast<WriteFunction>(dlsym(module, "dravik_lcm_gui_imwrite"));
    if (codecs.read == nullptr || codecs.readUnchanged == nullptr || codecs.write == nullptr) {
        DRAVIK_LOG(logger::kError, 0, "Failed to load the image codecs: %s", dlerror());
        return {};
    }
    return codecs;
}

const Codecs& codecs() {
    static const Codecs loaded = loadCodecs();
    return loaded;
}

cv::Mat decodeWith(ReadFunction read, const std::string& path) {
    cv::Mat img;
    if (read == nullptr || !read(path.c_str(), &img)) {
        img.release();
    }
    return img;
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

bool setImagePixelLimit(uint64_t maxPixels) {
    if (codecsInProcess()) {
        return false;
    }
    return setenv("OPENCV_IO_MAX_IMAGE_PIXELS", std::to_string(maxPixels).c_str(), 1) == 0;
}

cv::Mat decodeImageFile(const std::string& path) {
    return decodeWith(codecs().read, path);
}

cv::Mat decodeImageFileAsStored(const std::string& path) {
    return decodeWith(codecs().readUnchanged, path);
}

bool encodeImageFile(const std::string& path, const cv::Mat& img) {
    return codecs().write != nullptr && codecs().write(path.c_str(), &img);
}

}  // namespace dravik::lcmgui
