# The recorder's tests, read by tests/CMakeLists.txt. They link the library's objects, so that system
# calls can fail under the recorder's feet.

if(TARGET plexa-recorder)
  set(_recorder_tests "${PROJECT_SOURCE_DIR}/recorder/tests")

  add_library(plexa-recorder-test-support STATIC
    "${_recorder_tests}/recording_fixture.cpp" "${_recorder_tests}/test_stream.cpp")
  target_include_directories(plexa-recorder-test-support PUBLIC "${_recorder_tests}")
  target_link_libraries(plexa-recorder-test-support PUBLIC plexa-recorder plexa-test-support)

  file(GLOB recorder_tests CONFIGURE_DEPENDS "${_recorder_tests}/*_test.cpp")
  foreach(source IN LISTS recorder_tests)
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}" "${_recorder_tests}/sanitizer_options.cpp")
    target_link_libraries(${name} PRIVATE plexa-recorder-test-support plexa-objects
      GTest::gmock_main)
    target_link_options(${name} PRIVATE ${PLEXA_WRAP_OPTIONS})
    if(name STREQUAL recorder_timeshift_test)
      target_link_options(${name} PRIVATE -Wl,--wrap=statvfs64,--wrap=gst_pvr_file_write
        -Wl,--wrap=gst_pvr_file_set_max_time,--wrap=gst_pvr_file_set_last_wrote_time
        -Wl,--wrap=gst_pvr_file_close)
    endif()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS recorder TIMEOUT 600)
  endforeach()
endif()
