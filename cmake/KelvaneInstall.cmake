# What is installed, and the packages made of it.
#
#   lib/kelvane/           the program's private tree: it looks for its colour configuration beside
#     kelvane                its real file, so a link leads to it from bin/
#     defaults/colors.ini
#     config/                empty, for a site's own colors.ini
#   bin/                   kelvane (the link), kelmake, kelpatch
#   share/man, share/doc   manual pages, documents
#   include/kelvane, lib   the libraries and their headers, with files for find_package and pkg-config

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KELVANE_PRIVATE_DIR lib/kelvane)
set(KELVANE_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/kelvane)
set(KELVANE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelvane)

# Programs and what they read.
install(TARGETS kelvane RUNTIME DESTINATION ${KELVANE_PRIVATE_DIR})
install(TARGETS kelpatch kelmake RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES src/configuration/colors.ini DESTINATION ${KELVANE_PRIVATE_DIR}/defaults)
install(DIRECTORY DESTINATION ${KELVANE_PRIVATE_DIR}/config)

cmake_path(RELATIVE_PATH KELVANE_PRIVATE_DIR
  BASE_DIRECTORY ${CMAKE_INSTALL_BINDIR} OUTPUT_VARIABLE from_bin_to_private)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/install)
file(CREATE_LINK ${from_bin_to_private}/kelvane ${CMAKE_BINARY_DIR}/install/kelvane SYMBOLIC)
install(FILES ${CMAKE_BINARY_DIR}/install/kelvane DESTINATION ${CMAKE_INSTALL_BINDIR})

install(FILES completions/kelmake.bash RENAME kelmake
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES completions/_kelmake DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
install(FILES docs/kelvane.1 docs/kelpatch.1 docs/kelmake.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md")

# Libraries. The driver is the program's own and stays at home.
set_target_properties(kelvane_shared PROPERTIES EXPORT_NAME shared)
set_target_properties(kelvane_st PROPERTIES EXPORT_NAME st)
set_target_properties(kelvane_color PROPERTIES EXPORT_NAME color)
set_target_properties(kelvane_objects PROPERTIES EXPORT_NAME objects)
set_target_properties(kelvane_writer PROPERTIES EXPORT_NAME writer)
set_target_properties(kelvane_engine PROPERTIES EXPORT_NAME kelvane)
set_target_properties(kelvane_apply PROPERTIES EXPORT_NAME apply)
install(
  TARGETS kelvane_shared kelvane_st kelvane_color kelvane_objects kelvane_writer kelvane_engine kelvane_apply
  EXPORT kelvane
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${KELVANE_INCLUDE_DIR})
install(EXPORT kelvane
  FILE kelvane-targets.cmake
  NAMESPACE kelvane::
  DESTINATION ${KELVANE_PACKAGE_DIR})
write_basic_package_version_file(
  ${CMAKE_BINARY_DIR}/install/kelvane-config-version.cmake COMPATIBILITY SameMinorVersion)
install(
  FILES cmake/kelvane-config.cmake ${CMAKE_BINARY_DIR}/install/kelvane-config-version.cmake
  DESTINATION ${KELVANE_PACKAGE_DIR})

# The pkg-config files find the prefix from where they lie, so the tree may be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_INCLUDEDIR
  BASE_DIRECTORY ${CMAKE_INSTALL_LIBDIR}/pkgconfig OUTPUT_VARIABLE from_pc_to_include)
foreach(name kelvane kelvane-apply)
  configure_file(cmake/${name}.pc.in ${CMAKE_BINARY_DIR}/install/${name}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/install/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# Packages: `cpack` in the build folder makes an archive and a Debian package.
set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_NAME kelvane)
set(CPACK_PACKAGE_VENDOR kelvane)
set(CPACK_PACKAGE_CONTACT "The kelvane authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_RESOURCE_FILE_README ${CMAKE_SOURCE_DIR}/README.md)
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12), libgcc-s1")
include(CPack)
