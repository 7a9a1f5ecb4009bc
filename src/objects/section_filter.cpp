#include "section_filter.h"

namespace kelvane {}  // namespace kelvane
