# Tests of the house: what the library exports, what it installs, what its headers need.

find_program(PLEXA_BASH bash REQUIRED)

add_test(NAME house.exported_symbols
  COMMAND "${PLEXA_BASH}" "${CMAKE_CURRENT_LIST_DIR}/exported_symbols_test.sh"
          $<TARGET_FILE:gst-plexa> "${PROJECT_SOURCE_DIR}/source/gst-plexa.map" gst_zeb_is_connected)
add_test(NAME house.platform_symbols
  COMMAND "${PLEXA_BASH}" "${CMAKE_CURRENT_LIST_DIR}/platform_symbols_test.sh"
          $<TARGET_FILE:gst-plexa> "${PROJECT_SOURCE_DIR}/platform/include")

file(GLOB plexa_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/gst-plexa/*.h")
foreach(header IN LISTS plexa_headers)
  get_filename_component(name "${header}" NAME)
  add_test(NAME house.public_headers.${name}
    COMMAND "${PLEXA_BASH}" "${CMAKE_CURRENT_LIST_DIR}/public_headers_test.sh"
            "${CMAKE_C_COMPILER}" "${CMAKE_CXX_COMPILER}" "${header}")
endforeach()
add_test(NAME house.all_headers
  COMMAND "${PLEXA_BASH}" "${CMAKE_CURRENT_LIST_DIR}/all_headers_test.sh"
          "${PROJECT_SOURCE_DIR}/include/gst-plexa")

set(plexa_user_flags "")
if(PLEXA_SANITIZE)
  set(plexa_user_flags "-fsanitize=${PLEXA_SANITIZE}")
endif()
add_test(NAME house.install
  COMMAND "${PLEXA_BASH}" "${CMAKE_CURRENT_LIST_DIR}/install_test.sh"
          "${PROJECT_BINARY_DIR}" "${PROJECT_SOURCE_DIR}" "${CMAKE_INSTALL_LIBDIR}"
          "${CMAKE_C_COMPILER}" ${plexa_user_flags})
set_tests_properties(house.install PROPERTIES
  TIMEOUT 300 ENVIRONMENT "CMAKE_GENERATOR=${CMAKE_GENERATOR}")
