// SPDX-License-Identifier: Apache-2.0
#pragma once

// Updates an image in flash from a bundle, so that power may go at any moment. Plain C11, no heap.
//
// Pages are written in ascending order, each page that changes once. Its old contents are saved in
// a spare page first: in the ring, where they stay while the next few pages are written, or in a
// slot of their own where the plan says that a page further up still needs them. Saving a page and
// writing one are the two kinds of steps. Either can be repeated from its start as long as the next
// one has not begun, for its inputs stay as they are; a journal counts those that are done. Ahead
// of the first erase the whole new image is computed and its checksum compared, and every read is
// held against what the plan keeps.
//
// Where the plan says so, the old image is raised by some pages ahead of all that: the last page is
// copied so many pages up, then the one below it, down to the first. What an insertion moves up by
// no more is there then for as long as it is needed. These steps too can be repeated.
//
// The usual boot loader (the whole program is flash_example.c):
//
//   int code = kelvane_update_open(&update, &flash, &bundle);
//   while (code == KELVANE_UPDATE_MORE) {
//     feed_watchdog();
//     code = kelvane_update_step(&update);
//   }
//
// docs/device.md tells what a board has to provide, what it costs and what is not covered.

#include "applier.h"
#include "flash_bundle.h"
#include "flash_driver.h"
#include "flash_journal.h"
#include "flash_payload.h"

