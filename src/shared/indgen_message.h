#pragma once

#include <array>
#include <cstdarg>
#include <cstdint>

// The one message path: fixed classes, fixed wording, fixed exit statuses. A line on standard error
// reads program name, class word, text and, where it is asked for, the text of errno, each of the
// first three followed by a colon and a blank where present.
namespace kelvane {

// The classes of messages. Those before the warning count as errors.
enum MessageClass : uint32_t {
  kMessagePlainFailure,
  kMessageDisaster,
  kMessageFatal,
  kMessageError,
  kMessageWarning,
  kMessageInfo,
  kMessagePlainPrinting,
};
inline constexpr uint32_t kMessageClasses = 7;

// A message code is a class, or a class and this for the text of errno behind the message.
inline constexpr uint32_t kMessageErrno = 100;

// The class of a code. There is none with a name from kMessageClasses on.
constexpr uint32_t message_class(uint32_t code) {
  return code > kMessageErrno ? code - kMessageErrno : code;
}

// Ends the run with `status`; does not return. The default lets exit handlers and stream flushing
// run, and ends the process at once if it is called again meanwhile. Replaceable.
extern void (*gen_exit)(int32_t status);
[[noreturn]] void gen_default_exit(int32_t status);

// Prints one message of `code`. Replaceable; every report of the system goes through this pointer.
extern void (*gen_domessage)(uint32_t code, const char* format, va_list arguments);
void gen_default_domessage(uint32_t code, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

// Calls gen_exit, for callers that must not go on.
[[noreturn]] void end_run(int32_t status);

// Print one message each, gen_perror of class fatal with the text of errno. All of them return and
// the program goes on.
void gen_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
void gen_info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void gen_warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void gen_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void gen_perror(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Print class fatal (gen_errorexit with a status of 0: no class) and end the run with `status`;
// gen_perrorexit adds the text of errno.
[[noreturn]] void gen_errorexit(int32_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
[[noreturn]] void gen_perrorexit(int32_t status, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Ends the run with status 0 and no message.
[[noreturn]] void gen_successexit();

// Returns if `condition` is not 0. Otherwise prints the assertion message and ends the process with
// status 1, past gen_exit. `expression_text` may be null, and "x" counts as no text; `code` is
// printed unless it is 0.
void __Assert(int32_t condition, const char* expression_text, const char* file_name, int32_t line,
              int32_t code);

// Selects the words in capitals ("ERROR: FATAL") for the class. Written by whoever wants them.
extern uint8_t gen_upper_error_msgs;
// Messages seen, by class. Written by gen_default_domessage.
extern std::array<uint32_t, kMessageClasses> gen_error_count;
// Messages seen of a class before the warning. Written by gen_default_domessage.
extern uint32_t gen_any_error;
// Set by the first entry into gen_default_exit; read by the signal handlers.
extern uint8_t already_doing_exit;

}  // namespace kelvane
