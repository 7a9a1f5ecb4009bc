// SPDX-License-Identifier: Apache-2.0
#pragma once

// Fields of instructions that hold the upper or the lower half of an address, by machine: which
// they are, what is in them, and the instruction with something else in them. They are read by
// dense_references.c alone, and stand in a header so that those of machines that are left out
// vanish.

#include "dense_internal.h"

// ---- MOVW and MOVT: each holds a half; the lower one comes first

static uint32_t move_half(const kelvane_dense_decoder* decoder, uint32_t instruction) {
  const uint32_t top = instruction >> 4 & 0xF000u;
  return KELVANE_DENSE_IS(decoder, THUMB) ? top | (instruction >> 15 & 0x800u) |
                                                (instruction >> 4 & 0x700u) | (instruction & 0xFFu)
                                          : top | (instruction & 0xFFFu);
}

static uint32_t move_with(const kelvane_dense_decoder* decoder, uint32_t instruction,
                          uint32_t half) {
  const uint32_t top = (half & 0xF000u) << 4;
  return KELVANE_DENSE_IS(decoder, THUMB)
             ? (instruction & 0xFBF08F00u) | top | (half & 0x800u) << 15 | (half & 0x700u) << 4 |
                   (half & 0xFFu)
             : (instruction & 0xFFF0F000u) | top | (half & 0xFFFu);
}

// Gives 1 for MOVW, 2 for MOVT.
static int move_kind(const kelvane_dense_decoder* decoder, uint32_t instruction, uint32_t* target) {
  if (KELVANE_DENSE_IS(decoder, THUMB)) {
    const uint32_t opcode = instruction & 0xFBF08000u;
    *target = instruction >> 8 & 15u;
    return opcode == 0xF2400000u ? 1 : opcode == 0xF2C00000u ? 2 : 0;
  }
  const uint32_t opcode = instruction & 0x0FF00000u;
  *target = instruction >> 12 & 15u;
  return opcode == 0x03000000u ? 1 : opcode == 0x03400000u ? 2 : 0;
}

// ---- Upper and lower halves of machines whose lower halves are fields of loads, stores, additions

#define NO_REGISTER 32u

// The register that an instruction loads with an upper half.
static uint32_t upper_register(const kelvane_dense_decoder* decoder, uint32_t instruction) {
  if (KELVANE_DENSE_IS(decoder, RISCV)) {
    const uint32_t number = instruction >> 7 & 31u;
    return (instruction & 0x5Fu) == 0x17u && number != 0 ? number : NO_REGISTER;  // LUI, AUIPC
  }
  if (instruction >> 26 != 15) {
    return NO_REGISTER;
  }
  if (KELVANE_DENSE_IS(decoder, MIPS)) {
    return instruction >> 16 & 31u;
  }
  return (instruction >> 16 & 31u) == 0 ? instruction >> 21 & 31u : NO_REGISTER;
}

// What it loads, at target address `place`.
static uint32_t upper_value(const kelvane_dense_decoder* decoder, uint32_t instruction,
                            uint32_t place) {
  if (!KELVANE_DENSE_IS(decoder, RISCV)) {
    return instruction << 16;
  }
  return (instruction & 0xFFFFF000u) + ((instruction & 0x7Fu) == 0x17u ? place : 0);
}

enum lower_form { NOT_LOWER, LOWER_SIGNED, LOWER_UNSIGNED, LOWER_STORE };

// Opcodes of RISC-V, bits 6 to 2, as a set.
#define RISCV_ADDITIONS (1u << 4 | 1u << 6)                 // ADDI, ADDIW
#define RISCV_LOADS (1u << 0 | RISCV_ADDITIONS | 1u << 25)  // that overwrite: loads, JALR
#define RISCV_SIGNED (RISCV_LOADS | 1u << 1)                // and loads of floating point
#define RISCV_STORES (1u << 8 | 1u << 9)

static uint32_t riscv_opcode(uint32_t instruction) {
  return 1u << (instruction >> 2 & 31u);  // an instruction of 32 bits ends in 11
}

