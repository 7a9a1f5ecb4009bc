// SPDX-License-Identifier: Apache-2.0
#include "patch_split.h"

#include <algorithm>

namespace kelpatch {
namespace {

// The compressed form: groups of a byte of flags, the first item in bit 0, and up to 8 items: a
// literal (flag 1), or a reference of two bytes, slot and length - 3.
constexpr uint32_t kWindowSize = 4096;
constexpr uint32_t kWindowStart = 4078;
constexpr uint32_t kShortestReference = 3;
constexpr uint32_t kLongestReference = 18;
constexpr size_t kMostCommands = 65535;  // of a list

struct Store {
  uint32_t address;
  Bytes data;
};

// Expands, and notes for each byte how far back it was taken from, or 0.
struct Expanded {
  Bytes bytes;
  std::vector<uint32_t> distances;
};

Expanded expand(const uint8_t* data, uint32_t size) {
  Expanded whole;
  uint32_t position = 0;
  while (position < size) {
    uint32_t flags = data[position++];
    for (uint32_t i = 0; i < 8 && position < size; ++i, flags >>= 1U) {
      if ((flags & 1U) != 0) {
        whole.bytes.push_back(data[position++]);
        whole.distances.push_back(0);
        continue;
      }
      const uint32_t second = data[position + 1];
      const uint32_t slot = data[position] | ((second & 0xF0U) << 4U);
      position += 2;
      const auto at = static_cast<uint32_t>(whole.bytes.size());
      const uint32_t distance = ((kWindowStart + at - slot - 1) % kWindowSize) + 1;
      for (uint32_t left = (second & 0x0FU) + kShortestReference; left > 0; --left) {
        const size_t here = whole.bytes.size();
        const bool in_front = distance > here;
        whole.bytes.push_back(in_front ? uint8_t{0} : whole.bytes[here - distance]);
        whole.distances.push_back(in_front ? 0 : distance);
      }
    }
  }
  return whole;
}

// Puts items together to groups.
class Compressed {
 public:
  void literal(uint8_t byte) {
    open_item(true);
    data_.push_back(byte);
    ++offset_;
  }
  void reference(uint32_t distance, uint32_t length) {
    open_item(false);
    const uint32_t slot = (kWindowStart + offset_ - distance) % kWindowSize;
    data_.push_back(static_cast<uint8_t>(slot & 0xFFU));
    data_.push_back(static_cast<uint8_t>(((slot >> 4U) & 0xF0U) | (length - kShortestReference)));
    offset_ += length;
  }
  Bytes take() { return std::move(data_); }

 private:
  void open_item(bool is_literal) {
    if (items_ % 8 == 0) {
      flags_ = data_.size();
      data_.push_back(0);
    }
    data_[flags_] = static_cast<uint8_t>(data_[flags_] | ((is_literal ? 1U : 0U) << (items_ % 8)));
    ++items_;
  }

  Bytes data_;
  size_t flags_ = 0;
  uint32_t items_ = 0;
  uint32_t offset_ = 0;
};

// Compresses the bytes from `start` to `end` by the references that stay within them.
Bytes piece_of(const Expanded& whole, uint32_t start, uint32_t end) {
  Compressed piece;
  uint32_t at = start;
  while (at < end) {
    const uint32_t distance = whole.distances[at];
    uint32_t length = 0;
    if (distance != 0 && distance <= at - start) {
      while (length < kLongestReference && at + length < end &&
             whole.distances[at + length] == distance) {
        ++length;
      }
    }
    if (length < kShortestReference) {
      piece.literal(whole.bytes[at++]);
    } else {
      piece.reference(distance, length);
      at += length;
    }
  }
  return piece.take();
}

// What a command of compressed stores becomes: the stores that were cut, with all others of their
// lists, as one absolute list; and the other lists as they were.
class SplitCommand {
 public:
  SplitCommand(PatchFile& patch, uint32_t page_size) : patch_(&patch), page_size_(page_size) {}

  void begin_list(const kelvane_item& item, uint32_t position) {
    end_list(position);
    list_ = position;
    relative_ = item.relative != 0;
    is_cut_ = false;
    stores_.clear();
  }

  void store(const kelvane_item& item) {
    const uint8_t* const data = patch_->bytes().data() + item.value;
    const uint32_t behind = item.address + item.size;
    if (item.size == 0 || item.address / page_size_ == (behind - 1) / page_size_) {
      stores_.push_back({item.address, Bytes(data, data + item.count)});
      return;
    }
    is_cut_ = true;
    const Expanded whole = expand(data, item.count);
    for (uint32_t at = item.address; at < behind;) {
      const uint32_t end = std::min(behind, (at / page_size_ + 1) * page_size_);
      stores_.push_back({at, piece_of(whole, at - item.address, end - item.address)});
      at = end;
    }
  }

