#include "block_moves.h"

#include <utility>
#include <vector>

#include "binshared.h"
#include "indgen_memory.h"
#include "patch_writer_internal.h"

namespace kelvane {

namespace {

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
void flush_pending(command_chain* pending, command_record** first, command_record** last) {
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

// Whether carrying out `a` first overwrites what `b` has still to read.
bool overwrites(const move_block& a, const move_block& b) {
  return overlap(a.source + static_cast<uint32_t>(a.shift), a.size, b.source, b.size);
}

// The blocks with neighbours joined that have one shift and touch. The first `absolute` of them
// were told outright: whoever tells two that touch means one, and so they are joined always, as
// those are that the running shift gave. But a block told outright and one of the others were found
// independently. Where they meet, moving both in one go is not what moving one and then the other
// does, if the first overwrites what the second has still to read; they stay two then.
std::vector<move_block> joined(const command_record* blocks, int32_t absolute) {
  std::vector<move_block> result;
  for (int32_t index = 0; blocks != nullptr; blocks = blocks->next, ++index) {
    const move_block b = {blocks->address, static_cast<uint32_t>(blocks->size), shift_of(blocks)};
    move_block* const a = result.empty() ? nullptr : &result.back();
    const bool guarded = index == absolute;
    if (a == nullptr || a->shift != b.shift || (guarded && overwrites(*a, b))) {
      result.push_back(b);
    } else if (a->source + a->size == b.source) {
      a->size += b.size;
    } else if (b.source + b.size == a->source) {
      a->source = b.source;
      a->size += b.size;
    } else {
      result.push_back(b);
    }
  }
  return result;
}

}  // namespace

void output_block_moves(command_record* moves) {
  commands_ptr others(moves);
  commands_ptr absolute = take_commands(&first_abs_move, &last_abs_move);
  std::vector<move_block> result;
  {
    command_chain blocks;
    int32_t count = 0;
    build_block_moves_abs(absolute.get(), &blocks.first, &blocks.last, &count);
    absolute.reset();
    const int32_t absolute_count = count;
    build_block_moves(others.get(), &blocks.first, &blocks.last, &count);
    others.reset();
    result = joined(blocks.first, absolute_count);
  }
  write_blocks(&engine_output(), result);
}

command_record* generate_block_abs(const command_record* move, const command_record* next_move) {
  return make_block(move->address, next_move->address - move->address,
                    static_cast<uint32_t>(move->size));
}

void build_block_moves_abs(const command_record* moves, command_record** first,
                           command_record** last, int32_t* count) {
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

void build_block_moves(const command_record* moves, command_record** first, command_record** last,
                       int32_t* count) {
  command_chain pending;
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
}

}  // namespace kelvane
