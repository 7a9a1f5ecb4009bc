#include "symbol_list.h"

namespace kelvane {}  // namespace kelvane
