# Cross toolchain for the device: Debian's g++-aarch64-linux-gnu, with the
# target's libraries in a sysroot given by DRAVIK_SYSROOT (for example a
# firmware SDK's staging directory).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
if(DEFINED ENV{DRAVIK_SYSROOT})
  set(CMAKE_SYSROOT $ENV{DRAVIK_SYSROOT})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
