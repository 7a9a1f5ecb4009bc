#include "reset_state.h"

#include "color_reset.h"
#include "debug_print.h"
#include "driver_reset.h"
#include "objects_reset.h"
#include "options.h"
#include "patch_buffer.h"
#include "shared_reset.h"
#include "st_reset.h"

namespace kelvane {

void reset_all_state() {
  reset_run_sequence();
  reset_kelvane();
  reset_engine();
  reset_section_filter();
  reset_indobjio();
  reset_indmagic();
  reset_section_list();
  reset_image();
  reset_indelfio();
  exclude_file = nullptr;
  reset_color_format();
  reset_genrand();
  reset_indgen_quote();
  reset_indgen_process();
  reset_indgen_message();
  reset_indgeninit();
  reset_indgen_path();
  reset_indgen_tempname();
  reset_indview();
  reset_indconfig();
  reset_indgadr();
  debug_level = 0;
  // Last, so that a test that counts memory sees what the others release.
  reset_indgen_memory();
}

}  // namespace kelvane
