#pragma once

#include <cstdint>

// Addresses of the target, whatever their width: 16-bit, segmented 16-bit, 32-bit or 64-bit. An
// address is always two words; a process-wide mode says which of their bits count.
//
//   mode                        name         encoding byte  bits that count
//   0  kAddressMode16           16bit              2  `off`, the lower half of the low word
//   1  kAddressMode16Segmented  16bit-16seg       66  `seg`, the upper half of that, and `off`
//   2  kAddressMode32           32bit              4  the low word
//   3  kAddressMode64           64bit              8  both words
//
// Arguments that are pointers are never null, and `r` may be the same object as `a` or `b`. What
// changes an address gives the pointer to it. Comparisons are unsigned, sums wrap at the width
// named. Addresses made in one mode are not converted when the mode changes. Nothing here ends the
// run: a bad parameter gives an error message and a usable default.
namespace kelvane {

struct gadr {
  uint32_t low;
  uint32_t high;
};

// ---- Mode.

inline constexpr int32_t kAddressMode16 = 0;
inline constexpr int32_t kAddressMode16Segmented = 1;
inline constexpr int32_t kAddressMode32 = 2;
inline constexpr int32_t kAddressMode64 = 3;
inline constexpr int32_t kAddressModeAtStart = kAddressMode32;

// The mode. Written by gadr_set_mode; kAddressModeAtStart from program load on. A value beyond the
// table acts as kAddressMode32.
extern int32_t theMode;

// Stores the mode and gives the one before.
int32_t gadr_set_mode(int32_t mode);
int32_t gadr_get_mode();
bool gadr_is16bit();
bool gadr_is16bit_16seg();
bool gadr_is32bit();
bool gadr_is64bit();

// The name in the table above. Another mode is an error, "[adr_name_from_mode]: unknown mode!", and
// gives "unknown".
const char* gadr_name_from_mode(int32_t mode);
// The mode for addresses of 8, 4 or 2 bytes without a segment (size 0), or of 2 bytes with a
// segment of 2. Other sizes are an error, "[gadr_get_mode_for_adr_byte_size]: bad adr parameters",
// and give 2.
int32_t gadr_get_mode_for_adr_byte_size(int32_t size, int32_t segment_size);
// The encoding byte, which structured files store: the size in bytes, and 64 more with a segment.
// Another mode is an error, "[gadr_encoding_from_mode]: unknown mode!", and gives 4.
uint8_t gadr_encoding_from_mode(int32_t mode);
// The inverse, by the low 8 bits of `byte`. Another value is an error,
// "[gadr_mode_from_encoding]: unknown mode!", and gives 2.
int32_t gadr_mode_from_encoding(int32_t byte);

// ---- Assignment. Nil, both words all ones, stands for no address.

gadr* gadr_assign(gadr* r, const gadr* a);
gadr* gadr_assign_0(gadr* r);
gadr* gadr_assign_nil(gadr* r);
gadr gadrNil();
// Assigns a 32-bit number: -1 is nil in every mode, and another negative number is sign-extended in
// the 64-bit mode.
gadr* gadr_assign32(gadr* r, int32_t v);
// Assigns a 64-bit number. Outside the 64-bit mode a sign-extended 32-bit number loses its
// extension, unless it is nil.
gadr* gadr_assign64(gadr* r, uint64_t v);
// In the 64-bit mode, sign-extends the low word into a high word of 0. Otherwise changes nothing.
gadr* gadr_sign_extend(gadr* r);

// ---- Comparison, over the bits that count.

// -1, 0 or 1.
int32_t gadr_cmp(const gadr* a, const gadr* b);
bool gadr_lt(const gadr* a, const gadr* b);
bool gadr_lte(const gadr* a, const gadr* b);
bool gadr_equal(const gadr* a, const gadr* b);
bool gadr_not_equal(const gadr* a, const gadr* b);
// The same with a plain 32-bit number.
int32_t gadr_cmp32(const gadr* a, uint32_t v);
bool gadr_lt32(const gadr* a, uint32_t v);
bool gadr_lte32(const gadr* a, uint32_t v);

// ---- Tests.

// Both words are 0; in mode 1 a segment doesn't count.
bool gadr_is_0(const gadr* a);
bool gadr_is_not_0(const gadr* a);
// All bits that count are ones; in mode 1 those of `off`.
bool gadr_is_nil(const gadr* a);
bool gadr_is_not_nil(const gadr* a);
// In modes 0 and 1 the low word is 0 or `off` is 0xffff, otherwise the bits that count are all
// zeros or all ones.
bool gadr_is_nil_or_0(const gadr* a);
// In modes 0 and 1 `off` is neither 0 nor 0xffff, so that an address with a segment and an offset
// of 0 passes neither this test nor the one above. Otherwise the negation.
bool gadr_is_not_nil_or_0(const gadr* a);
// The plain number -1.
bool gadr32_is_nil(uint32_t v);

// ---- Arithmetic. In modes 0 and 1 `off` is summed mod 2^16 with no carry into `seg`.

// a + b and a - b. `seg` is summed too in mode 1 and 0 in mode 0; the high word is 0 below mode 3.
gadr* gadr_add(gadr* r, const gadr* a, const gadr* b);
gadr* gadr_sub(gadr* r, const gadr* a, const gadr* b);
// The same in place. gadr_dec is gadr_sub(a, a, b); gadr_inc leaves alone what it doesn't sum,
// which is `seg`, in mode 1 too, and the high word below mode 3.
gadr* gadr_inc(gadr* a, const gadr* b);
gadr* gadr_dec(gadr* a, const gadr* b);
// a + v and a - v. `seg` is that of `a` in mode 1 and 0 in mode 0; the high word is 0 below mode 3.
// A `v` of -2147483648, which has no negation, is subtracted as the magnitude 0x80000000 in mode 3.
gadr* gadr_add32(gadr* r, const gadr* a, int32_t v);
gadr* gadr_sub32(gadr* r, const gadr* a, int32_t v);
// The same in place, leaving alone what isn't summed.
gadr* gadr_inc32(gadr* a, int32_t v);
gadr* gadr_dec32(gadr* a, int32_t v);
// gadr_inc and gadr_inc32, except that a nil address stays as it is.
gadr* gadr_inc_if_not_nil(gadr* a, const gadr* b);
gadr* gadr_inc32_if_not_nil(gadr* a, int32_t v);
// a - b as a signed number: of 16 bits in modes 0 and 1, of the low word otherwise.
int32_t gadr_diff(const gadr* a, const gadr* b);

// The smaller and the larger of two addresses; the high word of `r` is 0 in modes 0 to 2. In mode 0
// the four report by gadr_no16 and go on as in mode 2.
gadr* gadr_min(gadr* r, const gadr* a, const gadr* b);
gadr* gadr_max(gadr* r, const gadr* a, const gadr* b);
// Give one of the two arguments. Of equals it is `b`, but `a` for gadr_pmax in mode 3.
const gadr* gadr_pmin(const gadr* a, const gadr* b);
const gadr* gadr_pmax(const gadr* a, const gadr* b);
// gen_error("gadr: unimplemented 16bit case").
void gadr_no16();

// ---- Scaling. `scale` is a positive factor between an address and a number; 0 is not tested for.

// `off` (modes 0 and 1) or the low word (mode 2) times or divided by `scale`; nil stays. In mode 3
// both words are shifted as one number by the highest set bit of `scale`, nil too.
gadr* gadr_scale_up(gadr* a, uint32_t scale);
gadr* gadr_scale_down(gadr* a, uint32_t scale);
// The same for a plain number; all ones stays.
uint32_t gadr32_scale_up(uint32_t v, uint32_t scale);
uint32_t gadr32_scale_down(uint32_t v, uint32_t scale);
// Rounds `off` (modes 0 and 1) or the low word down to a multiple of `alignment`, which need not be
// a power of two. An alignment of 0 and a nil address change nothing.
gadr* gadr_align(gadr* a, uint32_t alignment);

// ---- Ranges, from `start` up to but not including `end`. Each gives -1 for an address below the
// range, 0 inside, 1 above. An `end` below `start` makes a range that wraps around. Where such a
// range decides, it must span less than half the address space (at 64 bits its words are looked at
// one by one); otherwise "gadr: invalid range" is a warning and the address lies outside.

int32_t gadr16_cmprange(uint16_t v, uint16_t start, uint16_t end);
int32_t gadr32_cmprange(uint32_t v, uint32_t start, uint32_t end);
int32_t gadr64_cmprange(const gadr* v, const gadr* start, const gadr* end);
// The one that fits the mode.
int32_t gadr_cmprange(const gadr* a, const gadr* start, const gadr* end);
// The same with plain numbers. In mode 3 an address with a high word lies above.
int32_t gadr_cmprange32(const gadr* a, uint32_t start, uint32_t end);
// The range of `length` units from `start` on, its end wrapping at the width of the mode. In mode 3
// a length is added as a signed number.
int32_t gadr_cmpblock(const gadr* a, const gadr* start, uint32_t length);
int32_t gadr_cmpblock32(const gadr* a, uint32_t start, uint32_t length);
// gen_warning("gadr: invalid range").
void gadr_warn_for_invalid_wraparound_range();

// ---- Text.

// The address in hexadecimal, of fixed width: 0x1234 (mode 0; mode 1 without a segment),
// 0x12345678 (modes 1 and 2), 0x12345678_12345678 (mode 3). The text stands in the ring of
// temporary buffers, so that four results can be alive at once; the caller doesn't release it.
const char* gadr_print(const gadr* a);
// The same without leading zeros in any of the numbers.
const char* gadr_print_nopad(const gadr* a);

// Reads an address in hexadecimal, with or without 0x, after any white space: up to 8 digits, or 8
// digits for the high half and up to 8 more, with a `_` between them or without. Stores the halves
// (0 where there are no digits) and gives the position behind what it read.
const char* gadr_parse_adr(const char* text, uint32_t* low, uint32_t* high);
// Reads an address and stores it divided by `scale`: in modes 0 and 1 `off`, with a segment of 0,
// in mode 2 the low word. In mode 3 both words are stored as they are, and a scale other than 1 is
// an error, "[gadr_scan]: illegal scale factor". Gives the position behind what it read.
const char* gadr_scan(const char* text, uint32_t scale, gadr* a);
// gadr_scan on the string at `*text`, which is moved on. True if it has moved.
bool gadr_scanf(const char** text, uint32_t scale, gadr* a);

}  // namespace kelvane
