#include "patch_buffer.h"

namespace kelvane {}  // namespace kelvane
