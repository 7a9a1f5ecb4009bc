# SPDX-License-Identifier: Apache-2.0
#
# What is installed. Each piece belongs to one of the components of which KelvanePackages.cmake makes
# packages: `programs`, `applier`, and `library` for all that names none. `plain_programs` holds what
# Debian wants in another place.
#
#   lib/kelvane/           the program's private tree: it looks for its colour configuration beside
#     kelvane                its real file, so a link leads to it from bin/
#     defaults/colors.ini
#     config/                empty, for a site's own colors.ini
#   bin/                   kelvane (the link), kelmake, kelpatch
#   share/man, share/doc   manual pages, documents
#   share/...              completions for bash and zsh
#   share/kelvane/applier  the applier's sources for a target, with an example
#   include/kelvane, lib   the libraries and their headers, with files for find_package and pkg-config

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KELVANE_PRIVATE_DIR lib/kelvane)
set(KELVANE_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/kelvane)
set(KELVANE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelvane)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME library)
# Whoever installs gets the same tree, whatever the umask.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Programs and what they read.
install(TARGETS kelvane RUNTIME DESTINATION ${KELVANE_PRIVATE_DIR} COMPONENT programs)
install(TARGETS kelmake kelpatch RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
install(FILES src/configuration/colors.ini
  DESTINATION ${KELVANE_PRIVATE_DIR}/defaults COMPONENT programs)
install(DIRECTORY DESTINATION ${KELVANE_PRIVATE_DIR}/config COMPONENT programs)

cmake_path(RELATIVE_PATH KELVANE_PRIVATE_DIR
  BASE_DIRECTORY ${CMAKE_INSTALL_BINDIR} OUTPUT_VARIABLE from_bin_to_private)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/install)
file(CREATE_LINK ${from_bin_to_private}/kelvane ${CMAKE_BINARY_DIR}/install/kelvane SYMBOLIC)
install(FILES ${CMAKE_BINARY_DIR}/install/kelvane
  DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)

# kelvane_compress(<file> <output>): a compressed copy, the same from every build.
find_program(KELVANE_GZIP gzip REQUIRED)
function(kelvane_compress file output)
  add_custom_command(OUTPUT ${output}
    COMMAND ${KELVANE_GZIP} -9nc ${file} > ${output}
    DEPENDS ${file}
    VERBATIM)
  set_property(GLOBAL APPEND PROPERTY kelvane_compressed ${output})
endfunction()

foreach(program kelmake kelvane kelpatch)
  kelvane_compress(${CMAKE_SOURCE_DIR}/docs/${program}.1 ${CMAKE_BINARY_DIR}/install/${program}.1.gz)
  install(FILES ${CMAKE_BINARY_DIR}/install/${program}.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT programs)
  install(FILES completions/${program}.bash RENAME ${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT programs)
  install(FILES completions/_${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT plain_programs)
endforeach()
install(FILES README.md CHANGELOG.md SECURITY.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT programs)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT plain_programs)
install(DIRECTORY docs/
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT programs FILES_MATCHING PATTERN "*.md")

# The applier as a target's build takes it in.
install(
  FILES
    libs/libapply/applier.c
    libs/libapply/applier.h
    libs/libapply/applier_cursor.c
    libs/libapply/applier_memory.c
    libs/libapply/applier_internal.h
    libs/libapply/applier_reader.c
    libs/libapply/applier_streams.c
    libs/libapply/apply_example.c
    libs/libapply/byte_source.c
    libs/libapply/byte_source.h
    libs/libapply/dense_branches.c
    libs/libapply/dense_coder.c
    libs/libapply/dense_decoder.c
    libs/libapply/dense_decoder.h
    libs/libapply/dense_halves.h
    libs/libapply/dense_internal.h
    libs/libapply/dense_map.c
    libs/libapply/dense_references.c
    libs/libapply/flash_apply.c
    libs/libapply/flash_apply.h
    libs/libapply/flash_apply_internal.h
    libs/libapply/flash_bundle.c
    libs/libapply/flash_bundle.h
    libs/libapply/flash_dense.c
    libs/libapply/flash_dense.h
    libs/libapply/flash_driver.h
    libs/libapply/flash_journal.c
    libs/libapply/flash_journal.h
    libs/libapply/flash_open.c
    libs/libapply/flash_patch.c
    libs/libapply/flash_patch.h
    libs/libapply/flash_payload.h
    libs/libapply/flash_plan.c
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kelvane/applier COMPONENT applier)

# Libraries. The driver is the program's own and stays at home.
set_target_properties(kelvane_shared PROPERTIES EXPORT_NAME shared)
set_target_properties(kelvane_st PROPERTIES EXPORT_NAME st)
set_target_properties(kelvane_color PROPERTIES EXPORT_NAME color)
set_target_properties(kelvane_objects PROPERTIES EXPORT_NAME objects)
set_target_properties(kelvane_formats PROPERTIES EXPORT_NAME formats)
set_target_properties(kelvane_writer PROPERTIES EXPORT_NAME writer)
set_target_properties(kelvane_engine PROPERTIES EXPORT_NAME kelvane)
set_target_properties(kelvane_apply PROPERTIES EXPORT_NAME apply)
install(
  TARGETS kelvane_shared kelvane_st kelvane_color kelvane_objects kelvane_formats kelvane_writer
    kelvane_engine kelvane_apply
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
