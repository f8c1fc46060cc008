# The image corpus (tests/image_corpus.h): written by a generator of our own
# with libpng, libjpeg-turbo and libexif, never with the image library's
# codecs, so that it does not share what it tests. make_image_corpus writes it
# to a folder for a person to look at; the corpus test writes it to a
# temporary folder and decodes every file through both readImage and
# cv::imread. Included from dravik_image/CMakeLists.txt, which has found PNG,
# JPEG and libexif.
find_package(ZLIB REQUIRED)

add_library(image_corpus STATIC tests/image_corpus.cpp)
target_include_directories(image_corpus PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(image_corpus PRIVATE PNG::PNG JPEG::JPEG PkgConfig::EXIF ZLIB::ZLIB)

add_executable(make_image_corpus tests/make_image_corpus.cpp)
target_link_libraries(make_image_corpus PRIVATE image_corpus)

# The image library's codecs read their pixel bound from the environment once,
# when they are loaded; it must equal corpus::kPixelBound, which the test
# checks.
add_dravik_test(dravik_image_corpus_test SOURCES tests/corpus_equality_test.cpp
  LIBS dravik_image image_corpus dravik_opencv_imgcodecs dravik_test_support
  ENVIRONMENT OPENCV_IO_MAX_IMAGE_PIXELS=65536)
