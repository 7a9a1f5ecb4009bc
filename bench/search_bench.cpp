// The indexed ring search: against the plain loop over growing distances (counter "vs_plain": how
// many times faster, on the same bytes in the same run), and searches that fail, on several kinds
// of data.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "block_search.h"
#include "plain_search.h"

namespace kelvane {
namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr uint16_t kBlocksize = 100;

Bytes random_bytes(size_t size, uint32_t seed, uint32_t letters) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random() % letters);
  }
  return bytes;
}

Bytes text_like(size_t size, uint32_t seed) {
  static const std::vector<std::string> words = {
      "error ", "buffer ", "of ", "the ", "queue ",  "timeout", " in ", "task ", "%d\n", "value ",
      "is ",    "not ",    "set", ": ",   "sensor ", "fan ",    "and ", "log ",  "to ",  "speed "};
  std::mt19937 random(seed);
  Bytes bytes;
  while (bytes.size() < size) {
    const std::string& word = words[random() % words.size()];
    bytes.insert(bytes.end(), word.begin(), word.end());
  }
  bytes.resize(size);
  return bytes;
}

// Zeros, with a byte that is none in every `distance` bytes on average.
Bytes mostly_zero(size_t size, uint32_t seed, uint32_t distance) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) {
    if (random() % distance == 0) {
      byte = static_cast<uint8_t>(1 + random() % 255U);
    }
  }
  return bytes;
}

// Records of 64 bytes: a name of 12 bytes and zeros. Most blocks begin with zeros on both sides,
// and no two agree.
Bytes padded_records(size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) {
    if (i % 64 < 12) {
      bytes[i] = static_cast<uint8_t>(1 + random() % 255U);
    }
  }
  return bytes;
}

// Words of the code of a 32-bit target: few instructions, small operands.
Bytes code_like(size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  Bytes bytes;
  while (bytes.size() < size) {
    bytes.push_back(static_cast<uint8_t>(0x80U | (random() % 24U)));
    bytes.push_back(static_cast<uint8_t>((random() % 12U) * 16U + random() % 4U));
    bytes.push_back(random() % 4U == 0 ? static_cast<uint8_t>(random() % 256U) : uint8_t{0});
    bytes.push_back(static_cast<uint8_t>((random() % 32U) * 4U));
  }
  bytes.resize(size);
  return bytes;
}

Rest all_of(const Bytes& bytes) {
  return {bytes.data(), static_cast<uint32_t>(bytes.size())};
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Two sides that agree again at distance d: d bytes replaced by others.
void agreement_at(benchmark::State& run) {
  const auto distance = static_cast<size_t>(run.range(0));
  const Bytes common = random_bytes(1000, 1, 256);
  Bytes side1 = random_bytes(distance, 2, 256);
  Bytes side2 = random_bytes(distance, 3, 256);
  side1.insert(side1.end(), common.begin(), common.end());
  side2.insert(side2.end(), common.begin(), common.end());
  const auto limit = static_cast<int32_t>(distance + 1);
  const auto start = Clock::now();
  const Agreement plain = plain_find_agreement(all_of(side1), all_of(side2), kBlocksize, limit);
  const double plain_seconds = seconds_since(start);
  double fastest = 1e9;
  for (auto iteration : run) {
    const auto begin = Clock::now();
    const Agreement found = find_agreement(all_of(side1), all_of(side2), kBlocksize, limit);
    fastest = std::min(fastest, seconds_since(begin));
    if (found.offset1 != plain.offset1 || found.offset2 != plain.offset2 ||
        found.offset1 != distance) {
      run.SkipWithError("the searches do not agree");
      return;
    }
  }
  run.counters["vs_plain"] = plain_seconds / fastest;
  run.counters["ns_per_byte"] = fastest * 1e9 / static_cast<double>(distance);
}
BENCHMARK(agreement_at)->Arg(30)->Arg(100)->Arg(300)->Arg(1000)->Arg(3000)->Arg(10000)->Arg(30000);

// A search of two unlike sides of 1 MB that gives up after `limit` rings.
void fails(benchmark::State& run, const Bytes& side1, const Bytes& side2) {
  const auto limit = static_cast<int32_t>(run.range(0));
  for (auto iteration : run) {
    const Agreement found = find_agreement(all_of(side1), all_of(side2), kBlocksize, limit);
    if (found.result >= 0) {
      run.SkipWithError("the search found something");
      return;
    }
  }
}

constexpr size_t kSize = 1000000;

// Two limits, so that the growth shows before the time does.
void limits(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(10000)->Arg(100000)->Iterations(1)->Unit(benchmark::kSecond);
}

BENCHMARK_CAPTURE(fails, random, random_bytes(kSize, 1, 256), random_bytes(kSize, 2, 256))
    ->Apply(limits);
BENCHMARK_CAPTURE(fails, code, code_like(kSize, 1), code_like(kSize, 2))->Apply(limits);
BENCHMARK_CAPTURE(fails, text, text_like(kSize, 1), text_like(kSize, 2))->Apply(limits);
BENCHMARK_CAPTURE(fails, four_letters, random_bytes(kSize, 1, 4), random_bytes(kSize, 2, 4))
    ->Apply(limits);
BENCHMARK_CAPTURE(fails, two_letters, random_bytes(kSize, 1, 2), random_bytes(kSize, 2, 2))
    ->Apply(limits);
BENCHMARK_CAPTURE(fails, zero_heavy, mostly_zero(kSize, 1, 3), mostly_zero(kSize, 2, 3))
    ->Apply(limits);
BENCHMARK_CAPTURE(fails, zeros_and_random, mostly_zero(kSize, 1, 6), random_bytes(kSize, 2, 256))
    ->Apply(limits);
BENCHMARK_CAPTURE(fails, sparse, mostly_zero(kSize, 1, 4), mostly_zero(kSize, 2, 4))->Apply(limits);
BENCHMARK_CAPTURE(fails, padded_records, padded_records(kSize, 1), padded_records(kSize, 2))
    ->Arg(10000)
    ->Arg(30000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace
}  // namespace kelvane
