// SPDX-License-Identifier: Apache-2.0
#pragma once

// Two builds as ELF files (System V ABI, 32 or 64 bit), laid out as they lie in flash: the bytes of
// the loadable segments at their load addresses, in pages. Between segments in the same page or in
// neighbouring ones lie zeros, as objcopy -O binary fills them; all else that no segment covers is
// 0xFF, as in erased flash. What the headers say of machine, byte orders and addresses spares the
// encoder its guesses. An update has addresses of 32 bits, and so must be those of a 64-bit file
// where it loads bytes.

#include <cstdint>
#include <string>
#include <vector>

#include "dense_plan.h"
#include "patch_file.h"

namespace kelmake {

// Whether the file begins as an ELF file does.
bool is_elf(const kelpatch::Bytes& file);

// Bytes that a loader puts into flash.
struct ElfSegment {
  uint32_t load_address = 0;
  uint32_t virtual_address = 0;  // its low 32 bits
  uint32_t offset = 0;           // in the file
  uint32_t size = 0;             // at least 1
  bool is_code = false;
};

struct ElfFile {
  std::vector<ElfSegment> segments;  // at least one; by ascending load addresses, no two overlap
  bool is_wide = false;              // 64-bit
  uint16_t machine = 0;              // e_machine
  kelvane::ByteOrder code_order = kelvane::ByteOrder::kLittle;
  kelvane::ByteOrder data_order = kelvane::ByteOrder::kLittle;
  // Machines as kelvane_dense_machine has them: one, or two where nothing tells Thumb from ARM.
  std::vector<uint8_t> machines;
};

// Reads the headers, and the symbols that tell Thumb from ARM. Ends the run for a file without
// loadable bytes, for one that loads any beyond 32-bit addresses, and for one whose tables or
// segments are not there or overlap.
ElfFile read_elf(const std::string& name, const kelpatch::Bytes& file);

// Pages of flash, counted from the first one of the images.
struct FlashRange {
  uint32_t first = 0;
  uint32_t pages = 0;
};

// Two images that begin at the same page of flash.
struct FlashImages {
  kelpatch::Bytes old_image;
  kelpatch::Bytes new_image;
  uint64_t load_address = 0;                   // of their first page
  std::vector<FlashRange> ranges;              // pages that hold bytes of a segment; empty: all
  std::vector<kelvane::dense_target> targets;  // what they may be made for, with the base
};

// Lays both files out in pages of `page_size` bytes, a power of two. Ends the run if they are for
// different machines or of different classes, or too far apart for an update.
FlashImages lay_out(const std::string& old_name, const kelpatch::Bytes& old_file,
                    const std::string& new_name, const kelpatch::Bytes& new_file,
                    uint32_t page_size);

}  // namespace kelmake