#ifdef __cplusplus
extern "C" {
#endif

// What the operations give, besides the codes of the applier.
enum kelvane_update_code {
  KELVANE_UPDATE_MORE = KELVANE_APPLY_CODES,  // all is well, and there is more to do
  // Nothing has been written with any of these.
  KELVANE_UPDATE_BAD_GEOMETRY,   // of kelvane_flash
  KELVANE_UPDATE_NO_BUNDLE,      // no bundle, or a damaged one
  KELVANE_UPDATE_BAD_VERSION,    // a bundle of a version that is not known here
  KELVANE_UPDATE_NOT_AUTHENTIC,  // `authentic` refused it
  KELVANE_UPDATE_OTHER_KIND,     // of payload than those of kelvane_flash
  KELVANE_UPDATE_OTHER_FLASH,    // other pages, or fewer of them than the bundle needs
  KELVANE_UPDATE_BAD_PLAN,       // a page is not kept as long as it is needed
  KELVANE_UPDATE_UNSUPPORTED,    // a patch of version 0, or one of memory mode
  KELVANE_UPDATE_MOVE_BEHIND,    // a patch with a move behind another command
  KELVANE_UPDATE_BAD_PAYLOAD,    // a dense payload of another version, or one that is not sound
  KELVANE_UPDATE_NO_MACHINE,     // a dense payload for a machine that was left out
  KELVANE_UPDATE_NO_MEMORY,      // the payload needs more than state_size of kelvane_flash
  KELVANE_UPDATE_OTHER_UPDATE,   // one by another bundle is unfinished
  // An erase or a program failed, or a read of the image.
  KELVANE_UPDATE_FLASH_FAILED,
  KELVANE_UPDATE_CODES
};

// The board's side. It may be constant, and must stay as long as it is used.
typedef struct kelvane_flash {
  kelvane_flash_driver driver;  // page_size: a power of two
  uint32_t image;               // address of the image's first page
  uint32_t image_pages;         // pages that an update may touch, 65535 at most
  uint32_t spare;  // address of the spare pages; all of them are used, so that they wear evenly
  uint32_t spare_pages;
  uint32_t journal;    // address of KELVANE_JOURNAL_PAGES pages
  uint8_t* work;       // memory for a window of new contents
  uint32_t work_size;  // a power of two; a page at most, a unit and 4 bytes at least
  const kelvane_payload_kind* const* kinds;  // those that bundles may have; null behind the last
  void* state;                               // memory for the payload, aligned for any type
  uint32_t state_size;
  // Gives 0 if the signature is that of `summed`; asked at every start, before anything of the
  // bundle is used. May be null.
  int (*authentic)(void* context, const kelvane_source* summed, const kelvane_source* signature);
  // Called at least once for every window that is read, computed or written, to feed a watchdog.
  // May be null. Both get the context of the driver.
  void (*alive)(void* context);
} kelvane_flash;

// A list in the plan: where it begins, and how many entries it has.
typedef struct kelvane_plan_list {
  uint32_t at;
  uint32_t count;
} kelvane_plan_list;

// The stretch of pages at hand in such a list.
typedef struct kelvane_plan_stretch {
  uint32_t next;   // where the one behind it is in the plan
  uint32_t left;   // stretches behind it
  uint32_t first;  // page
  uint32_t pages;
  uint32_t before;  // pages of the stretches ahead
} kelvane_plan_stretch;

// An update. `error` is for the caller to read: the address in the image of a page that could not
// be computed.
typedef struct kelvane_update {
  const kelvane_flash* flash;
  const kelvane_payload_kind* kind;
  kelvane_source plan;
  kelvane_plan_list runs;  // of pages that change
  kelvane_plan_list kept;
  kelvane_plan_list ranges;  // none: all pages
  uint32_t raise;            // pages by which the old image is moved up first
  kelvane_plan_stretch run;
  kelvane_payload_input input;
  kelvane_payload_images images;
  kelvane_journal journal;
  uint32_t identity;
  uint32_t error;
  uint32_t old_pages;  // of the old image
  uint32_t new_pages;  // of the new image
  uint32_t slots;
  uint32_t ring;      // pages of the ring, which may be more than the plan counts on
  uint32_t changed;   // pages
  uint32_t raisings;  // the steps that raise the old image, a page each; they come first
  uint32_t steps;
  uint32_t done;    // steps
  uint32_t every;   // changed pages from one checkpoint to the next, or 0
  uint32_t states;  // address of the first checkpoint
  uint32_t state_pages;
  uint32_t page;        // the page of the step
  uint32_t number;      // its own, counted in pages that change
  uint32_t ring_base;   // the last number from there down that lies at the start of the ring
  uint32_t found_page;  // the old page looked up last in this step, and where it is
  uint32_t found_place;
  uint32_t decoded;   // a payload with a state: the window that comes next
  uint8_t plan_lost;  // a code, once the plan could not be read
  uint8_t code;       // of the last operation
  uint8_t shift;      // of a page
  uint8_t all_change;
  uint8_t writing;  // the step writes its page
  uint8_t rehearsing;
} kelvane_update;

enum kelvane_update_state {
  KELVANE_UPDATE_NONE,        // nothing was begun, or another update is finished
  KELVANE_UPDATE_UNFINISHED,  // nobody may touch image, spare pages, journal or bundle now
  KELVANE_UPDATE_FINISHED,    // the new image is there and was verified
  KELVANE_UPDATE_OTHER  // an update by another bundle is unfinished, and has to be gone on with
};

// What the journal says of the bundle. Reads a few bytes and writes nothing.
enum kelvane_update_state kelvane_update_state(const kelvane_flash* flash,
                                               const kelvane_source* bundle);

// Checks geometry, bundle, signature, payload and plan; if nothing was begun, also the old image
// and, by computing it, the new one. Writes nothing. `bundle` is copied; its bytes stay in use.
// Gives KELVANE_UPDATE_MORE, or what is wrong; KELVANE_APPLY_OK if the update is finished already.
int kelvane_update_open(kelvane_update* update, const kelvane_flash* flash,
                        const kelvane_source* bundle);

// Does one step: at most one erase and one page of programs, besides the journal's own (a record,
// and now and then up to two erases). Gives KELVANE_UPDATE_MORE; KELVANE_APPLY_OK once the new
// image is there and its checksum is right; or what is wrong, and then gives it again.
int kelvane_update_step(kelvane_update* update);

// Steps that are done, and all of them.
uint32_t kelvane_update_done(const kelvane_update* update);
uint32_t kelvane_update_all(const kelvane_update* update);

// Makes `back` the bundle inside `bundle` that leads back to the old image. Gives 0, or 1 if there
// is none. It is opened like any other.
int kelvane_update_back(const kelvane_source* bundle, kelvane_source* back);

// A short text for a code, those of the applier too, in English, without a full stop.
const char* kelvane_update_text(int code);

#ifdef __cplusplus
}
#endif
