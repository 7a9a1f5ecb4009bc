#include <stdint.h>

#include "controller.h"

// Start-up: copies the initialised data to RAM, expands the code that runs from there, clears the
// rest and enters the control loop. Holds the first and the last bytes of the image, the vectors and
// the footer.

extern uint32_t data_start[];
extern uint32_t data_end[];
extern const uint32_t data_image[];
extern uint8_t seldom_start[];
extern const uint8_t seldom_image[];
extern const uint8_t seldom_image_end[];
extern uint32_t bss_start[];
extern uint32_t bss_end[];
extern uint32_t stack_top[];

// Memory that nobody owns while the image is changed in place. The symbol's name is what a patch
// knows it by.
__attribute__((used, section(".scratch"))) static uint8_t scratch[1024] __asm__(".heap");

void control_loop(void);
void tick_handler(void);
void reset_handler(void);
void __qvr_ind_crt1(void);

// The start-up code proper. A patch for the memory of a running target names its address, so that
// the target can be started afresh with the new contents. Where nothing is compressed the image has
// no bytes of it.
void __qvr_ind_crt1(void) {
  const uint32_t* from = data_image;
  for (uint32_t* to = data_start; to < data_end; ++to) {
    *to = *from++;
  }
  unpack(seldom_start, seldom_image, seldom_image_end);
  for (uint32_t* to = bss_start; to < bss_end; ++to) {
    *to = 0;
  }
  control_loop();
}

void reset_handler(void) {
  __qvr_ind_crt1();
}

static void stop_handler(void) {
  for (;;) {
  }
}

__attribute__((used, section(".vectors"))) static void (*const vectors[16])(void) = {
    (void (*)(void))stack_top,
    reset_handler,
    stop_handler,
    stop_handler,
    stop_handler,
    stop_handler,
    stop_handler,
    0,
    0,
    0,
    0,
    stop_handler,
    stop_handler,
    0,
    stop_handler,
    tick_handler};

// What a loader reads to tell which product and which revision the image is for.
struct footer {
  char product[44];
  uint32_t revision;
};

__attribute__((used, section(".footer"))) static const struct footer footer = {
    "climate controller, board 2, 8 MHz", FIRMWARE_REVISION};
