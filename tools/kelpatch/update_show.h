// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "update_file.h"

namespace kelpatch {

// Prints the update on standard output: what its payload is and for which images, the pages that
// change and what a device needs for them, the bytes of its parts, and the map of a dense payload
// or the commands of a patch.
void show_update(UpdateFile& update);

}  // namespace kelpatch
