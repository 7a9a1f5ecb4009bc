#include "indgen_string.h"

#include <cstring>
#include <string_view>

#include "indgen_memory.h"

namespace kelvane {

namespace {

// Gives the pieces end to end in a fresh string.
template <typename... Pieces>
char* join(const Pieces... pieces) {
  const size_t length = (size_t{0} + ... + pieces.size());
  char* const result = gen_alloc_array<char>(static_cast<uint32_t>(length + 1));
  char* end = result;
  ((std::memcpy(end, pieces.data(), pieces.size()), end += pieces.size()), ...);
  return result;
}

bool is_empty(const char* s) {
  return s == nullptr || *s == '\0';
}

}  // namespace

bool gen_isspace(int32_t c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

bool gen_isblank(int32_t c) {
  return c == ' ' || c == '\t';
}

bool gen_isalnum(int32_t c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char* gen_copy(const char* s) {
  return s == nullptr ? nullptr : join(std::string_view(s));
}

char* gen_copyn(const char* s, int32_t n) {
  if (s == nullptr || n < 0) {
    return nullptr;
  }
  return join(std::string_view(s, ::strnlen(s, static_cast<size_t>(n))));
}

char* gen_concat(const char* a, const char* b) {
  if (a == nullptr && b == nullptr) {
    return nullptr;
  }
  return join(std::string_view(is_empty(a) ? "" : a), std::string_view(is_empty(b) ? "" : b));
}

char* gen_concat3(const char* a, const char* b, const char* c) {
  const gen_ptr<char> front(gen_concat(a, b));
  return gen_concat(front.get(), c);
}

char* gen_concat_sep(const char* a, char separator, const char* b) {
  if (a == nullptr) {
    return gen_copy(b);
  }
  if (separator == '\0') {
    return gen_concat(a, b);
  }
  if (b == nullptr) {
    return gen_copy(a);
  }
  return join(std::string_view(a), std::string_view(&separator, 1), std::string_view(b));
}

}  // namespace kelvane
