#pragma once

#include <cstdint>
#include <cstdio>

// The one sink of the patch writer: a stream that is already open, or a growing buffer in memory,
// one of them at a time. Words and halves go out in the target's byte order.
//
// A write that the stream refuses is not seen here, so that a field costs one library call and no
// test; whoever closes a patch asks output_failed.
namespace kelvane {

// The state of a sink. With neither stream nor buffer it only counts: positions move and nothing is
// stored, which is how a patch is priced. Not destroyed by itself, since the engine's one instance
// has to outlive a signal that ends the process; an owner calls drop().
struct output_buffer {
  std::FILE* stream = nullptr;  // in file mode; owned by whoever opened it
  uint8_t* bytes = nullptr;     // in buffer mode; from gen_alloc, owned here
  uint32_t room = 0;            // bytes allocated; starts at 4096 and doubles
  uint32_t size = 0;            // the highest position that was written
  uint32_t position = 0;        // of the next write, unless there is a stream
  bool big_endian = false;      // the target's byte order
  bool trace = false;           // debug lines and warnings tell what is written

  // Releases the buffer and forgets the stream, which is neither flushed nor closed.
  void drop();
  void use_stream(std::FILE* new_stream);
  void use_memory();

  uint32_t pos() const;
  void seek(uint32_t new_position);
  void put_data(const uint8_t* data, uint32_t count);
  void put_word(uint32_t value);
  void put_half(uint32_t value);
  void put_byte(uint32_t value);
};

// The engine's one instance, with the byte order as `TargetIsBigEndian` has it now. The names and
// operations below are its fields and fronts.
output_buffer& engine_output();

// The stream in file mode; owned by whoever opened it. Written by set_output_file, new_output_buf.
extern std::FILE*& outfile;
// The buffer in buffer mode, and null in file mode. Owned here.
extern uint8_t*& outbuf;
extern uint32_t& outbuf_alloc;  // bytes allocated; starts at 4096 and doubles
extern uint32_t& outbuf_size;   // the highest position that was written

// Drops the buffer and takes the stream, which may be null. Returns it. The stream before is
// neither flushed nor closed.
std::FILE* set_output_file(std::FILE* stream);

// Drops the stream, which is not closed, and takes a fresh buffer.
void new_output_buf();

// The buffer, lent until the next set_output_file or new_output_buf, and its size in bytes.
uint8_t* get_output_buf();
uint32_t get_output_buf_size();

// Position of the next write, counted from the start; all ones where the stream can't tell.
uint32_t get_pos();
// Moves it; in buffer mode bytes that are skipped this way are 0.
void set_pos(uint32_t position);

// Write `count` raw bytes; 4 bytes; the low 16 bits as 2 bytes; the low 8 bits as 1 byte. A failure
// shows in output_failed alone.
void put_data(const uint8_t* bytes, uint32_t count);
void put_word(uint32_t value);
void put_half(uint32_t value);
void put_byte(uint32_t value);

// Writes what the stream still holds back, and tells whether the stream has refused this or
// anything before. `errno` then is the reason of the last refusal. Never in buffer mode.
bool output_failed();

// Gives the `count` bytes at the position in a fresh block from gen_alloc, and moves the position
// behind them; null for 0. Fewer bytes end the run with status 1 and "could not read %d bytes from
// file: " with "end of file" or the system's reason.
uint8_t* get_data(uint32_t count);

}  // namespace kelvane
