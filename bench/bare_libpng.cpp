// The floor for the daemon's start-up screen: the least a program can do to
// put one PNG on the panel. It opens the framebuffer device and maps it as the
// daemon does, decodes the picture with libpng alone (the daemon's
// transformations: 8 bits per sample, no alpha, grey and palettes expanded to
// RGB), centres it as the daemon centres an image and writes it converted to
// the panel's truecolor layout. scripts/bench times it from exec to the pixels
// and, with --hold, reads its resident size and its mapped libraries while it
// waits for SIGTERM, exactly as it reads the daemon's.
#include <fcntl.h>
#include <linux/fb.h>
#include <png.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// An 8-bit RGB picture, rows packed.
struct Picture {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<uint8_t> rgb;
};

// The device's descriptor and pixel memory, released on every path.
class Panel {
public:
    Panel() = default;
    Panel(const Panel&) = delete;
    Panel& operator=(const Panel&) = delete;
    ~Panel() {
        if (memory_ != nullptr) {
            (void)munmap(memory_, size_);  // the mapping ends with the process anyway
        }
        if (fd_ >= 0) {
            (void)close(fd_);
        }
    }

    [[nodiscard]] bool open(const char* device) {
        fd_ = ::open(device, O_RDWR | O_CLOEXEC);
        if (fd_ < 0 || ioctl(fd_, FBIOGET_FSCREENINFO, &fix_) < 0 ||
            ioctl(fd_, FBIOGET_VSCREENINFO, &var_) < 0) {
            std::fprintf(stderr, "%s: not a framebuffer: %s\n", device, std::strerror(errno));
            return false;
        }
        size_ = static_cast<size_t>(var_.yres) * fix_.line_length;
        void* memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (memory == MAP_FAILED) {
            std::fprintf(stderr, "%s: mmap: %s\n", device, std::strerror(errno));
            return false;
        }
        memory_ = static_cast<uint8_t*>(memory);
        return true;
    }

    const fb_var_screeninfo& var() const { return var_; }
    unsigned lineLength() const { return fix_.line_length; }
    uint8_t* memory() const { return memory_; }

    // Truecolor at 15, 16, 24 or 32 bits, each channel 1 to 8 bits wide: the
    // layouts this program packs.
    bool isPackable() const {
        const fb_bitfield* channels[] = {&var_.red, &var_.green, &var_.blue};
        for (const fb_bitfield* channel : channels) {
            if (channel->length == 0 || channel->length > 8 ||
                channel->offset + channel->length > var_.bits_per_pixel) {
                return false;
            }
        }
        return fix_.visual == FB_VISUAL_TRUECOLOR &&
               (var_.bits_per_pixel == 15 || var_.bits_per_pixel == 16 ||
                var_.bits_per_pixel == 24 || var_.bits_per_pixel == 32);
    }

private:
    int fd_ = -1;
    fb_fix_screeninfo fix_{};
    fb_var_screeninfo var_{};
    size_t size_ = 0;
    uint8_t* memory_ = nullptr;
};

// libpng's read state, destroyed on every path.
struct PngRead {
    png_structp png = nullptr;
    png_infop info = nullptr;
    PngRead() = default;
    PngRead(const PngRead&) = delete;
    PngRead& operator=(const PngRead&) = delete;
    ~PngRead() { png_destroy_read_struct(&png, &info, nullptr); }
};

// Header, transformations and rows. Only plain data lives in this frame, so
// libpng's jump back on an error skips no destructor.
bool readPngRows(PngRead& r, FILE* file, Picture& picture) {
    if (setjmp(png_jmpbuf(r.png)) != 0) {
        return false;
    }
    png_init_io(r.png, file);
    png_read_info(r.png, r.info);
    png_set_expand(r.png);  // palettes to RGB, grey below 8 bits to 8
    png_set_strip_16(r.png);
    png_set_strip_alpha(r.png);
    png_set_gray_to_rgb(r.png);
    (void)png_set_interlace_handling(r.png);  // the pass count is libpng's business
    png_read_update_info(r.png, r.info);
    picture.width = png_get_image_width(r.png, r.info);
    picture.height = png_get_image_height(r.png, r.info);
    if (png_get_rowbytes(r.png, r.info) != size_t{picture.width} * 3) {
        return false;
    }
    // Sized before the rows are read: an error jumps out of png_read_image only.
    picture.rgb.resize(size_t{picture.width} * picture.height * 3);
    std::vector<png_bytep> rows(picture.height);
    for (unsigned y = 0; y < picture.height; ++y) {
        rows[y] = picture.rgb.data() + size_t{y} * picture.width * 3;
    }
    png_read_image(r.png, rows.data());
    png_read_end(r.png, nullptr);
    return true;
}

