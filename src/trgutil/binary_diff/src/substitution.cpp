#include "substitution.h"

#include <cassert>
#include <cstring>
#include <utility>

#include "block_search.h"
#include "command_lists.h"
#include "debug_print.h"
#include "engine_reset.h"
#include "engine_settings.h"
#include "increments.h"
#include "indgen_memory.h"
#include "indzip.h"

namespace kelvane {

uint8_t* compressed_buffer_start = nullptr;
uint8_t* compressed_buffer_end = nullptr;

namespace {

// So many equal bytes end a run. One or two of them cost less inside a piece than a second piece
// does, whose distance and size take two bytes in the best case.
constexpr uint32_t kSplittingGap = 3;
// Two equal bytes are shorter as a substitution in a relative list (4 bytes) than as a fill (7).
constexpr uint32_t kLeastFill = 3;
constexpr uint32_t kFillLimit = 65535;  // CM_FILL carries its size in 16 bits
constexpr int32_t kBufferStep = 10000;  // some pieces of a typical size; the buffer is used again

struct State {
  int32_t compressed_buffer_size = 0;  // bytes allocated
};
State state;

bool all_equal(const uint8_t* bytes, uint32_t size) {
  return first_difference(bytes, bytes + 1, size - 1) == size - 1;
}

bool is_fill(uint32_t size, const uint8_t* bytes) {
  return use_fill_command != 0 && size >= kLeastFill && size < kFillLimit && all_equal(bytes, size);
}

// Compresses a piece on its own and tells whether that saves enough. If it does, the record takes
// a copy of the compressed bytes.
bool compress(command_record* record) {
  const uint32_t size = static_cast<uint32_t>(record->size);
  compressed_buffer_end = compressed_buffer_start;
  Encode(record->data.bytes, size, add_compressed_char);
  const auto compressed_size =
      static_cast<uint32_t>(compressed_buffer_end - compressed_buffer_start);
  // A signed 32-bit product, which wraps for pieces beyond some 21 MB.
  const auto hundredfold = static_cast<int32_t>(compressed_size * 100U);
  const int32_t saving = 100 - hundredfold / record->size;
  if (saving <= min_compression_percent) {
    return false;
  }
  gen_ptr<uint8_t> bytes(gen_alloc_array<uint8_t>(compressed_size));
  std::memcpy(bytes.get(), compressed_buffer_start, compressed_size);
  record->size = static_cast<int32_t>(compressed_size);
  record->data.bytes = keep_bytes(std::move(bytes));
  return true;
}

// Cuts a stretch at gaps of equal bytes and files the pieces.
void splice(const changed_stretch& stretch) {
  const auto next_difference = [&stretch](uint32_t from) {
    return from + static_cast<uint32_t>(first_difference(
                      stretch.old_bytes + from, stretch.new_bytes + from, stretch.length - from));
  };
  uint32_t run_start = next_difference(0);
  while (run_start < stretch.length) {
    uint32_t run_end = run_start + 1;
    uint32_t next = next_difference(run_end);
    while (next != stretch.length && next - run_end < kSplittingGap) {
      run_end = next + 1;
      next = next_difference(run_end);
    }
    add_substitution(stretch.command_address + run_start, run_end - run_start,
                     stretch.new_bytes + run_start);
    run_start = next;
  }
}

}  // namespace

void process_substitution(const changed_stretch& stretch) {
  changed_stretch rest = stretch;
  if (incr_enabled != 0 && process_increments(stretch, 0) != 0) {
    const auto covered = static_cast<uint32_t>(process_increments(stretch, 1));
    if (covered >= stretch.length) {
      return;
    }
    rest.advance(covered);
  }
  if (substitution_splicing == 0) {
    add_substitution(rest.command_address, rest.length, rest.new_bytes);
    return;
  }
  splice(rest);
}

void process_substitution(const uint8_t* old_bytes, const uint8_t* new_bytes,
                          uint32_t command_address, uint32_t length, uint32_t old_address,
                          uint32_t new_address) {
  process_substitution({old_bytes, new_bytes, command_address, length, old_address, new_address});
}

void add_substitution(uint32_t address, uint32_t size, const uint8_t* bytes) {
  assert(size > 0);
  gen_ptr<command_record> record(gen_alloc_array<command_record>(1));
  record->address = address;
  record->size = static_cast<int32_t>(size);
  record->data.bytes = bytes;
  if (size == 1) {
    dprintf(2, " CMD: sub 0x%.2x into %p", *bytes, address_for_print(address));
    append_command(record.release(), &first_sub_one, &last_sub_one);
    ++num_sub_ones;
  } else if (is_fill(size, bytes)) {
    dprintf(2, " CMD: fill 0x%08x - 0x%08x with 0x%.2x", address, address + size - 1, *bytes);
    append_command(record.release(), &first_fill, &last_fill);
  } else if (compressed_substitutions != 0 && record->size >= min_compression_length &&
             compress(record.get())) {
    dprintf(2, " CMD: sub %d/%d at %p", record->size, static_cast<int32_t>(size),
            address_for_print(address));
    append_command(record.release(), &first_sub_comp, &last_sub_comp);
  } else {
    dprintf(2, " CMD: sub %i at %p", record->size, address_for_print(address));
    append_command(record.release(), &first_sub, &last_sub);
    ++num_subs;
  }
}

void add_compressed_char(int32_t c) {
  const int64_t used = compressed_buffer_end - compressed_buffer_start;
  if (used == state.compressed_buffer_size) {
    state.compressed_buffer_size += kBufferStep;
    compressed_buffer_start =
        static_cast<uint8_t*>(gen_realloc(compressed_buffer_start, state.compressed_buffer_size));
    compressed_buffer_end = compressed_buffer_start + used;
  }
  *compressed_buffer_end++ = static_cast<uint8_t>(static_cast<uint32_t>(c) & 0xFFU);
}

void reset_substitution() {
  gen_free(compressed_buffer_start);
  compressed_buffer_start = nullptr;
  compressed_buffer_end = nullptr;
  state = State{};
}

}  // namespace kelvane
