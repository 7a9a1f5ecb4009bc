// Encode in megabytes per second on several kinds of data, and how many times faster it is than
// the plain encoder on the same bytes in the same run (counter "vs_plain").
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "indzip.h"
#include "plain_encoder.h"

namespace kelvane {
namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

int64_t bytes_put = 0;

void count_byte(int32_t byte) {
  benchmark::DoNotOptimize(byte);
  ++bytes_put;
}

Bytes random_bytes(size_t size, uint32_t alphabet) {
  std::mt19937 random(4711);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random() % alphabet);
  }
  return bytes;
}

// Words that look like the code of a 32-bit target: few opcodes, small fields, many repeats.
Bytes code_like(size_t size) {
  std::mt19937 random(4712);
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

Bytes text_like(size_t size) {
  static const std::vector<std::string> words = {"error ",  "buffer ", "of ",   "the ",  "queue ",
                                                 "timeout", " in ",    "task ", "%d\n",  "value ",
                                                 "is ",     "not ",    "set",   ": %s ", "sensor "};
  std::mt19937 random(4713);
  Bytes bytes;
  while (bytes.size() < size) {
    const std::string& word = words[random() % words.size()];
    bytes.insert(bytes.end(), word.begin(), word.end());
  }
  bytes.resize(size);
  return bytes;
}

double seconds_for_plain(std::span<const uint8_t> data, size_t piece) {
  static PlainEncoder encoder;
  const auto start = Clock::now();
  for (size_t from = 0; from < data.size(); from += piece) {
    benchmark::DoNotOptimize(
        encoder.encode(data.subspan(from, std::min(piece, data.size() - from))));
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Encodes `data` in pieces of the size that the benchmark's argument gives.
void encode(benchmark::State& run, const Bytes& data) {
  const auto piece = static_cast<size_t>(run.range(0));
  const double plain = std::min(seconds_for_plain(data, piece), seconds_for_plain(data, piece));
  double fastest = 1e9;
  for (auto iteration : run) {
    const auto start = Clock::now();
    for (size_t from = 0; from < data.size(); from += piece) {
      const size_t size = std::min(piece, data.size() - from);
      Encode(data.data() + from, static_cast<uint32_t>(size), count_byte);
    }
    fastest = std::min(fastest, std::chrono::duration<double>(Clock::now() - start).count());
  }
  run.SetBytesProcessed(static_cast<int64_t>(run.iterations()) * static_cast<int64_t>(data.size()));
  run.counters["vs_plain"] = plain / fastest;
}

constexpr size_t kSize = 1U << 20U;

void pieces(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(64)->Arg(1024)->Arg(int64_t{kSize})->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(encode, code, code_like(kSize))->Apply(pieces);
BENCHMARK_CAPTURE(encode, text, text_like(kSize))->Apply(pieces);
BENCHMARK_CAPTURE(encode, random, random_bytes(kSize, 256))->Apply(pieces);
BENCHMARK_CAPTURE(encode, two_letters, random_bytes(kSize, 2))->Apply(pieces);
BENCHMARK_CAPTURE(encode, zeros, Bytes(kSize, 0))->Apply(pieces);

}  // namespace
}  // namespace kelvane
