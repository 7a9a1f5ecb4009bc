// What motion costs. Counters:
//   ns_per_byte   block pass over growing sections: the same at each size for a linear pass
//   vs_plain      the plain double loop by the indexed pass, on a section that both can take
//   ns_per_piece  forest over growing chains: everything shifts by 4, so the pieces come apart into
//                 one chain of pieces of 4 bytes
//   seconds       the whole program on images of 4 MiB with 20,000 functions
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "block_pass.h"
#include "image_pair.h"
#include "memory_pair.h"
#include "motion.h"
#include "plain_motion.h"

namespace kelvane {
namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Sections {
  Bytes old_bytes;
  Bytes new_bytes;
};

// A section of code, and the same in pieces that have changed places.
Sections shuffled(size_t size) {
  Random random(3);
  Sections sections = {code_like(size, random), {}};
  const size_t piece = size / 16;
  for (const size_t place :
       {1U, 0U, 2U, 5U, 4U, 3U, 8U, 7U, 6U, 9U, 10U, 15U, 12U, 13U, 14U, 11U}) {
    const auto from = sections.old_bytes.begin() + static_cast<std::ptrdiff_t>(place * piece);
    sections.new_bytes.insert(sections.new_bytes.end(), from,
                              from + static_cast<std::ptrdiff_t>(piece));
  }
  return sections;
}

void blocks(benchmark::State& run) {
  const Sections sections = shuffled(static_cast<size_t>(run.range(0)));
  double seconds = 1e9;
  for (auto iteration : run) {
    const auto start = Clock::now();
    benchmark::DoNotOptimize(moved_blocks(sections.old_bytes, sections.new_bytes, 12));
    seconds = std::min(seconds, seconds_since(start));
  }
  run.counters["ns_per_byte"] = seconds * 1e9 / static_cast<double>(run.range(0));
}
BENCHMARK(blocks)->Arg(1 << 16)->Arg(1 << 18)->Arg(1 << 20)->Arg(1 << 22)->Unit(
    benchmark::kMillisecond);

void blocks_by_the_plain_loop(benchmark::State& run) {
  const Sections sections = shuffled(static_cast<size_t>(run.range(0)));
  double ratio = 0;
  for (auto iteration : run) {
    auto start = Clock::now();
    const auto plain = plain_moved_blocks(sections.old_bytes, sections.new_bytes, 12);
    const double plain_seconds = seconds_since(start);
    start = Clock::now();
    if (moved_blocks(sections.old_bytes, sections.new_bytes, 12) != plain) {
      run.SkipWithError("the two differ");
      return;
    }
    ratio = plain_seconds / seconds_since(start);
  }
  run.counters["vs_plain"] = ratio;
}
BENCHMARK(blocks_by_the_plain_loop)
    ->Arg(1 << 14)
    ->Arg(1 << 16)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

void forest(benchmark::State& run) {
  const auto pieces = static_cast<uint32_t>(run.range(0));
  double seconds = 1e9;
  for (auto iteration : run) {
    map_list list;
    for (uint32_t at = 0; at < 4 * pieces; at += 200) {
      insert_map(list, new_map(at, at + 4, 200));
    }
    const auto start = Clock::now();
    build_forest(list, 0, -1);
    seconds = std::min(seconds, seconds_since(start));
  }
  run.counters["ns_per_piece"] = seconds * 1e9 / pieces;
}
BENCHMARK(forest)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

void write_file(const std::filesystem::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

void whole_run(benchmark::State& run, const std::string& options) {
  Random random(5);
  const MemoryPair pair =
      make_memory_pair(ProgramChange::mixed, ByteOrder::little, {20000, 400, false, 65536}, random);
  const auto folder = std::filesystem::temp_directory_path() / "motion_bench";
  std::filesystem::create_directories(folder);
  write_file(folder / "old.elf", build_image(pair.old_image.image));
  write_file(folder / "new.elf", build_image(pair.new_image.image));
  const std::string command = std::string(KELVANE_PROGRAM) + " -ram " + options + " -o " +
                              (folder / "a.patch").string() + " " + (folder / "old.elf").string() +
                              " " + (folder / "new.elf").string() + " 2>/dev/null";
  for (auto iteration : run) {
    const auto start = Clock::now();
    if (std::system(command.c_str()) != 0) {
      run.SkipWithError("the run failed");
      break;
    }
    run.counters["seconds"] = seconds_since(start);
    run.counters["patch"] = static_cast<double>(std::filesystem::file_size(folder / "a.patch"));
  }
  std::filesystem::remove_all(folder);
}
BENCHMARK_CAPTURE(whole_run, plain, "")->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(whole_run, memmove, "-memmove")->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(whole_run, memmove_block, "-memmove_block")
    ->Iterations(1)
    ->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(whole_run, all, "-inc -memmove -memmove_block")
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace
}  // namespace kelvane
