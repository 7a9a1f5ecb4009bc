// Whole runs over growing files, and the steps of the writer over growing counts. A counter tells
// what each costs in processor time beside a measure of the same run:
//   vs_compare   whole run: its time by that of reading both files and comparing them byte by byte
//   ns_per_item  writer: what an item costs; a linear step has about the same figure at each count
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "binshared.h"
#include "diffout.h"
#include "diffshared.h"
#include "engine_settings.h"
#include "increment_coder.h"
#include "increments.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "load.h"
#include "writer_reset.h"

namespace kelvane {
namespace {

using Bytes = std::vector<uint8_t>;
// Processor time of this process, which other programs on the machine hardly change.
double processor_seconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

// A folder for the files of this process, removed at its end.
class Folder {
 public:
  Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "run_benchXXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
      std::perror("run_bench");
      std::exit(1);
    }
    name_ = name;
  }
  ~Folder() { std::filesystem::remove_all(name_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string path(const std::string& entry) const { return name_ + "/" + entry; }

 private:
  std::string name_;
};

Bytes random_bytes(std::mt19937& random, size_t size) {
  Bytes bytes(size);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random());
  }
  return bytes;
}

// `old_image` with `places` changes spread over it: replacements, insertions and removals of up to
// 60 bytes.
Bytes changed(std::mt19937& random, const Bytes& old_image, size_t places) {
  Bytes new_image;
  new_image.reserve(old_image.size() + 60 * places);
  const size_t stretch = old_image.size() / places;
  for (size_t place = 0; place < places; ++place) {
    const auto from = old_image.begin() + static_cast<std::ptrdiff_t>(place * stretch);
    const auto size = static_cast<std::ptrdiff_t>(1 + random() % 60U);
    const bool inserts = random() % 3U != 0;
    const bool removes = !inserts || random() % 2U != 0;
    if (inserts) {
      const Bytes piece = random_bytes(random, static_cast<size_t>(size));
      new_image.insert(new_image.end(), piece.begin(), piece.end());
    }
    const auto end =
        place + 1 == places ? old_image.end() : from + static_cast<std::ptrdiff_t>(stretch);
    new_image.insert(new_image.end(), removes ? from + size : from, end);
  }
  return new_image;
}