// Whether an instruction adds a lower half to a register.
static KELVANE_DENSE_ONCE int lower_form_of(const kelvane_dense_decoder* decoder,
                                            uint32_t instruction) {
  const uint32_t opcode = instruction >> 26;
  if (KELVANE_DENSE_IS(decoder, RISCV)) {
    const uint32_t low = riscv_opcode(instruction);
    if (low & RISCV_STORES) {
      return LOWER_STORE;
    }
    return (low & RISCV_SIGNED) && !((low & RISCV_ADDITIONS) && (instruction & 0x7000u))
               ? LOWER_SIGNED
               : NOT_LOWER;
  }
  if (KELVANE_DENSE_IS(decoder, MIPS)) {
    return opcode == 13 ? LOWER_UNSIGNED : opcode == 9 || opcode >= 32 ? LOWER_SIGNED : NOT_LOWER;
  }
  return opcode == 24                                    ? LOWER_UNSIGNED
         : opcode == 14 || (opcode >= 32 && opcode < 56) ? LOWER_SIGNED
                                                         : NOT_LOWER;
}

// The register that it adds to.
static uint32_t lower_register(const kelvane_dense_decoder* decoder, uint32_t instruction,
                               int form) {
  const unsigned place = KELVANE_DENSE_IS(decoder, RISCV)                            ? 15
                         : KELVANE_DENSE_IS(decoder, MIPS) || form == LOWER_UNSIGNED ? 21
                                                                                     : 16;
  return instruction >> place & 31u;
}

// The register that it overwrites, or NO_REGISTER.
static uint32_t loaded_register(const kelvane_dense_decoder* decoder, uint32_t instruction,
                                int form) {
  const uint32_t opcode = instruction >> 26;
  if (KELVANE_DENSE_IS(decoder, RISCV)) {
    return riscv_opcode(instruction) & RISCV_LOADS ? instruction >> 7 & 31u : NO_REGISTER;
  }
  if (KELVANE_DENSE_IS(decoder, MIPS)) {
    return opcode < 40 ? instruction >> 16 & 31u : NO_REGISTER;
  }
  if (form == LOWER_UNSIGNED) {
    return instruction >> 16 & 31u;
  }
  return opcode < 36 || (opcode >= 40 && opcode < 44) ? instruction >> 21 & 31u : NO_REGISTER;
}

static KELVANE_DENSE_ONCE uint32_t lower_value(const kelvane_dense_decoder* decoder,
                                               uint32_t instruction, int form) {
  if (KELVANE_DENSE_IS(decoder, RISCV)) {
    return kelvane_dense_sign_extended(form == LOWER_STORE
                                           ? (instruction >> 25) << 5 | (instruction >> 7 & 31u)
                                           : instruction >> 20,
                                       12);
  }
  return form == LOWER_UNSIGNED ? instruction & 0xFFFFu
                                : kelvane_dense_sign_extended(instruction, 16);
}

static uint32_t with_lower(const kelvane_dense_decoder* decoder, uint32_t instruction, int form,
                           uint32_t target, uint32_t upper) {
  if (!KELVANE_DENSE_IS(decoder, RISCV)) {
    return (instruction & 0xFFFF0000u) | (target & 0xFFFFu);
  }
  const uint32_t field = target - upper;
  return form == LOWER_STORE
             ? (instruction & 0x01FFF07Fu) | (field >> 5 & 127u) << 25 | (field & 31u) << 7
             : (instruction & 0x000FFFFFu) | field << 20;
}

static uint32_t with_upper(const kelvane_dense_decoder* decoder, uint32_t instruction, int form,
                           uint32_t target, uint32_t place) {
  if (KELVANE_DENSE_IS(decoder, RISCV)) {
    const uint32_t value = target - ((instruction & 0x7Fu) == 0x17u ? place : 0);
    return (instruction & 0xFFFu) | ((value + 0x800u) & 0xFFFFF000u);
  }
  return (instruction & 0xFFFF0000u) | (target + (form == LOWER_UNSIGNED ? 0 : 0x8000u)) >> 16;
}
