#include "indgen_file.h"

#include <unistd.h>

#include <cerrno>

#include "indgen_file_internal.h"
#include "indview.h"

namespace kelvane {

bool examine(const char* name, struct stat* status) {
  if (name == nullptr) {
    errno = EFAULT;
    return false;
  }
  return gen_stat(name, status) == 0;
}

int32_t gen_isdir(const char* name) {
  struct stat status {};
  return examine(name, &status) && S_ISDIR(status.st_mode) ? 1 : 0;
}

int32_t gen_canexec(const char* name) {
  if (name == nullptr || *name == '\0') {
    return -1;
  }
  if (gen_isdir(name) != 0) {
    return 0;
  }
  if (gen_access(name, X_OK) == 0) {
    return 1;
  }
  return gen_access(name, F_OK) == 0 ? 0 : -1;
}

}  // namespace kelvane
