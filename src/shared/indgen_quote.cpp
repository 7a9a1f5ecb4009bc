#include "indgen_quote.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "indgen_memory.h"
#include "indgen_string.h"
#include "indview.h"
#include "shared_reset.h"

namespace kelvane {

namespace {

struct State {
  std::FILE* fdevnull = nullptr;  // opened on first need, never closed
  char* tmpbuf = nullptr;         // spare buffer for texts that don't fit, lives with the process
  size_t tmpbuflen = 0;
};
State state;

// What a letter behind a backslash stands for, and the letter.
struct Escape {
  char letter;
  char value;
};
constexpr Escape kEscapes[] = {{'a', '\a'}, {'b', '\b'}, {'f', '\f'}, {'n', '\n'},
                               {'r', '\r'}, {'t', '\t'}, {'v', '\v'}};

// The same, for the characters that are escaped on the way out.
constexpr Escape kEscapedControls[] = {{'n', '\n'}, {'r', '\r'}, {'t', '\t'},
                                       {'1', 1},    {'2', 2},    {'3', 3}};

// The value of a digit of a number to `base`, or -1.
int32_t digit_value(char c, int32_t base) {
  int32_t value = -1;
  if (c >= '0' && c <= '9') {
    value = c - '0';
  } else if (c >= 'a' && c <= 'f') {
    value = c - 'a' + 10;
  } else if (c >= 'A' && c <= 'F') {
    value = c - 'A' + 10;
  }
  return value < base ? value : -1;
}

// Reads a number of at most `digits` digits and moves the position behind it.
int8_t read_number(const char** position, int32_t base, int32_t digits) {
  int32_t number = 0;
  for (; digits > 0; --digits, ++*position) {
    const int32_t value = digit_value(**position, base);
    if (value < 0) {
      break;
    }
    number = number * base + value;
  }
  return static_cast<int8_t>(number);
}

char* fresh_copy(const std::string& text) {
  return gen_copy(text.c_str());
}

}  // namespace

int8_t gen_unescape_one_char(const char** position) {
  const char*& next = *position;
  if (*next == '\0') {
    return 0;
  }
  if (*next != '\\') {
    return static_cast<int8_t>(*next++);
  }
  const char letter = *++next;
  if (letter == '\0') {
    return 0;
  }
  if (letter >= '0' && letter <= '3') {
    return read_number(position, 8, 3);
  }
  ++next;
  if (letter == 'x') {
    return read_number(position, 16, 2);
  }
  for (const Escape& escape : kEscapes) {
    if (escape.letter == letter) {
      return static_cast<int8_t>(escape.value);
    }
  }
  return static_cast<int8_t>(letter);
}

char* xquotify_string(const char* text, char quote, uint8_t escape_controls) {
  if (text == nullptr) {
    return nullptr;
  }
  const std::span<const Escape> controls =
      escape_controls != 0 ? std::span<const Escape>(kEscapedControls) : std::span<const Escape>();
  std::string result;
  if (quote != '\0') {
    result += quote;
  }
  for (const char c : std::string_view(text)) {
    char letter = c == '\\' || c == '"' || c == '\'' ? c : '\0';
    for (const Escape& escape : controls) {
      if (escape.value == c) {
        letter = escape.letter;
      }
    }
    if (letter != '\0') {
      result += {'\\', letter};
    } else {
      result += c;
    }
  }
  if (quote != '\0') {
    result += quote;
  }
  return fresh_copy(result);
}

char* xunquotify_string(const char* text, char quote, uint8_t unescape) {
  if (text == nullptr) {
    return nullptr;
  }
  std::string result;
  const char* position = text;
  while (*position != '\0') {
    if (*position == quote) {
      ++position;
    } else if (unescape == 0) {
      result += *position++;
    } else {
      const int8_t c = gen_unescape_one_char(&position);
      if (c == 0) {
        break;
      }
      result += static_cast<char>(c);
    }
  }
  return fresh_copy(result);
}

char* gen_quotify_string(const char* text) {
  return xquotify_string(text, '"', 0);
}

char* gen_single_quotify_string(const char* text) {
  return xquotify_string(text, '\'', 0);
}

char* gen_escapify_string(const char* text) {
  return xquotify_string(text, '\0', 1);
}

char* gen_dequotify_string(const char* text) {
  const bool quoted = text != nullptr && (*text == '\'' || *text == '"');
  return xunquotify_string(text, quoted ? *text : '\0', 1);
}

char* gen_single_dequotify_string(const char* text) {
  return xunquotify_string(text, '\'', 1);
}

char* gen_double_dequotify_string(const char* text) {
  return xunquotify_string(text, '"', 1);
}

char* gen_unescapify_string(const char* text) {
  return xunquotify_string(text, '\0', 1);
}

char* gen_shellescapify_filename(const char* name) {
  const bool quotes_needed = name != nullptr && std::strpbrk(name, " \"") != nullptr;
  return quotes_needed ? gen_concat3("'", name, "'") : gen_copy(name);
}

char* gen_unshellescapify_filename(const char* name) {
  if (name == nullptr || *name == '\0') {
    return gen_copy(name);
  }
  if (*name == '"') {
    return gen_dequotify_string(name);
  }
  if (*name != '\'') {
    return gen_copy(name);
  }
  std::string_view bare(name + 1);
  if (bare.ends_with('\'')) {
    bare.remove_suffix(1);
  }
  return fresh_copy(std::string(bare));
}

char* gen_binary_to_string(const void* data, uint32_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string digits;
  digits.reserve(size_t{length} * 2);
  for (const uint8_t byte : std::span(static_cast<const uint8_t*>(data), length)) {
    digits += kDigits[byte & 0xfU];
    digits += kDigits[byte >> 4U];
  }
  return fresh_copy(digits);
}

const char* gen_devnullpathname() {
  return "/dev/null";
}

int32_t gen_Xprintflen(const char* format, va_list arguments) {
  if (state.fdevnull == nullptr) {
    state.fdevnull = gen_fopen(gen_devnullpathname(), "wb");
  }
  return state.fdevnull == nullptr ? -1 : std::vfprintf(state.fdevnull, format, arguments);
}

int32_t gen_vsnprintf(char* buffer, size_t size, const char* format, va_list arguments) {
  va_list for_length;
  va_copy(for_length, arguments);
  const int32_t length = gen_Xprintflen(format, for_length);
  va_end(for_length);
  if (size == 0 || length < 0) {
    return length;
  }
  const size_t needed = static_cast<size_t>(length) + 1;
  if (needed < size) {
    std::vsnprintf(buffer, size, format, arguments);
    return length;
  }
  if (state.tmpbuflen < needed) {
    void* const larger = std::realloc(state.tmpbuf, needed);
    if (larger == nullptr) {
      gen_out_of_memory(static_cast<uint32_t>(needed));
    }
    state.tmpbuf = static_cast<char*>(larger);
    state.tmpbuflen = needed;
  }
  std::vsnprintf(state.tmpbuf, needed, format, arguments);
  std::memcpy(buffer, state.tmpbuf, size);
  return length;
}

int32_t gen_snprintf(char* buffer, size_t size, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t length = gen_vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

char* gen_vmsprintf(const char* format, va_list arguments) {
  va_list for_length;
  va_copy(for_length, arguments);
  const int32_t length = gen_vsnprintf(nullptr, 0, format, for_length);
  va_end(for_length);
  if (length < 0) {
    return nullptr;
  }
  const size_t size = static_cast<size_t>(length) + 1;
  auto* const text = static_cast<char*>(std::malloc(size));
  if (text == nullptr) {
    gen_out_of_memory(static_cast<uint32_t>(size));
  }
  std::vsnprintf(text, size, format, arguments);
  return text;
}

char* gen_msprintf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char* const text = gen_vmsprintf(format, arguments);
  va_end(arguments);
  return text;
}

void reset_indgen_quote() {
  if (state.fdevnull != nullptr) {
    std::fclose(state.fdevnull);
  }
  std::free(state.tmpbuf);
  state = State{};
}

}  // namespace kelvane
