// SPDX-License-Identifier: Apache-2.0
// Branches and calls by machine: where an instruction goes, and the one that goes elsewhere.

#include "dense_internal.h"

static int thumb_target(uint32_t instruction, uint32_t place, uint32_t* target) {
  const uint32_t first = instruction >> 16;
  const uint32_t second = instruction & 0xFFFFu;
  const uint32_t sign = first >> 10 & 1u;
  if ((first & 0xF800u) != 0xF000u) {
    return 0;
  }
  if ((second & 0xD000u) == 0x8000u) {  // B.W with a condition
    if ((first & 0x380u) == 0x380u) {
      return 0;
    }
    const uint32_t field = sign << 20 | (second >> 11 & 1u) << 19 | (second >> 13 & 1u) << 18 |
                           (first & 63u) << 12 | (second & 0x7FFu) << 1;
    *target = place + 4 + kelvane_dense_sign_extended(field, 21);
    return 2;
  }
  if (!(second & 0x8000u)) {
    return 0;
  }
  const uint32_t field = sign << 24 | (1 ^ (second >> 13 & 1u) ^ sign) << 23 |
                         (1 ^ (second >> 11 & 1u) ^ sign) << 22 | (first & 0x3FFu) << 12 |
                         (second & 0x7FFu) << 1;
  const int exchanges = (second & 0x5000u) == 0x4000u;
  *target = (exchanges ? place & ~3u : place) + 4 + kelvane_dense_sign_extended(field, 25);
  return 1;
}

static uint32_t thumb_to(uint32_t instruction, uint32_t place, uint32_t target, int form) {
  const int exchanges = form == 1 && (instruction & 0x5000u) == 0x4000u;
  const uint32_t field = target - 4 - (exchanges ? place & ~3u : place);
  const uint32_t sign = field >> 31;
  if (form == 2) {
    return (instruction & 0xFBC0D000u) | sign << 26 | (field >> 12 & 63u) << 16 |
           (field >> 18 & 1u) << 13 | (field >> 19 & 1u) << 11 | (field >> 1 & 0x7FFu);
  }
  return (instruction & 0xF800D000u) | sign << 26 | (field >> 12 & 0x3FFu) << 16 |
         (1 ^ (field >> 23 & 1u) ^ sign) << 13 | (1 ^ (field >> 22 & 1u) ^ sign) << 11 |
         (field >> 1 & 0x7FFu);
}

// The pieces of a RISC-V distance: the lowest bit in the instruction and in the distance, and their
// number; by form, from which one on, and the bits of the distance, the last one its sign. C.JAL,
// which instructions of one width alone have, is left out: data look like it too often.
enum { IN_INSTRUCTION = 0, IN_DISTANCE = 1, PIECE_BITS = 2 };
static const uint8_t kRiscvPieces[][3] = {
    {31, 20, 1}, {12, 12, 8}, {20, 11, 1}, {21, 1, 10},                        // JAL
    {31, 12, 1}, {7, 11, 1},  {25, 5, 6},  {8, 1, 4},                          // BEQ and so on
    {12, 11, 1}, {11, 4, 1},  {9, 8, 2},   {8, 10, 1},  {7, 6, 1}, {6, 7, 1},  // C.J
    {3, 1, 3},   {2, 5, 1},   {12, 8, 1},  {10, 3, 2},  {5, 6, 2}, {3, 1, 2},
    {2, 5, 1}};  // C.BEQZ, C.BNEZ
static const uint8_t kRiscvFirst[] = {0, 0, 4, 8, 16, 21};
static const uint8_t kRiscvBits[] = {0, 21, 13, 12, 9};

static int riscv_form(uint32_t instruction) {
  const uint32_t opcode = instruction & 0x7Fu;
  return opcode == 0x6Fu                      ? 1
         : opcode == 0x63u                    ? 2
         : (instruction & 0xE003u) == 0xA001u ? 3
         : (instruction & 0xC003u) == 0xC001u ? 4
                                              : 0;
}

// `to` with the pieces of `from`, which is an instruction or (`side` IN_DISTANCE) a distance, while
// `to` is the other one.
static KELVANE_DENSE_ONCE uint32_t riscv_with_pieces(uint32_t to, uint32_t from, unsigned side,
                                                     int form) {
  for (unsigned i = kRiscvFirst[form]; i < kRiscvFirst[form + 1]; ++i) {
    const uint8_t* const piece = kRiscvPieces[i];
    const uint32_t mask = ((1u << piece[PIECE_BITS]) - 1) << piece[side ^ 1u];
    to = (to & ~mask) | (from >> piece[side] << piece[side ^ 1u] & mask);
  }
  return to;
}

int kelvane_dense_branch_target(const kelvane_dense_decoder* decoder, uint32_t instruction,
                                uint32_t place, uint32_t* target) {
  if (KELVANE_DENSE_IS(decoder, THUMB)) {
    return thumb_target(instruction, place, target);
  }
  if (KELVANE_DENSE_IS(decoder, ARM) && (instruction & 0x0E000000u) == 0x0A000000u) {
    *target = place + 8 + kelvane_dense_sign_extended(instruction << 2, 26);
    return 1;
  }
  if (KELVANE_DENSE_IS(decoder, POWERPC) && !(instruction & 2u)) {
    if (instruction >> 26 == 18) {
      *target = place + kelvane_dense_sign_extended(instruction & 0x3FFFFFCu, 26);
      return 1;
    }
    if (instruction >> 26 == 16) {
      *target = place + kelvane_dense_sign_extended(instruction & 0xFFFCu, 16);
      return 2;
    }
  }
  if (KELVANE_DENSE_IS(decoder, MIPS) && instruction >> 27 == 1) {
    *target = (decoder->info.base & 0xF0000000u) | (instruction & 0x3FFFFFFu) << 2;
    return 1;
  }
  if (KELVANE_DENSE_IS(decoder, RISCV)) {
    const int form = riscv_form(instruction);
    if (form != 0) {
      *target =
          place + kelvane_dense_sign_extended(
                      riscv_with_pieces(0, instruction, IN_INSTRUCTION, form), kRiscvBits[form]);
    }
    return form;
  }
  return 0;
}

uint32_t kelvane_dense_branch_to(const kelvane_dense_decoder* decoder, uint32_t instruction,
                                 uint32_t place, uint32_t target, int form) {
  if (KELVANE_DENSE_IS(decoder, THUMB)) {
    return thumb_to(instruction, place, target, form);
  }
  if (KELVANE_DENSE_IS(decoder, ARM)) {
    return (instruction & 0xFF000000u) | ((target - place - 8) >> 2 & 0xFFFFFFu);
  }
  if (KELVANE_DENSE_IS(decoder, POWERPC)) {
    const uint32_t field = form == 1 ? 0x3FFFFFCu : 0xFFFCu;
    return (instruction & ~field) | ((target - place) & field);
  }
  if (KELVANE_DENSE_IS(decoder, MIPS)) {
    return (instruction & 0xFC000000u) | (target >> 2 & 0x3FFFFFFu);
  }
  return KELVANE_DENSE_IS(decoder, RISCV)
             ? riscv_with_pieces(instruction, target - place, IN_DISTANCE, form)
             : instruction;
}
