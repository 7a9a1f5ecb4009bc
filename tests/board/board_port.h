// SPDX-License-Identifier: Apache-2.0
#pragma once

// The emulated board: QEMU's microbit machine, a Cortex-M0 with 256 KB of flash in pages of 1 KB,
// 16 KB of RAM that a reset leaves alone, a flash controller whose programs only clear bits, and
// semihosting.

#include <stdint.h>

#define BOARD_REGISTER(address) (*(volatile uint32_t*)(address))

enum {
  BOARD_PAGE = 1024,
  BOARD_IMAGE = 0x20000,
  BOARD_IMAGE_PAGES = 48,
  BOARD_SPARE = 0x30000,
  BOARD_SPARE_PAGES = 32,   // 14 of them for the checkpoints of a dense update
  BOARD_JOURNAL = 0x3F400,  // three pages, up to the end
  BOARD_KEPT = 0x20003F00,  // RAM that neither the boot loader's start nor the firmware's clears
  BOARD_ASKED = 0x55504454  // the first word there: the firmware asks for the update
};

// Asks the debugger, which QEMU is.
static inline int board_host(int operation, const void* argument) {
  register int r0 __asm__("r0") = operation;
  register const void* r1 __asm__("r1") = argument;
  __asm__ volatile("bkpt 0xAB" : "+r"(r0) : "r"(r1) : "memory");
  return r0;
}

static inline void board_say(const char* text) {
  board_host(4, text);
}

static inline void board_say_number(uint32_t number) {
  char text[11];
  int i = 10;
  text[i] = 0;
  do {
    text[--i] = (char)('0' + number % 10);
    number /= 10;
  } while (number != 0);
  board_say(text + i);
}

// Ends QEMU with this status.
static inline void board_end(uint32_t status) {
  const uint32_t block[2] = {0x20026, status};
  board_host(0x20, block);
  for (;;) {
  }
}

static inline void board_reset(void) {
  __asm__ volatile("dsb" ::: "memory");
  BOARD_REGISTER(0xE000ED0C) = 0x05FA0004;
  for (;;) {
  }
}

// The processor's vectors: the stack, the start, and faults everywhere else but for the timer.
#define BOARD_VECTORS(stack, start, fault, tick)                                              \
  __attribute__((used, section(".vectors"))) static void (*const board_vectors[16])(void) = { \
      (void (*)(void))(stack),                                                                \
      start,                                                                                  \
      fault,                                                                                  \
      fault,                                                                                  \
      fault,                                                                                  \
      fault,                                                                                  \
      fault,                                                                                  \
      0,                                                                                      \
      0,                                                                                      \
      0,                                                                                      \
      0,                                                                                      \
      fault,                                                                                  \
      fault,                                                                                  \
      0,                                                                                      \
      fault,                                                                                  \
      tick}
