#include "engine_reset.h"
#include "patch_buffer.h"
#include "writer_reset.h"

namespace kelvane {

void reset_engine() {
  reset_motion();
  reset_increment_coder();
  reset_substitution();
  reset_command_lists();
  reset_binshared();
  reset_indzip();
  reset_engine_settings();
}

}  // namespace kelvane
