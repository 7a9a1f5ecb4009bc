#pragma once

#include <cstdint>

#include "command_lists.h"

// CM_MOVE: the stretches of memory between the points of change, each with the distance by which it
// has to shift, in an order in which they can be moved in place.
namespace kelvane {

// Writes the body of CM_MOVE, behind its code byte, from `first_abs_move` and the list given (which
// is that of `first_move`), and releases the moves of both. Neighbours that touch and have one
// shift come out as one block. A list of more than 65535 blocks is written as several commands.
// `first_abs_move` is null then; `moves` belongs to this operation, and the caller has set
// `first_move` to null.
void output_block_moves(command_record* moves);

// Append the blocks of a list of moves to the list of blocks that `first`, `last` and `count` keep:
// those of `first_abs_move`, and those of `first_move`, a run of upward blocks with the highest
// address first. The moves stay the caller's, and the blocks become his.
void build_block_moves_abs(const command_record* moves, command_record** first,
                           command_record** last, int32_t* count);
void build_block_moves(const command_record* moves, command_record** first, command_record** last,
                       int32_t* count);

// Make one block from two neighbouring moves; the caller owns it. `shift` is the running shift.
command_record* generate_block_abs(const command_record* move, const command_record* next_move);
command_record* generate_block(const command_record* move, const command_record* next_move,
                               int32_t shift);

}  // namespace kelvane
