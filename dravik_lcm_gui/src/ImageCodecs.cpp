#include "ImageCodecs.h"

#include <dlfcn.h>
#include <link.h>

#include <cstdlib>
#include <cstring>

#include "dravik_logger/logger.h"

namespace dravik::lcmgui {
namespace {

constexpr char kModule[] = "libdravik_lcm_gui_imgcodecs.so";
constexpr char kEntry[] = "dravik_lcm_gui_imread";
constexpr char kCodecsLibrary[] = "libopencv_imgcodecs";

using ReadFunction = bool (*)(const char*, cv::Mat*) noexcept;

// Loaded once; the module stays for the life of the process.
ReadFunction loadCodecs() {
    // Found through the run path of the program, as its own libraries are.
    void* module = dlopen(kModule, RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        DRAVIK_LOG(3, 0, "Failed to load the image codecs: %s", dlerror());
        return nullptr;
    }
    auto* read = reinterpret_cast<ReadFunction>(dlsym(module, kEntry));
    if (read == nullptr) {
        DRAVIK_LOG(3, 0, "Failed to load the image codecs: %s", dlerror());
    }
    return read;
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
    static const ReadFunction read = loadCodecs();
    cv::Mat img;
    if (read == nullptr || !read(path.c_str(), &img)) {
        img.release();
    }
    return img;
}

}  // namespace dravik::lcmgui
