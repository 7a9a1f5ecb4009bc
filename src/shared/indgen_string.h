#pragma once

#include <cstdint>

// Strings: null-terminated bytes in the host's character set; only ASCII letters have case. A
// function that makes a string gives a fresh one from gen_alloc, which the caller releases by
// gen_free.
namespace kelvane {

bool gen_isspace(int32_t c);
bool gen_isblank(int32_t c);
bool gen_isalnum(int32_t c);
bool gen_strequal(const char* a, const char* b);
char* gen_copy(const char* s);
char* gen_copyn(const char* s, int32_t n);
char* gen_concat(const char* a, const char* b);
char* gen_concat3(const char* a, const char* b, const char* c);
char* gen_concat_sep(const char* a, char separator, const char* b);

}  // namespace kelvane
