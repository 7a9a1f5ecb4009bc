#include "indgen_memory.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "exit_status.h"
#include "indgen_message.h"
#include "indgeninit.h"
#include "shared_reset.h"

namespace kelvane {

void* (*gen_alloc)(uint32_t count, uint32_t size) = gen_default_alloc;
void* (*gen_realloc)(void* pointer, int32_t size) = gen_default_realloc;
void (*gen_free)(void* pointer) = gen_default_free;

namespace {

struct TempBuffer {
  uint32_t capacity;
  void* bytes;
};

struct State {
  TempBuffer* the_bufs = nullptr;  // the ring; its buffers live as long as the process
  int32_t num_bufs = 0;
  int32_t last_buf_index = -1;
};
State state;

// Writes to descriptor 2, again for as long as a signal interrupts the write.
void write_to_stderr(const char* text, size_t length) {
  ssize_t written = 0;
  do {
    errno = 0;
    written = ::write(STDERR_FILENO, text, length);
  } while (written == -1 && errno == EINTR);
}

}  // namespace

void* gen_default_alloc(uint32_t count, uint32_t size) {
  if (count == 0) {
    return nullptr;
  }
  void* const memory = std::calloc(count, size);
  if (memory == nullptr) {
    gen_out_of_memory(count * size);
  }
  return memory;
}

void* gen_default_realloc(void* pointer, int32_t size) {
  if (size < 1) {
    gen_free(pointer);
    return nullptr;
  }
  if (pointer == nullptr) {
    return gen_alloc(1, static_cast<uint32_t>(size));
  }
  void* const memory = std::realloc(pointer, static_cast<size_t>(size));
  if (memory == nullptr) {
    gen_out_of_memory(static_cast<uint32_t>(size));
  }
  return memory;
}

void gen_default_free(void* pointer) {
  std::free(pointer);
}

void* gen_allocate(void* pointer, uint32_t count, uint32_t size) {
  const uint64_t bytes = uint64_t{count} * size;
  if (bytes > INT32_MAX) {
    gen_out_of_memory(size);
  }
  return gen_realloc(pointer, static_cast<int32_t>(bytes));
}

void gen_out_of_memory(uint32_t /*size*/) {
  const char* const name = gen_getprogname();
  if (name != nullptr && *name != '\0') {
    write_to_stderr(name, std::strlen(name));
    write_to_stderr(": ", 2);
  }
  static constexpr char kText[] = "fatal: Out of memory\n";
  write_to_stderr(kText, sizeof kText - 1);
  end_run(kStatusOutOfMemory);
}

void* gen_get_temp_buf(int32_t slots, uint32_t size) {
  if (size == 0) {
    return nullptr;
  }
  if (slots > state.num_bufs) {
    state.the_bufs = static_cast<TempBuffer*>(
        gen_allocate(state.the_bufs, static_cast<uint32_t>(slots), sizeof(TempBuffer)));
    for (int32_t index = state.num_bufs; index < slots; ++index) {
      state.the_bufs[index] = TempBuffer{0, nullptr};
    }
    state.num_bufs = slots;
  }
  if (++state.last_buf_index == state.num_bufs) {
    state.last_buf_index = 0;
  }
  TempBuffer& entry = state.the_bufs[state.last_buf_index];
  if (entry.capacity < size) {
    entry.bytes = gen_allocate(entry.bytes, 1, size);
    entry.capacity = size;
  }
  return entry.bytes;
}

void* gen_get_zeroed_temp_buf(int32_t slots, uint32_t size) {
  void* const buffer = gen_get_temp_buf(slots, size);
  if (buffer != nullptr) {
    std::memset(buffer, 0, size);
  }
  return buffer;
}

char* gen_temp_copy(int32_t slots, const char* string) {
  if (string == nullptr) {
    return nullptr;
  }
  const size_t size = std::strlen(string) + 1;
  void* const buffer = gen_get_temp_buf(slots, static_cast<uint32_t>(size));
  std::memcpy(buffer, string, size);
  return static_cast<char*>(buffer);
}

void* gen_structcopy(const void* pointer, uint32_t size) {
  if (pointer == nullptr) {
    return nullptr;
  }
  void* const copy = gen_alloc(1, size);
  std::memcpy(copy, pointer, size);
  return copy;
}

void reset_indgen_memory() {
  for (int32_t index = 0; index < state.num_bufs; ++index) {
    gen_free(state.the_bufs[index].bytes);
  }
  gen_free(state.the_bufs);
  state = State{};
  gen_alloc = gen_default_alloc;
  gen_realloc = gen_default_realloc;
  gen_free = gen_default_free;
}

}  // namespace kelvane
