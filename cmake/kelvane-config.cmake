# SPDX-License-Identifier: Apache-2.0
# find_package(kelvane) gives kelvane::kelvane, the engine with the patch writer and all that they need;
# kelvane::writer, the patch writer without the engine; kelvane::apply, the applier, which needs
# nothing; and kelvane::formats, the readers of the object formats that the programs don't compare.
include(${CMAKE_CURRENT_LIST_DIR}/kelvane-targets.cmake)
