// The simulated DRM/KMS device of libfakefb.so: what a DRM panel's descriptor
// answers. The descriptor is a real one, on the panel's video memory file
// "<file>.vram", so that mmap at the offsets DRM_IOCTL_MODE_MAP_DUMB returns needs
// no help; everything else (objects, dumb buffers, framebuffers, the CRTC, the
// event queue) lives in this process, found by the video memory file's device and
// inode like the framebuffer panels. All descriptors of one device in a process
// act as one DRM client: the client goes away when the last of them is closed or
// the process exits, as the kernel releases a drm_file.
//
// Fixed-size state only: this runs inside open(), ioctl(), read() and close() of
// arbitrary programs.
#pragma once

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "panel_files.h"

namespace fakefb::drm {

// Opens the panel's video memory with the open flags of the caller and makes it
// a client of the device; -1 with errno when that fails.
int openDevice(const PanelDesc& panelDesc, int flags);

// Whether this process has opened a DRM panel at all; until then no descriptor can
// be one, and the wrappers skip every lookup.
bool anyDevice();

// Whether a descriptor with this (real) fstat result is a DRM panel's; minor is
// then the N of the device's "cardN".
bool isDevice(const struct stat& st, uint32_t* minor = nullptr);

// An ioctl on a DRM panel's descriptor: the result and errno the kernel would give.
int ioctl(const struct stat& st, unsigned long request, void* arg);

// read() of the descriptor: whole events from the queue, as drm_read returns them.
ssize_t readEvents(const struct stat& st, void* buf, std::size_t count);

// poll() of the descriptor: POLLIN | POLLRDNORM (of those asked for) while an
// event waits, else nothing.
short pollEvents(const struct stat& st, short events);

// A descriptor of the device was closed: when the process holds no other, the
// client goes away (its framebuffers are removed).
void descriptorClosed(const struct stat& st);

// At exit: every client of this process goes away.
void releaseAll();

constexpr uint32_t kDrmMajor = 226;

// Makes a real fstat result of a device's descriptor look like the device node
// (character device 226:N, mode 0660); other results stay as they are.
template <typename Stat>
void disguise(Stat& st) {
    if (!anyDevice()) {
        return;
    }
    struct stat plain {};
    plain.st_dev = st.st_dev;
    plain.st_ino = st.st_ino;
    uint32_t minor = 0;
    if (!isDevice(plain, &minor)) {
        return;
    }
    st.st_mode = S_IFCHR | 0660;
    st.st_rdev = makedev(kDrmMajor, minor);
    st.st_size = 0;
    st.st_blocks = 0;
    st.st_blksize = 4096;
}

}  // namespace fakefb::drm
