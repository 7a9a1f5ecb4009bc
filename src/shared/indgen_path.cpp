#include "indgen_path.h"

#include <cstdlib>
#include <cstring>

#include "indgen_memory.h"
#include "indgen_string.h"

namespace kelvane {

char* gen_sconcat(const char* dir, const char* name) {
  if (dir == nullptr || *dir == '\0' || (name != nullptr && *name == '/')) {
    return gen_copy(name);
  }
  return gen_concat_sep(dir, '/', name);
}

const char* gen_basename(const char* path) {
  const char* const slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

char* gen_dirname(const char* path) {
  if (path == nullptr) {
    return nullptr;
  }
  const char* const slash = std::strrchr(path, '/');
  if (slash == nullptr) {
    return nullptr;
  }
  return gen_copyn(path, slash == path ? 1 : static_cast<int32_t>(slash - path));
}

char* gen_realpath(const char* path) {
  char* const resolved = ::realpath(path, nullptr);
  char* const copy = gen_copy(resolved != nullptr ? resolved : path);
  std::free(resolved);
  return copy;
}

char* gen_expand_filename(const char* name) {
  return gen_copy(name);
}

}  // namespace kelvane
