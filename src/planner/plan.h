#pragma once

// A patch as a value: what the planner decides, before a byte of it is written.
//
// A plan turns the old image into the new one in three steps, in this order: blocks are moved (old
// addresses), bytes are stored (new addresses), words are incremented (new addresses). All
// addresses of this folder are offsets in a file or, for target memory, in the row that stands for
// it (linear_map.h).

#include <cstdint>
#include <span>
#include <vector>

#include "byte_order.h"

namespace kelvane {

struct memory_target;

// The two images. The bytes belong to the caller and stay where they are while a plan is made,
// priced and written. Neither has more than kLargestImage bytes.
struct plan_images {
  std::span<const uint8_t> old_image;
  std::span<const uint8_t> new_image;
  // Memory mode: what both stand for (memory_target.h); they are of one size then. Null for files.
  const memory_target* memory = nullptr;
};

inline constexpr uint32_t kLargestImage = 0x7FFFFFFF;

// Which appliers the patch is for.
enum class patch_profile : uint8_t {
  any,      // keeps to every habit of kelvane's own patches, 20 classes of increments included
  wide,     // the same, with any number of classes
  libapply  // uses whatever libapply takes
};

// What a patch may hold; see rules_for.
struct plan_rules {
  uint8_t format = 1;
  bool compression = true;    // CM_SUB_COMP and CM_FILL
  bool short_stores = false;  // stores of 0 and 1 bytes in lists of CM_SUBSTITUTE
  bool outer_holes = false;   // parks up to the end of the larger image, not of the smaller one
  uint32_t class_limit = 0xFFFFFFFF;
};

// The rules of a profile in patch format 0 or 1. Format 0 has no compression and no fills but for
// libapply, for a writer of that format makes none.
plan_rules rules_for(patch_profile profile, uint8_t format);

// `length` bytes go from `source` to `destination`, as memmove does it.
struct moved_block {
  uint32_t source = 0;
  uint32_t length = 0;
  uint32_t destination = 0;
};

enum class store_kind : uint8_t { plain, compressed, single };

// Bytes of the new image, `size` of them from `address` on. A compressed store has its bytes in
// plan::packed.
struct planned_store {
  uint32_t address = 0;
  uint32_t size = 0;
  uint32_t packed_begin = 0;
  uint32_t packed_size = 0;
  store_kind kind = store_kind::plain;
};

inline constexpr size_t kLeastFill = 40;  // of fewer bytes others are about as good
inline constexpr size_t kLargestFill = 65534;

// One byte, `size` times (3 to 65534).
struct planned_fill {
  uint32_t address = 0;
  uint32_t size = 0;
  uint8_t value = 0;
};

// Words that grow by `value`: `count` of plan::words from `begin` on, ascending.
struct planned_class {
  uint32_t value = 0;
  uint32_t begin = 0;
  uint32_t count = 0;
};

struct plan {
  ByteOrder order = ByteOrder::kLittle;  // of the words of the target and of the patch
  std::vector<moved_block> moves;        // in the order in which they are carried out
  std::vector<planned_store> stores;     // by address
  std::vector<planned_fill> fills;       // by address
  std::vector<planned_class> classes;    // by value
  std::vector<uint32_t> words;           // addresses divided by 4
  std::vector<uint8_t> packed;           // what compressed stores hold
};

// Memory as the moves leave it. What the new image doesn't have counts as equal to it.
struct moved_image {
  std::vector<uint8_t> bytes;  // as many as the new image has
  // Bytes that nothing has written and the old image didn't have; each differs from the new image.
  std::vector<uint8_t> unknown;  // 1 for such a byte, from unknown_begin on
  uint32_t unknown_begin = 0;

  bool is_known(uint32_t address) const {
    return address < unknown_begin || unknown[address - unknown_begin] == 0;
  }
};

// Carries out the moves on a copy of the old image.
moved_image carry_out_moves(const plan_images& images, std::span<const moved_block> moves);

}  // namespace kelvane
