#pragma once

#include <cstdint>

// The settings that steer the engine and the patch writer. There is one instance of each in a run.
namespace kelvane {

// --- Settings that mirror an option. Written by the command line only. ---

// -version: format version of the patch file, 0 or 1; -ram makes it at least 1.
extern int32_t version;
// -inc: words that change by the same value become increments.
extern int32_t incr_enabled;
// -relative_substitutions: close, short commands share a base address.
extern uint8_t relative_substitutions;
// -substitution_splicing: a replaced stretch is cut at gaps of three or more equal bytes.
extern uint8_t substitution_splicing;
// -fill: runs of one byte become CM_FILL.
extern uint8_t use_fill_command;
// -compressed_substitutions: pieces that compress well become CM_SUB_COMP.
extern uint8_t compressed_substitutions;
// -min_compression_percent: saving in per cent that compression has to exceed.
extern int32_t min_compression_percent;
// -min_compression_length: least size in bytes of a piece that is tried for compression.
extern int32_t min_compression_length;
// -memmove: moved symbols are moved in place (memory mode only).
extern uint8_t swap_enabled;
// -memmove_block: moved blocks are moved in place (memory mode only).
extern uint8_t swap_block_enabled;
// -memmove_block_minsize: least size in bytes of a moved block.
extern int32_t min_swap_block_size;
// -memmove_maxtrees: how many trees of moves may be carried out; negative: no limit.
extern int32_t swap_maxtrees;

// --- Settings that a run computes. ---

// Byte order of the target: 1 big-endian, 0 little-endian. Written by run_sequence once both inputs
// are loaded, and by start_buf.
extern int32_t TargetIsBigEndian;
// Trees of moves that the run carried out, reported with the patch size. Stays 0 as long as there
// is no motion of symbols.
extern int32_t swap_trees;

}  // namespace kelvane
