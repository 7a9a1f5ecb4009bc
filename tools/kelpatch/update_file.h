// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "dense_decoder.h"
#include "flash_bundle.h"
#include "flash_payload.h"
#include "page_plan.h"
#include "patch_file.h"

namespace kelpatch {

// An update of a device in flash (docs/bundle-format.md), read whole. Its payload is a patch or a
// dense one.
class UpdateFile {
 public:
  // Takes the bytes apart. Ends the run for what is no sound update: "update file '...' is damaged:
  // ...".
  UpdateFile(const std::string& name, Bytes bytes);
  UpdateFile(const UpdateFile&) = delete;
  UpdateFile& operator=(const UpdateFile&) = delete;

  const std::string& name() const { return name_; }
  const Bytes& bytes() const { return bytes_; }
  const kelvane_bundle& bundle() const { return bundle_; }
  const PagePlan& plan() const { return plan_; }
  Bytes payload() const;
  const kelvane_payload_images& images() const { return images_; }
  ToldFile old_image() const { return told("old image", images_.old_size, images_.old_checksum); }
  ToldFile new_image() const { return told("new image", images_.new_size, images_.new_checksum); }
  // What the payload is: one of both.
  const std::optional<kelvane_dense_info>& dense() const { return dense_; }
  std::optional<PatchFile>& patch() { return patch_; }
  // The map of a dense payload.
  const std::vector<kelvane_dense_entry>& map() const { return map_; }

  // Pages of one checkpoint on a device whose decoder takes the update's model and none above; 0
  // where there is none.
  uint32_t checkpoint_pages() const;
  // All spare pages that a device needs.
  uint32_t spare_pages() const { return plan_.spare() + 2 * checkpoint_pages(); }

 private:
  ToldFile told(const char* what, uint32_t size, uint32_t checksum) const;
  void read_dense();
  void read_plan();
  [[noreturn]] void damaged(const char* what) const;

  std::string name_;
  Bytes bytes_;
  kelvane_bundle bundle_ = {};
  PagePlan plan_;
  kelvane_payload_images images_ = {};
  std::optional<kelvane_dense_info> dense_;
  std::optional<PatchFile> patch_;
  std::vector<kelvane_dense_entry> map_;
};

// Whether the bytes are to be taken for an update. A patch of version 0 has no magic of its own and
// may begin like one: what is no sound update, and can be read as a patch, is a patch.
bool is_update(const Bytes& bytes);

// Bytes that a checkpoint of a dense payload takes, and all that its decoder holds in RAM, the map
// included and the window not. On a 32-bit target it is a few bytes less.
uint32_t dense_state_size(uint8_t model);
uint32_t dense_memory(uint8_t model, uint32_t map_entries);

// The bytes as the device's reader takes them; they stay the caller's.
kelvane_source source_of(const Bytes& bytes);

}  // namespace kelpatch
