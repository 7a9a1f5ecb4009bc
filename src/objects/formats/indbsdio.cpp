// a.out files: what the header says and what follows from it, and the parts read and written.
#include "indbsdio.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <span>

#include "byte_order.h"
#include "byte_reader.h"
#include "exit_status.h"
#include "indbsdio_internal.h"
#include "indelfio.h"
#include "indelfio_internal.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_string.h"
#include "indmagic.h"

namespace kelvane {

namespace {

constexpr uint32_t kSmallPage = 8192;
constexpr uint32_t kLargePage = 0x20000;
// Machines of the two styles that aren't `other`: the low byte of the field, and its highest bit.
constexpr uint32_t kPagedMachine = 3;
constexpr uint32_t kPagedMark = 0x8000;
constexpr uint32_t kSmallMachines[] = {0, 0x64};
// Where a paged file without an address for its header is loaded.
constexpr uint32_t kUsualTextStart = 8192;

[[noreturn]] void bad_magic() {
  gen_errorexit(kStatusFailure, "[Bsd_Init] bad magic");
}

uint32_t rounded_down(uint32_t value, uint32_t page) {
  return value & ~(page - 1);
}

uint32_t rounded_up(uint32_t value, uint32_t page) {
  return rounded_down(value + page - 1, page);
}

void seek_to(std::FILE* stream, int64_t offset) {
  if (offset != -1) {
    gen_safe_fseek(nullptr, stream, static_cast<long>(offset), SEEK_SET);
  }
}

void set_style(bsd_info* info) {
  const uint32_t machine = info->machine & 0xFFU;
  const bool marked = (info->machine & kPagedMark) != 0;
  const bool paged = machine == kPagedMachine && marked && info->magic == aout::ZMAGIC;
  const bool small = std::ranges::find(kSmallMachines, machine) != std::end(kSmallMachines) &&
                     info->magic == aout::OMAGIC;
  info->style_paged = paged ? 1 : 0;
  info->style_small = small ? 1 : 0;
  info->style_other = paged || small ? 0 : 1;
  info->page_size = info->style_other != 0 ? kLargePage : kSmallPage;
}

// Reads the header's words into a fresh record. Those that the file lacks are all ones.
bsd_info header_from(std::FILE* stream) {
  bsd_info info = {};
  const uint32_t first = read4(stream);
  info.machine = static_cast<uint16_t>(first / 0x10000U);
  info.magic = static_cast<uint16_t>(first % 0x10000U);
  for (uint32_t* const word :
       {&info.text_size, &info.data_size, &info.bss_size, &info.symbol_table_size, &info.entry,
        &info.text_reloc_size, &info.data_reloc_size}) {
    *word = read4(stream);
  }
  return info;
}

uint8_t* read_part(std::FILE* stream, const bsd_info* info, uint32_t part, uint32_t size,
                   uint8_t** bytes) {
  std::free(*bytes);
  *bytes = nullptr;
  seek_to(stream, info->file_offsets[part]);
  *bytes = static_cast<uint8_t*>(read_bytes(stream, nullptr, size));
  return *bytes;
}

// Addresses that follow from the header alone.
void set_starts(bsd_info* info) {
  uint32_t& text = info->load_addresses[bsd_address::kTextStart];
  uint32_t& data = info->load_addresses[bsd_address::kDataStart];
  if (info->style_paged != 0) {
    const bool header_is_low = info->magic == aout::ZMAGIC && info->entry < kUsualTextStart;
    text = header_is_low ? 0 : kUsualTextStart;
    data = info->magic == aout::OMAGIC
               ? text + info->text_size
               : rounded_down(info->text_size + text - 1, kSmallPage) + kSmallPage;
  } else if (info->style_other != 0 && info->entry == kUsualTextStart) {
    text = kUsualTextStart;
    data = rounded_up(info->text_size, info->page_size);
  } else {
    text = rounded_down(info->entry, info->page_size);
    data = info->magic == aout::OMAGIC ? text + info->text_size
                                       : rounded_up(info->text_size, info->page_size) + text;
  }
}

void set_text_end(bsd_info* info) {
  info->load_addresses[bsd_address::kTextEnd] =
      info->load_addresses[bsd_address::kTextStart] + info->text_size;
}

void set_bss_start(bsd_info* info) {
  info->load_addresses[bsd_address::kBssStart] =
      info->load_addresses[bsd_address::kDataStart] + info->data_size;
}

void set_bss_end(bsd_info* info) {
  info->load_addresses[bsd_address::kBssEnd] =
      info->load_addresses[bsd_address::kBssStart] + info->bss_size;
}

// Puts the lowest value of the symbols of a segment in place of the segment's start, and tells
// whether there is one.
bool start_from_symbols(bsd_info* info, uint32_t type, uint32_t address) {
  bool found = false;
  uint32_t lowest = 0;
  for (const aout::symbol& symbol :
       std::span(info->symbols, static_cast<size_t>(info->symbol_count))) {
    const bool visible_or_not = symbol.n_type == type || symbol.n_type == type + 1;
    if (visible_or_not && (!found || symbol.n_value < lowest)) {
      found = true;
      lowest = symbol.n_value;
    }
  }
  if (found) {
    info->load_addresses[address] = lowest;
  }
  return found;
}

void refine_by_symbols(bsd_info* info) {
  if (info->symbols == nullptr) {
    return;
  }
  if (start_from_symbols(info, aout::N_TEXT, bsd_address::kTextStart)) {
    set_text_end(info);
  }
  if (start_from_symbols(info, aout::N_DATA, bsd_address::kDataStart)) {
    set_bss_start(info);
    set_bss_end(info);
  }
  if (start_from_symbols(info, aout::N_BSS, bsd_address::kBssStart)) {
    set_bss_end(info);
  }
}

// The string table, at whose size word the stream is put twice: the word is kept with the strings.
void read_strings(std::FILE* stream, bsd_info* info) {
  const uint32_t place = info->file_offsets[bsd_part::kStrings];
  seek_to(stream, place);
  info->string_size = static_cast<int32_t>(read4(stream));
  if (info->string_size >= 0) {
    seek_to(stream, place);
    info->strings =
        static_cast<char*>(read_bytes(stream, nullptr, static_cast<uint32_t>(info->string_size)));
  }
}

}  // namespace

bsd_info* Bsd_ReadHeader(std::FILE* stream, bsd_info* info, const char* name1, const char* name2,
                         int64_t offset) {
  seek_to(stream, offset);
  const long base = std::ftell(stream);
  if (base < 0 || base > long{UINT32_MAX}) {
    die("read failed", 0, 0);
    return nullptr;
  }
  const file_magic* const kind = indmagic(stream, nullptr);
  if (kind == nullptr) {
    bad_magic();
  }
  const uint8_t big_endian = kind->big_endian;
  endian = big_endian != 0 ? 1 : 2;
  bsd_info read = header_from(stream);
  read.big_endian = big_endian;
  read.base_offset = static_cast<uint32_t>(base);
  Bsd_InitInfo(&read);

  if (info == nullptr) {
    errno = 0;
    info = static_cast<bsd_info*>(emalloc(sizeof(bsd_info)));
    if (info == nullptr) {
      return nullptr;
    }
  }
  *info = read;
  info->names[0] = gen_copy(name1);
  info->names[1] = gen_copy(name2);
  return info;
}

void Bsd_InitInfo(bsd_info* info) {
  info->symbol_count = static_cast<int32_t>(info->symbol_table_size / aout::kSymbolSize);
  set_style(info);
  const bool paged = info->magic == aout::ZMAGIC;
  if (!paged && info->magic != aout::OMAGIC && info->magic != aout::NMAGIC) {
    bad_magic();
  }

  // Not every size is rounded where the file has it on pages: the format of each machine is so.
  const uint32_t text_on_pages = rounded_up(info->text_size, info->page_size);
  const uint32_t text = paged ? 0 : aout::kHeaderSize;
  uint32_t* const offsets = info->relative_offsets;
  offsets[bsd_part::kText] = text;
  offsets[bsd_part::kData] = text + (paged ? text_on_pages : info->text_size);
  offsets[bsd_part::kTextReloc] =
      text + (paged && info->style_other != 0 ? text_on_pages : info->text_size) + info->data_size;
  offsets[bsd_part::kDataReloc] = offsets[bsd_part::kTextReloc] + info->text_reloc_size;
  offsets[bsd_part::kSymbols] =
      text + info->text_size + info->data_size + info->text_reloc_size + info->data_reloc_size;
  offsets[bsd_part::kStrings] = offsets[bsd_part::kSymbols] + info->symbol_table_size;
  for (uint32_t part = 0; part < bsd_part::kCount; ++part) {
    info->file_offsets[part] = offsets[part] + info->base_offset;
  }
}

void Bsd_FreeFile(bsd_info* info) {
  gen_free(info->names[0]);
  gen_free(info->names[1]);
  std::free(info->symbols);
  std::free(info->strings);
  for (uint8_t* const part : {info->text, info->data, info->text_reloc, info->data_reloc}) {
    std::free(part);
  }
  *info = {};
}

void Bsd_ComputeLoadAddresses(std::FILE* stream, bsd_info* info) {
  if (info->addresses_done != 0) {
    return;
  }
  info->addresses_done = 1;
  set_starts(info);
  set_text_end(info);
  set_bss_start(info);
  set_bss_end(info);
  if (info->style_other != 0) {
    Bsd_ReadSymbolAndStringTable(stream, info);
    refine_by_symbols(info);
  }
}

aout::symbol* Bsd_ReadSymbol(std::FILE* stream, aout::symbol* buffer, uint32_t count,
                             int64_t offset) {
  seek_to(stream, offset);
  ByteOrder order = ByteOrder::kLittle;
  errno = 0;
  if (!order_of_file(&order)) {
    return nullptr;
  }
  if (!fits_array(0, count, aout::kSymbolSize, UINT32_MAX)) {
    die("read failed", 0, 0);
    return nullptr;
  }
  const uint32_t size = count * aout::kSymbolSize;
  const malloc_ptr<uint8_t> block(static_cast<uint8_t*>(read_bytes(stream, nullptr, size)));
  if (block == nullptr) {
    return count == 0 ? buffer : nullptr;
  }
  if (buffer == nullptr) {
    buffer = static_cast<aout::symbol*>(emalloc(uint64_t{count} * sizeof(aout::symbol)));
    if (buffer == nullptr) {
      return nullptr;
    }
  }
  ByteReader in(std::span<const uint8_t>(block.get(), size), order);
  for (aout::symbol& symbol : std::span(buffer, count)) {
    symbol = {in.u32(), in.u8(), in.u8(), in.u16(), in.u32()};
  }
  return buffer;
}

int32_t Bsd_ReadSymbolAndStringTable(std::FILE* stream, bsd_info* info) {
  if (info->symbols_read != 0) {
    return info->symbol_count;
  }
  info->symbols_read = 1;
  if (info->symbol_count == 0) {
    info->string_size = 0;
    info->strings = static_cast<char*>(emalloc(1));
    if (info->strings != nullptr) {
      *info->strings = '\0';
    }
    return 0;
  }
  info->symbols = Bsd_ReadSymbol(stream, nullptr, static_cast<uint32_t>(info->symbol_count),
                                 info->file_offsets[bsd_part::kSymbols]);
  read_strings(stream, info);
  return info->symbol_count;
}

uint8_t* Bsd_ReadText(std::FILE* stream, bsd_info* info) {
  return read_part(stream, info, bsd_part::kText, info->text_size, &info->text);
}

uint8_t* Bsd_ReadData(std::FILE* stream, bsd_info* info) {
  return read_part(stream, info, bsd_part::kData, info->data_size, &info->data);
}

uint8_t* Bsd_ReadTextReloc(std::FILE* stream, bsd_info* info) {
  return info->text_reloc_size == 0 ? info->text_reloc
                                    : read_part(stream, info, bsd_part::kTextReloc,
                                                info->text_reloc_size, &info->text_reloc);
}

uint8_t* Bsd_ReadDataReloc(std::FILE* stream, bsd_info* info) {
  return info->data_reloc_size == 0 ? info->data_reloc
                                    : read_part(stream, info, bsd_part::kDataReloc,
                                                info->data_reloc_size, &info->data_reloc);
}

void Bsd_WriteHeader(std::FILE* stream, const bsd_info* info) {
  for (const uint32_t word :
       {info->machine * 0x10000U + info->magic, info->text_size, info->data_size, info->bss_size,
        info->symbol_table_size, info->entry, info->text_reloc_size, info->data_reloc_size}) {
    write4(stream, word);
  }
}

void Bsd_WriteSymbol(std::FILE* stream, const aout::symbol* symbols, uint32_t count,
                     int64_t offset) {
  if (symbols == nullptr) {
    return;
  }
  seek_to(stream, offset);
  for (const aout::symbol& symbol : std::span(symbols, count)) {
    write4(stream, symbol.n_strx);
    std::putc(symbol.n_type, stream);
    std::putc(symbol.n_other, stream);
    write2(stream, symbol.n_desc);
    write4(stream, symbol.n_value);
  }
}

void Bsd_WriteStringTable(std::FILE* stream, const char* strings, int64_t offset, uint32_t size) {
  seek_to(stream, offset);
  write4(stream, size + 4);
  if (size != 0) {
    gen_safe_fwrite(nullptr, strings, 1, size, stream);
  }
}

}  // namespace kelvane
