#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "binshared.h"
#include "patch_writer.h"

// The pieces of a patch, each written to a sink, for a patch told as a value and for the engine's
// lists alike.
namespace kelvane {

inline constexpr uint32_t kPatchFileType = 7;  // of structured files
inline constexpr int32_t kPatchAddressMode = 2;

// Ends the run unless a format has this number.
void require_known_version(int32_t patch_version);

// Stores of one kind as they stand in a command: an absolute list, and any number of relative ones,
// which lie in the input.
struct divided_stores {
  std::vector<byte_store> absolute;
  std::vector<std::span<const byte_store>> relative;
};
divided_stores divide_stores(std::span<const byte_store> stores, bool relative_lists, bool trace);

// Write one command each, repeated where its count ends: the body of CM_MOVE, behind its code; the
// command `code` with the flag CL_NO_SIZE or none; CM_FILL; CM_CHECKSUM. No command without items,
// except for the blocks.
void write_blocks(output_buffer* out, std::span<const move_block> blocks);
void write_stores(output_buffer* out, uint8_t code, std::span<const byte_store> stores,
                  uint32_t flags, bool relative_lists);
void write_fills(output_buffer* out, std::span<const fill_store> fills);
void write_checksum(output_buffer* out, std::span<const checksum_region> regions,
                    uint32_t checksum);

// Writes one list of at most kMaxCount stores; `flags` may hold CL_RELATIVE.
void write_list(output_buffer* out, std::span<const byte_store> stores, uint32_t flags);

// The four words that describe both files whole.
void write_files(output_buffer* out, const patch_header& header);

// The frame of version 1. `begin_frame` writes what stands in front of the part that the checksum
// of the patch covers, with room for that checksum and the size; `end_frame` steps back and fills
// the room, and the position stays there.
struct patch_frame {
  uint32_t start;          // of the version word
  uint32_t size_position;  // of the room
  uint32_t body;           // behind it
};
patch_frame begin_frame(output_buffer* out, const patch_header& header, bool memory_mode);
void end_frame(output_buffer* out, const patch_frame& frame, uint32_t patch_size,
               uint32_t patch_checksum);

}  // namespace kelvane
