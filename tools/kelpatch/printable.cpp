// SPDX-License-Identifier: Apache-2.0
#include "printable.h"

#include <algorithm>
#include <cstdint>

#include "patch_file.h"

namespace kelpatch {
namespace {

uint32_t byte_of(std::string_view text, size_t i) {
  return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
}

bool is_control(std::string_view text) {
  const uint32_t first = byte_of(text, 0);
  const uint32_t second = byte_of(text, 1);
  const uint32_t third = byte_of(text, 2);
  // Line separators, and what turns the direction of writing: U+2028 to U+202E, U+2066 to U+2069.
  const bool turns = first == 0xE2 && ((second == 0x80 && third >= 0xA8 && third <= 0xAE) ||
                                       (second == 0x81 && third >= 0xA6 && third <= 0xA9));
  return first < 0x20 || first == 0x7F || (first == 0xC2 && second < 0xA0) || turns;
}

}  // namespace

size_t character_size(std::string_view text) {
  const uint32_t first = byte_of(text, 0);
  if (first < 0x80) {
    return 1;
  }
  const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  uint32_t character = first & (0x7FU >> size);
  for (size_t i = 1; i < size; ++i) {
    if ((byte_of(text, i) & 0xC0U) != 0x80) {
      return 0;
    }
    character = character << 6U | (byte_of(text, i) & 0x3FU);
  }
  const uint32_t least = size == 4 ? 0x10000 : size == 3 ? 0x800 : 0x80;
  const bool is_surrogate = character >> 11U == 0x1B;
  const bool is_sound =
      first >= 0xC0 && first < 0xF8 && character >= least && character <= 0x10FFFF && !is_surrogate;
  return is_sound ? size : 0;
}

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const size_t size = character_size(text);
    const std::string_view character = text.substr(0, std::max<size_t>(size, 1));
    if (size != 0 && !is_control(text)) {
      shown += character;
    } else {
      for (size_t i = 0; i < character.size(); ++i) {
        shown += formatted("\\x%02x", byte_of(character, i));
      }
    }
    text.remove_prefix(character.size());
  }
  return shown;
}

}  // namespace kelpatch
