// Ranges of addresses, and addresses as text.

#include <cstdint>
#include <cstdio>

#include "indgadr.h"
#include "indgadr_internal.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_string.h"

namespace kelvane {

namespace {

constexpr int32_t kMaxDigits = 8;

// Ring slots and bytes for one printed address; the longest takes 20 and a terminator.
constexpr int32_t kPrintSlots = 4;
constexpr uint32_t kPrintSize = 24;

// The place of `v` by a range at any width; `wraps_validly` is asked only where a wrap decides.
template <typename Number, typename WrapsValidly>
int32_t place_in_range(Number v, Number start, Number end, WrapsValidly wraps_validly) {
  const int32_t outside = v < start ? -1 : 1;
  if (end >= start) {
    return v >= start && v < end ? 0 : outside;
  }
  // The range goes over the top: its second part ends at `end`, its first begins at `start`.
  if (v < start && v >= end) {
    return outside;
  }
  if (wraps_validly()) {
    return 0;
  }
  gadr_warn_for_invalid_wraparound_range();
  return outside;
}

bool wraps_validly64(const gadr& start, const gadr& end) {
  if (end.high == start.high) {
    return static_cast<int32_t>(end.low - start.low) >= 0;
  }
  return end.high + 1 == start.high;
}

// The value of a hexadecimal digit, or -1.
int32_t digit_value(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

struct Digits {
  uint32_t value = 0;
  int32_t count = 0;
};

// Reads hexadecimal digits, as many as a word has, and moves the position behind them.
Digits read_digits(const char** position) {
  Digits digits;
  while (digits.count < kMaxDigits) {
    const int32_t value = digit_value(**position);
    if (value < 0) {
      break;
    }
    digits.value = digits.value * 16 + static_cast<uint32_t>(value);
    ++digits.count;
    ++*position;
  }
  return digits;
}

// Prints an address, each of its numbers at least `half_width` digits wide where it is a half word
// and `word_width` where it is a word.
const char* print(const gadr& a, int32_t half_width, int32_t word_width) {
  auto* const text = static_cast<char*>(gen_get_temp_buf(kPrintSlots, kPrintSize));
  if (theMode == kAddressMode16 || (theMode == kAddressMode16Segmented && seg(a) == 0)) {
    std::snprintf(text, kPrintSize, "0x%0*x", half_width, uint32_t{off(a)});
  } else if (theMode == kAddressMode16Segmented) {
    std::snprintf(text, kPrintSize, "0x%0*x%0*x", half_width, uint32_t{seg(a)}, half_width,
                  uint32_t{off(a)});
  } else if (theMode == kAddressMode64) {
    std::snprintf(text, kPrintSize, "0x%0*x_%0*x", word_width, a.high, word_width, a.low);
  } else {
    std::snprintf(text, kPrintSize, "0x%0*x", word_width, a.low);
  }
  return text;
}

}  // namespace

int32_t gadr16_cmprange(uint16_t v, uint16_t start, uint16_t end) {
  return place_in_range(v, start, end, [=] { return static_cast<int16_t>(end - start) >= 0; });
}

int32_t gadr32_cmprange(uint32_t v, uint32_t start, uint32_t end) {
  return place_in_range(v, start, end, [=] { return static_cast<int32_t>(end - start) >= 0; });
}

int32_t gadr64_cmprange(const gadr* v, const gadr* start, const gadr* end) {
  return place_in_range(number(*v), number(*start), number(*end),
                        [=] { return wraps_validly64(*start, *end); });
}

int32_t gadr_cmprange(const gadr* a, const gadr* start, const gadr* end) {
  switch (theMode) {
    case kAddressMode16:
      return gadr16_cmprange(off(*a), off(*start), off(*end));
    case kAddressMode64:
      return gadr64_cmprange(a, start, end);
    default:
      return gadr32_cmprange(a->low, start->low, end->low);
  }
}

int32_t gadr_cmprange32(const gadr* a, uint32_t start, uint32_t end) {
  if (theMode == kAddressMode16) {
    return gadr16_cmprange(off(*a), off({start, 0}), off({end, 0}));
  }
  if (theMode == kAddressMode64 && a->high != 0) {
    return 1;
  }
  return gadr32_cmprange(a->low, start, end);
}

int32_t gadr_cmpblock(const gadr* a, const gadr* start, uint32_t length) {
  if (theMode != kAddressMode64) {
    return gadr_cmpblock32(a, start->low, length);
  }
  gadr end{};
  gadr_add32(&end, start, static_cast<int32_t>(length));
  return gadr64_cmprange(a, start, &end);
}

int32_t gadr_cmpblock32(const gadr* a, uint32_t start, uint32_t length) {
  if (theMode == kAddressMode64 && a->high != 0) {
    gadr wide_start{};
    gadr_assign32(&wide_start, static_cast<int32_t>(start));
    return gadr_cmpblock(a, &wide_start, length);
  }
  return gadr_cmprange32(a, start, start + length);
}

void gadr_warn_for_invalid_wraparound_range() {
  gen_warning("gadr: invalid range");
}

const char* gadr_print(const gadr* a) {
  return print(*a, 4, 8);
}

const char* gadr_print_nopad(const gadr* a) {
  return print(*a, 1, 1);
}

const char* gadr_parse_adr(const char* text, uint32_t* low, uint32_t* high) {
  while (*text == ' ' || (*text >= 8 && *text <= 13)) {
    ++text;
  }
  if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text += 2;
  }
  Digits last = read_digits(&text);
  uint32_t upper = 0;
  if (last.count == kMaxDigits) {
    if (*text == '_') {
      ++text;
    }
    if (gen_isalnum(*text)) {
      upper = last.value;
      last = read_digits(&text);
    }
  }
  *low = last.value;
  *high = upper;
  return text;
}

const char* gadr_scan(const char* text, uint32_t scale, gadr* a) {
  uint32_t low = 0;
  uint32_t high = 0;
  const char* const end = gadr_parse_adr(text, &low, &high);
  switch (theMode) {
    case kAddressMode16:
    case kAddressMode16Segmented:
      *a = gadr{segmented(0, low / scale), 0};
      break;
    case kAddressMode64:
      if (scale != 1) {
        gen_error("[gadr_scan]: illegal scale factor");
      }
      *a = gadr{low, high};
      break;
    default:
      *a = gadr{low / scale, 0};
      break;
  }
  return end;
}

bool gadr_scanf(const char** text, uint32_t scale, gadr* a) {
  const char* const begin = *text;
  *text = gadr_scan(begin, scale, a);
  return *text != begin;
}

}  // namespace kelvane
