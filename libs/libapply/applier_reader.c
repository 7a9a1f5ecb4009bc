// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The layout of the header in both versions, as offsets from the start of the patch.
enum {
  V0_HEADER_SIZE = 16,
  SIGNATURE_SIZE = 4,
  FRAME_SIZE = 20,  // what stands ahead of `version`, and what patch_size leaves out
  FILE_SIZE_POSITION = 40,
  FILE_HEADER_SIZE = 48,
  MEMORY_SIZE_POSITION = 24,
  MEMORY_HEADER_SIZE = 40
};

// The frame of version 1 is the same in every patch.
static const uint8_t frame[FRAME_SIZE] = {
    0x7F, 'Q', 'V', 'R',  // signature
    0,    0,   0,   1,    // version of the frame
    0,    0,   0,   7,    // file type: a patch
    0,    0,   0,   0,    // file version
    4,    0,   0,   0     // 32-bit addresses, no descriptors, no raw arrays
};

// ---- Bytes of the patch -------------------------------------------------------------------------

uint32_t kelvane_apply_checksum(uint32_t sum, const uint8_t* bytes, uint32_t count) {
  uint32_t i;
  for (i = 0; i < count; ++i) {
    sum = ((sum << 7) | (sum >> 25)) + bytes[i];
  }
  return sum;
}

uint8_t kelvane_apply_byte(kelvane_applier* applier, uint32_t position) {
  const kelvane_source* const patch = &applier->patch;
  if (patch->bytes != NULL) {
    return patch->bytes[position];
  }
  if (position - applier->fetched_position >= applier->fetched_count) {
    uint32_t count = patch->size - position;
    if (count > KELVANE_APPLY_FETCHED) {
      count = KELVANE_APPLY_FETCHED;
    }
    applier->fetched_position = position;
    applier->fetched_count = (uint8_t)count;
    if (kelvane_source_read(patch, position, applier->fetched, count) != 0) {
      applier->fetched_count = 0;
      applier->fetch_failed = 1;
      return 0;
    }
  }
  return applier->fetched[position - applier->fetched_position];
}

uint32_t kelvane_apply_word(kelvane_applier* applier, uint32_t position) {
  uint32_t word = 0;
  uint32_t i;
  for (i = 0; i < 4; ++i) {
    word = (word << 8) |
           kelvane_apply_byte(applier, position + (applier->info.big_endian ? i : 3 - i));
  }
  return word;
}

int kelvane_apply_fail(kelvane_applier* applier, uint32_t position, int code) {
  applier->error_position = position;
  return code;
}

// ---- The header ---------------------------------------------------------------------------------

static void take_file_fields(kelvane_applier* applier, uint32_t position) {
  applier->info.old_checksum = kelvane_apply_word(applier, position);
  applier->info.new_checksum = kelvane_apply_word(applier, position + 4);
  applier->info.old_size = kelvane_apply_word(applier, position + 8);
  applier->info.new_size = kelvane_apply_word(applier, position + 12);
}

// What the pair patch_size, patch_checksum at `position` says of the patch. The checksum covers
// what stands behind the pair.
enum fit { FITS, SIZE_DIFFERS, CHECKSUM_DIFFERS };

static enum fit fit_at(kelvane_applier* applier, uint32_t position, uint32_t header_size) {
  const uint32_t size = applier->patch.size;
  uint32_t sum = 0;
  uint32_t i;
  if (size < header_size || kelvane_apply_word(applier, position) != size - FRAME_SIZE) {
    return SIZE_DIFFERS;
  }
  for (i = position + 8; i < size; ++i) {
    const uint8_t byte = kelvane_apply_byte(applier, i);
    sum = kelvane_apply_checksum(sum, &byte, 1);
  }
  return sum == kelvane_apply_word(applier, position + 4) ? FITS : CHECKSUM_DIFFERS;
}

