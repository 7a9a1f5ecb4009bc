// SPDX-License-Identifier: Apache-2.0
// The binary decoder and what is read by it: flags, trees, numbers, literals.

#include "dense_internal.h"

void kelvane_dense_fail(kelvane_dense_decoder* decoder, int code) {
  if (decoder->state.failed == 0) {
    decoder->state.failed = code;
  }
}

// Behind its end the payload goes on with zeros, which the writer leaves out.
static uint32_t next_byte(kelvane_dense_decoder* decoder) {
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

void kelvane_dense_start_coder(kelvane_dense_decoder* decoder) {
  kelvane_dense_coder* coder = &decoder->state.coder;
  coder->range = 0xFFFFFFFFu;
  coder->code = 0;
  coder->position = decoder->info.header_size;
  for (unsigned i = 0; i < 4; ++i) {
    coder->code = coder->code << 8 | next_byte(decoder);
  }
}

static unsigned read_bit(kelvane_dense_decoder* decoder, uint32_t bound) {
  kelvane_dense_coder* coder = &decoder->state.coder;
  const unsigned bit = coder->code < bound;
  if (bit) {
    coder->range = bound;
  } else {
    coder->code -= bound;
    coder->range -= bound;
  }
  while (coder->range < 0x1000000u) {
    coder->range <<= 8;
    coder->code = coder->code << 8 | next_byte(decoder);
  }
  return bit;
}

static KELVANE_DENSE_ONCE unsigned read_likely_bit(kelvane_dense_decoder* decoder,
                                                   uint32_t probability) {
  return read_bit(decoder, kelvane_dense_bound(decoder->state.coder.range, probability));
}

unsigned kelvane_dense_read_flag(kelvane_dense_decoder* decoder, uint32_t context) {
  uint32_t* const counter = kelvane_dense_flag_counter(decoder, context);
  const unsigned bit = read_likely_bit(decoder, kelvane_dense_flag_probability(*counter));
  *counter = kelvane_dense_flag_after(*counter, bit);
  return bit;
}

uint32_t kelvane_dense_read_tree(kelvane_dense_decoder* decoder, uint32_t id, unsigned bits) {
  uint32_t node = 1;
  for (unsigned i = 0; i < bits; ++i) {
    node = node << 1 | kelvane_dense_read_flag(decoder, kelvane_dense_context_of(id, node));
  }
  return node - (1u << bits);
}

// The bit length of number + 1 by ones and a zero, then the bits below its top one: of small
// numbers with counters.
uint32_t kelvane_dense_read_number(kelvane_dense_decoder* decoder, uint32_t id) {
  uint32_t length = 0;
  while (length < 31 &&
         kelvane_dense_read_flag(decoder, kelvane_dense_length_context(id, length))) {
    length++;
  }
  uint32_t number = 1;
  for (uint32_t i = 0; i < length; ++i) {
    const unsigned bit =
        length <= KELVANE_DENSE_SMALL_LENGTH
            ? kelvane_dense_read_flag(decoder, kelvane_dense_bit_context(id, length, number))
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

uint8_t kelvane_dense_read_literal(kelvane_dense_decoder* decoder, uint32_t position) {
  uint32_t node = 1;
  while (node < 256) {
    uint16_t* const counter = kelvane_dense_literal_counter(decoder, position, node);
    const unsigned bit = read_likely_bit(decoder, kelvane_dense_literal_probability(*counter));
    *counter = kelvane_dense_literal_after(*counter, bit);
    node = node << 1 | bit;
  }
  return (uint8_t)node;
}

void kelvane_dense_reset_model(kelvane_dense_decoder* decoder) {
  kelvane_dense_model* model = &decoder->state.model;
  kelvane_dense_fill(model, 0, sizeof *model);
  model->tail = KELVANE_DENSE_UNKNOWN;
  for (uint32_t i = 0; i < sizeof model->flags / sizeof *model->flags; ++i) {
    model->flags[i] = KELVANE_DENSE_EVEN;
  }
  for (uint32_t i = 0; i < sizeof model->literals / sizeof *model->literals; ++i) {
    model->literals[i] = 0x8000u;
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
