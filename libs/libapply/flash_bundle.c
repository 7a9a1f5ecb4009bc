// SPDX-License-Identifier: Apache-2.0
#include "flash_bundle.h"

static const uint8_t magic[4] = {'K', 'E', 'L', 'B'};

static uint32_t half_at(const uint8_t* bytes) {
  return bytes[0] | (uint32_t)bytes[1] << 8;
}

static uint32_t word_at(const uint8_t* bytes) {
  return half_at(bytes) | half_at(bytes + 2) << 16;
}

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

// Cuts off the next `size` bytes of the summed ones; gives 1 if there are not as many.
static int take_part(const kelvane_bundle* bundle, uint32_t* position, uint32_t size,
                     kelvane_source* part) {
  if (kelvane_source_part(&bundle->summed, *position, size, part) != 0) {
    return 1;
  }
  *position += size;
  return 0;
}

int kelvane_bundle_read(kelvane_bundle* bundle, const kelvane_source* source) {
  uint8_t header[KELVANE_BUNDLE_HEADER_SIZE];
  uint32_t position = KELVANE_BUNDLE_HEADER_SIZE;
  uint32_t size;
  uint32_t i;
  if (source->size < KELVANE_BUNDLE_HEADER_SIZE) {
    return KELVANE_BUNDLE_NONE;
  }
  if (kelvane_source_read(source, 0, header, KELVANE_BUNDLE_HEADER_SIZE) != 0) {
    return KELVANE_BUNDLE_FETCH;
  }
  for (i = 0; i < sizeof magic; ++i) {
    if (header[i] != magic[i]) {
      return KELVANE_BUNDLE_NONE;
    }
  }
  if (half_at(header + 4) != KELVANE_BUNDLE_VERSION) {
    return KELVANE_BUNDLE_VERSIONS;
  }
  bundle->kind = header[6];
  bundle->checkpoint = header[7];
  bundle->checksum = word_at(header + 8);
  size = word_at(header + 12);
  bundle->page_size = word_at(header + 20);
  bundle->ring = (uint16_t)half_at(header + 24);
  bundle->slots = (uint16_t)half_at(header + 26);
  bundle->state_size = word_at(header + 40);
  if (kelvane_source_part(source, 0, size, &bundle->summed) != 0 ||
      kelvane_source_part(source, size, word_at(header + 16), &bundle->signature) != 0 ||
      take_part(bundle, &position, word_at(header + 28), &bundle->plan) != 0 ||
      take_part(bundle, &position, word_at(header + 32), &bundle->payload) != 0 ||
      take_part(bundle, &position, word_at(header + 36), &bundle->back) != 0 || position != size) {
    return KELVANE_BUNDLE_SIZES;
  }
  return KELVANE_BUNDLE_OK;
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
