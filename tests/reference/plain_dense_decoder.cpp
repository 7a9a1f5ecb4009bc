// SPDX-License-Identifier: Apache-2.0
#include "plain_dense_decoder.h"

#include <algorithm>
#include <array>
#include <list>

namespace kelvane {
namespace {

struct Refused {};

void require(bool holds) {
  if (!holds) {
    throw Refused();
  }
}

enum Machine { kNone, kThumb, kArm, kPowerPc, kMips, kRiscv };
enum Kind { kByte, kHalf, kWord, kAddress, kBranch, kPool, kUpper, kLower, kDistance };

// Bits `high` down to `low` of x.
uint32_t field(uint32_t x, int high, int low) {
  return static_cast<uint32_t>((uint64_t{x} >> low) & ((uint64_t{1} << (high - low + 1)) - 1));
}

uint32_t extended(uint32_t x, int bits) {
  return field(x, bits - 1, bits - 1) != 0 ? x - static_cast<uint32_t>(uint64_t{1} << bits) : x;
}

// A field of an instruction in pieces: where each piece of the number stands.
struct Piece {
  int high;  // in the instruction
  int low;
  int at;  // its lowest bit in the number
};

uint32_t gathered(uint32_t x, std::span<const Piece> pieces) {
  uint32_t number = 0;
  for (const Piece& piece : pieces) {
    number |= field(x, piece.high, piece.low) << piece.at;
  }
  return number;
}

uint32_t scattered(uint32_t x, uint32_t number, std::span<const Piece> pieces) {
  for (const Piece& piece : pieces) {
    const uint32_t mask = field(~0U, piece.high - piece.low, 0);
    x = (x & ~(mask << piece.low)) | (number >> piece.at & mask) << piece.low;
  }
  return x;
}

struct Branch {
  uint32_t target;
  int form;
};

struct BranchForm {
  std::vector<Piece> pieces;
  int bits;
};

// clang-format off
const BranchForm kThumbLong = {{{26, 26, 24}, {13, 13, 23}, {11, 11, 22}, {25, 16, 12}, {10, 0, 1}}, 25};
const BranchForm kThumbCondition = {{{26, 26, 20}, {11, 11, 19}, {13, 13, 18}, {21, 16, 12}, {10, 0, 1}}, 21};
const BranchForm kArmBranch = {{{23, 0, 2}}, 26};
const BranchForm kPowerPcLong = {{{25, 2, 2}}, 26};
const BranchForm kPowerPcShort = {{{15, 2, 2}}, 16};
const BranchForm kRiscvJump = {{{31, 31, 20}, {19, 12, 12}, {20, 20, 11}, {30, 21, 1}}, 21};
const BranchForm kRiscvBranch = {{{31, 31, 12}, {7, 7, 11}, {30, 25, 5}, {11, 8, 1}}, 13};
const BranchForm kRiscvShortJump = {{{12, 12, 11}, {11, 11, 4}, {10, 9, 8}, {8, 8, 10}, {7, 7, 6}, {6, 6, 7}, {5, 3, 1}, {2, 2, 5}}, 12};
const BranchForm kRiscvShortBranch = {{{12, 12, 8}, {11, 10, 3}, {6, 5, 6}, {4, 3, 1}, {2, 2, 5}}, 9};
const std::vector<Piece> kThumbMove = {{19, 16, 12}, {26, 26, 11}, {14, 12, 8}, {7, 0, 0}};
const std::vector<Piece> kArmMove = {{19, 16, 12}, {11, 0, 0}};
const std::vector<Piece> kRiscvLoad = {{31, 20, 0}};
const std::vector<Piece> kRiscvStore = {{31, 25, 5}, {11, 7, 0}};
// clang-format on

struct Token {
  int kind = kByte;
  uint32_t length = 1;
  uint32_t flip = 0;
  uint32_t old_value = 0;
  uint32_t predicted = 0;
  bool learned = false;
  uint32_t address = 0;
  uint32_t target = 0;
  int form = 0;
  uint32_t number = 0;  // of a register
};

struct Entry {
  uint32_t source, target, length;
};

struct Lower {
  uint32_t from;
  uint32_t value;
  bool is_unsigned;
  const std::vector<Piece>* pieces;  // of RISC-V
  int overwrites;                    // -1: none
};

class PlainDecoder {
 public:
  PlainDecoder(std::span<const uint8_t> old_image, std::span<const uint8_t> payload,
               uint32_t largest)
      : old_(old_image), payload_(payload), largest_(largest) {}

