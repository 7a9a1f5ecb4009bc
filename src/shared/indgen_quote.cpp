#include "indgen_quote.h"

namespace kelvane {}  // namespace kelvane
