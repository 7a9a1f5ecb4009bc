// SPDX-License-Identifier: Apache-2.0
// The way through a payload: header, map, then commands, each some literals and a copy.

#include "dense_decoder.h"

#include <stddef.h>

#include "dense_internal.h"

#define VERSION 1u
#define LARGEST_IMAGE 0x7FFFFFFFu

static uint32_t least(uint32_t first, uint32_t second) {
  return first < second ? first : second;
}

// ---- The header

static uint32_t header_byte(kelvane_dense_decoder* decoder) {
  if (decoder->state.coder.position >= decoder->input->payload_size) {
    kelvane_dense_fail(decoder, KELVANE_DENSE_BAD_HEADER);
  }
  return kelvane_dense_next_byte(decoder);
}

static KELVANE_DENSE_ONCE uint32_t header_word(kelvane_dense_decoder* decoder) {
  uint32_t word = 0;
  for (unsigned shift = 0; shift < 32; shift += 8) {
    word |= header_byte(decoder) << shift;
  }
  return word;
}

// Seven bits a byte, the least first; bit 7 says that more follow.
static uint32_t header_number(kelvane_dense_decoder* decoder) {
  uint32_t number = 0;
  uint32_t byte = 128;
  for (unsigned shift = 0; byte >= 128 && shift < 35; shift += 7) {
    byte = header_byte(decoder);
    if (shift == 28 && byte > 15) {
      kelvane_dense_fail(decoder, KELVANE_DENSE_BAD_HEADER);
    }
    number |= (byte & 127u) << shift;
  }
  return number;
}

static int has_machine(uint32_t machine) {
  const uint32_t built_in = 1u << KELVANE_DENSE_NONE |
                            (uint32_t)KELVANE_DENSE_WITH_THUMB << KELVANE_DENSE_THUMB |
                            (uint32_t)KELVANE_DENSE_WITH_ARM << KELVANE_DENSE_ARM |
                            (uint32_t)KELVANE_DENSE_WITH_POWERPC << KELVANE_DENSE_POWERPC |
                            (uint32_t)KELVANE_DENSE_WITH_MIPS << KELVANE_DENSE_MIPS |
                            (uint32_t)KELVANE_DENSE_WITH_RISCV << KELVANE_DENSE_RISCV;
  return machine < KELVANE_DENSE_MACHINES && (built_in >> machine & 1u) != 0;
}

static int read_header(kelvane_dense_decoder* decoder) {
  kelvane_dense_info* const info = &decoder->info;
  const uint32_t largest =
      decoder->input->largest_image != 0 ? decoder->input->largest_image : LARGEST_IMAGE;
  decoder->state.coder.position = 0;
  const uint32_t kind = header_byte(decoder);
  const uint32_t target = header_byte(decoder);
  const uint32_t shift = target >> 5 << 2;
  info->model = kind >> 4 & 3u;
  info->reads_new = kind >> 6 & 1u;
  info->differences = (uint8_t)(kind >> 7);
  info->machine = target & 7u;
  info->code_big_endian = target >> 3 & 1u;
  info->data_big_endian = target >> 4 & 1u;
  info->old_checksum = header_word(decoder);
  info->new_checksum = header_word(decoder);
  info->new_size = header_number(decoder);
  const uint32_t change = header_number(decoder);
  info->old_size = info->new_size + (change >> 1 ^ (0u - (change & 1u)));
  const uint32_t base = header_number(decoder);
  info->base = base << shift;
  info->map_entries = header_number(decoder);
  if (decoder->state.failed != 0) {
    return decoder->state.failed;
  }
  if ((kind & 15u) != VERSION || info->model > 1 || info->machine >= KELVANE_DENSE_MACHINES ||
      info->base >> shift != base || info->map_entries > 0xFFFFu) {
    return KELVANE_DENSE_BAD_HEADER;
  }
  if (info->new_size > largest || info->old_size > largest ||
      info->model > KELVANE_DENSE_LARGEST_MODEL) {
    return KELVANE_DENSE_NO_ROOM;
  }
  return has_machine(info->machine) ? KELVANE_DENSE_OK : KELVANE_DENSE_NO_MACHINE;
}

static void start_coder(kelvane_dense_decoder* decoder) {
  kelvane_dense_coder* coder = &decoder->state.coder;
  coder->range = 0xFFFFFFFFu;
  coder->code = 0;
  for (unsigned i = 0; i < 4; ++i) {
    coder->code = coder->code << 8 | kelvane_dense_next_byte(decoder);
  }
}

