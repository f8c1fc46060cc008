# Helpers shared by every folder of the project.

# dravik_add_library(<name> SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# Builds the shared library lib<name> from a folder laid out as
# include/<name>/, src/ and tests/, and installs it with its headers into the
# project's CMake package.
function(dravik_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(dravik::${name} ALIAS ${name})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  install(TARGETS ${name} EXPORT DravikTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/include/${name})
    install(DIRECTORY include/${name} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  endif()
  set_property(GLOBAL APPEND PROPERTY DRAVIK_EXPORTED_LIBRARIES ${name})
endfunction()

# add_dravik_test(<name> SOURCES ... LIBS ... [ENVIRONMENT ...] [LABELS ...])
# Builds one GoogleTest executable and registers each of its tests with ctest.
function(add_dravik_test name)
  if(NOT DRAVIK_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;ENVIRONMENT;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  set(props "")
  if(ARG_ENVIRONMENT)
    list(APPEND props ENVIRONMENT "${ARG_ENVIRONMENT}")
  endif()
  if(ARG_LABELS)
    list(APPEND props LABELS "${ARG_LABELS}")
  endif()
  if(CMAKE_CROSSCOMPILING)
    # Under the emulator a process costs about a second before its first test
    # (the loader maps OpenCV's hundred libraries through it): each program
    # runs once with all its tests, and gtest names any that fail.
    # DRAVIK_EMULATOR tells the simulator's tests to hand their preload to the
    # emulated program (qemu's -E) instead of the emulator.
    set(environment ${ARG_ENVIRONMENT})
    if(CMAKE_CROSSCOMPILING_EMULATOR)
      string(JOIN " " emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
      list(APPEND environment "DRAVIK_EMULATOR=${emulator}")
    endif()
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
      WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR} TIMEOUT 900 ENVIRONMENT "${environment}")
    if(ARG_LABELS)
      set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}")
    endif()
    return()
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    PROPERTIES ${props})
endfunction()

# add_dravik_fuzzer(<name> SOURCES ... LIBS ... [DICT file] [SANDBOX])
# Builds a libFuzzer target of the fuzz preset and registers it with ctest as
# fuzz_<name> (label "fuzz"): it runs over its seed corpus fuzz/corpus/<name>
# beside the sources plus DRAVIK_FUZZ_SECONDS of new inputs, which go to a
# working corpus in the build tree. Any crash, leak, sanitizer report or
# timeout fails the test. SANDBOX runs it in scripts/sandbox, where /etc/gui
# and /usr/etc/gui are temporary directories.
function(add_dravik_fuzzer name)
  if(NOT DRAVIK_FUZZ)
    return()
  endif()
  cmake_parse_arguments(ARG "SANDBOX" "DICT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/fuzz)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set(corpus ${CMAKE_CURRENT_SOURCE_DIR}/fuzz/corpus/${name})
  set(work ${CMAKE_BINARY_DIR}/fuzz-work/${name})
  file(MAKE_DIRECTORY ${work} ${work}-root/etc-gui ${work}-root/usr-etc-gui)
  set(args -max_total_time=${DRAVIK_FUZZ_SECONDS} -timeout=10 -rss_limit_mb=2048
      -close_fd_mask=2 -print_final_stats=1 -artifact_prefix=${work}-)
  if(ARG_DICT)
    list(APPEND args -dict=${CMAKE_CURRENT_SOURCE_DIR}/fuzz/${ARG_DICT})
  endif()
  set(command $<TARGET_FILE:${name}> ${args} ${work} ${corpus})
  if(ARG_SANDBOX)
    set(command ${PROJECT_SOURCE_DIR}/scripts/sandbox --root ${work}-root -- ${command})
  endif()
  add_test(NAME fuzz_${name} COMMAND ${command})
  math(EXPR timeout "${DRAVIK_FUZZ_SECONDS} * 4 + 120")
  set_tests_properties(fuzz_${name} PROPERTIES LABELS fuzz TIMEOUT ${timeout})
  set_property(GLOBAL APPEND PROPERTY DRAVIK_FUZZERS ${name})
endfunction()

# Writes and installs the CMake package files (find_package(Dravik)) for every
# library registered by dravik_add_library.
function(dravik_install_package)
  get_property(libs GLOBAL PROPERTY DRAVIK_EXPORTED_LIBRARIES)
  if(NOT libs)
    return()
  endif()
  include(CMakePackageConfigHelpers)
  set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Dravik)
  install(EXPORT DravikTargets NAMESPACE dravik:: DESTINATION ${cmake_dir})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/DravikConfig.cmake.in
    ${CMAKE_BINARY_DIR}/DravikConfig.cmake INSTALL_DESTINATION ${cmake_dir})
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/DravikConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_BINARY_DIR}/DravikConfig.cmake
    ${CMAKE_BINARY_DIR}/DravikConfigVersion.cmake DESTINATION ${cmake_dir})
endfunction()
