#pragma once

#include <cstdint>
#include <cstdio>

// The one sink of the patch writer: a stream that is already open, or a growing buffer in memory,
// one of them at a time. Words and halves go out in the target's byte order (`TargetIsBigEndian`).
namespace kelvane {

// The stream in file mode; owned by whoever opened it. Written by set_output_file, new_output_buf.
extern std::FILE* outfile;
// The buffer in buffer mode, and null in file mode. Owned here.
extern uint8_t* outbuf;
extern uint32_t outbuf_alloc;  // bytes allocated; starts at 4096 and doubles
extern uint32_t outbuf_size;   // the highest position that was written

// Drops the buffer and takes the stream, which may be null. Returns it. The stream before is
// neither flushed nor closed.
std::FILE* set_output_file(std::FILE* stream);

// Tells the name of the output for the message about a failed write; borrowed, may be null.
void set_output_name(const char* name);

// Drops the stream, which is not closed, and takes a fresh buffer.
void new_output_buf();

// The buffer, lent until the next set_output_file or new_output_buf, and its size in bytes.
uint8_t* get_output_buf();
uint32_t get_output_buf_size();

// Position of the next write, counted from the start.
uint32_t get_pos();
// Moves it; in buffer mode bytes that are skipped this way are 0.
void set_pos(uint32_t position);

// Write `count` raw bytes; 4 bytes; the low 16 bits as 2 bytes; the low 8 bits as 1 byte. A write
// that the stream refuses ends the run with "error writing patch file '%s'" and status 1.
void put_data(const uint8_t* bytes, uint32_t count);
void put_word(uint32_t value);
void put_half(uint32_t value);
void put_byte(uint32_t value);

// Writes what the stream still holds back; ends the run as put_data does.
void flush_output();

// Gives the `count` bytes at the position in a fresh block from gen_alloc, and moves the position
// behind them; null for 0. Fewer bytes end the run with status 1 and "could not read %d bytes from
// file: " with "end of file" or the system's reason.
uint8_t* get_data(uint32_t count);

}  // namespace kelvane
