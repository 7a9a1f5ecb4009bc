#pragma once

namespace kelvane {

// Releases the compressed buffer.
void reset_substitution();

}  // namespace kelvane
