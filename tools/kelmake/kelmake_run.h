#pragma once

#include "kelmake_options.h"

namespace kelmake {

// Reads both files, finds a patch, proves it, and writes it and the report. What can't be done ends
// the run by a kelpatch::Failure; the patch is then not written.
void make_patch(const Options& options);

}  // namespace kelmake
