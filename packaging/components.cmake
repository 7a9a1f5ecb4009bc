# SPDX-License-Identifier: Apache-2.0
#
# Read by cpack for each kind of package: a Debian package takes Debian's own files besides.
if(CPACK_GENERATOR STREQUAL "DEB")
  set(CPACK_COMPONENTS_ALL
    programs library applier debian_programs debian_library debian_applier)
  # It would go ahead of each package's own description.
  unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY)
endif()
