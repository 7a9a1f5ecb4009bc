#pragma once

#include <cstdint>

#include "image.h"

// The patch in memory: the public face of the library, for a caller that runs a comparison itself.
namespace kelvane {

// Writes the patch into a fresh output buffer and lends it, with its size in bytes, until the next
// patch or output file. It holds what a file holds from the `version` word on, so no structured
// file header. The byte order of the target is as the caller left it. Ends the run as dump_commands
// does.
void dump_to_buf(const file_data* first, const file_data* second, uint8_t** buffer, uint32_t* size);

// Begins a patch in a fresh output buffer for a target of the byte order given.
void start_buf(int32_t big_endian);

// Lends the output buffer and its size in bytes.
void get_buffer(uint8_t** buffer, uint32_t* size);

// Write the command set that the lists hold; dump_to_buf_dbserv adds a byte of 4. Both return `x`.
int32_t dump_to_buf_continue(int32_t x);
int32_t dump_to_buf_dbserv(int32_t x);

// Pieces of a CM_CHECKSUM: the number of regions, the start and end of one, the checksum.
void dump_numregions(uint32_t n);
void dump_address_range(uint32_t start, uint32_t end);
void dump_checksum(uint32_t sum);

}  // namespace kelvane
