// The values of structured files: numbers, strings and addresses.
#include <algorithm>
#include <array>
#include <cstring>

#include "byte_order.h"
#include "indgen_memory.h"
#include "indgfile.h"

namespace kelvane {

namespace {

constexpr uint32_t kGroupBits = 7;
constexpr uint8_t kMore = 0x80;  // set in every byte of a variable-length number but the last
constexpr uint8_t kSign = 0x40;  // the sign in the last byte of a signed one
constexpr uint32_t kStringPiece = 4096;  // read at once of a string, so that a length is believed
                                         // only as far as the file goes

// Modes of an address.
constexpr int32_t kMode16 = 0;
constexpr int32_t kMode16Segmented = 1;
constexpr int32_t kMode32 = 2;
constexpr int32_t kMode64 = 3;

bool is_variable(const GFile* handle) {
  return handle->file_version != 0;
}

template <size_t Size>
void put_bytes(GFile* handle, const std::array<uint8_t, Size>& bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), handle->fp);
}

// A number that the end of the file cuts is 0.
template <size_t Size>
std::array<uint8_t, Size> get_bytes(GFile* handle) {
  std::array<uint8_t, Size> bytes{};
  return std::fread(bytes.data(), bytes.size(), 1, handle->fp) == 1 ? bytes
                                                                    : std::array<uint8_t, Size>{};
}

// The groups of a variable-length number.
struct Groups {
  uint32_t value;  // the groups together, upper bits 0
  uint32_t bits;   // bits gathered
  uint8_t last;    // the last byte
};

// At the end of the file, inside a number too, all is 0.
Groups get_groups(GFile* handle) {
  Groups groups{};
  for (;;) {
    const int byte = std::fgetc(handle->fp);
    if (byte == EOF) {
      return Groups{};
    }
    groups.last = static_cast<uint8_t>(byte);
    if (groups.bits < 32) {
      groups.value |= (groups.last & ~uint32_t{kMore}) << groups.bits;
      groups.bits += kGroupBits;
    }
    if ((groups.last & kMore) == 0) {
      return groups;
    }
  }
}

// Differences wrap around, as 32-bit numbers.
int32_t difference(uint32_t value, uint32_t from) {
  return static_cast<int32_t>(value - from);
}

uint32_t get_next(GFile* handle, uint32_t from) {
  return from + static_cast<uint32_t>(gf_get_sn(handle));
}

// An index behind another one.
void put_following_iss(GFile* handle, int32_t value, int32_t from) {
  const bool variable = is_variable(handle);
  gf_put_sn(handle, variable ? difference(static_cast<uint32_t>(value), static_cast<uint32_t>(from))
                             : value);
}

int32_t get_following_iss(GFile* handle, int32_t from) {
  const uint32_t base = is_variable(handle) ? static_cast<uint32_t>(from) : 0;
  return static_cast<int32_t>(get_next(handle, base));
}

uint16_t off(const gadr& address) {
  return static_cast<uint16_t>(address.low & 0xFFFFU);
}

uint16_t seg(const gadr& address) {
  return static_cast<uint16_t>(address.low >> 16U);
}

// What reading an offset, with its segment, leaves in an address.
void assign_segmented(gadr* address, uint32_t segment, uint16_t offset) {
  address->low = (segment << 16U) + offset;
  if (offset == 0xFFFF) {
    gadr_assign_nil(address);
  }
}

void assign_low(gadr* address, uint32_t low) {
  address->low = low;
  if (low == 0xFFFFFFFF) {
    gadr_assign_nil(address);
  }
}

}  // namespace

void gf_put_1(GFile* handle, uint8_t value) {
  std::fputc(value, handle->fp);
}

uint8_t gf_get_1(GFile* handle) {
  return get_bytes<1>(handle)[0];
}

void gf_put_2(GFile* handle, uint16_t value) {
  std::array<uint8_t, 2> bytes{};
  store_half(bytes.data(), value, ByteOrder::big);
  put_bytes(handle, bytes);
}

uint16_t gf_get_2(GFile* handle) {
  return load_half(get_bytes<2>(handle).data(), ByteOrder::big);
}

void gf_put_4(GFile* handle, uint32_t value) {
  std::array<uint8_t, 4> bytes{};
  store_word(bytes.data(), value, ByteOrder::big);
  put_bytes(handle, bytes);
}

