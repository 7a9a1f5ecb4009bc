// SPDX-License-Identifier: Apache-2.0
// What copied bytes refer to, and what they are to become: addresses in data, and the fields of
// instructions that hold one, by machine. An address is first looked up in what was learned (values
// that were put right before), then in the map.

#include "dense_halves.h"
#include "dense_internal.h"

#define HALF_MARK 0xA5A50000u  // tells a learned half from a word
#define NEAR_VALUE 64u         // smaller values are no distances between places
#define LOOK_AHEAD 64u         // bytes behind an upper half in which its lower half is looked for
#define LOOK_AHEAD_COUNT 12u   // and instructions
#define PAIR_AHEAD 40u         // bytes behind a MOVW in which its MOVT is looked for

// Whether one of the machines is built in whose instructions are all words.
#define WITH_WORDS (KELVANE_DENSE_WITH_ARM || KELVANE_DENSE_WITH_POWERPC || KELVANE_DENSE_WITH_MIPS)

static uint32_t code_flip(const kelvane_dense_decoder* decoder) {
  return decoder->info.code_big_endian ? 3 : KELVANE_DENSE_IS(decoder, THUMB) ? 2 : 0;
}

uint32_t kelvane_dense_old_value(kelvane_dense_decoder* decoder, uint32_t address, uint32_t length,
                                 uint32_t flip) {
  uint8_t bytes[4] = {0};
  const int code = decoder->input->read_old(decoder->input->context, address, bytes, length);
  if (code != 0) {
    kelvane_dense_fail(decoder, code);
  }
  uint32_t value = 0;
  for (uint32_t k = 0; k < length; ++k) {
    value |= (uint32_t)bytes[k] << 8 * (k ^ flip);
  }
  return value;
}

// An instruction of 32 bits.
static KELVANE_DENSE_ONCE uint32_t old_code(kelvane_dense_decoder* decoder, uint32_t address) {
  return kelvane_dense_old_value(decoder, address, 4, code_flip(decoder));
}

// ---- What was learned

static uint32_t learned_slot(const kelvane_dense_decoder* decoder, uint32_t from) {
  return kelvane_dense_hash(from) >> (27 - decoder->info.model);
}

static void learn(kelvane_dense_decoder* decoder, uint32_t from, uint32_t to) {
  uint32_t* const learned = decoder->state.model.learned[learned_slot(decoder, from)];
  learned[0] = from;
  learned[1] = to;
}

static KELVANE_DENSE_ONCE int is_learned(const kelvane_dense_decoder* decoder, uint32_t from,
                                         uint32_t* to) {
  const uint32_t* const learned = decoder->state.model.learned[learned_slot(decoder, from)];
  *to = learned[1];
  return learned[0] == from;
}

// Sets where the token's address is expected to be.
static void find_target(const kelvane_dense_decoder* decoder, kelvane_dense_token* token) {
  token->learned = (uint8_t)is_learned(decoder, token->address, &token->target);
  if (!token->learned) {
    token->target = kelvane_dense_moved(decoder, token->address);
  }
}

// An instruction that refers to the token's address.
static void refer(const kelvane_dense_decoder* decoder, uint32_t instruction, int kind,
                  kelvane_dense_token* token) {
  token->kind = (uint8_t)kind;
  token->old_value = instruction;
  token->flip = (uint8_t)code_flip(decoder);
  find_target(decoder, token);
}

// ---- Branches and calls

static int take_branch(kelvane_dense_decoder* decoder, uint32_t instruction,
                       kelvane_dense_token* token) {
  const uint32_t base = decoder->info.base;
  const int form =
      kelvane_dense_branch_target(decoder, instruction, base + token->source, &token->address);
  if (form == 0 || !kelvane_dense_is_inside(decoder, token->address)) {
    return 0;
  }
  token->form = (uint8_t)form;
  refer(decoder, instruction, KELVANE_DENSE_BRANCH, token);
  token->predicted =
      kelvane_dense_branch_to(decoder, instruction, base + token->position, token->target, form);
  return 1;
}

// A branch of 16 bits, if it changes: its target is near, and mostly moves with it.
static int take_short_branch(kelvane_dense_decoder* decoder, kelvane_dense_token* token) {
  const uint32_t instruction = token->old_value;
  uint32_t reached;
  if (!take_branch(decoder, instruction, token)) {
    return 0;
  }
  token->flip = decoder->info.code_big_endian;
  if (token->predicted != instruction &&
      kelvane_dense_branch_target(decoder, token->predicted, decoder->info.base + token->position,
                                  &reached) != 0 &&
      reached == token->target) {
    return 1;
  }
  token->kind = KELVANE_DENSE_HALF;
  token->learned = 0;
  token->predicted = instruction;
  return 0;
}

