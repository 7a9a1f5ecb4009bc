#include "patch_buffer.h"

#include "binshared.h"
#include "diffout.h"
#include "engine_settings.h"

namespace kelvane {

void dump_to_buf(const file_data* first, const file_data* second, uint8_t** buffer,
                 uint32_t* size) {
  set_output_file(nullptr);
  new_output_buf();
  dump_commands(first, second);
  get_buffer(buffer, size);
}

void start_buf(int32_t big_endian) {
  TargetIsBigEndian = big_endian;
  set_output_file(nullptr);
  new_output_buf();
}

void get_buffer(uint8_t** buffer, uint32_t* size) {
  *buffer = get_output_buf();
  *size = get_output_buf_size();
}

int32_t dump_to_buf_continue(int32_t x) {
  return dump_command_set(x);
}

int32_t dump_to_buf_dbserv(int32_t x) {
  dump_command_set(x);
  put_byte(CM_CHECKSUM);
  return x;
}

void dump_numregions(uint32_t n) {
  put_word(n);
}

void dump_address_range(uint32_t start, uint32_t end) {
  put_word(start);
  put_word(end);
}

void dump_checksum(uint32_t sum) {
  put_word(sum);
}

}  // namespace kelvane