  std::vector<uint8_t> run() {
    read_header();
    for (int i = 0; i < 4; ++i) {
      code_ = code_ << 8 | next();
    }
    counters_.assign(256, {1U << 21, 0});
    hash_bits_ = 8;
    read_map();
    counters_.assign(512U << model_, {1U << 21, 0});
    hash_bits_ = 9 + model_;
    literals_.assign(512U << model_, {1U << 11, 0});
    learned_.assign(32U << model_, {0, 0});
    while (new_.size() < new_size_) {
      read_command();
    }
    return new_;
  }

 private:
  // ---- header and coder

  uint32_t header_byte() {
    require(at_ < payload_.size());
    return payload_[at_++];
  }
  uint32_t header_number() {
    uint64_t number = 0;
    for (int i = 0; i < 5; ++i) {
      const uint32_t byte = header_byte();
      number |= uint64_t{byte & 127} << (7 * i);
      if (byte < 128) {
        require(number <= 0xFFFFFFFF);
        return static_cast<uint32_t>(number);
      }
    }
    throw Refused();
  }
  static uint32_t with_sign(uint32_t z) { return z % 2 == 0 ? z / 2 : 0U - z / 2 - 1; }

  void read_header() {
    const uint32_t kind = header_byte();
    const uint32_t target = header_byte();
    at_ += 8;  // the checksums, which the caller compares
    new_size_ = header_number();
    const uint32_t old_size = new_size_ + with_sign(header_number());
    const uint32_t base = header_number();
    base_ = base << (4 * field(target, 7, 5));
    map_count_ = header_number();
    model_ = field(kind, 5, 4);
    reads_new_ = field(kind, 6, 6) != 0;
    distances_ = field(kind, 7, 7) != 0;
    machine_ = static_cast<int>(field(target, 2, 0));
    code_big_ = field(target, 3, 3);
    data_big_ = field(target, 4, 4);
    require(field(kind, 3, 0) == 1 && model_ <= 1 && machine_ <= kRiscv && map_count_ <= 65535);
    require(base_ >> (4 * field(target, 7, 5)) == base);
    require(new_size_ <= largest_ && old_size == old_.size());
  }

  uint32_t next() { return at_ < payload_.size() ? payload_[at_++] : 0; }

  uint32_t bit(uint32_t bound) {
    const bool is_one = code_ < bound;
    code_ -= is_one ? 0 : bound;
    range_ = is_one ? bound : range_ - bound;
    while (range_ < 1U << 24) {
      range_ <<= 8;
      code_ = code_ << 8 | next();
    }
    return is_one ? 1 : 0;
  }
  uint32_t bit_of(uint32_t p) {
    return bit(static_cast<uint32_t>(uint64_t{range_} * std::clamp(p, 16U, 65520U) >> 16));
  }
  static uint32_t hash(uint32_t x) {
    x *= 0x9E3779B1;
    return x ^ x >> 15;
  }
  uint32_t flag(uint32_t a, uint32_t b) {
    auto& [q, n] = counters_[hash(256 * a + b) >> (32 - hash_bits_)];
    const uint32_t one = bit_of(q >> 6);
    q = one != 0 ? q + (0x3FFFFF - q) / (n + 2) : q - q / (n + 2);
    n = std::min(n + 1, 127U);
    return one;
  }
  uint32_t tree(uint32_t a, uint32_t bits) {
    uint32_t node = 1;
    for (uint32_t i = 0; i < bits; ++i) {
      node = 2 * node + flag(a, node);
    }
    return node - (1U << bits);
  }
  uint32_t number(uint32_t a) {
    uint32_t length = 0;
    while (length < 31 && flag(a, length) != 0) {
      ++length;
    }
    uint32_t v = 1;
    for (uint32_t i = 0; i < length; ++i) {
      v = 2 * v + (i < 2 ? flag(a, 32 + 4 * length + v) : bit(range_ / 2));
    }
    return v - 1;
  }
  uint32_t signed_number(uint32_t a) { return with_sign(number(a)); }
  uint8_t literal(uint32_t position) {
    uint32_t node = 1;
    while (node < 256) {
      auto& [q, n] = literals_[(256 * (position % 4) + node) % literals_.size()];
      const uint32_t one = bit_of(16 * q);
      q = one != 0 ? q + 2 * (4095 - q) / (2 * n + 3) : q - 2 * q / (2 * n + 3);
      n = std::min(n + 1, 15U);
      node = 2 * node + one;
    }
    return static_cast<uint8_t>(node - 256);
  }

