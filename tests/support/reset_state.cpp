#include "reset_state.h"

#include "color_format_internal.h"
#include "debug_print.h"
#include "genrand_internal.h"
#include "image_internal.h"
#include "indconfig_internal.h"
#include "indelfio_internal.h"
#include "indgadr_internal.h"
#include "indgen_memory_internal.h"
#include "indgen_message_internal.h"
#include "indgen_path_internal.h"
#include "indgen_process_internal.h"
#include "indgen_quote_internal.h"
#include "indgen_tempname_internal.h"
#include "indgeninit_internal.h"
#include "indmagic_internal.h"
#include "indobjio_internal.h"
#include "indview_internal.h"
#include "kelvane_internal.h"
#include "options.h"
#include "patch_buffer.h"
#include "run_sequence_internal.h"
#include "section_filter_internal.h"
#include "section_list_internal.h"

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
