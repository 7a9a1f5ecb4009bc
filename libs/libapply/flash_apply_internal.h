// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the parts of an update share: flash_plan.c knows where each old page lies at each step,
// flash_open.c checks all that can be checked before something is written, flash_apply.c carries
// out the steps.

#include "flash_apply.h"

#ifdef __cplusplus
extern "C" {
#endif

// For an address: the old contents of the page are gone; the page lies in no range.
#define PAGE_GONE 0xFFFFFFFFu
#define PAGE_BLANK 0xFFFFFFFEu

// Checks the plan and counts its pages and slots. The payload has been opened. Gives a code.
int kelvane_plan_open(kelvane_update* update);

// Whether the page lies in a range. Others are left alone: they read as erased.
int kelvane_plan_has(kelvane_update* update, uint32_t page);

// The page that changes as number `index`.
uint32_t kelvane_plan_page(kelvane_update* update, uint32_t index);

// The page at hand becomes `page`, which is being written, or else saved.
void kelvane_plan_at(kelvane_update* update, uint32_t page, int writing);

// Whether the plan changes the page.
int kelvane_plan_changes(kelvane_update* update, uint32_t page);

// Where a page that changes is saved, if what was saved up to the page at hand leaves it there.
uint32_t kelvane_plan_saved(kelvane_update* update, uint32_t page);

// Where the old contents of a page are to be read in this step.
uint32_t kelvane_plan_old(kelvane_update* update, uint32_t page);

// Tells the board that the update goes on; takes the update, as a callback.
void kelvane_update_alive(void* update);

// Reads flash. Gives a code.
int kelvane_update_read(const kelvane_update* update, uint32_t address, uint8_t* bytes,
                        uint32_t count);

// Reads bytes of one page of the image as they are now. Gives a code.
int kelvane_update_read_image(kelvane_update* update, uint32_t address, uint8_t* bytes,
                              uint32_t count);

// The address of a page of the image.
uint32_t kelvane_update_home(const kelvane_update* update, uint32_t page);

// What a payload reads; see kelvane_payload_input.
int kelvane_update_old_image(void* update, uint32_t address, uint8_t* bytes, uint32_t count);
int kelvane_update_new_image(void* update, uint32_t address, uint8_t* bytes, uint32_t count);

// Computes the window at `address` of the new image into the work memory. Gives a code.
int kelvane_update_compute(kelvane_update* update, uint32_t address);

// Compares the image in flash with the checksum of the new one. Gives a code.
int kelvane_update_verify_new(kelvane_update* update);

#ifdef __cplusplus
}
#endif
