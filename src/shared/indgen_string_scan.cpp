// Characters, and the scanning of text: tokens, classes of program text, the hash.

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "indgen_string.h"

namespace kelvane {

namespace {

// Cuts the next token as gen_strtok_r does, given what tells a delimiter.
template <typename IsDelimiter>
char* cut_token(char* text, char** rest, IsDelimiter is_delimiter) {
  while (*text != '\0' && is_delimiter(*text)) {
    ++text;
  }
  char* end = text;
  while (*end != '\0' && !is_delimiter(*end)) {
    ++end;
  }
  char* behind = nullptr;
  if (*end != '\0') {
    *end = '\0';
    behind = end + 1;
  }
  if (rest != nullptr) {
    *rest = behind;
  }
  return *text == '\0' ? nullptr : text;
}

// The class of a bracket, or of what follows an opening one; 13 if neither is at hand.
int32_t bracket_class(int8_t previous, int8_t current, int8_t next) {
  struct Brackets {
    char open;
    char close;
    int32_t char_class;
  };
  static constexpr std::array<Brackets, 3> kBrackets = {
      {{'(', ')', 5}, {'{', '}', 6}, {'[', ']', 7}}};
  for (const Brackets& pair : kBrackets) {
    if ((current == pair.open && next == pair.close) ||
        (previous == pair.open && current == pair.close)) {
      return 12;
    }
    if (current == pair.open || previous == pair.open) {
      return pair.char_class;
    }
  }
  return 13;
}

}  // namespace

bool gen_isspace(int32_t c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f';
}

bool gen_isblank(int32_t c) {
  return c == ' ' || c == '\t';
}

bool gen_isupper(int32_t c) {
  return c >= 'A' && c <= 'Z';
}

bool gen_isalnum(int32_t c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool gen_isbreak(int32_t c) {
  return c == ';' || c < 33 || c >= 127;
}

int32_t gen_is_arith(int32_t c) {
  switch (c) {
    case '=':
    case '>':
    case '<':
    case ':':
    case '!':
    case '+':
    case '-':
    case '*':
    case '/':
    case '|':
    case '&':
      return 9;
    default:
      return 0;
  }
}

int32_t gen_is_whitespace(int32_t c) {
  const auto byte = static_cast<uint8_t>(c);
  return byte == '\t' || byte == '\n' || byte == ' ' ? 2 : 0;
}

bool gen_is_separator(int32_t c) {
  return static_cast<uint8_t>(c) == '/';
}

bool gen_is_alphanum(int32_t c) {
  const auto byte = static_cast<int8_t>(c);
  return gen_isalnum(byte) || byte == '$' || byte < 0;
}

bool gen_isblankstring(const char* text) {
  return text != nullptr && text[std::strspn(text, " \t")] == '\0';
}

char* gen_strtok_r(char* text, const char* delimiters, char** rest) {
  if (text == nullptr) {
    return nullptr;
  }
  const char first = delimiters[0];
  const char second = first == '\0' ? '\0' : delimiters[1];
  // Most callers split at one or two characters, which needs no search through the set.
  if (second == '\0') {
    return cut_token(text, rest, [=](char c) { return c == first; });
  }
  if (delimiters[2] == '\0') {
    return cut_token(text, rest, [=](char c) { return c == first || c == second; });
  }
  return cut_token(text, rest, [=](char c) { return std::strchr(delimiters, c) != nullptr; });
}

unsigned long gen_strtoul(const char* text, char** end, int32_t base) {
  return std::strtoul(text, end, base);
}

int32_t gen_new_char_type(int32_t previous, int32_t current, int32_t next) {
  const auto before = static_cast<int8_t>(previous);
  const auto here = static_cast<int8_t>(current);
  const auto after = static_cast<int8_t>(next);
  if (here == '\0') {
    return 0;
  }
  if (here == '\\' || before == '\\') {
    return 8;
  }
  if (gen_is_alphanum(here)) {
    return 1;
  }
  if (gen_is_whitespace(here) != 0) {
    return 2;
  }
  switch (here) {
    case '-':  // a sign in front of a number, unless an operator
      return gen_is_whitespace(before) != 0 && gen_is_alphanum(after) ? 1 : 9;
    case '/':
      return before == '*' || before == '/' || after == '*' || after == '/' ? 10 : 13;
    case '*':
      return before == '/' || after == '/' ? 10 : 13;
    case '\'':  // an apostrophe within a word, unless a quote
      return gen_is_alphanum(before) && gen_is_alphanum(after) ? 1 : 13;
    case '_':
      return 1;
    case ';':
      return 3;
    case ',':
      return 4;
    default:
      return bracket_class(before, here, after);
  }
}

int32_t gen_char_type(int32_t c) {
  const auto byte = static_cast<int8_t>(c);
  if (byte == '\0') {
    return -1;
  }
  if (gen_is_alphanum(byte) || byte == '_') {
    return 0;
  }
  return gen_is_whitespace(byte) != 0 ? 2 : 3;
}

const char* gen_find_close_angle(const char* text, int32_t* angle_depth, int32_t* paren_depth) {
  if (text == nullptr) {
    return nullptr;
  }
  int32_t angles = angle_depth == nullptr ? 0 : *angle_depth;
  int32_t parens = paren_depth == nullptr ? 0 : *paren_depth;
  const char* position = text;
  for (bool inside = true; inside; position += inside ? 1 : 0) {
    switch (*position) {
      case '<':
        ++angles;
        break;
      case '(':
        ++parens;
        break;
      case '>':
        inside = angles >= 1 && --angles != 0;
        break;
      case ')':
        inside = parens >= 1;
        parens -= inside ? 1 : 0;
        break;
      case ':':  // only as part of ::, whose second half is stepped over here
        inside = position[1] == ':';
        position += inside ? 1 : 0;
        break;
      case '&':  // a reference, but no logical operator
        inside = position[1] != '&';
        break;
      case '_':
      case ',':
      case '*':
        break;
      default:
        inside = std::isalnum(static_cast<unsigned char>(*position)) != 0 ||
                 gen_is_whitespace(*position) != 0;
        break;
    }
  }
  if (angle_depth != nullptr) {
    *angle_depth = angles;
  }
  if (paren_depth != nullptr) {
    *paren_depth = parens;
  }
  return *position == '>' && angles == 0 && parens == 0 ? position : nullptr;
}

uint32_t gen_hcomp(const char* text, int32_t length) {
  uint32_t sum = 0;
  uint32_t hash = 0;
  const auto mix = [&](int32_t first, int32_t count) {
    for (const char c : std::string_view(text + first, static_cast<size_t>(count))) {
      // Widened with its sign, which spreads a byte from 0x80 on over the whole word.
      const auto widened = static_cast<uint32_t>(int32_t{static_cast<int8_t>(c)});
      sum += gen_HashTable[hash & 15U] ^ widened;
      hash += sum;
    }
  };
  if (length > 9) {
    mix(0, 3);
    mix(length / 2 - 1, 3);
    mix(length - 3, 3);
  } else if (length > 0) {
    mix(0, length);
  }
  return hash & 0x7FFFFFFFU;
}

}  // namespace kelvane
