// SPDX-License-Identifier: Apache-2.0
// The binary decoder and what is read by it: flags, trees, numbers, literals.

#include "dense_internal.h"

void kelvane_dense_fail(kelvane_dense_decoder* decoder, int code) {
  if (decoder->state.failed == 0) {
    decoder->state.failed = code;
  }
}

KELVANE_DENSE_ONCE int kelvane_dense_fits(uint32_t from, uint32_t count, uint32_t size) {
  return from <= size && count <= size - from;
}

// Behind its end the payload goes on with zeros, which the writer leaves out.
uint32_t kelvane_dense_next_byte(kelvane_dense_decoder* decoder) {
  kelvane_dense_coder* coder = &decoder->state.coder;
  uint8_t byte = 0;
  if (coder->position < decoder->input->payload_size) {
    const int code =
        decoder->input->read_payload(decoder->input->context, coder->position, &byte, 1);
    if (code != 0) {
      kelvane_dense_fail(decoder, code);
    }
    coder->position++;
  }
  return byte;
}

static unsigned read_bit(kelvane_dense_decoder* decoder, uint32_t bound) {
  kelvane_dense_coder* coder = &decoder->state.coder;
  unsigned bit = 1;
  if (coder->code >= bound) {
    coder->code -= bound;
    bound = coder->range - bound;
    bit = 0;
  }
  coder->range = bound;
  while (coder->range < 0x1000000u) {
    coder->range <<= 8;
    coder->code = coder->code << 8 | kelvane_dense_next_byte(decoder);
  }
  return bit;
}

static KELVANE_DENSE_ONCE unsigned read_likely_bit(kelvane_dense_decoder* decoder,
                                                   uint32_t probability) {
  return read_bit(decoder, kelvane_dense_bound(decoder->state.coder.range, probability));
}

KELVANE_DENSE_ONCE uint32_t kelvane_dense_hash(uint32_t number) {
  const uint32_t hash = number * 0x9E3779B1u;
  return hash ^ hash >> 15;
}

unsigned kelvane_dense_read_flag(kelvane_dense_decoder* decoder, uint32_t context) {
  uint32_t* const slot = kelvane_dense_flag_slot(decoder, context);
  const uint32_t counter = kelvane_dense_begun(*slot, context);
  const unsigned bit = read_likely_bit(decoder, kelvane_dense_flag_probability(counter));
  *slot = kelvane_dense_flag_after(counter, bit);
  return bit;
}

uint32_t kelvane_dense_read_tree(kelvane_dense_decoder* decoder, uint32_t id, unsigned bits) {
  uint32_t node = 1;
  for (unsigned i = 0; i < bits; ++i) {
    node = node << 1 | kelvane_dense_read_flag(decoder, kelvane_dense_context_of(id, node));
  }
  return node - (1u << bits);
}

// The bit length of number + 1 by ones and a zero, then the bits below its top one.
uint32_t kelvane_dense_read_number(kelvane_dense_decoder* decoder, uint32_t id) {
  uint32_t length = 0;
  while (length < 31 &&
         kelvane_dense_read_flag(decoder, kelvane_dense_length_context(id, length))) {
    length++;
  }
  uint32_t number = 1;
  for (uint32_t left = length; left-- != 0;) {
    const uint32_t rest = kelvane_dense_bit_context(length, left, number);
    const unsigned bit = rest != 0
                             ? kelvane_dense_read_flag(decoder, kelvane_dense_context_of(id, rest))
                             : read_bit(decoder, decoder->state.coder.range >> 1);
    number = number << 1 | bit;
  }
  return number - 1;
}

// 0, -1, 1, -2, ... as 0, 1, 2, 3, ...
uint32_t kelvane_dense_read_signed(kelvane_dense_decoder* decoder, uint32_t id) {
  const uint32_t number = kelvane_dense_read_number(decoder, id);
  return number >> 1 ^ (0u - (number & 1u));
}

// ---- Literals

// 30 ln(p / (1 - p)) for p = (i + 1/2) / 32.
static const int8_t kStretched[32] = {-124, -90, -74, -63, -54, -47, -41, -36, -31, -26, -22,
                                      -17,  -13, -9,  -6,  -2,  2,   6,   9,   13,  17,  22,
                                      26,   31,  36,  41,  47,  54,  63,  74,  90,  124};
// 65536 / (1 + exp(-16 i / 30)).
static const uint16_t kSquashed[17] = {32768, 41305, 48756, 54527, 58596, 61278,
                                       62969, 64005, 64629, 65001, 65221, 65351,
                                       65427, 65472, 65499, 65514, 65523};
// 256 / (n + 3/2): how far a counter goes that was asked n times.
static const uint8_t kSteps[8] = {171, 102, 73, 57, 47, 39, 34, 30};
#define FIRST_WEIGHT 6554  // 0.4
#define WEIGHT_BITS 14
#define LEARNING_BITS 13
#define FARTHEST 255

