#pragma once

// Each unit of the writer that keeps state puts it back to where a new process has it. reset_engine
// calls them all; one alone is for tests.
namespace kelvane {

// Releases all records, and the bytes that compressed commands own; clears tallies and checksums.
void reset_command_lists();
// Drops buffer, stream and name.
void reset_binshared();
// Releases the rejected records too.
void reset_increment_coder();
void reset_indzip();
void reset_engine_settings();

}  // namespace kelvane
