#pragma once

#include <cstdint>

#include "debug_print.h"
#include "increment_stream.h"

namespace kelvane {

inline constexpr int32_t kBitsInByte = 8;
inline constexpr int32_t kEmptyStream = 2;  // bytes of a stream without classes

// Prints how the class just coded used each category, if the coder tells.
void print_populations(const jump_coder& coder);

// One run of the coder over all classes in the order of the stream. `Classes` gives count(),
// value(index), a reference map(index), which each run reads and sets anew, and
// each_address(index, take).
template <typename Classes>
void code_pass(jump_coder& coder, const Classes& classes) {
  uint32_t previous_value = 0;
  for (int32_t index = 0; index < classes.count(); ++index) {
    const uint32_t value = classes.value(index);
    if (coder.trace) {
      dprintf(2, "INCR SUBTOTAL %08x bits %d\n", value, coder.bits_total);
    }
    coder.population = {};
    coder.begin_class(index, previous_value, value, classes.map(index));
    previous_value = value;
    uint32_t address = 0;
    classes.each_address(index, [&](uint32_t next) {
      const int32_t bits_before = coder.bits_total;
      coder.encode_jump((next - address) >> 2U);
      address = next;
      if (coder.trace) {
        dprintf(7, "INCR ENCODE %s to 0x%.8x bits %d\n", coder.dry_run != 0 ? "jump" : "JUMP",
                address, coder.bits_total - bits_before);
      }
    });
    print_populations(coder);
    classes.map(index) = coder.sort_population_map();
  }
  coder.end_stream();
  if (coder.trace) {
    dprintf(2, "INCR GRANDTOTAL bits %d (%d bytes)\n", coder.bits_total,
            coder.bits_total / kBitsInByte);
  }
}

}  // namespace kelvane
