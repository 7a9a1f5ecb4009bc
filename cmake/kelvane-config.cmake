# find_package(kelvane) gives kelvane::kelvane, the engine and the patch writer with all that it needs,
# and kelvane::apply, the applier, which needs nothing.
include(${CMAKE_CURRENT_LIST_DIR}/kelvane-targets.cmake)
# SPDX-License-Identifier: Apache-2.0
