#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "increment_stream.h"

// A patch as a value: commands told outright, in; the bytes of a patch file, out. For whoever finds
// commands in a way of his own. Nothing here reads or writes the process-wide lists, settings and
// buffers of the engine, and nothing prints; calls from several places don't disturb each other.
//
//   patch_commands commands;
//   commands.blocks.push_back({0x100, 0x40, 8});                    // 0x100..0x13F move up by 8
//   commands.substitutions.push_back({0x100, 8, new_bytes + 0x100});
//   commands.increments.push_back({0x20, {0x200, 0x204, 0x300}});   // these words grow by 0x20
//   const std::vector<uint8_t> file = write_patch(std::move(commands), header, settings);
//
// An applier carries out the blocks first, one after another in place, each as memmove does; then
// the substitutions, the compressed ones, the single bytes, the fills, the increments. Blocks tell
// old addresses, all else tells new ones.
namespace kelvane {

// A stretch of the old image that moves. Blocks are carried out in the order of their vector, which
// may be any, and none is joined with another: what an earlier block overwrites is gone.
struct move_block {
  uint32_t source;  // old address
  uint32_t size;    // bytes, at least 1
  int32_t shift;    // the stretch goes to source + shift
};

// Bytes to be stored. They are borrowed, and have to stay until the patch is written.
struct byte_store {
  uint32_t address;  // new address
  uint32_t size;     // number of `bytes`, at least 1; of compressed ones that of the stream
  const uint8_t* bytes;
};

// One byte to be stored many times.
struct fill_store {
  uint32_t address;  // new address
  uint16_t size;     // at least 1
  uint8_t value;
};

// A stretch of target memory that a checksum covers.
struct checksum_region {
  uint32_t address;
  uint32_t size;
};

// Everything that a patch commands. The stores of a kind are written in the order of their vector;
// where it ascends by address, neighbours share relative lists. Stores that overlap, of one kind or
// of two, are carried out in the order told above. Counts have no limit: what a count of 16 bits
// can't tell becomes a repeated command.
struct patch_commands {
  std::vector<move_block> blocks;
  std::vector<byte_store> substitutions;
  std::vector<byte_store> compressed;    // bytes: a stream of lzss_encoder
  std::vector<byte_store> single_bytes;  // size 1
  std::vector<fill_store> fills;
  std::vector<increment_class> increments;  // in any order, any number
  // In memory mode: of the target's memory before and after patching; a checksum is written if it
  // has regions.
  std::vector<checksum_region> regions1;
  std::vector<checksum_region> regions2;
  uint32_t checksum1 = 0;
  uint32_t checksum2 = 0;
  // For bytes that stores point to and that have no other owner, such as compressed ones. Elements
  // don't move when others are added behind, nor with the whole.
  std::deque<std::vector<uint8_t>> owned_bytes;
};

// What stands in front of the commands.
struct patch_header {
  uint32_t old_checksum = 0;  // bd_checksum of the files whole, and their sizes
  uint32_t new_checksum = 0;
  uint32_t old_size = 0;
  uint32_t new_size = 0;
  uint32_t old_crt1 =
      0;  // address of __qvr_ind_crt1 in the images, which memory mode tells instead
  uint32_t new_crt1 = 0;
};

struct format_settings {
  int32_t version = 1;         // 0 or 1
  bool memory_mode = false;    // version 1 tells crt1 and the checksums instead of the files
  bool big_endian = false;     // byte order of the target
  bool relative_lists = true;  // close, short stores share a base address
};

// Gives the patch file whole, from its first byte on. A version other than 0 and 1 ends the run
// with status 1 and "unsupported patch version %d".
std::vector<uint8_t> write_patch(patch_commands&& commands, const patch_header& header,
                                 const format_settings& settings);

// ---- Prices in bytes, for a plan before it is written.

// What one thing more costs, its own data aside:
inline constexpr uint32_t kBlockCost = 12;
inline constexpr uint32_t kAbsoluteStoreCost = 8;       // a substitution, plain or compressed
inline constexpr uint32_t kAbsoluteSingleByteCost = 4;  // and its byte
inline constexpr uint32_t kRelativeStoreCost = 2;
inline constexpr uint32_t kRelativeSingleByteCost = 1;  // and its byte
inline constexpr uint32_t kRelativeListCost = 6;        // holds two stores at least
inline constexpr uint32_t kFillCost = 7;                // whole
inline constexpr uint32_t kRegionCost = 8;
// What the first of a kind costs beside, and each repetition of the command:
inline constexpr uint32_t kMoveCommandCost = 3;  // in each patch, even without blocks
inline constexpr uint32_t kStoreCommandCost = 5;
inline constexpr uint32_t kFillCommandCost = 3;
inline constexpr uint32_t kIncrementCommandCost = 5;
inline constexpr uint32_t kChecksumCommandCost = 9;
// Two neighbouring stores may stand in one relative list if both are smaller than this and the
// second begins less than this behind the first.
inline constexpr uint32_t kRelativeReach = 256;

// The exact price of all commands of a kind; 0 for none of them, except for the blocks.
size_t cost_of_blocks(size_t count);
size_t cost_of_stores(std::span<const byte_store> stores, const format_settings& settings);
size_t cost_of_single_bytes(std::span<const byte_store> stores, const format_settings& settings);
size_t cost_of_fills(size_t count);
size_t cost_of_increments(std::span<const increment_class> classes);

// The exact size of the file that write_patch would give, without making it.
size_t size_of_patch(const patch_commands& commands, const format_settings& settings);

}  // namespace kelvane
