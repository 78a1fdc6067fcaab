# Build options and the flags every target of the project shares.

option(PLEXA_BUILD_TOOLS "Build the recorder library and the programs" ON)
option(PLEXA_BUILD_TESTS "Build the tests" ON)
option(PLEXA_BUILD_BENCHMARKS "Build the benchmarks" OFF)
option(PLEXA_BUILD_FUZZERS "Build the libFuzzer targets (clang only)" OFF)
option(PLEXA_WERROR "Treat compiler warnings as errors" OFF)
option(PLEXA_COVERAGE "Instrument for gcov" OFF)
set(PLEXA_SANITIZE "" CACHE STRING "Value of -fsanitize= for every target, e.g. address,undefined")
set(PLEXA_ZEB_ADDRESS "127.0.0.1" CACHE STRING "IPv4 address of the companion box")

# Four decimal numbers: inet_addr() would take one with a leading zero for octal.
set(_plexa_octet "(0|[1-9][0-9]?|1[0-9][0-9]|2[0-4][0-9]|25[0-5])")
string(REPEAT "${_plexa_octet}[.]" 3 _plexa_first_octets)
if(NOT PLEXA_ZEB_ADDRESS MATCHES "^${_plexa_first_octets}${_plexa_octet}$")
  message(FATAL_ERROR "PLEXA_ZEB_ADDRESS is not a dotted IPv4 address: '${PLEXA_ZEB_ADDRESS}'")
endif()

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "" FORCE)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_compile_definitions(_GNU_SOURCE)
# 64-bit x86 has 64-bit time_t and off_t anyway; on 32-bit x86 a recording passes 2 GiB and must
# outlive January 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wformat=2 -Wshadow -Wundef -Wcast-align
                    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> -fno-strict-aliasing)
if(PLEXA_WERROR)
  add_compile_options(-Werror)
endif()
if(PLEXA_SANITIZE)
  add_compile_options(-fsanitize=${PLEXA_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${PLEXA_SANITIZE})
  if(PLEXA_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Instrumented code, std::regex above all, draws this warning without cause; the other builds
    # keep it.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
if(PLEXA_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()