  // ---- the map

  uint32_t free_place(uint32_t x) const {
    for (;;) {
      const Entry* lowest = nullptr;
      for (const Entry& entry : entries_) {
        if (x - entry.source < entry.length &&
            (lowest == nullptr || entry.source < lowest->source)) {
          lowest = &entry;
        }
      }
      if (lowest == nullptr) {
        return x;
      }
      x = lowest->source + lowest->length;
    }
  }

  void read_map() {
    std::list<uint32_t> left(6, 0);
    uint32_t target = 0;
    uint32_t source_end = 0;
    for (uint32_t i = 0; i < map_count_; ++i) {
      Entry entry = {};
      const uint32_t gap = number(1);
      const uint32_t expected = free_place(source_end);
      const uint32_t where = tree(2, 3);
      entry.source = expected;
      if (where == 7) {
        entry.source += signed_number(3);
        left.pop_back();
      } else if (where != 0) {
        const auto place = std::next(left.begin(), where - 1);
        entry.source = free_place(*place);
        left.erase(place);
      }
      if (where != 0) {
        left.push_front(expected);
      }
      require(gap < new_size_ - target);
      entry.target = target + gap;
      const uint32_t room = new_size_ - entry.target;
      const auto rest =
          static_cast<uint32_t>(entry.source < old_.size() ? old_.size() - entry.source : 0);
      uint32_t hole = std::min(rest, room);
      uint32_t which = rest == room ? 3 : 2;
      for (const Entry& other : entries_) {
        if (other.source > entry.source && (which > 1 || other.source - entry.source < hole)) {
          hole = other.source - entry.source;
          which = where == 0 ? 1 : 0;
        }
      }
      entry.length = hole != 0 && flag(4, which) != 0 ? hole : number(5) + 1;
      require(entry.length <= room);
      require(entry.source <= old_.size() && entry.length <= old_.size() - entry.source);
      target = entry.target + entry.length;
      source_end = entry.source + entry.length;
      entries_.push_back(entry);
    }
    by_source_ = entries_;
    std::reverse(by_source_.begin(), by_source_.end());
    std::stable_sort(by_source_.begin(), by_source_.end(),
                     [](const Entry& a, const Entry& b) { return a.source > b.source; });
  }

  bool is_inside(uint32_t address) const { return address - base_ <= old_.size(); }

  uint32_t moved(uint32_t address) const {
    const uint32_t o = address - base_;
    const auto first = std::find_if(by_source_.begin(), by_source_.end(),
                                    [&](const Entry& entry) { return entry.source <= o; });
    if (!is_inside(address) || first == by_source_.end()) {
      return address;
    }
    auto found = first;
    for (auto entry = first; entry != by_source_.end() && entry - first < 3; ++entry) {
      if (o - entry->source < entry->length) {
        found = entry;
        break;
      }
    }
    return address + found->target - found->source;
  }

  // ---- commands, literals, matches

  void read_command() {
    const auto position = static_cast<uint32_t>(new_.size());
    const auto entry = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const Entry& each) { return each.target >= position; });
    uint32_t literals = 0;
    uint32_t length = 0;
    uint32_t source = 0;
    if (entry != entries_.end() && flag(1, 0) != 0) {
      literals = entry->target - position;
      length = entry->length;
      source = entry->source;
    } else {
      literals = number(2);
      length = number(3);
      if (length != 0) {
        const uint32_t which = tree(4, 2);
        source = which < 3 ? position + literals - shifts_[which] : source_end_ + signed_number(5);
      }
    }
    const uint32_t room = new_size_ - position;
    require(literals <= room && length <= room - literals);
    require(length != 0 || literals == room);
    require(source <= old_.size() && length <= old_.size() - source);
    while (new_.size() < position + literals) {
      read_literal_or_match(position + literals);
    }
    if (length == 0) {
      return;
    }
    const uint32_t shift = position + literals - source;
    std::vector<uint32_t> shifts = {shift};
    const size_t from = shifts_[0] == shift ? 0 : shifts_[1] == shift ? 1 : 2;
    for (size_t i = 0; i < 3; ++i) {
      if (i != from) {
        shifts.push_back(shifts_[i]);
      }
    }
    shifts_ = shifts;
    match_shift_ = shift;
    source_end_ = source + length;
    while (length != 0) {
      const uint32_t taken = read_token(source, length);
      source += taken;
      length -= taken;
    }
  }

