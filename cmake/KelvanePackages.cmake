# SPDX-License-Identifier: Apache-2.0
#
# Three packages of one build, by `cpack` in the build folder, as Debian packages and as archives:
#
#   kelvane          the programs, with manual pages, documents and completions
#   libkelvane-dev   the libraries for a host, with their headers
#   kelvane-applier  the applier's sources for a target, with an example
#
# scripts/package makes them in a build of their own, whose prefix is Debian's, and has them looked at.

set(KELVANE_MAINTAINER "The kelvane authors <kelvane@example.org>" CACHE STRING
  "Who answers for the packages, with an address")

configure_file(packaging/changelog.in ${CMAKE_BINARY_DIR}/install/changelog @ONLY)
kelvane_compress(${CMAKE_BINARY_DIR}/install/changelog ${CMAKE_BINARY_DIR}/install/changelog.gz)

# kelvane_package(<package> <component> ARCHITECTURE ... SECTION ... [DEPENDS ...] SUMMARY ... TEXT ...)
# The package of a component. What Debian alone wants of it, and what an archive alone holds, is in
# components of their own.
macro(kelvane_package package component)
  cmake_parse_arguments(package "" "ARCHITECTURE;SECTION;DEPENDS;SUMMARY;TEXT" "" ${ARGN})
  install(FILES packaging/copyright ${CMAKE_BINARY_DIR}/install/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    COMPONENT debian_${component} EXCLUDE_FROM_ALL)
  if(NOT ${component} STREQUAL "programs")
    install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
      COMPONENT plain_${component} EXCLUDE_FROM_ALL)
  endif()
  string(TOUPPER ${component} name)
  set(CPACK_COMPONENT_${name}_GROUP ${component})
  set(CPACK_COMPONENT_PLAIN_${name}_GROUP ${component})
  set(CPACK_COMPONENT_DEBIAN_${name}_GROUP ${component})
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${name}_PACKAGE_ARCHITECTURE ${package_ARCHITECTURE})
  set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${package_SECTION})
  set(CPACK_DEBIAN_${name}_PACKAGE_DEPENDS "${package_DEPENDS}")
  set(CPACK_DEBIAN_${name}_DESCRIPTION "${package_SUMMARY}\n${package_TEXT}")
  set(CPACK_ARCHIVE_${name}_FILE_NAME ${package}-${PROJECT_VERSION})
endmacro()

execute_process(COMMAND dpkg --print-architecture
  OUTPUT_VARIABLE host_architecture OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)

set(what_it_is "\
kelvane compares two builds of an embedded program and writes one compact
patch, from which an applier on the target turns the old build into the new
one, in place.")
kelvane_package(kelvane programs
  ARCHITECTURE "${host_architecture}"
  SECTION devel
  DEPENDS "libc6 (>= 2.36), libstdc++6 (>= 12), libgcc-s1"
  SUMMARY "compact in-place patches between two builds of a target program"
  TEXT "${what_it_is}
.
This package holds the program, and kelpatch, which shows, applies and
verifies patches.")
kelvane_package(libkelvane-dev library
  ARCHITECTURE "${host_architecture}"
  SECTION libdevel
  SUMMARY "libraries that make and apply compact in-place patches"
  TEXT "${what_it_is}
.
This package holds the libraries for programs on a workstation, with their
headers: the comparison with the writer of patches, and the applier.")
kelvane_package(kelvane-applier applier
  ARCHITECTURE all
  SECTION devel
  SUMMARY "applier of compact in-place patches, in C for embedded targets"
  TEXT "${what_it_is}
.
This package holds the sources of the applier for a target: plain C without
heap or standard I/O, and an example.")

# What lintian takes for mistakes and is meant.
install(FILES packaging/lintian-overrides RENAME kelvane
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT debian_programs EXCLUDE_FROM_ALL)

# Debian looks for completions of zsh in a folder of its own.
install(FILES completions/_kelvane completions/_kelpatch
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions
  COMPONENT debian_programs EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR TGZ DEB)
set(CPACK_PACKAGE_NAME kelvane)
set(CPACK_PACKAGE_VENDOR kelvane)
set(CPACK_PACKAGE_CONTACT "${KELVANE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_RESOURCE_FILE_README ${CMAKE_SOURCE_DIR}/README.md)
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL programs library applier plain_programs plain_library plain_applier)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_SOURCE_DIR}/packaging/components.cmake)
include(CPack)

get_property(compressed GLOBAL PROPERTY kelvane_compressed)
add_custom_target(kelvane_compressed ALL DEPENDS ${compressed})
