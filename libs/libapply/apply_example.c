// SPDX-License-Identifier: Apache-2.0
// How a target calls the applier, as a program for a workstation: an array stands for the target's
// memory, and three files for what it holds, for the patch that arrives and for the outcome.
//   apply_example OLD PATCH NEW

#include <stdio.h>
#include <string.h>

#include "applier.h"

static int read_memory(void* memory, uint32_t address, uint8_t* bytes, uint32_t count) {
  memcpy(bytes, (const uint8_t*)memory + address, count);
  return 0;
}

static int write_memory(void* memory, uint32_t address, const uint8_t* bytes, uint32_t count) {
  memcpy((uint8_t*)memory + address, bytes, count);
  return 0;
}

static int update(void* image, uint32_t old_size, uint32_t capacity, const uint8_t* patch,
                  uint32_t patch_size, uint32_t* new_size) {
  static kelvane_applier applier;
  const kelvane_region room = {0, capacity};
  const kelvane_memory memory = {image, read_memory, write_memory, &room, 1, old_size, 0};
  kelvane_patch_info info;
  // The words of a patch between raw images are little-endian, whatever the target's are. Only
  // version 0 has to be told.
  int code = kelvane_apply_open(&applier, patch, patch_size, KELVANE_V0_LITTLE_ENDIAN);
  if (code == KELVANE_APPLY_OK) {
    code = kelvane_apply_run(&applier, &memory, 0);
  }
  if (code != KELVANE_APPLY_OK) {
    printf("%s (at %u of the patch, %u of the memory)\n", kelvane_apply_text(code),
           (unsigned)applier.error_position, (unsigned)applier.error_address);
  }
  *new_size = kelvane_apply_info(&applier, &info) == KELVANE_APPLY_OK ? info.new_size : 0;
  return code;
}

enum { CAPACITY = 1024 * 1024 };
static uint8_t image[CAPACITY];
static uint8_t patch[CAPACITY];

// Gives the bytes of a file that lie in `bytes` now, or 0.
static uint32_t load(const char* name, uint8_t* bytes) {
  FILE* const file = fopen(name, "rb");
  size_t size = 0;
  if (file != NULL) {
    size = fread(bytes, 1, CAPACITY, file);
    fclose(file);
  }
  return (uint32_t)size;
}

int main(int argc, char** argv) {
  uint32_t new_size = 0;
  FILE* file;
  if (argc != 4) {
    fputs("usage: apply_example OLD PATCH NEW\n", stderr);
    return 2;
  }
  if (update(image, load(argv[1], image), CAPACITY, patch, load(argv[2], patch), &new_size) !=
      KELVANE_APPLY_OK) {
    return 1;
  }
  file = fopen(argv[3], "wb");
  if (file == NULL || fwrite(image, 1, new_size, file) != new_size || fclose(file) != 0) {
    perror(argv[3]);
    return 2;
  }
  return 0;
}
