// SPDX-License-Identifier: Apache-2.0
// The firmware under update: the modules of the sample target behind a start that says which build
// runs. The first build asks for the update; the second one ends the run.

#include "board_port.h"

extern uint32_t data_start[];
extern uint32_t data_end[];
extern uint32_t bss_start[];
extern uint32_t bss_end[];
extern uint32_t stack_top[];
extern const uint32_t data_image[];

void control_loop(void);
void tick_handler(void);
void reset_handler(void);

// Never called here; it brings the modules into the image.
void (*volatile kept_function)(void) = control_loop;

void reset_handler(void) {
  const uint32_t* from = data_image;
  for (uint32_t* to = data_start; to < data_end; ++to) {
    *to = *from++;
  }
  for (uint32_t* to = bss_start; to < bss_end; ++to) {
    *to = 0;
  }
  board_say("firmware: build ");
  board_say_number(FIRMWARE_REVISION);
  board_say(" runs\n");
  if (FIRMWARE_REVISION == 1) {
    BOARD_REGISTER(BOARD_KEPT) = BOARD_ASKED;
    board_reset();
  }
  board_end(0);
}

static void fault_handler(void) {
  board_say("firmware: fault\n");
  board_end(9);
}

BOARD_VECTORS(stack_top, reset_handler, fault_handler, tick_handler);
