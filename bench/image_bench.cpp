// What it costs to take an image apart: its tables against a plain reading of the same file in the
// same run (counter "vs_reading"), its symbols sorted as a run sorts them, and a section list of
// growing length against a walk over the list for each section (counter "vs_walk").
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "image.h"
#include "image_builder.h"
#include "indelfio_internal.h"
#include "indgen_memory.h"
#include "section_filter.h"
#include "section_list.h"
#include "symbol_list.h"

namespace kelvane {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Functions with the long names that compilers make, no two at one address, not in order.
Image image_of(uint32_t symbols) {
  Image image;
  image.order = ByteOrder::big;
  image.sections = {{.name = ".text", .addr = 0x1000, .content = Bytes(64)}};
  for (uint32_t i = 0; i < symbols; ++i) {
    const uint32_t scattered = i * 2654435761U;
    image.symbols.push_back({.name = "_ZN7kelvane6target" + std::to_string(scattered) + "readyEv",
                             .value = scattered & ~3U,
                             .size = 4 + i % 64,
                             .section = ".text"});
  }
  return image;
}

file_ptr file_with(const Bytes& bytes) {
  file_ptr file(std::tmpfile());
  std::fwrite(bytes.data(), 1, bytes.size(), file.get());
  std::rewind(file.get());
  return file;
}

void read_symbols(benchmark::State& run) {
  const Bytes bytes = build_image(image_of(static_cast<uint32_t>(run.range(0))));
  const file_ptr file = file_with(bytes);
  std::vector<uint8_t> room(bytes.size());
  double reading = 1e9;
  double fastest = 1e9;
  for (auto iteration : run) {
    auto start = Clock::now();
    std::rewind(file.get());
    benchmark::DoNotOptimize(std::fread(room.data(), 1, room.size(), file.get()));
    reading = std::min(reading, seconds_since(start));
    std::rewind(file.get());
    start = Clock::now();
    const ElfSymbols symbols = elf_read_symbols(file.get(), false);
    fastest = std::min(fastest, seconds_since(start));
    benchmark::DoNotOptimize(symbols.count);
  }
  run.SetBytesProcessed(run.iterations() * static_cast<int64_t>(bytes.size()));
  run.counters["vs_reading"] = fastest / reading;
}
BENCHMARK(read_symbols)->Arg(1000)->Arg(200000)->Unit(benchmark::kMillisecond);

void sort_as_a_run_does(benchmark::State& run) {
  const file_ptr file = file_with(build_image(image_of(static_cast<uint32_t>(run.range(0)))));
  const ElfSymbols symbols = elf_read_symbols(file.get(), false);
  std::vector<elf32::symbol> records;
  for (auto iteration : run) {
    records.assign(symbols.records.get(), symbols.records.get() + symbols.count);
    table = {static_cast<int32_t>(symbols.count), 0, records.data(), symbols.strings.bytes.get(),
             symbols.strings.size};
    sort_symbols(symtab_addr);
    symtab_del_dup(table.records, table.count);
    sort_symbols(symtab_cmp);
    benchmark::DoNotOptimize(count_defined_with_size());
  }
  table = {};
}
BENCHMARK(sort_as_a_run_does)->Arg(1000)->Arg(20000)->Arg(200000)->Unit(benchmark::kMillisecond);

double seconds_of_walks(const std::vector<std::string>& names) {
  const auto start = Clock::now();
  for (size_t count = 0; count < names.size(); ++count) {
    const auto end = names.begin() + static_cast<ptrdiff_t>(count);
    benchmark::DoNotOptimize(std::find(names.begin(), end, names[count]));
  }
  return seconds_since(start);
}

void add_sections(benchmark::State& run) {
  std::vector<std::string> names;
  for (int64_t i = 0; i < run.range(0); ++i) {
    names.push_back(".text.function_" + std::to_string(i));
  }
  const gen_ptr<sym_addr> list(gen_alloc_array<sym_addr>(kMostSections));
  double fastest = 1e9;
  for (auto iteration : run) {
    sym_addr_list = list.get();
    sym_addrp = sym_addr_list;
    const auto start = Clock::now();
    for (const std::string& name : names) {
      add_symbol(name.c_str(), 0, 0, 4, elf32::SHT_PROGBITS, elf32::SHF_ALLOC, "file");
    }
    fastest = std::min(fastest, seconds_since(start));
    while (sym_addrp != sym_addr_list) {
      gen_free((--sym_addrp)->name);
    }
  }
  run.counters["vs_walk"] = fastest / seconds_of_walks(names);
}
BENCHMARK(add_sections)->Arg(16)->Arg(1000)->Arg(32768)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kelvane
