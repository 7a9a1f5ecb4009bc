// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "kelmake_options.h"
#include "patch_file.h"

namespace kelmake {

// Ends the run by a kelpatch::Failure if a file that the options name to be written is one of those
// to be read, if both are the same, or if one can't be written: now, not after the search.
void check_outputs(const Options& options);

// Writes what -o names, and the report unless that is empty. Both are complete before either takes
// the place of an older file. Ends the run if that fails.
void write_outputs(const Options& options, const kelpatch::Bytes& bytes, const std::string& report);

}  // namespace kelmake
