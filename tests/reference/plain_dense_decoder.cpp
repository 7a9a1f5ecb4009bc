// SPDX-License-Identifier: Apache-2.0
#include "plain_dense_decoder.h"

#include <algorithm>
#include <array>
#include <list>

#include "plain_dense_coder.h"
#include "plain_dense_machine.h"

namespace kelvane {
namespace plain_dense {
namespace {

enum Kind { kByte, kHalf, kWord, kAddress, kBranch, kPool, kUpper, kLower, kDistance };

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

class PlainDecoder : private PlainCoder, private PlainMachine {
 public:
  PlainDecoder(std::span<const uint8_t> old_image, std::span<const uint8_t> payload,
               uint32_t largest)
      : PlainCoder(payload), old_(old_image), largest_(largest) {}

  std::vector<uint8_t> run() {
    read_header();
    start();
    take_counters(8);
    read_map();
    take_counters(9 + model_);
    take_literals(1024U << model_);
    learned_.assign(32U << model_, {0, 0});
    while (new_.size() < new_size_) {
      read_command();
    }
    return new_;
  }

 private:
  // ---- the header

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
    if (entry != entries_.end() && flag(1, 0, 7) != 0) {
      literals = entry->target - position;
      length = entry->length;
      source = entry->source;
    } else {
      literals = number(2);
      length = number(3);
      source = length != 0 ? source_end_ + signed_number(5) : 0;
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
    match_shift_ = position + literals - source;
    source_end_ = source + length;
    while (length != 0) {
      const uint32_t taken = read_token(source, length);
      source += taken;
      length -= taken;
    }
  }

  // A byte ahead of where the new image goes on, 0 for what a match into it brought.
  uint32_t in_front(size_t distance) const {
    return new_.size() < unknown_end_ + distance ? 0 : new_[new_.size() - distance];
  }

  void read_literal_or_match(uint32_t end) {
    const auto position = static_cast<uint32_t>(new_.size());
    const uint32_t is_match = flag(6, 4 * (position % 4) + matches_);
    matches_ = (2 * matches_ + is_match) % 4;
    if (is_match == 0) {
      new_.push_back(literal(position, in_front(1), in_front(2)));
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
      unknown_end_ = position + static_cast<uint32_t>(length);
      return;
    }
    const uint32_t place = position - match_shift_ + signed_number(13);
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
          const uint32_t e = k == 0 ? in_front(1) : value >> 8 * ((k - 1) ^ token.flip) & 0xFF;
          const uint32_t f = 256 + (token.old_value >> at & 0xFF);
          value = (value & ~(0xFFU << at)) | uint32_t{literal(p + k, e, f)} << at;
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
    const uint32_t outcomes = 8 * (outcomes_[kind] % 4) + all_outcomes_ % 8;
    const bool is_hit = flag(kPredictedContext, 64 * group + outcomes, outcomes == 0 ? 7 : 4) != 0;
    uint32_t value = token.predicted;
    if (!is_hit) {
      if (token.predicted != token.old_value && flag(14, group) != 0) {
        value = token.old_value;
      } else {
        value = token.kind == kByte ? literal(p, in_front(1), 256 + token.old_value)
                                    : read_value(token, p);
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
  uint32_t largest_;
  std::vector<uint8_t> new_;
  uint32_t new_size_ = 0, map_count_ = 0, model_ = 0, data_big_ = 0;
  bool reads_new_ = false, distances_ = false;
  std::vector<std::pair<uint32_t, uint32_t>> learned_;
  std::vector<Entry> entries_, by_source_;
  uint32_t unknown_end_ = 0, match_shift_ = 0, distance_ = 0, matches_ = 0, source_end_ = 0,
           tail_ = 1;
  std::array<std::list<uint32_t>, 3> differences_ = {
      std::list<uint32_t>(6, 0), std::list<uint32_t>(6, 0), std::list<uint32_t>(6, 0)};
  std::array<uint32_t, 9> outcomes_ = {};
  uint32_t all_outcomes_ = 0;
  std::vector<uint32_t> old_registers_ = std::vector<uint32_t>(32, 1);
  std::vector<uint32_t> new_registers_ = std::vector<uint32_t>(32, 0);
};

}  // namespace
}  // namespace plain_dense

std::optional<std::vector<uint8_t>> plain_dense_decode(std::span<const uint8_t> old_image,
                                                       std::span<const uint8_t> payload,
                                                       uint32_t largest) {
  try {
    return plain_dense::PlainDecoder(old_image, payload, largest).run();
  } catch (const plain_dense::Refused&) {
    return std::nullopt;
  }
}

}  // namespace kelvane