_Static_assert(offsetof(kelvane_dense_decoder, state) == sizeof(kelvane_dense_info),
               "what is saved of a decoder is its first bytes, without a gap");

int kelvane_dense_open(kelvane_dense_decoder* decoder, const kelvane_dense_input* input, void* map,
                       uint32_t map_size, kelvane_dense_info* info) {
  decoder->input = input;
  decoder->behind_map.range = 0;
  decoder->state.failed = KELVANE_DENSE_OK;
  int code = read_header(decoder);
  *info = decoder->info;
  if (code == KELVANE_DENSE_OK && info->map_entries > map_size / 14u) {
    code = KELVANE_DENSE_NO_ROOM;
  }
  if (code == KELVANE_DENSE_OK) {
    decoder->entries = (kelvane_dense_entry*)map;
    if (info->map_entries != 0) {
      decoder->by_source = (uint16_t*)(void*)(decoder->entries + info->map_entries);
    }
    start_coder(decoder);
    code = kelvane_dense_read_map(decoder);
  }
  if (code == KELVANE_DENSE_OK) {
    decoder->behind_map = decoder->state.coder;
  }
  decoder->state.failed = KELVANE_DENSE_BAD_ARGUMENT;
  return code;
}

int kelvane_dense_restart(kelvane_dense_decoder* decoder) {
  kelvane_dense_fill(&decoder->state, 0, sizeof decoder->state);
  kelvane_dense_reset_model(decoder);
  decoder->state.coder = decoder->behind_map;
  return kelvane_dense_resume(decoder);
}

// The header is read again, so that no byte that was saved says how large the images and the model
// are.
int kelvane_dense_resume(kelvane_dense_decoder* decoder) {
  kelvane_dense_state* const state = &decoder->state;
  const uint32_t position = state->coder.position;
  int code = KELVANE_DENSE_BAD_ARGUMENT;
  if (decoder->behind_map.range != 0) {
    code = read_header(decoder);
  }
  if (code != KELVANE_DENSE_OK) {
    kelvane_dense_fail(decoder, code);
  }
  state->coder.position = position;
  state->model.flag_shift = (uint8_t)(23 - decoder->info.model);
  return state->failed;
}

// ---- Commands

static void read_command(kelvane_dense_decoder* decoder) {
  kelvane_dense_state* state = &decoder->state;
  const uint32_t room = decoder->info.new_size - state->position;
  uint32_t literals;
  uint32_t length;
  uint32_t source = 0;
  while (state->next_entry < decoder->entry_count &&
         decoder->entries[state->next_entry].target < state->position) {
    state->next_entry++;
  }
  const kelvane_dense_entry* entry =
      state->next_entry < decoder->entry_count ? &decoder->entries[state->next_entry] : 0;
  if (entry != 0 && kelvane_dense_read_flag(decoder, KELVANE_DENSE_ENTRY_CONTEXT)) {
    literals = entry->target - state->position;
    length = entry->length;
    source = entry->source;
  } else {
    literals = kelvane_dense_read_number(decoder, KELVANE_DENSE_C_LITERALS);
    length = kelvane_dense_read_number(decoder, KELVANE_DENSE_C_COPY);
    if (length != 0) {
      source = state->source_end + kelvane_dense_read_signed(decoder, KELVANE_DENSE_C_SOURCE);
    }
  }
  // No command is empty, and only the last one has no copy.
  if (!kelvane_dense_fits(literals, length, room) || (length == 0 && literals != room) ||
      !kelvane_dense_fits(source, length, decoder->info.old_size)) {
    kelvane_dense_fail(decoder, KELVANE_DENSE_BAD_PAYLOAD);
    return;
  }
  state->literals_end = state->position + literals;
  state->copy_end = state->literals_end + length;
  state->source = source;
}

static void begin_copy(kelvane_dense_state* state) {
  state->model.match_shift = state->position - state->source;
  state->source_end = state->source + (state->copy_end - state->position);
}

