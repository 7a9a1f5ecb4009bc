// SPDX-License-Identifier: Apache-2.0
#include "byte_source.h"

static int lies_inside(const kelvane_source* source, uint32_t position, uint32_t count) {
  return position <= source->size && count <= source->size - position;
}

int kelvane_source_read(const kelvane_source* source, uint32_t position, uint8_t* bytes,
                        uint32_t count) {
  uint32_t i;
  if (!lies_inside(source, position, count)) {
    return 1;
  }
  if (source->bytes == 0) {
    return count > 0 && source->fetch(source->context, source->start + position, bytes, count) != 0;
  }
  for (i = 0; i < count; ++i) {
    bytes[i] = source->bytes[position + i];
  }
  return 0;
}

int kelvane_source_part(const kelvane_source* source, uint32_t position, uint32_t size,
                        kelvane_source* part) {
  if (!lies_inside(source, position, size)) {
    return 1;
  }
  *part = *source;
  if (source->bytes == 0) {
    part->start += position;
  } else {
    part->bytes += position;
  }
  part->size = size;
  return 0;
}
