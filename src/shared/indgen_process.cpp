#include "indgen_process.h"

#include <cstdlib>

namespace kelvane {

const char* gen_getenv(const char* name, const char* default_value) {
  const char* const value = std::getenv(name);
  return value == nullptr || *value == '\0' ? default_value : value;
}

}  // namespace kelvane