  void read_literal_or_match(uint32_t end) {
    const auto position = static_cast<uint32_t>(new_.size());
    const uint32_t is_match = flag(6, matches_);
    matches_ = (2 * matches_ + is_match) % 8;
    if (is_match == 0) {
      new_.push_back(literal(position));
      return;
    }
    const bool is_new = flag(7, 0) != 0;
    const uint64_t length = uint64_t{number(is_new ? 9 : 8)} + 2;
    if (is_new) {
      if (flag(10, 0) == 0) {
        distance_ = number(11) + 1;
      }
      require(reads_new_ && distance_ != 0 && distance_ <= position && length <= end - position);
      for (uint64_t i = 0; i < length; ++i) {
        new_.push_back(new_[new_.size() - distance_]);
      }
      return;
    }
    uint32_t place = position - match_shift_;
    if (flag(12, 0) == 0) {
      place += signed_number(13);
    }
    match_shift_ = position - place;
    require(length <= end - position && place <= old_.size() && length <= old_.size() - place);
    new_.insert(new_.end(), old_.begin() + place,
                old_.begin() + place + static_cast<int64_t>(length));
  }

  // ---- tokens

  uint32_t value_at(uint32_t place, uint32_t length, uint32_t flip) const {
    uint32_t value = 0;
    for (uint32_t k = 0; k < length; ++k) {
      value |= uint32_t{old_[place + k]} << 8 * (k ^ flip);
    }
    return value;
  }
  uint32_t code_flip() const { return code_big_ != 0 ? 3 : machine_ == kThumb ? 2 : 0; }
  uint32_t code_at(uint32_t place) const { return value_at(place, 4, code_flip()); }

  std::optional<uint32_t> learned_for(uint32_t from) const {
    const auto& slot = learned_[hash(from) >> (27 - model_)];
    return slot.first == from ? std::optional(slot.second) : std::nullopt;
  }
  void learn(uint32_t from, uint32_t to) { learned_[hash(from) >> (27 - model_)] = {from, to}; }
  void find_target(Token& token) const {
    const auto known = learned_for(token.address);
    token.learned = known.has_value();
    token.target = known ? *known : moved(token.address);
  }

  const BranchForm* branch_form(uint32_t x, int& form) const {
    form = 1;
    switch (machine_) {
      case kThumb:
        if (field(x, 31, 27) != 30 || field(x, 15, 15) == 0) {
          return nullptr;
        }
        if (field(x, 14, 14) != 0 || field(x, 12, 12) != 0) {
          return &kThumbLong;
        }
        form = 2;
        return field(x, 25, 23) == 7 ? nullptr : &kThumbCondition;
      case kArm:
        return field(x, 27, 25) == 5 ? &kArmBranch : nullptr;
      case kPowerPc:
        form = field(x, 31, 26) == 18 ? 1 : 2;
        return field(x, 1, 1) != 0      ? nullptr
               : field(x, 31, 26) == 18 ? &kPowerPcLong
               : field(x, 31, 26) == 16 ? &kPowerPcShort
                                        : nullptr;
      case kRiscv:
        if (field(x, 1, 0) == 1) {
          form = field(x, 15, 13) == 5 ? 3 : 4;
          return field(x, 15, 13) == 5   ? &kRiscvShortJump
                 : field(x, 15, 14) == 3 ? &kRiscvShortBranch
                                         : nullptr;
        }
        form = field(x, 6, 0) == 0x6F ? 1 : 2;
        return field(x, 6, 0) == 0x6F   ? &kRiscvJump
               : field(x, 6, 0) == 0x63 ? &kRiscvBranch
                                        : nullptr;
      default:
        return nullptr;
    }
  }
  uint32_t branch_origin(uint32_t x, uint32_t address, const BranchForm* form) const {
    const bool exchanges = form == &kThumbLong && field(x, 14, 14) == 1 && field(x, 12, 12) == 0;
    return (exchanges ? address / 4 * 4 : address) + (machine_ == kThumb ? 4
                                                      : machine_ == kArm ? 8
                                                                         : 0);
  }
  // Thumb has two bits of a long distance turned round unless its sign is set.
  static uint32_t thumb_bits(uint32_t number) {
    return field(number, 24, 24) != 0 ? number : number ^ 3U << 22;
  }
  std::optional<Branch> branch(uint32_t x, uint32_t address) const {
    if (machine_ == kMips) {
      return field(x, 31, 27) == 1
                 ? std::optional(Branch{(base_ & 0xF0000000) | field(x, 25, 0) * 4, 1})
                 : std::nullopt;
    }
    int number = 0;
    const BranchForm* const form = branch_form(x, number);
    if (form == nullptr) {
      return std::nullopt;
    }
    uint32_t distance = gathered(x, form->pieces);
    distance = form == &kThumbLong ? thumb_bits(distance) : distance;
    return Branch{branch_origin(x, address, form) + extended(distance, form->bits), number};
  }
  uint32_t branched(uint32_t x, uint32_t address, uint32_t target) const {
    if (machine_ == kMips) {
      return scattered(x, target, std::array{Piece{25, 0, 2}});
    }
    int number = 0;
    const BranchForm* const form = branch_form(x, number);
    uint32_t distance = target - branch_origin(x, address, form);
    if (machine_ == kThumb) {
      const int sign = form->bits - 1;
      distance = (distance & ~(1U << sign)) | field(distance, 31, 31) << sign;
      distance = form == &kThumbLong ? thumb_bits(distance) : distance;
    }
    return scattered(x, distance, form->pieces);
  }
  bool take_branch(uint32_t x, uint32_t o, uint32_t p, Token& token) const {
    const auto found = branch(x, base_ + o);
    if (!found || !is_inside(found->target)) {
      return false;
    }
    token.kind = kBranch;
    token.flip = code_flip();
    token.old_value = x;
    token.form = found->form;
    token.address = found->target;
    find_target(token);
    token.predicted = branched(x, base_ + p, token.target);
    return true;
  }

