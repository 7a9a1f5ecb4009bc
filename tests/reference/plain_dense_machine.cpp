// SPDX-License-Identifier: Apache-2.0
#include "plain_dense_machine.h"

#include <array>

namespace kelvane::plain_dense {
namespace {

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

}  // namespace

uint32_t field(uint32_t x, int high, int low) {
  return static_cast<uint32_t>((uint64_t{x} >> low) & ((uint64_t{1} << (high - low + 1)) - 1));
}

uint32_t extended(uint32_t x, int bits) {
  return field(x, bits - 1, bits - 1) != 0 ? x - static_cast<uint32_t>(uint64_t{1} << bits) : x;
}

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

const BranchForm* PlainMachine::branch_form(uint32_t x, int& form) const {
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

uint32_t PlainMachine::branch_origin(uint32_t x, uint32_t address, const BranchForm* form) const {
  const bool exchanges = form == &kThumbLong && field(x, 14, 14) == 1 && field(x, 12, 12) == 0;
  return (exchanges ? address / 4 * 4 : address) + (machine_ == kThumb ? 4
                                                    : machine_ == kArm ? 8
                                                                       : 0);
}

uint32_t PlainMachine::thumb_bits(uint32_t number) {
  return field(number, 24, 24) != 0 ? number : number ^ 3U << 22;
}

std::optional<Branch> PlainMachine::branch(uint32_t x, uint32_t address) const {
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

uint32_t PlainMachine::branched(uint32_t x, uint32_t address, uint32_t target) const {
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

const std::vector<Piece>& PlainMachine::move_pieces() const {
  return machine_ == kThumb ? kThumbMove : kArmMove;
}

bool PlainMachine::is_move(uint32_t x, bool upper, uint32_t& number) const {
  number = machine_ == kThumb ? field(x, 11, 8) : field(x, 15, 12);
  return machine_ == kThumb ? (x & 0xFBF08000) == (upper ? 0xF2C00000 : 0xF2400000)
                            : (x & 0x0FF00000) == (upper ? 0x03400000U : 0x03000000U);
}

bool PlainMachine::has_halves() const {
  return machine_ == kPowerPc || machine_ == kMips || machine_ == kRiscv;
}

int PlainMachine::upper_register(uint32_t x) const {
  const bool is_upper = machine_ == kRiscv ? (field(x, 6, 0) == 0x37 || field(x, 6, 0) == 0x17) &&
                                                 field(x, 11, 7) != 0
                        : machine_ == kMips ? field(x, 31, 26) == 15
                                            : field(x, 31, 26) == 15 && field(x, 20, 16) == 0;
  return !is_upper            ? -1
         : machine_ == kRiscv ? static_cast<int>(field(x, 11, 7))
         : machine_ == kMips  ? static_cast<int>(field(x, 20, 16))
                              : static_cast<int>(field(x, 25, 21));
}

uint32_t PlainMachine::upper_value(uint32_t x, uint32_t address) const {
  return machine_ != kRiscv ? x << 16 : (x & 0xFFFFF000) + (field(x, 6, 0) == 0x17 ? address : 0);
}

std::optional<Lower> PlainMachine::lower(uint32_t x) const {
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

}  // namespace kelvane::plain_dense
