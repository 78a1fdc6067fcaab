# plexa_install_pc(NAME.pc.in): makes NAME.pc from its template and installs it.
#
# The prefix is written relative to the file, so that the installed tree can be moved, staged or
# given another prefix by "cmake --install --prefix".

include_guard()

# The folder of an install variable as it is to stand in a .pc file.
function(_plexa_pc_folder result folder)
  if(IS_ABSOLUTE "${folder}")
    set(${result} "${folder}" PARENT_SCOPE)
  else()
    set(${result} "\${prefix}/${folder}" PARENT_SCOPE)
  endif()
endfunction()

function(plexa_install_pc template)
  get_filename_component(name "${template}" NAME_WLE)
  set(destination "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  if(IS_ABSOLUTE "${destination}")
    set(PLEXA_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  else()
    file(RELATIVE_PATH up "/${destination}" "/")
    string(REGEX REPLACE "/$" "" up "${up}")
    set(PLEXA_PC_PREFIX "\${pcfiledir}/${up}")
  endif()
  _plexa_pc_folder(PLEXA_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
  _plexa_pc_folder(PLEXA_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
  configure_file("${template}" "${CMAKE_CURRENT_BINARY_DIR}/${name}" @ONLY)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${name}" DESTINATION "${destination}")
endfunction()
