#include "run_sequence.h"

#include "color_format.h"
#include "diffout.h"
#include "diffshared.h"
#include "driver_reset.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "image.h"
#include "indgen_message.h"
#include "indgeninit.h"
#include "kelvane.h"
#include "load.h"
#include "options.h"
#include "symbol_list.h"

namespace kelvane {
namespace {

constexpr int32_t kViewpathSlow = 1;

// Both files stay to the end of the process, since commands point into the second.
struct State {
  file_data first;
  file_data second;
};
State state = {};

// Loads one input, or ends the run; the reason has been reported then.
void load_or_exit(file_data* record, const char* name) {
  if (load_file(record, name) != 1) {
    end_run(kStatusFailure);
  }
}

// Loads the first file and brings its symbols into name order, one for each address.
void load_first(file_data* record, const char* name) {
  load_or_exit(record, name);
  print_symbol_names(table.count);
  sort_symbols(symtab_addr);
  symtab_del_dup(table.records, table.count);
  sort_symbols(symtab_cmp);
  table.relevant = count_defined_with_size();
  print_symbol_names(table.relevant);
  table1 = table;
}

// Loads the second file, whose symbols keep their duplicates.
void load_second(file_data* record, const char* name) {
  load_or_exit(record, name);
  sort_symbols(symtab_cmp);
  table.relevant = count_with_size();
  table2 = table;
}

}  // namespace

int32_t run_sequence(int32_t argc, char* const* argv) {
  gen_init(argv[0], 0, kViewpathSlow);
  const command_line line = parse_options(argc, argv);
  if (line.color) {
    color_init(nullptr, 0);
  }
  check_command_line(line);
  limit_to_version();
  read_exclude_file();
  file_data& first = state.first;
  file_data& second = state.second;
  load_first(&first, line.file1);
  load_second(&second, line.file2);
  check_byte_orders(&first, &second);
  TargetIsBigEndian = first.big_endian;
  if (fDiffMemory != 0) {
    diff_mem(&first, &second, line.blocksize, line.max_scan, line.deconstruct);
  } else {
    diff(&first, &second, line.blocksize, line.max_scan);
  }
  dump_to_file(&first, &second, line.output);
  return kStatusSuccess;
}

void reset_run_sequence() {
  for (file_data* const record : {&state.first, &state.second}) {
    release_file(record);
  }
}

}  // namespace kelvane