void write_file(const std::string& name, const Bytes& bytes) {
  std::ofstream(name, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

Bytes read_plainly(const std::string& name) {
  Bytes bytes(std::filesystem::file_size(name));
  const file_ptr stream(std::fopen(name.c_str(), "rb"));
  bytes.resize(std::fread(bytes.data(), 1, bytes.size(), stream.get()));
  return bytes;
}

double seconds_to_compare(const std::string& old_name, const std::string& new_name) {
  const auto start = processor_seconds();
  const Bytes old_image = read_plainly(old_name);
  const Bytes new_image = read_plainly(new_name);
  size_t differing = 0;
  for (size_t i = 0; i < std::min(old_image.size(), new_image.size()); ++i) {
    differing += old_image[i] != new_image[i] ? 1 : 0;
    benchmark::DoNotOptimize(differing);
  }
  return processor_seconds() - start;
}

void release(const file_data& record) {
  gen_free(record.bytes);
  gen_free(record.sections);
}

// Loads, compares and writes the patch, as the program does it.
void run_once(const std::string& old_name, const std::string& new_name, const std::string& patch) {
  file_data first = {};
  file_data second = {};
  load_file(&first, old_name.c_str());
  load_file(&second, new_name.c_str());
  diff(&first, &second, 100, 1000);
  dump_to_file(&first, &second, patch.c_str());
  reset_command_lists();
  reset_increment_coder();
  release(first);
  release(second);
}

// Files of so many MiB that differ in 64 places in each of them, 4096 in the largest; the second
// argument turns increments on.
void whole_run(benchmark::State& run) {
  static const Folder folder;
  std::mt19937 random(1);
  const Bytes old_image = random_bytes(random, static_cast<size_t>(run.range(0)) << 20U);
  const std::string old_name = folder.path("old.bin");
  const std::string new_name = folder.path("new.bin");
  write_file(old_name, old_image);
  write_file(new_name, changed(random, old_image, static_cast<size_t>(64 * run.range(0))));
  version = 1;
  incr_enabled = static_cast<int32_t>(run.range(1));
  gen_endian_init();
  double compare = 1e9;
  double fastest = 1e9;
  for (auto iteration : run) {
    compare = std::min(compare, seconds_to_compare(old_name, new_name));
    const auto start = processor_seconds();
    run_once(old_name, new_name, folder.path("diff.out"));
    const double seconds = processor_seconds() - start;
    fastest = std::min(fastest, seconds);
    run.SetIterationTime(seconds);
  }
  run.counters["vs_compare"] = fastest / compare;
  run.counters["patch_bytes"] =
      static_cast<double>(std::filesystem::file_size(folder.path("diff.out")));
}
BENCHMARK(whole_run)
    ->ArgNames({"MiB", "inc"})
    ->ArgsProduct({{1, 4, 16, 64}, {0, 1}})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void count_per_item(benchmark::State& run, double fastest) {
  run.counters["ns_per_item"] = fastest * 1e9 / static_cast<double>(run.range(0));
}

// The increment coder, dry passes and all, over so many words in 20 classes, five of which are
// sparse. The 20 classes are there at each count.
void increment_coder(benchmark::State& run) {
  incr_enabled = 1;
  double fastest = 1e9;
  for (auto iteration : run) {
    reset_command_lists();
    reset_increment_coder();
    new_output_buf();
    std::mt19937 random(1);
    uint32_t address = 0;
    for (int64_t i = 0; i < run.range(0); ++i) {
      const uint32_t value = 4 * (1 + static_cast<uint32_t>(random() % 15U));
      const uint32_t rare = 400 + 4 * static_cast<uint32_t>(random() % 5U);
      add_increment(address, random() % 50U == 0 ? rare : value, 1000, 1);
      address += 4 * (1 + static_cast<uint32_t>(random() % 12U));
    }
    const auto start = processor_seconds();
    reject_some_sort_others(0);
    commit_rejections();
    output_increments();
    const double seconds = processor_seconds() - start;
    fastest = std::min(fastest, seconds);
    run.SetIterationTime(seconds);
  }
  set_output_file(nullptr);
  count_per_item(run, fastest);
}
BENCHMARK(increment_coder)
    ->RangeMultiplier(8)
    ->Range(1000, 4096000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// Division of so many commands into an absolute list and relative ones, with distances around the
// reach of a relative list.
void list_division(benchmark::State& run) {
  static const Bytes bytes(300, 1);
  double fastest = 1e9;
  for (auto iteration : run) {
    std::mt19937 random(1);
    command_record* first = nullptr;
    command_record* last = nullptr;
    uint32_t address = 0;
    for (int64_t i = 0; i < run.range(0); ++i) {
      command_record* const record = gen_alloc_array<command_record>(1);
      record->address = address;
      record->size = 2 + static_cast<int32_t>(random() % 40U);
      record->data.bytes = bytes.data();
      append_command(record, &first, &last);
      address += 50 + static_cast<uint32_t>(random() % 300U);
    }
    command_list* lists = nullptr;
    command_list* last_list = nullptr;
    const auto start = processor_seconds();
    benchmark::DoNotOptimize(generate_command_list(first, &lists, &last_list, 0));
    const double seconds = processor_seconds() - start;
    fastest = std::min(fastest, seconds);
    run.SetIterationTime(seconds);
    free_command_list(lists);
  }
  count_per_item(run, fastest);
}
BENCHMARK(list_division)
    ->RangeMultiplier(8)
    ->Range(1000, 4096000)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kelvane
