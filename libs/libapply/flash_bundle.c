// SPDX-License-Identifier: Apache-2.0
#include "flash_bundle.h"

enum { LARGEST_COUNT = 0xFFFF };  // of pages

uint32_t kelvane_crc32(uint32_t crc, const uint8_t* bytes, uint32_t count) {
  uint32_t i;
  crc = ~crc;
  for (i = 0; i < count; ++i) {
    uint32_t bit;
    crc ^= bytes[i];
    for (bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
  }
  return ~crc;
}

int kelvane_bundle_number(const kelvane_source* source, uint32_t* position, uint32_t* value) {
  uint32_t shift = 0;
  uint8_t byte;
  *value = 0;
  do {
    if (*position >= source->size) {
      return KELVANE_BUNDLE_SIZES;
    }
    if (kelvane_source_read(source, *position, &byte, 1) != 0) {
      return KELVANE_BUNDLE_FETCH;
    }
    if ((shift == 28 && byte > 15) || (shift > 0 && byte == 0)) {
      return KELVANE_BUNDLE_SIZES;
    }
    *value |= (uint32_t)(byte & 127u) << shift;
    shift += 7;
    ++*position;
  } while (byte > 127);
  return KELVANE_BUNDLE_OK;
}

// What the numbers of the header say.
enum number { RING, CHECKPOINT, PAYLOAD, PLAN, BACK, SIGNATURE, NUMBERS };

// Reads those that are there; the others are 0, and a size that is told is not.
static int read_numbers(const kelvane_source* source, uint32_t has, uint32_t* position,
                        uint32_t* numbers) {
  uint32_t i;
  for (i = 0; i < NUMBERS; ++i) {
    int code = KELVANE_BUNDLE_OK;
    numbers[i] = 0;
    if (i < PLAN || (has & (uint32_t)KELVANE_BUNDLE_HAS_PLAN << (i - PLAN)) != 0) {
      code = kelvane_bundle_number(source, position, &numbers[i]);
    }
    if (code == KELVANE_BUNDLE_OK && i >= PLAN && numbers[i] == 0 &&
        (has & (uint32_t)KELVANE_BUNDLE_HAS_PLAN << (i - PLAN)) != 0) {
      code = KELVANE_BUNDLE_SIZES;
    }
    if (code != KELVANE_BUNDLE_OK) {
      return code;
    }
  }
  return numbers[RING] <= LARGEST_COUNT && numbers[CHECKPOINT] <= LARGEST_COUNT
             ? KELVANE_BUNDLE_OK
             : KELVANE_BUNDLE_SIZES;
}

// Cuts off the next `size` bytes; gives 1 if there are not as many.
static int take_part(const kelvane_source* source, uint32_t* position, uint32_t size,
                     kelvane_source* part) {
  if (kelvane_source_part(source, *position, size, part) != 0) {
    return 1;
  }
  *position += size;
  return 0;
}

int kelvane_bundle_read(kelvane_bundle* bundle, const kelvane_source* source) {
  uint8_t fixed[KELVANE_BUNDLE_FIXED_SIZE];
  uint32_t numbers[NUMBERS];
  uint32_t position = KELVANE_BUNDLE_FIXED_SIZE;
  uint32_t i;
  int code;
  if (source->size < KELVANE_BUNDLE_FIXED_SIZE) {
    return KELVANE_BUNDLE_NONE;
  }
  if (kelvane_source_read(source, 0, fixed, KELVANE_BUNDLE_FIXED_SIZE) != 0) {
    return KELVANE_BUNDLE_FETCH;
  }
  if (fixed[0] != 'K' || fixed[1] != 'B') {
    return KELVANE_BUNDLE_NONE;
  }
  if ((fixed[6] & 15u) != KELVANE_BUNDLE_VERSION) {
    return KELVANE_BUNDLE_VERSIONS;
  }
  code = read_numbers(source, fixed[7], &position, numbers);
  if (code != KELVANE_BUNDLE_OK) {
    return code;
  }
  bundle->checksum = 0;
  for (i = 0; i < 4; ++i) {
    bundle->checksum |= (uint32_t)fixed[KELVANE_BUNDLE_CHECKSUM_AT + i] << (8 * i);
  }
  bundle->kind = (uint8_t)(fixed[6] >> 4);
  bundle->page_size = (uint32_t)1 << (fixed[7] & 31u);
  bundle->ring = (uint16_t)numbers[RING];
  bundle->checkpoint = (uint16_t)numbers[CHECKPOINT];
  return take_part(source, &position, numbers[PLAN], &bundle->plan) != 0 ||
                 take_part(source, &position, numbers[PAYLOAD], &bundle->payload) != 0 ||
                 take_part(source, &position, numbers[BACK], &bundle->back) != 0 ||
                 kelvane_source_part(source, 0, position, &bundle->summed) != 0 ||
                 kelvane_source_part(source, position, numbers[SIGNATURE], &bundle->signature) != 0
             ? KELVANE_BUNDLE_SIZES
             : KELVANE_BUNDLE_OK;
}

int kelvane_bundle_check(const kelvane_bundle* bundle, uint8_t* work, uint32_t work_size,
                         void (*alive)(void* context), void* context) {
  uint32_t position = KELVANE_BUNDLE_SUMMED_FROM;
  uint32_t crc = 0;
  while (position < bundle->summed.size) {
    const uint32_t left = bundle->summed.size - position;
    const uint32_t count = left < work_size ? left : work_size;
    if (kelvane_source_read(&bundle->summed, position, work, count) != 0) {
      return KELVANE_BUNDLE_FETCH;
    }
    crc = kelvane_crc32(crc, work, count);
    position += count;
    if (alive != 0) {
      alive(context);
    }
  }
  return crc == bundle->checksum ? KELVANE_BUNDLE_OK : KELVANE_BUNDLE_CHECKSUM;
}
