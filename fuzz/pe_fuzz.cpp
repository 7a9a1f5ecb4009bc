// PE headers of any bytes are read, printed and written without harm.
#include "format_walks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const kelvane::Quiet quiet;
  kelvane::walk_pe(kelvane::stream_of(data, size).get());
  return 0;
}
