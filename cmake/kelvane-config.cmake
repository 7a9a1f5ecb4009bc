# SPDX-License-Identifier: Apache-2.0
# find_package(kelvane) gives kelvane::kelvane, the engine with the patch writer and all that they need;
# kelvane::writer, the patch writer without the engine; and kelvane::apply, the applier, which needs
# nothing.
include(${CMAKE_CURRENT_LIST_DIR}/kelvane-targets.cmake)