  const std::vector<Piece>& move_pieces() const {
    return machine_ == kThumb ? kThumbMove : kArmMove;
  }
  bool is_move(uint32_t x, bool upper, uint32_t& number) const {
    number = machine_ == kThumb ? field(x, 11, 8) : field(x, 15, 12);
    return machine_ == kThumb ? (x & 0xFBF08000) == (upper ? 0xF2C00000 : 0xF2400000)
                              : (x & 0x0FF00000) == (upper ? 0x03400000U : 0x03000000U);
  }
  bool take_move(uint32_t x, uint32_t o, uint32_t left, Token& token) {
    uint32_t number = 0;
    uint32_t other_number = 0;
    const uint32_t half = gathered(x, move_pieces());
    if (is_move(x, false, number)) {
      old_registers_[number] = 1;
      for (uint32_t k = 4; k + 4 <= std::min(left, 40U); k += machine_ == kThumb ? 2 : 4) {
        const uint32_t other = code_at(o + k);
        if (is_move(other, true, other_number) && other_number == number) {
          old_registers_[number] = gathered(other, move_pieces()) << 16 | half;
          token.kind = kLower;
          break;
        }
      }
      if (token.kind != kLower) {
        return false;
      }
    } else if (is_move(x, true, number) && old_registers_[number] != 1 &&
               old_registers_[number] >> 16 == half) {
      token.kind = kUpper;
    } else {
      return false;
    }
    token.flip = code_flip();
    token.old_value = x;
    token.address = old_registers_[number];
    find_target(token);
    token.predicted =
        scattered(x, token.kind == kLower ? token.target : token.target >> 16, move_pieces());
    return true;
  }

