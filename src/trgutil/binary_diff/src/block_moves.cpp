#include "block_moves.h"

#include <algorithm>

#include "binshared.h"
#include "debug_print.h"
#include "diffout.h"
#include "indgen_memory.h"

namespace kelvane {

namespace {

// A list of blocks that belong to it.
struct BlockList {
  BlockList() = default;
  ~BlockList() { free_commands(first); }
  BlockList(const BlockList&) = delete;
  BlockList& operator=(const BlockList&) = delete;

  command_record* first = nullptr;
  command_record* last = nullptr;
};

int32_t shift_of(const command_record* block) {
  return static_cast<int32_t>(block->data.value);
}

command_record* make_block(uint32_t address, uint32_t size, uint32_t shift) {
  command_record* const block = gen_alloc_array<command_record>(1);
  block->address = address;
  block->size = static_cast<int32_t>(size);
  block->data.value = shift;
  return block;
}

// Hangs the whole pending list behind the output list and leaves it empty.
void flush_pending(BlockList* pending, command_record** first, command_record** last) {
  if (pending->first == nullptr) {
    return;
  }
  if (*first == nullptr) {
    *first = pending->first;
  } else {
    (*last)->next = pending->first;
  }
  *last = pending->last;
  pending->first = nullptr;
  pending->last = nullptr;
}

// Whether two ranges of addresses share a byte; ranges may wrap, and both have a size above 0.
bool overlap(uint32_t start1, uint32_t size1, uint32_t start2, uint32_t size2) {
  return start2 - start1 < size1 || start1 - start2 < size2;
}

// Whether moving both blocks in one go does what moving `a` and then `b` does: not if `a`
// overwrites what `b` has still to read, and the bytes that `b` then moves are those of `a`.
bool may_join(const command_record* a, const command_record* b) {
  return a->data.value == b->data.value &&
         !overlap(a->address + a->data.value, static_cast<uint32_t>(a->size), b->address,
                  static_cast<uint32_t>(b->size));
}

uint32_t end_of(const command_record* block) {
  return block->address + static_cast<uint32_t>(block->size);
}

void join_neighbours(command_record* first, command_record** last, int32_t* count) {
  command_record* a = first;
  while (a != nullptr && a->next != nullptr) {
    command_record* const b = a->next;
    const bool behind = end_of(a) == b->address;
    const bool in_front = end_of(b) == a->address;
    if (!(behind || in_front) || !may_join(a, b)) {
      a = b;
      continue;
    }
    if (!behind) {
      a->address = b->address;
    }
    a->size += b->size;
    a->next = b->next;
    if (*last == b) {
      *last = a;
    }
    gen_free(b);
    --*count;
  }
}

void output_block(const command_record* block) {
  const uint32_t shift = block->data.value;
  put_word(block->address);
  put_word(static_cast<uint32_t>(block->size));
  put_word(shift);
  dprintf(2, " memmove(%#x, %#x, %#x)", block->address + shift, block->address,
          static_cast<uint32_t>(block->size));
}

}  // namespace

void output_block_moves(command_record* moves) {
  commands_ptr unbuilt(moves);
  BlockList blocks;
  int32_t count = 0;
  build_block_moves_abs(first_abs_move, &blocks.first, &blocks.last, &count);
  first_abs_move = nullptr;
  last_abs_move = nullptr;
  build_block_moves(unbuilt.get(), &blocks.first, &blocks.last, &count);
  static_cast<void>(unbuilt.release());
  join_neighbours(blocks.first, &blocks.last, &count);
  warn_of_repetition("CM_MOVE", commands_for(count));
  int32_t left = count;
  do {
    if (left != count) {
      put_byte(CM_MOVE);
    }
    const int32_t here = std::min(left, kMaxCount);
    put_half(static_cast<uint32_t>(here));
    dprintf(2, "num_blocks=%i", here);
    for (int32_t i = 0; i < here; ++i) {
      command_record* const block = blocks.first;
      output_block(block);
      blocks.first = block->next;
      gen_free(block);
    }
    left -= here;
  } while (left > 0);
}

command_record* generate_block_abs(const command_record* move, const command_record* next_move) {
  return make_block(move->address, next_move->address - move->address,
                    static_cast<uint32_t>(move->size));
}

void build_block_moves_abs(command_record* moves, command_record** first, command_record** last,
                           int32_t* count) {
  for (const command_record* move = moves; move != nullptr && move->next != nullptr;
       move = move->next) {
    command_record* const block = generate_block_abs(move, move->next);
    if (block->data.value == 0 || block->size == 0) {
      gen_free(block);
    } else {
      append_block(block, first, last);
      ++*count;
    }
  }
  // Not before all blocks are there: as long as making one can end the run, the moves are the
  // caller's.
  free_commands(moves);
}

command_record* generate_block(const command_record* move, const command_record* next_move,
                               int32_t shift) {
  uint32_t size = next_move->address - move->address;
  if (next_move->size < 0) {
    size += static_cast<uint32_t>(next_move->size);  // what it removes is in front of its address
  }
  // Two end marks in a row: nothing is moved from here on.
  const bool back_to_zero = move->size == 0 && next_move->size == 0;
  const uint32_t sum = static_cast<uint32_t>(move->size) + static_cast<uint32_t>(shift);
  return make_block(move->address, size, back_to_zero ? 0U : sum);
}

void build_block_moves(command_record* moves, command_record** first, command_record** last,
                       int32_t* count) {
  BlockList pending;
  int32_t shift = 0;
  for (const command_record* move = moves; move != nullptr && move->next != nullptr;
       move = move->next) {
    command_record* const block = generate_block(move, move->next, shift);
    shift = shift_of(block);
    if (shift == 0 || block->size == 0) {
      gen_free(block);
    } else if (shift < 0) {
      flush_pending(&pending, first, last);
      append_block(block, first, last);
      ++*count;
    } else {
      prepend_block(block, &pending.first, &pending.last);
      ++*count;
    }
  }
  flush_pending(&pending, first, last);
  free_commands(moves);
}

}  // namespace kelvane
