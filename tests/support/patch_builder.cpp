#include "patch_builder.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstddef>

namespace kelvane {
namespace {

constexpr std::string_view kFrame("\x7FQVR\0\0\0\1\0\0\0\7\0\0\0\0\4\0\0\0", 20);

// Bits from the lowest of each byte up.
class BitWriter {
 public:
  void put(uint32_t count, uint32_t value) {
    for (uint32_t i = 0; i < count; ++i) {
      bits_.push_back(((value >> i) & 1U) != 0);
    }
  }

  std::string finished() const {
    std::string bytes((bits_.size() + 7) / 8, '\0');
    for (size_t i = 0; i < bits_.size(); ++i) {
      if (bits_[i]) {
        bytes[i / 8] = static_cast<char>(static_cast<uint8_t>(bytes[i / 8]) | 1U << (i % 8));
      }
    }
    return bytes;
  }

 private:
  std::vector<bool> bits_;
};

struct Category {
  uint32_t smallest;
  uint32_t bits;
};
constexpr std::array<Category, 7> kCategories{
    {{1, 0}, {2, 1}, {4, 2}, {8, 4}, {24, 8}, {280, 16}, {65816, 32}}};

void put_jump(BitWriter& stream, uint32_t jump, uint32_t map) {
  uint32_t category = 6;
  for (uint32_t i = 0; i < 6; ++i) {
    if (jump >= kCategories[i].smallest && jump < kCategories[i + 1].smallest) {
      category = i;
    }
  }
  uint32_t rank = 0;
  while (((map >> (3 * rank)) & 7U) != category) {
    ++rank;
  }
  stream.put(rank + 1, 1U << rank);
  stream.put(kCategories[category].bits, jump - kCategories[category].smallest);
}

}  // namespace

PatchBuilder& PatchBuilder::byte(uint32_t value) {
  bytes_ += static_cast<char>(static_cast<uint8_t>(value));
  return *this;
}

PatchBuilder& PatchBuilder::half(uint32_t value) {
  const bool big = order_ == Order::kBig;
  return byte(big ? value >> 8 : value).byte(big ? value : value >> 8);
}

PatchBuilder& PatchBuilder::word(uint32_t value) {
  const bool big = order_ == Order::kBig;
  return half(big ? value >> 16 : value).half(big ? value : value >> 16);
}

PatchBuilder& PatchBuilder::bytes(std::string_view data) {
  bytes_ += data;
  return *this;
}

PatchBuilder& PatchBuilder::move(const std::vector<Block>& blocks) {
  byte(3).half(static_cast<uint32_t>(blocks.size()));
  for (const Block& block : blocks) {
    word(block.source).word(block.size).word(block.shift);
  }
  return *this;
}

PatchBuilder& PatchBuilder::substitute(uint32_t code, const Stores& absolute,
                                       const std::vector<Stores>& relative) {
  byte(code).half(static_cast<uint32_t>(relative.size() + 1));
  half(static_cast<uint32_t>(absolute.size()));
  for (const Store& store : absolute) {
    word(store.address);
    if (code != 2) {
      word(static_cast<uint32_t>(store.data.size()));
    }
    bytes(store.data);
  }
  for (const Stores& list : relative) {
    half(static_cast<uint32_t>(list.size())).word(list.front().address);
    uint32_t previous = list.front().address;
    for (const Store& store : list) {
      byte(store.address - previous);
      previous = store.address;
      if (code != 2) {
        byte(static_cast<uint32_t>(store.data.size()));
      }
      bytes(store.data);
    }
  }
  return *this;
}

PatchBuilder& PatchBuilder::fill(const std::vector<Fill>& fills) {
  byte(6).half(static_cast<uint32_t>(fills.size()));
  for (const Fill& fill : fills) {
    word(fill.address).half(fill.size).byte(fill.value);
  }
  return *this;
}

PatchBuilder& PatchBuilder::checksum(const std::vector<Region>& regions, uint32_t sum) {
  byte(4).word(static_cast<uint32_t>(regions.size()));
  for (const Region& region : regions) {
    word(region.start).word(region.end);
  }
  return word(sum);
}

PatchBuilder& PatchBuilder::increments(const std::vector<Class>& classes) {
  BitWriter stream;
  uint32_t previous = 0;
  bool first = true;
  for (const Class& group : classes) {
    const uint32_t delta = group.value - previous;
    const bool long_form = delta == 0 || delta > 0x10000;
    if (first) {
      stream.put(1, long_form ? 1 : 0);
    } else {
      stream.put(long_form ? 9 : 8, long_form ? 0x100 : 0x80);
    }
    stream.put(long_form ? 32 : 16, long_form ? group.value : delta - 1);
    stream.put(1, group.map != 0 ? 1 : 0);
    if (group.map != 0) {
      stream.put(21, group.map);
    }
    uint32_t running = 0;
    for (const uint32_t address : group.addresses) {
      put_jump(stream, (address - running) >> 2, group.map != 0 ? group.map : 0x1AC688);
      running = address;
    }
    previous = group.value;
    first = false;
  }
  stream.put(10, 0x200);
  const std::string finished = stream.finished();
  return byte(7).word(static_cast<uint32_t>(finished.size())).bytes(finished);
}

std::string PatchBuilder::file_fields(std::string_view old_file, std::string_view new_file) const {
  PatchBuilder fields(order_);
  fields.word(patch_checksum(old_file)).word(patch_checksum(new_file));
  fields.word(static_cast<uint32_t>(old_file.size()));
  fields.word(static_cast<uint32_t>(new_file.size()));
  return fields.bytes_;
}

std::string PatchBuilder::version0(std::string_view old_file, std::string_view new_file) const {
  return file_fields(old_file, new_file) + bytes_;
}

std::string PatchBuilder::version1(std::string_view old_file, std::string_view new_file) const {
  PatchBuilder header(order_);
  header.word(1).bytes(file_fields(old_file, new_file));
  header.word(static_cast<uint32_t>(28 + bytes_.size())).word(patch_checksum(bytes_));
  return std::string(kFrame) + header.bytes_ + bytes_;
}

std::string PatchBuilder::version1_memory(uint32_t old_crt1, uint32_t new_crt1) const {
  PatchBuilder body(order_);
  body.word(old_crt1).word(new_crt1).bytes(bytes_);
  PatchBuilder header(order_);
  header.word(1).word(static_cast<uint32_t>(12 + body.bytes_.size()));
  header.word(patch_checksum(body.bytes_));
  return std::string(kFrame) + header.bytes_ + body.bytes_;
}

uint32_t patch_checksum(std::string_view bytes, uint32_t sum) {
  for (const char byte : bytes) {
    sum = std::rotl(sum, 7) + static_cast<uint8_t>(byte);
  }
  return sum;
}

std::string from_hex(std::string_view digits) {
  std::string bytes;
  std::string pair;
  for (const char digit : digits) {
    if (digit == ' ' || digit == '\n') {
      continue;
    }
    pair += digit;
    if (pair.size() == 2) {
      bytes += static_cast<char>(std::stoul(pair, nullptr, 16));
      pair.clear();
    }
  }
  EXPECT_TRUE(pair.empty()) << "an odd number of digits";
  return bytes;
}

}  // namespace kelvane