static KELVANE_DENSE_ONCE void read_match(kelvane_dense_decoder* decoder) {
  kelvane_dense_state* state = &decoder->state;
  kelvane_dense_model* model = &state->model;
  const uint32_t room = state->literals_end - state->position;
  const unsigned is_new =
      kelvane_dense_read_flag(decoder, kelvane_dense_context_of(KELVANE_DENSE_C_MATCH_NEW, 0));
  const uint32_t rest = kelvane_dense_read_number(decoder, KELVANE_DENSE_C_OLD_LENGTH + is_new);
  uint32_t from;
  int is_right = kelvane_dense_fits(2, rest, room);
  if (is_new) {
    uint32_t distance = model->match_distance;
    if (!kelvane_dense_read_flag(decoder,
                                 kelvane_dense_context_of(KELVANE_DENSE_C_SAME_DISTANCE, 0))) {
      distance = kelvane_dense_read_number(decoder, KELVANE_DENSE_C_DISTANCE) + 1;
    }
    model->match_distance = distance;
    from = state->position - distance;
    is_right = is_right && distance != 0 && distance <= state->position &&
               decoder->info.reads_new && decoder->input->read_new != 0;
  } else {
    from = state->position - model->match_shift +
           kelvane_dense_read_signed(decoder, KELVANE_DENSE_C_PLACE);
    model->match_shift = state->position - from;
    is_right = is_right && kelvane_dense_fits(from, rest + 2, decoder->info.old_size);
  }
  if (!is_right) {
    kelvane_dense_fail(decoder, KELVANE_DENSE_BAD_PAYLOAD);
    return;
  }
  state->match_is_new = (uint8_t)is_new;
  state->match_from = from;
  state->match_left = rest + 2;
}

// ---- Tokens

// Not as predicted: one of the last differences, another one, or the bytes that change.
static uint32_t read_value(kelvane_dense_decoder* decoder, const kelvane_dense_token* token,
                           uint32_t position) {
  const uint32_t place = decoder->info.base + position;
  uint32_t* const list = decoder->state.model.differences[kelvane_dense_list(token)];
  const uint32_t choice = kelvane_dense_read_tree(decoder, KELVANE_DENSE_C_CHOICE + token->kind, 3);
  uint32_t difference;
  uint32_t value;
  if (choice == KELVANE_DENSE_CHOICE_BYTES) {
    const uint32_t mask = kelvane_dense_read_tree(
        decoder, KELVANE_DENSE_C_MASK + (token->length == 4 ? 1u : 0u), token->length);
    uint32_t ahead = decoder->state.recent & 0xFFu;
    value = token->old_value;
    for (uint32_t k = 0; k < token->length; ++k) {
      const uint32_t shift = 8 * (k ^ token->flip);
      const uint32_t old_byte = value >> shift & 0xFFu;
      uint32_t byte = old_byte;
      if (mask >> k & 1u) {
        byte = kelvane_dense_read_literal(decoder, position + k, ahead, 256 + old_byte);
      }
      value ^= (old_byte ^ byte) << shift;
      ahead = byte;
    }
    difference = kelvane_dense_difference(token, value);
    if (token->kind == KELVANE_DENSE_BRANCH) {
      uint32_t target;
      difference =
          kelvane_dense_branch_target(decoder, value, place, &target) ? target - token->target : 0;
    }
  } else {
    difference = choice == KELVANE_DENSE_CHOICE_DIFFERENCE
                     ? kelvane_dense_read_signed(decoder, KELVANE_DENSE_C_DIFFERENCE + token->kind)
                     : list[choice];
    value = token->kind == KELVANE_DENSE_BRANCH
                ? kelvane_dense_branch_to(decoder, token->old_value, place,
                                          token->target + difference, token->form)
                : token->predicted + difference;
    if (token->length == 2) {
      value &= 0xFFFFu;
    }
  }
  kelvane_dense_note_difference(list, choice, difference);
  return value;
}

void kelvane_dense_note_difference(uint32_t* list, uint32_t choice, uint32_t difference) {
  if (difference != 0) {
    kelvane_dense_to_front(list, choice, difference);
  }
}

KELVANE_DENSE_ONCE void kelvane_dense_to_front(uint32_t* list, uint32_t place, uint32_t value) {
  uint32_t k = place < KELVANE_DENSE_LISTED ? place : KELVANE_DENSE_LISTED - 1;
  for (; k != 0; --k) {
    list[k] = list[k - 1];
  }
  list[0] = value;
}