uint32_t gf_get_4(GFile* handle) {
  return load_word(get_bytes<4>(handle).data(), ByteOrder::big);
}

void gf_put_8(GFile* handle, uint64_t value) {
  gf_put_4(handle, static_cast<uint32_t>(value >> 32U));
  gf_put_4(handle, static_cast<uint32_t>(value & 0xFFFFFFFFU));
}

uint64_t gf_get_8(GFile* handle) {
  const uint64_t high = gf_get_4(handle);
  return (high << 32U) | gf_get_4(handle);
}

void gf_put_un(GFile* handle, uint32_t value) {
  if (!is_variable(handle)) {
    gf_put_4(handle, value);
    return;
  }
  while (value >= kMore) {
    gf_put_1(handle, static_cast<uint8_t>((value & 0x7FU) | kMore));
    value >>= kGroupBits;
  }
  gf_put_1(handle, static_cast<uint8_t>(value));
}

uint32_t gf_get_un(GFile* handle) {
  return is_variable(handle) ? get_groups(handle).value : gf_get_4(handle);
}

void gf_put_sn(GFile* handle, int32_t value) {
  if (!is_variable(handle)) {
    gf_put_4(handle, static_cast<uint32_t>(value));
    return;
  }
  for (;;) {
    const auto group = static_cast<uint8_t>(static_cast<uint32_t>(value) & 0x7FU);
    value >>= kGroupBits;
    const bool negative = (group & kSign) != 0;
    if (value == (negative ? -1 : 0)) {
      gf_put_1(handle, group);
      return;
    }
    gf_put_1(handle, static_cast<uint8_t>(group | kMore));
  }
}

int32_t gf_get_sn(GFile* handle) {
  if (!is_variable(handle)) {
    return static_cast<int32_t>(gf_get_4(handle));
  }
  const Groups groups = get_groups(handle);
  const bool fill = (groups.last & kSign) != 0 && groups.bits < 32;
  return static_cast<int32_t>(fill ? groups.value | (UINT32_MAX << groups.bits) : groups.value);
}

void gf_put_iss(GFile* handle, int32_t value) {
  const auto number = static_cast<uint32_t>(value);
  gf_put_un(handle, is_variable(handle) ? number + 1 : number);
}

int32_t gf_get_iss(GFile* handle) {
  const uint32_t number = gf_get_un(handle);
  return static_cast<int32_t>(is_variable(handle) ? number - 1 : number);
}

void gf_put_ind(GFile* handle, int32_t value) {
  gf_put_iss(handle, value);
}

int32_t gf_get_ind(GFile* handle) {
  return gf_get_iss(handle);
}

void gf_put_iss_2(GFile* handle, int32_t first, int32_t second) {
  gf_put_iss(handle, first);
  put_following_iss(handle, second, first);
}

void gf_get_iss_2(GFile* handle, int32_t* first, int32_t* second) {
  *first = gf_get_iss(handle);
  *second = get_following_iss(handle, *first);
}

void gf_put_ind_2(GFile* handle, int32_t first, int32_t second) {
  gf_put_iss_2(handle, first, second);
}

void gf_get_ind_2(GFile* handle, int32_t* first, int32_t* second) {
  gf_get_iss_2(handle, first, second);
}

void gf_put_iss_3(GFile* handle, int32_t first, int32_t second, int32_t third) {
  gf_put_iss_2(handle, first, second);
  put_following_iss(handle, third, second);
}

void gf_get_iss_3(GFile* handle, int32_t* first, int32_t* second, int32_t* third) {
  gf_get_iss_2(handle, first, second);
  *third = get_following_iss(handle, *second);
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
  const size_t size = std::strlen(string) + 1;
  gf_put_un(handle, static_cast<uint32_t>(size));
  std::fwrite(string, 1, size, handle->fp);
}

