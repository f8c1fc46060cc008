# Provides the imported target dravik_opencv (core and imgproc: matrices and
# drawing) and, unless DRAVIK_IMAGE_OTHER_FORMATS is off, dravik_opencv_imgcodecs
# (OpenCV's image codecs). Only the other-formats module and tests that compare
# with cv::imread link the codecs (dravik_image/include/dravik_image/image_file.h);
# a device build with an OpenCV of core and imgproc alone turns the option off.
# Device SDKs ship OpenCV's CMake package; Debian's per-module -dev packages do
# not, so fall back to finding the libraries directly.
if(TARGET dravik_opencv)
  return()
endif()

set(dravik_opencv_modules core imgproc)
if(DRAVIK_IMAGE_OTHER_FORMATS)
  list(APPEND dravik_opencv_modules imgcodecs)
endif()
find_package(OpenCV CONFIG QUIET COMPONENTS ${dravik_opencv_modules})
add_library(dravik_opencv INTERFACE IMPORTED GLOBAL)
if(DRAVIK_IMAGE_OTHER_FORMATS)
  add_library(dravik_opencv_imgcodecs INTERFACE IMPORTED GLOBAL)
  target_link_libraries(dravik_opencv_imgcodecs INTERFACE dravik_opencv)
endif()
if(OpenCV_FOUND)
  target_link_libraries(dravik_opencv INTERFACE opencv_core opencv_imgproc)
  if(DRAVIK_IMAGE_OTHER_FORMATS)
    target_link_libraries(dravik_opencv_imgcodecs INTERFACE opencv_imgcodecs)
  endif()
  return()
endif()

find_path(DRAVIK_OPENCV_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
foreach(module IN LISTS dravik_opencv_modules)
  find_library(DRAVIK_OPENCV_${module}_LIBRARY opencv_${module} REQUIRED)
endforeach()
target_link_libraries(dravik_opencv INTERFACE
  ${DRAVIK_OPENCV_core_LIBRARY} ${DRAVIK_OPENCV_imgproc_LIBRARY})
if(DRAVIK_IMAGE_OTHER_FORMATS)
  target_link_libraries(dravik_opencv_imgcodecs INTERFACE ${DRAVIK_OPENCV_imgcodecs_LIBRARY})
endif()
target_include_directories(dravik_opencv SYSTEM INTERFACE ${DRAVIK_OPENCV_INCLUDE_DIR})
message(STATUS "OpenCV: ${DRAVIK_OPENCV_INCLUDE_DIR} (no CMake package, found the libraries)")
