// SPDX-License-Identifier: Apache-2.0
#pragma once

// The decoder's own view of an old image, for what is decided on the host: it holds the counters,
// the map and what was learned, and predicts references.

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "dense_internal.h"
#include "dense_plan.h"

namespace kelvane {

class dense_model {
 public:
  // `old_image` and the entries are looked at as long as the model is; the map may be empty.
  dense_model(std::span<const uint8_t> old_image, uint32_t new_size, const dense_options& options,
              std::span<const kelvane_dense_entry> map)
      : old_image_(old_image), entries_(map.begin(), map.end()), by_source_(map.size()) {
    input_ = {this, 0, nullptr, read_old, nullptr, 0};
    decoder_.input = &input_;
    decoder_.info.old_size = static_cast<uint32_t>(old_image.size());
    decoder_.info.new_size = new_size;
    decoder_.info.base = options.target.base;
    decoder_.info.machine = options.target.machine;
    decoder_.info.code_big_endian = options.target.code_order == ByteOrder::kBig ? 1 : 0;
    decoder_.info.data_big_endian = options.target.data_order == ByteOrder::kBig ? 1 : 0;
    decoder_.info.differences = options.differences ? 1 : 0;
    decoder_.info.reads_new = options.reads_new ? 1 : 0;
    decoder_.info.model = options.model;
    decoder_.entries = entries_.data();
    decoder_.by_source = by_source_.data();
    kelvane_dense_reset_model(&decoder_);
  }
  dense_model(const dense_model&) = delete;
  dense_model& operator=(const dense_model&) = delete;

  // Makes all entries of the map known, as they are once the map has been read.
  void file_map() {
    std::vector<uint16_t>& order = by_source_;
    for (size_t i = 0; i < order.size(); ++i) {
      order[i] = static_cast<uint16_t>(i);
    }
    std::stable_sort(order.begin(), order.end(), [&](uint16_t first, uint16_t second) {
      return entries_[first].source < entries_[second].source;
    });
    decoder_.entry_count = static_cast<uint32_t>(order.size());
  }

  kelvane_dense_decoder& decoder() { return decoder_; }

 private:
  static int read_old(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
    const auto& self = *static_cast<const dense_model*>(context);
    std::copy_n(self.old_image_.begin() + address, count, bytes);
    return 0;
  }

  std::span<const uint8_t> old_image_;
  std::vector<kelvane_dense_entry> entries_;
  std::vector<uint16_t> by_source_;
  kelvane_dense_input input_ = {};
  kelvane_dense_decoder decoder_ = {};
};

}  // namespace kelvane
