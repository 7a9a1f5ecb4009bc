#pragma once

#include "image.h"

namespace kelvane {

// Releases what load_file put into the record, and clears it. The symbols belong to section_list.
void release_file(file_data* record);

}  // namespace kelvane
