#include "bd_checksum.h"

namespace kelvane {}  // namespace kelvane
