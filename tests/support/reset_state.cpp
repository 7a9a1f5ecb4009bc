#include "reset_state.h"

#include "binshared_internal.h"
#include "color_format_internal.h"
#include "debug_print.h"
#include "diffshared_internal.h"
#include "engine_settings_internal.h"
#include "genrand_internal.h"
#include "increment_coder_internal.h"
#include "increments_internal.h"
#include "indconfig_internal.h"
#include "indgadr_internal.h"
#include "indgen_memory_internal.h"
#include "indgen_message_internal.h"
#include "indgen_path_internal.h"
#include "indgen_process_internal.h"
#include "indgen_quote_internal.h"
#include "indgen_tempname_internal.h"
#include "indgeninit_internal.h"
#include "indview_internal.h"
#include "indzip_internal.h"
#include "objects_reset.h"
#include "options.h"
#include "run_sequence_internal.h"
#include "substitution_internal.h"

namespace kelvane {

void reset_all_state() {
  reset_run_sequence();
  reset_increment_coder();
  reset_increments();
  reset_substitution();
  reset_diffshared();
  reset_binshared();
  reset_indzip();
  reset_engine_settings();
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
