// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "patch_file.h"

namespace kelpatch {

// The patch with every compressed store cut at the borders of pages, so that a device which
// computes a page at a time need not expand what lies in other pages. A reference over a border
// becomes literals. A patch without such stores is given back as it is.
Bytes split_at_pages(PatchFile& patch, uint32_t page_size);

}  // namespace kelpatch
