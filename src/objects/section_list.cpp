#include "section_list.h"

#include <cassert>
#include <cstring>
#include <utility>
#include <vector>

#include "elf32.h"
#include "indelfio.h"
#include "indelfio_internal.h"
#include "indgen_file.h"
#include "section_filter.h"
#include "section_list_internal.h"

namespace kelvane {

sym_addr* sym_addr_list = nullptr;
sym_addr* sym_addrp = nullptr;
file_data* current_data = nullptr;
uint32_t object_start = 0;

namespace {

constexpr char kCrt1Name[] = "__qvr_ind_crt1";
constexpr int32_t kMachineArm = 68;  // its number in the names of machines
constexpr uint8_t kThumb = 1;        // in st_other

struct State {
  std::vector<ElfSymbols> loaded;  // which `table` and its copies point to
  const sym_addr* list = nullptr;  // of the load that the last of them belong to
};
State state;

// Whether the symbols read last are those of an earlier object of the same file.
bool are_superseded() {
  if (state.loaded.empty() || sym_addr_list == nullptr || state.list != sym_addr_list) {
    return false;
  }
  const elf32::symbol* const records = state.loaded.back().records.get();
  return records != table1.records && records != table2.records;
}

// Makes the symbols those of `table`. Those of an earlier object of the same file are released, so
// that a library never holds more than the symbols of one of its objects.
void keep(ElfSymbols symbols) {
  if (symbols.count == 0) {
    return;
  }
  if (are_superseded()) {
    state.loaded.pop_back();
  }
  state.loaded.push_back(std::move(symbols));
  state.list = sym_addr_list;
  const ElfSymbols& kept = state.loaded.back();
  table.count = static_cast<int32_t>(kept.count);
  table.records = kept.records.get();
  table.strings = kept.strings.bytes.get();
  table.strings_size = kept.strings.size;
}

bool takes_part(const elf32::section_header& header) {
  return header.sh_type != elf32::SHT_NULL &&
         (fDiffMemory != 0 || header.sh_type != elf32::SHT_NOBITS);
}

bool is_crt1(const elf32::symbol& symbol) {
  return elf32::symbol_type(symbol) == elf32::STT_FUNC && symbol.st_shndx != elf32::SHN_UNDEF &&
         std::strcmp(symbol_name(table, symbol), kCrt1Name) == 0;
}

// `quiet` as for elf_read_sections: a reading that failed may have left the stream where the class
// of the object can't be seen any more.
void collect_sections(std::FILE* stream, const char* file_name, bool quiet) {
  const long position = std::ftell(stream);
  const ElfSections sections = elf_read_sections(stream, quiet);
  if (sections.count == 0) {
    return;
  }
  object_start = static_cast<uint32_t>(position);
  for (uint32_t i = 0; i < sections.count; ++i) {
    const elf32::section_header& header = sections.headers[i];
    if (takes_part(header)) {
      add_symbol(sections.names.at(header.sh_name), header.sh_addr, header.sh_offset,
                 header.sh_size, header.sh_type, header.sh_flags, file_name);
    }
  }
  gen_safe_fseek(file_name, stream, position, SEEK_SET);
}

void collect_symbols(std::FILE* stream, const object_info& object, bool quiet) {
  table.records = nullptr;
  table.count = 0;
  keep(elf_read_symbols(stream, quiet));
  for (int32_t i = 0; i < table.count; ++i) {
    const elf32::symbol& symbol = table.records[i];
    if (is_crt1(symbol)) {
      assert(current_data != nullptr);
      current_data->crt1 = symbol.st_value;
      if (object.magic != nullptr && object.magic->machine == kMachineArm) {
        current_data->crt1 |= symbol.st_other & kThumb;
      }
      return;
    }
  }
}

}  // namespace

int32_t do_ELF_file(std::FILE* stream, [[maybe_unused]] std::FILE* second_stream,
                    object_info* object) {
  const bool quiet = is_64bit_object(stream);
  collect_sections(stream, object->display_name, quiet);
  collect_symbols(stream, *object, quiet);
  return 0;
}

void read_ELF_headers(std::FILE* stream, const char* file_name) {
  collect_sections(stream, file_name, is_64bit_object(stream));
}

void find_crt1_symbol(std::FILE* stream, object_info* object) {
  collect_symbols(stream, *object, is_64bit_object(stream));
}

void reset_section_list() {
  sym_addr_list = nullptr;
  sym_addrp = nullptr;
  current_data = nullptr;
  object_start = 0;
  state = {};
}

}  // namespace kelvane
