// SPDX-License-Identifier: Apache-2.0
#include "flash_dense.h"

#include "flash_apply.h"

// The codes of the decoder's callers come through it, so they have to be told from its own.
typedef char codes_differ[(int)KELVANE_UPDATE_CODES <= (int)KELVANE_DENSE_BAD_ARGUMENT ? 1 : -1];

static int code_of(int code) {
  switch (code) {
    case KELVANE_DENSE_BAD_ARGUMENT:
      return KELVANE_APPLY_BAD_ARGUMENT;
    case KELVANE_DENSE_BAD_HEADER:
    case KELVANE_DENSE_BAD_PAYLOAD:
      return KELVANE_UPDATE_BAD_PAYLOAD;
    case KELVANE_DENSE_NO_MACHINE:
      return KELVANE_UPDATE_NO_MACHINE;
    case KELVANE_DENSE_NO_ROOM:
      return KELVANE_UPDATE_NO_MEMORY;
    case KELVANE_DENSE_READ_FAILED:
      return KELVANE_APPLY_READ_FAILED;
    default:
      return code;
  }
}

static int read_payload(void* context, uint32_t position, uint8_t* bytes, uint32_t count) {
  const kelvane_payload_input* const input = (const kelvane_payload_input*)context;
  if ((position & 63u) == 0) {
    input->alive(input->update);  // a window may take long, and so may the map
  }
  return kelvane_source_read(&input->payload, position, bytes, count) == 0
             ? KELVANE_APPLY_OK
             : KELVANE_APPLY_FETCH_FAILED;
}

static int read_old(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  const kelvane_payload_input* const input = (const kelvane_payload_input*)context;
  return input->old_image(input->update, address, bytes, count);
}

static int read_new(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  const kelvane_payload_input* const input = (const kelvane_payload_input*)context;
  return input->new_image(input->update, address, bytes, count);
}

static int dense_open(void* state, uint32_t size, const kelvane_payload_input* input,
                      kelvane_payload_images* images) {
  kelvane_dense_payload* const self = (kelvane_dense_payload*)state;
  kelvane_dense_info info;
  int code;
  if (size < sizeof *self) {
    return KELVANE_UPDATE_NO_MEMORY;
  }
  self->reads.context = (void*)input;
  self->reads.payload_size = input->payload.size;
  self->reads.read_payload = read_payload;
  self->reads.read_old = read_old;
  self->reads.read_new = read_new;
  self->reads.largest_image = 0;  // the update compares the sizes with its own
  self->input = input;
  code = kelvane_dense_open(&self->decoder, &self->reads, self + 1, size - (uint32_t)sizeof *self,
                            &info);
  images->old_size = info.old_size;
  images->new_size = info.new_size;
  images->old_checksum = info.old_checksum;
  images->new_checksum = info.new_checksum;
  images->reads_new = info.reads_new;
  return code_of(code);
}

static int dense_restart(void* state) {
  return code_of(kelvane_dense_restart(&((kelvane_dense_payload*)state)->decoder));
}

static int dense_resume(void* state) {
  return code_of(kelvane_dense_resume(&((kelvane_dense_payload*)state)->decoder));
}

static int dense_window(void* state, uint32_t address, uint8_t* bytes, uint32_t count) {
  return code_of(
      kelvane_dense_window(&((kelvane_dense_payload*)state)->decoder, address, bytes, count));
}

const kelvane_payload_kind kelvane_dense_kind = {
    KELVANE_PAYLOAD_DENSE, KELVANE_DENSE_SAVED, dense_open,   dense_restart,
    dense_resume,          dense_window,        dense_window, kelvane_dense_checksum};
