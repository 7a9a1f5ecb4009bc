#include <algorithm>
#include <array>
#include <cstring>

#include "byte_order.h"
#include "indgen_memory.h"
#include "indgfile.h"

namespace kelvane {

namespace {

constexpr uint32_t kGroupBits = 7;  // of LEB128
constexpr uint32_t kGroupMask = 0x7F;
constexpr uint32_t kMoreGroups = 0x80;
constexpr uint32_t kGroupSign = 0x40;
constexpr uint32_t kWordBits = 32;
constexpr uint32_t kLastPad = 0xAB;
constexpr uint32_t kElement = 4;  // bytes of an element of an array of 4-byte values

bool is_variable(const GFile* handle) {
  return handle->file_version != 0;
}

// Numbers wrap, so differences of any two values can be stored.
int32_t difference(uint32_t later, uint32_t earlier) {
  return static_cast<int32_t>(later - earlier);
}

uint32_t sum(uint32_t value, int32_t change) {
  return value + static_cast<uint32_t>(change);
}

// The groups of a LEB128 number. `bits` is how many were gathered, `last` the last group; groups
// beyond 32 bits are read and don't count. False at the end of the file.
struct Groups {
  uint32_t value = 0;
  uint32_t bits = 0;
  uint32_t last = 0;
};

bool read_groups(GFile* handle, Groups* groups) {
  while (true) {
    const int c = std::fgetc(handle->fp);
    if (c == EOF) {
      return false;
    }
    groups->last = static_cast<uint32_t>(c);
    if (groups->bits < kWordBits) {
      groups->value |= (groups->last & kGroupMask) << groups->bits;
      groups->bits += kGroupBits;
    }
    if ((groups->last & kMoreGroups) == 0) {
      return true;
    }
  }
}

uint32_t segment_of(const gadr* address) {
  return address->low >> 16U;
}
uint32_t offset_of(const gadr* address) {
  return address->low & 0xFFFFU;
}

void set_offset(gadr* address, uint32_t offset) {
  if (offset == 0xFFFFU) {
    gadr_assign_nil(address);
  } else {
    address->low = (address->low & 0xFFFF0000U) | offset;
  }
}

void set_segment_and_offset(gadr* address, int32_t segment, uint32_t offset) {
  if (offset == 0xFFFFU) {
    gadr_assign_nil(address);
  } else {
    address->low = (static_cast<uint32_t>(segment) << 16U) | offset;
  }
}

void set_low(gadr* address, uint32_t low) {
  if (low == UINT32_MAX) {
    gadr_assign_nil(address);
  } else {
    address->low = low;
  }
}

// Moves the position forward.
void skip(GFile* handle, uint64_t count) {
  if (std::fseek(handle->fp, static_cast<long>(count), SEEK_CUR) != 0) {
    gf_set_got_error(handle, 1);
  }
}

// Gives the place of the next `size` bytes in the mapping and moves behind them; null and an error
// if they don't lie inside it.
const void* take_mapped(GFile* handle, uint64_t size) {
  const int32_t position = gf_tell(handle, nullptr);
  if (handle->mapping == gf_get_nil_file_memory_mapping_handle() || position < 0 ||
      size > handle->mapping_size ||
      static_cast<uint32_t>(position) > handle->mapping_size - size) {
    gf_set_file_memory_mapping_error(handle);
    return nullptr;
  }
  skip(handle, size);
  return static_cast<const uint8_t*>(handle->mapping) + position;
}

// Number of pad bytes in front of the next multiple of `alignment`.
uint32_t pad_bytes(GFile* handle, uint32_t alignment) {
  if (alignment <= 1) {
    return 0;
  }
  const int32_t position = gf_tell(handle, nullptr);
  const uint32_t over = position < 0 ? 0 : static_cast<uint32_t>(position) % alignment;
  return over == 0 ? 0 : alignment - over;
}

}  // namespace

void gf_put_1(GFile* handle, uint32_t value) {
  std::fputc(static_cast<int>(value & 0xFFU), handle->fp);
}

uint8_t gf_get_1(GFile* handle) {
  return static_cast<uint8_t>(std::fgetc(handle->fp));
}

void gf_put_2(GFile* handle, uint32_t value) {
  std::array<uint8_t, 2> bytes{};
  store_half(bytes.data(), value, ByteOrder::big);
  std::fwrite(bytes.data(), 1, bytes.size(), handle->fp);
}

uint16_t gf_get_2(GFile* handle) {
  std::array<uint8_t, 2> bytes{};
  const size_t got = std::fread(bytes.data(), 1, bytes.size(), handle->fp);
  return got == bytes.size() ? load_half(bytes.data(), ByteOrder::big) : uint16_t{0};
}

void gf_put_4(GFile* handle, uint32_t value) {
  std::array<uint8_t, 4> bytes{};
  store_word(bytes.data(), value, ByteOrder::big);
  std::fwrite(bytes.data(), 1, bytes.size(), handle->fp);
}

uint32_t gf_get_4(GFile* handle) {
  std::array<uint8_t, 4> bytes{};
  const size_t got = std::fread(bytes.data(), 1, bytes.size(), handle->fp);
  return got == bytes.size() ? load_word(bytes.data(), ByteOrder::big) : 0;
}

void gf_put_8(GFile* handle, uint64_t value) {
  gf_put_4(handle, static_cast<uint32_t>(value >> kWordBits));
  gf_put_4(handle, static_cast<uint32_t>(value));
}

uint64_t gf_get_8(GFile* handle) {
  const uint64_t high = gf_get_4(handle);
  return (high << kWordBits) | gf_get_4(handle);
}

void gf_put_un(GFile* handle, uint32_t value) {
  if (!is_variable(handle)) {
    gf_put_4(handle, value);
    return;
  }
  while (value > kGroupMask) {
    gf_put_1(handle, (value & kGroupMask) | kMoreGroups);
    value >>= kGroupBits;
  }
  gf_put_1(handle, value);
}

uint32_t gf_get_un(GFile* handle) {
  if (!is_variable(handle)) {
    return gf_get_4(handle);
  }
  Groups groups;
  return read_groups(handle, &groups) ? groups.value : 0;
}

void gf_put_sn(GFile* handle, int32_t value) {
  if (!is_variable(handle)) {
    gf_put_4(handle, static_cast<uint32_t>(value));
    return;
  }
  while (true) {
    const uint32_t group = static_cast<uint32_t>(value) & kGroupMask;
    value >>= kGroupBits;  // keeps the sign
    const bool negative = (group & kGroupSign) != 0;
    if ((value == 0 && !negative) || (value == -1 && negative)) {
      gf_put_1(handle, group);
      return;
    }
    gf_put_1(handle, group | kMoreGroups);
  }
}

int32_t gf_get_sn(GFile* handle) {
  if (!is_variable(handle)) {
    return static_cast<int32_t>(gf_get_4(handle));
  }
  Groups groups;
  if (!read_groups(handle, &groups)) {
    return 0;
  }
  if ((groups.last & kGroupSign) != 0 && groups.bits < kWordBits) {
    groups.value |= UINT32_MAX << groups.bits;
  }
  return static_cast<int32_t>(groups.value);
}

void gf_put_iss(GFile* handle, int32_t value) {
  // In the variable form -1 takes one byte.
  const uint32_t stored = static_cast<uint32_t>(value) + (is_variable(handle) ? 1U : 0U);
  gf_put_un(handle, stored);
}

int32_t gf_get_iss(GFile* handle) {
  return static_cast<int32_t>(gf_get_un(handle) - (is_variable(handle) ? 1U : 0U));
}

void gf_put_iss_2(GFile* handle, int32_t first, int32_t second) {
  gf_put_iss(handle, first);
  gf_put_sn(handle, is_variable(handle)
                        ? difference(static_cast<uint32_t>(second), static_cast<uint32_t>(first))
                        : second);
}

void gf_get_iss_2(GFile* handle, int32_t* first, int32_t* second) {
  *first = gf_get_iss(handle);
  const int32_t stored = gf_get_sn(handle);
  *second = is_variable(handle) ? static_cast<int32_t>(sum(static_cast<uint32_t>(*first), stored))
                                : stored;
}

void gf_put_iss_3(GFile* handle, int32_t first, int32_t second, int32_t third) {
  gf_put_iss_2(handle, first, second);
  gf_put_sn(handle, is_variable(handle)
                        ? difference(static_cast<uint32_t>(third), static_cast<uint32_t>(second))
                        : third);
}

void gf_get_iss_3(GFile* handle, int32_t* first, int32_t* second, int32_t* third) {
  gf_get_iss_2(handle, first, second);
  const int32_t stored = gf_get_sn(handle);
  *third = is_variable(handle) ? static_cast<int32_t>(sum(static_cast<uint32_t>(*second), stored))
                               : stored;
}

void gf_put_ind(GFile* handle, int32_t value) {
  gf_put_iss(handle, value);
}

int32_t gf_get_ind(GFile* handle) {
  return gf_get_iss(handle);
}

void gf_put_ind_2(GFile* handle, int32_t first, int32_t second) {
  gf_put_iss_2(handle, first, second);
}

void gf_get_ind_2(GFile* handle, int32_t* first, int32_t* second) {
  gf_get_iss_2(handle, first, second);
}

void gf_put_ind_3(GFile* handle, int32_t first, int32_t second, int32_t third) {
  gf_put_iss_3(handle, first, second, third);
}

void gf_get_ind_3(GFile* handle, int32_t* first, int32_t* second, int32_t* third) {
  gf_get_iss_3(handle, first, second, third);
}

void gf_put_str(GFile* handle, const char* string) {
  if (string == nullptr) {
    gf_put_un(handle, 0);
    return;
  }
  const auto size = static_cast<uint32_t>(std::strlen(string) + 1);
  gf_put_un(handle, size);
  std::fwrite(string, 1, size, handle->fp);
}

char* gf_get_str(GFile* handle) {
  constexpr uint32_t kFirstRoom = 4096;
  const uint32_t size = gf_get_un(handle);
  if (size == 0) {
    return nullptr;
  }
  // The room grows with what arrives, so that a false length costs no memory.
  gen_ptr<char> string;
  uint32_t room = 0;
  uint32_t got = 0;
  while (got == room && got < size) {
    room = std::min(size, room == 0 ? kFirstRoom : 2 * room);
    string.reset(static_cast<char*>(gen_allocate(string.release(), 1, room)));
    got += static_cast<uint32_t>(std::fread(string.get() + got, 1, room - got, handle->fp));
  }
  string.get()[std::min(got, room - 1)] = '\0';
  return string.release();
}

void gf_put_adr16(GFile* handle, uint32_t value) {
  gf_put_2(handle, value);
}

uint16_t gf_get_adr16(GFile* handle) {
  return gf_get_2(handle);
}

void gf_put_adr32(GFile* handle, uint32_t value) {
  gf_put_4(handle, value);
}

uint32_t gf_get_adr32(GFile* handle) {
  return gf_get_4(handle);
}

void gf_put_adr64(GFile* handle, const gadr* address) {
  gf_put_4(handle, address->high);
  gf_put_4(handle, address->low);
}

void gf_get_adr64(GFile* handle, gadr* address) {
  address->high = gf_get_4(handle);
  address->low = gf_get_4(handle);
}

void gf_put_adr16_2(GFile* handle, uint32_t first, uint32_t second) {
  gf_put_adr16(handle, first);
  if (is_variable(handle)) {
    gf_put_sn(handle, difference(second & 0xFFFFU, first & 0xFFFFU));
  } else {
    gf_put_adr16(handle, second);
  }
}

void gf_get_adr16_2(GFile* handle, uint16_t* first, uint16_t* second) {
  *first = gf_get_adr16(handle);
  *second = is_variable(handle) ? static_cast<uint16_t>(sum(*first, gf_get_sn(handle)))
                                : gf_get_adr16(handle);
}

void gf_put_adr32_2(GFile* handle, uint32_t first, uint32_t second) {
  gf_put_adr32(handle, first);
  if (is_variable(handle)) {
    gf_put_sn(handle, difference(second, first));
  } else {
    gf_put_adr32(handle, second);
  }
}

void gf_get_adr32_2(GFile* handle, uint32_t* first, uint32_t* second) {
  *first = gf_get_adr32(handle);
  *second = is_variable(handle) ? sum(*first, gf_get_sn(handle)) : gf_get_adr32(handle);
}

void gf_put_adr64_2(GFile* handle, const gadr* first, const gadr* second) {
  gf_put_adr64(handle, first);
  if (is_variable(handle)) {
    gf_put_sn(handle, difference(second->high, first->high));
    gf_put_sn(handle, difference(second->low, first->low));
  } else {
    gf_put_adr64(handle, second);
  }
}

void gf_get_adr64_2(GFile* handle, gadr* first, gadr* second) {
  gf_get_adr64(handle, first);
  if (is_variable(handle)) {
    second->high = sum(first->high, gf_get_sn(handle));
    second->low = sum(first->low, gf_get_sn(handle));
  } else {
    gf_get_adr64(handle, second);
  }
}

void gf_put_adr(GFile* handle, const gadr* address) {
  switch (handle->address_mode) {
    case 0:
      gf_put_adr16(handle, offset_of(address));
      break;
    case 1:
      gf_put_sn(handle, static_cast<int32_t>(segment_of(address)));
      gf_put_adr16(handle, offset_of(address));
      break;
    case 2:
      gf_put_adr32(handle, address->low);
      break;
    case 3:
      gf_put_adr64(handle, address);
      break;
    default:
      break;
  }
}

void gf_get_adr(GFile* handle, gadr* address) {
  switch (handle->address_mode) {
    case 0:
      set_offset(address, gf_get_adr16(handle));
      break;
    case 1: {
      const int32_t segment = gf_get_sn(handle);
      set_segment_and_offset(address, segment, gf_get_adr16(handle));
      break;
    }
    case 2:
      set_low(address, gf_get_adr32(handle));
      break;
    case 3:
      gf_get_adr64(handle, address);
      break;
    default:
      break;
  }
}

void gf_put_adr_2(GFile* handle, const gadr* first, const gadr* second) {
  switch (handle->address_mode) {
    case 0:
      gf_put_adr16_2(handle, offset_of(first), offset_of(second));
      break;
    case 1:
      gf_put_sn(handle, static_cast<int32_t>(segment_of(first)));
      gf_put_sn(handle, static_cast<int32_t>(segment_of(second)));
      gf_put_adr16_2(handle, offset_of(first), offset_of(second));
      break;
    case 2:
      gf_put_adr32_2(handle, first->low, second->low);
      break;
    case 3:
      gf_put_adr64_2(handle, first, second);
      break;
    default:
      break;
  }
}

void gf_get_adr_2(GFile* handle, gadr* first, gadr* second) {
  uint16_t offset1 = 0;
  uint16_t offset2 = 0;
  switch (handle->address_mode) {
    case 0:
      gf_get_adr16_2(handle, &offset1, &offset2);
      set_offset(first, offset1);
      set_offset(second, offset2);
      break;
    case 1: {
      const int32_t segment1 = gf_get_sn(handle);
      const int32_t segment2 = gf_get_sn(handle);
      gf_get_adr16_2(handle, &offset1, &offset2);
      set_segment_and_offset(first, segment1, offset1);
      set_segment_and_offset(second, segment2, offset2);
      break;
    }
    case 2: {
      uint32_t low1 = 0;
      uint32_t low2 = 0;
      gf_get_adr32_2(handle, &low1, &low2);
      set_low(first, low1);
      set_low(second, low2);
      break;
    }
    case 3:
      gf_get_adr64_2(handle, first, second);
      break;
    default:
      break;
  }
}

void gf_put_uc(GFile* handle, uint32_t value, uint32_t expected) {
  if (value != expected) {
    gf_set_constval_error(handle);
  }
}

void gf_put_sc(GFile* handle, int32_t value, int32_t expected) {
  if (value != expected) {
    gf_set_constval_error(handle);
  }
}

void gf_put_alignpad(GFile* handle, uint32_t alignment) {
  for (uint32_t left = pad_bytes(handle, alignment); left > 0; --left) {
    gf_put_1(handle, kLastPad + left - 1);
  }
}

void gf_get_alignpad(GFile* handle, uint32_t alignment) {
  for (uint32_t left = pad_bytes(handle, alignment); left > 0; --left) {
    const int c = std::fgetc(handle->fp);
    if (c == EOF) {
      gf_set_alignpad_error(handle);
      return;
    }
    if (static_cast<uint32_t>(c) != kLastPad + left - 1) {
      gf_set_alignpad_error(handle);
    }
  }
}

void gf_put_array_1(GFile* handle, const uint8_t* bytes, uint32_t count) {
  std::fwrite(bytes, 1, count, handle->fp);
}

void gf_get_array_1(GFile* handle, uint8_t* bytes, uint32_t count) {
  static_cast<void>(std::fread(bytes, 1, count, handle->fp));
}

void gf_skip_array_1(GFile* handle, uint32_t count) {
  skip(handle, count);
}

void gf_get_mapped_array_1(GFile* handle, const uint8_t** pointer, uint32_t count) {
  if (count != 0) {
    *pointer = static_cast<const uint8_t*>(take_mapped(handle, count));
  }
}

void gf_put_array_4(GFile* handle, const uint32_t* values, uint32_t count) {
  if (count == 0) {
    return;
  }
  if (handle->raw_arrays != 0) {
    gf_put_alignpad(handle, kElement);
    std::fwrite(values, kElement, count, handle->fp);
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
  if (handle->raw_arrays != 0) {
    gf_get_alignpad(handle, kElement);
    const size_t got = std::fread(values, kElement, count, handle->fp);
    if (handle->swapped != 0) {
      gf_swap_array_4(values, static_cast<uint32_t>(got));
    }
    return;
  }
  for (uint32_t i = 0; i < count; ++i) {
    values[i] = gf_get_4(handle);
  }
}

void gf_skip_array_4(GFile* handle, uint32_t count) {
  if (count == 0) {
    return;
  }
  if (handle->raw_arrays != 0) {
    gf_get_alignpad(handle, kElement);
    skip(handle, uint64_t{count} * kElement);
    return;
  }
  for (uint32_t i = 0; i < count && std::feof(handle->fp) == 0; ++i) {
    gf_get_4(handle);
  }
}

void gf_get_mapped_array_4(GFile* handle, const uint32_t** pointer, uint32_t count) {
  if (count == 0) {
    return;
  }
  *pointer = nullptr;
  if (handle->raw_arrays == 0 || handle->swapped != 0 ||
      handle->mapping == gf_get_nil_file_memory_mapping_handle()) {
    gf_set_file_memory_mapping_error(handle);
    return;
  }
  gf_get_alignpad(handle, kElement);
  *pointer = static_cast<const uint32_t*>(take_mapped(handle, uint64_t{count} * kElement));
}

void gf_swap_array_4(uint32_t* values, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    values[i] = __builtin_bswap32(values[i]);
  }
}

}  // namespace kelvane
