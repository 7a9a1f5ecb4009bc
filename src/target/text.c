#include "controller.h"

SELDOM void text_print(void (*put)(char letter), const char* text) {
  while (*text != '\0') {
    put(*text++);
  }
}

SELDOM void text_print_number(void (*put)(char letter), int32_t value) {
  char digits[12];
  uint32_t count = 0;
  uint32_t rest = value < 0 ? 0U - (uint32_t)value : (uint32_t)value;
  if (value < 0) {
    put('-');
  }
  do {
    digits[count++] = (char)('0' + rest % 10U);
    rest /= 10U;
#if FIRMWARE_REVISION >= 2
    if (count == 2U) {
      digits[count++] = '.';
    }
  } while (rest != 0 || count < 4U);
#else
  } while (rest != 0);
#endif
  while (count > 0) {
    put(digits[--count]);
  }
}
