#include "binshared.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "binshared_internal.h"
#include "byte_order.h"
#include "engine_settings.h"
#include "exit_status.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgeninit.h"
#include "writer_reset.h"

namespace kelvane {

namespace {

constexpr uint32_t kFirstRoom = 4096;

constexpr output_buffer kAtStart = {.trace = true};
output_buffer engine_instance = kAtStart;

void grow(output_buffer* out) {
  out->bytes = static_cast<uint8_t*>(gen_allocate(out->bytes, 2, out->room));
  out->room *= 2;
}

}  // namespace

std::FILE*& outfile = engine_instance.stream;
uint8_t*& outbuf = engine_instance.bytes;
uint32_t& outbuf_alloc = engine_instance.room;
uint32_t& outbuf_size = engine_instance.size;

void output_buffer::drop() {
  gen_free(bytes);
  bytes = nullptr;
  stream = nullptr;
}

void output_buffer::use_stream(std::FILE* new_stream) {
  drop();
  stream = new_stream;
}

void output_buffer::use_memory() {
  drop();
  bytes = gen_alloc_array<uint8_t>(kFirstRoom);
  room = kFirstRoom;
  size = 0;
  position = 0;
}

uint32_t output_buffer::pos() const {
  return stream == nullptr ? position : static_cast<uint32_t>(std::ftell(stream));
}

void output_buffer::seek(uint32_t new_position) {
  if (stream == nullptr) {
    position = new_position;
  } else {
    static_cast<void>(std::fseek(stream, static_cast<long>(new_position), SEEK_SET));
  }
}

void output_buffer::put_data(const uint8_t* data, uint32_t count) {
  if (stream != nullptr) {
    static_cast<void>(std::fwrite(data, 1, count, stream));
    return;
  }
  if (bytes != nullptr) {
    // One byte always stays free.
    while (uint64_t{position} + count >= room) {
      grow(this);
    }
    if (position > size) {
      std::memset(bytes + size, 0, position - size);
    }
    if (count > 0) {
      std::memcpy(bytes + position, data, count);
    }
  }
  if (count > 0) {
    position += count;
    size = std::max(size, position);
  }
}

void output_buffer::put_word(uint32_t value) {
  uint8_t word[sizeof value];
  store_word(word, value, byte_order_of(big_endian));
  put_data(word, sizeof word);
}

void output_buffer::put_half(uint32_t value) {
  uint8_t half[sizeof(uint16_t)];
  store_half(half, value, byte_order_of(big_endian));
  put_data(half, sizeof half);
}

void output_buffer::put_byte(uint32_t value) {
  const auto byte = static_cast<uint8_t>(value);
  put_data(&byte, 1);
}

output_buffer& engine_output() {
  // A number is reversed where host and target differ, whatever the host says of itself.
  const bool reversed = (bigendian_host != 0) != (TargetIsBigEndian != 0);
  engine_instance.big_endian = reversed != (std::endian::native == std::endian::big);
  return engine_instance;
}

std::FILE* set_output_file(std::FILE* stream) {
  engine_instance.use_stream(stream);
  return stream;
}

void new_output_buf() {
  engine_instance.use_memory();
}

uint8_t* get_output_buf() {
  return outbuf;
}

uint32_t get_output_buf_size() {
  return outbuf_size;
}

uint32_t get_pos() {
  return engine_instance.pos();
}

void set_pos(uint32_t position) {
  engine_instance.seek(position);
}

void put_data(const uint8_t* bytes, uint32_t count) {
  engine_instance.put_data(bytes, count);
}

void put_word(uint32_t value) {
  engine_output().put_word(value);
}

void put_half(uint32_t value) {
  engine_output().put_half(value);
}

void put_byte(uint32_t value) {
  engine_instance.put_byte(value);
}

bool output_failed() {
  return outfile != nullptr && (std::fflush(outfile) != 0 || std::ferror(outfile) != 0);
}

uint8_t* get_data(uint32_t count) {
  gen_ptr<uint8_t> block(gen_alloc_array<uint8_t>(count));
  if (count == 0) {
    return nullptr;
  }
  if (outbuf != nullptr) {
    if (uint64_t{engine_instance.position} + count > outbuf_size) {
      gen_errorexit(kStatusFailure, "could not read %d bytes from file: end of file",
                    static_cast<int32_t>(count));
    }
    std::memcpy(block.get(), outbuf + engine_instance.position, count);
    engine_instance.position += count;
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
  grow(&engine_instance);
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
  engine_instance.drop();
  engine_instance = kAtStart;
}

}  // namespace kelvane
