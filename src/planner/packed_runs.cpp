#include "packed_runs.h"

namespace kelvane {
namespace {

// Shorter ones are compressed again as fast as they are found.
constexpr uint32_t kLeastKept = 64;
// Their room is made at once: growing, it would be there twice for a while.
constexpr uint32_t kLongRun = uint32_t{1} << 20U;

}  // namespace

std::optional<packed_runs::form> packed_runs::find(uint64_t run, std::vector<uint8_t>& packed) {
  const std::lock_guard<std::mutex> hold(mutex_);
  const auto known = forms_.find(run);
  if (known == forms_.end()) {
    return std::nullopt;
  }
  const auto begin = bytes_.begin() + static_cast<ptrdiff_t>(known->second.begin);
  packed.insert(packed.end(), begin, begin + known->second.size);
  return known->second;
}

// Keeps no more than the image has, for memory's sake.
void packed_runs::keep(uint64_t run, std::span<const uint8_t> packed) {
  const std::lock_guard<std::mutex> hold(mutex_);
  if (bytes_.size() + packed.size() <= image_.size()) {
    forms_.emplace(run, form{bytes_.size(), static_cast<uint32_t>(packed.size())});
    bytes_.insert(bytes_.end(), packed.begin(), packed.end());
  }
}

std::optional<uint32_t> packed_runs::append(uint32_t address, uint32_t size, optimal_parser& parser,
                                            std::vector<uint8_t>& packed) {
  const uint64_t run = (uint64_t{address} << 32U) + size;
  const bool is_kept = size >= kLeastKept;
  std::optional<form> known = is_kept ? find(run, packed) : std::nullopt;
  if (!known) {
    const size_t begin = packed.size();
    if (size >= kLongRun) {
      packed.reserve(begin + size + size / 8 + 1);
    }
    parser.append_packed(image_.subspan(address, size), packed);
    if (packed.size() - begin >= size) {
      packed.resize(begin);
    }
    known = {begin, static_cast<uint32_t>(packed.size() - begin)};
    if (is_kept) {
      keep(run, std::span(packed).subspan(begin));
    }
  }
  return known->size == 0 ? std::nullopt : std::optional(known->size);
}

}  // namespace kelvane
