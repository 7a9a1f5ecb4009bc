#pragma once

// The compressed forms of runs, for all plans of a search. These store much of the same: where two
// images have little in common, three quarters of what was compressed had been so before.

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "optimal_parse.h"

namespace kelvane {

class packed_runs {
 public:
  // `image`: that which the runs are of; stays the caller's.
  explicit packed_runs(std::span<const uint8_t> image) : image_(image) {}

  // Appends the compressed form of `size` bytes at `address` to `packed` and gives how many bytes
  // that are. Appends and gives nothing if they are as many as before or more. Several threads may
  // ask at once, each with a parser of its own.
  std::optional<uint32_t> append(uint32_t address, uint32_t size, optimal_parser& parser,
                                 std::vector<uint8_t>& packed);

 private:
  struct form {
    size_t begin = 0;   // in bytes_
    uint32_t size = 0;  // 0: not worth it
  };
  std::optional<form> find(uint64_t run, std::vector<uint8_t>& packed);
  void keep(uint64_t run, std::span<const uint8_t> packed);

  std::span<const uint8_t> image_;
  std::mutex mutex_;  // for what follows
  std::unordered_map<uint64_t, form> forms_;
  std::vector<uint8_t> bytes_;
};

}  // namespace kelvane
