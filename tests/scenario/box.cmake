# The companion box: plexa-box as a child process, the library as its client.

if(TARGET plexa-box)
  # For the programs that a test runs; part of the tests that use the library themselves.
  add_library(plexa-box-redirect MODULE "${CMAKE_CURRENT_LIST_DIR}/box_redirect.cpp")
  target_link_libraries(plexa-box-redirect PRIVATE dl)

  add_library(plexa-box-test-support OBJECT
    "${CMAKE_CURRENT_LIST_DIR}/box_redirect.cpp" "${CMAKE_CURRENT_LIST_DIR}/box_support.cpp"
    support/temp_dir.cpp support/tsan_gmutex.cpp)
  target_include_directories(plexa-box-test-support PUBLIC "${CMAKE_CURRENT_LIST_DIR}" support
    "${PROJECT_SOURCE_DIR}/source/common")
  target_compile_definitions(plexa-box-test-support PUBLIC
    PLEXA_BOX_PROGRAM="$<TARGET_FILE:plexa-box>" PLEXA_BOX_TEST_VERSION="${PROJECT_VERSION}"
    PLEXA_BOX_DETECT="$<TARGET_FILE:plexa-box-detect>"
    PLEXA_BOX_REDIRECT="$<TARGET_FILE:plexa-box-redirect>")
  # First in the programs: its answer takes the place of the library's own.
  target_link_libraries(plexa-box-test-support PUBLIC
    plexa-box-detect gst-plexa plexa-platform-host GTest::gmock dl)
  target_link_options(plexa-box-test-support PUBLIC -Wl,--no-as-needed)

  file(GLOB box_tests CONFIGURE_DEPENDS "${CMAKE_CURRENT_LIST_DIR}/plexa_box_*_test.cpp")
  foreach(source IN LISTS box_tests ITEMS "${CMAKE_CURRENT_LIST_DIR}/back_end_contract_test.cpp")
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}")
    target_link_libraries(${name} PRIVATE plexa-box-test-support GTest::gmock_main)
    if(name STREQUAL "plexa_box_programs_test")
      target_link_libraries(${name} PRIVATE plexa-pvr-test-support)
      add_dependencies(${name} plexa-pvr)
    elseif(name STREQUAL "plexa_box_parts_test")
      target_link_libraries(${name} PRIVATE plexa-box-parts)
    elseif(name MATCHES "^plexa_box_(accept|session)_test$")
      target_sources(${name} PRIVATE "${CMAKE_CURRENT_LIST_DIR}/failing_new.cpp")
      target_link_libraries(${name} PRIVATE plexa-box-parts)
    endif()
    add_dependencies(${name} plexa-box plexa-box-detect plexa-box-redirect)
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES LABELS scenario TIMEOUT 300)
  endforeach()

  # A 32-bit one would need ip in its tree; a sanitizer's runtime cannot be preloaded past.
  find_program(PLEXA_BASH bash REQUIRED)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8 AND NOT PLEXA_SANITIZE)
    add_test(NAME box_far_away
      COMMAND "${PLEXA_BASH}" "${CMAKE_CURRENT_LIST_DIR}/box_far_away_test.sh" "${PROJECT_BINARY_DIR}")
    set_tests_properties(box_far_away PROPERTIES LABELS scenario TIMEOUT 300 SKIP_RETURN_CODE 77)
  endif()
endif()
