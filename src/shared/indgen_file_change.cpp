#include <cerrno>

#include "indgen_file.h"
#include "indview.h"

namespace kelvane {

int32_t gen_mkdir(const char* name, mode_t mode) {
  return ::mkdir(name, mode);
}

int32_t gen_createdir(const char* name, mode_t mode) {
  struct stat status {};
  if (gen_sys_stat(name, &status) == 0) {
    if (S_ISDIR(status.st_mode)) {
      return 0;
    }
    errno = EEXIST;  // what mkdir says to such a name
    return -1;
  }
  return gen_mkdir(name, mode);
}

int32_t gen_removefile(const char* name) {
  if (gen_isdir(name) != 0) {
    errno = EISDIR;
    return -1;
  }
  return gen_unlink(name);
}

}  // namespace kelvane
