// SPDX-License-Identifier: Apache-2.0
#include "loaded_image.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace kelpatch {
namespace {

// Offsets in the file header and in a program header, and the size of the latter.
constexpr uint32_t kClass = 4;
constexpr uint32_t kOrder = 5;
constexpr uint32_t kProgramHeaders = 28;
constexpr uint32_t kEntrySize = 42;
constexpr uint32_t kEntries = 44;
constexpr uint32_t kOffset = 4;
constexpr uint32_t kLoadAddress = 12;
constexpr uint32_t kSize = 16;
constexpr uint32_t kProgramHeaderSize = 32;

constexpr uint32_t kIsLoaded = 1;  // type of a program header
constexpr uint64_t kMostBytes = uint64_t{256} << 20U;
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

bool is_linked(const Bytes& bytes) {
  constexpr uint8_t kStart[] = {0x7F, 'E', 'L', 'F'};
  return bytes.size() >= sizeof kStart &&
         std::equal(std::begin(kStart), std::end(kStart), bytes.begin());
}

uint32_t number(const NamedImage& file, uint64_t offset, uint32_t size) {
  if (offset + size > file.bytes.size()) {
    fatal("image '%s' is damaged: a header lies outside the file", file.name.c_str());
  }
  const bool big_endian = file.bytes[kOrder] == 2;
  uint32_t value = 0;
  for (uint32_t i = 0; i < size; ++i) {
    value = value << 8U | file.bytes[offset + (big_endian ? i : size - 1 - i)];
  }
  return value;
}

struct Piece {
  uint64_t address;
  uint64_t end;
  uint32_t offset;
};

// By ascending addresses.
std::vector<Piece> pieces_of(const NamedImage& file) {
  const uint32_t first = number(file, kProgramHeaders, 4);
  const uint32_t entry_size = number(file, kEntrySize, 2);
  const uint32_t entries = number(file, kEntries, 2);
  if (file.bytes[kClass] != 1) {
    fatal("image '%s' is no 32-bit ELF file", file.name.c_str());
  }
  std::vector<Piece> pieces;
  for (uint32_t i = 0; i < entries; ++i) {
    const uint64_t at = uint64_t{first} + uint64_t{i} * entry_size;
    number(file, at + kProgramHeaderSize - 4, 4);
    const uint32_t offset = number(file, at + kOffset, 4);
    const uint32_t size = number(file, at + kSize, 4);
    if (number(file, at, 4) != kIsLoaded || size == 0) {
      continue;
    }
    if (uint64_t{offset} + size > file.bytes.size()) {
      fatal("image '%s' is damaged: a segment lies outside the file", file.name.c_str());
    }
    const uint64_t address = number(file, at + kLoadAddress, 4);
    pieces.push_back({address, address + size, offset});
  }
  std::stable_sort(pieces.begin(), pieces.end(), [](const Piece& first_one, const Piece& other) {
    return first_one.address < other.address;
  });
  if (!pieces.empty() && pieces.back().end > kAddressEnd) {
    fatal("image '%s' is damaged: a segment lies beyond the last address", file.name.c_str());
  }
  if (pieces.empty() || pieces.back().end - pieces.front().address > kMostBytes) {
    fatal("image '%s' loads nothing, or more than 256 MiB", file.name.c_str());
  }
  return pieces;
}

Bytes loaded(const NamedImage& file, const std::vector<Piece>& pieces, uint64_t start,
             uint32_t page_size) {
  Bytes image;
  for (const Piece& piece : pieces) {
    const uint64_t at = piece.address - start;
    if (at < image.size()) {
      fatal("image '%s' is damaged: a segment overlaps another", file.name.c_str());
    }
    // Zeros up to the next piece, unless a page lies between that no piece touches.
    const bool is_near = !image.empty() && at / page_size <= (image.size() - 1) / page_size + 1;
    image.resize(at, is_near ? 0 : 0xFF);
    const auto begin = file.bytes.begin() + piece.offset;
    image.insert(image.end(), begin, begin + static_cast<ptrdiff_t>(piece.end - piece.address));
  }
  return image;
}

}  // namespace

void load_linked(uint32_t page_size, NamedImage& old_image, NamedImage* new_image) {
  const bool is_old_linked = is_linked(old_image.bytes);
  if (new_image != nullptr && is_linked(new_image->bytes) != is_old_linked) {
    fatal("'%s' is an ELF file and '%s' is not",
          (is_old_linked ? old_image : *new_image).name.c_str(),
          (is_old_linked ? *new_image : old_image).name.c_str());
  }
  if (!is_old_linked) {
    return;
  }
  const std::vector<Piece> old_pieces = pieces_of(old_image);
  uint64_t start = old_pieces.front().address;
  std::vector<Piece> new_pieces;
  if (new_image != nullptr) {
    new_pieces = pieces_of(*new_image);
    start = std::min(start, new_pieces.front().address);
  }
  start -= start % page_size;
  if (new_image != nullptr &&
      std::max(old_pieces.back().end, new_pieces.back().end) - start > kMostBytes) {
    fatal("'%s' and '%s' lie more than 256 MiB apart", old_image.name.c_str(),
          new_image->name.c_str());
  }
  old_image.bytes = loaded(old_image, old_pieces, start, page_size);
  if (new_image != nullptr) {
    new_image->bytes = loaded(*new_image, new_pieces, start, page_size);
  }
}

}  // namespace kelpatch
