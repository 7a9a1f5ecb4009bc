#include "patch_verify.h"

#include <algorithm>
#include <cinttypes>
#include <utility>

#include "loaded_image.h"
#include "output_file.h"
#include "update_trial.h"

namespace kelpatch {
namespace {

int read_bytes(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  const Bytes& memory = *static_cast<const Bytes*>(context);
  std::copy_n(memory.begin() + address, count, bytes);
  return 0;
}

int write_bytes(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
  Bytes& memory = *static_cast<Bytes*>(context);
  std::copy_n(bytes, count, memory.begin() + address);
  return 0;
}

uint32_t size_of(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

}  // namespace

void require_file_mode(PatchFile& patch) {
  const kelvane_patch_info& info = patch.info();
  if (info.memory_mode != 0) {
    fatal("'%s' is a patch for target memory, and only a patch for a file can be applied here",
          patch.name().c_str());
  }
  if (std::max(info.old_size, info.new_size) > kLargestFile) {
    fatal("'%s' is for a file of more than %u bytes", patch.name().c_str(), kLargestFile);
  }
  const char* const hint =
      info.version == 0 ? ": it may be for target memory or have another byte order" : "";
  const int code = patch.check_files();
  const kelvane_applier* const applier = patch.applier();
  if (code == KELVANE_APPLY_NEW_SIZE) {
    fatal("'%s' is for a new file of %" PRIu32 " bytes and writes nothing from offset %" PRIu32
          " on%s",
          patch.name().c_str(), info.new_size, applier->error_address, hint);
  }
  if (code != KELVANE_APPLY_OK) {
    fatal("'%s' changes the address 0x%" PRIx32 " (at offset %" PRIu32
          "), outside the old and the new file%s",
          patch.name().c_str(), applier->error_address, applier->error_position, hint);
  }
}

Bytes patched(PatchFile& patch, const std::string& old_name, Bytes contents,
              std::optional<uint32_t> told_max_size) {
  const kelvane_patch_info& info = patch.info();
  require_told(old_name, contents, patch.name(),
               {"old file", info.old_size, info.old_checksum, kelvane_apply_checksum});
  const uint32_t max_size = told_max_size.value_or(usual_max_size(info.old_size));
  if (info.new_size > max_size) {
    fatal("'%s' makes a file of %" PRIu32 " bytes, more than %" PRIu32
          "; if that is right, allow it by --max-size %" PRIu32,
          patch.name().c_str(), info.new_size, max_size, info.new_size);
  }
  contents.resize(std::max(info.old_size, info.new_size));
  const kelvane_region room = {0, size_of(contents)};
  const kelvane_memory memory = {&contents, read_bytes, write_bytes, &room, 1, info.old_size, 0};
  // All addresses lie inside and a vector can't fail, so only the last verification is left to.
  const int code = kelvane_apply_run(patch.applier(), &memory, KELVANE_SKIP_OLD);
  contents.resize(info.new_size);
  if (code != KELVANE_APPLY_OK) {
    mismatch("the result of '%s' has the checksum 0x%08" PRIx32 ", not 0x%08" PRIx32,
             patch.name().c_str(), kelvane_apply_checksum(0, contents.data(), size_of(contents)),
             info.new_checksum);
  }
  return contents;
}

namespace {

// A new file, and what the patch or the update tells of it.
struct Made {
  Bytes contents;
  ToldFile told;
};

// `new_image` is null where there is none yet. Linked images become what they load.
Made made_by(const std::string& patch_name, NamedImage old_image, NamedImage* new_image,
             const PatchOptions& options) {
  Bytes bytes = read_input(patch_name);
  if (is_update(bytes)) {
    const UpdateFile update(patch_name, std::move(bytes));
    load_linked(update.plan().page_size, old_image, new_image);
    return {updated(update, old_image.name, old_image.bytes, options.max_size), update.new_image()};
  }
  KnownSizes sizes = {size_of(old_image.bytes), {}};
  if (new_image != nullptr) {
    sizes.new_file = size_of(new_image->bytes);
  }
  PatchFile patch(patch_name, std::move(bytes), options.order, sizes);
  require_file_mode(patch);
  const kelvane_patch_info& info = patch.info();
  return {patched(patch, old_image.name, std::move(old_image.bytes), options.max_size),
          {"new file", info.new_size, info.new_checksum, kelvane_apply_checksum}};
}

}  // namespace

void apply_patch(const std::string& old_name, const std::string& patch_name,
                 const std::string& new_name, const PatchOptions& options) {
  refuse_inputs(new_name, {old_name, patch_name});
  // First, so that a place which can't be written is known before the work.
  OutputFile output(new_name);
  output.write(made_by(patch_name, {old_name, read_input(old_name)}, nullptr, options).contents);
  output.keep();
}

void verify_patch(const std::string& old_name, const std::string& new_name,
                  const std::string& patch_name, const PatchOptions& options) {
  NamedImage old_image = {old_name, read_input(old_name)};
  NamedImage new_image = {new_name, read_input(new_name)};
  const Made made = made_by(patch_name, std::move(old_image), &new_image, options);
  const Bytes& new_file = new_image.bytes;
  require_told(new_name, new_file, patch_name, made.told);
  // Equal checksums are not equal bytes.
  const auto place =
      std::mismatch(made.contents.begin(), made.contents.end(), new_file.begin()).first;
  if (place != made.contents.end()) {
    mismatch("'%s' differs from the result of '%s' at offset %td", new_name.c_str(),
             patch_name.c_str(), place - made.contents.begin());
  }
}

}  // namespace kelpatch