// ---- Instructions with a half of an address

static int take_move(kelvane_dense_decoder* decoder, uint32_t instruction,
                     kelvane_dense_token* token) {
  uint32_t* const registers = decoder->state.model.old_registers;
  uint32_t number;
  const int kind = move_kind(decoder, instruction, &number);
  if (kind == 0) {
    return 0;
  }
  const uint32_t half = move_half(decoder, instruction);
  if (kind == 1) {
    const uint32_t step = KELVANE_DENSE_IS(decoder, THUMB) ? 2 : 4;
    const uint32_t limit = token->left < PAIR_AHEAD ? token->left : PAIR_AHEAD;
    registers[number] = KELVANE_DENSE_UNKNOWN;
    uint32_t other;
    uint32_t other_number;
    uint32_t k = 4;
    do {
      if (k + 4 > limit) {
        return 0;
      }
      other = old_code(decoder, token->source + k);
      k += step;
    } while (move_kind(decoder, other, &other_number) != 2 || other_number != number);
    registers[number] = move_half(decoder, other) << 16 | half;
  } else if (registers[number] == KELVANE_DENSE_UNKNOWN || registers[number] >> 16 != half) {
    return 0;
  }
  token->address = registers[number];
  refer(decoder, instruction, kind == 1 ? KELVANE_DENSE_LOWER : KELVANE_DENSE_UPPER, token);
  token->predicted =
      move_with(decoder, instruction, kind == 1 ? token->target : token->target >> 16);
  return 1;
}

static int has_halves(const kelvane_dense_decoder* decoder) {
  return KELVANE_DENSE_IS(decoder, POWERPC) || KELVANE_DENSE_IS(decoder, MIPS) ||
         KELVANE_DENSE_IS(decoder, RISCV);
}

// An upper half, which register `number` then holds. The lower half that belongs to it says which
// address is meant: sets that, and gives the form of the lower half.
static int find_lower(kelvane_dense_decoder* decoder, uint32_t instruction, uint32_t number,
                      kelvane_dense_token* token) {
  const uint32_t limit = token->left < LOOK_AHEAD ? token->left : LOOK_AHEAD;
  const uint32_t value = upper_value(decoder, instruction, decoder->info.base + token->source);
  decoder->state.model.old_registers[number] = value;
  uint32_t at = 4;
  for (uint32_t i = 0; i < LOOK_AHEAD_COUNT && at + 4 <= limit; ++i) {
    const uint32_t other = old_code(decoder, token->source + at);
    if (KELVANE_DENSE_IS(decoder, RISCV) && (other & 3u) != 3) {
      at += 2;
      continue;
    }
    const int form = lower_form_of(decoder, other);
    if (form != NOT_LOWER && lower_register(decoder, other, form) == number) {
      token->address = value + lower_value(decoder, other, form);
      return form;
    }
    at += 4;
  }
  return NOT_LOWER;
}

// A lower half: sets which address it belongs to, if its register is known, and gives its form.
static int find_upper(kelvane_dense_decoder* decoder, uint32_t instruction,
                      kelvane_dense_token* token) {
  uint32_t* const registers = decoder->state.model.old_registers;
  const int form = lower_form_of(decoder, instruction);
  if (form == NOT_LOWER) {
    return NOT_LOWER;
  }
  const uint32_t from = lower_register(decoder, instruction, form);
  const uint32_t loaded = loaded_register(decoder, instruction, form);
  const uint32_t upper = registers[from];
  if (loaded != NO_REGISTER) {
    registers[loaded] = KELVANE_DENSE_UNKNOWN;
  }
  if (upper == KELVANE_DENSE_UNKNOWN) {
    return NOT_LOWER;
  }
  token->form = (uint8_t)from;
  token->address = upper + lower_value(decoder, instruction, form);
  return form;
}

static KELVANE_DENSE_ONCE int take_half_address(kelvane_dense_decoder* decoder,
                                                uint32_t instruction, kelvane_dense_token* token) {
  const uint32_t number = upper_register(decoder, instruction);
  const int is_upper = number != NO_REGISTER;
  const int form = is_upper ? find_lower(decoder, instruction, number, token)
                            : find_upper(decoder, instruction, token);
  if (form == NOT_LOWER) {
    return 0;
  }
  refer(decoder, instruction, is_upper ? KELVANE_DENSE_UPPER : KELVANE_DENSE_LOWER, token);
  token->predicted = is_upper ? with_upper(decoder, instruction, form, token->target,
                                           decoder->info.base + token->position)
                              : with_lower(decoder, instruction, form, token->target,
                                           decoder->state.model.new_registers[token->form]);
  return 1;
}

