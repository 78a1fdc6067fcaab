# Compares what the host library exports with what the headers declare, both ways.

execute_process(COMMAND "${NM}" -D --defined-only --format=posix "${LIBRARY}"
  OUTPUT_VARIABLE _listing COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "(^|\n)[^ \n]+" _exported "${_listing}")
list(TRANSFORM _exported STRIP)

set(_declared)
foreach(_folder IN LISTS HEADERS)
  file(GLOB _files "${_folder}/*.h")
  list(FILTER _files EXCLUDE REGEX "(simulated_device|errno_guard)\\.h$")
  foreach(_file IN LISTS _files)
    file(READ "${_file}" _text)
    string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" _text "${_text}")
    string(REGEX MATCHALL
      "(__dlog_|demux_control_|plexa_host_|ppi_pvr_|system_info_|tuner_control_|tv_system_)[A-Za-z_]+\\("
      _names "${_text}")
    list(TRANSFORM _names REPLACE "\\($" "")
    list(APPEND _declared ${_names})
  endforeach()
endforeach()

list(SORT _exported)
list(SORT _declared)
list(REMOVE_DUPLICATES _declared)
list(LENGTH _declared _count)
if(_count LESS 30)
  message(FATAL_ERROR "only ${_count} declarations found in the headers: ${_declared}")
endif()
if(NOT _exported STREQUAL _declared)
  message(FATAL_ERROR "exported: ${_exported}\ndeclared: ${_declared}")
endif()
