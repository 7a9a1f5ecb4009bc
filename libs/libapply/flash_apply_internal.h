// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the parts of an update share: flash_plan.c knows where each old page lies at each step,
// flash_apply.c opens bundles and carries out the steps.

#include "flash_apply.h"

#ifdef __cplusplus
extern "C" {
#endif

// For an address: the old contents of the page are gone.
#define PAGE_GONE 0xFFFFFFFFu

// Checks the structure of the plan and counts its pages. Gives a code.
int kelvane_plan_open(kelvane_update* update, uint32_t slots);

// The page that changes as number `index`.
uint32_t kelvane_plan_page(const kelvane_update* update, uint32_t index);

// The page at hand becomes `page`.
void kelvane_plan_at(kelvane_update* update, uint32_t page);

// Whether the plan changes the page.
int kelvane_plan_changes(const kelvane_update* update, uint32_t page);

// Where a page that changes is saved, if what was saved up to the page at hand leaves it there.
uint32_t kelvane_plan_saved(const kelvane_update* update, uint32_t page);

// Where the old contents of a page are to be read in this step.
uint32_t kelvane_plan_old(const kelvane_update* update, uint32_t page);

#ifdef __cplusplus
}
#endif
