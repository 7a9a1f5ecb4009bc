// Any bytes as the first file of a run, in either mode: they load, or the run ends with one message
// and status 1, never for want of memory. What is loaded can be sorted, counted and asked for its
// names.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "image.h"
#include "indelfio.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "load.h"
#include "memory_file.h"
#include "objects_reset.h"
#include "symbol_list.h"

namespace kelvane {
namespace {

struct EndOfRun {
  int32_t status;
};

int32_t reports = 0;

void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

void count_report(uint32_t code, const char* format, va_list arguments) {
  static_cast<void>(arguments);
  require(std::string_view(format).find("memory") == std::string_view::npos);
  reports += code % 100 < 4 ? 1 : 0;
}

void load(const char* name, int32_t memory_mode) {
  reset_section_list();
  reset_image();
  reset_indelfio();
  fDiffMemory = memory_mode;
  reports = 0;
  file_data record = {};
  try {
    require(load_file(&record, name) == 1 || reports == 1);
    sort_symbols(symtab_addr);
    symtab_del_dup(table.records, table.count);
    sort_symbols(symtab_cmp);
    require(count_defined_with_size() <= table.count);
  } catch (const EndOfRun& end) {
    require(end.status == 1 && reports == 1);
  }
  release_file(&record);
}

void ask(const char* name) {
  const file_ptr stream(std::fopen(name, "r"));
  uint32_t* offsets = nullptr;
  char* strings = nullptr;
  uint32_t size = 0;
  try {
    elflibrary(stream.get(), nullptr);
    const int32_t count = elf_read_symbol_names(stream.get(), &offsets, &strings, &size);
    for (int32_t i = 0; i < count; ++i) {
      require(offsets[i] < size);
    }
  } catch (const EndOfRun& end) {
    require(end.status == 1);
  }
  std::free(offsets);
  std::free(strings);
}

void try_all(const uint8_t* data, size_t size) {
  static const int file = ::memfd_create("input", MFD_CLOEXEC);
  static const std::string name = "/proc/self/fd/" + std::to_string(file);
  require(::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  gen_exit = [](int32_t status) { throw EndOfRun{status}; };
  gen_domessage = count_report;
  load(name.c_str(), 0);
  load(name.c_str(), 1);
  ask(name.c_str());
}

}  // namespace
}  // namespace kelvane

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kelvane::try_all(data, size);
  return 0;
}
