// An outside program that uses both installed libraries: makes an empty command set in memory with
// the writer, and asks the applier for the words of a code.

#include <applier.h>
#include <patch_buffer.h>

#include <cstdint>
#include <cstdio>

int main() {
  uint8_t* bytes = nullptr;
  uint32_t size = 0;
  kelvane::start_buf(1);
  kelvane::dump_to_buf_continue(0);
  kelvane::get_buffer(&bytes, &size);
  const bool good = size == 3 && bytes[0] == 3 && bytes[1] == 0 && bytes[2] == 0;
  std::printf("%u bytes, applier says '%s'\n", size, kelvane_apply_text(KELVANE_APPLY_OK));
  return good ? 0 : 1;
}
