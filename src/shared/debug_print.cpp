#include "debug_print.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kelvane {

int32_t debug_level = 0;

int32_t dprintf(int32_t level, const char* format, ...) {
  if (debug_level < level) {
    return 0;
  }
  va_list arguments;
  va_start(arguments, format);
  const int32_t printed = std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  const size_t length = std::strlen(format);
  if (length == 0 || format[length - 1] != '\n') {
    std::fputc('\n', stderr);
  }
  return printed;
}

const void* address_for_print(uint32_t address) {
  // Printed and never followed.
  return reinterpret_cast<const void*>(  // NOLINT(performance-no-int-to-ptr)
      static_cast<uintptr_t>(address));
}

}  // namespace kelvane