// ---- Words, halves, bytes

static int take_distance(const kelvane_dense_decoder* decoder, kelvane_dense_token* token) {
  const uint32_t address = decoder->info.base + token->source + token->old_value;
  if (!decoder->info.differences || token->old_value + NEAR_VALUE < 2 * NEAR_VALUE ||
      !kelvane_dense_is_inside(decoder, address)) {
    return 0;
  }
  const uint32_t predicted = token->old_value + (kelvane_dense_moved(decoder, address) - address) -
                             (token->position - token->source);
  if (predicted == token->old_value) {
    return 0;
  }
  token->kind = KELVANE_DENSE_DISTANCE;
  token->predicted = predicted;
  return 1;
}

// A word of data: an address, one that was put right before, or a distance.
static int take_address(const kelvane_dense_decoder* decoder, kelvane_dense_token* token) {
  if (!kelvane_dense_is_inside(decoder, token->old_value)) {
    return 0;
  }
  token->kind = KELVANE_DENSE_ADDRESS;
  token->address = token->old_value;
  find_target(decoder, token);
  token->predicted = token->target;
  return 1;
}

static KELVANE_DENSE_ONCE int take_learned_word(const kelvane_dense_decoder* decoder,
                                                kelvane_dense_token* token) {
  token->kind = KELVANE_DENSE_WORD;
  token->learned = (uint8_t)is_learned(decoder, token->old_value, &token->predicted);
  if (!token->learned) {
    token->predicted = token->old_value;
  }
  return token->learned;
}

static int take_other_word(const kelvane_dense_decoder* decoder, kelvane_dense_token* token) {
  return take_learned_word(decoder, token) || take_distance(decoder, token);
}

static KELVANE_DENSE_ONCE void take_half(kelvane_dense_decoder* decoder,
                                         kelvane_dense_token* token) {
  token->kind = KELVANE_DENSE_HALF;
  token->length = 2;
  token->flip = decoder->info.code_big_endian;
  token->old_value = kelvane_dense_old_value(decoder, token->source, 2, token->flip);
  token->predicted = token->old_value;
  const uint32_t opcode = token->old_value & 0xF800u;
  if (KELVANE_DENSE_IS(decoder, THUMB) &&
      (opcode == 0x4800u || opcode == 0xA000u)) {  // LDR literal, ADR
    token->kind = KELVANE_DENSE_POOL;
    token->address =
        decoder->info.base + ((token->source + 4) & ~3u) + (token->old_value & 0xFFu) * 4;
    find_target(decoder, token);
    token->learned = 0;
    const uint32_t words =
        (token->target - decoder->info.base - ((token->position + 4) & ~3u)) >> 2;
    if (words < 256) {
      token->predicted = (token->old_value & 0xFF00u) | words;
    }
    return;
  }
  if (KELVANE_DENSE_IS(decoder, RISCV) && decoder->state.model.tail != token->source &&
      take_short_branch(decoder, token)) {
    return;
  }
  uint32_t predicted;
  if (is_learned(decoder, token->old_value | HALF_MARK, &predicted)) {
    token->learned = 1;
    token->predicted = predicted & 0xFFFFu;
  }
}

// Machines whose instructions begin at any half: an instruction of 32 bits that refers to
// something, a word of data, a half.
static void classify_halves(kelvane_dense_decoder* decoder, kelvane_dense_token* token) {
  const int is_whole = token->left >= 4;
  const int is_word_place = is_whole && !((token->source | token->position) & 3u);
  int is_long = 0;  // a RISC-V instruction of 32 bits
  uint32_t instruction = 0;
  if (is_whole && KELVANE_DENSE_IS(decoder, THUMB)) {
    instruction = old_code(decoder, token->source);
    if (take_move(decoder, instruction, token) || take_branch(decoder, instruction, token)) {
      return;
    }
  }
  // Ahead of addresses: the upper half of an address reads as one that lies near.
  if (is_whole && KELVANE_DENSE_IS(decoder, RISCV) && decoder->state.model.tail != token->source) {
    instruction = old_code(decoder, token->source);
    is_long = (instruction & 3u) == 3;
    if (is_long && (take_branch(decoder, instruction, token) ||
                    take_half_address(decoder, instruction, token))) {
      return;
    }
  }
  if (is_word_place) {
    token->flip = decoder->info.data_big_endian ? 3 : 0;
    token->old_value = kelvane_dense_old_value(decoder, token->source, 4, token->flip);
    if (take_address(decoder, token)) {
      return;
    }
  }
  if (is_long) {
    if (upper_register(decoder, instruction) != NO_REGISTER) {
      token->old_value = instruction;
      token->flip = (uint8_t)code_flip(decoder);
      take_learned_word(decoder, token);
      return;
    }
    decoder->state.model.tail = token->source + 2;
  }
  if (is_word_place && take_other_word(decoder, token)) {
    return;
  }
  take_half(decoder, token);
}

