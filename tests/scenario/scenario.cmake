# Recordings end to end: the programs as a user runs them, on streams that real encoders made.

if(TARGET plexa-pvr)
  pkg_check_modules(PLEXA_SCENARIO REQUIRED IMPORTED_TARGET cairo json-glib-1.0)
  add_library(plexa-pvr-test-support STATIC "${CMAKE_CURRENT_LIST_DIR}/plexa_pvr_support.cpp")
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
