#include "engine_settings.h"

#include "engine_settings_internal.h"

namespace kelvane {

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

void reset_engine_settings() {
  version = 0;
  incr_enabled = 0;
  relative_substitutions = 1;
  substitution_splicing = 1;
  use_fill_command = 1;
  compressed_substitutions = 1;
  min_compression_percent = 10;
  min_compression_length = 50;
  swap_enabled = 0;
  swap_block_enabled = 0;
  min_swap_block_size = 12;
  swap_maxtrees = -1;
  TargetIsBigEndian = 0;
  swap_trees = 0;
}

}  // namespace kelvane