static int open_version_1(kelvane_applier* applier) {
  kelvane_patch_info* const info = &applier->info;
  enum fit file_fit;
  enum fit memory_fit = SIZE_DIFFERS;
  uint32_t i;
  if (applier->patch.size < MEMORY_HEADER_SIZE) {
    return kelvane_apply_fail(applier, applier->patch.size, KELVANE_APPLY_TOO_SHORT);
  }
  for (i = 0; i < FRAME_SIZE; ++i) {
    if (kelvane_apply_byte(applier, i) != frame[i]) {
      return kelvane_apply_fail(applier, i, KELVANE_APPLY_BAD_HEADER);
    }
  }
  // The version is 1 in one byte order only, and this is the order of all the rest.
  info->version = 1;
  info->big_endian = 1;
  if (kelvane_apply_word(applier, FRAME_SIZE) != 1) {
    info->big_endian = 0;
    if (kelvane_apply_word(applier, FRAME_SIZE) != 1) {
      return kelvane_apply_fail(applier, FRAME_SIZE, KELVANE_APPLY_BAD_VERSION);
    }
  }
  // Nothing names the mode. The two words that describe the patch itself stand in another place,
  // and only in the right one do they fit.
  info->memory_mode = 0;
  file_fit = fit_at(applier, FILE_SIZE_POSITION, FILE_HEADER_SIZE);
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
  memory_fit = fit_at(applier, MEMORY_SIZE_POSITION, MEMORY_HEADER_SIZE);
  if (file_fit == FITS && memory_fit == FITS) {
    return kelvane_apply_fail(applier, FRAME_SIZE, KELVANE_APPLY_BAD_SHAPE);
  }
  if (memory_fit == FITS) {
    info->memory_mode = 1;
    info->header_size = MEMORY_HEADER_SIZE;
    info->old_crt1 = kelvane_apply_word(applier, MEMORY_SIZE_POSITION + 8);
    info->new_crt1 = kelvane_apply_word(applier, MEMORY_SIZE_POSITION + 12);
    return KELVANE_APPLY_OK;
  }
#endif
  if (file_fit == FITS) {
    info->header_size = FILE_HEADER_SIZE;
    take_file_fields(applier, FRAME_SIZE + 4);
    return KELVANE_APPLY_OK;
  }
  return kelvane_apply_fail(applier, FRAME_SIZE,
                            file_fit == SIZE_DIFFERS && memory_fit == SIZE_DIFFERS
                                ? KELVANE_APPLY_BAD_SIZE
                                : KELVANE_APPLY_BAD_CHECKSUM);
}

static int is_signed(kelvane_applier* applier) {
  uint32_t i;
  for (i = 0; i < SIGNATURE_SIZE; ++i) {
    if (i >= applier->patch.size || kelvane_apply_byte(applier, i) != frame[i]) {
      return 0;
    }
  }
  return 1;
}

// The structure of every command.
static int check_commands(kelvane_applier* applier) {
  kelvane_cursor cursor;
  kelvane_item item;
  kelvane_apply_start(&cursor, applier);
  while (kelvane_item_next(&cursor, &item)) {
  }
  return cursor.code;
}

int kelvane_apply_open_source(kelvane_applier* applier, const kelvane_source* source,
                              uint32_t version0_flags) {
  kelvane_patch_info* info;
  int code = KELVANE_APPLY_OK;
  if (applier == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  info = &applier->info;
  applier->opened = 0;
  applier->error_position = 0;
  applier->error_address = 0;
  if (source->bytes == NULL && source->fetch == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  applier->patch = *source;
  applier->fetched_position = 0;
  applier->fetched_count = 0;
  applier->fetch_failed = 0;
  info->version = 0;
  info->memory_mode = (version0_flags & KELVANE_V0_MEMORY_MODE) != 0;
  info->big_endian = (version0_flags & KELVANE_V0_BIG_ENDIAN) != 0;
  info->header_size = V0_HEADER_SIZE;
  info->old_checksum = 0;
  info->new_checksum = 0;
  info->old_size = 0;
  info->new_size = 0;
  info->old_crt1 = 0;
  info->new_crt1 = 0;
  if (is_signed(applier)) {
    code = open_version_1(applier);
  } else if (source->size < V0_HEADER_SIZE) {
    code = kelvane_apply_fail(applier, source->size, KELVANE_APPLY_TOO_SHORT);
  } else {
    take_file_fields(applier, 0);
  }
  if (applier->fetch_failed) {
    code = KELVANE_APPLY_FETCH_FAILED;
  }
  if (code == KELVANE_APPLY_OK) {
    code = check_commands(applier);
  }
  applier->opened = code == KELVANE_APPLY_OK;
  return code;
}

int kelvane_apply_open(kelvane_applier* applier, const uint8_t* patch, uint32_t size,
                       uint32_t version0_flags) {
  kelvane_source source;
  source.bytes = patch;
  source.fetch = NULL;
  source.context = NULL;
  source.start = 0;
  source.size = size;
  return kelvane_apply_open_source(applier, &source, version0_flags);
}
