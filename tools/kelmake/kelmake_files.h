// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "kelmake_options.h"
#include "patch_file.h"

namespace kelmake {

// The two files of a run.
struct Inputs {
  kelpatch::Bytes old_file;
  kelpatch::Bytes new_file;
};

// Reads both files, after it has made sure that neither is to be overwritten and that what the
// options name can be written. What can't be done ends the run by a kelpatch::Failure.
Inputs read_inputs(const Options& options);

// Writes a file whole, or ends the run.
void write_file(const std::string& name, const kelpatch::Bytes& bytes);

}  // namespace kelmake
