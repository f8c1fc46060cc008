# Provides two imported targets for the OpenCV modules in use: dravik_opencv
# (core and imgproc: matrices and drawing) and dravik_opencv_imgcodecs (image
# files). The daemon links only the first and loads the codecs at run time (see
# dravik_lcm_gui/include/ImageCodecs.h); tools and tests that write pictures
# link both. Device SDKs ship OpenCV's CMake package; Debian's per-module -dev
# packages do not, so fall back to finding the libraries directly.
if(TARGET dravik_opencv)
  return()
endif()

find_package(OpenCV CONFIG QUIET COMPONENTS core imgproc imgcodecs)
add_library(dravik_opencv INTERFACE IMPORTED GLOBAL)
add_library(dravik_opencv_imgcodecs INTERFACE IMPORTED GLOBAL)
target_link_libraries(dravik_opencv_imgcodecs INTERFACE dravik_opencv)
if(OpenCV_FOUND)
  target_link_libraries(dravik_opencv INTERFACE opencv_core opencv_imgproc)
  target_link_libraries(dravik_opencv_imgcodecs INTERFACE opencv_imgcodecs)
  return()
endif()

find_path(DRAVIK_OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
foreach(module core imgproc imgcodecs)
  find_library(DRAVIK_OPENCV_${module}_LIBRARY opencv_${module} REQUIRED)
endforeach()
target_link_libraries(dravik_opencv INTERFACE
  ${DRAVIK_OPENCV_core_LIBRARY} ${DRAVIK_OPENCV_imgproc_LIBRARY})
target_link_libraries(dravik_opencv_imgcodecs INTERFACE ${DRAVIK_OPENCV_imgcodecs_LIBRARY})
target_include_directories(dravik_opencv SYSTEM INTERFACE ${DRAVIK_OPENCV_INCLUDE_DIR})
message(STATUS "OpenCV: ${DRAVIK_OPENCV_INCLUDE_DIR} (no CMake package, found the libraries)")