char* gf_get_str(GFile* handle) {
  const uint32_t size = std::min(gf_get_un(handle), UINT32_MAX - 1);  // room for a terminator
  if (size == 0) {
    return nullptr;
  }
  gen_ptr<char> string;
  uint32_t length = 0;
  uint32_t capacity = 0;
  while (length == capacity && length < size) {
    capacity = static_cast<uint32_t>(std::min<uint64_t>(size, uint64_t{2} * length + kStringPiece));
    string.reset(static_cast<char*>(gen_allocate(string.release(), capacity + 1, 1)));
    length +=
        static_cast<uint32_t>(std::fread(string.get() + length, 1, capacity - length, handle->fp));
  }
  string.get()[length] = '\0';
  return string.release();
}

void gf_put_adr16(GFile* handle, uint16_t address) {
  gf_put_2(handle, address);
}

uint16_t gf_get_adr16(GFile* handle) {
  return gf_get_2(handle);
}

void gf_put_adr32(GFile* handle, uint32_t address) {
  gf_put_4(handle, address);
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

void gf_put_adr16_2(GFile* handle, uint16_t first, uint16_t second) {
  gf_put_adr16(handle, first);
  if (is_variable(handle)) {
    gf_put_sn(handle, difference(second, first));
  } else {
    gf_put_adr16(handle, second);
  }
}

void gf_get_adr16_2(GFile* handle, uint16_t* first, uint16_t* second) {
  *first = gf_get_adr16(handle);
  *second = is_variable(handle) ? static_cast<uint16_t>(get_next(handle, *first) & 0xFFFFU)
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
  *second = is_variable(handle) ? get_next(handle, *first) : gf_get_adr32(handle);
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
    second->high = get_next(handle, first->high);
    second->low = get_next(handle, first->low);
  } else {
    gf_get_adr64(handle, second);
  }
}

void gf_put_adr(GFile* handle, const gadr* address) {
  switch (handle->address_mode) {
    case kMode16:
      gf_put_adr16(handle, off(*address));
      break;
    case kMode16Segmented:
      gf_put_sn(handle, seg(*address));
      gf_put_adr16(handle, off(*address));
      break;
    case kMode32:
      gf_put_adr32(handle, address->low);
      break;
    case kMode64:
      gf_put_adr64(handle, address);
      break;
    default:
      break;
  }
}

void gf_get_adr(GFile* handle, gadr* address) {
  switch (handle->address_mode) {
    case kMode16:
      assign_segmented(address, seg(*address), gf_get_adr16(handle));
      break;
    case kMode16Segmented: {
      const auto segment = static_cast<uint32_t>(gf_get_sn(handle));
      assign_segmented(address, segment, gf_get_adr16(handle));
      break;
    }
    case kMode32:
      assign_low(address, gf_get_adr32(handle));
      break;
    case kMode64:
      gf_get_adr64(handle, address);
      break;
    default:
      break;
  }
}

void gf_put_adr_2(GFile* handle, const gadr* first, const gadr* second) {
  switch (handle->address_mode) {
    case kMode16Segmented:
      gf_put_sn(handle, seg(*first));
      gf_put_sn(handle, seg(*second));
      [[fallthrough]];
    case kMode16:
      gf_put_adr16_2(handle, off(*first), off(*second));
      break;
    case kMode32:
      gf_put_adr32_2(handle, first->low, second->low);
      break;
    case kMode64:
      gf_put_adr64_2(handle, first, second);
      break;
    default:
      break;
  }
}

void gf_get_adr_2(GFile* handle, gadr* first, gadr* second) {
  const int32_t mode = handle->address_mode;
  if (mode == kMode16 || mode == kMode16Segmented) {
    uint32_t first_segment = seg(*first);
    uint32_t second_segment = seg(*second);
    if (mode == kMode16Segmented) {
      first_segment = static_cast<uint32_t>(gf_get_sn(handle));
      second_segment = static_cast<uint32_t>(gf_get_sn(handle));
    }
    uint16_t first_offset = 0;
    uint16_t second_offset = 0;
    gf_get_adr16_2(handle, &first_offset, &second_offset);
    assign_segmented(first, first_segment, first_offset);
    assign_segmented(second, second_segment, second_offset);
  } else if (mode == kMode32) {
    uint32_t first_low = 0;
    uint32_t second_low = 0;
    gf_get_adr32_2(handle, &first_low, &second_low);
    assign_low(first, first_low);
    assign_low(second, second_low);
  } else if (mode == kMode64) {
    gf_get_adr64_2(handle, first, second);
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

}  // namespace kelvane
