// SPDX-License-Identifier: Apache-2.0
// Dense payloads of pairs of files: what each takes, in bytes and in time.
//
//   dense_bench [--effort quick|normal|best] [--machine M] [--page N] [--ring N] [--slots N]
//               [--checkpoint N] [--model N] [--jobs N] [--no-new] FOLDER...
//
// A folder holds old.bin and new.bin. Each gives a line: bytes of the payload, entries of the map,
// pages kept, whether it has matches into the new image, the machine found, seconds of processor
// time to make it, and the time to decode it, as nanoseconds and cycles a byte of the new image and
// as a multiple of what copying the new image takes in the same run.

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>

#include "dense_proof.h"
#include "dense_search.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

double processor_seconds() {
  return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

uint64_t cycles() {
#if defined(__x86_64__)
  return __rdtsc();
#else
  return 0;
#endif
}

struct span_of_time {
  double seconds = 0;
  double cycles = 0;
};

// The shortest of some runs: other work on the machine only makes them longer.
template <typename Work>
span_of_time shortest(const Work& work) {
  constexpr int kRuns = 5;
  span_of_time best = {1e9, 1e18};
  for (int i = 0; i < kRuns; ++i) {
    const double begin = processor_seconds();
    const uint64_t first = cycles();
    work();
    best.cycles = std::min(best.cycles, static_cast<double>(cycles() - first));
    best.seconds = std::min(best.seconds, processor_seconds() - begin);
  }
  return best;
}

void print_pair(const std::string& folder, kelvane::dense_request request) {
  const Bytes old_image = bytes_of(folder + "/old.bin");
  const Bytes new_image = bytes_of(folder + "/new.bin");
  const std::string name = folder.substr(folder.find_last_of('/', folder.size() - 2) + 1);
  request.images = {old_image, new_image};
  const double begin = processor_seconds();
  const kelvane::dense_update update = kelvane::search_dense(request);
  const double seconds = processor_seconds() - begin;
  Bytes decoded;
  const span_of_time decoding = shortest([&] {
    decoded =
        kelvane::decode_dense(old_image, update.payload, static_cast<uint32_t>(new_image.size()));
  });
  const span_of_time copying =
      shortest([&] { std::memcpy(decoded.data(), new_image.data(), new_image.size()); });
  const auto size = static_cast<double>(new_image.size());
  std::printf("%-20s %9zu %7zu %6u %4zu %3s %2u/%d%d %8.2f %7.1f %8.1f %8.0f\n", name.c_str(),
              new_image.size(), update.payload.size(), update.map_entries, update.kept.size(),
              update.options.reads_new ? "new" : "-", update.options.target.machine,
              update.options.target.code_order == kelvane::ByteOrder::kBig,
              update.options.target.data_order == kelvane::ByteOrder::kBig, seconds,
              decoding.seconds * 1e9 / size, decoding.cycles / size,
              decoding.cycles / copying.cycles);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  kelvane::dense_request request;
  std::printf("%-20s %9s %7s %6s %4s %3s %5s %8s %7s %8s %8s\n", "pair", "new", "payload", "map",
              "kept", "new", "found", "seconds", "ns/byte", "cyc/byte", "x memcpy");
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.rfind("--", 0) != 0) {
      print_pair(word, request);
    } else if (word == "--no-new") {
      request.reads_new = false;
    } else if (i + 1 < argc) {
      const std::string value = argv[++i];
      const auto number = static_cast<uint32_t>(std::atoi(value.c_str()));
      if (word == "--effort") {
        request.effort = value == "quick"  ? kelvane::dense_effort::quick
                         : value == "best" ? kelvane::dense_effort::best
                                           : kelvane::dense_effort::normal;
      } else if (word == "--machine") {
        request.target = kelvane::dense_target{static_cast<uint8_t>(number)};
      } else if (word == "--page") {
        request.geometry.page_size = number;
      } else if (word == "--ring") {
        request.geometry.ring_pages = number;
      } else if (word == "--slots") {
        request.geometry.slots = number;
      } else if (word == "--checkpoint") {
        request.geometry.checkpoint = number;
      } else if (word == "--model") {
        request.model = static_cast<uint8_t>(number);
      } else if (word == "--jobs") {
        request.jobs = number;
      }
    }
  }
  return 0;
}
