#pragma once

// Puts the units of image loading back to where a new process has them. For tests, and for whoever
// loads files of more than one run in a process.
namespace kelvane {

// The mode and the symbol tables; nothing is released.
void reset_image();
// The byte order, and where failures are recorded.
void reset_indelfio();
// The identification.
void reset_indmagic();
// Hooks and switches, and what was read of an archive.
void reset_indobjio();
// Exclusions and aliases are released, and the list that was searched last is forgotten.
void reset_section_filter();
// The load at hand ends, and the symbols that were read are released. Lists belong to their files.
void reset_section_list();

}  // namespace kelvane
