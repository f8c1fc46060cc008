# Provides the imported target dravik_opencv for the three OpenCV modules in use
# (core, imgproc, imgcodecs). Device SDKs ship OpenCV's CMake package; Debian's
# per-module -dev packages do not, so fall back to finding the libraries directly.
if(TARGET dravik_opencv)
  return()
endif()

find_package(OpenCV CONFIG QUIET COMPONENTS core imgproc imgcodecs)
add_library(dravik_opencv INTERFACE IMPORTED GLOBAL)
if(OpenCV_FOUND)
  target_link_libraries(dravik_opencv INTERFACE opencv_core opencv_imgproc opencv_imgcodecs)
  return()
endif()

find_path(DRAVIK_OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
foreach(module core imgproc imgcodecs)
  find_library(DRAVIK_OPENCV_${module}_LIBRARY opencv_${module} REQUIRED)
  target_link_libraries(dravik_opencv INTERFACE ${DRAVIK_OPENCV_${module}_LIBRARY})
endforeach()
target_include_directories(dravik_opencv SYSTEM INTERFACE ${DRAVIK_OPENCV_INCLUDE_DIR})
message(STATUS "OpenCV: ${DRAVIK_OPENCV_INCLUDE_DIR} (no CMake package, found the libraries)")