static void classify_words(kelvane_dense_decoder* decoder, kelvane_dense_token* token) {
  token->flip = decoder->info.data_big_endian ? 3 : 0;
  token->old_value = kelvane_dense_old_value(decoder, token->source, 4, token->flip);
  if (take_address(decoder, token)) {
    return;
  }
  if (WITH_WORDS && decoder->info.machine != KELVANE_DENSE_NONE) {
    const uint32_t instruction = decoder->info.code_big_endian == decoder->info.data_big_endian
                                     ? token->old_value
                                     : old_code(decoder, token->source);
    if ((KELVANE_DENSE_IS(decoder, ARM) && take_move(decoder, instruction, token)) ||
        take_branch(decoder, instruction, token) ||
        (has_halves(decoder) && take_half_address(decoder, instruction, token))) {
      return;
    }
  }
  take_other_word(decoder, token);
}

void kelvane_dense_classify(kelvane_dense_decoder* decoder, uint32_t source, uint32_t position,
                            uint32_t left, kelvane_dense_token* token) {
  const uint32_t unaligned = source | position;
  token->source = source;
  token->position = position;
  token->left = left;
  token->address = 0;
  token->target = 0;
  token->form = 0;
  token->learned = 0;
  token->length = 4;
  token->kind = KELVANE_DENSE_WORD;
  if (decoder->info.machine != KELVANE_DENSE_NONE &&
      (KELVANE_DENSE_IS(decoder, THUMB) || KELVANE_DENSE_IS(decoder, RISCV)) && left >= 2 &&
      !(unaligned & 1u)) {
    classify_halves(decoder, token);
  } else if (left >= 4 && !(unaligned & 3u)) {
    classify_words(decoder, token);
  } else {
    token->kind = KELVANE_DENSE_BYTE;
    token->length = 1;
    token->flip = 0;
    token->old_value = kelvane_dense_old_value(decoder, source, 1, 0);
    token->predicted = token->old_value;
  }
}

// What follows from a value that was not predicted.
static void learn_from_miss(kelvane_dense_decoder* decoder, const kelvane_dense_token* token,
                            uint32_t place, uint32_t value) {
  const uint32_t kind = token->kind;
  uint32_t from = token->old_value;
  uint32_t to = value;
  if (kind == KELVANE_DENSE_HALF) {
    from |= HALF_MARK;
  } else if (kind == KELVANE_DENSE_BRANCH) {
    from = token->address;
    if (!kelvane_dense_branch_target(decoder, value, place, &to)) {
      return;
    }
  } else if (kind == KELVANE_DENSE_LOWER) {
    from = token->address;
    to = has_halves(decoder)
             ? decoder->state.model.new_registers[token->form] +
                   lower_value(decoder, value, lower_form_of(decoder, token->old_value))
             : (token->target & 0xFFFF0000u) | move_half(decoder, value);
  } else if (kind != KELVANE_DENSE_ADDRESS && kind != KELVANE_DENSE_WORD) {
    return;
  }
  learn(decoder, from, to);
}

void kelvane_dense_note(kelvane_dense_decoder* decoder, const kelvane_dense_token* token,
                        uint32_t place, uint32_t value, unsigned hit) {
  kelvane_dense_model* const model = &decoder->state.model;
  uint8_t* const outcomes = &model->outcomes_of[token->kind];
  *outcomes = (uint8_t)((uint32_t)*outcomes << 1 | !hit);
  model->outcomes = (uint8_t)((uint32_t)model->outcomes << 1 | !hit);
  if (!hit) {
    learn_from_miss(decoder, token, place, value);
  }
  if (decoder->info.machine != KELVANE_DENSE_NONE && has_halves(decoder) && token->length == 4) {
    const uint32_t number = upper_register(decoder, token->old_value);
    if (number != NO_REGISTER) {
      model->new_registers[number] = upper_value(decoder, value, place);
    }
  }
}
