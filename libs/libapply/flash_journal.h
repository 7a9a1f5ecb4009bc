// SPDX-License-Identifier: Apache-2.0
#pragma once

// A counter in flash that survives power loss at any moment: how many steps of a long piece of work
// are done. It knows nothing of what the steps do. Plain C11, no heap, no division.
//
// The work must be made of steps that can be repeated from their start as long as the next one has
// not begun. Then this order is safe against power loss anywhere:
//
//   kelvane_journal_open                 what does flash say? (writes nothing)
//   kelvane_journal_begin or _resume     a new piece of work, or the one that was cut off
//   for k = journal.value, ...:          do step k; kelvane_journal_record(k + 1)
//   kelvane_journal_record(KELVANE_JOURNAL_FINISHED)
//
// What is promised: open never finds less than the last value whose record returned (for a resumed
// piece of work: than the value that resume returned with), and never more than the last value
// whose record was begun. Before the first step it may find nothing.
//
// How it is kept. There are three pages, and no unit is programmed twice. A page begins with a head
// {sequence, base, identity}, each of 4 bytes, little-endian, and followed by its complement; then
// come records, one a unit: {half: value, half: its complement}.
// A unit or page that was cut off while its bits went one way never holds a number and its
// complement, unless it holds them whole. A page is written in the order first record, head, second
// record, third record. It counts if its head is sound and a sound record stands behind the first,
// for only that proves that the head was finished. Of the pages that count the one with the
// greatest sequence holds, and the last of its sound records in a row is the value.
//
// What was cut off may read sound now and blank the next time, so nothing may hang on it: a restart
// appends to no page, it fills a fresh one. The page that holds may be torn itself, as long as no
// third record was seen, which proves that it will always count. So its head names as `base` the
// newest page of which that was known when it was made, and the base is left alone until it is
// known of the page itself: the third page is filled. Otherwise both others are free; what was made
// from this page or from its base and cut off is erased first, and the base last. A base that is
// gone was given up for the page, which is as good as a third record.

#include <stdint.h>

#include "flash_driver.h"

#ifdef __cplusplus
extern "C" {
#endif

// Pages that the journal needs.
#define KELVANE_JOURNAL_PAGES 3u

// The value that says that all is done. The greatest other one is one less.
#define KELVANE_JOURNAL_FINISHED 0xFFFFu

enum kelvane_journal_code {
  KELVANE_JOURNAL_OK = 0,
  KELVANE_JOURNAL_BAD_ARGUMENT,  // also: an operation out of turn, or a page with too few units
  KELVANE_JOURNAL_FLASH_FAILED   // an erase or a program failed
};

enum kelvane_journal_state {
  KELVANE_JOURNAL_NONE,        // nothing was begun
  KELVANE_JOURNAL_UNFINISHED,  // `value` steps of the work called `identity` are done
  KELVANE_JOURNAL_COMPLETE     // the work called `identity` is finished
};

// `state`, `identity` and `value` are for the caller to read; the rest is the journal's own.
typedef struct kelvane_journal {
  const kelvane_flash_driver* flash;
  uint32_t address;
  uint8_t state;     // KELVANE_JOURNAL_NONE and so on
  uint8_t writable;  // begun or resumed in this run
  uint8_t page;      // the page in use, from 0
  uint8_t solid;     // that page is known to have been finished
  uint32_t value;
  uint32_t identity;
  uint32_t sequence;  // of the page in use
  uint32_t base;      // sequence of the page that is left alone while this one is not solid
  uint32_t slot;      // where the next record goes in it
} kelvane_journal;

// Looks what the journal at `address` (of its first page) says. `flash` stays in use. Reads only;
// a unit that can't be read counts as torn. Gives KELVANE_JOURNAL_BAD_ARGUMENT for a geometry that
// doesn't serve: a unit of 4, 8, 16 or 32 bytes, and at least 6 units behind the head in a page.
int kelvane_journal_open(kelvane_journal* journal, const kelvane_flash_driver* flash,
                         uint32_t address);

// Begins a piece of work with value 0, whatever the journal says of an earlier one. `identity`
// tells it from others. A cut in here leaves what open found, the new work with value 0, or
// nothing.
int kelvane_journal_begin(kelvane_journal* journal, uint32_t identity);

// Makes the value that open found a lasting one; needed before record in a run that did not begin.
int kelvane_journal_resume(kelvane_journal* journal);

// Records that `value` steps are done, KELVANE_JOURNAL_FINISHED at most. Up to two pages are erased
// when a page is full.
int kelvane_journal_record(kelvane_journal* journal, uint32_t value);

#ifdef __cplusplus
}
#endif
