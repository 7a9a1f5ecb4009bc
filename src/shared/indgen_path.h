#pragma once

#include <cstdint>

// File names as text: joining, cutting, making canonical, comparing.
namespace kelvane {

char* gen_sconcat(const char* dir, const char* name);
const char* gen_basename(const char* path);
char* gen_dirname(const char* path);
char* gen_realpath(const char* path);
char* gen_expand_filename(const char* name);

}  // namespace kelvane
