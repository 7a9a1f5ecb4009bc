#pragma once

#include <array>
#include <cstdint>

// Strings: null-terminated bytes in the host's character set. They differ from the platform's
// string functions in what they do with null and in where their result lives.
//
// - A function that makes a string gives a fresh one from gen_alloc, which the caller releases by
//   gen_free; exhausted memory ends the run with status 3, and nothing else here can fail.
// - Characters are compared as signed bytes, so in an order bytes from 0x80 on come before ASCII.
// - Folding case turns A to Z into a to z and nothing else.
// - A count `n` below 1 counts as 0 unless the function says otherwise.
// - Nothing keeps state between calls; everything may be called from anywhere.
namespace kelvane {

// ---- Characters. Each takes a character as an integer.

// Blank, tab, LF, CR or FF (VT is none of them).
bool gen_isspace(int32_t c);
// Blank or tab.
bool gen_isblank(int32_t c);
// A to Z.
bool gen_isupper(int32_t c);
// An ASCII letter or digit.
bool gen_isalnum(int32_t c);
// What a word ends at: `;`, anything below 33, anything from 127 on.
bool gen_isbreak(int32_t c);
// 9 for = > < : ! + - * / | &, otherwise 0.
int32_t gen_is_arith(int32_t c);
// 2 for tab, LF and blank, otherwise 0. Looks at the low 8 bits only.
int32_t gen_is_whitespace(int32_t c);
// `/`. Looks at the low 8 bits only.
bool gen_is_separator(int32_t c);
// An ASCII letter or digit, `$`, or a byte from 0x80 on. Looks at the low 8 bits only.
bool gen_is_alphanum(int32_t c);

// True for a string of nothing but blanks and tabs, the empty one too; false for null.
bool gen_isblankstring(const char* text);

// ---- Equality and order, case folded.

// True if the strings agree. Null equals null and nothing else.
bool gen_strequal(const char* a, const char* b);
// The same over the first `n` characters at most; strings that end together before that agree.
bool gen_strnequal(const char* a, const char* b, int32_t n);
// -1 if `a` comes first, 0 if the strings agree, 1 if `b` comes first; a string comes before its
// continuations, whatever bytes they have there. Null is not allowed.
int32_t gen_stricmp(const char* a, const char* b);
// The same over the first `n` characters at most, so 0 for `n` below 1.
int32_t gen_strnicmp(const char* a, const char* b, int32_t n);

// ---- Prefix and suffix. A null argument gives false.

// True if `text` begins with `prefix`.
bool gen_strprefix(const char* text, const char* prefix);
// True if `text` begins with the first `n` characters of `prefix`, or with all of it if it has
// fewer.
bool gen_strprefixn(const char* text, const char* prefix, int32_t n);
// The same two with case folded.
bool gen_strcaseprefix(const char* text, const char* prefix);
bool gen_strcaseprefixn(const char* text, const char* prefix, int32_t n);
// True if `text` ends with `suffix` and is longer than it: a string is no suffix of itself.
bool gen_strsuffix(const char* text, const char* suffix);

// ---- Searching. Each gives a position in `text`, or null if there is none or an argument is null.

// The first occurrence. An empty pattern is never found.
const char* gen_strstr(const char* text, const char* pattern);
// The first occurrence, case folded (two names for one search). An empty pattern is found at the
// start of any text that isn't empty.
const char* gen_strcasestr(const char* text, const char* pattern);
const char* gen_strstr2(const char* text, const char* pattern);
// The last occurrence. An empty pattern is found at the end of the text.
const char* gen_strrstr(const char* text, const char* pattern);
// The same with case folded.
const char* gen_strrcasestr(const char* text, const char* pattern);

// ---- Making strings.

// A copy; null for null.
char* gen_copy(const char* s);
// A copy of the first `n` characters at most; null for null and for a negative `n`.
char* gen_copyn(const char* s, int32_t n);
// A copy with the letters A to Z in lower case, or a to z in upper case; null for null.
char* gen_strlower(const char* s);
char* gen_strupper(const char* s);

// Puts a copy of `s` in place of `*pointer` and releases what was there by the platform's free.
// `s` may lie in the old string. Nothing happens if `*pointer` and `s` are the same pointer.
void gen_strchange(char** pointer, const char* s);
// The same with gen_copyn, and without that exception.
void gen_strchangen(char** pointer, const char* s, int32_t n);

// `a` and `b` joined, a null one counting as empty; null if both are null.
char* gen_concat(const char* a, const char* b);
// `a` and the first `n` characters of `b` at most. A null or empty `a` gives gen_copyn(b, n);
// otherwise a null `b` or an `n` below 1 gives a copy of `a`.
char* gen_concatn(const char* a, const char* b, int32_t n);
// The three joined, a null one counting as empty; null if all are null.
char* gen_concat3(const char* a, const char* b, const char* c);
// `a`, the character `separator` and `b`. A null `a` gives a copy of `b`, a separator of 0
// gen_concat(a, b), a null `b` a copy of `a`.
char* gen_concat_sep(const char* a, char separator, const char* b);
// All arguments joined, a null one counting as empty; never null.
char* gen_concat4(const char* a, const char* b, const char* c, const char* d);
char* gen_concat5(const char* a, const char* b, const char* c, const char* d, const char* e);
char* gen_concat6(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f);
char* gen_concat7(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f, const char* g);
char* gen_concat8(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f, const char* g, const char* h);
char* gen_concat9(const char* a, const char* b, const char* c, const char* d, const char* e,
                  const char* f, const char* g, const char* h, const char* i);
// `a` and the decimal form of `i` joined by gen_concat.
char* gen_concat_int(const char* a, int32_t i);

// The same functions for a string that grows in place: each gives what its namesake without the f
// gives, then releases its first argument by the platform's free. The first argument may be null,
// and the others may lie in it.
char* gen_fcopy(char* old, const char* s);
char* gen_fcopyn(char* old, const char* s, int32_t n);
char* gen_fconcat(char* a, const char* b);
char* gen_fconcatn(char* a, const char* b, int32_t n);
char* gen_fconcat3(char* a, const char* b, const char* c);
char* gen_fconcat_sep(char* a, char separator, const char* b);
char* gen_fconcat4(char* a, const char* b, const char* c, const char* d);
char* gen_fconcat5(char* a, const char* b, const char* c, const char* d, const char* e);
char* gen_fconcat6(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f);
char* gen_fconcat7(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f, const char* g);
char* gen_fconcat8(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f, const char* g, const char* h);
char* gen_fconcat9(char* a, const char* b, const char* c, const char* d, const char* e,
                   const char* f, const char* g, const char* h, const char* i);
char* gen_fconcat_int(char* a, int32_t i);

// ---- String arrays: a pair of variables of the caller's, an array of strings and its length.

// Makes the pair an empty array.
void gen_strarray_init(char*** array, uint32_t* count);
// Grow the array by one and put gen_copy(s) or gen_copyn(s, n) at its end.
void gen_strarray_add_str(char*** array, uint32_t* count, const char* s);
void gen_strarray_add_strn(char*** array, uint32_t* count, const char* s, int32_t n);
// Releases the strings and the array and makes the pair an empty array. Nothing happens if the
// array is null.
void gen_strarray_free(char*** array, uint32_t* count);

// ---- Splitting.

// Cuts the next token out of a writable string: skips leading characters of the set `delimiters`
// (not empty), overwrites the delimiter behind the token with a terminator and stores the position
// behind that in `*rest`, or null if the string has ended. Gives the token, or null if there is
// none. A null `text` gives null and leaves `*rest` alone; `rest` may be null. The next call takes
// the value of `*rest` as `text`.
char* gen_strtok_r(char* text, const char* delimiters, char** rest);

// The platform's strtoul.
unsigned long gen_strtoul(const char* text, char** end, int32_t base);

// ---- Scanning of program text. Characters are taken as signed bytes.

// The class of `current` between its neighbours:
//    0 terminator            1 part of a word    2 white space      3 ;       4 ,
//    5 ( and what follows it               6 the same with {       7 the same with [
//    8 backslash and what follows it       9 minus sign           10 part of a comment mark
//   12 half of an empty (), {} or []      13 anything else        (11 is not in use)
int32_t gen_new_char_type(int32_t previous, int32_t current, int32_t next);

// 0 for letters, digits, `_`, `$` and bytes from 0x80 on, 2 for tab, LF and blank, -1 for the
// terminator, 3 for anything else.
int32_t gen_char_type(int32_t c);

// Finds the `>` that closes a list of template arguments, from a text inside that list on. The two
// counters hold the depth of open angles and parentheses before and after the scan, so that a list
// may be followed over several lines; a null one counts from 0. Gives the position of the `>`; null
// if the list doesn't end in this text or breaks off at a character that can't stand in it, and for
// a null text, which leaves the counters alone.
const char* gen_find_close_angle(const char* text, int32_t* angle_depth, int32_t* paren_depth);

// What gen_hcomp mixes in, by the low four bits of the hash.
inline constexpr std::array<uint32_t, 16> gen_HashTable = {
    0x96696996, 0x3cc3c33c, 0x5aa5a55a, 0xf00f0ff0, 0x66999966, 0xcc3333cc, 0xaa5555aa, 0x00ffff00,
    0x69699696, 0xc3c33c3c, 0xa5a55a5a, 0x0f0ff0f0, 0x99999999, 0x33333333, 0x55555555, 0xffffffff};

// A 31-bit hash of `length` bytes. Beyond nine bytes it looks at the first three, the middle three
// and the last three only. 0 for a length below 1. Example: 0x5ba5a69e for "abc".
uint32_t gen_hcomp(const char* text, int32_t length);

}  // namespace kelvane
