// SPDX-License-Identifier: Apache-2.0
#pragma once

// The instructions that the plain decoder of dense payloads knows: fields in pieces, branches and
// halves of addresses, all machines.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kelvane::plain_dense {

enum Machine { kNone, kThumb, kArm, kPowerPc, kMips, kRiscv };

// Bits `high` down to `low` of x.
uint32_t field(uint32_t x, int high, int low);
// The number of so many bits with its sign.
uint32_t extended(uint32_t x, int bits);

// A field of an instruction in pieces: where each piece of the number stands.
struct Piece {
  int high;  // in the instruction
  int low;
  int at;  // its lowest bit in the number
};

uint32_t gathered(uint32_t x, std::span<const Piece> pieces);
uint32_t scattered(uint32_t x, uint32_t number, std::span<const Piece> pieces);

struct Branch {
  uint32_t target;
  int form;
};

struct BranchForm {
  std::vector<Piece> pieces;
  int bits;
};

struct Lower {
  uint32_t from;
  uint32_t value;
  bool is_unsigned;
  const std::vector<Piece>* pieces;  // of RISC-V
  int overwrites;                    // -1: none
};

// What one machine's instructions say.
class PlainMachine {
 public:
  const BranchForm* branch_form(uint32_t x, int& form) const;
  uint32_t branch_origin(uint32_t x, uint32_t address, const BranchForm* form) const;
  // Thumb has two bits of a long distance turned round unless its sign is set.
  static uint32_t thumb_bits(uint32_t number);
  std::optional<Branch> branch(uint32_t x, uint32_t address) const;
  uint32_t branched(uint32_t x, uint32_t address, uint32_t target) const;
  const std::vector<Piece>& move_pieces() const;
  bool is_move(uint32_t x, bool upper, uint32_t& number) const;
  bool has_halves() const;
  // The register of an upper half, or -1.
  int upper_register(uint32_t x) const;
  uint32_t upper_value(uint32_t x, uint32_t address) const;
  std::optional<Lower> lower(uint32_t x) const;
  uint32_t code_flip() const { return code_big_ != 0 ? 3 : machine_ == kThumb ? 2 : 0; }

  int machine_ = kNone;
  uint32_t base_ = 0;
  uint32_t code_big_ = 0;
};

}  // namespace kelvane::plain_dense
