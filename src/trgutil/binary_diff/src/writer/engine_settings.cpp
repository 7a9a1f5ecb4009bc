#include "engine_settings.h"

#include "writer_reset.h"

namespace kelvane {

namespace {

// What the settings are at program start.
struct Initial {
  int32_t version = 0;
  int32_t incr_enabled = 0;
  uint8_t relative_substitutions = 1;
  uint8_t substitution_splicing = 1;
  uint8_t use_fill_command = 1;
  uint8_t compressed_substitutions = 1;
  int32_t min_compression_percent = 10;
  int32_t min_compression_length = 50;
  uint8_t swap_enabled = 0;
  uint8_t swap_block_enabled = 0;
  int32_t min_swap_block_size = 12;
  int32_t swap_maxtrees = -1;
  int32_t TargetIsBigEndian = 0;
  int32_t swap_trees = 0;
};
constexpr Initial kInitial;

}  // namespace

int32_t version = kInitial.version;
int32_t incr_enabled = kInitial.incr_enabled;
uint8_t relative_substitutions = kInitial.relative_substitutions;
uint8_t substitution_splicing = kInitial.substitution_splicing;
uint8_t use_fill_command = kInitial.use_fill_command;
uint8_t compressed_substitutions = kInitial.compressed_substitutions;
int32_t min_compression_percent = kInitial.min_compression_percent;
int32_t min_compression_length = kInitial.min_compression_length;
uint8_t swap_enabled = kInitial.swap_enabled;
uint8_t swap_block_enabled = kInitial.swap_block_enabled;
int32_t min_swap_block_size = kInitial.min_swap_block_size;
int32_t swap_maxtrees = kInitial.swap_maxtrees;
int32_t TargetIsBigEndian = kInitial.TargetIsBigEndian;
int32_t swap_trees = kInitial.swap_trees;

void reset_engine_settings() {
  version = kInitial.version;
  incr_enabled = kInitial.incr_enabled;
  relative_substitutions = kInitial.relative_substitutions;
  substitution_splicing = kInitial.substitution_splicing;
  use_fill_command = kInitial.use_fill_command;
  compressed_substitutions = kInitial.compressed_substitutions;
  min_compression_percent = kInitial.min_compression_percent;
  min_compression_length = kInitial.min_compression_length;
  swap_enabled = kInitial.swap_enabled;
  swap_block_enabled = kInitial.swap_block_enabled;
  min_swap_block_size = kInitial.min_swap_block_size;
  swap_maxtrees = kInitial.swap_maxtrees;
  TargetIsBigEndian = kInitial.TargetIsBigEndian;
  swap_trees = kInitial.swap_trees;
}

}  // namespace kelvane
