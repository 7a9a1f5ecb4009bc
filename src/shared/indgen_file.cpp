#include "indgen_file.h"

#include <unistd.h>

namespace kelvane {

int32_t gen_canexec(const char* name) {
  return ::access(name, X_OK) == 0 ? 1 : -1;
}

}  // namespace kelvane
