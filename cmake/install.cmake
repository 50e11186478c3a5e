# Installation: the library, its headers and licence, a package that find_package(tqnlp)
# understands, and a file for pkg-config. All paths are relative: the tree may be moved.
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

file(RELATIVE_PATH pc_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/tqnlp.pc.in tqnlp.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tqnlp.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
