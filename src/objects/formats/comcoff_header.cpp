// The COFF file header, and the byte order of a file found from it: by its magic, and where that is
// unknown, by which order makes the other fields likely.
#include <algorithm>
#include <array>

#include "comcoff.h"
#include "comcoff_internal.h"
#include "exit_status.h"
#include "indgen_message.h"

namespace kelvane {

namespace {

// Magic numbers as a big-endian host reads them, by the order of the files that have them.
constexpr std::array<uint16_t, 16> kBigMagics = {0x0088, 0x0089, 0x0103, 0x0150, 0x0151, 0x0152,
                                                 0x0160, 0x0165, 0x016D, 0x01C0, 0x01C2, 0x0260,
                                                 0x02DF, 0x0500, 0x1133, 0x71C2};
constexpr std::array<uint16_t, 18> kLittleMagics = {0x0701, 0x4401, 0x4501, 0x4601, 0x4701, 0x4A01,
                                                    0x4C01, 0x4D01, 0x6001, 0x6101, 0x6201, 0x6601,
                                                    0x8301, 0x8501, 0xC270, 0xC370, 0xC371, 0xC470};
// Known to one of the two operations alone.
constexpr std::array<uint16_t, 4> kMoreBigMagicsOfHeader = {0x01C3, 0x01C4, 0xC301, 0xC401};
constexpr std::array<uint16_t, 1> kMoreLittleMagicsOfFix = {0x000A};

constexpr uint16_t kMagicI960 = 0x0160;
constexpr uint16_t kMagicI960Swapped = 0x6001;
constexpr uint16_t kMagicBcs = 0x016D;

template <size_t size>
bool has(const std::array<uint16_t, size>& magics, uint16_t magic) {
  return std::ranges::find(magics, magic) != magics.end();
}

bool is_big_header_magic(uint16_t magic) {
  return has(kBigMagics, magic) || has(kMoreBigMagicsOfHeader, magic);
}

// Numbers with their bytes in the other order.
uint16_t reversed(uint16_t value) {
  uint8_t bytes[2];
  store_half(bytes, value, ByteOrder::kBig);
  return load_half(bytes, ByteOrder::kLittle);
}

uint32_t reversed(uint32_t value) {
  uint8_t bytes[4];
  store_word(bytes, value, ByteOrder::kBig);
  return load_word(bytes, ByteOrder::kLittle);
}

struct FileHeader {
  uint16_t magic;
  uint16_t sections;
  uint32_t time;
  uint32_t symbol_pointer;
  uint32_t symbol_count;
  uint16_t optional_size;
  uint16_t flags;
};

constexpr bool is_text(uint8_t byte) {
  return (byte >= 0x20 && byte <= 0x7E) || byte == '\n';
}

// Lets the magic of a file of unknown order decide, and tells whether it could.
bool decide_by_magic(uint16_t* magic) {
  if (is_big_header_magic(*magic)) {
    bigendian = 1;
    if (*magic == kMagicI960) {
      coff960 = 1;
      bcscompat = 0;
    } else if (*magic == kMagicBcs && bcscompat == -1) {
      bcscompat = 1;
    }
    return true;
  }
  if (has(kLittleMagics, *magic)) {
    bigendian = 0;
    if (*magic == kMagicI960Swapped) {
      coff960 = 1;
    }
    *magic = reversed(*magic);
    return true;
  }
  uint8_t bytes[2];
  store_half(bytes, *magic, ByteOrder::kBig);
  if (is_text(bytes[0]) && is_text(bytes[1])) {
    gen_errorexit(kStatusFailure, "File appears to be ASCII");
  }
  return false;
}

// Whether a magic, read in the order that was told, is one of files of that order.
bool is_known_magic(uint16_t magic) {
  return bigendian != 0 ? is_big_header_magic(magic) : has(kLittleMagics, reversed(magic));
}

bool has_zero_byte(uint16_t value) {
  return (value & 0xFFU) == 0 || (value & 0xFF00U) == 0;
}

bool has_zero_high_byte(uint16_t value) {
  return (value & 0xFF00U) == 0;
}

// The number of bytes of the whole file, or -1. The stream stands where it stood.
int64_t file_size(std::FILE* stream) {
  const long position = std::ftell(stream);
  const int64_t rest = stream_rest(stream);
  return position < 0 || rest < 0 ? -1 : position + rest;
}

// Guesses the order of a file from its fields, read as big-endian. Sizes and counts are small, so
// the byte that is zero is the high one.
ByteOrder guess_order(std::FILE* stream, const FileHeader& header) {
  if (header.optional_size != 0 && has_zero_byte(header.optional_size)) {
    return byte_order_of(has_zero_high_byte(header.optional_size));
  }
  if (has_zero_byte(header.sections)) {
    return byte_order_of(has_zero_high_byte(header.sections));
  }
  const int64_t size = file_size(stream);
  if (header.symbol_pointer != 0 && size >= 0) {
    return byte_order_of(header.symbol_pointer <= size);
  }
  // The bits that tell the order of the machine for which the file was made.
  constexpr uint16_t kOrderBits = 0x380;
  constexpr uint16_t kBigBits = 0x200;
  constexpr uint16_t kLittleBits = 0x100;
  const bool says_big = (header.flags & kOrderBits) == kBigBits;
  const bool says_little = (reversed(header.flags) & kOrderBits) == kLittleBits;
  return byte_order_of(says_big && !says_little);
}

void reverse_fields(FileHeader* header) {
  header->sections = reversed(header->sections);
  header->time = reversed(header->time);
  header->symbol_pointer = reversed(header->symbol_pointer);
  header->symbol_count = reversed(header->symbol_count);
  header->optional_size = reversed(header->optional_size);
  header->flags = reversed(header->flags);
}

template <typename Number>
void give(Number* place, Number value) {
  if (place != nullptr) {
    *place = value;
  }
}

}  // namespace

int32_t fixCOFFmagic(uint16_t* magic, int32_t* big_endian) {
  if (bcscompat == -1) {
    bcscompat = *magic == kMagicBcs ? 1 : 0;
  }
  if (has(kLittleMagics, *magic) || has(kMoreLittleMagicsOfFix, *magic)) {
    *magic = reversed(*magic);
    *big_endian = 0;
    return 1;
  }
  const bool big = has(kBigMagics, *magic);
  *big_endian = big ? 1 : -1;
  return big ? 1 : 0;
}

int32_t get_endian_header(std::FILE* stream, int32_t warn, uint16_t* magic, uint16_t* sections,
                          uint32_t* time, uint32_t* symbol_pointer, uint32_t* symbol_count,
                          uint16_t* optional_size, uint16_t* flags) {
  FileHeader header = {};
  GETSHORT(&header.magic, stream);
  const bool known =
      bigendian == -1 ? decide_by_magic(&header.magic) : is_known_magic(header.magic);
  if (bcscompat == -1) {
    bcscompat = 0;
  }

  FileRecord rest(stream, 14 + long_size());
  header.sections = rest.in.u16();
  header.time = rest.in.u32();
  header.symbol_pointer = long_from(rest.in);
  header.symbol_count = rest.in.u32();
  header.optional_size = rest.in.u16();
  header.flags = rest.in.u16();

  if (bigendian == -1) {
    const bool big = guess_order(stream, header) == ByteOrder::kBig;
    bigendian = big ? 1 : 0;
    if (warn != 0) {
      gen_warning("unknown magic number, guessing %s endian byte order.", big ? "big" : "little");
    }
    if (!big) {
      reverse_fields(&header);
    }
  }

  give(magic, header.magic);
  give(sections, header.sections);
  give(time, header.time);
  give(symbol_pointer, header.symbol_pointer);
  give(symbol_count, header.symbol_count);
  give(optional_size, header.optional_size);
  give(flags, header.flags);
  if (warn != 0 && flags != nullptr && (header.flags & 1U) == 0) {
    gen_warning("object file is relocatable");
  }
  symsize = bcscompat != 0 ? 20 : 18;
  return known ? 0 : 1;
}

void write_header(std::FILE* stream, uint16_t magic, uint16_t sections, uint32_t time,
                  uint32_t symbol_pointer, uint32_t symbol_count, uint16_t optional_size,
                  uint16_t flags) {
  ByteWriter out(coff_order());
  out.u16(magic);
  out.u16(sections);
  out.u32(time);
  out.u32(symbol_pointer);
  out.u32(symbol_count);
  out.u16(optional_size);
  out.u16(flags);
  put_record(out, stream);
}

}  // namespace kelvane
