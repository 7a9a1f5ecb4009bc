#include "indgen_string.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "indgen_memory.h"
#include "owners.h"

namespace kelvane {

namespace {

// How two characters are made comparable: as they are, or with case folded.
using CharacterMap = char (*)(char);

char as_it_is(char c) {
  return c;
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

constexpr size_t kNoLimit = SIZE_MAX;

size_t limit_of(int32_t n) {
  return n < 1 ? 0 : static_cast<size_t>(n);
}

// -1, 0 or 1 for the order of two strings with case folded, over `limit` characters at most.
int32_t folded_order(const char* a, const char* b, size_t limit) {
  for (; limit > 0; --limit, ++a, ++b) {
    // The end is looked at first: compared as a signed byte, it would come behind 0x80.
    if (*a == '\0' || *b == '\0') {
      if (*a == *b) {
        return 0;
      }
      return *a == '\0' ? -1 : 1;
    }
    const auto first = static_cast<int8_t>(lower(*a));
    const auto second = static_cast<int8_t>(lower(*b));
    if (first != second) {
      return first < second ? -1 : 1;
    }
  }
  return 0;
}

// True if `text` begins with the first `limit` characters of `prefix`, or all it has.
bool begins_with(const char* text, const char* prefix, size_t limit, CharacterMap map) {
  for (; limit > 0 && *prefix != '\0'; --limit, ++text, ++prefix) {
    if (map(*text) != map(*prefix)) {
      return false;
    }
  }
  return true;
}

const char* find_last(const char* text, const char* pattern, CharacterMap map) {
  if (text == nullptr || pattern == nullptr) {
    return nullptr;
  }
  const size_t text_length = std::strlen(text);
  const size_t pattern_length = std::strlen(pattern);
  if (pattern_length > text_length) {
    return nullptr;
  }
  for (size_t position = text_length - pattern_length + 1; position-- > 0;) {
    if (begins_with(text + position, pattern, kNoLimit, map)) {
      return text + position;
    }
  }
  return nullptr;
}

// The string as a piece to join, null counting as empty.
std::string_view piece(const char* s) {
  return s == nullptr ? std::string_view() : std::string_view(s);
}

// The first `n` characters of a string that isn't null.
std::string_view piece(const char* s, int32_t n) {
  return {s, ::strnlen(s, limit_of(n))};
}

// A string with room for `length` characters, all of them 0.
char* allocate(size_t length) {
  if (length >= UINT32_MAX) {
    gen_out_of_memory(UINT32_MAX);
  }
  return gen_alloc_array<char>(static_cast<uint32_t>(length + 1));
}

// The pieces end to end in a fresh string.
template <typename... Pieces>
char* join(const Pieces... pieces) {
  char* const joined = allocate((size_t{0} + ... + pieces.size()));
  char* end = joined;
  // A fold over the comma, so that the pieces are copied from left to right.
  ((end += pieces.copy(end, pieces.size())), ...);
  return joined;
}

char* mapped_copy(const char* s, CharacterMap map) {
  char* const copy = gen_copy(s);
  if (copy != nullptr) {
    for (char* c = copy; *c != '\0'; ++c) {
      *c = map(*c);
    }
  }
  return copy;
}

void replace(char** pointer, char* made) {
  std::free(*pointer);
  *pointer = made;
}

// The first argument of the f family goes when the result has been made, and also when that ends
// the run.
using Released = platform_ptr;

void append(char*** array, uint32_t* count, gen_ptr<char> string) {
  *array = static_cast<char**>(gen_allocate(*array, *count + 1, sizeof(char*)));
  (*array)[*count] = string.release();
  ++*count;
}

}  // namespace

bool gen_strequal(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) {
    return a == b;
  }
  return folded_order(a, b, kNoLimit) == 0;
}

bool gen_strnequal(const char* a, const char* b, int32_t n) {
  if (a == nullptr || b == nullptr) {
    return a == b;
  }
  return folded_order(a, b, limit_of(n)) == 0;
}

int32_t gen_stricmp(const char* a, const char* b) {
  return folded_order(a, b, kNoLimit);
}

int32_t gen_strnicmp(const char* a, const char* b, int32_t n) {
  return folded_order(a, b, limit_of(n));
}

bool gen_strprefix(const char* text, const char* prefix) {
  return text != nullptr && prefix != nullptr && begins_with(text, prefix, kNoLimit, as_it_is);
}

bool gen_strprefixn(const char* text, const char* prefix, int32_t n) {
  return text != nullptr && prefix != nullptr && begins_with(text, prefix, limit_of(n), as_it_is);
}

bool gen_strcaseprefix(const char* text, const char* prefix) {
  return text != nullptr && prefix != nullptr && begins_with(text, prefix, kNoLimit, lower);
}

bool gen_strcaseprefixn(const char* text, const char* prefix, int32_t n) {
  return text != nullptr && prefix != nullptr && begins_with(text, prefix, limit_of(n), lower);
}

bool gen_strsuffix(const char* text, const char* suffix) {
  if (text == nullptr || suffix == nullptr) {
    return false;
  }
  const std::string_view whole(text);
  const std::string_view end(suffix);
  return end.size() < whole.size() && whole.substr(whole.size() - end.size()) == end;
}

const char* gen_strstr(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr || *pattern == '\0') {
    return nullptr;
  }
  return std::strstr(text, pattern);
}

const char* gen_strcasestr(const char* text, const char* pattern) {
  if (text == nullptr || pattern == nullptr) {
    return nullptr;
  }
  for (; *text != '\0'; ++text) {
    if (begins_with(text, pattern, kNoLimit, lower)) {
      return text;
    }
  }
  return nullptr;
}

