#include "indgen_file.h"

namespace kelvane {}  // namespace kelvane
