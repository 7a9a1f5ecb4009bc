// A COFF file of any bytes is read in any variant without harm. The first byte chooses the variant.
#include "format_walks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const kelvane::Quiet quiet;
  if (size == 0) {
    return 0;
  }
  try {
    kelvane::walk_coff(kelvane::stream_of(data + 1, size - 1).get(), data[0]);
  } catch (const kelvane::EndedRun& end) {
    kelvane::require(end.status == 1);
  }
  return 0;
}
