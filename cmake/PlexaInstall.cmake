# The library's part of "cmake --install". The programs and the host platform install
# themselves, each from its own folder; the host platform joins the export set named here.

include(CMakePackageConfigHelpers)
include(PlexaPkgConfig)

set(PLEXA_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/gst-plexa")

install(TARGETS gst-plexa EXPORT gst-plexa-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/gst-plexa"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" FILES_MATCHING PATTERN "*.h")

# pkg-config: gst-plexa.pc
plexa_install_pc("${CMAKE_CURRENT_LIST_DIR}/gst-plexa.pc.in")

# CMake: find_package(gst-plexa)
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/gst-plexa-config.cmake.in"
  "${PROJECT_BINARY_DIR}/gst-plexa-config.cmake"
  INSTALL_DESTINATION "${PLEXA_PACKAGE_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/gst-plexa-config-version.cmake"
  COMPATIBILITY SameMajorVersion)
install(EXPORT gst-plexa-targets NAMESPACE gst-plexa:: DESTINATION "${PLEXA_PACKAGE_DIR}")
install(FILES "${PROJECT_BINARY_DIR}/gst-plexa-config.cmake"
  "${PROJECT_BINARY_DIR}/gst-plexa-config-version.cmake"
  DESTINATION "${PLEXA_PACKAGE_DIR}")
