// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "kelmake_options.h"

namespace kelmake {

// Reads both images, finds the smallest update of a device in flash, tries it on a model of that
// device, and writes it and the report. What can't be done ends the run by a kelpatch::Failure; the
// update is then not written.
void make_update(const Options& options);

}  // namespace kelmake
