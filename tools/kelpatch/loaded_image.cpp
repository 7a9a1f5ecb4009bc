// SPDX-License-Identifier: Apache-2.0
#include "loaded_image.h"

#include <algorithm>
#include <cinttypes>
#include <optional>
#include <vector>

namespace kelpatch {
namespace {

constexpr uint32_t kClass = 4;
constexpr uint32_t kOrder = 5;

// Offsets in the file header and in a program header, and how long the latter is.
struct Records {
  uint32_t word;  // bytes of an address, an offset or a size
  uint32_t program_headers;
  uint32_t entry_size;
  uint32_t entries;
  uint32_t offset;
  uint32_t load_address;
  uint32_t size;
  uint32_t memory_size;
  uint32_t program_header_size;
};
constexpr Records kRecords32 = {4, 28, 42, 44, 4, 12, 16, 20, 32};
constexpr Records kRecords64 = {8, 32, 54, 56, 8, 24, 32, 40, 56};

constexpr uint32_t kIsLoaded = 1;  // type of a program header
constexpr uint64_t kMostBytes = uint64_t{256} << 20U;
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

bool is_linked(const Bytes& bytes) {
  constexpr uint8_t kStart[] = {0x7F, 'E', 'L', 'F'};
  return bytes.size() >= sizeof kStart &&
         std::equal(std::begin(kStart), std::end(kStart), bytes.begin());
}

void require_header(const NamedImage& file, uint64_t offset, uint64_t size) {
  if (offset > file.bytes.size() || size > file.bytes.size() - offset) {
    fatal("image '%s' is damaged: a header lies outside the file", file.name.c_str());
  }
}

// Of at most 8 bytes.
uint64_t number(const NamedImage& file, uint64_t offset, uint32_t size) {
  require_header(file, offset, size);
  const bool big_endian = file.bytes[kOrder] == 2;
  uint64_t value = 0;
  for (uint32_t i = 0; i < size; ++i) {
    value = value << 8U | file.bytes[offset + (big_endian ? i : size - 1 - i)];
  }
  return value;
}

const Records& records_of(const NamedImage& file) {
  const uint8_t file_class = file.bytes.size() > kClass ? file.bytes[kClass] : uint8_t{0};
  if (file_class != 1 && file_class != 2) {
    fatal("image '%s' is neither a 32-bit nor a 64-bit ELF file", file.name.c_str());
  }
  return file_class == 1 ? kRecords32 : kRecords64;
}

struct Piece {
  uint64_t address;
  uint64_t end;
  uint64_t offset;
};

// What the program header at that place loads; nothing if that is no byte.
std::optional<Piece> piece_at(const NamedImage& file, const Records& records, uint64_t at) {
  const uint64_t size = number(file, at + records.size, records.word);
  if (number(file, at, 4) != kIsLoaded || size == 0) {
    return std::nullopt;
  }
  const uint64_t offset = number(file, at + records.offset, records.word);
  if (offset > file.bytes.size() || size > file.bytes.size() - offset) {
    fatal("image '%s' is damaged: a segment lies outside the file", file.name.c_str());
  }
  if (size > number(file, at + records.memory_size, records.word)) {
    fatal("image '%s' is damaged: a segment has more bytes in the file than in memory",
          file.name.c_str());
  }
  // The size is small, so that the sum passes the end of all numbers only where it comes out below.
  const uint64_t address = number(file, at + records.load_address, records.word);
  const uint64_t end = address + size;
  if (end - 1 < address || (records.word == 4 && end > kAddressEnd)) {
    fatal("image '%s' is damaged: a segment lies beyond the last address", file.name.c_str());
  }
  if (end - 1 >= kAddressEnd) {
    fatal("image '%s' loads bytes up to 0x%" PRIx64 ", and addresses of an update have 32 bits",
          file.name.c_str(), end - 1);
  }
  return Piece{address, end, offset};
}

// By ascending addresses.
std::vector<Piece> pieces_of(const NamedImage& file) {
  const Records& records = records_of(file);
  const uint64_t first = number(file, records.program_headers, records.word);
  const uint64_t entry_size = number(file, records.entry_size, 2);
  const uint64_t entries = number(file, records.entries, 2);
  if (entries != 0 && entry_size < records.program_header_size) {
    fatal("image '%s' is damaged: its program headers are unsound", file.name.c_str());
  }
  require_header(file, first, entries * entry_size);
  std::vector<Piece> pieces;
  for (uint64_t i = 0; i < entries; ++i) {
    if (const std::optional<Piece> piece = piece_at(file, records, first + i * entry_size)) {
      pieces.push_back(*piece);
    }
  }
  std::stable_sort(pieces.begin(), pieces.end(), [](const Piece& first_one, const Piece& other) {
    return first_one.address < other.address;
  });
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
    const auto begin = file.bytes.begin() + static_cast<ptrdiff_t>(piece.offset);
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
