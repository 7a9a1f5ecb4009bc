#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>

// File access through the viewpath: an ordered list of directory trees laid over each other.
namespace kelvane {

void gen_viewpathing_init(int32_t mode);
void gen_viewpathing_cleanup();
void gen_sourceroot_cleanup();

int gen_access(const char* name, int mode);
int gen_open(const char* name, int flags, mode_t mode);
std::FILE* gen_fopen(const char* name, const char* mode);
int gen_stat(const char* name, struct stat* buffer);
int gen_unlink(const char* name);
int gen_sys_stat(const char* name, struct stat* buffer);

}  // namespace kelvane
