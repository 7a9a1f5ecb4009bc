#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace kelvane {

// The encoder as plainly as it can be said: byte-wise comparisons, whole arrays set back for each
// piece. What the fast encoder is held against. A fresh object is the encoder at program start; as
// with the fast one, a piece leaves some of its bytes behind for the next.
class PlainEncoder {
 public:
  std::vector<uint8_t> encode(std::span<const uint8_t> source);

 private:
  static constexpr int32_t kWindow = 4096;
  static constexpr int32_t kLongest = 18;
  static constexpr int32_t kShortest = 3;
  static constexpr int32_t kNil = kWindow;

  void init_tree();
  void insert_node(int32_t r);
  void delete_node(int32_t p);
  void replace_child(int32_t old_child, int32_t new_child);

  std::array<uint8_t, kWindow + kLongest - 1> text_buf_{};
  std::array<int32_t, kWindow + 1> lson_{};
  std::array<int32_t, kWindow + 257> rson_{};
  std::array<int32_t, kWindow + 1> dad_{};
  int32_t match_position_ = 0;
  int32_t match_length_ = 0;
};

}  // namespace kelvane
