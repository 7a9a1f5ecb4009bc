// SPDX-License-Identifier: Apache-2.0
// A boot loader and its test bench in one. It starts the firmware; when that asked for the update,
// it applies it, with the power cut at operation 0, then at operation 1, and so on, each time from
// the old image, until an update comes through without a cut. So it does with both of its bundles,
// the one with a patch and the dense one; then it starts the new build. Any wrong image ends QEMU
// with status 1.

#include "board_port.h"
#include "flash_apply.h"
#include "flash_dense.h"
#include "flash_patch.h"

__asm__(
    ".section .download,\"a\"\n.balign 4\n"
    ".globl old_image, old_image_end, new_image, new_image_end\n"
    ".globl bundle, bundle_end, dense_bundle, dense_bundle_end\n"
    "old_image: .incbin \"old.bin\"\nold_image_end:\n.balign 4\n"
    "new_image: .incbin \"new.bin\"\nnew_image_end:\n.balign 4\n"
    "bundle: .incbin \"bundle\"\nbundle_end:\n"
    "dense_bundle: .incbin \"dense\"\ndense_bundle_end:\n.text\n");
extern const uint8_t old_image[];
extern const uint8_t old_image_end[];
extern const uint8_t new_image[];
extern const uint8_t new_image_end[];
extern const uint8_t bundle[];
extern const uint8_t bundle_end[];
extern const uint8_t dense_bundle[];
extern const uint8_t dense_bundle_end[];
extern uint32_t bss_end[];
extern uint32_t stack_top[];
void boot(void);

// What a reset leaves. The first word is the firmware's.
typedef struct bench {
  uint32_t asked;
  uint32_t magic;
  uint32_t operations;  // of this update, over all its starts
  uint32_t cut;         // the operation at which power goes
  uint32_t starts;      // of all updates by this bundle
  uint32_t dense;       // it is the dense bundle's turn
  uint32_t noise;
} bench;
static bench* const kept = (bench*)BOARD_KEPT;
enum { BENCH_MAGIC = 0x0B007104, STACK_PAINT = 0x5AA55AA5 };

// ---- The flash ----------------------------------------------------------------------------------

static void controller(uint32_t mode) {
  while (BOARD_REGISTER(0x4001E400) == 0) {
  }
  BOARD_REGISTER(0x4001E504) = mode;
}

static void erase_page(uint32_t address) {
  controller(2);
  BOARD_REGISTER(0x4001E508) = address;
  controller(0);
}

static void program_words(uint32_t address, const uint8_t* bytes, uint32_t count) {
  controller(1);
  for (uint32_t i = 0; i < count; i += 4) {
    BOARD_REGISTER(address + i) = bytes[i] | (uint32_t)bytes[i + 1] << 8 |
                                  (uint32_t)bytes[i + 2] << 16 | (uint32_t)bytes[i + 3] << 24;
  }
  controller(0);
}

static uint32_t noise(void) {
  kept->noise = kept->noise * 1664525u + 1013904223u;
  return kept->noise >> 8;
}

static int is_cut(void) {
  return kept->operations++ == kept->cut;
}

static int flash_read(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  (void)context;
  for (uint32_t i = 0; i < count; ++i) {
    bytes[i] = ((const volatile uint8_t*)address)[i];
  }
  return 0;
}

static int flash_erase(void* context, uint32_t address) {
  (void)context;
  if (is_cut()) {
    if ((noise() & 1u) != 0) {  // half an erase: any bits in the page
      erase_page(address);
      controller(1);
      for (uint32_t i = 0; i < BOARD_PAGE; i += 4) {
        BOARD_REGISTER(address + i) = noise() | noise() << 16;
      }
      controller(0);
    }
    board_reset();
  }
  erase_page(address);
  return 0;
}

static int flash_program(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
  (void)context;
  if (is_cut()) {  // half a program: some words, and some bits of the next
    const uint32_t whole = noise() % (count / 4) * 4;
    uint8_t last[4];
    program_words(address, bytes, whole);
    for (uint32_t i = 0; i < 4; ++i) {
      last[i] = (uint8_t)(bytes[whole + i] | noise());
    }
    program_words(address + whole, last, 4);
    board_reset();
  }
  program_words(address, bytes, count);
  return 0;
}

// ---- The update ---------------------------------------------------------------------------------

