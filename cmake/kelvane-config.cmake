# find_package(kelvane) gives kelvane::kelvane, the engine and the patch writer with all that it needs,
# kelvane::apply, the applier, which needs nothing, and kelvane::formats, the readers of the object
# formats that the programs don't compare.
include(${CMAKE_CURRENT_LIST_DIR}/kelvane-targets.cmake)