  bool has_halves() const {
    return machine_ == kPowerPc || machine_ == kMips || machine_ == kRiscv;
  }
  // The register of an upper half, or -1.
  int upper_register(uint32_t x) const {
    const bool is_upper = machine_ == kRiscv ? (field(x, 6, 0) == 0x37 || field(x, 6, 0) == 0x17) &&
                                                   field(x, 11, 7) != 0
                          : machine_ == kMips ? field(x, 31, 26) == 15
                                              : field(x, 31, 26) == 15 && field(x, 20, 16) == 0;
    return !is_upper            ? -1
           : machine_ == kRiscv ? static_cast<int>(field(x, 11, 7))
           : machine_ == kMips  ? static_cast<int>(field(x, 20, 16))
                                : static_cast<int>(field(x, 25, 21));
  }
  uint32_t upper_value(uint32_t x, uint32_t address) const {
    return machine_ != kRiscv ? x << 16 : (x & 0xFFFFF000) + (field(x, 6, 0) == 0x17 ? address : 0);
  }
  std::optional<Lower> lower(uint32_t x) const {
    const uint32_t top = field(x, 31, 26);
    const int high = static_cast<int>(field(x, 25, 21));
    const int low = static_cast<int>(field(x, 20, 16));
    const uint32_t half = extended(field(x, 15, 0), 16);
    if (machine_ == kRiscv) {
      const uint32_t opcode = field(x, 6, 0);
      const bool adds = (opcode == 0x13 || opcode == 0x1B) && field(x, 14, 12) == 0;
      const bool loads = opcode == 0x03 || opcode == 0x67 || adds;
      const bool stores = opcode == 0x23 || opcode == 0x27;
      if (!loads && !stores && opcode != 0x07) {
        return std::nullopt;
      }
      const auto& pieces = stores ? kRiscvStore : kRiscvLoad;
      return Lower{field(x, 19, 15), extended(gathered(x, pieces), 12), false, &pieces,
                   loads ? static_cast<int>(field(x, 11, 7)) : -1};
    }
    if (machine_ == kMips) {
      if (top != 13 && top != 9 && top < 32) {
        return std::nullopt;
      }
      return Lower{static_cast<uint32_t>(high), top == 13 ? field(x, 15, 0) : half, top == 13,
                   nullptr, top < 40 ? low : -1};
    }
    if (top == 24) {
      return Lower{static_cast<uint32_t>(high), field(x, 15, 0), true, nullptr, low};
    }
    if (top != 14 && (top < 32 || top > 55)) {
      return std::nullopt;
    }
    return Lower{static_cast<uint32_t>(low), half, false, nullptr,
                 top < 36 || (top >= 40 && top <= 43) ? high : -1};
  }
  bool take_half_address(uint32_t x, uint32_t o, uint32_t p, uint32_t left, Token& token) {
    const int number = upper_register(x);
    const bool is_relative = machine_ == kRiscv && field(x, 6, 0) == 0x17;
    if (number >= 0) {
      const uint32_t value = upper_value(x, base_ + o);
      old_registers_[static_cast<size_t>(number)] = value;
      uint32_t at = 4;
      for (int i = 0; i < 12 && at + 4 <= std::min(left, 64U); ++i) {
        const uint32_t other = code_at(o + at);
        if (machine_ == kRiscv && other % 4 != 3) {
          at += 2;
          continue;
        }
        const auto found = lower(other);
        if (found && found->from == static_cast<uint32_t>(number)) {
          token.kind = kUpper;
          token.address = value + found->value;
          find_target(token);
          const uint32_t target = token.target + 0x800 - (is_relative ? base_ + p : 0);
          token.predicted =
              machine_ == kRiscv
                  ? (x & 0xFFF) | (target & 0xFFFFF000)
                  : (x & 0xFFFF0000) | (token.target + (found->is_unsigned ? 0 : 0x8000)) >> 16;
          break;
        }
        at += 4;
      }
      if (token.kind != kUpper) {
        return false;
      }
    } else {
      const auto found = lower(x);
      if (!found) {
        return false;
      }
      const uint32_t upper = old_registers_[found->from];
      if (found->overwrites >= 0) {
        old_registers_[static_cast<size_t>(found->overwrites)] = 1;
      }
      if (upper == 1) {
        return false;
      }
      token.kind = kLower;
      token.number = found->from;
      token.address = upper + found->value;
      find_target(token);
      token.predicted =
          machine_ == kRiscv
              ? scattered(x, token.target - new_registers_[found->from], *found->pieces)
              : (x & 0xFFFF0000) | (token.target & 0xFFFF);
    }
    token.flip = code_flip();
    token.old_value = x;
    return true;
  }

  bool take_address(Token& token) const {
    if (!is_inside(token.old_value)) {
      return false;
    }
    token.kind = kAddress;
    token.address = token.old_value;
    find_target(token);
    token.predicted = token.target;
    return true;
  }
  bool take_learned_word(Token& token) const {
    const auto known = learned_for(token.old_value);
    token.learned = known.has_value();
    token.predicted = known ? *known : token.old_value;
    return token.learned;
  }
  bool take_word(uint32_t o, uint32_t p, Token& token) const {
    token.kind = kWord;
    if (take_learned_word(token)) {
      return true;
    }
    const uint32_t v = token.old_value;
    const uint32_t address = base_ + o + v;
    const uint32_t predicted = v + (moved(address) - address) - (p - o);
    if (!distances_ || v + 64 < 128 || !is_inside(address) || predicted == v) {
      return false;
    }
    token.kind = kDistance;
    token.predicted = predicted;
    return true;
  }
  void take_half(uint32_t o, uint32_t p, Token& token) const {
    token.kind = kHalf;
    token.length = 2;
    token.flip = code_big_;
    token.old_value = token.predicted = value_at(o, 2, code_big_);
    const uint32_t top = field(token.old_value, 15, 11);
    if (machine_ == kThumb && (top == 9 || top == 20)) {
      token.kind = kPool;
      token.address = base_ + (o + 4) / 4 * 4 + 4 * field(token.old_value, 7, 0);
      find_target(token);
      token.learned = false;
      const uint32_t words = (token.target - base_ - (p + 4) / 4 * 4) >> 2;
      if (words < 256) {
        token.predicted = (token.old_value & 0xFF00) | words;
      }
      return;
    }
    if (machine_ == kRiscv && o != tail_) {
      Token other = token;
      if (take_branch(token.old_value, o, p, other) && other.predicted != other.old_value) {
        const auto found = branch(other.predicted, base_ + p);
        if (found && found->target == other.target) {
          other.flip = code_big_;
          token = other;
          return;
        }
      }
    }
    const auto known = learned_for(token.old_value | 0xA5A50000);
    token.learned = known.has_value();
    token.predicted = known ? field(*known, 15, 0) : token.old_value;
  }

