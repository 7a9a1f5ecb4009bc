#include "color_format.h"

namespace kelvane {}  // namespace kelvane
