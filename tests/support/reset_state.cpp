#include "reset_state.h"

#include "debug_print.h"
#include "indgadr_internal.h"
#include "indgen_memory_internal.h"
#include "indgen_message_internal.h"
#include "indgeninit_internal.h"
#include "indzip_internal.h"

namespace kelvane {

void reset_all_state() {
  reset_indgen_message();
  reset_indgeninit();
  reset_indgen_memory();
  reset_indzip();
  reset_indgadr();
  debug_level = 0;
}

}  // namespace kelvane