  Token classify(uint32_t o, uint32_t left) {
    const auto p = static_cast<uint32_t>(new_.size());
    Token token;
    const bool aligned = (o | p) % 4 == 0 && left >= 4;
    const bool by_halves = machine_ == kThumb || machine_ == kRiscv;
    token.length = 4;
    token.kind = kWord;
    if (by_halves && (o | p) % 2 == 0 && left >= 2) {
      if (machine_ == kThumb && left >= 4 &&
          (take_move(code_at(o), o, left, token) || take_branch(code_at(o), o, p, token))) {
        return token;
      }
      const bool is_long = machine_ == kRiscv && left >= 4 && o != tail_ && code_at(o) % 4 == 3;
      if (is_long && (take_branch(code_at(o), o, p, token) ||
                      take_half_address(code_at(o), o, p, left, token))) {
        return token;
      }
      if (aligned) {
        token.flip = data_big_ != 0 ? 3 : 0;
        token.old_value = value_at(o, 4, token.flip);
        if (take_address(token)) {
          return token;
        }
      }
      if (is_long) {
        const uint32_t x = code_at(o);
        if (upper_register(x) >= 0) {
          token.flip = code_flip();
          token.old_value = x;
          take_learned_word(token);
          return token;
        }
        tail_ = o + 2;
      }
      if (!aligned || !take_word(o, p, token)) {
        take_half(o, p, token);
      }
      return token;
    }
    if (!by_halves && aligned) {
      token.flip = data_big_ != 0 ? 3 : 0;
      token.old_value = value_at(o, 4, token.flip);
      if (take_address(token)) {
        return token;
      }
      if (machine_ != kNone) {
        const uint32_t x = code_at(o);
        if ((machine_ == kArm && take_move(x, o, left, token)) || take_branch(x, o, p, token) ||
            (has_halves() && take_half_address(x, o, p, left, token))) {
          return token;
        }
      }
      take_word(o, p, token);
      return token;
    }
    token.kind = kByte;
    token.length = 1;
    token.old_value = token.predicted = old_[o];
    return token;
  }

  uint32_t read_value(const Token& token, uint32_t p) {
    const bool is_reference =
        token.kind == kAddress || token.kind == kBranch || token.kind == kDistance;
    std::list<uint32_t>& list = differences_[is_reference ? 2 : token.length == 2 ? 1 : 0];
    const uint32_t how = tree(17 + static_cast<uint32_t>(token.kind), 3);
    uint32_t value = token.old_value;
    uint32_t difference = 0;
    auto used = std::prev(list.end());
    if (how == 7) {
      const uint32_t mask = tree(token.length == 4 ? 16 : 15, token.length);
      for (uint32_t k = 0; k < token.length; ++k) {
        if ((mask >> k & 1) != 0) {
          const uint32_t at = 8 * (k ^ token.flip);
          value = (value & ~(0xFFU << at)) | uint32_t{literal(p + k)} << at;
        }
      }
      difference = token.length == 2 ? extended(field(value - token.predicted, 15, 0), 16)
                                     : value - token.predicted;
      if (token.kind == kBranch) {
        const auto found = branch(value, base_ + p);
        difference = found ? found->target - token.target : 0;
      }
    } else {
      if (how < 6) {
        used = std::next(list.begin(), how);
        difference = *used;
      } else {
        difference = signed_number(27 + static_cast<uint32_t>(token.kind));
      }
      value = token.kind == kBranch
                  ? branched(token.old_value, base_ + p, token.target + difference)
                  : token.predicted + difference;
      value = token.length == 2 ? field(value, 15, 0) : value;
    }
    if (difference != 0) {
      list.erase(used);
      list.push_front(difference);
    }
    return value;
  }

