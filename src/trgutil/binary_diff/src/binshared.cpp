#include "binshared.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "binshared_internal.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgeninit.h"

namespace kelvane {

std::FILE* outfile = nullptr;
uint8_t* outbuf = nullptr;
uint32_t outbuf_alloc = 0;
uint32_t outbuf_size = 0;

namespace {

constexpr uint32_t kFirstRoom = 4096;

struct State {
  uint32_t position = 0;              // of the next write, in buffer mode
  const char* output_name = nullptr;  // for messages
};
State state;

[[noreturn]] void fail_to_write() {
  gen_perrorexit(kStatusFailure, "error writing patch file '%s'",
                 state.output_name != nullptr ? state.output_name : "unnamed");
}

void write_to_buffer(const uint8_t* bytes, uint32_t count) {
  // One byte always stays free.
  while (uint64_t{state.position} + count >= outbuf_alloc) {
    grow_buf();
  }
  if (state.position > outbuf_size) {
    std::memset(outbuf + outbuf_size, 0, state.position - outbuf_size);
  }
  if (count > 0) {
    std::memcpy(outbuf + state.position, bytes, count);
    state.position += count;
    outbuf_size = std::max(outbuf_size, state.position);
  }
}

}  // namespace

std::FILE* set_output_file(std::FILE* stream) {
  gen_free(outbuf);
  outbuf = nullptr;
  outfile = stream;
  return stream;
}

void set_output_name(const char* name) {
  state.output_name = name;
}

void new_output_buf() {
  gen_free(outbuf);
  outfile = nullptr;
  outbuf = gen_alloc_array<uint8_t>(kFirstRoom);
  outbuf_alloc = kFirstRoom;
  outbuf_size = 0;
  state.position = 0;
}

uint8_t* get_output_buf() {
  return outbuf;
}

uint32_t get_output_buf_size() {
  return outbuf_size;
}

uint32_t get_pos() {
  return outbuf != nullptr ? state.position : static_cast<uint32_t>(std::ftell(outfile));
}

void set_pos(uint32_t position) {
  if (outbuf != nullptr) {
    state.position = position;
  } else if (std::fseek(outfile, static_cast<long>(position), SEEK_SET) != 0) {
    fail_to_write();  // the stream writes what it holds back before it moves
  }
}

void put_data(const uint8_t* bytes, uint32_t count) {
  if (outbuf != nullptr) {
    write_to_buffer(bytes, count);
  } else if (std::fwrite(bytes, 1, count, outfile) != count) {
    fail_to_write();
  }
}

void put_word(uint32_t value) {
  uint8_t bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  put_n_bytes_endian(bytes, sizeof value);
}

void put_half(uint32_t value) {
  const auto half = static_cast<uint16_t>(value);
  uint8_t bytes[sizeof half];
  std::memcpy(bytes, &half, sizeof half);
  put_n_bytes_endian(bytes, sizeof half);
}

void put_byte(uint32_t value) {
  const auto byte = static_cast<uint8_t>(value);
  put_data(&byte, 1);
}

void flush_output() {
  if (outfile != nullptr && std::fflush(outfile) != 0) {
    fail_to_write();
  }
}

uint8_t* get_data(uint32_t count) {
  gen_ptr<uint8_t> block(gen_alloc_array<uint8_t>(count));
  if (count == 0) {
    return nullptr;
  }
  if (outbuf != nullptr) {
    if (uint64_t{state.position} + count > outbuf_size) {
      gen_errorexit(kStatusFailure, "could not read %d bytes from file: end of file",
                    static_cast<int32_t>(count));
    }
    std::memcpy(block.get(), outbuf + state.position, count);
    state.position += count;
    return block.release();
  }
  errno = 0;
  if (std::fread(block.get(), 1, count, outfile) != count) {
    if (std::feof(outfile) != 0) {
      gen_errorexit(kStatusFailure, "could not read %d bytes from file: end of file",
                    static_cast<int32_t>(count));
    }
    gen_errorexit(kStatusFailure, "could not read %d bytes from file: %s",
                  static_cast<int32_t>(count), std::strerror(errno));
  }
  return block.release();
}

void grow_buf() {
  outbuf = static_cast<uint8_t*>(gen_allocate(outbuf, 2, outbuf_alloc));
  outbuf_alloc *= 2;
}

void put_n_bytes_endian(uint8_t* bytes, uint32_t count) {
  if ((bigendian_host != 0) != (TargetIsBigEndian != 0)) {
    charreverse(bytes, count);
  }
  put_data(bytes, count);
}

void charreverse(uint8_t* bytes, uint32_t count) {
  std::reverse(bytes, bytes + count);
}

void reset_binshared() {
  gen_free(outbuf);
  outbuf = nullptr;
  outfile = nullptr;
  outbuf_alloc = 0;
  outbuf_size = 0;
  state = State{};
}

}  // namespace kelvane
