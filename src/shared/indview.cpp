#include "indview.h"

#include <fcntl.h>
#include <unistd.h>

namespace kelvane {

void gen_viewpathing_init(int32_t /*mode*/) {}
void gen_viewpathing_cleanup() {}
void gen_sourceroot_cleanup() {}

int gen_access(const char* name, int mode) {
  return gen_sys_access(name, mode);
}
int gen_diraccess(const char* name, int mode) {
  return gen_access(name, mode);
}
int gen_chdir(const char* name) {
  return gen_sys_chdir(name);
}
int gen_creat(const char* name, mode_t mode) {
  return gen_sys_creat(name, mode);
}
int gen_link(const char* from, const char* to) {
  return gen_sys_link(from, to);
}
int gen_open(const char* name, int flags, mode_t mode) {
  return gen_sys_open(name, flags, mode);
}
std::FILE* gen_fopen(const char* name, const char* mode) {
  return name == nullptr ? nullptr : gen_sys_fopen(name, mode);
}
std::FILE* gen_freopen(const char* name, const char* mode, std::FILE* stream) {
  return name == nullptr ? nullptr : gen_sys_freopen(name, mode, stream);
}
int gen_stat(const char* name, struct stat* buffer) {
  return gen_sys_stat(name, buffer);
}
int gen_unlink(const char* name) {
  return gen_sys_unlink(name);
}

int gen_sys_access(const char* name, int mode) {
  return ::access(name, mode);
}
int gen_sys_chdir(const char* name) {
  return ::chdir(name);
}
int gen_sys_creat(const char* name, mode_t mode) {
  return ::creat(name, mode);
}
int gen_sys_link(const char* from, const char* to) {
  return ::link(from, to);
}
int gen_sys_open(const char* name, int flags, mode_t mode) {
  return ::open(name, flags, mode);
}
std::FILE* gen_sys_fopen(const char* name, const char* mode) {
  return std::fopen(name, mode);
}
std::FILE* gen_sys_freopen(const char* name, const char* mode, std::FILE* stream) {
  return std::freopen(name, mode, stream);
}
int gen_sys_stat(const char* name, struct stat* buffer) {
  return ::stat(name, buffer);
}
int gen_sys_unlink(const char* name) {
  return ::unlink(name);
}

}  // namespace kelvane
