#pragma once

#include <cstdarg>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "applier.h"

namespace kelpatch {

// Exit statuses, as cmp has them.
inline constexpr int kRight = 0;     // everything is as it should be
inline constexpr int kMismatch = 1;  // a file, a checksum or the result is not the right one
inline constexpr int kTrouble = 2;   // usage, a file that can't be read or written, a damaged patch

// Thrown to end a run: what stands behind "kelpatch: " on standard error, and the exit status.
struct Failure {
  int status;
  std::string message;
};

// End the run: with class fatal and status 2; the same with the text of errno added; with class
// error and status 1.
[[noreturn]] void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void fatal_errno(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void mismatch(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The text that printf or vprintf would write.
std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formatted_list(const char* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));

using Bytes = std::vector<uint8_t>;

// The most bytes that a file may have.
inline constexpr uint32_t kLargestFile = 2147483647;

// Reads an input file whole. Ends the run if it can't be opened or read ("unable to open input file
// '...'", "error reading input file '...'", both with the text of errno) or is too large.
Bytes read_input(const std::string& name);

// What a patch or an update may make of an old file of `old_size` bytes unless the command line
// says more: a damaged header must not fill a disk.
uint32_t usual_max_size(uint32_t old_size);

// What a patch or an update says of a file.
struct ToldFile {
  const char* what;  // "old file" and so on
  uint32_t size;
  uint32_t checksum;
  uint32_t (*sum)(uint32_t sum, const uint8_t* bytes, uint32_t count);
};

// Ends the run with status 1 unless `bytes`, those of `name`, have the size and the checksum that
// `patch_name` tells of them.
void require_told(const std::string& name, const Bytes& bytes, const std::string& patch_name,
                  const ToldFile& told);

// The byte order of a target, as the command line names it. A version 1 patch says it itself.
enum class ByteOrder { kFound, kLittle, kBig };

// What is known of the two files, to find the byte order of a version 0 patch by.
struct KnownSizes {
  std::optional<uint32_t> old_file;
  std::optional<uint32_t> new_file;
};

// A patch, read and found sound.
class PatchFile {
 public:
  // Reads and opens the patch. With kFound a version 0 patch is read in both byte orders, and the
  // one is taken in which most holds, in this order: sizes equal to the known ones, commands that
  // are sound, addresses inside the two files; then the smaller sizes, then little-endian. A
  // damaged patch ends the run. `memory` tells that a version 0 patch is one for target memory.
  PatchFile(const std::string& name, ByteOrder order, const KnownSizes& known, bool memory = false);
  // The same for bytes that were read already.
  PatchFile(const std::string& name, Bytes bytes, ByteOrder order, const KnownSizes& known,
            bool memory = false);

  // A patch in memory, of version 1, that is called `name` in words.
  PatchFile(const std::string& name, Bytes bytes);

  const std::string& name() const { return name_; }
  const kelvane_patch_info& info() const { return info_; }
  const Bytes& bytes() const { return bytes_; }
  uint32_t size() const { return static_cast<uint32_t>(bytes_.size()); }
  kelvane_applier* applier() { return &applier_; }
  // What kelvane_apply_check says of a file as long as the longer of the two. Where an address is
  // outside it, a version 0 patch was made for target memory.
  int check_files();

 private:
  // How well the patch, read in one byte order, goes with what is known.
  struct Rank {
    uint32_t merits;
    uint32_t longer_file;
  };
  void open(uint32_t flags);
  Rank rank(uint32_t flags, const KnownSizes& known);

  std::string name_;
  Bytes bytes_;
  kelvane_applier applier_ = {};
  kelvane_patch_info info_ = {};
};

}  // namespace kelpatch
