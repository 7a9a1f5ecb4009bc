#pragma once

#include <cstdint>

#include "image.h"

// The patch in memory: the public face of the library, for a caller that runs a comparison itself.
//
// The engine is one instance for the process. What a caller meets:
//   - gen_init comes first, once: it takes the host's byte order and sets up messages and memory.
//   - The settings (engine_settings.h) have the initial values that their comments tell, and
//     `fDiffMemory` is 0. A caller sets what it wants different.
//   - The lists of commands are empty. A comparison adds to them, dump_... writes them and empties
//     them, but for the classes of increments and the regions under a checksum. So a second patch
//     would begin with those of the first; reset_engine() puts everything back to where a new
//     process has it, settings, output buffer and encoder too.
//   - The second image has to stay as it is until its patch is written.
//   - What can't go on ends the process, through gen_exit.
//
// Two patches in one process:
//
//   kelvane::gen_init("maker", 0, 1);
//   for (const Pair& pair : pairs) {
//     kelvane::reset_engine();
//     kelvane::version = 1;
//     kelvane::incr_enabled = 1;
//     kelvane::TargetIsBigEndian = 0;
//     kelvane::diff(&pair.first, &pair.second, 16, 1000);
//     uint8_t* bytes = nullptr;
//     uint32_t size = 0;
//     kelvane::dump_to_buf(&pair.first, &pair.second, &bytes, &size);
//     keep(bytes, size);  // copied before the next round
//   }
namespace kelvane {

// Puts engine and writer back to their initial state: settings, lists of commands, classes of
// increments, coder, encoder, output buffer. Buffers that were lent are gone. Belongs to
// kelvane::kelvane; whoever links the writer alone has no engine to put back.
void reset_engine();

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
