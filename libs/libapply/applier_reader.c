// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// The layout of the header in version 1, as offsets from the start of the patch. In version 0 the
// four words of a patch for files are all of it.
enum {
  SIGNATURE_SIZE = 4,
  FRAME_SIZE = 20,  // what stands ahead of `version`, and what patch_size leaves out
  FILE_WORDS_POSITION = 24,
  FILE_SIZE_POSITION = 40,
  MEMORY_SIZE_POSITION = 24,
  MEMORY_WORDS_POSITION = 32
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

uint8_t* kelvane_apply_chunk(kelvane_applier* applier) {
  // No position lies behind the end of the patch.
  applier->fetched = applier->patch.size;
  return applier->chunk;
}

uint8_t kelvane_apply_byte(kelvane_applier* applier, uint32_t position) {
  const kelvane_source* const patch = &applier->patch;
  if (patch->bytes != NULL) {
    return patch->bytes[position];
  }
  if (position - applier->fetched >= FETCHED_SIZE) {
    const uint32_t left = patch->size - position;
    const uint32_t most = FETCHED_SIZE;
    applier->fetched = position;
    if (patch->fetch(patch->context, patch->start + position, applier->chunk + CHUNK_BESIDE_FETCHED,
                     left < most ? left : most) != 0) {
      applier->fetch_code = KELVANE_APPLY_FETCH_FAILED;
    }
  }
  return applier->chunk[CHUNK_BESIDE_FETCHED + (position - applier->fetched)];
}

uint32_t kelvane_apply_number(kelvane_applier* applier, uint32_t position, uint32_t count) {
  uint32_t number = 0;
  uint32_t i;
  for (i = 0; i < count; ++i) {
    number = (number << 8) |
             kelvane_apply_byte(applier, position + (applier->big_endian ? i : count - 1 - i));
  }
  return number;
}

// ---- The header ---------------------------------------------------------------------------------

uint32_t kelvane_apply_header(kelvane_applier* applier, uint32_t word) {
  const uint32_t first = applier->header_size == V0_HEADER_SIZE ? 0 : FILE_WORDS_POSITION;
  return kelvane_apply_number(applier, first + 4 * word, 4);
}

// What the pair patch_size, patch_checksum ahead of `header_size` says of the patch. The checksum
// covers what stands behind the pair.
enum fit { FITS, SIZE_DIFFERS, CHECKSUM_DIFFERS };

static enum fit fit_at(kelvane_applier* applier, uint32_t position, uint32_t header_size) {
  const uint32_t size = applier->patch.size;
  uint32_t sum = 0;
  uint32_t i;
  if (size < header_size || kelvane_apply_number(applier, position, 4) != size - FRAME_SIZE) {
    return SIZE_DIFFERS;
  }
  for (i = position + 8; i < size; ++i) {
    const uint8_t byte = kelvane_apply_byte(applier, i);
    sum = kelvane_apply_checksum(sum, &byte, 1);
  }
  return sum == kelvane_apply_number(applier, position + 4, 4) ? FITS : CHECKSUM_DIFFERS;
}

// Reads the header of a patch that has the signature; its first `same` bytes are those of the
// frame.
static int open_version_1(kelvane_applier* applier, uint32_t same) {
  enum fit file_fit;
  enum fit memory_fit = SIZE_DIFFERS;
  if (applier->patch.size < MEMORY_HEADER_SIZE) {
    applier->error_position = applier->patch.size;
    return KELVANE_APPLY_TOO_SHORT;
  }
  applier->error_position = same;
  if (same < FRAME_SIZE) {
    return KELVANE_APPLY_BAD_HEADER;
  }
  // The version is 1 in one byte order only, and this is the order of all the rest.
  applier->big_endian = kelvane_apply_byte(applier, FRAME_SIZE + 3) == 1;
  if (kelvane_apply_number(applier, FRAME_SIZE, 4) != 1) {
    return KELVANE_APPLY_BAD_VERSION;
  }
  // Nothing names the mode. The two words that describe the patch itself stand in another place,
  // and only in the right one do they fit.
  applier->memory_mode = 0;
  applier->header_size = FILE_HEADER_SIZE;
  file_fit = fit_at(applier, FILE_SIZE_POSITION, FILE_HEADER_SIZE);
#ifndef KELVANE_APPLY_FILE_MODE_ONLY
  memory_fit = fit_at(applier, MEMORY_SIZE_POSITION, MEMORY_HEADER_SIZE);
  if (file_fit == FITS && memory_fit == FITS) {
    return KELVANE_APPLY_BAD_SHAPE;
  }
  if (memory_fit == FITS) {
    applier->memory_mode = 1;
    applier->header_size = MEMORY_HEADER_SIZE;
    return KELVANE_APPLY_OK;
  }
#endif
  if (file_fit == FITS) {
    return KELVANE_APPLY_OK;
  }
  return file_fit == SIZE_DIFFERS && memory_fit == SIZE_DIFFERS ? KELVANE_APPLY_BAD_SIZE
                                                                : KELVANE_APPLY_BAD_CHECKSUM;
}

static int open_header(kelvane_applier* applier) {
  const uint32_t size = applier->patch.size;
  uint32_t same = 0;
  while (same < FRAME_SIZE && same < size && kelvane_apply_byte(applier, same) == frame[same]) {
    ++same;
  }
  if (same >= SIGNATURE_SIZE) {
    return open_version_1(applier, same);
  }
  applier->error_position = size;
  return size < V0_HEADER_SIZE ? KELVANE_APPLY_TOO_SHORT : KELVANE_APPLY_OK;
}

int kelvane_apply_open_header(kelvane_applier* applier, uint32_t version0_flags) {
  int code;
  applier->header_size = 0;
  applier->error_position = 0;
  applier->error_address = 0;
  if (applier->patch.bytes == NULL && applier->patch.fetch == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  kelvane_apply_chunk(applier);
  applier->fetch_code = KELVANE_APPLY_OK;
  applier->header_size = V0_HEADER_SIZE;
  applier->memory_mode = (version0_flags & KELVANE_V0_MEMORY_MODE) != 0;
  applier->big_endian = (version0_flags & KELVANE_V0_BIG_ENDIAN) != 0;
  code = open_header(applier);
  if (applier->fetch_code != KELVANE_APPLY_OK) {
    code = applier->fetch_code;
  }
  if (code != KELVANE_APPLY_OK) {
    applier->header_size = 0;
  }
  return code;
}

static int open_patch(kelvane_applier* applier, uint32_t version0_flags) {
  int code = kelvane_apply_open_header(applier, version0_flags);
  if (code == KELVANE_APPLY_OK) {
    code = kelvane_apply_check_commands(applier);
  }
  if (code != KELVANE_APPLY_OK) {
    applier->header_size = 0;
  }
  return code;
}

int kelvane_apply_open_source(kelvane_applier* applier, const kelvane_source* source,
                              uint32_t version0_flags) {
  if (applier == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  applier->patch = *source;
  return open_patch(applier, version0_flags);
}

int kelvane_apply_open(kelvane_applier* applier, const uint8_t* patch, uint32_t size,
                       uint32_t version0_flags) {
  if (applier == NULL) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  applier->patch.bytes = patch;
  applier->patch.fetch = NULL;
  applier->patch.size = size;
  return open_patch(applier, version0_flags);
}

int kelvane_apply_info(kelvane_applier* applier, kelvane_patch_info* info) {
  if (applier == NULL || applier->header_size == 0) {
    return KELVANE_APPLY_BAD_ARGUMENT;
  }
  info->version = applier->header_size != V0_HEADER_SIZE;
  info->memory_mode = applier->memory_mode;
  info->big_endian = applier->big_endian;
  info->header_size = applier->header_size;
  info->old_checksum = 0;
  info->new_checksum = 0;
  info->old_size = 0;
  info->new_size = 0;
  info->old_crt1 = 0;
  info->new_crt1 = 0;
  if (applier->header_size == MEMORY_HEADER_SIZE) {
    info->old_crt1 = kelvane_apply_number(applier, MEMORY_WORDS_POSITION, 4);
    info->new_crt1 = kelvane_apply_number(applier, MEMORY_WORDS_POSITION + 4, 4);
  } else {
    info->old_checksum = kelvane_apply_header(applier, OLD_CHECKSUM);
    info->new_checksum = kelvane_apply_header(applier, NEW_CHECKSUM);
    info->old_size = kelvane_apply_header(applier, OLD_SIZE);
    info->new_size = kelvane_apply_header(applier, NEW_SIZE);
  }
  return applier->fetch_code;
}
