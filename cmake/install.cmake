# Installation: the library, its headers and a package that find_package(tqnlp) understands.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS tqnlp EXPORT tqnlp-targets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/tqnlp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tqnlp-targets NAMESPACE tqnlp::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tqnlp FILE tqnlp-config.cmake)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tqnlp-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tqnlp-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tqnlp)