void kelvane_dense_weigh(kelvane_dense_decoder* decoder, const kelvane_dense_place* place,
                         uint32_t node, kelvane_dense_opinions* opinions) {
  kelvane_dense_model* model = &decoder->state.model;
  const uint32_t half = place->position & 1u;
  const uint32_t contexts[3] = {place->position & 3u, 4 + (place->ahead >> 4 << 1 | half),
                                36 + (place->other >> 4 << 1 | half)};
  int32_t sum = 0;
  opinions->weights = model->weights[place->other >> 8 ? 4 + half : half << 1 | (node > 15)];
  for (unsigned i = 0; i < 3; ++i) {
    const uint32_t hash = kelvane_dense_hash(contexts[i] << 8 | node);
    opinions->counters[i] = &model->literals[hash >> (22 - decoder->info.model)];
    opinions->said[i] = (int32_t)kStretched[*opinions->counters[i] >> 3];
    sum += opinions->weights[i] * opinions->said[i];
  }
  const uint32_t mirror = 0u - (uint32_t)(sum < 0);
  uint32_t size = (((uint32_t)sum ^ mirror) - mirror) >> WEIGHT_BITS;
  size = size < FARTHEST ? size : FARTHEST;
  const uint16_t* const from = &kSquashed[size >> 4];
  const uint32_t likely = from[0] + ((uint32_t)(from[1] - from[0]) * (size & 15u) >> 4);
  opinions->probability = (likely ^ mirror) + (mirror & 0x10001u);
}

// Each counter goes towards the bit, and each weight by how much its counter was for it.
void kelvane_dense_learn_bit(kelvane_dense_opinions* opinions, unsigned bit) {
  const int32_t error = (int32_t)(bit << 16) - (int32_t)opinions->probability;
  const uint32_t mirror = 31u & (0u - bit);
  for (unsigned i = 0; i < 3; ++i) {
    uint8_t* const counter = opinions->counters[i];
    const uint32_t count = *counter & 7u;
    const uint32_t away = (uint32_t)*counter >> 3 ^ mirror;
    const uint32_t left = away - ((away * kSteps[count] + 128) >> 8);
    const int32_t weight = opinions->weights[i] + error * opinions->said[i] / (1 << LEARNING_BITS);
    *counter = (uint8_t)((left ^ mirror) << 3 | (count + (count < 7)));
    opinions->weights[i] = (int16_t)weight;
  }
}

uint32_t kelvane_dense_read_literal(kelvane_dense_decoder* decoder, uint32_t position,
                                    uint32_t ahead, uint32_t other) {
  const kelvane_dense_place place = {position, ahead, other};
  uint32_t node = 1;
  while (node < 256) {
    kelvane_dense_opinions opinions;
    kelvane_dense_weigh(decoder, &place, node, &opinions);
    const unsigned bit = read_likely_bit(decoder, opinions.probability);
    kelvane_dense_learn_bit(&opinions, bit);
    node = node << 1 | bit;
  }
  return node & 0xFFu;
}

void kelvane_dense_reset_model(kelvane_dense_decoder* decoder) {
  kelvane_dense_model* model = &decoder->state.model;
  kelvane_dense_fill(model, 0, sizeof *model);
  model->flag_shift = (uint8_t)(23 - decoder->info.model);
  model->tail = KELVANE_DENSE_UNKNOWN;
  for (uint32_t i = 0; i < sizeof model->flags / sizeof *model->flags; ++i) {
    model->flags[i] = KELVANE_DENSE_EVEN;
  }
  kelvane_dense_fill(model->literals, 128, sizeof model->literals);
  for (uint32_t i = 0; i < 6; ++i) {
    model->weights[i][0] = model->weights[i][1] = model->weights[i][2] = FIRST_WEIGHT;
  }
  for (uint32_t i = 0; i < 32; ++i) {
    model->old_registers[i] = KELVANE_DENSE_UNKNOWN;
  }
}

uint32_t kelvane_dense_checksum(uint32_t sum, const uint8_t* bytes, uint32_t count) {
  static const uint32_t kHalves[16] = {0x00000000u, 0x1DB71064u, 0x3B6E20C8u, 0x26D930ACu,
                                       0x76DC4190u, 0x6B6B51F4u, 0x4DB26158u, 0x5005713Cu,
                                       0xEDB88320u, 0xF00F9344u, 0xD6D6A3E8u, 0xCB61B38Cu,
                                       0x9B64C2B0u, 0x86D3D2D4u, 0xA00AE278u, 0xBDBDF21Cu};
  sum = ~sum;
  for (uint32_t i = 0; i < count; ++i) {
    sum ^= bytes[i];
    sum = sum >> 4 ^ kHalves[sum & 15u];
    sum = sum >> 4 ^ kHalves[sum & 15u];
  }
  return ~sum;
}
