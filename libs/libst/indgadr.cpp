#include "indgadr.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "indgadr_internal.h"
#include "indgen_message.h"
#include "st_reset.h"

namespace kelvane {

int32_t theMode = kAddressModeAtStart;

namespace {

struct ModeRow {
  const char* name;
  uint8_t encoding;
};

// By mode.
constexpr std::array<ModeRow, 4> kModes = {{
    {"16bit", 2},
    {"16bit-16seg", 66},
    {"32bit", 4},
    {"64bit", 8},
}};

// The row of a mode, or null for one beyond the table.
const ModeRow* row_of(int32_t mode) {
  return mode >= kAddressMode16 && mode <= kAddressMode64 ? &kModes[static_cast<size_t>(mode)]
                                                          : nullptr;
}

bool has_16bit_offsets() {
  return theMode == kAddressMode16 || theMode == kAddressMode16Segmented;
}

// The bits that count, as a number.
uint64_t significant(const gadr& a) {
  switch (theMode) {
    case kAddressMode16:
      return off(a);
    case kAddressMode64:
      return number(a);
    default:
      return a.low;
  }
}

int32_t order(uint64_t a, uint64_t b) {
  if (a == b) {
    return 0;
  }
  return a < b ? -1 : 1;
}

// The sum of an address and a number; `offset` is the number extended to 64 bits, by its sign or,
// where it is to be taken as a magnitude, by zeros. A difference is the sum with the negation.
gadr sum(const gadr& a, uint64_t offset) {
  const auto offset32 = static_cast<uint32_t>(offset & kNil32);
  switch (theMode) {
    case kAddressMode16:
      return {segmented(0, off(a) + offset32), 0};
    case kAddressMode16Segmented:
      return {segmented(seg(a), off(a) + offset32), 0};
    case kAddressMode64:
      return address(number(a) + offset);
    default:
      return {a.low + offset32, 0};
  }
}

// The same, leaving alone what isn't summed.
gadr grown(const gadr& a, uint64_t offset) {
  const auto offset32 = static_cast<uint32_t>(offset & kNil32);
  switch (theMode) {
    case kAddressMode16:
    case kAddressMode16Segmented:
      return {segmented(seg(a), off(a) + offset32), a.high};
    case kAddressMode64:
      return address(number(a) + offset);
    default:
      return {a.low + offset32, a.high};
  }
}

uint64_t sign_extended(int32_t v) {
  return static_cast<uint64_t>(int64_t{v});
}

// What has to be added to subtract `v`. The most negative number counts as a magnitude, since it
// has no negation of 32 bits.
uint64_t negated(int32_t v) {
  return uint64_t{0} - (v == INT32_MIN ? uint64_t{static_cast<uint32_t>(v)} : sign_extended(v));
}

// True if `a` comes before `b` for minimum and maximum, which know no 16-bit case.
bool comes_before(const gadr* a, const gadr* b) {
  return theMode == kAddressMode64 ? gadr_lt(a, b) : a->low < b->low;
}

void report_16bit_mode() {
  if (theMode == kAddressMode16) {
    gadr_no16();
  }
}

// Stores the one chosen by gadr_min or gadr_max.
gadr* assign_chosen(gadr* r, const gadr& chosen) {
  *r = gadr{chosen.low, theMode == kAddressMode64 ? chosen.high : 0};
  return r;
}

}  // namespace

int32_t gadr_set_mode(int32_t mode) {
  const int32_t previous = theMode;
  theMode = mode;
  return previous;
}

int32_t gadr_get_mode() {
  return theMode;
}

bool gadr_is16bit() {
  return theMode == kAddressMode16;
}

bool gadr_is16bit_16seg() {
  return theMode == kAddressMode16Segmented;
}

bool gadr_is32bit() {
  return theMode == kAddressMode32;
}

bool gadr_is64bit() {
  return theMode == kAddressMode64;
}

const char* gadr_name_from_mode(int32_t mode) {
  const ModeRow* const row = row_of(mode);
  if (row == nullptr) {
    gen_error("[adr_name_from_mode]: unknown mode!");
    return "unknown";
  }
  return row->name;
}

int32_t gadr_get_mode_for_adr_byte_size(int32_t size, int32_t segment_size) {
  if (segment_size == 0) {
    switch (size) {
      case 8:
        return kAddressMode64;
      case 4:
        return kAddressMode32;
      case 2:
        return kAddressMode16;
      default:
        break;
    }
  } else if (size == 2 && segment_size == 2) {
    return kAddressMode16Segmented;
  }
  gen_error("[gadr_get_mode_for_adr_byte_size]: bad adr parameters");
  return kAddressMode32;
}

uint8_t gadr_encoding_from_mode(int32_t mode) {
  const ModeRow* const row = row_of(mode);
  if (row == nullptr) {
    gen_error("[gadr_encoding_from_mode]: unknown mode!");
    return kModes[kAddressMode32].encoding;
  }
  return row->encoding;
}

int32_t gadr_mode_from_encoding(int32_t byte) {
  for (int32_t mode = kAddressMode16; mode <= kAddressMode64; ++mode) {
    if (row_of(mode)->encoding == static_cast<uint8_t>(byte)) {
      return mode;
    }
  }
  gen_error("[gadr_mode_from_encoding]: unknown mode!");
  return kAddressMode32;
}

gadr* gadr_assign(gadr* r, const gadr* a) {
  *r = *a;
  return r;
}

gadr* gadr_assign_0(gadr* r) {
  *r = gadr{0, 0};
  return r;
}

gadr* gadr_assign_nil(gadr* r) {
  *r = gadrNil();
  return r;
}

gadr gadrNil() {
  return {kNil32, kNil32};
}

gadr* gadr_assign32(gadr* r, int32_t v) {
  const bool extended = v == -1 || (v < 0 && theMode == kAddressMode64);
  *r = gadr{static_cast<uint32_t>(v), extended ? kNil32 : 0};
  return r;
}

gadr* gadr_assign64(gadr* r, uint64_t v) {
  *r = address(v);
  const bool is_extension = r->high == kNil32 && r->low > INT32_MAX && r->low != kNil32;
  if (is_extension && theMode != kAddressMode64) {
    r->high = 0;
  }
  return r;
}

gadr* gadr_sign_extend(gadr* r) {
  if (theMode == kAddressMode64 && r->high == 0 && r->low > INT32_MAX) {
    r->high = kNil32;
  }
  return r;
}

int32_t gadr_cmp(const gadr* a, const gadr* b) {
  return order(significant(*a), significant(*b));
}

bool gadr_lt(const gadr* a, const gadr* b) {
  return significant(*a) < significant(*b);
}

bool gadr_lte(const gadr* a, const gadr* b) {
  return significant(*a) <= significant(*b);
}

bool gadr_equal(const gadr* a, const gadr* b) {
  return significant(*a) == significant(*b);
}

bool gadr_not_equal(const gadr* a, const gadr* b) {
  return significant(*a) != significant(*b);
}

int32_t gadr_cmp32(const gadr* a, uint32_t v) {
  return order(significant(*a), v);
}

bool gadr_lt32(const gadr* a, uint32_t v) {
  return significant(*a) < v;
}

bool gadr_lte32(const gadr* a, uint32_t v) {
  return significant(*a) <= v;
}

bool gadr_is_0(const gadr* a) {
  if (theMode == kAddressMode16Segmented) {
    return off(*a) == 0 && a->high == 0;
  }
  return number(*a) == 0;
}

bool gadr_is_not_0(const gadr* a) {
  return !gadr_is_0(a);
}

bool gadr_is_nil(const gadr* a) {
  if (has_16bit_offsets()) {
    return off(*a) == kNil16;
  }
  return theMode == kAddressMode64 ? number(*a) == kNil64 : a->low == kNil32;
}

bool gadr_is_not_nil(const gadr* a) {
  return !gadr_is_nil(a);
}

bool gadr_is_nil_or_0(const gadr* a) {
  return gadr_is_nil(a) || (theMode == kAddressMode64 ? number(*a) : a->low) == 0;
}

bool gadr_is_not_nil_or_0(const gadr* a) {
  if (has_16bit_offsets()) {
    return off(*a) != 0 && off(*a) != kNil16;
  }
  return !gadr_is_nil_or_0(a);
}

bool gadr32_is_nil(uint32_t v) {
  return v == kNil32;
}

gadr* gadr_add(gadr* r, const gadr* a, const gadr* b) {
  if (theMode == kAddressMode16Segmented) {
    *r = gadr{segmented(uint32_t{seg(*a)} + seg(*b), uint32_t{off(*a)} + off(*b)), 0};
  } else {
    *r = sum(*a, number(*b));
  }
  return r;
}

gadr* gadr_sub(gadr* r, const gadr* a, const gadr* b) {
  if (theMode == kAddressMode16Segmented) {
    *r = gadr{segmented(uint32_t{seg(*a)} - seg(*b), uint32_t{off(*a)} - off(*b)), 0};
  } else {
    *r = sum(*a, uint64_t{0} - number(*b));
  }
  return r;
}

gadr* gadr_inc(gadr* a, const gadr* b) {
  *a = grown(*a, number(*b));
  return a;
}

gadr* gadr_dec(gadr* a, const gadr* b) {
  return gadr_sub(a, a, b);
}

gadr* gadr_add32(gadr* r, const gadr* a, int32_t v) {
  *r = sum(*a, sign_extended(v));
  return r;
}

gadr* gadr_sub32(gadr* r, const gadr* a, int32_t v) {
  *r = sum(*a, negated(v));
  return r;
}

gadr* gadr_inc32(gadr* a, int32_t v) {
  *a = grown(*a, sign_extended(v));
  return a;
}

gadr* gadr_dec32(gadr* a, int32_t v) {
  *a = grown(*a, negated(v));
  return a;
}

gadr* gadr_inc_if_not_nil(gadr* a, const gadr* b) {
  return gadr_is_nil(a) ? a : gadr_inc(a, b);
}

gadr* gadr_inc32_if_not_nil(gadr* a, int32_t v) {
  return gadr_is_nil(a) ? a : gadr_inc32(a, v);
}

int32_t gadr_diff(const gadr* a, const gadr* b) {
  gadr difference{};
  gadr_sub(&difference, a, b);
  return has_16bit_offsets() ? static_cast<int16_t>(off(difference))
                             : static_cast<int32_t>(difference.low);
}

gadr* gadr_min(gadr* r, const gadr* a, const gadr* b) {
  return assign_chosen(r, *gadr_pmin(a, b));
}

gadr* gadr_max(gadr* r, const gadr* a, const gadr* b) {
  return assign_chosen(r, *gadr_pmax(a, b));
}

const gadr* gadr_pmin(const gadr* a, const gadr* b) {
  report_16bit_mode();
  return comes_before(a, b) ? a : b;
}

const gadr* gadr_pmax(const gadr* a, const gadr* b) {
  report_16bit_mode();
  if (theMode == kAddressMode64) {
    return comes_before(a, b) ? b : a;
  }
  return comes_before(b, a) ? a : b;
}

void gadr_no16() {
  gen_error("gadr: unimplemented 16bit case");
}

gadr* gadr_scale_up(gadr* a, uint32_t scale) {
  if (scale == 1) {
    return a;
  }
  if (theMode == kAddressMode64) {
    *a = address(number(*a) << (std::bit_width(scale) - 1));
  } else if (gadr_is_not_nil(a)) {
    a->low = has_16bit_offsets() ? segmented(seg(*a), off(*a) * scale) : a->low * scale;
  }
  return a;
}

gadr* gadr_scale_down(gadr* a, uint32_t scale) {
  if (scale == 1) {
    return a;
  }
  if (theMode == kAddressMode64) {
    *a = address(number(*a) >> (std::bit_width(scale) - 1));
  } else if (gadr_is_not_nil(a)) {
    a->low = has_16bit_offsets() ? segmented(seg(*a), off(*a) / scale) : a->low / scale;
  }
  return a;
}

uint32_t gadr32_scale_up(uint32_t v, uint32_t scale) {
  return gadr32_is_nil(v) ? v : v * scale;
}

uint32_t gadr32_scale_down(uint32_t v, uint32_t scale) {
  return gadr32_is_nil(v) ? v : v / scale;
}

gadr* gadr_align(gadr* a, uint32_t alignment) {
  if (alignment == 0 || gadr_is_nil(a)) {
    return a;
  }
  a->low = has_16bit_offsets() ? segmented(seg(*a), off(*a) / alignment * alignment)
                               : a->low / alignment * alignment;
  return a;
}

void reset_indgadr() {
  theMode = kAddressModeAtStart;
}

}  // namespace kelvane
