#include "substitution.h"

#include <cstring>

#include "block_search.h"
#include "debug_print.h"
#include "diffshared.h"
#include "engine_settings.h"
#include "increments.h"
#include "indgen_memory.h"
#include "indzip.h"
#include "substitution_internal.h"

namespace kelvane {

uint8_t* compressed_buffer_start = nullptr;
uint8_t* compressed_buffer_end = nullptr;

namespace {

constexpr uint32_t kSplittingGap = 3;  // so many equal bytes end a run
constexpr uint32_t kLeastFill = 3;
constexpr uint32_t kFillLimit = 65535;  // CM_FILL carries its size in 16 bits
constexpr int32_t kBufferStep = 10000;

// In front of the bytes of a compressed piece, which a command keeps by reference. No command owns
// them; they stay to the end of the run. Not in a container: a signal may end the process while it
// grows, and its destructor would run then.
struct CompressedPiece {
  CompressedPiece* next;
};

struct State {
  int32_t compressed_buffer_size = 0;            // bytes allocated
  CompressedPiece* compressed_pieces = nullptr;  // all of the run
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
  auto* const piece =
      static_cast<CompressedPiece*>(gen_alloc(1, sizeof(CompressedPiece) + compressed_size));
  piece->next = state.compressed_pieces;
  state.compressed_pieces = piece;
  auto* const bytes = reinterpret_cast<uint8_t*>(piece + 1);
  std::memcpy(bytes, compressed_buffer_start, compressed_size);
  record->size = static_cast<int32_t>(compressed_size);
  record->data.bytes = bytes;
  return true;
}

// Cuts a stretch at gaps of equal bytes and files the pieces. One or two equal bytes cost less
// inside a piece than a second piece does.
void splice(const uint8_t* old_bytes, const uint8_t* new_bytes, uint32_t command_address,
            uint32_t length) {
  auto run_start = static_cast<uint32_t>(first_difference(old_bytes, new_bytes, length));
  while (run_start < length) {
    uint32_t run_end = run_start + 1;
    uint32_t next = run_end;  // the next byte that differs
    while (true) {
      next = run_end + static_cast<uint32_t>(first_difference(
                           old_bytes + run_end, new_bytes + run_end, length - run_end));
      if (next == length || next - run_end >= kSplittingGap) {
        break;
      }
      run_end = next + 1;
    }
    add_substitution(command_address + run_start, run_end - run_start, new_bytes + run_start);
    run_start = next;
  }
}

}  // namespace

void process_substitution(const uint8_t* old_bytes, const uint8_t* new_bytes,
                          uint32_t command_address, uint32_t length, uint32_t old_address,
                          uint32_t new_address) {
  if (incr_enabled != 0 && process_increments(old_bytes, new_bytes, command_address, length,
                                              old_address, new_address, 0) != 0) {
    const auto covered = static_cast<uint32_t>(process_increments(
        old_bytes, new_bytes, command_address, length, old_address, new_address, 1));
    if (covered >= length) {
      return;
    }
    old_bytes += covered;
    new_bytes += covered;
    command_address += covered;
    length -= covered;
  }
  if (substitution_splicing == 0) {
    add_substitution(command_address, length, new_bytes);
    return;
  }
  splice(old_bytes, new_bytes, command_address, length);
}

void add_substitution(uint32_t address, uint32_t size, const uint8_t* bytes) {
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
  while (state.compressed_pieces != nullptr) {
    CompressedPiece* const next = state.compressed_pieces->next;
    gen_free(state.compressed_pieces);
    state.compressed_pieces = next;
  }
  state = State{};
}

}  // namespace kelvane
