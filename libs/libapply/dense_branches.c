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

static int riscv_target(uint32_t instruction, uint32_t place, uint32_t* target) {
  if ((instruction & 0x7Fu) == 0x6Fu) {  // JAL
    const uint32_t field = (instruction >> 31) << 20 | (instruction >> 12 & 0xFFu) << 12 |
                           (instruction >> 20 & 1u) << 11 | (instruction >> 21 & 0x3FFu) << 1;
    *target = place + kelvane_dense_sign_extended(field, 21);
    return 1;
  }
  if ((instruction & 0x7Fu) == 0x63u) {  // BEQ and so on
    const uint32_t field = (instruction >> 31) << 12 | (instruction >> 7 & 1u) << 11 |
                           (instruction >> 25 & 0x3Fu) << 5 | (instruction >> 8 & 15u) << 1;
    *target = place + kelvane_dense_sign_extended(field, 13);
    return 2;
  }
  return 0;
}

static uint32_t riscv_to(uint32_t instruction, uint32_t field, int form) {
  if (form == 1) {
    return (instruction & 0xFFFu) | (field >> 20 & 1u) << 31 | (field >> 1 & 0x3FFu) << 21 |
           (field >> 11 & 1u) << 20 | (field >> 12 & 0xFFu) << 12;
  }
  return (instruction & 0x01FFF07Fu) | (field >> 12 & 1u) << 31 | (field >> 5 & 0x3Fu) << 25 |
         (field >> 1 & 15u) << 8 | (field >> 11 & 1u) << 7;
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
  return KELVANE_DENSE_IS(decoder, RISCV) ? riscv_target(instruction, place, target) : 0;
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
  return KELVANE_DENSE_IS(decoder, RISCV) ? riscv_to(instruction, target - place, form)
                                          : instruction;
}
