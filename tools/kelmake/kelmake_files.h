// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "kelmake_options.h"
#include "patch_file.h"

namespace kelmake {

// Ends the run by a kelpatch::Failure if a file that the options name to be written is one of those
// to be read, or can't be written: now, not after the search.
void check_outputs(const Options& options);

// Writes a file whole, or ends the run.
void write_file(const std::string& name, const kelpatch::Bytes& bytes);

}  // namespace kelmake
