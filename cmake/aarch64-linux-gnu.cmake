# Cross toolchain for the device: Debian's g++-aarch64-linux-gnu, with the
# target's libraries in a sysroot. DRAVIK_SYSROOT (a cache variable, or the
# environment variable of that name) names it: a board SDK's staging directory,
# or the Debian 12 arm64 sysroot that scripts/sysroot makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
# A board SDK's own compilers may be given with -DCMAKE_C_COMPILER and
# -DCMAKE_CXX_COMPILER.
if(NOT CMAKE_C_COMPILER)
  set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
endif()
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
endif()

if(NOT DRAVIK_SYSROOT AND DEFINED ENV{DRAVIK_SYSROOT})
  set(DRAVIK_SYSROOT $ENV{DRAVIK_SYSROOT})
endif()
set(DRAVIK_SYSROOT "${DRAVIK_SYSROOT}" CACHE PATH "The target's sysroot")
if(DRAVIK_SYSROOT)
  set(CMAKE_SYSROOT ${DRAVIK_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH ${DRAVIK_SYSROOT})
  # pkg-config reads the target's .pc files and prefixes their paths with the
  # sysroot, never the host's.
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${DRAVIK_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR}
      "${DRAVIK_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${DRAVIK_SYSROOT}/usr/lib/pkgconfig:${DRAVIK_SYSROOT}/usr/share/pkgconfig")
  set(ENV{PKG_CONFIG_PATH} "")
  # Tests run under user-mode emulation, with the target's loader and
  # libraries taken from the sysroot.
  find_program(DRAVIK_QEMU qemu-aarch64)
  if(DRAVIK_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${DRAVIK_QEMU} -L ${DRAVIK_SYSROOT})
  endif()
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
