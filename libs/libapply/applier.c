// SPDX-License-Identifier: Apache-2.0
#include "applier_internal.h"

// Takes the passes of `wanted`. All share one frame, right below which the deepest calls lie.
static int take_passes(kelvane_applier* applier, const kelvane_memory* memory, uint32_t wanted) {
  job self;
  int code;
  self.wanted = (uint8_t)wanted;
  code = kelvane_apply_begin(&self, applier, memory);
  for (self.pass = CHECK; self.pass <= VERIFY_NEW && code == KELVANE_APPLY_OK;
       self.pass = (uint8_t)(self.pass << 1)) {
    if ((self.wanted & self.pass) == 0) {
      continue;
    }
    if ((self.pass & (VERIFY_OLD | VERIFY_NEW)) != 0 && !is_memory_mode(self.cursor.applier)) {
      code = kelvane_apply_verify_file(&self);
      continue;
    }
    kelvane_apply_start(&self.cursor, self.cursor.applier, self.cursor.applier->header_size);
    while (code == KELVANE_APPLY_OK && kelvane_item_next(&self.cursor, &self.item)) {
      code = kelvane_apply_item(&self);
    }
    if (code == KELVANE_APPLY_OK) {
      code = kelvane_apply_end(&self);
    }
  }
  return code;
}

int kelvane_apply_check(kelvane_applier* applier, const kelvane_memory* memory) {
  // By itself: who checks alone need not have the code that changes the memory.
  job self;
  int code;
  self.wanted = CHECK;
  self.pass = CHECK;
  code = kelvane_apply_begin(&self, applier, memory);
  if (code == KELVANE_APPLY_OK) {
    kelvane_apply_start(&self.cursor, applier, applier->header_size);
  }
  while (code == KELVANE_APPLY_OK && kelvane_item_next(&self.cursor, &self.item)) {
    code = kelvane_apply_check_item(&self);
  }
  return code == KELVANE_APPLY_OK ? kelvane_apply_end(&self) : code;
}

int kelvane_apply_verify_old(kelvane_applier* applier, const kelvane_memory* memory) {
  return take_passes(applier, memory, VERIFY_OLD);
}

int kelvane_apply_verify_new(kelvane_applier* applier, const kelvane_memory* memory) {
  return take_passes(applier, memory, VERIFY_NEW);
}

int kelvane_apply_run(kelvane_applier* applier, const kelvane_memory* memory, uint32_t skip) {
  return take_passes(applier, memory, (ALL_PASSES & ~skip) | CHECK | CARRY_OUT);
}

// ---- Words --------------------------------------------------------------------------------------

const char* kelvane_apply_text(int code) {
  static const char* const texts[KELVANE_APPLY_CODES] = {
      "no error",
      "the applier was called with a wrong argument",
      "the patch is shorter than its header",
      "the header is not that of a patch",
      "the version of the patch is not known",
      "the patch has not the size that its header states",
      "the patch has not the checksum that its header states",
      "the header fits file mode and memory mode",
      "the patch holds no command",
      "a command has an unknown code",
      "a command stands where it may not stand",
      "a command runs over the end of the patch",
      "a list of substitutions is damaged",
      "a region ends before it starts",
      "a compressed substitution is damaged",
      "the stream of increments is damaged",
      "the memory is too small for the old or the new file",
      "an address lies outside the memory",
      "the new file has not the size that the header states",
      "the old file has another size",
      "the old contents have another checksum",
      "the new contents have another checksum",
      "reading the memory failed",
      "writing the memory failed",
      "fetching the patch failed",
  };
  return code >= 0 && code < KELVANE_APPLY_CODES ? texts[code] : "unknown error";
}