  // The command, or several where a list would be too long.
  void end(uint32_t position, Bytes& out) {
    end_list(position);
    size_t first = 0;
    do {
      const size_t count = std::min(absolute_.size() - first, kMostCommands);
      out.push_back(KELVANE_CM_SUB_COMP);
      put(out, 1 + (first == 0 ? lists_ : 0), 2);
      put(out, static_cast<uint32_t>(count), 2);
      for (size_t i = first; i < first + count; ++i) {
        put(out, absolute_[i].address, 4);
        put(out, static_cast<uint32_t>(absolute_[i].data.size()), 4);
        out.insert(out.end(), absolute_[i].data.begin(), absolute_[i].data.end());
      }
      if (first == 0) {
        out.insert(out.end(), unchanged_.begin(), unchanged_.end());
      }
      first += count;
    } while (first < absolute_.size());
  }

  bool is_cut() const { return any_cut_; }

  void put(Bytes& out, uint32_t value, uint32_t size) const {
    for (uint32_t i = 0; i < size; ++i) {
      const uint32_t byte = patch_->info().big_endian != 0 ? size - 1 - i : i;
      out.push_back(static_cast<uint8_t>(value >> (8 * byte)));
    }
  }

 private:
  void end_list(uint32_t position) {
    if (list_ == 0) {
      return;
    }
    any_cut_ = any_cut_ || is_cut_;
    if (relative_ && !is_cut_) {
      const auto begin = patch_->bytes().begin();
      unchanged_.insert(unchanged_.end(), begin + list_, begin + position);
      ++lists_;
    } else {
      absolute_.insert(absolute_.end(), stores_.begin(), stores_.end());
    }
  }

  PatchFile* patch_;
  uint32_t page_size_;
  uint32_t list_ = 0;
  bool relative_ = false;
  bool is_cut_ = false;
  bool any_cut_ = false;
  std::vector<Store> stores_;  // of the list at hand
  std::vector<Store> absolute_;
  Bytes unchanged_;
  uint32_t lists_ = 0;
};

// The words that describe the patch itself, in a header of file mode.
constexpr uint32_t kSizePosition = 40;
constexpr uint32_t kSizeLeavesOut = 20;

void describe(Bytes& patch, const SplitCommand& order) {
  Bytes words;
  order.put(words, static_cast<uint32_t>(patch.size()) - kSizeLeavesOut, 4);
  order.put(words,
            kelvane_apply_checksum(0, patch.data() + kSizePosition + 8,
                                   static_cast<uint32_t>(patch.size()) - kSizePosition - 8),
            4);
  std::copy(words.begin(), words.end(), patch.begin() + kSizePosition);
}

}  // namespace

Bytes split_at_pages(PatchFile& patch, uint32_t page_size) {
  const Bytes& bytes = patch.bytes();
  Bytes out(bytes.begin(), bytes.begin() + patch.info().header_size);
  SplitCommand command(patch, page_size);
  uint32_t begin = patch.info().header_size;
  bool compressed = false;
  bool is_cut = false;
  const auto end_command = [&](uint32_t position) {
    Bytes changed;
    if (compressed) {
      command.end(position, changed);
    }
    if (compressed && command.is_cut()) {
      is_cut = true;
      out.insert(out.end(), changed.begin(), changed.end());
    } else {
      out.insert(out.end(), bytes.begin() + begin, bytes.begin() + position);
    }
    begin = position;
  };
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_cursor_start(&cursor, patch.applier());
  while (kelvane_item_next(&cursor, &item) != 0) {
    const uint32_t position = patch.applier()->error_position;
    if (item.kind == KELVANE_ITEM_COMMAND) {
      end_command(position);
      command = SplitCommand(patch, page_size);
      compressed = item.command == KELVANE_CM_SUB_COMP;
    } else if (compressed && item.kind == KELVANE_ITEM_LIST) {
      command.begin_list(item, position);
    } else if (compressed && item.kind == KELVANE_ITEM_STORE) {
      command.store(item);
    }
  }
  end_command(patch.size());
  if (!is_cut) {
    return bytes;
  }
  describe(out, command);
  return out;
}

}  // namespace kelpatch
