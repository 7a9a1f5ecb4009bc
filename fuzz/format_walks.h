#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "comcoff.h"
#include "comcoff2.h"
#include "comcoff_internal.h"
#include "indbsdio.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "objects_reset.h"
#include "pecoff.h"

// Each walk takes a file of one format through everything that the library does with it, as a host
// program would that believes all that the file says. They serve the fuzz targets and the tests of
// damaged files. A run that the library ends is thrown out of.
namespace kelvane {

struct EndedRun {
  int32_t status;
};

inline void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

// While it lives, messages are dropped, standard output goes nowhere, and an end of the run is an
// EndedRun.
class Quiet {
 public:
  Quiet() {
    std::fflush(stdout);
    output_ = dup(STDOUT_FILENO);
    const file_ptr nowhere(std::fopen("/dev/null", "w"));
    dup2(fileno(nowhere.get()), STDOUT_FILENO);
    gen_domessage = [](uint32_t, const char*, va_list) {};
    gen_exit = [](int32_t status) { throw EndedRun{status}; };
  }
  ~Quiet() {
    gen_domessage = domessage_;
    gen_exit = exit_;
    std::fflush(stdout);
    dup2(output_, STDOUT_FILENO);
    close(output_);
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;

 private:
  int output_ = -1;
  decltype(gen_domessage) domessage_ = gen_domessage;
  decltype(gen_exit) exit_ = gen_exit;
};

// A file with these bytes, open for reading and writing at its start.
inline file_ptr stream_of(const uint8_t* data, size_t size) {
  file_ptr stream(std::tmpfile());
  require(stream != nullptr);
  require(size == 0 || std::fwrite(data, 1, size, stream.get()) == size);
  std::rewind(stream.get());
  return stream;
}

// `size` bytes of a stream from `offset` on, fewer if it ends before.
inline std::vector<uint8_t> bytes_at(std::FILE* stream, long offset, size_t size) {
  std::vector<uint8_t> bytes(size);
  std::fseek(stream, offset, SEEK_SET);
  bytes.resize(std::fread(bytes.data(), 1, size, stream));
  return bytes;
}

inline void walk_aout(std::FILE* stream) {
  struct Info : bsd_info {
    Info() : bsd_info{} {}
    ~Info() { Bsd_FreeFile(this); }
    Info(const Info&) = delete;
    Info& operator=(const Info&) = delete;
  } info;
  reset_indelfio();
  Bsd_ReadHeader(stream, &info, "file", nullptr, 0);
  Bsd_ReadSymbolAndStringTable(stream, &info);
  const file_ptr copy(std::tmpfile());
  Bsd_WriteHeader(copy.get(), &info);
  // A header that is cut short counts as filled up.
  const std::vector<uint8_t> header = bytes_at(stream, 0, aout::kHeaderSize);
  require(bytes_at(copy.get(), 0, header.size()) == header);
  Bsd_WriteSymbol(copy.get(), info.symbols, static_cast<uint32_t>(info.symbol_count), 0);
  if (info.symbols != nullptr) {
    const auto size = static_cast<size_t>(info.symbol_count) * aout::kSymbolSize;
    require(bytes_at(copy.get(), 0, size) ==
            bytes_at(stream, info.file_offsets[bsd_part::kSymbols], size));
  }
  Bsd_ComputeLoadAddresses(stream, &info);
  Bsd_SortSymbolsByName(&info);
  Bsd_SortSymbolsByAddress(&info);
  Bsd_FilterDebugAndQVRLineSymbols(&info);
  Bsd_SortSymbolsBySizeAndSetToValue(&info);
  Bsd_FilterDebugSymbols(&info);
  for (int32_t i = 0; i < info.symbol_count; ++i) {
    require(info.symbols == nullptr || Bsd_Symbol(&info, i) != nullptr);
  }
  Bsd_ReadTextReloc(stream, &info);
  Bsd_ReadDataReloc(stream, &info);
  Bsd_ReadText(stream, &info);
  Bsd_ReadData(stream, &info);
}

// Bits of `variant`: 0 to 2 set `ecoff`, `coff960` and `only_globals`, 3 a known order.
inline void walk_coff(std::FILE* stream, uint32_t variant) {
  // More would only cost time: hostile counts are no different from each other.
  constexpr uint32_t kMost = 100;
  reset_comcoff();
  ecoff = static_cast<int32_t>(variant & 1U);
  coff960 = static_cast<int32_t>(variant >> 1U & 1U);
  only_globals = static_cast<int32_t>(variant >> 2U & 1U);
  bigendian = (variant & 8U) != 0 ? 1 : -1;
  bcscompat = -1;
  uint16_t sections = 0;
  uint16_t optional_size = 0;
  uint16_t flags = 0;
  uint32_t symbol_pointer = 0;
  uint32_t symbol_count = 0;
  get_endian_header(stream, 1, nullptr, &sections, nullptr, &symbol_pointer, &symbol_count,
                    &optional_size, &flags);
  require(bigendian == 0 || bigendian == 1);
  const long headers = std::ftell(stream) + optional_size;
  std::fseek(stream, headers, SEEK_SET);
  coff::section_header header = {};
  coff::scnhdr short_header = {};
  for (uint32_t i = 0; i < sections && read_section_header(stream, &header) == 0; ++i) {
  }
  std::fseek(stream, headers, SEEK_SET);
  for (uint32_t i = 0; i < sections && read_sect_header(stream, &short_header) == 0; ++i) {
  }
  const int64_t strings = int64_t{symbol_pointer} + int64_t{symbol_count} * symsize;
  coff::symbol symbol = {};
  for (int32_t i = 0; i < static_cast<int32_t>(std::min(symbol_count, kMost)) &&
                      read_symbol(stream, symbol_pointer, i, &symbol) == 0;
       ++i) {
    const char* const name = read_string(stream, strings, symbol.n_offset);
    require(name == nullptr || std::char_traits<char>::length(name) < kStringSize);
  }
  std::fseek(stream, headers, SEEK_SET);
  ecoff64::section_header section;
  ecoff64::symheader symbolic;
  ecoff64::symbol external;
  ecoff64::lsymbol local;
  ecoff64::fdr file;
  ecoff64::pdr procedure;
  const bool all = read_ecoff_section_header(stream, &section) == 0 &&
                   read_ecoff_symheader(stream, &symbolic) == 0 &&
                   read_ecoff_symbol(stream, &external) == 0 &&
                   read_ecoff_lsymbol(stream, &local) == 0 && read_ecoff_fdr(stream, &file) == 0 &&
                   read_ecoff_pdr(stream, &procedure) == 0;
  require(!all || std::ftell(stream) == headers + 64 + 144 + 24 + 16 + 96 + 64);
}

// What is read whole is written as the same bytes.
inline void walk_pe(std::FILE* stream) {
  reset_comcoff();
  if (skip_to_pecoff_fileheader(stream) != 0) {
    return;
  }
  struct Header : pe::optional_header {
    Header() : pe::optional_header{} {}
    ~Header() { free_pecoff_optheader(this); }
    Header(const Header&) = delete;
    Header& operator=(const Header&) = delete;
  } optional;
  const long start = std::ftell(stream);
  pe::file_header file = {};
  if (read_pecoff_fileheader(&file, stream) != 0 ||
      read_pecoff_optheader(&optional, file.f_opthdr, stream) != 0) {
    return;
  }
  print_pecoff_fileheader(&file);
  print_pecoff_optheader(&optional, file.f_opthdr);
  const file_ptr copy(std::tmpfile());
  write_pecoff_fileheader(&file, copy.get());
  write_pecoff_optheader(&optional, file.f_opthdr, copy.get());
  pe::section_header section = {};
  for (uint32_t i = 0; i < file.f_nscns && read_pecoff_scnhdr(&section, stream) == 0; ++i) {
    require(calc_sizeof_rawdata_in_pecoff_section(&section) == section.SizeOfRawData ||
            calc_sizeof_rawdata_in_pecoff_section(&section) == section.VirtualSize ||
            section.PointerToRawData == 0);
    print_pecoff_scnhdr(&section);
    write_pecoff_scnhdr(&section, copy.get());
  }
  pe::debug_directory debug = {};
  if (optional.NumberOfRvaAndSizes >= pe::kFixedEntries &&
      std::fseek(stream, static_cast<long>(optional.fixed[6].address), SEEK_SET) == 0 &&
      read_pecoff_debug_dir(&debug, stream) == 0) {
    print_pecoff_debug_dir(&debug);
  }
  const auto size = static_cast<size_t>(std::ftell(copy.get()));
  require(bytes_at(copy.get(), 0, size) == bytes_at(stream, start, size));
}

}  // namespace kelvane
