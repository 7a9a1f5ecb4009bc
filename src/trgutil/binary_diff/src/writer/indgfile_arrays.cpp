// Padding and arrays of structured files, read or used in the mapping.
#include <algorithm>
#include <array>

#include "byte_order.h"
#include "indgfile.h"

namespace kelvane {

namespace {

constexpr uint32_t kLastPad = 0xAB;

// Moves forward.
void skip_bytes(GFile* handle, uint64_t count) {
  if (std::fseek(handle->fp, static_cast<long>(count), SEEK_CUR) != 0) {
    gf_set_got_error(handle, 1);
  }
}

bool has_mapping(const GFile* handle) {
  return handle->mapping != gf_get_nil_file_memory_mapping_handle();
}

// Gives the next `count` bytes in the mapping and moves behind them. Null, with the mapping error,
// if they don't lie in it whole.
const uint8_t* take_mapped(GFile* handle, uint64_t count) {
  const int32_t position = gf_tell(handle, nullptr);
  const uint64_t size = handle->mapping_size;
  if (position < 0 || static_cast<uint64_t>(position) > size ||
      count > size - static_cast<uint64_t>(position)) {
    gf_set_file_memory_mapping_error(handle);
    return nullptr;
  }
  skip_bytes(handle, count);
  return static_cast<const uint8_t*>(handle->mapping) + position;
}

// The number of pad bytes at the current position.
uint32_t pad_size(GFile* handle, uint32_t alignment) {
  if (alignment < 2) {
    return 0;
  }
  const int32_t position = gf_tell(handle, nullptr);
  const uint32_t rest = position < 0 ? 0 : static_cast<uint32_t>(position) % alignment;
  return rest == 0 ? 0 : alignment - rest;
}

}  // namespace

void gf_put_alignpad(GFile* handle, uint32_t alignment) {
  for (uint32_t left = pad_size(handle, alignment); left > 0; --left) {
    gf_put_1(handle, static_cast<uint8_t>((kLastPad + left - 1) & 0xFFU));
  }
}

void gf_get_alignpad(GFile* handle, uint32_t alignment) {
  for (uint32_t left = pad_size(handle, alignment); left > 0; --left) {
    // Compared as full numbers: a pad byte beyond 255 never matches.
    const int64_t expected = int64_t{kLastPad} + left - 1;
    if (std::fgetc(handle->fp) != expected) {
      gf_set_alignpad_error(handle);
    }
  }
}

void gf_put_array_1(GFile* handle, const uint8_t* bytes, uint32_t count) {
  std::fwrite(bytes, 1, count, handle->fp);
}

void gf_get_array_1(GFile* handle, uint8_t* bytes, uint32_t count) {
  // A short read shows up in the stream's state.
  [[maybe_unused]] const size_t got = std::fread(bytes, 1, count, handle->fp);
}

void gf_skip_array_1(GFile* handle, uint32_t count) {
  skip_bytes(handle, count);
}

void gf_get_mapped_array_1(GFile* handle, const uint8_t** pointer, uint32_t count) {
  if (count == 0) {
    return;
  }
  *pointer = nullptr;
  if (!has_mapping(handle)) {
    gf_set_file_memory_mapping_error(handle);
    return;
  }
  *pointer = take_mapped(handle, count);
}

void gf_put_array_4(GFile* handle, const uint32_t* values, uint32_t count) {
  if (count == 0) {
    return;
  }
  if (handle->raw_arrays != 0) {
    gf_put_alignpad(handle, 4);
    std::fwrite(values, sizeof *values, count, handle->fp);
    return;
  }
  for (uint32_t i = 0; i < count; ++i) {
    gf_put_4(handle, values[i]);
  }
}

void gf_get_array_4(GFile* handle, uint32_t* values, uint32_t count) {
  if (count == 0) {
    return;
  }
  if (handle->raw_arrays == 0) {
    for (uint32_t i = 0; i < count; ++i) {
      values[i] = gf_get_4(handle);
    }
    return;
  }
  gf_get_alignpad(handle, 4);
  const size_t read = std::fread(values, sizeof *values, count, handle->fp);
  if (handle->swapped != 0) {
    gf_swap_array_4(values, static_cast<uint32_t>(read));
  }
}

void gf_skip_array_4(GFile* handle, uint32_t count) {
  if (count == 0) {
    return;
  }
  if (handle->raw_arrays != 0) {
    gf_get_alignpad(handle, 4);
    skip_bytes(handle, uint64_t{4} * count);
    return;
  }
  for (uint32_t i = 0; i < count && std::feof(handle->fp) == 0 && std::ferror(handle->fp) == 0;
       ++i) {
    gf_get_4(handle);
  }
}

void gf_get_mapped_array_4(GFile* handle, const uint32_t** pointer, uint32_t count) {
  if (count == 0) {
    return;
  }
  *pointer = nullptr;
  if (!has_mapping(handle) || handle->raw_arrays == 0 || handle->swapped != 0) {
    gf_set_file_memory_mapping_error(handle);
    return;
  }
  gf_get_alignpad(handle, 4);
  // The mapping begins with the file, on a page, and the position is a multiple of 4.
  *pointer = reinterpret_cast<const uint32_t*>(take_mapped(handle, uint64_t{4} * count));
}

void gf_swap_array_4(uint32_t* values, uint32_t count) {
  std::transform(values, values + count, values, [](uint32_t value) {
    std::array<uint8_t, 4> bytes{};
    store_word(bytes.data(), value, ByteOrder::little);
    return load_word(bytes.data(), ByteOrder::big);
  });
}

}  // namespace kelvane
