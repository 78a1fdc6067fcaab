# Recordings end to end: the programs as a user runs them, on streams that real encoders made.

if(TARGET plexa-pvr)
  pkg_check_modules(PLEXA_SCENARIO REQUIRED IMPORTED_TARGET cairo json-glib-1.0)
  add_library(plexa-pvr-test-support STATIC
    "${CMAKE_CURRENT_LIST_DIR}/crash_point.cpp" "${CMAKE_CURRENT_LIST_DIR}/plexa_pvr_support.cpp")
  target_include_directories(plexa-pvr-test-support PUBLIC "${CMAKE_CURRENT_LIST_DIR}")
  target_compile_definitions(plexa-pvr-test-support PUBLIC
    PLEXA_PVR_PROGRAM="$<TARGET_FILE:plexa-pvr>" PLEXA_PVR_VERSION="${PROJECT_VERSION}"
    PLEXA_TEST_STREAM_FOLDER="${CMAKE_CURRENT_BINARY_DIR}/streams")
  set_source_files_properties("${CMAKE_CURRENT_LIST_DIR}/plexa_pvr_support.cpp" PROPERTIES
    COMPILE_DEFINITIONS PLEXA_LEAK_SUPPRESSIONS="${CMAKE_CURRENT_LIST_DIR}/leaks.supp")
  target_link_libraries(plexa-pvr-test-support
    PUBLIC plexa-test-support PkgConfig::PLEXA_SCENARIO util)

  file(GLOB scenario_tests CONFIGURE_DEPENDS "${CMAKE_CURRENT_LIST_DIR}/plexa_pvr_*_test.cpp")
  foreach(source IN LISTS scenario_tests)
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}")
    target_link_libraries(${name} PRIVATE plexa-pvr-test-support GTest::gmock_main)
    add_dependencies(${name} plexa-pvr)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS scenario TIMEOUT 300)
  endforeach()
endif()

# Time-shift recordings, many threads on real files, in the test's own process, on the host platform:
# of the shared support they take what brings no platform along. What the thread sanitizer has to
# know of GLib must be seen by the shared libraries.
add_library(timeshift-test-support OBJECT "${CMAKE_CURRENT_LIST_DIR}/timeshift_support.cpp"
  support/index_builder.cpp support/library_state.cpp support/temp_dir.cpp support/tsan_gmutex.cpp)
target_compile_options(timeshift-test-support PRIVATE -fvisibility=default)
target_include_directories(timeshift-test-support PUBLIC "${CMAKE_CURRENT_LIST_DIR}" support
  "${PROJECT_SOURCE_DIR}/platform/include")
target_link_libraries(timeshift-test-support PUBLIC gst-plexa plexa-platform-host
  GTest::gmock dl)

file(GLOB timeshift_tests CONFIGURE_DEPENDS "${CMAKE_CURRENT_LIST_DIR}/timeshift_*_test.cpp")
foreach(source IN LISTS timeshift_tests)
  get_filename_component(name "${source}" NAME_WE)
  add_executable(${name} "${source}")
  target_link_libraries(${name} PRIVATE timeshift-test-support)
  if(NOT name STREQUAL "timeshift_kill_test")  # it is its own child, and has a main() for that
    target_link_libraries(${name} PRIVATE GTest::gmock_main)
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS scenario TIMEOUT 300)
endforeach()
