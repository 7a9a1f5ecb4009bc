// An a.out file of any bytes is read, sorted, filtered and written without harm.
#include "format_walks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const kelvane::Quiet quiet;
  try {
    kelvane::walk_aout(kelvane::stream_of(data, size).get());
  } catch (const kelvane::EndedRun& end) {
    kelvane::require(end.status == 1);
  }
  return 0;
}
