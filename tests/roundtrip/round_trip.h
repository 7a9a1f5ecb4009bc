#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "image_pair.h"

// From a pair of images to a patch, and back to the new image.
namespace kelvane {

// Everything that steers a comparison in file mode.
struct PatchOptions {
  int32_t patch_version = 1;
  bool increments = false;
  bool fill = true;
  bool compression = true;
  int32_t min_percent = 10;
  int32_t min_length = 50;
  uint16_t blocksize = 8;
  int32_t max_scan = 1000;
  // No option of the command line sets these.
  bool splicing = true;
  bool relative = true;
  bool big_endian = false;
};

// The options of the command line that ask for these; what has none is left out.
std::vector<std::string> arguments_for(const PatchOptions& options);
// All of them in words.
std::string describe(const PatchOptions& options);

// What making a patch gave.
struct MadePatch {
  std::string file;      // the patch file, or
  std::string buffer;    // the patch in memory
  std::string messages;  // what was written to standard error
  bool ended = false;    // the run ended before its time
};

// Compare the images in a fresh state of the engine and write a patch. A failed search does not end
// the run. `debug` is the debug level.
MadePatch make_patch_file(const ImagePair& pair, const PatchOptions& options, int32_t debug = 0);
MadePatch make_patch_in_memory(const ImagePair& pair, const PatchOptions& options);

// Carries out the patch on a memory that holds the old image and tells what is wrong with the
// result, if anything is.
std::optional<std::string> fault_in_patch(std::string_view patch_file, const ImagePair& pair,
                                          const PatchOptions& options);

// Makes the patch twice, once as a file and once in memory, tests that both are equal, and carries
// it out.
std::optional<std::string> fault_in_round_trip(const ImagePair& pair, const PatchOptions& options);

}  // namespace kelvane
