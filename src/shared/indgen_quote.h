#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// Strings in quoted and escaped form and back, and formatting into buffers and fresh strings.
namespace kelvane {

// ---- Escapes and quotes. What gives a string gives a fresh one, which the caller releases by
// gen_free, and null for null.

// Decodes the character at `*position` and moves the position behind it, but never behind the
// string's terminator. Gives the character as a signed byte. A backslash begins one of
//   \a \b \f \n \r \t \v    control characters      \\ \' \" \?    these characters
//   \0 to \377              octal, at most three digits, the first of them 0 to 3
//   \x0 to \xff             hexadecimal, at most two digits; 0 if there are none
// and is dropped in front of any other character; at the end of the string it gives 0.
int8_t gen_unescape_one_char(const char** position);

// Puts a backslash in front of each \, " and '. With `escape_controls`, LF, CR and tab become \n,
// \r and \t, the characters 1 to 3 become \1 to \3, and other control characters stay. A `quote`
// that isn't 0 is put at both ends.
char* xquotify_string(const char* text, char quote, uint8_t escape_controls);

// Drops every `quote` character (0: none) and, with `unescape`, decodes escapes; a quote character
// inside an escape is the escape's. A 0 that an escape gives ends the string.
char* xunquotify_string(const char* text, char quote, uint8_t unescape);

char* gen_quotify_string(const char* text);         // in double quotes
char* gen_single_quotify_string(const char* text);  // in single quotes
char* gen_escapify_string(const char* text);        // no quotes, control characters escaped

char* gen_dequotify_string(const char* text);         // quotes of the kind it begins with, if any
char* gen_single_dequotify_string(const char* text);  // single quotes dropped, escapes decoded
char* gen_double_dequotify_string(const char* text);  // double quotes dropped, escapes decoded
char* gen_unescapify_string(const char* text);        // escapes decoded, no quotes dropped

// ---- File names for a shell.

// Puts a name with a blank or a " in it between single quotes; a single quote in the name is not
// handled. Any other name is copied.
char* gen_shellescapify_filename(const char* name);

// Takes a name out of its quotes: a leading ' is dropped together with one at the end; a name with
// a leading " goes through gen_dequotify_string. Any other name is copied.
char* gen_unshellescapify_filename(const char* name);

// ---- Binary data.

// Gives `length` times two hexadecimal digits in lower case, each byte with its low nibble first
// (0xab gives "ba"), as a fresh string for gen_free.
char* gen_binary_to_string(const void* data, uint32_t length);

// ---- Formatted text.

// The name of the device that swallows everything, "/dev/null".
const char* gen_devnullpathname();

// Gives the number of characters that the format gives; negative if it can't be formatted.
int32_t gen_Xprintflen(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

// Write the first `size` bytes of the text with its terminator to `buffer`: a text of `size`
// characters or more arrives without a terminator. A size of 0 writes nothing, and `buffer` may be
// null. Give the full length of the text, or a negative number, having written nothing, if it can't
// be formatted.
int32_t gen_vsnprintf(char* buffer, size_t size, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));
int32_t gen_snprintf(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Give the text in a fresh block of its exact size, which the caller releases by the platform's
// free; null if it can't be formatted. Exhausted memory ends the run with status 3.
char* gen_vmsprintf(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));
char* gen_msprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kelvane
