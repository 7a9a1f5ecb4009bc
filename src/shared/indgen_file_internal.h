#pragma once

#include <sys/stat.h>

// What the sources of the file operations share.
namespace kelvane {

// gen_stat that tells success, and fails for a null name (EFAULT).
bool examine(const char* name, struct stat* status);

}  // namespace kelvane
