#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>

// Colours around messages on a terminal. Each class of message has a colour configuration, with
// built-in defaults that a file "colors.ini" can change. Once color_init has run, every message is
// printed between the ANSI sequence (ECMA-48, "select graphic rendition") of its class and the one
// that ends it. What goes to a standard stream that is no terminal has no sequences in it.
//
// The file is text. A line "[SECTION]" selects a configuration: INFO, WARNING, ERROR, BEFORE or
// AFTER. A line "NAME = NUMBER" sets a field of it: attribute, background or foreground. Case
// doesn't matter; numbers may be decimal, hexadecimal (0x) or octal (0), and an empty one is 0.
// Empty lines and lines that begin with # are ignored. A line has at most 199 bytes, its end
// included; what is behind them counts as a line of its own.
namespace kelvane {

// The colour of a class of messages. -1 leaves the field out of the sequence; with a field out of
// its range there is no sequence at all.
struct color_configuration {
  int32_t attribute;   // ANSI attribute, -1 to 8
  int32_t background;  // ANSI colour, -1 to 7, sent as 40 plus the value
  int32_t foreground;  // ANSI colour, -1 to 7, sent as 30 plus the value
};

// The type numbers of the configurations, and two with a meaning of their own in get_color_conf.
enum color_type : int32_t {
  kColorNone = 0,  // no configuration
  kColorLast = 1,  // the one chosen last
  kColorInfo = 2,
  kColorWarning = 3,
  kColorError = 4,
  kColorBefore = 5,
  kColorAfter = 6,
};

// The configurations. Written by parse_config_file and color_config_type.
extern color_configuration color_info_conf;
extern color_configuration color_warning_conf;
extern color_configuration color_error_conf;
extern color_configuration color_before_conf;
extern color_configuration color_after_conf;

// 1 if standard output, or standard error, counts as a terminal. Written by color_init.
extern uint8_t is_tty_stdout;
extern uint8_t is_tty_stderr;

// The message function that prints the text between the sequences. Written by color_init.
extern void (*gen_domessage_orig)(uint32_t code, const char* format, va_list arguments);

// Switches colouring on: finds out which standard streams are terminals (with `force`, both count
// as such), reads the configuration file and puts gen_color_domessage in the place of
// gen_domessage. `config_name` and failures: see parse_config_file; its messages have no colour
// yet. To be called once: a second call would make the messages go round in a circle.
void color_init(const char* config_name, uint8_t force);

// Gives the owned path of a configuration file that can be read, or null:
// gen_searchfileinconfigdirs for `name`, then for the name with the suffix added if it hasn't got
// it, then for that in `subdirectory` if this is neither null nor empty.
char* find_config(const char* name, const char* suffix, const char* subdirectory);

// Reads the configuration file `config_name` (null: "colors.ini", and ".ini" may be left out). A
// file that isn't there is no error. One that can't be opened ends the run with status 1 and
// "Unable to open configuration file 'PATH' for input: " with the reason. A faulty line changes
// nothing, and is reported as the error "line NUMBER: " with one of
//   invalid heading 'NAME'
//   no associated section for expresion 'LINE'
//   expected an '='
//   invalid value 'VALUE' for field 'NAME'
//   invalid field name 'NAME'
void parse_config_file(const char* config_name);

// Sets the configuration of a type from kColorInfo to kColorAfter. Any other type ends the run with
// status 1 and "invalid type (TYPE)".
void color_config_type(int32_t type, int32_t attribute, int32_t background, int32_t foreground);

// Gives the configuration of a type; null for kColorNone; for kColorLast what the last call gave.
// Any other type ends the run with status 1 and "unknown type (TYPE)".
color_configuration* get_color_conf(int32_t type);

// Gives the sequence that starts the colour, in memory that the next call overwrites; empty if a
// field is out of range. Example: {1, -1, 5} gives ESC "[1;35m", {-1, -1, -1} gives ESC "[00m".
const char* get_ansi_prefix(const color_configuration* configuration);

// Gives the sequence that ends all colours.
const char* get_ansi_suffix();

// Gives the text between the sequences of the type, or alone if the type has no configuration,
// whatever the streams are: a fresh string for gen_free.
char* color_format_string(int32_t type, const char* text);

// Prints the text, without the sequences in it if `stream` is a standard stream that is no
// terminal. Gives the number of characters printed.
int32_t color_print_string(std::FILE* stream, const char* text);

// Print the sequence that starts or ends the colour of the type, by color_print_string; nothing for
// a type without a configuration.
void color_print_prefix(std::FILE* stream, int32_t type);
void color_print_suffix(std::FILE* stream, int32_t type);

// Prints a formatted text between the sequences of the type and gives what vfprintf gives.
// Sequences within the text are printed in any case.
int32_t color_fprintf(std::FILE* stream, int32_t type, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Recognises one sequence of at most three numbers at the start of the text. Gives the position
// behind it, and stores in `configuration` (null allowed) those fields that it sets; null, and
// nothing stored, if there is none.
const char* color_parse_ansi(const char* text, color_configuration* configuration);

// Prints a message by gen_domessage_orig between the sequences of its class on standard error:
// errors and what is worse as kColorError, warnings, info and plain printing as kColorInfo. Codes
// that mean none of these print without sequences.
void gen_color_domessage(uint32_t code, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

}  // namespace kelvane
