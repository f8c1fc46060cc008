// Test helper: prints what a program sees of each framebuffer device named on its
// command line, then marks the first and last byte of its mapping. With --env it
// also prints the preload-related environment.
#include <fcntl.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void printVariable(const char* name) {
    const char* value = getenv(name);
    printf("%s=%s\n", name, value != nullptr ? value : "(unset)");
}

int putColourMap(int fd) {
    static uint16_t red[256], green[256], blue[256];
    fb_cmap cmap{};
    cmap.len = 256;
    cmap.red = red;
    cmap.green = green;
    cmap.blue = blue;
    return ioctl(fd, FBIOPUTCMAP, &cmap) == 0 ? 0 : errno;
}

bool markMapping(int fd, std::size_t size) {
    void* mem = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mem == MAP_FAILED) {
        return false;
    }
    auto* bytes = static_cast<uint8_t*>(mem);
    bytes[0] = 0x5A;
    bytes[size - 1] = 0xA5;
    return munmap(mem, size) == 0;
}

bool probe(const char* device) {
    const int fd = open(device, O_RDWR);
    if (fd < 0) {
        printf("%s open failed: %s\n", device, strerror(errno));
        return false;
    }
    fb_fix_screeninfo fix{};
    fb_var_screeninfo var{};
    if (ioctl(fd, FBIOGET_FSCREENINFO, &fix) != 0 || ioctl(fd, FBIOGET_VSCREENINFO, &var) != 0) {
        printf("%s ioctl failed: %s\n", device, strerror(errno));
        close(fd);
        return false;
    }
    printf(
        "%s id=%s xres=%u yres=%u bpp=%u line_length=%u smem_len=%u visual=%u "
        "red=%u/%u green=%u/%u blue=%u/%u transp=%u/%u putcmap=%d\n",
        device, fix.id, var.xres, var.yres, var.bits_per_pixel, fix.line_length, fix.smem_len,
        fix.visual, var.red.offset, var.red.length, var.green.offset, var.green.length,
        var.blue.offset, var.blue.length, var.transp.offset, var.transp.length, putColourMap(fd));
    const bool marked = markMapping(fd, static_cast<std::size_t>(var.yres) * fix.line_length);
    close(fd);
    return marked;
}

}  // namespace

int main(int argc, char** argv) {
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--env") == 0) {
            printVariable("LD_PRELOAD");
            printVariable("ASAN_OPTIONS");
            printVariable("FAKEFB_CONFIG");
        } else {
            ok = probe(argv[i]) && ok;
        }
    }
    return ok ? 0 : 1;
}
