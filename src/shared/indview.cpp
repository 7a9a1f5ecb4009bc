#include "indview.h"

#include <fcntl.h>
#include <unistd.h>

namespace kelvane {

void gen_viewpathing_init(int32_t /*mode*/) {}
void gen_viewpathing_cleanup() {}
void gen_sourceroot_cleanup() {}

int gen_access(const char* name, int mode) {
  return ::access(name, mode);
}
int gen_open(const char* name, int flags, mode_t mode) {
  return ::open(name, flags, mode);
}
std::FILE* gen_fopen(const char* name, const char* mode) {
  return name == nullptr ? nullptr : std::fopen(name, mode);
}
int gen_stat(const char* name, struct stat* buffer) {
  return ::stat(name, buffer);
}
int gen_unlink(const char* name) {
  return ::unlink(name);
}
int gen_sys_stat(const char* name, struct stat* buffer) {
  return ::stat(name, buffer);
}

}  // namespace kelvane
