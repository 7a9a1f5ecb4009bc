#include "image.h"

#include "image_internal.h"

namespace kelvane {

int32_t fDiffMemory = 0;
symbol_table table = {};
symbol_table table1 = {};
symbol_table table2 = {};

void reset_image() {
  fDiffMemory = 0;
  table = {};
  table1 = {};
  table2 = {};
}

}  // namespace kelvane
