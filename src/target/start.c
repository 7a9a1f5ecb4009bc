#include <stdint.h>

// Start-up: copies the initialised data to RAM, clears the rest and enters the control loop.

extern uint32_t data_start[];
extern uint32_t data_end[];
extern const uint32_t data_image[];
extern uint32_t bss_start[];
extern uint32_t bss_end[];
extern uint32_t stack_top[];

void control_loop(void);
void tick_handler(void);
void reset_handler(void);

void reset_handler(void) {
  const uint32_t* from = data_image;
  for (uint32_t* to = data_start; to < data_end; ++to) {
    *to = *from++;
  }
  for (uint32_t* to = bss_start; to < bss_end; ++to) {
    *to = 0;
  }
  control_loop();
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
