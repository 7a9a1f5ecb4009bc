// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the units of the dense decoder share with each other, and with whoever writes a payload: the
// counters, the contexts and the prediction of references have to be the same on both sides.

#include "dense_decoder.h"

#ifdef __cplusplus
extern "C" {
#endif

// For what is to stand in the code once, where a compiler would copy it into each of its callers.
#if defined(__GNUC__)
#define KELVANE_DENSE_ONCE __attribute__((noinline))
#else
#define KELVANE_DENSE_ONCE
#endif

// A decision's context is its number here, in bits 8 and up, what it depends on, below, and in bits
// 28 to 30 how likely it is at first. The map has counters and numbers of its own.
enum kelvane_dense_context {
  KELVANE_DENSE_C_ENTRY = 1,   // flag: the next entry of the map comes next
  KELVANE_DENSE_C_LITERALS,    // number: literals ahead of a copy
  KELVANE_DENSE_C_COPY,        // number: bytes copied
  KELVANE_DENSE_C_SOURCE = 5,  // signed number: from the end of the last source
  KELVANE_DENSE_C_MATCH,       // flag by position and the last two: a match comes next
  KELVANE_DENSE_C_MATCH_NEW,   // flag: from the new image
  KELVANE_DENSE_C_OLD_LENGTH,  // numbers: length of a match
  KELVANE_DENSE_C_NEW_LENGTH,
  KELVANE_DENSE_C_SAME_DISTANCE,    // flag
  KELVANE_DENSE_C_DISTANCE,         // number
  KELVANE_DENSE_C_PLACE = 13,       // signed number: from where the shift points
  KELVANE_DENSE_C_UNCHANGED,        // flag by the token's class: the old value stays
  KELVANE_DENSE_C_MASK,             // trees: bytes that change, of 2 and (one further) of 4
  KELVANE_DENSE_C_CHOICE = 17,      // trees by kind: one of the last differences, or how it is told
  KELVANE_DENSE_C_DIFFERENCE = 27,  // signed numbers by kind
  KELVANE_DENSE_C_PREDICTED = 213,  // flags by class and outcomes, 64 for a class
  KELVANE_DENSE_M_GAP = 1,          // number: target from the end of the last one
  KELVANE_DENSE_M_PLACE,            // tree: source, see kelvane_dense_read_map
  KELVANE_DENSE_M_SOURCE,           // signed number: source from where it was expected
  KELVANE_DENSE_M_WHOLE,            // flag: as long as the hole
  KELVANE_DENSE_M_LENGTH            // number
};

// Lists of what came last have as many entries, the last one first.
#define KELVANE_DENSE_LISTED 6u

// The choices behind "not as predicted": 0 to 5 are the last differences.
#define KELVANE_DENSE_DIFFERENCES KELVANE_DENSE_LISTED
#define KELVANE_DENSE_CHOICE_DIFFERENCE 6u
#define KELVANE_DENSE_CHOICE_BYTES 7u

// The choices of a source in the map: 1 to 6 are the last places left.
#define KELVANE_DENSE_PLACES KELVANE_DENSE_LISTED
#define KELVANE_DENSE_PLACE_NUMBER 7u

enum kelvane_dense_token_kind {
  KELVANE_DENSE_BYTE,
  KELVANE_DENSE_HALF,
  KELVANE_DENSE_WORD,
  KELVANE_DENSE_ADDRESS,  // a word that is an address in the old image
  KELVANE_DENSE_BRANCH,   // an instruction with a target
  KELVANE_DENSE_POOL,     // one that reads a pool of constants nearby
  KELVANE_DENSE_UPPER,    // one with the upper half of an address
  KELVANE_DENSE_LOWER,
  KELVANE_DENSE_DISTANCE,  // a word that is the distance between two places
  KELVANE_DENSE_KINDS
};

// A piece of copied bytes that is predicted whole. Values of `length` bytes; the byte at place k of
// memory holds the 8 bits from bit 8 * (k ^ flip) on.
typedef struct kelvane_dense_token {
  uint8_t kind;
  uint8_t length;
  uint8_t flip;
  uint8_t form;     // which field of an instruction, or which register
  uint8_t learned;  // predicted from what was learned, not by the map
  uint32_t old_value;
  uint32_t predicted;
  uint32_t address;   // what the old value refers to, in target addresses
  uint32_t target;    // what the new one is expected to refer to
  uint32_t source;    // its place in the old image
  uint32_t position;  // and in the new one
  uint32_t left;      // bytes of the copy from here on
} kelvane_dense_token;

static inline void kelvane_dense_fill(void* at, uint8_t value, uint32_t count) {
  uint8_t* const bytes = (uint8_t*)at;
  for (uint32_t i = 0; i < count; ++i) {
    bytes[i] = value;
  }
}

// A decision's context: its number and what else it depends on.
static inline uint32_t kelvane_dense_context_of(uint32_t number, uint32_t rest) {
  return (number << 8) + rest;
}

// How likely 1 is before anything is known, in sixteenths above a half.
#define KELVANE_DENSE_LIKELY 0x40000000u       // 12 of 16
#define KELVANE_DENSE_VERY_LIKELY 0x70000000u  // 15 of 16

// That of the flag which tells that the next entry of the map comes next.
#define KELVANE_DENSE_ENTRY_CONTEXT \
  (kelvane_dense_context_of(KELVANE_DENSE_C_ENTRY, 0) | KELVANE_DENSE_VERY_LIKELY)

// Of the flags that tell the length of a number.
static inline uint32_t kelvane_dense_length_context(uint32_t number, uint32_t length) {
  return kelvane_dense_context_of(number, length) | KELVANE_DENSE_LIKELY;
}

// What a number's bit depends on that has `left` bits behind it, of `length` below the top one: of
// small numbers on all bits so far; the last two of others, which tell how they are aligned, on the
// bit ahead of them. 0 for the rest, which are plain.
static inline uint32_t kelvane_dense_bit_context(uint32_t length, uint32_t left, uint32_t number) {
  return length <= 3 ? 32 + 8 * length + number : left < 2 ? 82 + 2 * left + (number & 1u) : 0;
}

// Of the flag which tells whether a match comes next.
static inline uint32_t kelvane_dense_match_context(uint32_t position, uint32_t matches) {
  return kelvane_dense_context_of(KELVANE_DENSE_C_MATCH, (position & 3u) << 2 | matches);
}

// For places in tables.
uint32_t kelvane_dense_hash(uint32_t number);

// ---- Counters: probability of 1 and how often it was asked
//
// Neither gets so near to 0 or 1 that a bit could not be coded: the steps are rounded down.

// A counter that knows nothing.
#define KELVANE_DENSE_EVEN 0x80000000u

// Flags: 22 bits of probability above 10 bits of count, 255 at most. The first context that uses a
// counter says where it begins.
static inline uint32_t* kelvane_dense_flag_slot(kelvane_dense_decoder* decoder, uint32_t context) {
  kelvane_dense_model* const model = &decoder->state.model;
  return &model->flags[kelvane_dense_hash(context & 0xFFFFu) >> model->flag_shift];
}

static inline uint32_t kelvane_dense_begun(uint32_t counter, uint32_t context) {
  return counter == KELVANE_DENSE_EVEN ? counter | (context & KELVANE_DENSE_VERY_LIKELY) : counter;
}

static inline uint32_t* kelvane_dense_flag_counter(kelvane_dense_decoder* decoder,
                                                   uint32_t context) {
  uint32_t* const counter = kelvane_dense_flag_slot(decoder, context);
  *counter = kelvane_dense_begun(*counter, context);
  return counter;
}

static inline uint32_t kelvane_dense_flag_probability(uint32_t counter) {
  return counter >> 16;
}

// The less likely bit takes a quarter off the count: what was known holds no longer.
static inline uint32_t kelvane_dense_flag_after(uint32_t counter, unsigned bit) {
  uint32_t count = counter & 1023u;
  const uint32_t mirror = 0x3FFFFFu & (0u - bit);  // what is left to 1 in place of 0
  uint32_t probability = counter >> 10 ^ mirror;
  probability -= probability / (count + 2);
  count += count < 255;
  if (bit != counter >> 31) {
    count -= count >> 2;
  }
  return (probability ^ mirror) << 10 | count;
}

// Literals: three counters each say how likely a bit is, by its position, by the byte ahead and by
// another one; their opinions are weighed, and the weights learn. See kelvane_dense_weigh.
typedef struct kelvane_dense_opinions {
  uint8_t* counters[3];  // 5 bits of probability above 3 bits of count
  int16_t* weights;
  int32_t said[3];       // by each, the logarithm of its odds
  uint32_t probability;  // of 1, of 65536
} kelvane_dense_opinions;

// What the bits of a literal depend on: its position, the byte ahead, and the second byte ahead or,
// in a copy, the byte that it replaces and 256. What a match into the new image brought counts as
// 0.
typedef struct kelvane_dense_place {
  uint32_t position;
  uint32_t ahead;
  uint32_t other;
} kelvane_dense_place;

// Asks the counters for the next bit; `node` holds those read so far below a 1.
void kelvane_dense_weigh(kelvane_dense_decoder* decoder, const kelvane_dense_place* place,
                         uint32_t node, kelvane_dense_opinions* opinions);
// The bit turned out to be `bit`.
void kelvane_dense_learn_bit(kelvane_dense_opinions* opinions, unsigned bit);

// The part of `range` that stands for 1.
static inline uint32_t kelvane_dense_bound(uint32_t range, uint32_t probability) {
  return (range >> 16) * probability + ((range & 0xFFFFu) * probability >> 16);
}

// A register whose contents are not known.
#define KELVANE_DENSE_UNKNOWN 1u

// Puts the model to where a pass begins; the map has to be done with by then.
void kelvane_dense_reset_model(kelvane_dense_decoder* decoder);
// Puts the model to where the map begins, which has fewer counters.
void kelvane_dense_begin_map(kelvane_dense_decoder* decoder);

// ---- Reading

// The next byte of the payload.
uint32_t kelvane_dense_next_byte(kelvane_dense_decoder* decoder);
unsigned kelvane_dense_read_flag(kelvane_dense_decoder* decoder, uint32_t context);
uint32_t kelvane_dense_read_tree(kelvane_dense_decoder* decoder, uint32_t id, unsigned bits);
uint32_t kelvane_dense_read_number(kelvane_dense_decoder* decoder, uint32_t id);
uint32_t kelvane_dense_read_signed(kelvane_dense_decoder* decoder, uint32_t id);
// What stands there as a kelvane_dense_place.
uint32_t kelvane_dense_read_literal(kelvane_dense_decoder* decoder, uint32_t position,
                                    uint32_t ahead, uint32_t other);
// Keeps the first failure.
void kelvane_dense_fail(kelvane_dense_decoder* decoder, int code);

// Whether `count` from `from` on lie within `size`.
int kelvane_dense_fits(uint32_t from, uint32_t count, uint32_t size);

// ---- The map

int kelvane_dense_read_map(kelvane_dense_decoder* decoder);
// Files entry `number` in the order of sources; entries below it are filed.
void kelvane_dense_file_entry(kelvane_dense_decoder* decoder, uint32_t number);
// The first old place from `place` on that no entry filed so far (`count`) has.
uint32_t kelvane_dense_free_place(const kelvane_dense_decoder* decoder, uint32_t count,
                                  uint32_t place);
// What an entry with its source at `place` and its target at `target` is likely to be as long as:
// up to the next source above or, if there is none, to where the first of the images ends. 0 if
// there is no room. `*context` is that of the flag which tells whether it is: by what ends it, and
// whether the source was `expected`.
uint32_t kelvane_dense_hole_at(const kelvane_dense_decoder* decoder, uint32_t count, uint32_t place,
                               uint32_t target, int expected, uint32_t* context);
// Whether an address lies in the old image, or just behind it.
int kelvane_dense_is_inside(const kelvane_dense_decoder* decoder, uint32_t address);
// Where what was at `address` of the old image is in the new one.
uint32_t kelvane_dense_moved(const kelvane_dense_decoder* decoder, uint32_t address);

// ---- References

// Which machine it is, where it is known that it is one. The tests of those that are left out fall
// away, and with one built in that of its own too.
#define KELVANE_DENSE_ONE_MACHINE                                                   \
  (KELVANE_DENSE_WITH_THUMB + KELVANE_DENSE_WITH_ARM + KELVANE_DENSE_WITH_POWERPC + \
       KELVANE_DENSE_WITH_MIPS + KELVANE_DENSE_WITH_RISCV ==                        \
   1)
#define KELVANE_DENSE_IS(decoder, MACHINE) \
  (KELVANE_DENSE_WITH_##MACHINE &&         \
   (KELVANE_DENSE_ONE_MACHINE || (decoder)->info.machine == KELVANE_DENSE_##MACHINE))

static inline uint32_t kelvane_dense_sign_extended(uint32_t value, unsigned bits) {
  const uint32_t sign = 1u << (bits - 1);
  return ((value & (2 * sign - 1)) ^ sign) - sign;
}

// Old bytes as a value of `length` bytes.
uint32_t kelvane_dense_old_value(kelvane_dense_decoder* decoder, uint32_t address, uint32_t length,
                                 uint32_t flip);
// The token of the old bytes at `source`, which go to `position`; `left` bytes of the copy remain.
// It does not look beyond them.
void kelvane_dense_classify(kelvane_dense_decoder* decoder, uint32_t source, uint32_t position,
                            uint32_t left, kelvane_dense_token* token);
// The target of an instruction at target address `place`: gives its form, 0 for none. Here and
// below the payload has a machine.
int kelvane_dense_branch_target(const kelvane_dense_decoder* decoder, uint32_t instruction,
                                uint32_t place, uint32_t* target);
// The instruction with another target.
uint32_t kelvane_dense_branch_to(const kelvane_dense_decoder* decoder, uint32_t instruction,
                                 uint32_t place, uint32_t target, int form);
// The token turned out to be `value`: remembers what follows from that. `place` is the target
// address of the new bytes, `hit` whether `value` was predicted.
void kelvane_dense_note(kelvane_dense_decoder* decoder, const kelvane_dense_token* token,
                        uint32_t place, uint32_t value, unsigned hit);
// Moves a difference to the front of its list, from `choice` or, if that is none of the list, from
// outside.
void kelvane_dense_note_difference(uint32_t* list, uint32_t choice, uint32_t difference);

// Puts a value ahead of a list: the one at `place` drops out, or the last if that is none of the
// list.
void kelvane_dense_to_front(uint32_t* list, uint32_t place, uint32_t value);

// What a token's flags depend on.
static inline uint32_t kelvane_dense_class(const kelvane_dense_token* token) {
  return token->kind * 4u + (token->predicted != token->old_value ? 2u : 0u) + token->learned;
}

static inline uint32_t kelvane_dense_predicted_context(const kelvane_dense_decoder* decoder,
                                                       const kelvane_dense_token* token) {
  const kelvane_dense_model* model = &decoder->state.model;
  const uint32_t outcomes = (model->outcomes_of[token->kind] & 3u) << 3 | (model->outcomes & 7u);
  return kelvane_dense_context_of(KELVANE_DENSE_C_PREDICTED,
                                  kelvane_dense_class(token) << 6 | outcomes) |
         (outcomes == 0 ? KELVANE_DENSE_VERY_LIKELY : KELVANE_DENSE_LIKELY);
}

// Which list of differences a token uses.
static inline uint32_t kelvane_dense_list(const kelvane_dense_token* token) {
  const int is_reference = token->kind == KELVANE_DENSE_ADDRESS ||
                           token->kind == KELVANE_DENSE_BRANCH ||
                           token->kind == KELVANE_DENSE_DISTANCE;
  return is_reference ? 2 : token->length == 2 ? 1 : 0;
}

// A difference as it stands in the lists: of halves, with its sign.
static inline uint32_t kelvane_dense_difference(const kelvane_dense_token* token, uint32_t value) {
  const uint32_t difference = value - token->predicted;
  return token->length == 2 ? ((difference & 0xFFFFu) ^ 0x8000u) - 0x8000u : difference;
}

#ifdef __cplusplus
}
#endif