static void read_token(kelvane_dense_decoder* decoder) {
  kelvane_dense_state* state = &decoder->state;
  kelvane_dense_token token;
  kelvane_dense_classify(decoder, state->source, state->position, state->copy_end - state->position,
                         &token);
  uint32_t value = token.predicted;
  const unsigned hit =
      kelvane_dense_read_flag(decoder, kelvane_dense_predicted_context(decoder, &token));
  if (!hit) {
    if (token.predicted != token.old_value &&
        kelvane_dense_read_flag(decoder, kelvane_dense_context_of(KELVANE_DENSE_C_UNCHANGED,
                                                                  kelvane_dense_class(&token)))) {
      value = token.old_value;
    } else if (token.kind == KELVANE_DENSE_BYTE) {
      value = kelvane_dense_read_literal(decoder, state->position, state->recent & 0xFFu,
                                         256 + token.old_value);
    } else {
      value = read_value(decoder, &token, state->position);
    }
  }
  kelvane_dense_note(decoder, &token, decoder->info.base + state->position, value, hit);
  state->pending_count = 0;
  for (uint32_t k = token.length; k-- != 0;) {
    state->pending[state->pending_count++] = (uint8_t)(value >> 8 * (k ^ token.flip));
  }
  state->source += token.length;
}

// ---- Windows

static void copy_match(kelvane_dense_decoder* decoder, uint32_t window, uint8_t* bytes,
                       uint32_t count) {
  kelvane_dense_state* state = &decoder->state;
  const kelvane_dense_input* input = decoder->input;
  uint32_t part = least(count, state->match_left);
  uint8_t* const out = bytes + (state->position - window);
  int code = 0;
  if (!state->match_is_new) {
    code = input->read_old(input->context, state->match_from, out, part);
  } else if (state->match_from < window) {
    part = least(part, window - state->match_from);
    code = input->read_new(input->context, state->match_from, out, part);
  } else {
    for (uint32_t i = 0; i < part; ++i) {
      out[i] = bytes[state->match_from - window + i];
    }
  }
  if (code != 0) {
    kelvane_dense_fail(decoder, code);
  }
  state->match_left -= part;
  state->match_from += part;
  state->position += part;
}

static void read_literal_or_match(kelvane_dense_decoder* decoder, uint8_t* out) {
  kelvane_dense_state* state = &decoder->state;
  const unsigned is_match = kelvane_dense_read_flag(
      decoder, kelvane_dense_match_context(state->position, state->model.matches));
  state->model.matches = (uint8_t)(((uint32_t)state->model.matches << 1 | is_match) & 3u);
  if (is_match) {
    read_match(decoder);
  } else {
    *out = (uint8_t)kelvane_dense_read_literal(decoder, state->position, state->recent & 0xFFu,
                                               (uint32_t)state->recent >> 8);
    state->position++;
  }
}

static void take_pending(kelvane_dense_state* state, uint8_t* out) {
  *out = state->pending[--state->pending_count & 3u];
  state->position++;
}

int kelvane_dense_window(kelvane_dense_decoder* decoder, uint32_t address, uint8_t* bytes,
                         uint32_t count) {
  kelvane_dense_state* state = &decoder->state;
  const uint32_t end = least(decoder->info.new_size, address + count);
  if (address + count < address ||
      (address != state->position && state->position != decoder->info.new_size)) {
    kelvane_dense_fail(decoder, KELVANE_DENSE_BAD_ARGUMENT);
  }
  while (state->failed == 0 && state->position < end) {
    uint32_t made = state->position - address;
    uint8_t* const out = bytes + made;
    // A rehearsal has no new image, and has to come through the payload all the same.
    const int is_unknown = state->match_left != 0 && state->match_is_new;
    if (state->pending_count != 0) {
      take_pending(state, out);
    } else if (state->match_left != 0) {
      copy_match(decoder, address, bytes, end - state->position);
    } else if (state->position < state->literals_end) {
      read_literal_or_match(decoder, out);
    } else if (state->position < state->copy_end) {
      if (state->position == state->literals_end) {
        begin_copy(state);
      }
      read_token(decoder);
    } else {
      read_command(decoder);
    }
    for (; made < state->position - address; ++made) {
      state->recent = (uint16_t)((uint32_t)state->recent << 8 | (is_unknown ? 0u : bytes[made]));
    }
  }
  if (state->failed == 0 && address + count > end) {
    const uint32_t filled = address < end ? end - address : 0;
    kelvane_dense_fill(bytes + filled, 0xFF, count - filled);
  }
  return state->failed;
}
