#include "indgen_message.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exit_status.h"
#include "indgeninit.h"
#include "shared_reset.h"

namespace kelvane {

void (*gen_exit)(int32_t status) = gen_default_exit;
void (*gen_domessage)(uint32_t code, const char* format, va_list arguments) = gen_default_domessage;
uint8_t gen_upper_error_msgs = 0;
std::array<uint32_t, kMessageClasses> gen_error_count{};
uint32_t gen_any_error = 0;
uint8_t already_doing_exit = 0;

namespace {

constexpr std::array<const char*, kMessageClasses> prefixes = {
    nullptr, "disaster", "fatal", "error", "warning", "info", nullptr};
constexpr std::array<const char*, kMessageClasses> upper_prefixes = {
    "ERROR", "ERROR: DISASTER", "ERROR: FATAL", "ERROR", "WARNING", "INFO", nullptr};

bool ends_in_newline(const char* format) {
  const size_t length = std::strlen(format);
  return length > 0 && format[length - 1] == '\n';
}

}  // namespace

void gen_default_exit(int32_t status) {
  if (already_doing_exit != 0) {
    ::_exit(status);
  }
  already_doing_exit = 1;
  std::exit(status);
}

void end_run(int32_t status) {
  gen_exit(status);
  std::abort();  // a replaced gen_exit must not return
}

void gen_default_domessage(uint32_t code, const char* format, va_list arguments) {
  const bool want_errno = code > kMessageErrno;
  const uint32_t reduced = message_class(code);
  const char* prefix = nullptr;
  if (reduced < kMessageClasses) {
    prefix = gen_upper_error_msgs != 0 ? upper_prefixes[reduced] : prefixes[reduced];
    ++gen_error_count[reduced];
    if (reduced < kMessageWarning) {
      ++gen_any_error;
    }
  }
  const int reason = errno;  // what the caller failed on, not what flushing may fail on
  std::fflush(stdout);
  const char* const name = gen_getprogname();
  if (name != nullptr && *name != '\0' && reduced != kMessagePlainPrinting) {
    std::fprintf(stderr, "%s: ", name);
  }
  if (prefix != nullptr) {
    std::fprintf(stderr, "%s: ", prefix);
  }
  errno = reason;  // a %m in the format, and the test below
  std::vfprintf(stderr, format, arguments);
  if (want_errno && reason != 0) {
    std::fprintf(stderr, ": %s\n", std::strerror(reason));
    errno = 0;
  } else if (!ends_in_newline(format)) {
    std::fputc('\n', stderr);
  }
  std::fflush(stderr);
}

void gen_printf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(kMessagePlainPrinting, format, arguments);
  va_end(arguments);
}

void gen_info(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(kMessageInfo, format, arguments);
  va_end(arguments);
}

void gen_warning(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(kMessageWarning, format, arguments);
  va_end(arguments);
}

void gen_error(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(kMessageError, format, arguments);
  va_end(arguments);
}

void gen_perror(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(kMessageErrno + kMessageFatal, format, arguments);
  va_end(arguments);
}

void gen_errorexit(int32_t status, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(status != 0 ? kMessageFatal : kMessagePlainFailure, format, arguments);
  va_end(arguments);
  end_run(status);
}

void gen_perrorexit(int32_t status, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  gen_domessage(kMessageErrno + kMessageFatal, format, arguments);
  va_end(arguments);
  end_run(status);
}

void gen_successexit() {
  end_run(kStatusSuccess);
}

void __Assert(int32_t condition, const char* expression_text, const char* file_name, int32_t line,
              int32_t code) {
  if (condition != 0) {
    return;
  }
  std::fflush(stdout);
  std::fputs("Assertion ", stderr);
  if (expression_text != nullptr && std::strcmp(expression_text, "x") != 0) {
    std::fprintf(stderr, "(%s) ", expression_text);
  }
  if (code != 0) {
    std::fprintf(stderr, "[%d] ", code);
  }
  std::fprintf(stderr, "failed in '%s' on line %d", file_name, line);
  const char* const name = gen_getprogname();
  if (name != nullptr && *name != '\0') {
    std::fprintf(stderr, " in %s", name);
  }
  std::fputc('\n', stderr);
  std::exit(kStatusFailure);
}

void reset_indgen_message() {
  gen_exit = gen_default_exit;
  gen_domessage = gen_default_domessage;
  gen_upper_error_msgs = 0;
  gen_error_count = {};
  gen_any_error = 0;
  already_doing_exit = 0;
}

}  // namespace kelvane