bool decodePng(const char* path, Picture& picture) {
    FILE* file = std::fopen(path, "rb");
    if (file == nullptr) {
        std::fprintf(stderr, "%s: %s\n", path, std::strerror(errno));
        return false;
    }
    PngRead r;
    r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    r.info = r.png != nullptr ? png_create_info_struct(r.png) : nullptr;
    const bool ok = r.info != nullptr && readPngRows(r, file, picture);
    (void)std::fclose(file);  // read only: nothing to lose
    if (!ok) {
        std::fprintf(stderr, "%s: not a PNG libpng can read\n", path);
    }
    return ok;
}

uint32_t packChannel(uint8_t value, const fb_bitfield& channel) {
    return static_cast<uint32_t>(value >> (8 - channel.length)) << channel.offset;
}

// The picture centred on the panel, as the daemon places a centred image on a
// panel it has blanked (the panel here starts black).
bool writeCentred(const Picture& picture, const Panel& panel) {
    const fb_var_screeninfo& var = panel.var();
    if (picture.width > var.xres || picture.height > var.yres) {
        std::fprintf(stderr, "a %ux%u picture does not fit a %ux%u panel\n", picture.width,
                     picture.height, var.xres, var.yres);
        return false;
    }
    const unsigned x0 = (var.xres - picture.width) / 2;
    const unsigned y0 = (var.yres - picture.height) / 2;
    const unsigned bytesPerPixel = (var.bits_per_pixel + 7) / 8;
    for (unsigned y = 0; y < picture.height; ++y) {
        const uint8_t* src = picture.rgb.data() + size_t{y} * picture.width * 3;
        uint8_t* dst =
            panel.memory() + size_t{y0 + y} * panel.lineLength() + size_t{x0} * bytesPerPixel;
        for (unsigned x = 0; x < picture.width; ++x, src += 3) {
            const uint32_t pixel = packChannel(src[0], var.red) | packChannel(src[1], var.green) |
                                   packChannel(src[2], var.blue);
            for (unsigned b = 0; b < bytesPerPixel; ++b) {
                *dst++ = static_cast<uint8_t>(pixel >> (8 * b));  // little-endian, as the panel
            }
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const bool hold = argc == 4 && std::string(argv[1]) == "--hold";
    if (argc != 3 && !hold) {
        std::fprintf(stderr, "usage: %s [--hold] DEVICE PICTURE.png\n", argv[0]);
        return 2;
    }
    const char* device = argv[argc - 2];
    const char* path = argv[argc - 1];
    // Blocked from the start, so that a SIGTERM that comes early ends the
    // wait below instead of the process.
    sigset_t terminate;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    if (hold && sigprocmask(SIG_BLOCK, &terminate, nullptr) != 0) {
        return 1;
    }
    Panel panel;
    Picture picture;
    if (!panel.open(device) || !decodePng(path, picture)) {
        return 1;
    }
    if (!panel.isPackable()) {
        std::fprintf(stderr, "%s: %u bits per pixel in a layout this program does not write\n",
                     device, panel.var().bits_per_pixel);
        return 1;
    }
    if (!writeCentred(picture, panel)) {
        return 1;
    }
    std::printf("wrote %ux%u on a %ux%u panel at %u bits per pixel\n", picture.width,
                picture.height, panel.var().xres, panel.var().yres, panel.var().bits_per_pixel);
    (void)std::fflush(stdout);  // the reader waits for this line before it looks at us
    if (hold) {
        int signal = 0;
        (void)sigwait(&terminate, &signal);  // only SIGTERM is waited for
    }
    return 0;
}
