#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

// Memory that never has to be checked: an allocation that fails ends the run with status 3. All of
// it is reached through pointers that hold a working default from program load on.
namespace kelvane {

// Gives `count` times `size` zero-filled bytes; null for a count of 0. Exhausted memory ends the
// run, so callers don't test. Replaceable; callers always go through the pointer.
extern void* (*gen_alloc)(uint32_t count, uint32_t size);

// Gives `pointer` resized to `size` bytes. A size below 1 releases it and gives null; a null
// pointer gives `size` zero-filled bytes; bytes added by a real reallocation are not cleared.
extern void* (*gen_realloc)(void* pointer, int32_t size);

// Releases what gen_alloc or gen_realloc gave; null is allowed.
extern void (*gen_free)(void* pointer);

// The defaults behind the three pointers.
void* gen_default_alloc(uint32_t count, uint32_t size);
void* gen_default_realloc(void* pointer, int32_t size);
void gen_default_free(void* pointer);

// gen_realloc(pointer, count * size). A product beyond 2147483647 ends the run as exhausted memory.
void* gen_allocate(void* pointer, uint32_t count, uint32_t size);

// Writes the program's name, if it has one, and "fatal: Out of memory\n" to descriptor 2 and ends
// the run with status 3. Uses no stream and no heap. `size` is not printed.
[[noreturn]] void gen_out_of_memory(uint32_t size);

// Gives a buffer of at least `size` bytes from a ring of reused buffers; the caller doesn't release
// it. It stays the caller's until `slots` further requests (at least) have been made. Its contents
// are what they were. A size of 0 gives null and leaves the ring as it is. The first call must pass
// at least 1 for `slots`.
void* gen_get_temp_buf(int32_t slots, uint32_t size);

// The same with `size` bytes cleared.
void* gen_get_zeroed_temp_buf(int32_t slots, uint32_t size);

// Copies `string` with its terminator into a buffer of the ring. Null gives null and leaves the
// ring as it is.
char* gen_temp_copy(int32_t slots, const char* string);

// Gives a fresh copy of `size` bytes, which the caller releases by gen_free; null for null.
void* gen_structcopy(const void* pointer, uint32_t size);

// Owns what comes from gen_alloc, so that it is released on every road out of a function.
struct GenDeleter {
  void operator()(void* pointer) const { gen_free(pointer); }
};
template <typename T>
using gen_ptr = std::unique_ptr<T, GenDeleter>;

// Owns a stream.
struct FileCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using file_ptr = std::unique_ptr<std::FILE, FileCloser>;

// gen_alloc for `count` objects of a plain type.
template <typename T>
T* gen_alloc_array(uint32_t count) {
  return static_cast<T*>(gen_alloc(count, static_cast<uint32_t>(sizeof(T))));
}

}  // namespace kelvane