const char* gen_strstr2(const char* text, const char* pattern) {
  return gen_strcasestr(text, pattern);
}

const char* gen_strrstr(const char* text, const char* pattern) {
  return find_last(text, pattern, as_it_is);
}

const char* gen_strrcasestr(const char* text, const char* pattern) {
  return find_last(text, pattern, lower);
}

char* gen_copy(const char* s) {
  return s == nullptr ? nullptr : join(piece(s));
}

char* gen_copyn(const char* s, int32_t n) {
  return s == nullptr || n < 0 ? nullptr : join(piece(s, n));
}

char* gen_strlower(const char* s) {
  return mapped_copy(s, lower);
}

char* gen_strupper(const char* s) {
  return mapped_copy(s, upper);
}

void gen_strchange(char** pointer, const char* s) {
  if (*pointer != s) {
    replace(pointer, gen_copy(s));
  }
}

void gen_strchangen(char** pointer, const char* s, int32_t n) {
  replace(pointer, gen_copyn(s, n));
}

char* gen_concat(const char* a, const char* b) {
  return a == nullptr && b == nullptr ? nullptr : join(piece(a), piece(b));
}

char* gen_concatn(const char* a, const char* b, int32_t n) {
  if (a == nullptr || *a == '\0') {
    return gen_copyn(b, n);
  }
  return b == nullptr ? gen_copy(a) : join(piece(a), piece(b, n));
}

char* gen_concat3(const char* a, const char* b, const char* c) {
  return a == nullptr && b == nullptr && c == nullptr ? nullptr
                                                      : join(piece(a), piece(b), piece(c));
}

char* gen_concat_sep(const char* a, char separator, const char* b) {
  if (a == nullptr) {
    return gen_copy(b);
  }
  if (separator == '\0' || b == nullptr) {
    return gen_concat(a, b);
  }
  return join(piece(a), std::string_view(&separator, 1), piece(b));
}

char* gen_concat4(const char* a, const char* b, const char* c, const char* d) {
  return join(piece(a), piece(b), piece(c), piece(d));
}

char* gen_concat5(const char* a, const char* b, const char* c, const char* d, const char* e) {
  return join(piece(a), piece(b), piece(c), piece(d), piece(e));
}

char* gen_concat6(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f) {
  return join(piece(a), piece(b), piece(c), piece(d), piece(e), piece(f));
}

char* gen_concat7(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f, const char* g) {
  return join(piece(a), piece(b), piece(c), piece(d), piece(e), piece(f), piece(g));
}

char* gen_concat8(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f, const char* g, const char* h) {
  return join(piece(a), piece(b), piece(c), piece(d), piece(e), piece(f), piece(g), piece(h));
}

char* gen_concat9(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f, const char* g, const char* h, const char* i) {
  return join(piece(a), piece(b), piece(c), piece(d), piece(e), piece(f), piece(g), piece(h),
              piece(i));
}

char* gen_concat_int(const char* a, int32_t i) {
  std::array<char, sizeof "-2147483648"> number{};
  std::snprintf(number.data(), number.size(), "%d", i);
  return gen_concat(a, number.data());
}

char* gen_fcopy(char* old, const char* s) {
  const Released released(old);
  return gen_copy(s);
}

char* gen_fcopyn(char* old, const char* s, int32_t n) {
  const Released released(old);
  return gen_copyn(s, n);
}

char* gen_fconcat(char* a, const char* b) {
  const Released released(a);
  return gen_concat(a, b);
}

char* gen_fconcatn(char* a, const char* b, int32_t n) {
  const Released released(a);
  return gen_concatn(a, b, n);
}

char* gen_fconcat3(char* a, const char* b, const char* c) {
  const Released released(a);
  return gen_concat3(a, b, c);
}

char* gen_fconcat_sep(char* a, char separator, const char* b) {
  const Released released(a);
  return gen_concat_sep(a, separator, b);
}

char* gen_fconcat4(char* a, const char* b, const char* c, const char* d) {
  const Released released(a);
  return gen_concat4(a, b, c, d);
}

char* gen_fconcat5(char* a, const char* b, const char* c, const char* d, const char* e) {
  const Released released(a);
  return gen_concat5(a, b, c, d, e);
}

char* gen_fconcat6(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f) {
  const Released released(a);
  return gen_concat6(a, b, c, d, e, f);
}

char* gen_fconcat7(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f, const char* g) {
  const Released released(a);
  return gen_concat7(a, b, c, d, e, f, g);
}

char* gen_fconcat8(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f, const char* g, const char* h) {
  const Released released(a);
  return gen_concat8(a, b, c, d, e, f, g, h);
}

char* gen_fconcat9(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f, const char* g, const char* h, const char* i) {
  const Released released(a);
  return gen_concat9(a, b, c, d, e, f, g, h, i);
}

char* gen_fconcat_int(char* a, int32_t i) {
  const Released released(a);
  return gen_concat_int(a, i);
}

void gen_strarray_init(char*** array, uint32_t* count) {
  *array = nullptr;
  *count = 0;
}

void gen_strarray_add_str(char*** array, uint32_t* count, const char* s) {
  append(array, count, gen_ptr<char>(gen_copy(s)));
}

void gen_strarray_add_strn(char*** array, uint32_t* count, const char* s, int32_t n) {
  append(array, count, gen_ptr<char>(gen_copyn(s, n)));
}

void gen_strarray_free(char*** array, uint32_t* count) {
  if (*array == nullptr) {
    return;
  }
  for (uint32_t index = 0; index < *count; ++index) {
    gen_free((*array)[index]);
  }
  gen_free(*array);
  gen_strarray_init(array, count);
}

}  // namespace kelvane
