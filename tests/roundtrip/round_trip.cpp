#include "round_trip.h"

#include "applier.h"
#include "bd_checksum.h"
#include "captured_run.h"
#include "debug_print.h"
#include "diffout.h"
#include "diffshared.h"
#include "engine_settings.h"
#include "indgeninit.h"
#include "patch_buffer.h"
#include "reset_state.h"
#include "target_memory.h"
#include "temporary_directory.h"

namespace kelvane {

namespace {

constexpr size_t kFileHeaderSize = 20;  // of a version 1 file, in front of what a buffer holds

file_data loaded(Bytes& image, const char* name) {
  file_data record = {};
  record.name = name;
  record.bytes = image.data();
  record.size = static_cast<int32_t>(image.size());
  bd_checksum(image.data(), static_cast<uint32_t>(image.size()), &record.checksum);
  return record;
}

void apply_settings(const PatchOptions& options) {
  version = options.patch_version;
  incr_enabled = options.increments ? 1 : 0;
  use_fill_command = options.fill ? 1 : 0;
  compressed_substitutions = options.compression ? 1 : 0;
  min_compression_percent = options.min_percent;
  min_compression_length = options.min_length;
  substitution_splicing = options.splicing ? 1 : 0;
  relative_substitutions = options.relative ? 1 : 0;
  TargetIsBigEndian = options.big_endian ? 1 : 0;
}

// Compares in a fresh state and hands both records to `write`.
template <typename Write>
void compare(const ImagePair& pair, const PatchOptions& options, int32_t debug, MadePatch* made,
             Write write) {
  Bytes old_image(pair.old_image);  // memory of exactly this size
  Bytes new_image(pair.new_image);
  reset_all_state();
  gen_endian_init();
  apply_settings(options);
  debug_level = debug;
  const CapturedRun run = capture([&] {
    const file_data first = loaded(old_image, "old.bin");
    const file_data second = loaded(new_image, "new.bin");
    do_diff(first.bytes, 0, static_cast<uint32_t>(first.size), second.bytes, 0,
            static_cast<uint32_t>(second.size), options.blocksize, options.max_scan, 0);
    write(&first, &second);
  });
  made->messages = run.errors;
  made->ended = run.ended;
  reset_all_state();
}

const char* on_or_off(bool set) {
  return set ? "on" : "off";
}

}  // namespace

std::vector<std::string> arguments_for(const PatchOptions& options) {
  std::vector<std::string> arguments = {"-version", std::to_string(options.patch_version),
                                        "-noopt"};
  if (options.increments) {
    arguments.emplace_back("-inc");
  }
  if (options.fill) {
    arguments.emplace_back("-fill");
  }
  if (options.compression) {
    arguments.insert(arguments.end(),
                     {"-compressed_substitutions", "-min_compression_percent",
                      std::to_string(options.min_percent), "-min_compression_length",
                      std::to_string(options.min_length)});
  }
  arguments.insert(arguments.end(), {"-b", std::to_string(options.blocksize), "-s",
                                     std::to_string(options.max_scan)});
  return arguments;
}

std::string describe(const PatchOptions& options) {
  std::string text;
  for (const std::string& argument : arguments_for(options)) {
    text += argument + " ";
  }
  return text + "splicing " + on_or_off(options.splicing) + " relative " +
         on_or_off(options.relative) + (options.big_endian ? " big-endian" : " little-endian");
}

MadePatch make_patch_file(const ImagePair& pair, const PatchOptions& options, int32_t debug) {
  static const TemporaryDirectory directory;
  MadePatch made;
  compare(pair, options, debug, &made, [](const file_data* first, const file_data* second) {
    dump_to_file(first, second, directory.path("diff.out").c_str());
  });
  if (!made.ended) {
    made.file = directory.read("diff.out");
  }
  return made;
}

MadePatch make_patch_in_memory(const ImagePair& pair, const PatchOptions& options) {
  MadePatch made;
  compare(pair, options, 0, &made, [&made](const file_data* first, const file_data* second) {
    uint8_t* bytes = nullptr;
    uint32_t size = 0;
    dump_to_buf(first, second, &bytes, &size);
    made.buffer.assign(bytes, bytes + size);
  });
  return made;
}

std::optional<std::string> fault_in_patch(std::string_view patch_file, const ImagePair& pair,
                                          const PatchOptions& options) {
  const size_t new_size = pair.new_image.size();
  TargetMemory target(text_of(pair.old_image),
                      static_cast<uint32_t>(std::max(pair.old_image.size(), new_size)));
  OpenedPatch opened(patch_file,
                     options.big_endian ? KELVANE_V0_BIG_ENDIAN : KELVANE_V0_LITTLE_ENDIAN);
  const int code = opened.code != KELVANE_APPLY_OK
                       ? opened.code
                       : kelvane_apply_run(opened.applier(), target.access(), KELVANE_SKIP_NEW);
  if (code != KELVANE_APPLY_OK) {
    return std::string("the applier: ") + kelvane_apply_text(code) + ", at byte " +
           std::to_string(opened.applier()->error_position) + " of the patch, address " +
           std::to_string(opened.applier()->error_address);
  }
  if (target.outside != 0 || !target.guards_stand()) {
    return "the applier left the memory";
  }
  const std::string wanted = text_of(pair.new_image);
  const std::string result = target.contents().substr(0, new_size);
  for (size_t i = 0; i < new_size; ++i) {
    if (result[i] != wanted[i]) {
      return "the result differs from the new image at byte " + std::to_string(i);
    }
  }
  if (kelvane_apply_verify_new(opened.applier(), target.access()) != KELVANE_APPLY_OK) {
    return "the right result does not pass the checksum of the patch";
  }
  return std::nullopt;
}

std::optional<std::string> fault_in_round_trip(const ImagePair& pair, const PatchOptions& options) {
  const MadePatch as_file = make_patch_file(pair, options);
  const MadePatch in_memory = make_patch_in_memory(pair, options);
  for (const MadePatch* made : {&as_file, &in_memory}) {
    if (made->ended || !made->messages.empty()) {
      return "the run ended early or said: " + made->messages;
    }
  }
  const size_t header = options.patch_version == 0 ? 0 : kFileHeaderSize;
  if (as_file.file.size() < header || as_file.file.substr(header) != in_memory.buffer) {
    return "the patch made as a file and the one made in memory differ";
  }
  return fault_in_patch(as_file.file, pair, options);
}

}  // namespace kelvane