static uint8_t work[BOARD_WINDOW];
// One at a time.
static union {
  struct {
    kelvane_patch_payload payload;
    kelvane_words classes[16];
  } patch;
  struct {
    kelvane_dense_payload payload;
    uint8_t map[64 * KELVANE_DENSE_ENTRY_SIZE];
  } dense;
} state;
static const kelvane_payload_kind* const kinds[] = {&kelvane_patch_kind, &kelvane_dense_kind, 0};
static const kelvane_flash flash = {{0, flash_read, flash_erase, flash_program, BOARD_PAGE, 4},
                                    BOARD_IMAGE,
                                    BOARD_IMAGE_PAGES,
                                    BOARD_SPARE,
                                    BOARD_SPARE_PAGES,
                                    BOARD_JOURNAL,
                                    work,
                                    sizeof work,
                                    kinds,
                                    &state,
                                    sizeof state,
                                    0,
                                    0};
static kelvane_update update;

static int run_update(void) {
  const kelvane_source patch = {bundle, 0, 0, 0, (uint32_t)(bundle_end - bundle)};
  const kelvane_source dense = {dense_bundle, 0, 0, 0, (uint32_t)(dense_bundle_end - dense_bundle)};
  const kelvane_source source = kept->dense != 0 ? dense : patch;
  int code = kelvane_update_open(&update, &flash, &source);
  while (code == KELVANE_UPDATE_MORE) {
    code = kelvane_update_step(&update);
  }
  return code;
}

// ---- The bench ----------------------------------------------------------------------------------

static int is_new_image(void) {
  for (uint32_t i = 0; i < (uint32_t)(new_image_end - new_image); ++i) {
    if (((const uint8_t*)BOARD_IMAGE)[i] != new_image[i]) {
      return 0;
    }
  }
  return 1;
}

// What the factory would do.
static void install_old_image(void) {
  for (uint32_t i = 0; i < BOARD_IMAGE_PAGES; ++i) {
    erase_page(BOARD_IMAGE + i * BOARD_PAGE);
  }
  program_words(BOARD_IMAGE, old_image, (uint32_t)(old_image_end - old_image + 3) & ~3u);
  for (uint32_t i = 0; i < KELVANE_JOURNAL_PAGES; ++i) {
    erase_page(BOARD_JOURNAL + i * BOARD_PAGE);
  }
}

static void start_firmware(void) {
  __asm__ volatile("msr msp, %0\n bx %1" ::"r"(BOARD_REGISTER(BOARD_IMAGE)),
                   "r"(BOARD_REGISTER(BOARD_IMAGE + 4)));
  for (;;) {
  }
}

static void paint_stack(void) {
  uint32_t* now;
  __asm__ volatile("mov %0, sp" : "=r"(now));
  for (uint32_t* place = bss_end; place < now - 8; ++place) {
    *place = STACK_PAINT;
  }
}

static uint32_t deepest_stack(void) {
  const uint32_t* place = bss_end;
  while (*place == STACK_PAINT) {
    ++place;
  }
  return (uint32_t)((uintptr_t)stack_top - (uintptr_t)place);
}

void boot(void) {
  int code;
  paint_stack();
  if (kept->magic != BENCH_MAGIC) {
    kept->magic = BENCH_MAGIC;
    kept->asked = 0;
    kept->operations = 0;
    kept->cut = 0;
    kept->starts = 0;
    kept->dense = 0;
    kept->noise = 1;
    install_old_image();
  }
  if (kept->asked != BOARD_ASKED) {
    start_firmware();
  }
  ++kept->starts;
  code = run_update();
  if (code != KELVANE_APPLY_OK || !is_new_image()) {
    board_say("boot: wrong: power cut at operation ");
    board_say_number(kept->cut);
    board_say(", code ");
    board_say_number((uint32_t)code);
    board_say("\n");
    board_end(1);
  }
  if (kept->operations <= kept->cut) {  // came through without a cut, so all have been tried
    board_say(kept->dense != 0 ? "boot: dense update: power" : "boot: patch: power");
    board_say(" cut at each of ");
    board_say_number(kept->operations);
    board_say(" operations, ");
    board_say_number(kept->starts);
    board_say(" starts, ");
    board_say_number(deepest_stack());
    board_say(" bytes of stack\n");
    if (kept->dense != 0) {
      start_firmware();
    }
    kept->dense = 1;
    kept->starts = 0;
    kept->cut = 0;
  } else {
    kept->cut += BOARD_STRIDE;
  }
  kept->operations = 0;
  install_old_image();
  board_reset();
}

static void fault_handler(void) {
  board_say("boot: fault\n");
  board_end(8);
}

BOARD_VECTORS(stack_top, boot, fault_handler, fault_handler);