  void learn_from(const Token& token, uint32_t p, uint32_t value) {
    if (token.kind == kAddress || token.kind == kWord) {
      learn(token.old_value, value);
    } else if (token.kind == kHalf) {
      learn(token.old_value | 0xA5A50000, value);
    } else if (token.kind == kBranch) {
      if (const auto found = branch(value, base_ + p)) {
        learn(token.address, found->target);
      }
    } else if (token.kind == kLower && !has_halves()) {
      learn(token.address, (token.target & 0xFFFF0000) | gathered(value, move_pieces()));
    } else if (token.kind == kLower) {
      const auto form = lower(token.old_value);
      const uint32_t part = form->pieces != nullptr ? extended(gathered(value, *form->pieces), 12)
                            : form->is_unsigned     ? field(value, 15, 0)
                                                    : extended(field(value, 15, 0), 16);
      learn(token.address, new_registers_[token.number] + part);
    }
  }

  uint32_t read_token(uint32_t o, uint32_t left) {
    const auto p = static_cast<uint32_t>(new_.size());
    const Token token = classify(o, left);
    const auto kind = static_cast<uint32_t>(token.kind);
    const uint32_t group =
        4 * kind + (token.predicted != token.old_value ? 2 : 0) + (token.learned ? 1 : 0);
    const bool is_hit =
        flag(kPredictedContext, 64 * group + 8 * (outcomes_[kind] % 4) + all_outcomes_ % 8) != 0;
    uint32_t value = token.predicted;
    if (!is_hit) {
      if (token.predicted != token.old_value && flag(14, group) != 0) {
        value = token.old_value;
      } else {
        value = token.kind == kByte ? literal(p) : read_value(token, p);
      }
    }
    outcomes_[kind] = 2 * outcomes_[kind] + (is_hit ? 0 : 1);
    all_outcomes_ = 2 * all_outcomes_ + (is_hit ? 0 : 1);
    if (!is_hit) {
      learn_from(token, p, value);
    }
    if (has_halves() && token.length == 4 && upper_register(token.old_value) >= 0) {
      new_registers_[static_cast<size_t>(upper_register(token.old_value))] =
          upper_value(value, base_ + p);
    }
    for (uint32_t k = 0; k < token.length; ++k) {
      new_.push_back(static_cast<uint8_t>(value >> 8 * (k ^ token.flip)));
    }
    return token.length;
  }

  static constexpr uint32_t kPredictedContext = 213;

  std::span<const uint8_t> old_;
  std::span<const uint8_t> payload_;
  uint32_t largest_;
  std::vector<uint8_t> new_;
  size_t at_ = 0;
  uint32_t new_size_ = 0, base_ = 0, map_count_ = 0, model_ = 0, code_big_ = 0, data_big_ = 0;
  int machine_ = kNone;
  bool reads_new_ = false, distances_ = false;
  uint32_t range_ = 0xFFFFFFFF, code_ = 0, hash_bits_ = 8;
  std::vector<std::pair<uint32_t, uint32_t>> counters_, literals_, learned_;
  std::vector<Entry> entries_, by_source_;
  std::vector<uint32_t> shifts_ = {0, 0, 0};
  uint32_t match_shift_ = 0, distance_ = 0, matches_ = 0, source_end_ = 0, tail_ = 1;
  std::array<std::list<uint32_t>, 3> differences_ = {
      std::list<uint32_t>(6, 0), std::list<uint32_t>(6, 0), std::list<uint32_t>(6, 0)};
  std::array<uint32_t, 9> outcomes_ = {};
  uint32_t all_outcomes_ = 0;
  std::vector<uint32_t> old_registers_ = std::vector<uint32_t>(32, 1);
  std::vector<uint32_t> new_registers_ = std::vector<uint32_t>(32, 0);
};

}  // namespace

std::optional<std::vector<uint8_t>> plain_dense_decode(std::span<const uint8_t> old_image,
                                                       std::span<const uint8_t> payload,
                                                       uint32_t largest) {
  try {
    return PlainDecoder(old_image, payload, largest).run();
  } catch (const Refused&) {
    return std::nullopt;
  }
}

}  // namespace kelvane
